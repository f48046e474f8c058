// JSON texts: reading those that others have written, and writing them in the style of the library's replies.
#ifndef COMMON_JSON_TEXT_H
#define COMMON_JSON_TEXT_H

#include <string>
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

/// The document on one line in the library's own style, {"key": value, "key": value}. Bytes that are no UTF-8
/// become U+FFFD.
template <typename Json>
std::string json_line(const Json& document) {
    // The serializer writes a line break only between tokens; in a text it is escaped.
    std::string text = document.dump(0, ' ', false, Json::error_handler_t::replace);
    for (std::size_t at = 0; (at = text.find('\n', at)) != std::string::npos;) {
        const bool is_behind_comma = at > 0 && text[at - 1] == ',';
        text.replace(at, 1, is_behind_comma ? " " : "");
    }
    return text;
}

/// The text of a member; empty when the document has no such text.
template <typename Json>
std::string text_member(const Json& document, const char* key) {
    if (!document.is_object()) {
        return {};
    }
    const auto member = document.find(key);
    return member != document.end() && member->is_string() ? member->template get<std::string>()
                                                           : std::string();
}

} // namespace sandbox

#endif
