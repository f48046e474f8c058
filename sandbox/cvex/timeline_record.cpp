#include "cvex/timeline_record.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <utility>

#include "common/json_text.h"

namespace cvex {

namespace {

using nlohmann::ordered_json;

enum class Kind { text, number, integer, truth };

/// The members without which an event cannot be drawn.
const std::map<std::string, std::map<std::string, Kind>> members_of_events{
    {"command",
     {{"request_id", Kind::number}, {"name", Kind::text}, {"type", Kind::integer}, {"payload", Kind::text}}},
    {"build",
     {{"request", Kind::number},
      {"method", Kind::text},
      {"params", Kind::text},
      {"connect_fields", Kind::truth}}},
    {"request",
     {{"request", Kind::number}, {"service", Kind::text}, {"method", Kind::text}, {"body", Kind::text}}},
    {"response",
     {{"request", Kind::number},
      {"service", Kind::text},
      {"method", Kind::text},
      {"status", Kind::number},
      {"error", Kind::text},
      {"body", Kind::text}}},
    {"reply", {{"request_id", Kind::number}, {"payload", Kind::text}}},
    {"publish", {{"name", Kind::text}, {"payload", Kind::text}}},
    {"refused", {{"of", Kind::text}}},
    {"log", {{"level", Kind::integer}, {"line", Kind::text}}},
};

/// What tells which event was refused.
const std::map<std::string, std::map<std::string, Kind>> members_of_refusals{
    {"build", {{"method", Kind::text}}},
    {"request", {{"request", Kind::number}, {"method", Kind::text}}},
    {"reply", {{"request_id", Kind::number}}},
    {"publish", {{"name", Kind::text}}},
};

bool is_of(Kind kind, const ordered_json& value) {
    switch (kind) {
    case Kind::text:
        return value.is_string();
    case Kind::number:
        return value.is_number_unsigned();
    case Kind::integer:
        return value.is_number_integer();
    case Kind::truth:
        return value.is_boolean();
    }
    return false;
}

ordered_json parse_line(const std::string& line) {
    ordered_json document = sandbox::parse_json(line);
    if (!document.is_object()) {
        throw std::invalid_argument("the line is not a JSON object; is it cut off?");
    }
    return document;
}

bool has_member(const ordered_json& document, const char* name, Kind kind) {
    const auto member = document.find(name);
    return member != document.end() && is_of(kind, *member);
}

void parse_head(const std::string& line, Record& record) {
    const ordered_json head = parse_line(line);
    if (!has_member(head, "record", Kind::text) || head["record"] != "cvcloudd 1" ||
        !has_member(head, "started", Kind::text)) {
        throw std::invalid_argument("a record begins with {\"record\": \"cvcloudd 1\", \"started\": ...}");
    }
    record.started = head["started"];
    record.title = sandbox::text_member(head, "title");
}

void check_members(const ordered_json& document, const std::map<std::string, Kind>& members,
                   const std::string& name) {
    for (const auto& [member, kind] : members) {
        if (!has_member(document, member.c_str(), kind)) {
            throw std::invalid_argument("\"" + member + "\" of the event \"" + name +
                                        "\" is missing or of the wrong type");
        }
    }
}

RecordedEvent parse_event(const std::string& line, double previous_time) {
    ordered_json document = parse_line(line);
    const auto time = document.find("time");
    if (time == document.end() || !time->is_number() || time->get<double>() < previous_time) {
        throw std::invalid_argument(
            "\"time\" is not a number of seconds that is at least the previous line's");
    }
    if (!has_member(document, "event", Kind::text) || !has_member(document, "thread", Kind::text)) {
        throw std::invalid_argument("\"event\" or \"thread\" is missing or not a text");
    }
    const std::string name = document["event"];
    const auto members = members_of_events.find(name);
    if (members == members_of_events.end()) {
        throw std::invalid_argument("the event \"" + name + "\" is unknown");
    }
    check_members(document, members->second, name);
    if (name == "refused") {
        const auto refused = members_of_refusals.find(document["of"]);
        if (refused == members_of_refusals.end()) {
            throw std::invalid_argument("\"of\" of the event \"refused\" is unknown");
        }
        check_members(document, refused->second, name);
    }
    return {*time, name, std::move(document)};
}

} // namespace

Record read_record(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    std::size_t number = 1;
    if (!file || (!std::getline(file, line) && !file.eof())) {
        throw RecordError("cannot read the record " + path + ": " + std::strerror(errno));
    }
    try {
        if (line.empty() && file.eof()) {
            throw std::invalid_argument("the file is empty; a record is what cvcloudd --record writes");
        }
        Record record;
        parse_head(line, record);
        double time = 0;
        while (std::getline(file, line)) {
            ++number;
            record.events.push_back(parse_event(line, time));
            time = record.events.back().time;
        }
        return record;
    } catch (const std::invalid_argument& problem) {
        throw RecordError(path + ":" + std::to_string(number) + ": " + problem.what());
    }
}

} // namespace cvex
