#ifndef CVCLOUDD_LOG_LINE_H
#define CVCLOUDD_LOG_LINE_H

#include <string>

#include "cvutils/log.h"

namespace cvcloudd {

/// Writes a line of the daemon's own to the process's log, when the level is admitted. Any thread may call
/// it.
inline void log_line(int level, const std::string& text) {
    if (level <= __atomic_load_n(&cv::log::current_level, __ATOMIC_RELAXED)) {
        cv::log::print(0, level, ("cvcloudd: " + text).c_str());
    }
}

} // namespace cvcloudd

#endif
