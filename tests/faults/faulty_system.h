#ifndef FAULTY_SYSTEM_H
#define FAULTY_SYSTEM_H

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "journal.h"
#include "scripted_calls.h"

/// The system with a fault on order (kit::calls::order), as the threads of the torture test need it: the
/// calls of jansson and the start of the worker are recorded, too, and it is known when the worker sleeps.
/// The journal has besides:
///   json_object, json_loadb, json_dumps    each with result 1, or 0 when it failed
///   thread                                 the same
class FaultySystem : public kit::ScriptedCalls {
public:
    int poll(pollfd* descriptors, nfds_t count, int timeout) override;
    ssize_t write(int descriptor, const void* buffer, std::size_t size) override;
    int close(int descriptor) override;
    json_t* json_object() override;
    json_t* json_loadb(const char* buffer, std::size_t length, std::size_t flags,
                       json_error_t* error) override;
    char* json_dumps(const json_t* value, std::size_t flags) override;
    void start_thread(std::thread* thread, std::unique_ptr<std::thread::_State> state,
                      void (*depend)()) override;

    /// Waits until the worker sleeps without a byte to read, or has ended. Ends the program after a deadline.
    void await_idle_worker();

    /// The stop byte was lost: a thread of this program has given it to the worker.
    bool stop_was_lost();
    /// Waits until that thread has ended.
    void join_rescuer();

private:
    void waits(bool begins) override;
    void lost_byte(int descriptor);
    void worker_is(bool asleep, bool over);

    std::mutex mutex;
    std::condition_variable changed;
    bool in_select = false;
    bool ended = false;
    bool stop_lost = false;
    std::thread rescuer;
};

/// The program's, in front of the system from its first use on.
FaultySystem& faulty_system();

/// What the module has not released: blocks, texts, JSON values.
int unreleased();

/// Names the case in the messages of a failure.
void describe(const std::string& text);
[[noreturn]] void fail(const std::string& message);

#endif
