#ifndef FAKE_CVUTILS_H
#define FAKE_CVUTILS_H

#include <optional>
#include <string>
#include <vector>

namespace fake_host {

// The controls of the fake utility library. Its functions record in the journal:
//   log LEVEL FUNCTION: MESSAGE       for a line that begins with "[FILE:LINE][FUNCTION()]: "
//   log LEVEL without prefix: TEXT    for any other line
//   log_json LEVEL TITLE|DOCUMENT
//   get_setting KEY DEFAULT
//   get_mac_address INTERFACE

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

} // namespace fake_host

#endif
