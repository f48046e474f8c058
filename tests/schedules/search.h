#ifndef SEARCH_H
#define SEARCH_H

/// @file
/// A depth-first search through the schedules of a situation, which runs it anew for each, and does not try
/// two that differ in the order of independent steps alone: source sets and sleep sets (Abdulla, Aronis,
/// Jonsson, Sagonas: Optimal dynamic partial order reduction, 2014).

#include <array>
#include <cstddef>
#include <string>

#include "scheduler.h"

namespace schedules {

/// One choice with what is known of it.
struct Node {
    std::array<Step, kThreads> next;
    unsigned int enabled;
    /// Whose step here is covered by an earlier schedule, though another thread goes first.
    unsigned int sleep;
    /// Who has to be tried, and who was.
    unsigned int backtrack;
    unsigned int done;
    Thread chosen;
    /// Of what the step waited for, how much more there was than it needs.
    int spare;
    /// How many steps of each thread happen before this one, itself included.
    std::array<int, kThreads> clock;
};

/// Keeps all it knows in itself, without pointers into the heap: in shared memory it outlives a process that
/// an execution has ended.
class Search final : public Chooser {
public:
    /// Ends the execution that ran last, whether it came to its end or not, and prepares the next. False when
    /// there is none.
    bool next_execution();

    Thread choose(const Choice& choice) override;

    /// The choices so far, as a text: "3d2w" is three steps of the dispatch thread and two of the worker.
    std::string schedule() const;

    /// Executions, and those of them that only repeat others: the reduction noticed when they had begun.
    std::size_t executions = 0;
    std::size_t repeated = 0;

private:
    void begin_node(const Choice& choice);
    void find_clock(std::size_t step);
    void find_races(std::size_t step);
    void add_reversal(std::size_t first, std::size_t step);

    bool happens_before(std::size_t first, std::size_t step) const {
        const Thread thread = nodes[first].chosen;
        return nodes[step].clock[thread] >= nodes[first].clock[thread];
    }

    std::array<Node, 3001> nodes;
    std::size_t count = 0;
    /// Where the execution is.
    std::size_t depth = 0;
    /// The first choice that differs from the execution before.
    std::size_t fresh = 0;
    /// Where the execution began to repeat others.
    std::size_t cut = SIZE_MAX;
};

} // namespace schedules

#endif
