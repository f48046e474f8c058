#ifndef JOURNAL_H
#define JOURNAL_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

namespace fake_host {

/// What the fake host saw of the module, as short readable texts in the order in which it happened.
/// Any thread may call any member.
class Journal {
public:
    void record(std::string event);

    /// All events so far, or those that begin with one of the prefixes.
    std::vector<std::string> events(const std::vector<std::string>& prefixes = {""}) const;

    /// How often the event has happened.
    std::size_t count(const std::string& event) const;

    /// Waits until the event has happened `times` times since the last clear(). False when the deadline
    /// passes first: nothing that a test waits for takes that long, so the test has failed.
    bool await(const std::string& event, std::size_t times = 1,
               std::chrono::seconds deadline = std::chrono::seconds(8)) const;

    void clear();

private:
    std::size_t count_locked(const std::string& event) const;

    mutable std::mutex mutex;
    mutable std::condition_variable recorded;
    std::vector<std::string> list;
};

/// The one journal of the process. Never destroyed: threads may record while the process exits.
Journal& journal();

} // namespace fake_host

#endif
