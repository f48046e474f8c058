#include "cvex/explain.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <optional>
#include <regex>
#include <set>
#include <string>

#include "common/json_text.h"
#include "common/printable.h"
#include "cvex/catalogue.h"
#include "cvex/reply.h"

namespace cvex {

namespace {

using nlohmann::ordered_json;
using sandbox::text_member;

constexpr const char* reply_begin = R"({"result": ")";
constexpr const char* mask = "***";
/// So much of a token's beginning tells nobody the token.
constexpr std::size_t shortest_beginning = 8;

/// The text of a log line behind the date, the level and the place of its writer.
std::string message_of(const std::string& line) {
    static const std::regex head(R"(^(\d{4}-\d\d-\d\dT\S+ +\w+ +)?(\[[\w.]+:\d+\]\[\w+\(\)\]: )?)");
    return std::regex_replace(line, head, "", std::regex_constants::format_first_only);
}

/// What a line says of the reply or the error that it holds, else what it says itself.
std::optional<Advice> advice_for(const std::string& message) {
    if (const std::size_t begin = message.find(reply_begin);
        begin != std::string::npos &&
        (begin == 0 || message.find("Sending response: ") != std::string::npos)) {
        std::string reply = message.substr(begin);
        // The line of a refusal puts the reply in quotes.
        if (begin > 0 && reply.back() == '"') {
            reply.pop_back();
        }
        const auto [result, reason] = read_reply(reply);
        return advice_for_reply(result, reason);
    }
    std::optional<Advice> advice = advice_for_line(message);
    const bool is_lost_wake_up = message.find("Wrote ") == 0 && message.find("(-1)") != std::string::npos;
    return advice && (advice->level <= 1 || is_lost_wake_up) ? advice : std::nullopt;
}

/// The part of a line that counts: of a record the logged line, or the reply of a command.
std::string message_of_record(const ordered_json& event) {
    const std::string kind = text_member(event, "event");
    return kind == "log"     ? message_of(text_member(event, "line"))
           : kind == "reply" ? text_member(event, "payload")
                             : "";
}

} // namespace

void explain(std::istream& input, std::ostream& output) {
    const bool utf8 = sandbox::has_utf8_locale();
    std::set<std::string> explained;
    std::size_t count = 0;
    std::size_t number = 0;
    bool is_record = false;
    for (std::string line; std::getline(input, line);) {
        ++number;
        is_record = is_record || (number == 1 && line.rfind(R"({"record":)", 0) == 0);
        std::string message;
        if (!is_record) {
            message = message_of(line);
        } else if (const ordered_json event = sandbox::parse_json(line); event.is_object()) {
            message = message_of_record(event);
        }
        const std::optional<Advice> advice = advice_for(message);
        if (!advice) {
            continue;
        }
        ++count;
        output << number << ": " << sandbox::printable(message, utf8) << '\n';
        if (!explained.insert(advice->meaning).second) {
            output << "    as above\n";
            continue;
        }
        output << "    " << advice->meaning << '\n';
        if (!advice->action.empty()) {
            output << "    What to do: " << advice->action << '\n';
        }
        output.flush();
    }
    output << count << " of " << number << " lines matter\n";
}

void mask_tokens(std::istream& input, std::ostream& output) {
    std::string text{std::istreambuf_iterator<char>(input), std::istreambuf_iterator<char>()};
    // A document stands as it is in a log, and with escaped quotes in a member of a record.
    static const std::regex named(R"re((\\*)"\w*token\1"\s*:\s*\1"(.*?)\1")re");
    static const std::regex logged(R"(: token=(.*), mac=)");
    const auto longer_first = [](const std::string& left, const std::string& right) {
        return left.size() != right.size() ? left.size() > right.size() : left < right;
    };
    std::set<std::string, decltype(longer_first)> tokens(longer_first);
    for (std::sregex_iterator match(text.begin(), text.end(), named); match != std::sregex_iterator();
         ++match) {
        tokens.insert((*match)[2]);
    }
    for (std::sregex_iterator match(text.begin(), text.end(), logged); match != std::sregex_iterator();
         ++match) {
        tokens.insert((*match)[1]);
    }
    tokens.erase("");
    for (const std::string& token : tokens) {
        for (std::size_t at = 0; (at = text.find(token, at)) != std::string::npos;) {
            text.replace(at, token.size(), mask);
            at += std::strlen(mask);
        }
        // A line of the library ends where its buffer ends, perhaps within a token.
        for (std::size_t end = 0; (end = text.find('\n', end + 1)) != std::string::npos;) {
            for (std::size_t length = token.size(); length-- > shortest_beginning;) {
                if (end >= length && text.compare(end - length, length, token, 0, length) == 0) {
                    text.replace(end - length, length, mask);
                    end -= length - std::strlen(mask);
                    break;
                }
            }
        }
    }
    output << text;
}

} // namespace cvex
