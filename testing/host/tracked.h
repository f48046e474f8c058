#ifndef TRACKED_H
#define TRACKED_H

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>

namespace kit {

/// Things of one kind that are alive. Without a lock or an allocation: the operators new and delete use it,
/// on all threads and before main().
class Tracked {
public:
    constexpr Tracked() = default;

    void add(const void* address) {
        if (!exchange(nullptr, address)) {
            std::abort(); // A test that needs more has to raise the limit.
        }
    }

    /// True when it was alive.
    bool remove(const void* address) {
        return address != nullptr && exchange(address, nullptr);
    }

    int count() const {
        return static_cast<int>(std::count_if(entries.begin(), entries.end(),
                                              [](const auto& entry) { return entry.load() != nullptr; }));
    }

private:
    bool exchange(const void* before, const void* after) {
        return std::any_of(entries.begin(), entries.end(), [before, after](auto& entry) {
            const void* expected = before;
            return entry.compare_exchange_strong(expected, after);
        });
    }

    std::array<std::atomic<const void*>, 64> entries = {};
};

} // namespace kit

#endif
