#include "cvex/timeline.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <optional>
#include <utility>

#include "common/cloud_answer.h"
#include "common/json_text.h"
#include "cvex/reply.h"
#include "cvex/wire.h"

namespace cvex {

namespace {

using nlohmann::ordered_json;

/// The settings count pauses in whole seconds: what is shorter than this is the library at work.
constexpr double shortest_pause = 0.01;

/// Why a response is no success, and more of it; empty when it is one.
std::pair<std::string, std::string> failure_of_response(const ordered_json& response) {
    if (const std::uint64_t status = response["status"]; status != 0) {
        return {"status " + std::to_string(status), response["error"]};
    }
    const std::string body = response["body"];
    const std::string problem = sandbox::problem_of_answer(body);
    return {problem, problem.empty() || sandbox::parse_json(body).is_structured() ? "" : body};
}

/// Draws the events in their order; what is started by one event and ended by another is kept in between.
class Drawing {
public:
    explicit Drawing(Timeline& drawn) : timeline(drawn) {}

    void draw(std::size_t index) {
        const RecordedEvent& event = timeline.record.events[index];
        const ordered_json& members = event.members;
        if (event.name == "command") {
            draw_command(index, event);
        } else if (event.name == "request") {
            draw_request(index, event);
        } else if (event.name == "response") {
            draw_response(index, event);
        } else if (event.name == "reply") {
            const auto [result, reason] = read_reply(members["payload"].get<std::string>());
            add(index, Lane::library, Lane::client,
                "reply #" + std::to_string(members["request_id"].get<std::uint64_t>()) +
                    (result.empty() ? "" : ": " + result),
                reason, result != "ok");
            if (members["thread"] != "dispatch") {
                run_ended = true;
            }
        } else if (event.name == "publish") {
            add(index, Lane::library, Lane::client, members["name"], "published", false);
            timeline.messages.back().published = true;
            run_ended = true;
        } else if (event.name == "refused") {
            draw_refusal(index, event);
        }
    }

    /// Closes what the record's end has left open.
    void finish() {
        for (const auto& [request, first] : waiting) {
            add_bar(TimelineBar::Kind::waiting, first, timeline.messages.size(),
                    timeline.end - timeline.messages[first].time);
        }
        std::sort(timeline.bars.begin(), timeline.bars.end(),
                  [](const TimelineBar& a, const TimelineBar& b) { return a.first < b.first; });
    }

private:
    void add(std::size_t index, Lane from, Lane to, std::string label, std::string explanation,
             bool has_failed) {
        timeline.messages.push_back({timeline.record.events[index].time, from, to, std::move(label),
                                     std::move(explanation), has_failed, false, index});
    }

    void add_bar(TimelineBar::Kind kind, std::size_t first, std::size_t last, double duration) {
        timeline.bars.push_back({kind, first, last, duration});
    }

    void draw_command(std::size_t index, const RecordedEvent& event) {
        const bool wants_reply = event.members["type"] == type_wants_reply;
        add(index, Lane::client, Lane::library,
            event.members["name"].get<std::string>() + " #" +
                std::to_string(event.members["request_id"].get<std::uint64_t>()),
            wants_reply ? "wants a reply" : "wants no reply", false);
        // A command that comes while another is worked on is refused and changes nothing. The end of one
        // without reply cannot be told when it fails: the next command then counts as a new run.
        if (run_ended || !run_wants_reply) {
            tries.clear();
            failed_try.reset();
            run_ended = false;
            run_wants_reply = wants_reply;
        }
    }

    /// Counts a further try of the method; a pause is what lies between it and the failed try before it.
    std::string begin_try(const std::string& method, double time) {
        if (failed_try && failed_try->method == method) {
            const double pause = time - timeline.messages[failed_try->message].time;
            if (pause >= shortest_pause) {
                add_bar(TimelineBar::Kind::pause, failed_try->message, timeline.messages.size(), pause);
            }
        }
        failed_try.reset();
        return method + ", try " + std::to_string(++tries[method]);
    }

    void draw_request(std::size_t index, const RecordedEvent& event) {
        const std::string label = begin_try(event.members["method"], event.time);
        waiting[event.members["request"]] = timeline.messages.size();
        add(index, Lane::library, Lane::cloud, label, "", false);
    }

