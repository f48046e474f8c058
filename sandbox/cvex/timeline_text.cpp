#include <algorithm>
#include <array>
#include <cstdio>
#include <vector>

#include "common/printable.h"
#include "cvex/timeline.h"

namespace cvex {

namespace {

/// What the lanes and arrows are drawn with.
struct Glyphs {
    const char* lane;
    const char* pause;
    const char* idle;
    const char* line;
    const char* published;
    const char* crossing;
    const char* left_end;
    const char* right_end;
    const char* to_right;
    const char* to_left;
};

constexpr Glyphs utf8_glyphs{"│", "┊", "⋮", "─", "╌", "┼", "├", "┤", "▶", "◀"};
constexpr Glyphs ascii_glyphs{"|", ":", ":", "-", ".", "+", "|", "|", ">", "<"};

constexpr std::size_t lane_distance = 10;

std::string time_column(double time) {
    std::array<char, 400> text{};
    std::snprintf(text.data(), text.size(), "%10.3f  ", time);
    return text.data();
}

const std::string no_time(12, ' ');

std::string silent_row(const Glyphs& glyphs, const char* library_lane) {
    std::string row;
    for (std::size_t lane = 0; lane < lane_names.size(); ++lane) {
        row += lane == static_cast<std::size_t>(Lane::library) ? library_lane : glyphs.lane;
        row += lane + 1 < lane_names.size() ? std::string(lane_distance - 1, ' ') : "";
    }
    return row;
}

std::string arrow_row(const Glyphs& glyphs, const TimelineMessage& message) {
    const std::size_t left = static_cast<std::size_t>(std::min(message.from, message.to));
    const std::size_t right = static_cast<std::size_t>(std::max(message.from, message.to));
    const bool to_right = message.from < message.to;
    const char* const line = message.published ? glyphs.published : glyphs.line;
    std::string row;
    for (std::size_t lane = 0; lane < lane_names.size(); ++lane) {
        const bool is_source = lane == static_cast<std::size_t>(message.from);
        row += is_source                     ? (to_right ? glyphs.left_end : glyphs.right_end)
               : lane > left && lane < right ? glyphs.crossing
                                             : glyphs.lane;
        if (lane + 1 == lane_names.size()) {
            break;
        }
        const bool covered = lane >= left && lane < right;
        for (std::size_t column = 0; column < lane_distance - 1; ++column) {
            const bool is_tip = (to_right && lane + 1 == right && column == lane_distance - 2) ||
                                (!to_right && lane == left && column == 0);
            row += !covered ? " " : !is_tip ? line : to_right ? glyphs.to_right : glyphs.to_left;
        }
    }
    return row;
}

} // namespace

std::string timeline_text(const Timeline& timeline, bool utf8, bool with_log) {
    const Glyphs& glyphs = utf8 ? utf8_glyphs : ascii_glyphs;
    std::string text = "Record of " + sandbox::printable(describe_start(timeline), utf8) + ", " +
                       describe_duration(timeline.end) + ", " + std::to_string(timeline.messages.size()) +
                       " messages\n\n    time/s  ";
    for (std::size_t lane = 0; lane < lane_names.size(); ++lane) {
        const std::string word = lane_names[lane];
        text += lane + 1 < lane_names.size() ? word + std::string(lane_distance - word.size(), ' ') : word;
    }
    text += '\n';

    std::size_t next_event = 0;
    const auto add_log = [&](std::size_t end) {
        for (; with_log && next_event < end; ++next_event) {
            const RecordedEvent& event = timeline.record.events[next_event];
            if (event.name == "log") {
                text += time_column(event.time) + silent_row(glyphs, glyphs.lane) + "  log " +
                        std::to_string(event.members["level"].get<int>()) + " " +
                        sandbox::printable(event.members["line"], utf8) + '\n';
            }
        }
        next_event = end;
    };
    const auto add_silent_row = [&](const char* glyph, const std::string& label) {
        text += no_time + silent_row(glyphs, glyph) + "  " + label + '\n';
    };

    const auto is_filled = [&](std::size_t index) {
        return std::any_of(timeline.bars.begin(), timeline.bars.end(),
                           [&](const TimelineBar& bar) { return bar.first < index && index <= bar.last; });
    };
    std::vector<const TimelineBar*> bar_of_first(timeline.messages.size(), nullptr);
    std::vector<const TimelineBar*> bar_of_last(timeline.messages.size() + 1, nullptr);
    for (const TimelineBar& bar : timeline.bars) {
        bar_of_first[bar.first] = &bar;
        bar_of_last[bar.last] = &bar;
    }
    for (std::size_t index = 0; index < timeline.messages.size(); ++index) {
        const TimelineMessage& message = timeline.messages[index];
        add_log(message.event);
        const TimelineBar* const ended = bar_of_last[index];
        std::string duration;
        if (ended != nullptr && ended->kind == TimelineBar::Kind::waiting) {
            duration = " after " + describe_duration(ended->duration);
        } else if (index > 0 && !is_filled(index) &&
                   message.time - timeline.messages[index - 1].time > idle_seconds) {
            add_silent_row(glyphs.idle,
                           "idle " + describe_duration(message.time - timeline.messages[index - 1].time));
        }
        text += time_column(message.time) + arrow_row(glyphs, message) + "  " +
                sandbox::printable(message.label + duration +
                                       (message.explanation.empty() ? "" : ", " + message.explanation),
                                   utf8) +
                '\n';
        if (const TimelineBar* const begun = bar_of_first[index];
            begun != nullptr && begun->kind == TimelineBar::Kind::pause) {
            add_silent_row(glyphs.pause, "pause " + describe_duration(begun->duration));
        }
    }
    add_log(timeline.record.events.size());
    if (const TimelineBar* const open = bar_of_last[timeline.messages.size()]) {
        add_silent_row(glyphs.idle,
                       "no answer for " + describe_duration(open->duration) + ", to the end of the record");
    }
    return text;
}

} // namespace cvex
