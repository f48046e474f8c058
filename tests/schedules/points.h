#ifndef POINTS_H
#define POINTS_H

/// @file
/// The functions of the system, at which another thread may go on, and what they hand over from thread to
/// thread.

namespace schedules {

/// An execution begins: there are no pipes.
void begin_points();

/// An execution has ended. Reports a failure when a pipe is open.
void end_points();

/// How many more blocks of memory were allocated than freed.
long allocated_blocks();

// ---- What the daemon of the execution learns, on the thread that does it.

void wake_up_written();
void wake_up_read();
/// The worker is about to wait for the next one.
void worker_waits();
void pause(unsigned int seconds);
/// The registration's flag, of an instrumented library.
void flag_loaded();
void flag_stored();

} // namespace schedules

#endif
