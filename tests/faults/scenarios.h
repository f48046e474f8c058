#ifndef SCENARIOS_H
#define SCENARIOS_H

#include <deque>
#include <string>
#include <vector>

#include "rules.h"
#include "scripted_host.h"

/// Commands, and the answers to the requests that they cause. When the answers run out the cloud is kind.
struct Scenario {
    std::string name;
    std::vector<Command> commands;
    std::deque<kit::Answer> login_answers;
    std::deque<kit::Answer> box_answers;
    bool answers_inside = false;
    /// How many of the daemon's first operations fail.
    int failing_builds = 0;
    int failing_sends = 0;
    int failing_publishes = 0;
};

std::vector<Scenario> scenarios();

/// The device identity in the cloud's good answers.
extern const std::string kDeviceId;

/// A valid start and a retry.
Command start(bool partner, unsigned long long request_id, int type = 2);
Command retry(unsigned long long request_id, int type = 2);

/// A daemon that plays a scenario, whose operations fail on order besides, and the rules beside it.
class Daemon : public kit::ScriptedHost {
public:
    explicit Daemon(const Scenario& played);

    /// Delivers a command and waits for the worker.
    void deliver(const Command& command) const;

    /// Answers the outstanding request on a thread of its own and waits for the worker. False when there is
    /// none. When the callback throws, `callback_threw` is set.
    bool answer();

    /// Only kind answers and no failures from now on.
    void be_kind();

    /// Forgets the outstanding requests, as a daemon does that gives up on them.
    void drop_outstanding();

    Scenario scenario;
    Rules rules;
    bool callback_threw = false;

private:
    int outcome(Operation operation, int scripted) override;
    bool answers_inside(const std::string& service, kit::Answer& answer) override;
    kit::Answer next_answer(const std::string& service);
};

#endif
