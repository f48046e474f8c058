#include "faulty_system.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <system_error>
#include <utility>

using kit::Call;
using kit::Event;
using kit::in_module;
using kit::InHost;
using kit::journal;

namespace {

std::mutex json_mutex;

std::set<void*>& json_blocks() {
    static auto* const blocks = new std::set<void*>;
    return *blocks;
}

std::string description;

void* json_allocate(std::size_t size) {
    if (kit::calls::fails(Call::json_malloc)) {
        return nullptr;
    }
    const InHost host;
    void* const block = std::malloc(size);
    const std::lock_guard<std::mutex> lock(json_mutex);
    json_blocks().insert(block);
    return block;
}

bool forget_json_block(void* block) {
    const InHost host;
    const std::lock_guard<std::mutex> lock(json_mutex);
    return json_blocks().erase(block) != 0;
}

void json_release(void* block) {
    if (block != nullptr && !forget_json_block(block)) {
        fail("a JSON value was released twice");
    }
    std::free(block);
}

const bool json_allocator_is_set = [] {
    json_set_alloc_funcs(json_allocate, json_release);
    return true;
}();

Event outcome(const char* what, const void* made) {
    return {what, kit::Role::worker, false, made != nullptr ? 1 : 0};
}

/// What the worker runs, and the news of its end.
class WatchedThread : public std::thread::_State {
public:
    WatchedThread(std::unique_ptr<std::thread::_State> watched, std::function<void()> when_over)
        : state(std::move(watched)), over(std::move(when_over)) {}

    void _M_run() override {
        state->_M_run();
        const InHost host;
        over();
    }

private:
    std::unique_ptr<std::thread::_State> state;
    std::function<void()> over;
};

} // namespace

FaultySystem& faulty_system() {
    static auto* const instance = [] {
        kit::calls::reset();
        auto* const created = new FaultySystem;
        kit::put_in_front(created);
        return created;
    }();
    return *instance;
}

int unreleased() {
    const std::lock_guard<std::mutex> lock(json_mutex);
    return kit::calls::unreleased() + static_cast<int>(json_blocks().size());
}

void describe(const std::string& text) {
    description = text;
}

void fail(const std::string& message) {
    std::fprintf(stderr, "torture: %s: %s\n", description.c_str(), message.c_str());
    std::fflush(stderr);
    _exit(1);
}

void FaultySystem::worker_is(bool asleep, bool over) {
    const InHost host;
    const std::lock_guard<std::mutex> lock(mutex);
    in_select = asleep;
    ended = over;
    changed.notify_all();
}

void FaultySystem::await_idle_worker() {
    std::unique_lock<std::mutex> lock(mutex);
    const bool idle = changed.wait_for(lock, std::chrono::seconds(20), [this] {
        int unread = 0;
        return ended ||
               (in_select && ioctl(kit::calls::pipes().back()[0], FIONREAD, &unread) == 0 && unread == 0);
    });
    if (!idle) {
        fail("the worker neither sleeps nor has ended");
    }
}

bool FaultySystem::stop_was_lost() {
    return stop_lost;
}

void FaultySystem::join_rescuer() {
    if (rescuer.joinable()) {
        rescuer.join();
    }
}

// A stop byte that is lost leaves the module waiting for its worker for ever. A thread of this program gives
// the worker the byte as soon as it sleeps, so that the test goes on.
void FaultySystem::lost_byte(int descriptor) {
    const InHost host;
    const int error = errno;
    const auto pipes = kit::calls::pipes();
    if (descriptor == pipes[pipes.size() - 2][1]) {
        stop_lost = true;
        rescuer = std::thread([this, descriptor] {
            kit::mark_thread(kit::Role::daemon);
            await_idle_worker();
            if (!ended && System::write(descriptor, "x", 1) != 1) {
                fail("the worker could not be stopped");
            }
        });
    }
    errno = error;
}

int FaultySystem::poll(pollfd* descriptors, nfds_t count, int timeout) {
    const int result = ScriptedCalls::poll(descriptors, count, timeout);
    if (in_module() && result < 1) {
        lost_byte(descriptors->fd);
    }
    return result;
}

ssize_t FaultySystem::write(int descriptor, const void* buffer, std::size_t size) {
    const ssize_t result = ScriptedCalls::write(descriptor, buffer, size);
    if (in_module() && result != 1) {
        lost_byte(descriptor);
    }
    return result;
}

void FaultySystem::waits(bool begins) {
    worker_is(begins, false);
}

int FaultySystem::close(int descriptor) {
    if (in_module()) {
        const InHost host;
        join_rescuer(); // It may be about to leave its write().
    }
    return ScriptedCalls::close(descriptor);
}

json_t* FaultySystem::json_object() {
    json_t* const object = ScriptedCalls::json_object();
    if (in_module()) {
        journal().record(outcome("json_object", object));
    }
    return object;
}

json_t* FaultySystem::json_loadb(const char* buffer, std::size_t length, std::size_t flags,
                                 json_error_t* error) {
    json_t* const document = ScriptedCalls::json_loadb(buffer, length, flags, error);
    if (!in_module()) {
        return document;
    }
    const InHost host;
    Event event = outcome("json_loadb", document);
    json_t* const true_document = System::json_loadb(buffer, length, flags, error);
    if (document != nullptr && json_equal(document, true_document) == 0) {
        char* const text = System::json_dumps(document, 0);
        event.mutilated = text;
        json_release(text);
    }
    json_decref(true_document);
    journal().record(event);
    return document;
}

char* FaultySystem::json_dumps(const json_t* value, std::size_t flags) {
    char* const text = ScriptedCalls::json_dumps(value, flags);
    if (!in_module()) {
        return text;
    }
    const InHost host;
    Event event = outcome("json_dumps", text);
    char* const true_text = System::json_dumps(value, flags);
    if (text != nullptr) {
        forget_json_block(text); // The caller releases it with free().
        event.mutilated = std::strcmp(text, true_text) != 0 ? text : "";
    }
    json_release(true_text);
    journal().record(event);
    return text;
}

void FaultySystem::start_thread(std::thread* thread, std::unique_ptr<std::thread::_State> state,
                                void (*depend)()) {
    if (in_module()) {
        const bool fails = kit::calls::fails(Call::thread_start);
        const int error = errno;
        journal().record(outcome("thread", fails ? nullptr : thread));
        if (fails) {
            throw std::system_error(error, std::generic_category());
        }
        const InHost host;
        worker_is(false, false);
        stop_lost = false;
        state = std::make_unique<WatchedThread>(std::move(state), [this] { worker_is(false, true); });
    }
    System::start_thread(thread, std::move(state), depend);
}
