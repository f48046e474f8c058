#include "cvutils/network.h"

#include <fstream>

#include "cvutils/settings.h"

namespace cv {

bool get_mac_address(const std::string& interface_name, std::string& mac) {
    // A desk seldom has the box's interfaces: those that the settings store describes come first.
    const std::string simulated = setMgmt::getKeyValue("/network/interfaces/" + interface_name + "/mac", "");
    if (!simulated.empty()) {
        mac = simulated;
        return true;
    }
    std::ifstream file("/sys/class/net/" + interface_name + "/address");
    std::string address;
    if (!std::getline(file, address) || address.empty()) {
        return false;
    }
    mac = address;
    return true;
}

} // namespace cv
