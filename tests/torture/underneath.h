#ifndef UNDERNEATH_H
#define UNDERNEATH_H

#include <array>
#include <deque>
#include <string>
#include <vector>

/// What is underneath the module, with a fault on order: the system calls and jansson functions that the
/// linker routes through here, jansson's allocator, the operators new, the start of a thread.
namespace underneath {

/// A thread that this program did not mark is the module's worker.
enum class Role { worker, host, callback };

enum class Call {
    none,
    new_nothrow,
    new_throwing,
    json_malloc,
    json_object,
    json_dumps,
    build_request,
    send_request,
    publish_message,
    send_response,
    pipe2,
    poll,
    select,
    read,
    write,
    close,
    thread_start,
};

/// The calls `first` to `first + count - 1` of one kind, counted from 1, end with `result` and `error`.
struct Fault {
    Call call = Call::none;
    int result = 0;
    int error = 0;
    int first = 1;
    int count = 1;
};

/// Starts counting anew. Without arguments nothing fails any more.
void order(const Fault& fault = {});

/// How many calls have failed on order.
int fired();

/// True when this call, made by the module, is to fail; errno is set then. For the host's own operations.
bool fails(Call call);

/// The result that the failing call is to return.
int ordered_result();

/// Marks the calling thread.
void mark_thread(Role role);

/// Code of the host: nothing here fails and nothing is traced.
class Outside {
public:
    Outside();
    ~Outside();
    Outside(const Outside&) = delete;
    Outside& operator=(const Outside&) = delete;
};

/// A call into the module.
class Inside {
public:
    Inside();
    ~Inside();
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;

private:
    int before;
};

/// One call that the module made, as "NAME ARGUMENTS", and what came of it.
struct Event {
    std::string what;
    long result = 0;
    int error = 0;
    std::array<int, 2> ends = {-1, -1};
    /// What json_loadb() or json_dumps() made when it is not what it should be: jansson loses characters when
    /// its buffer cannot grow, and says nothing.
    std::string mutilated = {};
};

/// Adds to the trace of the calling thread's role.
void record(const Event& event);

/// Takes what was traced so far in this role.
std::deque<Event> take_trace(Role role);

/// Waits until the worker sleeps without a byte to read, or has ended. Ends the program after a deadline.
void await_idle_worker();

/// How often the stop byte was lost; a thread of this program then gave it to the worker.
int lost_stops();
void join_rescuer();

/// A text on the heap, to be released with free().
char* track_text(char* text);

/// What the module has not released: blocks, texts, JSON values.
int unreleased();

/// Where new_throwing failed: return addresses, innermost first; called before the exception is thrown.
extern void (*on_throw)(Role role, void* const* addresses, int count);

/// Names the case in the messages of a failure.
void describe(const std::string& text);
[[noreturn]] void die(const std::string& message);

} // namespace underneath

#endif
