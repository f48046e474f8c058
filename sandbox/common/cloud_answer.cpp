#include "common/cloud_answer.h"

#include "common/json_text.h"

namespace sandbox {

std::string problem_of_answer(std::string_view body) {
    if (body.empty()) {
        return "empty answer";
    }
    const auto document = parse_json(body);
    if (!document.is_structured()) {
        return "not JSON";
    }
    if (!document.contains("error")) {
        return {};
    }
    for (const char* const path : {"/error/data/message", "/error/message"}) {
        const nlohmann::ordered_json::json_pointer message(path);
        if (document.contains(message) && document[message].is_string()) {
            return document[message];
        }
    }
    return "error without a message";
}

} // namespace sandbox
