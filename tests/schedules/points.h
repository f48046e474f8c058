#ifndef POINTS_H
#define POINTS_H

/// @file
/// The functions of the system, at which another thread may go on, and what they hand over from thread to
/// thread.

namespace schedules {

/// Learns what the module does, on the thread that does it.
class Watcher {
public:
    /// A byte of the run pipe.
    virtual void wake_up_written() = 0;
    virtual void wake_up_read() = 0;
    /// The worker is about to wait for one.
    virtual void worker_waits() = 0;
    virtual void pauses(unsigned int seconds) = 0;
    /// The registration's flag, of an instrumented library.
    virtual void flag_loaded() = 0;
    virtual void flag_stored() = 0;

protected:
    ~Watcher() = default;
};

/// An execution begins: there are no pipes.
void begin_points(Watcher& watcher);

/// An execution has ended. Reports a failure when a pipe is open.
void end_points();

/// How many more blocks of memory were allocated than freed.
long allocated_blocks();

/// The flag's loads and stores: points, and a hand-over.
void load_flag();
void store_flag();

} // namespace schedules

#endif
