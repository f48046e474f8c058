// Parsing of JSON that others have written.
#ifndef COMMON_JSON_TEXT_H
#define COMMON_JSON_TEXT_H

#include <string_view>

#include <nlohmann/json.hpp>

namespace sandbox {

/// The deepest nesting that is read: no document here needs it, and what copies or prints a document by
/// recursion can do it.
inline constexpr int json_depth_limit = 100;

/// The document of a text; a discarded value when the text is not JSON or is nested too deep. The parser
/// itself does not recurse.
template <typename Json = nlohmann::ordered_json>
Json parse_json(std::string_view text) {
    bool is_too_deep = false;
    const auto watch_depth = [&](int depth, typename Json::parse_event_t event, Json&) {
        const bool is_start =
            event == Json::parse_event_t::object_start || event == Json::parse_event_t::array_start;
        is_too_deep = is_too_deep || (is_start && depth >= json_depth_limit);
        return !is_too_deep;
    };
    Json document = Json::parse(text, watch_depth, false);
    return is_too_deep ? Json(Json::value_t::discarded) : document;
}

} // namespace sandbox

#endif
