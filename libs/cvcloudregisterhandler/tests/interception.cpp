#include "interception.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <new>
#include <set>
#include <string>
#include <utility>

#include <jansson.h>

#include "journal.h"

using fake_host::journal;

namespace {

struct PipeResult {
    enum { pass, fail, descriptors } kind;
    int error;
    int read_end;
    int write_end;
};

struct Scripts {
    std::deque<PipeResult> pipe2;
    std::deque<int> poll;
    std::deque<int> select_errors;
    std::deque<int> read;
    std::deque<int> write;
    std::function<void()> write_hook;
    std::function<void()> sleep_hook;
    std::set<int> unreal_descriptors = {0};
    interception::SelectCall last_select;
};

std::mutex mutex;

Scripts& scripts() {
    static auto* const instance = new Scripts;
    return *instance;
}

template <typename Value>
bool take(std::deque<Value>& values, Value& value) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (values.empty()) {
        return false;
    }
    value = values.front();
    values.pop_front();
    return true;
}

// Atomic and constant-initialised: the operators new and delete run on all threads and before main().
std::atomic<bool> new_fails{false};
std::atomic<bool> json_object_fails{false};
std::atomic<bool> json_dumps_fails{false};

/// Things of one kind that are alive.
class Tracked {
public:
    constexpr Tracked() = default;

    void add(const void* address) {
        for (std::atomic<const void*>& entry : entries) {
            const void* unused = nullptr;
            if (entry.compare_exchange_strong(unused, address)) {
                return;
            }
        }
        std::abort(); // A test that needs more has to raise the limit.
    }

    /// True when it was alive.
    bool remove(const void* address) {
        for (std::atomic<const void*>& entry : entries) {
            const void* expected = address;
            if (address != nullptr && entry.compare_exchange_strong(expected, nullptr)) {
                return true;
            }
        }
        return false;
    }

    int count() const {
        return static_cast<int>(std::count_if(entries.begin(), entries.end(),
                                              [](const auto& entry) { return entry.load() != nullptr; }));
    }

private:
    std::array<std::atomic<const void*>, 64> entries = {};
};

Tracked request_texts;
Tracked parameter_texts;
Tracked documents;
Tracked blocks;

// The size of a tracked block stands before it.
constexpr std::size_t kSizeField = alignof(std::max_align_t);

} // namespace

namespace interception {

void reset() {
    const std::lock_guard<std::mutex> lock(mutex);
    scripts() = Scripts();
    new_fails = false;
    json_object_fails = false;
    json_dumps_fails = false;
}

int unreleased() {
    return request_texts.count() + parameter_texts.count() + documents.count() + blocks.count();
}

void fail_next_new() {
    new_fails = true;
}

void fail_next_json_object() {
    json_object_fails = true;
}

void fail_next_json_dumps() {
    json_dumps_fails = true;
}

void fail_next_pipe2(int error) {
    const std::lock_guard<std::mutex> lock(mutex);
    scripts().pipe2.push_back({PipeResult::fail, error, -1, -1});
}

void return_from_next_pipe2(int read_end, int write_end) {
    const std::lock_guard<std::mutex> lock(mutex);
    scripts().pipe2.push_back({PipeResult::descriptors, 0, read_end, write_end});
    scripts().unreal_descriptors.insert({read_end, write_end});
}

void pass_next_pipe2() {
    const std::lock_guard<std::mutex> lock(mutex);
    scripts().pipe2.push_back({PipeResult::pass, 0, -1, -1});
}

void return_from_next_poll(int result) {
    const std::lock_guard<std::mutex> lock(mutex);
    scripts().poll.push_back(result);
}

void fail_next_select(int error) {
    const std::lock_guard<std::mutex> lock(mutex);
    scripts().select_errors.push_back(error);
}

void return_from_next_read(int result) {
    const std::lock_guard<std::mutex> lock(mutex);
    scripts().read.push_back(result);
}

void return_from_next_write(int result) {
    const std::lock_guard<std::mutex> lock(mutex);
    scripts().write.push_back(result);
}

void before_write(std::function<void()> hook) {
    const std::lock_guard<std::mutex> lock(mutex);
    scripts().write_hook = std::move(hook);
}

void during_sleep(std::function<void()> hook) {
    const std::lock_guard<std::mutex> lock(mutex);
    scripts().sleep_hook = std::move(hook);
}

SelectCall last_select() {
    const std::lock_guard<std::mutex> lock(mutex);
    return scripts().last_select;
}

} // namespace interception

// ---- Memory. All forms are malloc() and free(), so that the sanitizers see matching pairs; not inlined, or
// the compiler would see malloc() meet operator delete.

[[gnu::noinline]] void* operator new(std::size_t size) {
    if (void* memory = std::malloc(size)) {
        return memory;
    }
    throw std::bad_alloc();
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    journal().record("new " + std::to_string(size));
    if (new_fails.exchange(false)) {
        return nullptr;
    }
    auto* memory = static_cast<unsigned char*>(std::malloc(kSizeField + size));
    std::memcpy(memory, &size, sizeof size);
    // As dirty as the memory of a daemon that has been running for a while.
    std::memset(memory + kSizeField, 0xA5, size);
    blocks.add(memory + kSizeField);
    return memory + kSizeField;
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
    if (!blocks.remove(memory)) {
        std::free(memory);
        return;
    }
    auto* start = static_cast<unsigned char*>(memory) - kSizeField;
    std::size_t size = 0;
    std::memcpy(&size, start, sizeof size);
    journal().record("delete " + std::to_string(size));
    std::free(start);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    operator delete(memory);
}

