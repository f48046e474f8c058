#ifndef CVUTILS_STAND_IN_H
#define CVUTILS_STAND_IN_H

#include <optional>
#include <string>
#include <vector>

namespace kit {

// The controls of the stand-in for the utility library. Its functions record in the journal:
//   log LEVEL FUNCTION: MESSAGE       for a line that begins with "[FILE:LINE][FUNCTION()]: "
//   log LEVEL without prefix: TEXT    for any other line
//   log_json LEVEL TITLE|DOCUMENT
//   get_setting KEY DEFAULT
//   get_mac_address INTERFACE
//   cannot attach KEY                 when a member could not be attached

/// One line that was passed to cv::log::print(), taken apart.
struct LogLine {
    int destination;
    int level;
    std::string file;
    int line;
    std::string function;
    std::string message;
};

/// Everything as at the start: level 3, an empty settings store, the MAC address "0a:1b:2c:3d:4e:5f", no
/// failures, no log lines. The journal is not touched.
void reset_cvutils();

/// The log lines so far, in order.
std::vector<LogLine> log_lines();

/// Stores a setting.
void set_setting(const std::string& key, int value);
void set_setting(const std::string& key, const std::string& value);

/// What get_mac_address() answers; it fails without a value.
void set_mac_address(std::optional<std::string> mac);

/// Lets every attempt to attach a member of this name fail.
void fail_attach(const std::string& key);

} // namespace kit

#endif
