#ifndef CVREGISTRATION_THREAD_H
#define CVREGISTRATION_THREAD_H

/// @file
/// The worker thread and how it is woken.

#include <thread>

namespace cv::registration {

class RegistrationHandler;

/// The worker thread on which a registration runs, and the two pipes through which other threads talk to it.
///
/// One byte on the run pipe makes the worker call the handler's run_state_machine() once; a byte on the stop
/// pipe makes it end. The pipes are the only synchronisation: what a thread writes before its run() is what
/// the worker reads after it has read the byte. Both pipes are non-blocking, so no writer ever waits for the
/// worker.
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

    /// Asks for one run of the state machine, from any thread. Returns 1, or -1 when the wake-up was dropped
    /// because the pipe is full.
    int run();

    /// Opens both pipes. On failure both are closed again and false is returned.
    bool init_pipes();

    /// Closes both ends of a pipe. The entries keep their values. In a pipe that was never opened the write
    /// end counts as descriptor 0.
    static void close_pipe(const int (&pipe)[2]);

    /// The worker's loop. `registration_thread` is the RegistrationThread; returns null when the worker ends.
    static void* thread_function(void* registration_thread);

    /// Read end, then write end; only the read end tells an unopened pipe. A byte makes the worker end.
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
