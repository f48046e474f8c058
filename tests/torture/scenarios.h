#ifndef SCENARIOS_H
#define SCENARIOS_H

#include <deque>
#include <string>
#include <vector>

#include "rules.h"
#include "traced_host.h"

/// Commands, and the answers to the requests that they cause. When the answers run out the cloud is kind.
struct Scenario {
    std::string name;
    std::vector<Command> commands;
    std::deque<Answer> login_answers;
    std::deque<Answer> box_answers;
    bool answers_inside = false;
    /// How many of the daemon's first operations fail.
    int failing_builds = 0;
    int failing_sends = 0;
    int failing_publishes = 0;
};

std::vector<Scenario> scenarios();

/// The cloud's good answers.
Answer good_login();
Answer good_box();

/// A valid start and a retry.
Command start(bool partner, unsigned long long request_id, int type = 2);
Command retry(unsigned long long request_id, int type = 2);

/// Makes the daemon and its cloud behave as the scenario says, whose answers it uses up.
void script(TracedHost& host, Scenario& scenario);

/// Delivers a command as the daemon does: the payload without a NUL behind it, and gone after the call.
void deliver(const Command& command);

#endif
