#ifndef LIBRARY_H
#define LIBRARY_H

/// @file
/// The handler library that the executions run.

#include <cstdint>
#include <string>
#include <vector>

#include "cvcloud/cvhandler_api.h"

namespace schedules {

/// Loads the library, or goes back to it. Ends the program when that cannot be.
void load_library(const std::string& path, bool has_broken_lines);

CvHandlerAPI& handler();

/// True when the library was compiled for the thread sanitizer.
bool instrumented();

/// Code of the library as its distance from the library's beginning, for addr2line.
std::uint32_t place_in_library(const void* code);

/// The names of the lines that the library can break; none in the module as it is.
std::vector<std::string> broken_lines();
/// Breaks one of them, and repairs all others.
void break_line(const std::string& name);

} // namespace schedules

#endif
