#include "system_calls.h"

#include <dlfcn.h>
#include <sys/select.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <new>
#include <string>

#include "journal.h"

namespace {

std::atomic<bool> allocation_fails{false};
std::atomic<bool> pipe_fails{false};
std::atomic<const unsigned char*> last_block{nullptr};

} // namespace

// What clang's thread sanitizer, which is part of the program, would have in the place of pipe2(): it has to
// see every pipe. That of g++ is a library, and the next one in line.
extern "C" int __interceptor_pipe2(int ends[2], int flags) __attribute__((weak));

void fail_next_allocation() {
    allocation_fails = true;
}

void fail_next_pipe() {
    pipe_fails = true;
}

const unsigned char* last_allocation() {
    return last_block;
}

unsigned int sleep(unsigned int seconds) {
    fake_host::journal().record("sleep " + std::to_string(seconds));
    return 0;
}

int select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout) {
    static const auto next = reinterpret_cast<decltype(&select)>(dlsym(RTLD_NEXT, "select"));
    fake_host::journal().record("select");
    return next(count, readable, writable, exceptional, timeout);
}

int pipe2(int ends[2], int flags) {
    static const auto next = __interceptor_pipe2 != nullptr
                                 ? &__interceptor_pipe2
                                 : reinterpret_cast<decltype(&pipe2)>(dlsym(RTLD_NEXT, "pipe2"));
    if (pipe_fails.exchange(false)) {
        errno = EMFILE;
        return -1;
    }
    return next(ends, flags);
}

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    if (allocation_fails.exchange(false)) {
        return nullptr;
    }
    // From the throwing form, so that the sanitizers find allocation and deletion matched.
    auto* const block = static_cast<unsigned char*>(::operator new(size));
    std::memset(block, kDirt, size);
    last_block = block;
    return block;
}
