#include "system_calls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <utility>

// The real functions. What clang's sanitizers, which are part of the program, would have in the place of a
// function has to see the call; those of g++ are libraries, and the next ones in line.
#ifdef KIT_WRAPPED_CALLS
#define ROUTED(name) __wrap_##name
#define DECLARE_REAL(name) extern "C" decltype(::name) __real_##name;
#define REAL(name) __real_##name
#define LIBRARY(name) __real_##name
#else
#define ROUTED(name) name
#define DECLARE_REAL(name) extern "C" decltype(::name) __interceptor_##name __attribute__((weak));
#define REAL(name) next(&__interceptor_##name, #name)
#define LIBRARY(name) ::name

template <typename Function>
static Function* next(Function* interceptor, const char* name) {
    return interceptor != nullptr ? interceptor : reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
#endif

DECLARE_REAL(sleep)
DECLARE_REAL(pipe2)
DECLARE_REAL(poll)
DECLARE_REAL(select)
DECLARE_REAL(read)
DECLARE_REAL(write)
DECLARE_REAL(close)

using ThreadState = std::unique_ptr<std::thread::_State>;

#ifdef KIT_WRAPPED_CALLS
DECLARE_REAL(free)
DECLARE_REAL(strdup)
DECLARE_REAL(json_object)
DECLARE_REAL(json_loadb)
DECLARE_REAL(json_dumps)
DECLARE_REAL(json_delete)

// std::thread::_M_start_thread().
#define START_THREAD(prefix)                                                                                 \
    prefix##__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE
extern "C" void START_THREAD(__real)(std::thread* thread, ThreadState state, void (*depend)());
#endif

namespace kit {

namespace {

std::atomic<System*> in_front{nullptr};

} // namespace

System& system() {
    static auto* const real = new System;
    System* const found = in_front;
    return found != nullptr ? *found : *real;
}

void put_in_front(System* next_system) {
    in_front = next_system;
}

unsigned int System::sleep(unsigned int seconds) {
    static auto* const real = REAL(sleep);
    return real(seconds);
}

int System::pipe2(int* ends, int flags) {
    static auto* const real = REAL(pipe2);
    return real(ends, flags);
}

int System::poll(pollfd* descriptors, nfds_t count, int timeout) {
    static auto* const real = REAL(poll);
    return real(descriptors, count, timeout);
}

int System::select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout) {
    static auto* const real = REAL(select);
    return real(count, readable, writable, exceptional, timeout);
}

ssize_t System::read(int descriptor, void* buffer, std::size_t size) {
    static auto* const real = REAL(read);
    return real(descriptor, buffer, size);
}

ssize_t System::write(int descriptor, const void* buffer, std::size_t size) {
    static auto* const real = REAL(write);
    return real(descriptor, buffer, size);
}

int System::close(int descriptor) {
    static auto* const real = REAL(close);
    return real(descriptor);
}

void System::free(void* memory) {
    LIBRARY(free)(memory);
}

char* System::strdup(const char* text) {
    return LIBRARY(strdup)(text);
}

json_t* System::json_object() {
    return LIBRARY(json_object)();
}

json_t* System::json_loadb(const char* buffer, std::size_t length, std::size_t flags, json_error_t* error) {
    return LIBRARY(json_loadb)(buffer, length, flags, error);
}

char* System::json_dumps(const json_t* value, std::size_t flags) {
    return LIBRARY(json_dumps)(value, flags);
}

void System::json_delete(json_t* value) {
    LIBRARY(json_delete)(value);
}

void System::start_thread([[maybe_unused]] std::thread* thread, [[maybe_unused]] ThreadState state,
                          [[maybe_unused]] void (*depend)()) {
#ifdef KIT_WRAPPED_CALLS
    START_THREAD(__real)(thread, std::move(state), depend);
#endif
}

} // namespace kit

extern "C" {

unsigned int ROUTED(sleep)(unsigned int seconds) {
    return kit::system().sleep(seconds);
}

int ROUTED(pipe2)(int* ends, int flags) {
    return kit::system().pipe2(ends, flags);
}

int ROUTED(poll)(pollfd* descriptors, nfds_t count, int timeout) {
    return kit::system().poll(descriptors, count, timeout);
}

int ROUTED(select)(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout) {
    return kit::system().select(count, readable, writable, exceptional, timeout);
}

ssize_t ROUTED(read)(int descriptor, void* buffer, std::size_t size) {
    return kit::system().read(descriptor, buffer, size);
}

ssize_t ROUTED(write)(int descriptor, const void* buffer, std::size_t size) {
    return kit::system().write(descriptor, buffer, size);
}

int ROUTED(close)(int descriptor) {
    return kit::system().close(descriptor);
}

} // extern "C"

#ifdef KIT_WRAPPED_CALLS

extern "C" {

void __wrap_free(void* memory) {
    kit::system().free(memory);
}

char* __wrap_strdup(const char* text) {
    return kit::system().strdup(text);
}

json_t* __wrap_json_object() {
    return kit::system().json_object();
}

json_t* __wrap_json_loadb(const char* buffer, std::size_t length, std::size_t flags, json_error_t* error) {
    return kit::system().json_loadb(buffer, length, flags, error);
}

char* __wrap_json_dumps(const json_t* value, std::size_t flags) {
    return kit::system().json_dumps(value, flags);
}

void __wrap_json_delete(json_t* value) {
    kit::system().json_delete(value);
}

void START_THREAD(__wrap)(std::thread* thread, ThreadState state, void (*depend)()) {
    kit::system().start_thread(thread, std::move(state), depend);
}

} // extern "C"

#endif
