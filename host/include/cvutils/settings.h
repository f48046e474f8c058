#ifndef CVUTILS_SETTINGS_H
#define CVUTILS_SETTINGS_H

/// @file
/// The utility library's settings store.

#include <string>

/// The settings store.
namespace cv::setMgmt {

/// The integer stored under `key`, or `default_value` when there is none. Any thread may call it.
int getKeyValue(const std::string& key, int default_value);

/// The text stored under `key`, or `default_value` when there is none. Any thread may call it.
std::string getKeyValue(const std::string& key, const std::string& default_value);

} // namespace cv::setMgmt

#endif
