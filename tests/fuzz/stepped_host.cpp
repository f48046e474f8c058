#include "stepped_host.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "cvcloudregisterhandler.h"
#include "cvregistration_globals.h"
#include "cvregistration_utils.h"
#include "cvutils/log.h"
#include "cvutils_stand_in.h"
#include "journal.h"

namespace fuzz {

using kit::journal;
using Worker = kit::Oracle::Worker;

SteppedHost::SteppedHost(const kit::Settings& settings, int level, Script& owner)
    : script(owner), oracle(settings) {
    // The fuzzer's own threads, which are not marked, get the system's own sleep().
    kit::mark_thread(kit::Role::daemon);
    kit::put_in_front(this);
    kit::reset_cvutils();
    journal().clear();
    kit::store(settings);
    partner_id = settings.partner_id;
    log_level(level);
}

SteppedHost::~SteppedHost() {
    kit::put_in_front(nullptr);
    g_cvcloud_api = nullptr;
    // Nothing stays: the fuzzer looks for leaks when an input has left more behind than it found.
    kit::reset_cvutils();
    journal().clear();
}

void SteppedHost::live() {
    // As the handler object's init(), but for the worker's thread, whose place this one takes.
    stopping = false;
    g_cvcloud_api = this;
    g_registration_handler = new cv::registration::RegistrationHandler;
    cv::registration::init_global_settings();
    require(g_registration_handler->thread.init_pipes(), "the pipes could not be opened");
    g_registration_handler->thread.handler = g_registration_handler;
    g_registration_handler->reset();
    oracle.start_up();
    compare();

    cv::registration::RegistrationThread::thread_function(&g_registration_handler->thread);
    require(stopping, "the worker ended although nobody had stopped it");
    compare();
    while (oracle.outstanding() != 0) {
        respond(0, 1, "");
    }
    get_handler_api()->uninit();
    require(g_registration_handler == nullptr, "the registration object is left");
}

void SteppedHost::command(int type, const std::string& name, unsigned long long request_id,
                          const std::string& payload) {
    // The record cuts a longer name.
    oracle.command(type, std::string(name.substr(0, sizeof Message::name - 1).c_str()), request_id, payload);
    inside_command = true;
    kit::send_command(*get_handler_api(), name, payload, type, request_id);
    inside_command = false;
    compare();
}

void SteppedHost::respond(std::size_t index, std::uint32_t status, const std::string& body, bool own_thread) {
    oracle.respond(index, status, body);
    const kit::Answer answer = {body, status};
    require(own_thread ? answer_from_own_thread(answer, index) : this->answer(answer, index),
            "there is no request to answer");
    require(lent_responses() == 0, "the response was not released");
    compare();
}

void SteppedHost::wake_up() {
    oracle.wake_up();
    g_registration_handler->thread.run();
    compare();
}

void SteppedHost::lose_next_wake_up() {
    oracle.lose_next_wake_up();
    wake_up_is_lost = true;
}

void SteppedHost::stop() {
    stopping = true;
}

void SteppedHost::log_level(int level) {
    cv::log::current_level = level;
}

void SteppedHost::interface_mac(const std::string& mac) {
    oracle.settings.interface_mac = mac;
    kit::set_mac_address(mac.empty() ? std::nullopt : std::optional<std::string>(mac));
}

int SteppedHost::select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional,
                        timeval* timeout) {
    require(oracle.worker() == Worker::waiting, "the worker went to sleep too early");
    oracle.waits();
    compare();
    if (script.interrupts()) {
        errno = EINTR;
        return -1;
    }
    while (!stopping && (wake_ups() == 0 || script.worker_is_late())) {
        if (!script.act(*this)) {
            break;
        }
    }
    if (stopping || wake_ups() == 0) {
        stopping = true;
        require(System::write(g_registration_handler->thread.stop_pipe[1], "x", 1) == 1, "no stop byte");
    } else {
        oracle.run();
    }
    return System::select(count, readable, writable, exceptional, timeout);
}

unsigned int SteppedHost::sleep(unsigned int seconds) {
    if (kit::thread_role() == kit::Role::worker) {
        return System::sleep(seconds);
    }
    journal().record("sleep " + std::to_string(static_cast<int>(seconds)));
    leave_worker(Worker::pausing);
    oracle.pause_over();
    return 0;
}

int SteppedHost::poll(pollfd* descriptors, nfds_t count, int timeout) {
    if (std::exchange(wake_up_is_lost, false)) {
        return 0;
    }
    return System::poll(descriptors, count, timeout);
}

