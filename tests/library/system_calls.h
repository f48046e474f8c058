#ifndef SYSTEM_CALLS_H
#define SYSTEM_CALLS_H

// The test program defines some of the functions that the handler library imports. The dynamic linker binds
// the library to them, as it would bind it to a daemon that replaces them:
//   sleep()                          records "sleep SECONDS" in the journal and returns at once
//   select()                         records "select", then waits as ever: the worker is done with a run
//   pipe2()                          works as ever, or fails with EMFILE
//   operator new(size_t, nothrow)    hands out memory that was dirty before, or none

/// Lets the next non-throwing allocation fail.
void fail_next_allocation();

/// Lets the next pipe2() fail.
void fail_next_pipe();

/// The block of the last non-throwing allocation that succeeded.
const unsigned char* last_allocation();

/// What memory is filled with before it is handed out.
constexpr unsigned char kDirt = 0xA5;

#endif
