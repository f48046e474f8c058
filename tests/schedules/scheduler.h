#ifndef SCHEDULER_H
#define SCHEDULER_H

/// @file
/// Runs the threads of an execution one at a time. Each is a coroutine of the one thread of the process, so
/// an execution is repeated exactly by repeating its choices.

#include <array>
#include <cstdint>
#include <functional>
#include <string>

namespace schedules {

/// Who runs. `second` is another thread of a daemon that delivers commands on two.
enum Thread : int { dispatch, worker, callback, second, kThreads };

/// A letter for each, as schedules are written.
constexpr char kLetters[] = "dwcs";

/// What steps use, as sets: steps of two threads commute unless one writes what the other uses.
using Objects = std::uint32_t;
enum Object : Objects {
    kStopPipe = 1,
    kRunPipe = 2,
    /// The host's queue of requests, and whether it still answers them.
    kRequests = 4,
    /// The callbacks that are running.
    kCallbacks = 8,
    /// What was published and replied.
    kExchange = 16,
    /// The registration object and its pipes exist.
    kObject = 32,
    /// The registration's flag, in an instrumented library.
    kFlag = 64,
    /// In a library that is not instrumented, for the accesses to memory that are not seen: what a thread
    /// does behind a write, and behind a request, may come before or after the run and the callback that they
    /// cause; the flag is cleared behind the last message of a run.
    kBehindWrite = 128,
    kBehindRequest = 256,
    kBusy = 512,
    /// The beginning and the end of each thread: kLife << thread.
    kLife = 1024,
};

/// What a thread is about to do, up to its next point.
struct Step {
    const char* name = "";
    Objects reads = 0;
    Objects writes = 0;
    /// For a step that waits: on what, and how much of that is there. Nothing takes it away but the step
    /// itself.
    Objects waits = 0;
    int (*available)() = nullptr;
};

bool independent(const Step& one, const Step& other);

/// The threads at a choice; sets of threads have bit 1 << thread.
struct Choice {
    std::array<Step, kThreads> next;
    unsigned int enabled;
    Thread last;
};

/// Decides who goes on.
class Chooser {
public:
    virtual Thread choose(const Choice& choice) = 0;

protected:
    ~Chooser() = default;
};

/// Objects that no step is to name: set once, before the first execution.
extern Objects ignored;

/// Runs `body` as the dispatch thread, and what it starts, until all of them have ended. Reports a failure
/// when none can go on, or when they do not end.
void execute(const std::function<void()>& body, Chooser& chooser);

/// True within execute().
bool executing();

Thread running();
bool has_ended(Thread thread);

/// Lets another thread begin; it has not begun before in this execution.
void start(Thread thread, const std::function<void()>& body);

/// Another thread may go on here. Returns when the caller may take the step.
void point(const Step& step);

/// Reports what this execution shows to be wrong, and ends the process.
[[noreturn]] void fail(const std::string& message);

} // namespace schedules

#endif
