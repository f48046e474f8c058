#ifndef CVREGISTRATION_LOG_H
#define CVREGISTRATION_LOG_H

#include "cvutils/log.h"

// Levels of the module's log lines.
//   0  a failure
//   1  a refusal, or retries exhausted
//   2  progress, documents, requests that could not be sent
//   3  detail

/// Logs one line: CV_LOG(level, format, arguments...), printf-style, on any thread.
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
