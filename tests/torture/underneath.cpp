#include "underneath.h"

#include <execinfo.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <system_error>
#include <thread>
#include <utility>

#include <jansson.h>

using underneath::Call;
using underneath::Event;
using underneath::Fault;
using underneath::Outside;
using underneath::Role;

namespace {

thread_local Role role = Role::worker;
thread_local int outside = 0;

Fault ordered;
std::atomic<int> calls{0};
std::atomic<int> failures{0};

/// Things of one kind that are alive. Without a lock or an allocation: the operators new and delete use it.
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
        std::abort();
    }

    bool remove(const void* address) {
        return address != nullptr && std::any_of(entries.begin(), entries.end(), [address](auto& entry) {
                   const void* expected = address;
                   return entry.compare_exchange_strong(expected, nullptr);
               });
    }

    int count() const {
        return static_cast<int>(std::count_if(entries.begin(), entries.end(),
                                              [](const auto& entry) { return entry.load() != nullptr; }));
    }

private:
    std::array<std::atomic<const void*>, 32> entries = {};
};

Tracked blocks;
Tracked texts;

struct Shared {
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Event> traces[3];
    std::set<void*> json_blocks;
    // The worker, as far as its calls tell.
    bool in_select = false;
    bool ended = false;
    int unread = 0;
    int pipes = 0;
    int stop_write_end = -1;
    int run_write_end = -1;
    int lost_stops = 0;
    std::thread rescuer;
    std::string description;
};

Shared& shared() {
    static auto* const instance = new Shared;
    return *instance;
}

// Within the module, and this call is to fail.
bool failing(Call call) {
    if (outside > 0 || call != ordered.call) {
        return false;
    }
    const int number = ++calls;
    if (number < ordered.first || number - ordered.first >= ordered.count) {
        return false;
    }
    ++failures;
    errno = ordered.error;
    return true;
}

int finish(Event event) {
    underneath::record(event);
    errno = event.error;
    return static_cast<int>(event.result);
}

} // namespace

namespace underneath {

void (*on_throw)(Role, void* const*, int) = nullptr;

void order(const Fault& fault) {
    ordered = fault;
    calls = 0;
    failures = 0;
}

int fired() {
    return failures;
}

bool fails(Call call) {
    return failing(call);
}

int ordered_result() {
    return ordered.result;
}

void mark_thread(Role thread_role) {
    role = thread_role;
    outside = 1;
}

Outside::Outside() {
    ++outside;
}

Outside::~Outside() {
    --outside;
}

Inside::Inside() : before(std::exchange(outside, 0)) {}

Inside::~Inside() {
    outside = before;
}

void record(const Event& event) {
    const Outside host;
    const std::lock_guard<std::mutex> lock(shared().mutex);
    shared().traces[static_cast<int>(role)].push_back(event);
}

std::deque<Event> take_trace(Role of) {
    const std::lock_guard<std::mutex> lock(shared().mutex);
    return std::exchange(shared().traces[static_cast<int>(of)], {});
}

void await_idle_worker() {
    const Outside host;
    std::unique_lock<std::mutex> lock(shared().mutex);
    const bool idle = shared().changed.wait_for(lock, std::chrono::seconds(20), [] {
        return shared().ended || (shared().in_select && shared().unread == 0);
    });
    if (!idle) {
        lock.unlock();
        die("the worker neither sleeps nor has ended");
    }
}

int lost_stops() {
    const std::lock_guard<std::mutex> lock(shared().mutex);
    return shared().lost_stops;
}

void join_rescuer() {
    if (shared().rescuer.joinable()) {
        shared().rescuer.join();
    }
}

char* track_text(char* text) {
    texts.add(text);
    return text;
}

int unreleased() {
    const std::lock_guard<std::mutex> lock(shared().mutex);
    return blocks.count() + texts.count() + static_cast<int>(shared().json_blocks.size());
}

void describe(const std::string& text) {
    const std::lock_guard<std::mutex> lock(shared().mutex);
    shared().description = text;
}

void die(const std::string& message) {
    std::fprintf(stderr, "torture: %s: %s\n", shared().description.c_str(), message.c_str());
    std::fflush(stderr);
    _exit(1);
}

} // namespace underneath

// ---- Memory

namespace {

void* allocate(std::size_t size) {
    return std::malloc(size == 0 ? 1 : size);
}

void* json_allocate(std::size_t size) {
    if (failing(Call::json_malloc)) {
        return nullptr;
    }
    const Outside host;
    void* const block = std::malloc(size);
    const std::lock_guard<std::mutex> lock(shared().mutex);
    shared().json_blocks.insert(block);
    return block;
}

bool forget_json_block(void* block) {
    const Outside host;
    const std::lock_guard<std::mutex> lock(shared().mutex);
    return shared().json_blocks.erase(block) != 0;
}

void json_release(void* block) {
    if (block != nullptr && !forget_json_block(block)) {
        underneath::die("a JSON value was released twice");
    }
    std::free(block);
}

const bool json_allocator_is_set = [] {
    json_set_alloc_funcs(json_allocate, json_release);
    return true;
}();

} // namespace

