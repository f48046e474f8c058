#ifndef CVREGISTRATION_THREAD_H
#define CVREGISTRATION_THREAD_H

/// @file
/// The worker thread and how it is woken.

#include <thread>

namespace cv::registration {

class RegistrationHandler;

/// The worker thread of a registration, and the two pipes that wake it and end it.
///
/// For each byte on the run pipe the worker runs the state machine once; it ends when there is a byte on the
/// stop pipe. There is no other synchronisation: what a thread writes before its run(), the worker sees once
/// it has read the byte. Both pipes are non-blocking, so no writer ever waits for the worker.
class RegistrationThread {
public:
    /// Opens the pipes and starts the worker, which sleeps until the first run(). Called once, on the
    /// daemon's thread. `registration_handler` is not owned and must outlive the worker.
    ///
    /// False when the pipes cannot be created. Throws std::system_error when the thread cannot be started;
    /// uninit() then still closes the pipes.
    bool init(RegistrationHandler* registration_handler);

    /// Stops and joins the worker if it was started, then closes the pipes. Called once, on the daemon's
    /// thread. Waits for a run of the state machine to return, with all its pauses; run bytes that are still
    /// unread are abandoned.
    void uninit();

    /// Asks for one run of the state machine, from any thread. Returns what write_byte() does: 1, or -1 when
    /// the wake-up is lost.
    int run();

    /// Opens both pipes. On failure both are closed again and false is returned.
    bool init_pipes();

    /// Closes both ends of a pipe, but none that is -1. The entries keep their values.
    static void close_pipe(const int (&pipe)[2]);

    /// The worker's loop, in the form of a POSIX thread's entry: any thread can run it, a test's too.
    /// `registration_thread` is the RegistrationThread; returns null when the worker ends.
    static void* thread_function(void* registration_thread);

    /// Read end, then write end: -1 and 0 until it is opened. That close_pipe() then closes descriptor 0 is
    /// fixed behaviour, which docs/host-hazards.md describes. A byte makes the worker end.
    int stop_pipe[2] = {-1};
    /// As stop_pipe. Each byte makes the worker run the state machine once.
    int run_pipe[2] = {-1};
    /// Joined by uninit().
    std::thread worker;
    /// The worker was started; uninit() leaves it set.
    bool started = false;
    /// Whose state machine the worker runs. Not owned; set before the worker starts.
    RegistrationHandler* handler = nullptr;
};

} // namespace cv::registration

#endif
