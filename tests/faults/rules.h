#ifndef RULES_H
#define RULES_H

#include <array>
#include <cstddef>
#include <deque>
#include <string>
#include <vector>

#include "faulty_system.h"
#include "oracle.h"

/// A command of a scenario.
struct Command {
    std::string name;
    std::string payload;
    int type = 2;
    unsigned long long request_id = 0;
    /// Its requests stay unanswered until the next command has been delivered.
    bool hold = false;
};

/// The oracle, and the order of the module's calls around what it says: which call has to come next on which
/// thread, given what came of the calls before. Every member ends the program when the journal differs.
class Rules : public kit::Oracle {
public:
    using Oracle::Oracle;

    void init(int result, bool threw);
    void uninit();
    void deliver(const Command& command);
    /// What the callback thread and then the worker did with these answers, up to the next request or the
    /// end. The first one was given to a request that was outstanding.
    void answer();

    /// Answers that were given to requests, oldest first.
    std::deque<std::pair<std::string, std::uint32_t>> answers;
    /// An answer comes before send_request() returns.
    bool answers_inside = false;

    bool ready = false;
    bool worker_ended = false;
    int dropped_wake_ups = 0;

private:
    json_t* parse(const std::string& text) override;
    std::optional<std::string> write(std::initializer_list<Member> members) override;
    bool has_block() override;
    bool writes_byte() override;

    kit::Event next(const std::string& what);
    bool comes(const std::string& beginning) const;
    /// What the oracle's effects since the last call say, and the event of the last one.
    kit::Event follow_effects();
    void begin(kit::Role of);
    void expect_nothing();
    void close_pipes();
    bool write_byte(const std::array<int, 2>& pipe);
    void respond_next();
    void follow_worker();
    void follow_run();

    kit::Role role = kit::Role::daemon;
    std::deque<kit::Event> trace;
    std::size_t taken[3] = {};
    std::array<int, 2> stop_pipe = {-1, 0};
    std::array<int, 2> run_pipe = {-1, 0};
    bool created = false;
    bool stop_written = false;
};

#endif
