#ifndef LEAN_HOST_H
#define LEAN_HOST_H

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

#include <jansson.h>

#include "cvcloud/cvhandler_api.h"

// A host that does next to nothing, so that what is measured is the module. The programs export select() and
// sleep(), which the module's calls bind to: select() tells that the worker is about to wait for its next
// wake-up, and sleep() returns at once.

/// Hands one thing over from any thread to another. A call costs the same instructions whether it blocks or
/// not.
class Event {
public:
    Event();
    ~Event();
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    void signal() const;
    /// Returns once for each signal().
    void wait() const;

private:
    int descriptor;
};

/// Signalled by a worker each time that it is about to wait for a wake-up, the first one included.
Event& worker_idle();

/// The next select() waits for `resume` after it has signalled worker_idle(). Null: it goes on at once.
void hold_worker_in_select(Event* resume);

/// The texts of one registration, of the lengths asked for.
struct Exchange {
    explicit Exchange(const std::string& token_type = "partner", std::size_t token_length = 32,
                      std::size_t user_token_length = 32);

    std::string payload;
    std::string login_answer;
    std::string box_answer;
};

/// The daemon's cloud access object, and the commands and answers that reach a handler through it. Commands
/// and answers are delivered on the calling thread, requests arrive on the handler's worker.
class LeanHost final : public CvCloudAPI {
public:
    LeanHost();

    int send_request(const char* request, const char* service, cvtessel_callback callback,
                     void* user_data) override;
    void release_response(cvtessel_response* response) override;
    char* build_request(const char* method, const char* params, unsigned int params_len,
                        bool add_connect_fields) override;
    int publish_message(const char* name, const void* data, unsigned int length) override;
    int daemon_operation() override;
    int send_response(const Message* reply) override;

    /// Starts a handler's worker and waits until it is idle. Ends the program when the handler is not ready.
    void init(CvHandlerAPI& handler);

    /// Delivers a command that wants a reply, and returns as handle() does. `name` and `payload` are used
    /// during the call only.
    void command(CvHandlerAPI& handler, const char* name, const std::string& payload);

    /// Calls the callback of the outstanding request.
    void answer(const std::string& body);

    /// One registration from the command to its reply. Ends the program when it does not succeed.
    void register_box(CvHandlerAPI& handler, const Exchange& exchange);

    /// Ends the program when the number of replies since the last call is another one.
    void expect_replies(int expected);

    /// When the last request or published message arrived, in nanoseconds().
    std::int64_t arrival = 0;
    /// send_request() refuses.
    bool refuses = false;
    /// When set, send_request() signals `held` and then waits for `resume`.
    Event* held = nullptr;
    Event* resume = nullptr;

private:
    cvtessel_callback callback = nullptr;
    void* user_data = nullptr;
    int published = 0;
    int replies = 0;
    unsigned long long request_id = 0;
};

/// Set while the thread is in the host: what it allocates there is not the module's.
extern thread_local bool in_host;

/// The handler of the library at `path`; ends the program when there is none.
CvHandlerAPI& load_handler(const char* path);

/// The monotonic clock.
std::int64_t nanoseconds();

/// Keeps this thread, and those that it will start, on one processor.
void stay_on_one_processor();

/// The identifiers of the process's threads.
std::set<int> thread_ids();

/// The number after `label` in a file of /proc; ends the program when there is none.
long number_in(const std::string& file, const std::string& label);

/// The positive number that a command-line argument holds; ends the program when it holds none.
long positive_number(const char* argument);

/// Prints the object, which is released, as the program's result.
void print_result(json_t* result);

[[noreturn]] void die(const std::string& message);

#endif
