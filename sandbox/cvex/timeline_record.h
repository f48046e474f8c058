#ifndef CVEX_TIMELINE_RECORD_H
#define CVEX_TIMELINE_RECORD_H

#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace cvex {

/// A record that cannot be read; the text is one line with the file, the line's number and what is wrong.
struct RecordError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// One line of a record, as cvcloudd/recorder.h describes it. Its members have the types described there.
struct RecordedEvent {
    /// Seconds since the daemon's start.
    double time;
    std::string name;
    nlohmann::ordered_json members;
};

struct Record {
    std::string started;
    /// What the run was; empty when nobody said.
    std::string title;
    std::vector<RecordedEvent> events;
};

/// Reads the record that cvcloudd --record has written; throws RecordError.
Record read_record(const std::string& path);

} // namespace cvex

#endif
