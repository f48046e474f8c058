#include "common/process.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace sandbox {

void prepare_process(int descriptors) {
    umask(S_IRWXG | S_IRWXO);
    // A log whose reader has gone, or a file that may not grow, must not end the process.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    std::vector<int> opened;
    int error = 0;
    while (error == 0 && opened.size() < static_cast<std::size_t>(descriptors)) {
        const int descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (descriptor == -1) {
            error = errno;
        } else {
            opened.push_back(descriptor);
        }
    }
    for (const int descriptor : opened) {
        close(descriptor);
    }
    if (error != 0) {
        throw std::runtime_error("cannot open " + std::to_string(descriptors) + " descriptors but only " +
                                 std::to_string(opened.size()) + ": " + std::strerror(error) +
                                 "; raise ulimit -n");
    }
}

} // namespace sandbox