[[gnu::noinline]] void operator delete(void* memory, const std::nothrow_t&) noexcept {
    operator delete(memory);
}

// ---- The wrapped functions.

extern "C" {

void __real_free(void* memory);
void __wrap_free(void* memory);
char* __real_strdup(const char* text);
char* __wrap_strdup(const char* text);
json_t* __real_json_object();
json_t* __wrap_json_object();
json_t* __real_json_loadb(const char* buffer, std::size_t length, std::size_t flags, json_error_t* error);
json_t* __wrap_json_loadb(const char* buffer, std::size_t length, std::size_t flags, json_error_t* error);
char* __real_json_dumps(const json_t* value, std::size_t flags);
char* __wrap_json_dumps(const json_t* value, std::size_t flags);
void __real_json_delete(json_t* value);
void __wrap_json_delete(json_t* value);
unsigned int __wrap_sleep(unsigned int seconds);
int __real_pipe2(int* pipe, int flags);
int __wrap_pipe2(int* pipe, int flags);
int __real_poll(pollfd* descriptors, nfds_t count, int timeout);
int __wrap_poll(pollfd* descriptors, nfds_t count, int timeout);
int __real_select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout);
int __wrap_select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout);
ssize_t __real_read(int descriptor, void* buffer, std::size_t size);
ssize_t __wrap_read(int descriptor, void* buffer, std::size_t size);
ssize_t __real_write(int descriptor, const void* buffer, std::size_t size);
ssize_t __wrap_write(int descriptor, const void* buffer, std::size_t size);
int __real_close(int descriptor);
int __wrap_close(int descriptor);

void __wrap_free(void* memory) {
    if (request_texts.remove(memory)) {
        journal().record("free request text");
    } else if (parameter_texts.remove(memory)) {
        journal().record("free parameter text");
    }
    __real_free(memory);
}

char* __wrap_strdup(const char* text) {
    char* copy = __real_strdup(text);
    request_texts.add(copy);
    return copy;
}

json_t* __wrap_json_object() {
    if (json_object_fails.exchange(false)) {
        return nullptr;
    }
    json_t* object = __real_json_object();
    documents.add(object);
    return object;
}

json_t* __wrap_json_loadb(const char* buffer, std::size_t length, std::size_t flags, json_error_t* error) {
    json_t* document = __real_json_loadb(buffer, length, flags, error);
    if (document != nullptr) {
        documents.add(document);
    }
    return document;
}

char* __wrap_json_dumps(const json_t* value, std::size_t flags) {
    if (json_dumps_fails.exchange(false)) {
        return nullptr;
    }
    char* text = __real_json_dumps(value, flags);
    parameter_texts.add(text);
    return text;
}

void __wrap_json_delete(json_t* value) {
    if (documents.remove(value)) {
        journal().record("release document");
    }
    __real_json_delete(value);
}

unsigned int __wrap_sleep(unsigned int seconds) {
    journal().record("sleep " + std::to_string(seconds));
    std::function<void()> hook;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        hook = scripts().sleep_hook;
    }
    if (hook) {
        hook();
    }
    return 0;
}

int __wrap_pipe2(int* pipe, int flags) {
    journal().record(flags == O_NONBLOCK ? "pipe2 nonblocking" : "pipe2 " + std::to_string(flags));
    PipeResult result = {};
    if (!take(scripts().pipe2, result) || result.kind == PipeResult::pass) {
        return __real_pipe2(pipe, flags);
    }
    if (result.kind == PipeResult::fail) {
        errno = result.error;
        return -1;
    }
    pipe[0] = result.read_end;
    pipe[1] = result.write_end;
    return 0;
}

int __wrap_poll(pollfd* descriptors, nfds_t count, int timeout) {
    const std::string events =
        descriptors->events == POLLOUT ? "writing" : std::to_string(descriptors->events);
    journal().record("poll " + std::to_string(descriptors->fd) + " for " + events + ", timeout " +
                     std::to_string(timeout));
    int result = 0;
    return take(scripts().poll, result) ? result : __real_poll(descriptors, count, timeout);
}

int __wrap_select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout) {
    std::set<int> read_descriptors;
    for (int descriptor = 0; descriptor < FD_SETSIZE; ++descriptor) {
        if (FD_ISSET(descriptor, readable)) {
            read_descriptors.insert(descriptor);
        }
    }
    {
        const std::lock_guard<std::mutex> lock(mutex);
        scripts().last_select = {count, read_descriptors, writable != nullptr, exceptional != nullptr,
                                 timeout != nullptr};
    }
    journal().record("select");
    int error = 0;
    if (take(scripts().select_errors, error)) {
        errno = error;
        return -1;
    }
    return __real_select(count, readable, writable, exceptional, timeout);
}

ssize_t __wrap_read(int descriptor, void* buffer, std::size_t size) {
    journal().record("read " + std::to_string(descriptor));
    int result = 0;
    return take(scripts().read, result) ? result : __real_read(descriptor, buffer, size);
}

ssize_t __wrap_write(int descriptor, const void* buffer, std::size_t size) {
    journal().record("write " + std::to_string(descriptor) + " " +
                     std::string(static_cast<const char*>(buffer), size));
    std::function<void()> hook;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        hook = scripts().write_hook;
    }
    if (hook) {
        hook();
    }
    int result = 0;
    return take(scripts().write, result) ? result : __real_write(descriptor, buffer, size);
}

int __wrap_close(int descriptor) {
    journal().record("close " + std::to_string(descriptor));
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (scripts().unreal_descriptors.count(descriptor) != 0) {
            return 0;
        }
    }
    return __real_close(descriptor);
}

} // extern "C"
