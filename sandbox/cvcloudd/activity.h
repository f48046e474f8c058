#ifndef CVCLOUDD_ACTIVITY_H
#define CVCLOUDD_ACTIVITY_H

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

#include <nlohmann/json.hpp>

#include "cvex/wire.h"

namespace cvcloudd {

/// What the daemon is doing, as far as it can see from outside of its handlers. Any thread may call the
/// operations.
class Activity {
public:
    /// A command is about to be delivered to its handler.
    void delivered(std::uint64_t request_id, const cvex::Command& command);
    void request_sent(const std::string& method);
    void request_ended(const std::string& error);
    void replied(std::uint64_t request_id, const std::string& payload);
    void published(const std::string& name);

    /// {"state": "idle"}, or the registration's state, command, step, try, error and seconds since the last
    /// change. States: "request" (one is at the cloud, or about to be), "pause" (the last one failed and the
    /// handler has not given up), "unknown" (it may be over: it failed, or was refused, and nobody waits for
    /// a reply).
    nlohmann::ordered_json registration() const;

    /// {"command", "result", "reason"} of the last registration that has ended, {"command", "reply"} when the
    /// reply has no result, or null.
    nlohmann::ordered_json last_result() const;

private:
    using Clock = std::chrono::steady_clock;

    bool may_be_over() const {
        return !wants_reply && !is_at_cloud;
    }

    mutable std::mutex mutex;
    bool is_running = false;
    std::uint64_t running_id = 0;
    std::string command_name;
    bool wants_reply = false;
    bool is_at_cloud = false;
    std::string step;
    int tries = 0;
    std::string last_error;
    Clock::time_point changed;
    nlohmann::ordered_json result;
};

} // namespace cvcloudd

#endif
