#include "cvcloudd/readiness.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "cvcloudd/log_line.h"

namespace cvcloudd {

// libsystemd has this function, too. With the five libraries behind it, it would add 2.3 MB to a box.
void report_readiness() {
    static constexpr char message[] = "READY=1";
    const char* const name = std::getenv("NOTIFY_SOCKET");
    if (name == nullptr) {
        return;
    }
    sockaddr_un address{};
    const std::size_t length = std::strlen(name);
    errno = ENAMETOOLONG;
    const int descriptor =
        length < sizeof address.sun_path ? socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0) : -1;
    bool sent = false;
    if (descriptor != -1) {
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, name, length);
        if (name[0] == '@') {
            address.sun_path[0] = '\0'; // A socket in the abstract name space.
        }
        const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
        sent = sendto(descriptor, message, sizeof message - 1, MSG_NOSIGNAL,
                      reinterpret_cast<const sockaddr*>(&address), size) != -1;
    }
    if (!sent) {
        log_line(0, std::string("cannot report readiness to NOTIFY_SOCKET ") + name + ": " +
                        std::strerror(errno));
    }
    if (descriptor != -1) {
        close(descriptor);
    }
}

} // namespace cvcloudd
