#ifndef SCENARIOS_H
#define SCENARIOS_H

#include <array>
#include <cstddef>
#include <string>

#include "idle_system.h"

/// Signalled by a worker each time that it is about to wait for a wake-up, the first one included.
inline const kit::Signal& worker_idle() {
    return kit::idle_system().idle;
}

/// To be called first: this thread is the host's, and nothing is logged but failures.
void start_measuring();

/// The handler of the library at `path`, which stays loaded; ends the program when there is none.
CvHandlerAPI& load_handler(const char* path);

/// The texts of one registration, of the lengths asked for.
struct Exchange {
    explicit Exchange(const std::string& token_type = "partner", std::size_t token_length = 32,
                      std::size_t user_token_length = 32);

    std::string payload;
    std::string login_answer;
    std::string box_answer;
};

/// Starts a handler's worker and waits until it is idle. Ends the program when the handler is not ready.
void init(kit::LeanHost& host, CvHandlerAPI& handler);

/// One registration from the command to its reply. Ends the program when it does not succeed.
void register_box(kit::LeanHost& host, CvHandlerAPI& handler, const Exchange& exchange);

/// Answers both requests of a registration whose first one is outstanding.
void answer_requests(kit::LeanHost& host, const Exchange& exchange);

/// The rest of a registration whose command has been delivered.
void finish(kit::LeanHost& host, const Exchange& exchange);

/// Ends the program when the number of replies since the last call is another one.
void expect_replies(kit::LeanHost& host, int expected);

/// What is counted: registrations, and commands that are refused.
inline constexpr std::array kScenarios = {"partner",     "temporary",   "unknown_command",      "not_json",
                                          "empty_token", "in_progress", "retry_without_failure"};

/// Does one scenario `count` times with a handler that has been initialised, and whose worker is idle again
/// afterwards. The lengths are those of the token and of the user token.
void run_scenario(kit::LeanHost& host, CvHandlerAPI& handler, const std::string& scenario, long count,
                  std::size_t token_length = 32, std::size_t user_token_length = 32);

#endif
