#include "journal.h"

#include <algorithm>
#include <utility>

namespace kit {

void Journal::record(std::string what) {
    const InHost host;
    record(Event{std::move(what)});
}

void Journal::record(Event event) {
    const InHost host;
    const std::lock_guard<std::mutex> lock(mutex);
    event.role = thread_role();
    list.push_back(std::move(event));
    recorded.notify_all();
}

std::size_t Journal::begin(std::string what) {
    const InHost host;
    const std::lock_guard<std::mutex> lock(mutex);
    list.push_back({std::move(what), thread_role(), true});
    recorded.notify_all();
    return cleared + list.size() - 1;
}

void Journal::returned(std::size_t call, long result, int error) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (call >= cleared) {
        Event& event = list[call - cleared];
        event.pending = false;
        event.result = result;
        event.error = error;
    }
}

std::vector<std::string> Journal::events(const std::vector<std::string>& prefixes) const {
    const InHost host;
    const std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::string> found;
    for (const Event& event : list) {
        if (std::any_of(prefixes.begin(), prefixes.end(), [&](const std::string& prefix) {
                return event.what.compare(0, prefix.length(), prefix) == 0;
            })) {
            found.push_back(event.what);
        }
    }
    return found;
}

std::deque<Event> Journal::events_of(Role role, std::size_t first) const {
    const InHost host;
    const std::lock_guard<std::mutex> lock(mutex);
    std::deque<Event> found;
    for (const Event& event : list) {
        if (event.role != role) {
            continue;
        }
        if (first > 0) {
            --first;
        } else {
            found.push_back(event);
        }
    }
    return found;
}

std::size_t Journal::count(const std::string& what) const {
    const std::lock_guard<std::mutex> lock(mutex);
    return count_locked(what);
}

std::size_t Journal::count_locked(const std::string& what) const {
    return static_cast<std::size_t>(
        std::count_if(list.begin(), list.end(), [&](const Event& event) { return event.what == what; }));
}

bool Journal::await(const std::string& what, std::size_t times, std::chrono::seconds deadline) const {
    std::unique_lock<std::mutex> lock(mutex);
    return recorded.wait_for(lock, deadline, [&] { return count_locked(what) >= times; });
}

void Journal::clear() {
    const std::lock_guard<std::mutex> lock(mutex);
    cleared += list.size();
    list.clear();
}

Journal& journal() {
    static auto* const instance = new Journal;
    return *instance;
}

} // namespace kit
