// cvex doctor: looks at what a registration needs and says what is missing.
#ifndef CVEX_DOCTOR_H
#define CVEX_DOCTOR_H

#include <chrono>
#include <string>

namespace cvex {

/// Prints a line for each thing that a registration needs, with what to do where it is missing. Returns
/// whether all of them are there. The daemon and the cloud have `timeout` each to answer.
bool examine(const std::string& run_directory, std::chrono::milliseconds timeout);

} // namespace cvex

#endif
