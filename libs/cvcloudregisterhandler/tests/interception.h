#ifndef INTERCEPTION_H
#define INTERCEPTION_H

#include <functional>
#include <set>

/// The system underneath the module. The linker routes these calls of the test program through here:
/// sleep, pipe2, poll, select, read, write, close, free, strdup, json_object, json_loadb, json_dumps and
/// json_delete; the operators new and delete are replaced. A call without a script goes on to the system,
/// except that sleep() returns at once and that descriptor 0 is never really closed.
///
/// The journal records, each when the call begins:
///   pipe2 nonblocking             (or: pipe2 FLAGS)
///   poll FD for writing, timeout TIMEOUT    (or: poll FD for EVENTS, ...)
///   select, read FD, write FD BYTES, close FD, sleep SECONDS
///   new SIZE, delete SIZE         of what the non-throwing operator new returned
///   free request text             that the cloud access object built
///   free parameter text           that json_dumps() made
///   release document              that json_object() or json_loadb() made
namespace interception {

/// Forgets all scripts.
void reset();

/// How many of the things whose release the journal records have not been released. (A leak detector finds
/// none of them lost, since they are on the list here.)
int unreleased();

// The results of the next calls, in order.

void fail_next_new();
void fail_next_json_object();
void fail_next_json_dumps();
void fail_next_pipe2(int error);
/// Returns descriptors that do not exist; close() only records them.
void return_from_next_pipe2(int read_end, int write_end);
/// Goes on to the system.
void pass_next_pipe2();
void return_from_next_poll(int result);
void fail_next_select(int error);
void return_from_next_read(int result);
void return_from_next_write(int result);

/// Called before each write(), on the writing thread.
void before_write(std::function<void()> hook);
/// Called in each sleep(), on the sleeping thread.
void during_sleep(std::function<void()> hook);

/// The arguments of the last select().
struct SelectCall {
    int descriptor_count = 0;
    std::set<int> read_descriptors;
    bool watches_writing = false;
    bool watches_exceptions = false;
    bool has_timeout = false;
};
SelectCall last_select();

} // namespace interception

#endif
