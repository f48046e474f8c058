#include "journal.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace fake_host {

void Journal::record(std::string event) {
    const std::lock_guard<std::mutex> lock(mutex);
    list.push_back(std::move(event));
    recorded.notify_all();
}

std::vector<std::string> Journal::events(const std::vector<std::string>& prefixes) const {
    const std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::string> found;
    std::copy_if(list.begin(), list.end(), std::back_inserter(found), [&](const std::string& event) {
        return std::any_of(prefixes.begin(), prefixes.end(), [&](const std::string& prefix) {
            return event.compare(0, prefix.length(), prefix) == 0;
        });
    });
    return found;
}

std::size_t Journal::count(const std::string& event) const {
    const std::lock_guard<std::mutex> lock(mutex);
    return count_locked(event);
}

std::size_t Journal::count_locked(const std::string& event) const {
    return static_cast<std::size_t>(std::count(list.begin(), list.end(), event));
}

bool Journal::await(const std::string& event, std::size_t times, std::chrono::seconds deadline) const {
    std::unique_lock<std::mutex> lock(mutex);
    return recorded.wait_for(lock, deadline, [&] { return count_locked(event) >= times; });
}

void Journal::clear() {
    const std::lock_guard<std::mutex> lock(mutex);
    list.clear();
}

Journal& journal() {
    static auto* const instance = new Journal;
    return *instance;
}

} // namespace fake_host