void* operator new(std::size_t size) {
    if (failing(Call::new_throwing)) {
        const Outside host;
        std::array<void*, 64> addresses = {};
        const int depth = backtrace(addresses.data(), static_cast<int>(addresses.size()));
        if (underneath::on_throw != nullptr) {
            underneath::on_throw(role, addresses.data(), depth);
        }
        throw std::bad_alloc();
    }
    if (void* const memory = allocate(size)) {
        return memory;
    }
    throw std::bad_alloc();
}

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    if (outside > 0) {
        return allocate(size);
    }
    void* const memory = failing(Call::new_nothrow) ? nullptr : allocate(size);
    const Outside host;
    if (memory != nullptr) {
        // As dirty as the memory of a daemon that has been running for a while.
        std::memset(memory, 0xA5, size);
        blocks.add(memory);
    }
    underneath::record({size == 8 ? "new request-id block" : "new handler", memory != nullptr ? 1 : 0});
    return memory;
}

void operator delete(void* memory) noexcept {
    blocks.remove(memory);
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    operator delete(memory);
}

void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept {
    operator delete(memory);
}

// ---- The wrapped functions

// std::thread::_M_start_thread(), which is all of a thread's start that is not inline.
using ThreadState = std::unique_ptr<std::thread::_State>;

namespace {

/// What the worker runs, and the news of its end.
class WatchedThread : public std::thread::_State {
public:
    explicit WatchedThread(ThreadState watched) : state(std::move(watched)) {}

    void _M_run() override {
        state->_M_run();
        const Outside host;
        const std::lock_guard<std::mutex> lock(shared().mutex);
        shared().ended = true;
        shared().changed.notify_all();
    }

private:
    ThreadState state;
};

} // namespace

extern "C" {

void __real_free(void* memory);
void __wrap_free(void* memory);
json_t* __real_json_object();
json_t* __wrap_json_object();
json_t* __real_json_loadb(const char* buffer, std::size_t length, std::size_t flags, json_error_t* error);
json_t* __wrap_json_loadb(const char* buffer, std::size_t length, std::size_t flags, json_error_t* error);
char* __real_json_dumps(const json_t* value, std::size_t flags);
char* __wrap_json_dumps(const json_t* value, std::size_t flags);
unsigned int __real_sleep(unsigned int seconds);
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
void __real__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(
    std::thread* thread, ThreadState state, void (*depend)());
void __wrap__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(
    std::thread* thread, ThreadState state, void (*depend)());

void __wrap_free(void* memory) {
    texts.remove(memory);
    __real_free(memory);
}

json_t* __wrap_json_object() {
    if (outside > 0) {
        return __real_json_object();
    }
    json_t* const object = failing(Call::json_object) ? nullptr : __real_json_object();
    underneath::record({"json_object", object != nullptr ? 1 : 0});
    return object;
}

json_t* __wrap_json_loadb(const char* buffer, std::size_t length, std::size_t flags, json_error_t* error) {
    json_t* const document = __real_json_loadb(buffer, length, flags, error);
    if (outside > 0) {
        return document;
    }
    const Outside host;
    Event event = {"json_loadb", document != nullptr ? 1 : 0};
    json_t* const true_document = __real_json_loadb(buffer, length, flags, error);
    if (document != nullptr && json_equal(document, true_document) == 0) {
        char* const text = __real_json_dumps(document, 0);
        event.mutilated = text;
        json_release(text);
    }
    json_decref(true_document);
    underneath::record(event);
    return document;
}

char* __wrap_json_dumps(const json_t* value, std::size_t flags) {
    if (outside > 0) {
        return __real_json_dumps(value, flags);
    }
    char* const text = failing(Call::json_dumps) ? nullptr : __real_json_dumps(value, flags);
    if (text != nullptr) {
        forget_json_block(text); // The caller releases it with free().
        texts.add(text);
    }
    const Outside host;
    Event event = {"json_dumps", text != nullptr ? 1 : 0};
    char* const true_text = __real_json_dumps(value, flags);
    if (text != nullptr && std::strcmp(text, true_text) != 0) {
        event.mutilated = text;
    }
    json_release(true_text);
    underneath::record(event);
    return text;
}

unsigned int __wrap_sleep(unsigned int seconds) {
    if (outside > 0) {
        return __real_sleep(seconds);
    }
    const Outside host;
    underneath::record({"sleep " + std::to_string(seconds)});
    return 0;
}

int __wrap_pipe2(int* pipe, int flags) {
    if (outside > 0) {
        return __real_pipe2(pipe, flags);
    }
    if (failing(Call::pipe2)) {
        const int error = errno;
        {
            const std::lock_guard<std::mutex> lock(shared().mutex);
            shared().pipes = 0;
        }
        return finish({"pipe2", -1, error});
    }
    const int result = __real_pipe2(pipe, flags);
    {
        const std::lock_guard<std::mutex> lock(shared().mutex);
        (shared().pipes++ % 2 == 0 ? shared().stop_write_end : shared().run_write_end) = pipe[1];
        shared().lost_stops = 0;
        shared().in_select = shared().ended = false;
        shared().unread = 0;
    }
    return finish({"pipe2", result, errno, {pipe[0], pipe[1]}});
}

// A stop byte that is lost leaves the module waiting for its worker for ever. A thread of this program gives
// the worker the byte as soon as it sleeps, so that the test goes on.
static int lose_byte(int descriptor, const std::string& name, int result) {
    const int error = errno;
    const Outside host;
    {
        const std::lock_guard<std::mutex> lock(shared().mutex);
        if (descriptor == shared().stop_write_end) {
            ++shared().lost_stops;
            shared().rescuer = std::thread([descriptor] {
                underneath::mark_thread(Role::host);
                underneath::await_idle_worker();
                bool ended = false;
                {
                    const std::lock_guard<std::mutex> rescuer_lock(shared().mutex);
                    ended = shared().ended;
                }
                if (!ended && __real_write(descriptor, "x", 1) != 1) {
                    underneath::die("the worker could not be stopped");
                }
            });
        }
    }
    return finish({name + " " + std::to_string(descriptor), result, error});
}

int __wrap_poll(pollfd* descriptors, nfds_t count, int timeout) {
    if (outside > 0) {
        return __real_poll(descriptors, count, timeout);
    }
    if (failing(Call::poll)) {
        return lose_byte(descriptors->fd, "poll", ordered.result);
    }
    const int result = __real_poll(descriptors, count, timeout);
    const Outside host;
    return finish({"poll " + std::to_string(descriptors->fd), result, errno});
}

int __wrap_select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout) {
    if (outside > 0) {
        return __real_select(count, readable, writable, exceptional, timeout);
    }
    if (failing(Call::select)) {
        return finish({"select", -1, errno});
    }
    const auto set_in_select = [](bool value) {
        const std::lock_guard<std::mutex> lock(shared().mutex);
        shared().in_select = value;
        shared().changed.notify_all();
    };
    set_in_select(true);
    const int result = __real_select(count, readable, writable, exceptional, timeout);
    const int error = errno;
    set_in_select(false);
    return finish({"select", result, error});
}

