#include "rules.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "cvregistration_state_machine.h"
#include "texts.h"

using kit::Event;
using kit::Role;
namespace text = kit::text;

namespace {

// What the rules say nothing about.
bool is_ignored(const std::string& what) {
    const char* const ignored[] = {"log 2 ",           "log 3 ",           "log_json ",        "get_setting ",
                                   "get_mac_address ", "release_response", "release document", "free ",
                                   "delete "};
    return std::any_of(std::begin(ignored), std::end(ignored),
                       [&](const char* beginning) { return what.rfind(beginning, 0) == 0; });
}

} // namespace

// Looks at the events of one thread that have come since the last time.
void Rules::begin(Role of) {
    role = of;
    trace.clear();
    std::size_t& count = taken[static_cast<int>(role)];
    for (Event& event : kit::journal().events_of(role, count)) {
        // A worker in select() is looked at again.
        count += event.pending ? 0U : 1U;
        if (!is_ignored(event.what)) {
            trace.push_back(std::move(event));
        }
    }
}

bool Rules::comes(const std::string& beginning) const {
    return !trace.empty() && trace.front().what.rfind(beginning, 0) == 0;
}

Event Rules::next(const std::string& what) {
    if (trace.empty()) {
        fail("the rules expect \"" + what + "\" and nothing came");
    }
    const Event event = trace.front();
    if (event.what != what) {
        fail("the rules expect \"" + what + "\" and \"" + event.what + "\" came");
    }
    trace.pop_front();
    return event;
}

void Rules::expect_nothing() {
    if (!trace.empty() && !trace.front().pending) {
        fail("the rules expect nothing more and \"" + trace.front().what + "\" came");
    }
}

Event Rules::follow_effects() {
    Event last;
    for (const std::string& effect : std::exchange(effects, {})) {
        if (effect != "wake-up" && !is_ignored(effect)) {
            last = next(effect);
        }
    }
    return last;
}

// ---- What comes of the module's own calls

json_t* Rules::parse(const std::string& text) {
    follow_effects();
    const Event parsed = next("json_loadb");
    return parsed.result == 0 ? nullptr : Oracle::parse(parsed.mutilated.empty() ? text : parsed.mutilated);
}

std::optional<std::string> Rules::write(std::initializer_list<Member> members) {
    follow_effects();
    const std::optional<std::string> written = Oracle::write(members);
    if (next("json_object").result == 0) {
        return std::nullopt;
    }
    for (const Member& member : members) {
        if (comes(std::string("cannot attach ") + member.first)) {
            trace.pop_front();
            return std::nullopt;
        }
    }
    const Event dumped = next("json_dumps");
    if (dumped.result == 0) {
        return std::nullopt;
    }
    return dumped.mutilated.empty() ? written : dumped.mutilated;
}

bool Rules::has_block() {
    follow_effects();
    return next("new 8").result != 0;
}

bool Rules::writes_byte() {
    follow_effects();
    if (write_byte(run_pipe)) {
        return true;
    }
    ++dropped_wake_ups;
    return false;
}

bool Rules::write_byte(const std::array<int, 2>& pipe) {
    const std::string descriptor = std::to_string(pipe[1]);
    return next("poll " + descriptor + " for writing, timeout 0").result >= 1 &&
           next("write " + descriptor + " x").result == 1;
}

// ---- The daemon's thread

void Rules::init(int result, bool threw) {
    begin(Role::daemon);
    stop_pipe = run_pipe = {-1, 0};
    worker_ended = stop_written = ready = false;
    bool expect_throw = false;
    created = next("new " + std::to_string(sizeof(cv::registration::RegistrationHandler))).result != 0;
    if (!created) {
        next(text::kNoHandler);
    } else {
        const auto pipes = kit::calls::pipes();
        const Event first = next("pipe2 nonblocking");
        const Event second = first.result == 0 ? next("pipe2 nonblocking") : first;
        if (first.result == 0) {
            stop_pipe = pipes[pipes.size() - (second.result == 0 ? 2 : 1)];
        }
        if (second.result == 0) {
            run_pipe = pipes.back();
            expect_throw = next("thread").result == 0;
            ready = !expect_throw;
        } else {
            next(text::no_pipe(strerror(second.error)));
            close_pipes();
            close_pipes(); // The handler's own uninit(); the entries were not cleared.
            created = false;
        }
    }
    if (ready) {
        start_up();
    }
    expect_nothing();
    if ((result != 0) != ready || threw != expect_throw) {
        fail("init() ended in another way than the rules say");
    }
}

void Rules::close_pipes() {
    for (const int end : {stop_pipe[0], stop_pipe[1], run_pipe[0], run_pipe[1]}) {
        if (end != -1) {
            next("close " + std::to_string(end));
        }
    }
}

void Rules::uninit() {
    begin(Role::daemon);
    if (created) {
        if (ready) {
            stop_written = write_byte(stop_pipe) || faulty_system().stop_was_lost();
            const std::deque<Event> rest = std::move(trace);
            follow_worker();
            role = Role::daemon;
            trace = rest;
        }
        close_pipes();
    }
    created = ready = false;
    for (const Role other : {Role::daemon, Role::worker, Role::callback}) {
        if (other != Role::daemon) {
            begin(other);
        }
        expect_nothing();
    }
}

void Rules::deliver(const Command& command) {
    begin(Role::daemon);
    Oracle::command(command.type, command.name, command.request_id, command.payload);
    follow_effects();
    expect_nothing();
    follow_worker();
}

// ---- The responses

void Rules::answer() {
    begin(Role::callback);
    respond_next();
    follow_effects();
    expect_nothing();
    follow_worker();
}

void Rules::respond_next() {
    const auto [body, status] = answers.front();
    answers.pop_front();
    respond(0, status, body);
}

// ---- The worker

void Rules::follow_worker() {
    begin(Role::worker);
    while (!worker_ended) {
        if (comes("select") && trace.front().pending) {
            if (stop_written || snapshot().wake_ups > 0) {
                fail("the worker sleeps although it was woken");
            }
            return;
        }
        const Event select = next("select");
        if (select.result == -1) {
            if (select.error != EINTR) {
                next(text::select_error(select.error, strerror(select.error)));
                worker_ended = true;
            }
        } else if (stop_written) {
            worker_ended = true;
        } else {
            const Event read = next("read " + std::to_string(run_pipe[0]));
            if (read.result > 0) {
                follow_run();
            } else {
                next(text::read_returned(read.result));
            }
        }
    }
    expect_nothing();
}

void Rules::follow_run() {
    run();
    while (worker() != Worker::waiting) {
        const bool succeeds = follow_effects().result == 0;
        switch (worker()) {
        case Worker::pausing:
            pause_over();
            break;
        case Worker::building:
            built(succeeds);
            break;
        case Worker::sending:
            if (succeeds) {
                accept();
                if (answers_inside) {
                    respond_next();
                }
            }
            sent(succeeds);
            break;
        case Worker::publishing:
            published(succeeds);
            break;
        default:
            replied();
        }
    }
    follow_effects();
}
