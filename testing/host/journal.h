#ifndef JOURNAL_H
#define JOURNAL_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "process.h"

namespace kit {

/// One thing that the module did.
struct Event {
    std::string what;
    Role role = Role::worker;
    /// What came of a call. It has not returned while `pending` is set.
    bool pending = false;
    long result = 0;
    int error = 0;
    /// The document or text that was made, where it is not the one that should have been.
    std::string mutilated = {};
};

/// What the host saw of the module, as short readable texts in the order in which it happened.
/// Any thread may call any member.
class Journal {
public:
    void record(std::string what);
    /// An event with its outcome.
    void record(Event event);
    /// Records a call that begins, for returned().
    std::size_t begin(std::string what);
    /// Notes what came of a call, unless the journal has been cleared since.
    void returned(std::size_t call, long result, int error);

    /// All events so far, or those that begin with one of the prefixes.
    std::vector<std::string> events(const std::vector<std::string>& prefixes = {""}) const;

    /// The events of one kind of thread but for its first ones, with what came of them.
    std::deque<Event> events_of(Role role, std::size_t first = 0) const;

    /// How often the event has happened.
    std::size_t count(const std::string& what) const;

    /// Waits until the event has happened `times` times since the last clear(). False when the deadline
    /// passes first: nothing that a test waits for takes that long, so the test has failed.
    bool await(const std::string& what, std::size_t times = 1,
               std::chrono::seconds deadline = std::chrono::seconds(8)) const;

    void clear();

private:
    std::size_t count_locked(const std::string& what) const;

    mutable std::mutex mutex;
    mutable std::condition_variable recorded;
    std::deque<Event> list;
    /// Events that were cleared; what begin() returned is counted from the first of all.
    std::size_t cleared = 0;
};

/// The one journal of the process. Never destroyed: threads may record while the process exits.
Journal& journal();

} // namespace kit

#endif
