#ifndef CVREGISTRATION_LOG_H
#define CVREGISTRATION_LOG_H

/// @file
/// The one way in which the module writes log lines.

#include "cvutils/log.h"

/// Logs one line: CV_LOG(level, format, arguments...), printf-style, on any thread.
///
/// Level 0 is for a failure, 1 for a refusal or exhausted retries, 2 for progress, documents and requests
/// that could not be sent, 3 for detail. A line is collected in 512 bytes on the stack.
///
/// The arguments are evaluated only when the level is admitted. An argument that reads errno reads it too
/// late: copy it first. The level is read atomically since the logger may change it on another thread.
#define CV_LOG(line_level, ...)                                                                              \
    do {                                                                                                     \
        if (__atomic_load_n(&cv::log::current_level, __ATOMIC_RELAXED) >= (line_level)) {                    \
            char log_buffer[512];                                                                            \
            cv::MemoryStream log_line(log_buffer, sizeof log_buffer);                                        \
            log_line.print("[%s:%d][%s()]: ", __FILE_NAME__, __LINE__, __func__);                            \
            log_line.print(__VA_ARGS__);                                                                     \
            cv::log::print(0, (line_level), log_line.text());                                                \
        }                                                                                                    \
    } while (false)

#endif
