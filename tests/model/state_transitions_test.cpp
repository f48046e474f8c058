// Keeps the model of the threads in step with the module: drives the state machine through every situation
// and compares the transitions that it takes with the rows that the model moves by.

#include <functional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "cvregistration_globals.h"
#include "cvregistration_state_machine.h"
#include "cvregistration_utils.h"
#include "cvutils_stand_in.h"
#include "scripted_host.h"

using cv::registration::RegistrationHandler;

namespace {

/// From, event, to.
using Transition = std::tuple<int, std::string, int>;
using Transitions = std::set<Transition>;

const Transitions kModel = {
#define TRANSITION(from, event, to) {RegistrationHandler::from, #event, RegistrationHandler::to},
#include "transitions.def"
#undef TRANSITION
};

std::string text(const Transition& transition) {
    const auto& [from, event, to] = transition;
    return std::to_string(from) + " " + event + " " + std::to_string(to);
}

/// What happened in a run of the state machine, with the state at that moment and the reason to leave it, if
/// there was one.
struct Point {
    enum Kind { WOKEN, REFUSED, SENT, NOT_PUBLISHED, PUBLISHED, REPLIED, RETURNED } kind;
    int state;
    std::string reason;
};

/// A host at which the state is looked at whenever the module calls it.
class WatchingCloud : public kit::ScriptedHost {
public:
    std::function<void(Point::Kind)> watch = [](Point::Kind) {};

private:
    int outcome(Operation operation, int scripted) override {
        if (operation == Operation::send) {
            watch(scripted == 0 ? Point::SENT : Point::REFUSED);
        } else if (operation == Operation::publish) {
            watch(scripted == 0 ? Point::PUBLISHED : Point::NOT_PUBLISHED);
        } else if (operation == Operation::reply) {
            watch(Point::REPLIED);
        }
        return scripted;
    }
};

/// Where the state machine stands, and how its host answers.
struct Situation {
    RegistrationHandler::State state;
    bool step_installed;
    bool login_succeeded;
    bool register_succeeded;
    int tries_left;
    int refused_requests;
    bool publish_fails;
    bool body_fails;
};

const RegistrationHandler::State kStates[] = {RegistrationHandler::LOGIN,
                                              RegistrationHandler::REGISTER_DEVICE,
                                              RegistrationHandler::FINISH, RegistrationHandler::FAIL};

/// A handler in a situation, and the transitions that it takes from there.
class Machine {
public:
    explicit Machine(const Situation& situation) {
        kit::reset_cvutils();
        g_cvcloud_api = &cloud;
        cv::registration::g_retry_num = 1;
        cv::registration::g_retry_interval = 0;
        EXPECT_TRUE(handler.thread.init_pipes());
        handler.reset();
        if (situation.step_installed) {
            handler.set_input_params({"token", "partner", "0A:1B"});
        }
        handler.state = situation.state;
        handler.reply_requested = true;
        handler.login_progress.succeeded = situation.login_succeeded;
        handler.register_progress.succeeded = situation.register_succeeded;
        // A step that is entered from the one before has a try left, and shows itself by its request.
        const bool in_login = situation.state == RegistrationHandler::LOGIN;
        (in_login ? handler.login_progress : handler.register_progress).tries_left = situation.tries_left;
        cloud.refuse_next_send(situation.refused_requests);
        if (situation.publish_fails) {
            cloud.fail_next_publish();
        }
        if (situation.body_fails) {
            kit::fail_attach("user_token");
        }
        cloud.watch = [this](Point::Kind kind) { add_point(kind); };
    }

    ~Machine() {
        handler.thread.uninit();
        g_cvcloud_api = nullptr;
    }

    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    Transitions wake_up() {
        points.clear();
        add_point(Point::WOKEN);
        handler.run_state_machine();
        add_point(Point::RETURNED);

        Transitions taken;
        bool published = false;
        for (std::size_t next = 1; next < points.size(); ++next) {
            const Point& from = points[next - 1];
            const Point& to = points[next];
            published = published || from.kind == Point::PUBLISHED;
            const bool returned = to.kind == Point::RETURNED;
            if (from.kind == Point::SENT) {
                taken.emplace(from.state, "SENT", to.state);
            } else if (returned) {
                taken.emplace(from.state, published ? "PUBLISHED" : "REPORTED", to.state);
            } else if (from.state != to.state) {
                taken.emplace(from.state, from.reason, to.state);
            }
        }
        return taken;
    }

    Transition retry() {
        const int from = handler.state;
        std::string error;
        std::string event = "RETRY_REFUSED";
        if (handler.retry_cloud_registration(error)) {
            event = !handler.login_progress.succeeded      ? "RETRY_LOGIN"
                    : !handler.register_progress.succeeded ? "RETRY_REGISTER"
                                                           : "RETRY_FINISH";
        }
        return {from, event, handler.state};
    }

    Transition reset() {
        const int from = handler.state;
        handler.reset();
        return {from, "RESET", handler.state};
    }

private:
    void add_point(Point::Kind kind) {
        points.push_back({kind, handler.state, reason_to_leave()});
    }

    std::string reason_to_leave() const {
        if (handler.state == RegistrationHandler::FINISH) {
            return "NOT_PUBLISHED";
        }
        const auto step = handler.states.find(handler.state);
        if (step == handler.states.end()) {
            return "NO_STEP";
        }
        if (step->second.progress->succeeded) {
            return "SUCCEEDED";
        }
        return step->second.progress->tries_left == 0 ? "OUT_OF_TRIES" : "UNEXPLAINED";
    }

    WatchingCloud cloud;
    RegistrationHandler handler;
    std::vector<Point> points;
};

std::vector<Situation> situations() {
    std::vector<Situation> all;
    for (const RegistrationHandler::State state : kStates) {
        for (int bits = 0; bits < 32; ++bits) {
            for (int tries = 0; tries <= 2; ++tries) {
                for (int refused = 0; refused <= 2; ++refused) {
                    const Situation situation = {state, (bits & 1) != 0, (bits & 2) != 0, (bits & 4) != 0,
                                                 tries, refused,         (bits & 8) != 0, (bits & 16) != 0};
                    // A state must not be left before the host has seen it: the second step has no result
                    // when the first is left, and a body fails where the run begins with it.
                    const bool hides_step =
                        state == RegistrationHandler::LOGIN && situation.register_succeeded;
                    const bool hides_finish = state != RegistrationHandler::FINISH && situation.body_fails;
                    if (!hides_step && !hides_finish) {
                        all.push_back(situation);
                    }
                }
            }
        }
    }
    return all;
}

TEST(StateTransitionsTest, ModuleAndModelHaveTheSame) {
    Transitions taken;
    for (const Situation& situation : situations()) {
        taken.merge(Machine(situation).wake_up());
        taken.insert(Machine(situation).retry());
        taken.insert(Machine(situation).reset());
    }
    for (const Transition& transition : taken) {
        EXPECT_EQ(kModel.count(transition), 1U) << "not in transitions.def: " << text(transition);
    }
    for (const Transition& transition : kModel) {
        EXPECT_EQ(taken.count(transition), 1U) << "not taken by the module: " << text(transition);
    }
}

} // namespace
