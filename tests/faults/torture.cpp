// Whole registrations with a failing call: of every kind, with every plausible result, the nth one alone and
// all from the nth on, for every n until there are no more calls. After each: what the rules say, nothing
// lost, nothing released twice, and the next registration succeeds where the failure allows it.

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "cvcloudregisterhandler.h"
#include "cvregistration_globals.h"
#include "cvregistration_state_machine.h"
#include "process.h"
#include "scenarios.h"

using kit::Call;
using kit::Fault;
using kit::InModule;

namespace {

// Calls that fail "for ever" and that the module answers by calling again: a worker that spins is what the
// rules say, and after this many it is enough.
constexpr int kBurst = 50;
constexpr int kForever = 1 << 30;

struct FaultKind {
    const char* name;
    Call call;
    int result;
    int error;
    int all = kForever;
};

const FaultKind kFaultKinds[] = {
    {"operator new", Call::new_nothrow, 0, 0},
    {"jansson's malloc", Call::json_malloc, 0, 0},
    {"json_object", Call::json_object, 0, 0},
    {"json_dumps", Call::json_dumps, 0, 0},
    {"build_request", Call::build_request, 1, 0},
    {"send_request", Call::send_request, 1, 0},
    {"send_request", Call::send_request, -1, 0},
    {"publish_message", Call::publish_message, 1, 0},
    {"publish_message", Call::publish_message, -1, 0},
    {"send_response", Call::send_response, -1, 0},
    {"pipe2", Call::pipe2, -1, EMFILE},
    {"pipe2", Call::pipe2, -1, ENFILE},
    {"pipe2", Call::pipe2, -1, ENOMEM},
    {"poll", Call::poll, 0, 0},
    {"poll", Call::poll, -1, EINTR},
    {"poll", Call::poll, -1, ENOMEM},
    {"poll", Call::poll, -1, EINVAL},
    {"select", Call::select, -1, EINTR, kBurst},
    {"select", Call::select, -1, EBADF},
    {"select", Call::select, -1, EINVAL},
    {"select", Call::select, -1, ENOMEM},
    {"read", Call::read, 0, 0, kBurst},
    {"read", Call::read, -1, EAGAIN, kBurst},
    {"read", Call::read, -1, EINTR, kBurst},
    {"read", Call::read, -1, EIO, kBurst},
    {"write", Call::write, 0, 0},
    {"write", Call::write, -1, EAGAIN},
    {"write", Call::write, -1, EINTR},
    {"write", Call::write, -1, EPIPE},
    {"close", Call::close, -1, EINTR},
    {"close", Call::close, -1, EIO},
    {"thread creation", Call::thread_start, -1, EAGAIN},
    {"thread creation", Call::thread_start, -1, EPERM},
};

std::set<std::string> open_descriptors() {
    return kit::names_in("/proc/self/fd");
}

/// A daemon and the module, followed by the rules.
class Box {
public:
    explicit Box(const Scenario& played) : host(played) {}

    void init() {
        std::vector<std::string> commands;
        int result = 0;
        bool threw = false;
        try {
            const InModule module;
            result = g_handler_api.init(&host, commands);
        } catch (const std::system_error&) {
            threw = true;
        }
        if (result != 0) {
            faulty_system().await_idle_worker();
        }
        rules.init(result, threw);
    }

    void play() {
        for (const Command& command : host.scenario.commands) {
            do_command(command);
        }
    }

    void do_command(const Command& command) {
        if (!rules.ready) {
            return;
        }
        host.deliver(command);
        rules.deliver(command);
        compare();
        while (!command.hold && host.answer()) {
            rules.answer();
            compare();
        }
    }

    // Kind answers and no more faults: a failed registration is resumed, and another one follows.
    void recover() {
        host.be_kind();
        if (rules.snapshot().state == 5 && !rules.snapshot().in_progress) {
            do_command(retry(90));
        }
        do_command(start(true, 91));
        do_command(start(false, 92));
    }

    void uninit() {
        {
            const InModule module;
            g_handler_api.uninit();
        }
        faulty_system().join_rescuer();
        rules.uninit();
        host.drop_outstanding();
        if (g_registration_handler != nullptr) {
            fail("uninit() left the registration object");
        }
    }

