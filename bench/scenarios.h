#ifndef SCENARIOS_H
#define SCENARIOS_H

#include <array>
#include <functional>
#include <string>

#include "lean_host.h"

/// What is counted: registrations, and commands that are refused.
inline constexpr std::array kScenarios = {"partner",     "temporary",   "unknown_command",      "not_json",
                                          "empty_token", "in_progress", "retry_without_failure"};

/// Does one scenario `count` times with a handler that has been initialised, and whose worker is idle again
/// afterwards. The lengths are those of the token and of the user token.
void run_scenario(LeanHost& host, CvHandlerAPI& handler, const std::string& scenario, long count,
                  std::size_t token_length = 32, std::size_t user_token_length = 32);

#endif
