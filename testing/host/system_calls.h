#ifndef SYSTEM_CALLS_H
#define SYSTEM_CALLS_H

#include <poll.h>
#include <sys/select.h>
#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <thread>

#include <jansson.h>

// What is underneath the module. A test program links one of two builds of this file's source, both of which
// lead the module's calls through system():
//   kit_wrapped_calls     for programs that hold the module's sources. The linker routes the calls of the
//   program's
//                         objects: those of the system, of jansson, free(), strdup(), and the start of a
//                         thread.
//   kit_preempted_calls   for programs that load the built library, and export their symbols
//   (ENABLE_EXPORTS). The
//                         dynamic linker binds everybody's system calls to the program's own functions.

namespace kit {

/// The system as the module calls it. Every call goes on to the real one; derived classes change that. Called
/// on the thread that makes the call.
class System {
public:
    virtual ~System() = default;

    virtual unsigned int sleep(unsigned int seconds);
    virtual int pipe2(int* ends, int flags);
    virtual int poll(pollfd* descriptors, nfds_t count, int timeout);
    virtual int select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout);
    virtual ssize_t read(int descriptor, void* buffer, std::size_t size);
    virtual ssize_t write(int descriptor, const void* buffer, std::size_t size);
    virtual int close(int descriptor);

    // ---- Only of programs that hold the module's sources.

    virtual void free(void* memory);
    virtual char* strdup(const char* text);
    virtual json_t* json_object();
    virtual json_t* json_loadb(const char* buffer, std::size_t length, std::size_t flags,
                               json_error_t* error);
    virtual char* json_dumps(const json_t* value, std::size_t flags);
    virtual void json_delete(json_t* value);
    /// All of a thread's start that is not inline; throws std::system_error when the system has no thread.
    virtual void start_thread(std::thread* thread, std::unique_ptr<std::thread::_State> state,
                              void (*depend)());
};

/// What the calls go through: the real system until a program puts something else in front of it.
System& system();

/// Puts `next` in front, which has to live as long as calls are made. Null: the real system.
void put_in_front(System* next);

} // namespace kit

#endif