    bool lost_a_wake_up_or_the_worker() const {
        return rules.dropped_wake_ups > 0 || rules.worker_ended;
    }

    Daemon host;
    Rules& rules = host.rules;

private:
    void compare() {
        const kit::Snapshot& due = rules.snapshot();
        if (g_registration_handler->registration_in_progress != due.in_progress) {
            fail(due.in_progress ? "the registration should be in progress"
                                 : "the registration should not be in progress");
        }
        if (host.user_token != due.user_token || host.device_id != due.device_id) {
            fail("the daemon's token or device identity is not what the rules say");
        }
    }
};

void expect(bool condition, const std::string& message) {
    if (!condition) {
        fail(message);
    }
}

void expect_clean(const Box& box, const std::set<std::string>& descriptors) {
    expect(unreleased() == 0, std::to_string(unreleased()) + " blocks, texts or JSON values are left");
    expect(box.host.lent_responses() == 0, "a response was not given back");
    expect(open_descriptors() == descriptors, "the open descriptors are not what they were");
}

// Both plays of a scenario with one fault; how often it struck.
int torture(const Scenario& scenario, const Fault& fault, const std::set<std::string>& descriptors) {
    int fired = 0;
    {
        // The fault lasts beyond uninit(), and the next init() finds everything in order.
        Box box(scenario);
        kit::calls::order(fault);
        box.init();
        box.play();
        box.uninit();
        fired = kit::calls::fired();
        kit::calls::order();
        expect_clean(box, descriptors);
        const int before = box.rules.successes();
        box.init();
        box.recover();
        expect(box.rules.successes() == before + 2, "no registration succeeds after another init()");
        box.uninit();
        expect_clean(box, descriptors);
    }
    {
        // The fault goes by, and the same worker goes on.
        Box box(scenario);
        kit::calls::order(fault);
        box.init();
        box.play();
        kit::calls::order();
        const int before = box.rules.successes();
        box.recover();
        // A wake-up that was dropped is never made up for, and a worker that ended stays ended.
        expect(!box.rules.ready || box.lost_a_wake_up_or_the_worker() || box.rules.successes() >= before + 2,
               "no registration succeeds after the failure");
        box.uninit();
        expect_clean(box, descriptors);
    }
    return fired;
}

void out_of_time(int /*signal*/) {
    // What await_idle_worker() does not see: the daemon's thread waits for ever.
    constexpr char kMessage[] = "torture: a call into the module does not return\n";
    [[maybe_unused]] const ssize_t written = write(2, kMessage, sizeof kMessage - 1);
    fail("hangs");
}

} // namespace

int main(int argc, char** argv) {
    const bool quick = argc == 2 && std::strcmp(argv[1], "--quick") == 0;
    if (argc > 2 || (argc == 2 && !quick)) {
        std::fprintf(stderr, "torture: the one option is --quick\n");
        return 2;
    }
    kit::mark_thread(kit::Role::daemon);
    faulty_system();
    std::signal(SIGALRM, out_of_time);
    std::signal(SIGPIPE, SIG_DFL); // One would end the test.
    const std::set<std::string> descriptors = open_descriptors();
    int points = 0;
    int runs = 0;
    for (const Scenario& scenario : scenarios()) {
        describe(scenario.name + ", without a fault");
        torture(scenario, {}, descriptors);
        Call previous = Call::none;
        for (const FaultKind& kind : kFaultKinds) {
            if (quick && kind.call == std::exchange(previous, kind.call)) {
                continue;
            }
            for (const int count : {1, kind.all}) {
                int first = 0;
                int fired = 0;
                do {
                    ++first;
                    describe(scenario.name + ", " + kind.name + " returns " + std::to_string(kind.result) +
                             " (" + std::strerror(kind.error) + ") at call " + std::to_string(first) +
                             (count == 1 ? "" : " and all after it"));
                    alarm(60);
                    fired =
                        torture(scenario, {kind.call, kind.result, kind.error, first, count}, descriptors);
                    points += fired > 0 ? 1 : 0;
                    ++runs;
                } while (fired > 0);
                if (quick) {
                    break;
                }
            }
        }
    }
    std::printf("torture: %d failure points in %zu scenarios, %d runs: all as the rules say, nothing lost\n",
                points, scenarios().size(), 2 * runs);
    return 0;
}
