// A file of one input, for what reads files by their path.
#ifndef MEMORY_FILE_H
#define MEMORY_FILE_H

#include <cstddef>
#include <cstdint>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

namespace fuzz {

class MemoryFile {
public:
    MemoryFile(const std::uint8_t* bytes, std::size_t size) : descriptor(memfd_create("input", MFD_CLOEXEC)) {
        for (std::size_t written = 0; written < size;) {
            const ssize_t count = write(descriptor, bytes + written, size - written);
            written += count > 0 ? static_cast<std::size_t>(count) : 0;
        }
    }
    ~MemoryFile() {
        close(descriptor);
    }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    std::string path() const {
        return "/proc/self/fd/" + std::to_string(descriptor);
    }

private:
    const int descriptor;
};

} // namespace fuzz

#endif
