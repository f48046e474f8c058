#ifndef SCRIPTED_CALLS_H
#define SCRIPTED_CALLS_H

#include <array>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "system_calls.h"

namespace kit {

/// What can fail underneath the module, and in the host.
enum class Call {
    none,
    pipe2,
    poll,
    select,
    read,
    write,
    close,
    thread_start,
    json_object,
    json_dumps,
    json_malloc,
    new_nothrow,
    new_throwing,
    build_request,
    send_request,
    publish_message,
    send_response,
};

/// The calls `first` to `first + count - 1` of one kind, counted from 1, return `result` with `error`.
struct Fault {
    Call call = Call::none;
    int result = 0;
    int error = 0;
    int first = 1;
    int count = 1;
};

/// The system with a script and a journal. A call without a script goes on to the system, except that sleep()
/// returns at once. The journal records, each when the call begins:
///   pipe2 nonblocking             (or: pipe2 FLAGS)
///   poll FD for writing, timeout TIMEOUT    (or: poll FD for EVENTS, ...)
///   select, read FD, write FD BYTES, close FD, sleep SECONDS
///   new SIZE, delete SIZE         of what the non-throwing operator new returned (memory.cpp)
///   free request text             that the cloud access object built
///   free parameter text           that json_dumps() made
///   release document              that json_object() or json_loadb() made
/// What the host's own code calls is neither recorded nor scripted.
class ScriptedCalls : public System {
public:
    unsigned int sleep(unsigned int seconds) override;
    int pipe2(int* ends, int flags) override;
    int poll(pollfd* descriptors, nfds_t count, int timeout) override;
    int select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout) override;
    ssize_t read(int descriptor, void* buffer, std::size_t size) override;
    ssize_t write(int descriptor, const void* buffer, std::size_t size) override;
    int close(int descriptor) override;
    void free(void* memory) override;
    char* strdup(const char* text) override;
    json_t* json_object() override;
    json_t* json_loadb(const char* buffer, std::size_t length, std::size_t flags,
                       json_error_t* error) override;
    char* json_dumps(const json_t* value, std::size_t flags) override;
    void json_delete(json_t* value) override;

protected:
    /// A recorded select() goes on to the system, or has come back from there.
    virtual void waits(bool /*begins*/) {}
};

/// The script of the process.
namespace calls {

/// Puts a ScriptedCalls in front of the system and forgets all scripts. With `everything` all calls are
/// recorded, and descriptor 0 is never really closed; without it only select() and sleep() are recorded, by
/// which a test knows that the worker is done with a run.
void reset(bool everything = true);

/// The next call of its kind that has no script yet returns `result` with `error`.
void fail_next(Call call, int result = -1, int error = 0);

/// Exactly this fault and no other from now on, counted anew; without arguments nothing fails any more.
void order(const Fault& fault = {});

/// How many calls have failed since order().
int fired();

/// Counts a call that the module makes; true when it is to fail, with errno and ordered_result() set.
bool fails(Call call);
int ordered_result();

/// The next pipe2() returns descriptors that do not exist; close() only records them.
void return_from_next_pipe2(int read_end, int write_end);

/// The last pipes that were opened since reset(), two at most.
std::vector<std::array<int, 2>> pipes();

/// Called before each write(), on the writing thread.
void before_write(std::function<void()> hook);

/// The arguments of the last select().
struct SelectCall {
    int descriptor_count = 0;
    std::set<int> read_descriptors;
    bool watches_writing = false;
    bool watches_exceptions = false;
    bool has_timeout = false;
};
SelectCall last_select();

/// With memory.cpp: how many of the things whose release the journal records have not been released. (A leak
/// detector finds none of them lost, since they are on the list here.)
int unreleased();

/// With memory.cpp: the block of the last non-throwing allocation that succeeded, which was filled with
/// kDirt.
const unsigned char* last_block();
constexpr unsigned char kDirt = 0xA5;

/// With memory.cpp: where an allocation of a throwing operator new failed: called with the return addresses,
/// innermost first.
extern void (*on_throw)(void* const* addresses, int count);

} // namespace calls

} // namespace kit

#endif
