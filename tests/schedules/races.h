#ifndef RACES_H
#define RACES_H

/// @file
/// Finds data races with vector clocks: two accesses to a byte, one of them a write, that nothing orders. The
/// library that was compiled with -fsanitize=thread calls the functions behind this (__tsan_read4() and so
/// on), which take the place of the compiler's own run-time.

#include <array>
#include <cstddef>
#include <cstdint>

#include "scheduler.h"

namespace schedules {

/// What each thread had done when something was handed over.
using Clock = std::array<std::uint16_t, kThreads>;

/// Forgets all accesses and hand-overs: an execution begins.
void forget_accesses();

/// The running thread hands over what it has done so far, by leaving its clock somewhere.
Clock release();

/// The running thread takes over what was done at that clock.
void acquire(const Clock& clock);

/// An access by the running thread, with that code of the library, or null for the host's. Reports a failure
/// when it races with an earlier one, and when the memory was freed.
void access(const void* address, std::size_t size, bool write, const void* code);

/// The running thread frees a block, which is not used again in this execution. Reports a failure when
/// nothing orders that with an earlier access, and when the block was freed before.
void free_block(const void* address, std::size_t size);

} // namespace schedules

#endif
