#include "cvcloudd/activity.h"

#include <cmath>

#include "cvex/reply.h"

namespace cvcloudd {

using nlohmann::ordered_json;

void Activity::delivered(std::uint64_t request_id, const cvex::Command& command) {
    if (command.name != "start_cloud_registration" && command.name != "retry_cloud_registration") {
        return;
    }
    const std::lock_guard lock(mutex);
    if (is_running && !may_be_over()) {
        return;
    }
    is_running = true;
    running_id = request_id;
    command_name = command.name;
    wants_reply = command.type == cvex::type_wants_reply;
    step.clear();
    tries = 0;
    last_error.clear();
    changed = Clock::now();
}

void Activity::request_sent(const std::string& method) {
    const std::lock_guard lock(mutex);
    tries = method == step ? tries + 1 : 1;
    step = method;
    is_at_cloud = true;
    last_error.clear();
    changed = Clock::now();
}

void Activity::request_ended(const std::string& error) {
    const std::lock_guard lock(mutex);
    is_at_cloud = false;
    last_error = error;
    changed = Clock::now();
}

void Activity::replied(std::uint64_t request_id, const std::string& payload) {
    const std::lock_guard lock(mutex);
    if (!is_running || request_id != running_id) {
        return;
    }
    is_running = false;
    // The reply's other members are the requester's alone.
    const auto [outcome, reason] = cvex::read_reply(payload);
    result = {{"command", command_name}};
    if (outcome.empty()) {
        result["reply"] = payload;
        return;
    }
    result["result"] = outcome;
    if (outcome != "ok") {
        result["reason"] = reason;
    }
}

void Activity::published(const std::string& name) {
    const std::lock_guard lock(mutex);
    if (is_running && !wants_reply && name == "cloud_registration_done") {
        is_running = false;
        result = {{"command", command_name}, {"result", "ok"}};
    }
}

ordered_json Activity::registration() const {
    const std::lock_guard lock(mutex);
    if (!is_running) {
        return {{"state", "idle"}};
    }
    const std::chrono::duration<double> seconds = Clock::now() - changed;
    return {{"state", may_be_over()        ? "unknown"
                      : last_error.empty() ? "request"
                                           : "pause"},
            {"command", command_name},
            {"step", step},
            {"try", tries},
            {"error", last_error},
            {"seconds", std::round(seconds.count() * 1000) / 1000}};
}

ordered_json Activity::last_result() const {
    const std::lock_guard lock(mutex);
    return result;
}

} // namespace cvcloudd