ssize_t SteppedHost::write(int descriptor, const void* buffer, std::size_t size) {
    if (g_registration_handler != nullptr && descriptor == g_registration_handler->thread.run_pipe[1]) {
        journal().record("wake-up");
    }
    return System::write(descriptor, buffer, size);
}

int SteppedHost::send_request(const char* request, const char* service, cvtessel_callback callback,
                              void* user_data) {
    require(request == built, "the request is not what was built");
    require(*static_cast<const unsigned long long*>(user_data) == oracle.snapshot().request_id,
            "the request's block has another identifier");
    const int result = ScriptedHost::send_request(request, service, callback, user_data);
    if (result == 0) {
        oracle.accept();
    }
    leave_worker(Worker::sending);
    oracle.sent(result == 0);
    return result;
}

char* SteppedHost::build_request(const char* method, const char* params, unsigned int params_len,
                                 bool add_connect_fields) {
    char* const text = ScriptedHost::build_request(method, params, params_len, add_connect_fields);
    built = text != nullptr ? text : "";
    return text;
}

int SteppedHost::outcome(Operation operation, int /*scripted*/) {
    switch (operation) {
    case Operation::send:
        return script.succeeds(operation) ? 0 : -1;
    case Operation::build: {
        leave_worker(Worker::building);
        const bool succeeds = script.succeeds(operation);
        oracle.built(succeeds);
        return succeeds ? 0 : 1;
    }
    case Operation::publish: {
        leave_worker(Worker::publishing);
        const bool succeeds = script.succeeds(operation);
        oracle.published(succeeds);
        return succeeds ? 0 : 1;
    }
    case Operation::reply:
        require(replies().back().record.type == 0 && std::strcmp(replies().back().record.name, "0") == 0 &&
                    replies().back().record.reserved == 0,
                "the reply's record is not filled as replies are");
        if (!inside_command) {
            leave_worker(Worker::replying);
            oracle.replied();
        }
        break;
    }
    return -1; // Nobody acts on it.
}

void SteppedHost::leave_worker(Worker worker) {
    compare();
    require(oracle.worker() == worker, "the worker is in a call that is not due");
    script.act_meanwhile(*this);
}

void SteppedHost::compare() {
    const std::vector<std::string> effects = journal().events(
        {"build_request", "send_request", "publish", "reply", "sleep", "release_response", "wake-up"});
    journal().clear();
    history.insert(history.end(), effects.begin(), effects.end());
    std::vector<std::string>& due = oracle.effects;
    due.erase(std::remove_if(due.begin(), due.end(), // The level may be below theirs.
                             [](const std::string& effect) { return effect.rfind("log ", 0) == 0; }),
              due.end());
    if (effects != due) {
        std::string text = "the effects differ; due were:";
        for (const std::string& effect : due) {
            text += "\n  " + effect;
        }
        text += "\nand there were:";
        for (const std::string& effect : effects) {
            text += "\n  " + effect;
        }
        fail(text);
    }
    due.clear();
    const kit::Snapshot there = seen();
    if (!(there == oracle.snapshot())) {
        fail("the registration differs; due was:\n" + describe(oracle.snapshot()) + "\nand there was:\n" +
             describe(there));
    }
    require(outstanding().size() == oracle.outstanding(), "the outstanding requests differ");
}

kit::Snapshot SteppedHost::seen() const {
    const cv::registration::RegistrationHandler& handler = *g_registration_handler;
    const auto step = [](const cv::registration::RegistrationHandler::StepProgress& progress) {
        return kit::Snapshot::Step{progress.tries_left, progress.succeeded, progress.value};
    };
    return {handler.state,
            handler.registration_in_progress,
            step(handler.login_progress),
            step(handler.register_progress),
            handler.first_method,
            handler.token,
            handler.mac,
            handler.error_response,
            handler.request_id,
            handler.reply_requested,
            user_token,
            device_id,
            wake_ups()};
}

int SteppedHost::wake_ups() const {
    int bytes = -1;
    require(ioctl(g_registration_handler->thread.run_pipe[0], FIONREAD, &bytes) == 0, "no run pipe");
    return bytes;
}

void SteppedHost::require(bool condition, const char* what) const {
    if (!condition) {
        fail(what);
    }
}

void SteppedHost::fail(const std::string& what) const {
    std::fprintf(stderr, "fuzz: the effects so far:\n");
    for (const std::string& effect : history) {
        std::fprintf(stderr, "  %s\n", effect.c_str());
    }
    std::fprintf(stderr, "fuzz: %s\n", what.c_str());
    std::abort();
}

} // namespace fuzz
