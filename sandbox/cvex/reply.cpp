#include "cvex/reply.h"

namespace cvex {

namespace {

constexpr std::string_view result_begin = R"({"result": ")";
constexpr std::string_view reason_begin = R"("reason": ")";
constexpr std::string_view reason_end = R"("})";

} // namespace

Outcome read_reply(std::string_view text) {
    if (text.substr(0, result_begin.size()) != result_begin) {
        return {};
    }
    text.remove_prefix(result_begin.size());
    const std::size_t quote = text.find('"');
    if (quote == std::string_view::npos) {
        return {};
    }
    Outcome outcome{std::string(text.substr(0, quote)), {}};
    const std::size_t begin = text.find(reason_begin, quote);
    if (outcome.result != "ok" && begin != std::string_view::npos) {
        text.remove_prefix(begin + reason_begin.size());
        outcome.reason = text.substr(0, text.rfind(reason_end));
    }
    return outcome;
}

} // namespace cvex
