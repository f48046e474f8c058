#ifndef CVEX_TIMELINE_H
#define CVEX_TIMELINE_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "cvex/timeline_record.h"

namespace cvex {

/// Who sends and receives, in the order in which they are drawn.
enum class Lane { client, daemon, library, cloud };

inline constexpr std::array lane_names{"client", "daemon", "library", "cloud"};

/// An arrow from one lane to another.
struct TimelineMessage {
    /// Seconds since the daemon's start.
    double time;
    Lane from;
    Lane to;
    /// A few words; and more of them, empty when there is nothing to add.
    std::string label;
    std::string explanation;
    bool failed = false;
    bool published = false;
    /// The event of the record that it is drawn from.
    std::size_t event;
};

/// Something that lasts, from one message of the library to another.
struct TimelineBar {
    enum class Kind { waiting, pause };
    Kind kind;
    /// Indices of messages; `last` is the number of messages when it lasts to the end of the record.
    std::size_t first;
    std::size_t last;
    /// Seconds.
    double duration;
};

struct Timeline {
    Record record;
    /// The time of the record's last event, in seconds since the daemon's start.
    double end = 0;
    std::vector<TimelineMessage> messages;
    std::vector<TimelineBar> bars;
};

/// Finds the messages, the tries and the pauses between them in a record.
Timeline make_timeline(Record record);

/// Silence longer than this many seconds is told apart from the rest of the run.
inline constexpr double idle_seconds = 2;

/// The timeline for a terminal, one line for each message; in ASCII unless `utf8`.
/// With `with_log` the log's lines stand between them.
std::string timeline_text(const Timeline& timeline, bool utf8, bool with_log);

/// The timeline as one HTML page that needs nothing else.
std::string timeline_page(const Timeline& timeline);

/// How the last registration ended: "registered", or the result and reason of its failure.
std::string describe_outcome(const Timeline& timeline);

/// When the daemon was started, as a person reads it.
std::string describe_start(const Timeline& timeline);

/// A duration as a person reads it, such as "1.25 s" or "0.4 ms".
std::string describe_duration(double seconds);

} // namespace cvex

#endif
