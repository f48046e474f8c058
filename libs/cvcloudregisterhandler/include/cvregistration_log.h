#ifndef CVREGISTRATION_LOG_H
#define CVREGISTRATION_LOG_H

/// @file
/// The one way in which the module writes log lines.

#include "cvutils/log.h"

// The source file's base name, known to the compiler. GCC has the macro from version 12 on.
#ifdef __FILE_NAME__
#define CV_FILE_NAME __FILE_NAME__
#else
namespace cv::registration {

/// What follows the last slash of a path.
constexpr const char* base_name(const char* path) {
    const char* name = path;
    for (; *path != '\0'; ++path) {
        if (*path == '/') {
            name = path + 1;
        }
    }
    return name;
}

} // namespace cv::registration

/// The source file's base name.
#define CV_FILE_NAME (cv::registration::base_name(__FILE__))
#endif

/// Logs one line: CV_LOG(level, format, arguments...), printf-style, on any thread.
///
/// The levels: 0 failures; 1 refused commands, and steps without a try left; 2 what a registration does, its
/// documents, and requests that were not sent; 3 everything else. A line is collected in 512 bytes on the
/// stack.
///
/// The arguments are evaluated only when the level is admitted. An argument that reads errno reads it too
/// late: copy it first. The level is read atomically since the logger may change it on another thread.
#define CV_LOG(line_level, ...)                                                                              \
    do {                                                                                                     \
        if (__atomic_load_n(&cv::log::current_level, __ATOMIC_RELAXED) >= (line_level)) {                    \
            constexpr const char* log_file = CV_FILE_NAME;                                                   \
            char log_buffer[512];                                                                            \
            cv::MemoryStream log_line(log_buffer, sizeof log_buffer);                                        \
            log_line.print("[%s:%d][%s()]: ", log_file, __LINE__, __func__);                                 \
            log_line.print(__VA_ARGS__);                                                                     \
            cv::log::print(0, (line_level), log_line.text());                                                \
        }                                                                                                    \
    } while (false)

#endif
