#ifndef RULES_H
#define RULES_H

#include <array>
#include <deque>
#include <string>
#include <vector>

#include "traced_host.h"
#include "underneath.h"

/// A command of a scenario, and what it means.
struct Command {
    std::string name;
    std::string payload;
    int type = 2;
    unsigned long long request_id = 0;
    /// The input of a valid start.
    std::string token;
    bool partner = false;
    std::string mac;
    /// The refusal of a start that is not valid.
    std::string reason;
    /// Its requests stay unanswered until the next command has been delivered.
    bool hold = false;
};

/// The rules of a registration, followed step by step beside the module: which call has to come next on which
/// thread, given what came of the calls before. Written from the description of the module's behaviour and
/// not from its sources. Every member ends the program when the trace differs from the rules.
class Rules {
public:
    explicit Rules(TracedHost& traced_host) : host(traced_host) {}

    void init(int result, bool threw);
    void uninit();
    void command(const Command& command);
    /// What the callback thread and then the worker did, up to the next request or the end.
    void answer();

    bool in_progress = false;
    bool has_failed = false; // In the failed state: a retry may resume.
    bool worker_ended = false;
    bool ready = false;
    int dones = 0;
    int dropped_wake_ups = 0;
    std::string user_token;
    std::string device_id;

private:
    enum State { login_state, register_state, finish_state, fail_state };
    struct Step {
        bool succeeded = false;
        int tries_left = 0;
        std::string value;
    };

    underneath::Event next(underneath::Role role, const std::string& what);
    void expect_nothing(underneath::Role role);
    void load(underneath::Role role);
    void close_pipe(const std::array<int, 2>& pipe);
    void close_pipes();
    bool write_byte(underneath::Role role, const std::array<int, 2>& pipe);
    void wake(underneath::Role role);
    void reset();
    void refuse(const Command& command, const std::string& text);
    void worker();
    void run();
    void advance(State next_state);
    bool send_step();
    bool build_document(const std::vector<std::string>& members, std::string& text);
    bool send(const std::string& service, const std::string& method, const std::string& params, bool fields);
    void finish();
    void callback(underneath::Role role);

    TracedHost& host;
    std::deque<underneath::Event> traces[3];
    std::array<int, 2> stop_pipe = {-1, 0};
    std::array<int, 2> run_pipe = {-1, 0};
    bool created = false;
    bool stop_written = false;
    int unread = 0;
    State state = login_state;
    Step login;
    Step registration;
    std::string first_method;
    std::string token;
    std::string mac;
    std::string error;
    unsigned long long request_id = 0;
    bool reply_requested = false;
};

constexpr int kRetries = 1;

std::string error_text(const std::string& result, const std::string& reason);

#endif