    void draw_response(std::size_t index, const RecordedEvent& event) {
        const std::uint64_t request = event.members["request"];
        const auto [failure, explanation] = failure_of_response(event.members);
        if (const auto first = waiting.find(request); first != waiting.end()) {
            add_bar(TimelineBar::Kind::waiting, first->second, timeline.messages.size(),
                    event.time - timeline.messages[first->second].time);
            waiting.erase(first);
        }
        if (!failure.empty()) {
            failed_try = {event.members["method"], timeline.messages.size()};
        }
        add(index, Lane::cloud, Lane::library,
            event.members["method"].get<std::string>() + ": " + (failure.empty() ? "answer" : failure),
            explanation, !failure.empty());
    }

    void draw_refusal(std::size_t index, const RecordedEvent& event) {
        const std::string of = event.members["of"];
        const std::string method = event.members.value("method", "");
        if (of == "build") {
            const std::string label = begin_try(method, event.time);
            failed_try = {method, timeline.messages.size()};
            add(index, Lane::library, Lane::daemon, label, "the daemon could not build the request", true);
            return;
        }
        // The arrow is there already, but it went no farther than the daemon.
        const auto& events = timeline.record.events;
        const auto refused = std::find_if(
            timeline.messages.rbegin(), timeline.messages.rend(), [&](const TimelineMessage& message) {
                const RecordedEvent& candidate = events[message.event];
                const char* const identity = of == "request" ? "request"
                                             : of == "reply" ? "request_id"
                                                             : "name";
                return candidate.name == of && event.members.contains(identity) &&
                       candidate.members[identity] == event.members[identity];
            });
        if (refused == timeline.messages.rend()) {
            return;
        }
        refused->to = Lane::daemon;
        refused->failed = true;
        refused->explanation = "the daemon refused it";
        if (of == "request") {
            waiting.erase(event.members["request"]);
            failed_try = {method, static_cast<std::size_t>(timeline.messages.rend() - refused) - 1};
        }
    }

    struct FailedTry {
        std::string method;
        std::size_t message;
    };

    Timeline& timeline;
    std::map<std::string, int> tries;
    std::map<std::uint64_t, std::size_t> waiting;
    std::optional<FailedTry> failed_try;
    bool run_ended = true;
    bool run_wants_reply = false;
};

} // namespace

Timeline make_timeline(Record record) {
    Timeline timeline;
    timeline.record = std::move(record);
    const std::size_t count = timeline.record.events.size();
    timeline.end = count > 0 ? timeline.record.events.back().time : 0;
    Drawing drawing(timeline);
    for (std::size_t index = 0; index < count; ++index) {
        drawing.draw(index);
    }
    drawing.finish();
    return timeline;
}

std::string describe_outcome(const Timeline& timeline) {
    for (auto message = timeline.messages.rbegin(); message != timeline.messages.rend(); ++message) {
        const RecordedEvent& event = timeline.record.events[message->event];
        if (event.name == "publish" && !message->failed) {
            return "registered";
        }
        // A reply of the dispatch thread refuses a command and ends nothing.
        if (event.name == "reply" && message->failed && event.members["thread"] != "dispatch") {
            const auto [result, reason] = read_reply(event.members["payload"].get<std::string>());
            return result.empty() ? "failed" : result + ": " + reason;
        }
    }
    return "no registration ended";
}

std::string describe_start(const Timeline& timeline) {
    // 2026-11-21T01:38:26.718Z
    std::string text = timeline.record.started;
    if (text.size() > 10 && text[10] == 'T' && text.back() == 'Z') {
        text.replace(text.size() - 1, 1, " UTC");
        text[10] = ' ';
    }
    return text;
}

std::string describe_duration(double seconds) {
    std::array<char, 64> text{};
    if (seconds < 0.01) {
        std::snprintf(text.data(), text.size(), "%.1f ms", seconds * 1000);
    } else if (seconds < 1) {
        std::snprintf(text.data(), text.size(), "%.0f ms", seconds * 1000);
    } else if (seconds < 100) {
        std::snprintf(text.data(), text.size(), "%.2f s", seconds);
    } else {
        std::snprintf(text.data(), text.size(), seconds < 1e9 ? "%.0f s" : "%.3g s", seconds);
    }
    return text.data();
}

} // namespace cvex
