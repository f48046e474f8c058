#include "points.h"

#include <malloc.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "cvutils/network.h"
#include "races.h"
#include "scheduler.h"
#include "system_calls.h"

extern "C" void* __libc_malloc(std::size_t size); // NOLINT(bugprone-reserved-identifier)
extern "C" void __libc_free(void* memory);        // NOLINT(bugprone-reserved-identifier)

namespace schedules {

namespace {

/// A pipe of the module, and the bytes in it with what their writers hand over. A closed end is -1.
struct Pipe {
    std::array<int, 2> ends = {-1, -1};
    std::array<Clock, 4> bytes = {};
    std::size_t unread = 0;
};

/// In the order in which the module opens them.
enum { kStop, kRun };
std::array<Pipe, 2> pipes;
std::size_t opened = 0;
/// The worker's last select() has found a stop byte.
bool stopped = false;
std::array<Clock, kThreads> ends_of_threads;
/// What the last store to the registration's flag handed over.
Clock flag_clock;
Watcher* watcher = nullptr;
long blocks = 0;
std::array<void*, 20000> freed;
std::size_t freed_count = 0;

Pipe& pipe_of(int descriptor, std::size_t end) {
    for (Pipe& pipe : pipes) {
        if (pipe.ends[end] == descriptor && descriptor != -1) {
            return pipe;
        }
    }
    fail("a descriptor is used that is not open");
}

int readable() {
    std::size_t bytes = 0;
    for (const Pipe& pipe : pipes) {
        bytes += pipe.ends[0] == -1 ? 1 : pipe.unread; // With an end closed, select() fails at once.
    }
    return static_cast<int>(bytes);
}

/// The system, with points in front of it and behind write().
class PointedSystem final : public kit::System {
public:
    unsigned int sleep(unsigned int seconds) override {
        point({"sleep", kObject});
        watcher->pauses(seconds);
        return 0;
    }

    int pipe2(int* ends, int flags) override {
        const int result = System::pipe2(ends, flags);
        if (executing()) {
            pipes.at(opened++).ends = {ends[0], ends[1]};
        }
        return result;
    }

    int poll(pollfd* descriptors, nfds_t count, int timeout) override {
        if (executing()) {
            point({"poll", kObject});
            pipe_of(descriptors->fd, 1);
        }
        return System::poll(descriptors, count, timeout);
    }

    ssize_t write(int descriptor, const void* buffer, std::size_t size) override {
        if (!executing()) {
            return System::write(descriptor, buffer, size);
        }
        const bool stop = descriptor == pipes[kStop].ends[1];
        point({"write", kObject, stop ? kStopPipe : kRunPipe});
        Pipe& pipe = pipe_of(descriptor, 1);
        if (pipe.unread == pipe.bytes.size()) {
            fail("wake-ups pile up");
        }
        pipe.bytes[pipe.unread++] = release();
        if (!stop) {
            watcher->wake_up_written();
        }
        const ssize_t result = System::write(descriptor, buffer, size);
        point({"written", kObject | kBehindWrite});
        return result;
    }

    int select(int count, fd_set* reads, fd_set* writes, fd_set* exceptions, timeval* timeout) override {
        if (!executing()) {
            return System::select(count, reads, writes, exceptions, timeout);
        }
        watcher->worker_waits();
        point({"select", kStopPipe | kRunPipe | kObject, 0, kStopPipe | kRunPipe, readable});
        for (const Pipe& pipe : pipes) {
            pipe_of(pipe.ends[0], 0);
        }
        stopped = pipes[kStop].unread > 0;
        timeval at_once = {};
        return System::select(count, reads, writes, exceptions, &at_once);
    }

    ssize_t read(int descriptor, void* buffer, std::size_t size) override {
        if (!executing()) {
            return System::read(descriptor, buffer, size);
        }
        point({"read", kObject, kRunPipe | kBehindWrite});
        Pipe& pipe = pipe_of(descriptor, 0);
        if (stopped) {
            fail("the worker runs though it has seen that it is to stop");
        }
        if (pipe.unread > 0) {
            acquire(pipe.bytes[0]);
            std::move(pipe.bytes.begin() + 1, pipe.bytes.end(), pipe.bytes.begin());
            --pipe.unread;
            watcher->wake_up_read();
        }
        return System::read(descriptor, buffer, size);
    }

    int close(int descriptor) override {
        if (executing()) {
            point({"close", 0, kObject});
            const bool reads = pipes[kStop].ends[0] == descriptor || pipes[kRun].ends[0] == descriptor;
            pipe_of(descriptor, reads ? 0 : 1).ends[reads ? 0 : 1] = -1;
        }
        return System::close(descriptor);
    }
};

} // namespace

void begin_points(Watcher& new_watcher) {
    static PointedSystem system;
    kit::put_in_front(&system);
    watcher = &new_watcher;
    flag_clock = {};
    pipes = {};
    opened = 0;
    stopped = false;
}

void end_points() {
    while (freed_count > 0) {
        __libc_free(freed[--freed_count]);
    }
    for (const Pipe& pipe : pipes) {
        if (pipe.ends != std::array<int, 2>{-1, -1}) {
            fail("a pipe is still open");
        }
    }
}

long allocated_blocks() {
    return blocks;
}

void load_flag() {
    if (executing()) {
        point({"load", kFlag});
        acquire(flag_clock);
        watcher->flag_loaded();
    }
}

void store_flag() {
    if (executing()) {
        point({"store", 0, kFlag});
        acquire(flag_clock);
        flag_clock = release();
        watcher->flag_stored();
    }
}

} // namespace schedules

// ---- What the kit does not have: the program's threads and memory

using namespace schedules;

int pthread_create(pthread_t* thread, const pthread_attr_t* /*attributes*/, void* (*routine)(void*),
                   void* argument) {
    point({"create", 0, kLife << worker});
    const Clock begin = release();
    start(worker, [begin, routine, argument] {
        acquire(begin);
        routine(argument);
        ends_of_threads[worker] = release();
    });
    *thread = worker;
    return 0;
}

int pthread_join(pthread_t thread, void** /*result*/) {
    point({"join", kLife << thread, 0, kLife << thread, [] { return has_ended(worker) ? 1 : 0; }});
    acquire(ends_of_threads[thread]);
    return 0;
}

int pthread_detach(pthread_t /*thread*/) {
    return 0;
}

bool cv::get_mac_address(const std::string& /*interface_name*/, std::string& mac) {
    point({"get_mac_address", kObject, kBusy});
    mac = "0a:1b:2c:3d:4e:5f";
    return true;
}

extern "C" {

void* malloc(std::size_t size) {
    ++blocks;
    return __libc_malloc(size);
}

void free(void* memory) {
    if (memory == nullptr) {
        return;
    }
    --blocks;
    if (executing() && freed_count < freed.size()) {
        // Kept until the execution has ended, so that who uses it then is found out.
        free_block(memory, malloc_usable_size(memory));
        freed[freed_count++] = memory;
    } else {
        __libc_free(memory);
    }
}

// The system's own would not be counted.
char* strdup(const char* text) {
    const std::size_t size = std::strlen(text) + 1;
    return static_cast<char*>(std::memcpy(malloc(size), text, size));
}

} // extern "C"
