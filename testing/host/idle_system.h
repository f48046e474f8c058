#ifndef IDLE_SYSTEM_H
#define IDLE_SYSTEM_H

#include <atomic>

#include "lean_host.h"
#include "system_calls.h"

namespace kit {

/// The system for a program with one worker: sleep() returns at once, and `idle` is signalled by the worker
/// each time that it is about to wait for a wake-up, the first one included.
class IdleSystem : public System {
public:
    unsigned int sleep(unsigned int seconds) override;
    int pipe2(int* ends, int flags) override;
    int select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout) override;

    Signal idle;
    /// When set, the next select() waits for it after it has signalled `idle`.
    std::atomic<const Signal*> hold{nullptr};
    /// The pipe that was opened last, a module's run pipe.
    int run_pipe[2] = {-1, -1};
};

/// The program's, put in front of the system at its first use.
IdleSystem& idle_system();

} // namespace kit

#endif
