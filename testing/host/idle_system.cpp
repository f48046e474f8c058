#include "idle_system.h"

#include <algorithm>

namespace kit {

unsigned int IdleSystem::sleep(unsigned int /*seconds*/) {
    return 0;
}

int IdleSystem::pipe2(int* ends, int flags) {
    const int result = System::pipe2(ends, flags);
    std::copy_n(ends, 2, run_pipe);
    return result;
}

int IdleSystem::select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout) {
    static thread_local bool woken = true;
    if (woken) {
        // Taken before the signal: what is asked for after it is meant for the next time.
        const Signal* const resume = hold.exchange(nullptr);
        idle.signal();
        if (resume != nullptr) {
            resume->wait();
        }
    }
    const int result = System::select(count, readable, writable, exceptional, timeout);
    woken = result > 0;
    return result;
}

IdleSystem& idle_system() {
    static auto* const instance = [] {
        auto* const created = new IdleSystem;
        put_in_front(created);
        return created;
    }();
    return *instance;
}

} // namespace kit
