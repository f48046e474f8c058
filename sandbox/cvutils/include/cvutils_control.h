#ifndef CVUTILS_CONTROL_H
#define CVUTILS_CONTROL_H

#include <functional>
#include <string>
#include <string_view>

namespace cv::log {

/// Receives every line that the process logs, as it is logged, on the thread that logs it.
using Listener = std::function<void(int level, const char* line)>;

/// Tells `listener` each line from now on; an empty one ends it. Called while no other thread logs.
void set_listener(Listener listener);

/// From now on every line, also as the listener gets it, has "***" in place of each token that
/// learn_tokens() has found. Called while no other thread logs.
void mask_tokens();

/// Remembers the values of the members whose name ends in "token" in a text that is JSON, or was meant to
/// be. Does nothing unless tokens are masked. Any thread may call it.
void learn_tokens(std::string_view text);

} // namespace cv::log

namespace cv::setMgmt {

/// Makes the JSON file at `path`, one object of key to value, the settings store of the process. Without a
/// store every key has its default. The file is read anew at each getKeyValue(), so an edit is seen by the
/// next reader.
///
/// Called once, before any thread that reads settings is started. Returns an empty text, or what is wrong
/// with the file, with its name and line.
std::string use_settings_file(const std::string& path);

} // namespace cv::setMgmt

#endif
