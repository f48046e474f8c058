#ifndef CVUTILS_NETWORK_H
#define CVUTILS_NETWORK_H

/// @file
/// What the utility library knows of the box's network.

#include <string>

namespace cv {

/// Fills `mac` with the text form of the interface's MAC address. False when it cannot be determined.
bool get_mac_address(const std::string& interface_name, std::string& mac);

} // namespace cv

#endif
