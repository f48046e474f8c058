#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <set>
#include <vector>

#include "common/json_text.h"
#include "common/printable.h"
#include "cvex/timeline.h"
#include "embedded.h"

namespace cvex {

namespace {

using nlohmann::ordered_json;

// All lengths are in CSS pixels.

constexpr double pixels_per_second = 150;
/// Room for a message's label above its arrow and a bar's label between two arrows.
constexpr double shortest_gap = 60;
/// Longer gaps are broken: idle ones at `idle_seconds`, those that a bar fills much later.
constexpr double longest_bar_seconds = 10;
constexpr double broken_gap = 110;

constexpr std::array<double, 4> lane_x{130, 295, 460, 740};
constexpr double right_margin = 52;
constexpr double axis_x = 90;
constexpr double half_bar = 6;
constexpr double bar_distance = 2 * half_bar + 2;
constexpr double head_height = 58;
/// No monospaced font of this size is wider.
constexpr double character_width = 8.1;

const char* name_of(Lane lane) {
    return lane_names[static_cast<std::size_t>(lane)];
}

std::string number(double value) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.1f", value);
    return text.data();
}

std::string seconds(double value) {
    std::array<char, 400> text{};
    // Never longer than the room beside the axis.
    std::snprintf(text.data(), text.size(), value < 1e6 ? "%.3f" : value < 1e9 ? "%.0f" : "%.3g", value);
    return text.data();
}

std::string count_of(std::size_t count, const std::string& noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string escape(const std::string& text) {
    std::string result;
    for (const char character : sandbox::printable(text, true)) {
        switch (character) {
        case '&':
            result += "&amp;";
            break;
        case '<':
            result += "&lt;";
            break;
        case '>':
            result += "&gt;";
            break;
        case '"':
            result += "&quot;";
            break;
        default:
            result += character;
        }
    }
    return result;
}

/// Shortens a label to what fits into `room`. Other characters than ASCII may be twice as wide.
std::string fit(const std::string& text, double room) {
    std::string result;
    double used = 0;
    std::string cut;
    sandbox::for_each_character(sandbox::printable(text, true),
                                [&](std::uint32_t code_point, const std::string& bytes) {
                                    used += (code_point < 0x80 ? 1 : 2) * character_width;
                                    if (used <= room - 2 * character_width) {
                                        cut += bytes;
                                    }
                                    result += bytes;
                                });
    return used <= room ? result : cut + "…";
}

/// Where things are from top to bottom: to scale wherever that leaves room for the labels and wastes none.
class Layout {
public:
    enum class Gap { to_scale, stretched, broken };

    explicit Layout(const Timeline& timeline) {
        for (const TimelineBar& bar : timeline.bars) {
            auto column = std::find_if(column_ends.begin(), column_ends.end(),
                                       [&](std::size_t end) { return end <= bar.first; });
            bar_columns.push_back(static_cast<double>(column - column_ends.begin()));
            if (column == column_ends.end()) {
                column = column_ends.insert(column, 0);
            }
            *column = bar.last;
        }
        const std::size_t count = timeline.messages.size();
        std::vector<bool> filled(count, false);
        for (const TimelineBar& bar : timeline.bars) {
            std::fill(filled.begin() + static_cast<std::ptrdiff_t>(bar.first),
                      filled.begin() + static_cast<std::ptrdiff_t>(bar.last), true);
        }
        double y = shortest_gap / 2;
        for (std::size_t index = 0; index < count; ++index) {
            tops.push_back(y);
            const double next = index + 1 < count ? timeline.messages[index + 1].time : timeline.end;
            const double duration = next - timeline.messages[index].time;
            const double limit = filled[index] ? longest_bar_seconds : idle_seconds;
            const double natural = duration * pixels_per_second;
            gaps.push_back(duration > limit         ? Gap::broken
                           : natural < shortest_gap ? Gap::stretched
                                                    : Gap::to_scale);
            y += gaps.back() == Gap::broken      ? broken_gap
                 : gaps.back() == Gap::stretched ? shortest_gap
                                                 : natural;
        }
        tops.push_back(y);
    }

    double x_of(Lane lane) const {
        return lane_x[static_cast<std::size_t>(lane)] + (lane == Lane::cloud ? width_of_more_bars() : 0);
    }
    double width() const {
        return x_of(Lane::cloud) + right_margin;
    }
    /// Bars that last at the same time stand side by side, the later ones farther to the right.
    double left_of_bar(std::size_t bar) const {
        return x_of(Lane::library) - half_bar + bar_columns[bar] * bar_distance;
    }
    /// What the bars beside the first take from the gap between library and cloud.
    double width_of_more_bars() const {
        return column_ends.empty() ? 0 : static_cast<double>(column_ends.size() - 1) * bar_distance;
    }
    /// Of a message, or of the end of the record.
    double top(std::size_t message) const {
        return tops[message];
    }
    double height_after(std::size_t message) const {
        return tops[message + 1] - tops[message];
    }
    Gap gap_after(std::size_t message) const {
        return gaps[message];
    }
    double height() const {
        return tops.back() + shortest_gap / 2;
    }

private:
    std::vector<double> tops;
    std::vector<Gap> gaps;
    std::vector<double> bar_columns;
    std::vector<std::size_t> column_ends;
};

std::string line(const char* kind, double x1, double y1, double x2, double y2) {
    return std::string("<line class=\"") + kind + "\" x1=\"" + number(x1) + "\" y1=\"" + number(y1) +
           "\" x2=\"" + number(x2) + "\" y2=\"" + number(y2) + "\"/>\n";
}

std::string text_at(const char* kind, double x, double y, const std::string& text) {
    return std::string("<text class=\"") + kind + "\" x=\"" + number(x) + "\" y=\"" + number(y) + "\">" +
           escape(text) + "</text>\n";
}

std::string zigzag(double x, double top, double bottom) {
    const double middle = (top + bottom) / 2;
    std::string points = "M" + number(x) + " " + number(top) + "V" + number(middle - 12);
    for (const auto& [side, y] : {std::pair{7, -8}, {-7, 0}, {7, 8}, {0, 12}}) {
        points += "L" + number(x + side) + " " + number(middle + y);
    }
    return "<path class=\"axis broken\" d=\"" + points + "V" + number(bottom) + "\"/>\n";
}

std::string draw_axis(const Timeline& timeline, const Layout& layout) {
    std::string drawn;
    for (std::size_t index = 0; index < timeline.messages.size(); ++index) {
        const double top = layout.top(index);
        const double bottom = layout.top(index + 1);
        const double time = timeline.messages[index].time;
        drawn += text_at("time", axis_x - 12, top + 4, seconds(time));
        if (layout.gap_after(index) == Layout::Gap::broken) {
            const bool is_last = index + 1 == timeline.messages.size();
            const double next = is_last ? timeline.end : timeline.messages[index + 1].time;
            drawn += zigzag(axis_x, top, bottom);
            drawn += text_at("length", axis_x - 12, (top + bottom) / 2 + 4, describe_duration(next - time));
        } else if (index + 1 < timeline.messages.size()) {
            drawn += line(layout.gap_after(index) == Layout::Gap::stretched ? "axis stretched" : "axis",
                          axis_x, top, axis_x, bottom);
        }
    }
    return drawn;
}

std::string draw_bars(const Timeline& timeline, const Layout& layout) {
    std::string drawn;
    std::set<std::size_t> labelled;
    for (std::size_t number_of_bar = 0; number_of_bar < timeline.bars.size(); ++number_of_bar) {
        const TimelineBar& bar = timeline.bars[number_of_bar];
        const bool is_pause = bar.kind == TimelineBar::Kind::pause;
        const std::string label = (is_pause ? "pause " : "waits ") + describe_duration(bar.duration);
        const double top = layout.top(bar.first);
        drawn += std::string("<rect class=\"bar ") + (is_pause ? "pause" : "waiting") + "\" x=\"" +
                 number(layout.left_of_bar(number_of_bar)) + "\" y=\"" + number(top) + "\" width=\"" +
                 number(2 * half_bar) + "\" height=\"" + number(layout.top(bar.last) - top) +
                 "\" rx=\"2\"><title>" + label + "</title></rect>\n";
        // The label stands in the bar's highest gap that no other label has taken.
        std::size_t best = bar.last;
        for (std::size_t index = bar.first; index < bar.last; ++index) {
            if (labelled.count(index) == 0 &&
                (best == bar.last || layout.height_after(index) > layout.height_after(best))) {
                best = index;
            }
        }
        if (best != bar.last) {
            labelled.insert(best);
            drawn += text_at("length", layout.x_of(Lane::library) - half_bar - 10,
                             layout.top(best) + layout.height_after(best) / 2 - 2, label);
        }
    }
    return drawn;
}

std::string kind_of(const TimelineMessage& message, const RecordedEvent& event) {
    std::string kind =
        "message " + std::string(event.name == "response"                           ? "answer"
                                 : event.name == "reply" || event.name == "publish" ? "done"
                                                                                    : event.name);
    kind += message.published ? " published" : "";
    return kind + (message.failed ? " failed" : "");
}

std::string describe_place(const TimelineMessage& message, const RecordedEvent& event) {
    return seconds(message.time) + " s, " + name_of(message.from) + " to " + name_of(message.to) + ", " +
           event.members["thread"].get<std::string>() + " thread";
}

std::string draw_message(const TimelineMessage& message, const RecordedEvent& event, double y,
                         const Layout& layout) {
    const double direction = message.from < message.to ? 1 : -1;
    const auto end_at = [&](Lane lane, double side) {
        return layout.x_of(lane) + (lane == Lane::library ? side * half_bar : 0);
    };
    const double begin = end_at(message.from, direction);
    const double end = end_at(message.to, -direction);
    const double left = std::min(begin, end);
    const double right = std::max(begin, end);
    std::string drawn =
        "<g class=\"" + kind_of(message, event) +
        "\" role=\"button\" tabindex=\"-1\" aria-pressed=\"false\" aria-label=\"" +
        escape(message.label + (message.failed ? ", failed, " : ", ") + describe_place(message, event)) +
        "\">\n<rect class=\"hit\" x=\"" + number(left - 4) + "\" y=\"" + number(y - 26) + "\" width=\"" +
        number(right - left + 8) + "\" height=\"36\"/>\n";
    drawn += line("arrow", begin, y, end - direction * 8, y);
    drawn += "<path class=\"tip\" d=\"M" + number(end) + " " + number(y) + "l" + number(-direction * 11) +
             " -5v10z\"/>\n";
    const auto [first, last] = std::minmax(message.from, message.to);
    if (first < Lane::daemon && last > Lane::daemon) {
        drawn += "<circle class=\"passing\" cx=\"" + number(layout.x_of(Lane::daemon)) + "\" cy=\"" +
                 number(y) + "\" r=\"3.5\"/>\n";
    }
    // What stays on the box has its label between client and library, across the daemon's lane.
    const bool is_to_cloud = last == Lane::cloud;
    const double gap_left =
        is_to_cloud ? layout.x_of(Lane::library) + layout.width_of_more_bars() : layout.x_of(Lane::client);
    const double gap_right = layout.x_of(is_to_cloud ? Lane::cloud : Lane::library);
    const double room = gap_right - gap_left - half_bar - (message.failed ? 42 : 16);
    const std::string label = fit(message.label, room);
    const double middle = (gap_left + gap_right) / 2;
    drawn += text_at("label", middle, y - 9, label);
    if (message.failed) {
        double label_width = 0;
        sandbox::for_each_character(label, [&](std::uint32_t code_point, const std::string&) {
            label_width += (code_point < 0x80 ? 1 : 2) * character_width;
        });
        drawn += "<path class=\"cross\" d=\"M" + number(middle - label_width / 2 - 13) + " " +
                 number(y - 18) + "l8 8m0 -8l-8 8\"/>\n";
    }
    return drawn + "</g>\n";
}

std::string lane_lines(const Layout& layout, double top, double bottom) {
    std::string drawn;
    for (const Lane lane : {Lane::client, Lane::daemon, Lane::library, Lane::cloud}) {
        drawn += line("lane", layout.x_of(lane), top, layout.x_of(lane), bottom);
    }
    return drawn;
}

std::string open_svg(const char* kind, double width, double height, const char* label) {
    return std::string("<svg class=\"") + kind + "\" width=\"" + number(width) + "\" viewBox=\"0 0 " +
           number(width) + " " + number(height) + "\" role=\"group\" aria-label=\"" + label + "\">\n";
}

std::string draw_head(const Layout& layout) {
    std::string drawn = open_svg("head", layout.width(), head_height, "Lanes");
    drawn += lane_lines(layout, head_height - 12, head_height);
    drawn += text_at("unit", axis_x - 12, 32, "time / s");
    for (const Lane lane : {Lane::client, Lane::daemon, Lane::library, Lane::cloud}) {
        const double x = layout.x_of(lane);
        drawn += "<rect x=\"" + number(x - 48) + "\" y=\"10\" width=\"96\" height=\"36\" rx=\"7\"/>\n";
        drawn +=
            "<text text-anchor=\"middle\" x=\"" + number(x) + "\" y=\"33\">" + name_of(lane) + "</text>\n";
    }
    return drawn + "</svg>\n";
}

std::string draw_diagram(const Timeline& timeline) {
    const Layout layout(timeline);
    std::string drawn = draw_head(layout) +
                        open_svg("diagram", layout.width(), layout.height(), "Messages in the order of time");
    drawn += lane_lines(layout, 0, layout.height());
    drawn += draw_axis(timeline, layout);
    drawn += draw_bars(timeline, layout);
    for (std::size_t index = 0; index < timeline.messages.size(); ++index) {
        const TimelineMessage& message = timeline.messages[index];
        drawn += draw_message(message, timeline.record.events[message.event], layout.top(index), layout);
    }
    return drawn + "</svg>\n";
}

std::string draw_log(const Record& record) {
    std::string rows;
    std::size_t count = 0;
    for (const RecordedEvent& event : record.events) {
        if (event.name == "log") {
            ++count;
            rows += "<tr data-time=\"" + event.members["time"].dump() + "\"><td>" + seconds(event.time) +
                    "</td><td>" + escape(event.members["thread"]) + "</td><td>" +
                    std::to_string(event.members["level"].get<int>()) + "</td><td>" +
                    escape(event.members["line"]) + "</td></tr>\n";
        }
    }
    return count == 0 ? ""
                      : "<section id=\"log\" tabindex=\"0\"><h3>Log, " + count_of(count, "line") +
                            "</h3><table>\n<tr><th>time / s</th><th>thread</th><th>level</th>"
                            "<th>line</th></tr>\n" +
                            rows + "</table></section>\n";
}

/// What the page shows beside a message, for its script.
std::string details_of(const Timeline& timeline) {
    ordered_json details = ordered_json::array();
    for (const TimelineMessage& message : timeline.messages) {
        const RecordedEvent& event = timeline.record.events[message.event];
        ordered_json documents = ordered_json::array();
        for (const auto& [member, title] : {std::pair{"payload", "Payload"}, {"body", "Body"}}) {
            if (const auto text = event.members.find(member); text != event.members.end()) {
                const ordered_json document = sandbox::parse_json(text->get_ref<const std::string&>());
                if (document.is_structured()) {
                    documents.push_back({title, document.dump(2)});
                }
            }
        }
        documents.push_back({"Line of the record", event.members.dump(2)});
        details.push_back({{"label", message.label},
                           {"time", message.time},
                           {"place", describe_place(message, event)},
                           {"explanation", message.explanation},
                           {"documents", documents}});
    }
    std::string text = details.dump();
    // No text of the record may end the element or open a comment in it.
    for (std::size_t at = text.find('<'); at != std::string::npos; at = text.find('<', at)) {
        text.replace(at, 1, "\\u003c");
    }
    return text;
}

std::string draw_legend() {
    const auto item = [](const std::string& drawing, double item_width, const std::string& text,
                         const std::string& kind = "") {
        return "<li class=\"" + kind + "\"><svg aria-hidden=\"true\" width=\"" + number(item_width) +
               "\" height=\"16\">" + drawing + "</svg>" + text + "</li>\n";
    };
    const auto bar = [](const std::string& kind) {
        return "<rect class=\"" + kind + "\" x=\"0\" y=\"1\" width=\"12\" height=\"14\" rx=\"2\"/>";
    };
    return "<ul class=\"legend\">\n" +
           item("<path class=\"axis\" d=\"M1 3v10M1 8h150M151 3v10\"/>", pixels_per_second + 2,
                "1 s = " + number(pixels_per_second).substr(0, 3) + " px, where the time axis is solid",
                "scale") +
           item(line("axis stretched", 4, 0, 4, 16), 8, "stretched: shorter in truth") +
           item("<path class=\"axis\" d=\"M7 0V2L13 4L1 8L13 12L7 14V16\"/>", 14,
                "cut: the length stands beside it") +
           item(bar("waiting"), 12, "the library waits for the cloud") +
           item(bar("pause"), 12, "pause before a retry") +
           item("<g class=\"message done published\"><path class=\"arrow\" d=\"M0 8h36\"/></g>", 36,
                "published to every listener") +
           item("<g class=\"message failed\"><path class=\"cross\" d=\"M1 4l8 8m0 -8l-8 8\"/></g>", 10,
                "failed or refused") +
           "</ul>\n";
}

} // namespace

std::string timeline_page(const Timeline& timeline) {
    const std::string title = escape(timeline.record.title.empty() ? "Record" : timeline.record.title) +
                              ": " + escape(describe_outcome(timeline));
    const auto failed = static_cast<std::size_t>(
        std::count_if(timeline.messages.begin(), timeline.messages.end(),
                      [](const TimelineMessage& message) { return message.failed; }));
    return "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
           "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
           "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; "
           "style-src 'unsafe-inline'; script-src 'unsafe-inline'\">\n<title>" +
           title + "</title>\n<style>\n" + std::string(embedded::timeline_css) +
           "</style>\n</head>\n<body>\n<header>\n<h1>" + title + "</h1>\n<p>" +
           escape(describe_start(timeline)) + ", " + describe_duration(timeline.end) + ", " +
           count_of(timeline.messages.size(), "message") + ", " + std::to_string(failed) +
           " failed. The daemon carries each message; a request's arrow is drawn straight to the "
           "cloud.</p>\n" +
           draw_legend() + "</header>\n<main tabindex=\"-1\">\n" + draw_diagram(timeline) +
           "</main>\n<aside>\n<section id=\"detail\" tabindex=\"0\" aria-live=\"polite\"><p>" +
           (timeline.messages.empty() ? "Nothing crossed the handlers' boundary." : "") + "</p></section>\n" +
           draw_log(timeline.record) + "</aside>\n<script type=\"application/json\" id=\"details\">" +
           details_of(timeline) + "</script>\n<script>\n" + std::string(embedded::timeline_js) +
           "</script>\n</body>\n</html>\n";
}

} // namespace cvex