ssize_t __wrap_read(int descriptor, void* buffer, std::size_t size) {
    if (outside > 0) {
        return __real_read(descriptor, buffer, size);
    }
    if (failing(Call::read)) {
        return finish({"read", ordered.result, errno});
    }
    const ssize_t result = __real_read(descriptor, buffer, size);
    const int error = errno;
    {
        const std::lock_guard<std::mutex> lock(shared().mutex);
        shared().unread -= result > 0 ? 1 : 0;
    }
    return finish({"read", result, error});
}

ssize_t __wrap_write(int descriptor, const void* buffer, std::size_t size) {
    if (outside > 0) {
        return __real_write(descriptor, buffer, size);
    }
    if (failing(Call::write)) {
        return lose_byte(descriptor, "write", ordered.result);
    }
    const Outside host;
    {
        const std::lock_guard<std::mutex> lock(shared().mutex);
        shared().unread += descriptor == shared().run_write_end ? 1 : 0;
    }
    // Recorded first: after the write this thread may be behind the others.
    underneath::record({"write " + std::to_string(descriptor), 1, 0});
    const ssize_t result = __real_write(descriptor, buffer, size);
    if (result != 1) {
        underneath::die("a wake-up byte could not be written to an empty pipe");
    }
    return result;
}

int __wrap_close(int descriptor) {
    if (outside > 0) {
        return __real_close(descriptor);
    }
    underneath::join_rescuer(); // It may be about to leave its write().
    const bool fail = failing(Call::close);
    const int error = errno;
    // The system releases the descriptor of a close() that fails, too.
    const int result = __real_close(descriptor);
    const Outside host;
    return finish({"close " + std::to_string(descriptor), fail ? -1 : result, fail ? error : errno});
}

void __wrap__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(
    std::thread* thread, ThreadState state, void (*depend)()) {
    if (outside == 0) {
        const bool fail = failing(Call::thread_start);
        const int error = errno;
        underneath::record({"thread", fail ? 0 : 1});
        if (fail) {
            throw std::system_error(error, std::generic_category());
        }
        const Outside host;
        state = std::make_unique<WatchedThread>(std::move(state));
    }
    __real__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(
        thread, std::move(state), depend);
}

} // extern "C"
