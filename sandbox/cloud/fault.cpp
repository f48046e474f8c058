#include "cloud/fault.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <stdexcept>

#include "common/nearest.h"

namespace cloud {

namespace {

enum class Argument { none, text, number, seconds };

struct KindDescription {
    const char* name;
    FaultKind kind;
    Argument argument;
    /// Null when the argument has to be given.
    const char* default_argument;
    /// The least and the greatest number that may be given.
    double least;
    double greatest;
    bool is_carried_out;
    /// The argument as help shows it, and what happens.
    const char* shown_argument;
    const char* description;
};

constexpr std::array<KindDescription, 12> kinds{{
    {"error", FaultKind::error, Argument::text, "simulated failure", 0, 0, false, "[:TEXT]",
     "an error document, TEXT at error.data.message"},
    {"error-plain", FaultKind::error_plain, Argument::text, "simulated failure", 0, 0, false, "[:TEXT]",
     "an error document, TEXT at error.message"},
    {"error-number", FaultKind::error_number, Argument::none, "", 0, 0, false, "",
     "an error document, a number at error.data.message"},
    {"status", FaultKind::status, Argument::number, nullptr, 100, 599, false, ":CODE",
     "the HTTP status CODE instead of an answer"},
    {"empty", FaultKind::empty, Argument::none, "", 0, 0, false, "", "an empty body"},
    {"text", FaultKind::text, Argument::text, "nonsense", 0, 0, false, "[:TEXT]",
     "TEXT as the body, commonly no JSON"},
    {"result-empty", FaultKind::result_empty, Argument::none, "", 0, 0, false, "",
     "a result without the user_token or device_id"},
    {"result-number", FaultKind::result_number, Argument::none, "", 0, 0, false, "",
     "a result whose user_token or device_id is a number"},
    {"delay", FaultKind::delay, Argument::seconds, nullptr, 0.001, 86400, true, ":SECONDS",
     "the right answer, but later"},
    {"drop", FaultKind::drop, Argument::none, "", 0, 0, true, "",
     "the request is carried out, but the connection closed without an answer"},
    {"silence", FaultKind::silence, Argument::none, "", 0, 0, true, "",
     "the request is carried out, but not answered until the faults are cleared"},
    {"oversized", FaultKind::oversized, Argument::number, "2097152", 32, 1073741824, false, "[:BYTES]",
     "an answer of BYTES bytes; by default longer than cvcloudd takes"},
}};

/// The methods that the cloud knows.
const std::vector<std::string> methods{"connect", "get_device_token", "register_box"};

void check_number(const KindDescription& kind, const std::string& argument) {
    double number = 0;
    const char* const end = argument.data() + argument.size();
    const auto format = kind.argument == Argument::seconds ? std::chars_format::fixed : std::chars_format{};
    bool complete = false;
    if (kind.argument == Argument::seconds) {
        const auto [rest, error] = std::from_chars(argument.data(), end, number, format);
        complete = error == std::errc() && rest == end;
    } else {
        unsigned whole = 0;
        const auto [rest, error] = std::from_chars(argument.data(), end, whole);
        complete = error == std::errc() && rest == end;
        number = whole;
    }
    if (!complete || number < kind.least || number > kind.greatest) {
        throw std::invalid_argument("'" + argument + "' is not a number that " + kind.name + " takes");
    }
}

Fault parse_kind(const std::string& text) {
    const std::size_t colon = text.find(':');
    const std::string name = text.substr(0, colon);
    const auto* const kind = std::find_if(
        kinds.begin(), kinds.end(), [&name](const KindDescription& known) { return name == known.name; });
    if (kind == kinds.end()) {
        std::vector<std::string> names;
        for (const KindDescription& known : kinds) {
            names.emplace_back(known.name);
        }
        throw std::invalid_argument("no fault is called '" + name + "'" + sandbox::nearest(name, names));
    }
    if (colon == std::string::npos) {
        if (kind->default_argument == nullptr) {
            throw std::invalid_argument(name + " needs its argument, " + name + kind->shown_argument);
        }
        return {kind->kind, kind->default_argument, kind->is_carried_out, text};
    }
    const std::string argument = text.substr(colon + 1);
    if (kind->argument == Argument::none) {
        throw std::invalid_argument(name + " takes no argument");
    }
    if (kind->argument != Argument::text) {
        check_number(*kind, argument);
    }
    return {kind->kind, argument, kind->is_carried_out, text};
}

} // namespace

std::string describe_faults() {
    constexpr std::size_t column = 22;
    std::string text =
        "Faults, METHOD[*COUNT]=KIND[:ARGUMENT]: what happens to the next COUNT requests of METHOD "
        "(all,\nwithout a count), behind earlier faults of the method; METHOD is connect, get_device_token "
        "or "
        "register_box:\n";
    for (const KindDescription& kind : kinds) {
        std::string form = std::string("  ") + kind.name + kind.shown_argument;
        form.resize(std::max(column, form.size() + 2), ' ');
        text += form + kind.description + "\n";
    }
    return text;
}

void FaultPlan::add(const std::string& text) {
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos) {
        throw std::invalid_argument("'" + text + "' is not METHOD[*COUNT]=KIND[:ARGUMENT]");
    }
    const std::string head = text.substr(0, equals);
    const std::size_t star = head.find('*');
    Entry entry{head.substr(0, star), std::nullopt, parse_kind(text.substr(equals + 1))};
    if (std::find(methods.begin(), methods.end(), entry.method) == methods.end()) {
        throw std::invalid_argument("no method is called '" + entry.method + "'" +
                                    sandbox::nearest(entry.method, methods));
    }
    if (star != std::string::npos) {
        unsigned count = 0;
        const char* const end = head.data() + head.size();
        const auto [rest, error] = std::from_chars(head.data() + star + 1, end, count);
        if (error != std::errc() || rest != end || count == 0) {
            throw std::invalid_argument("'" + head.substr(star + 1) + "' is not a count of requests");
        }
        entry.count = count;
    }
    entries.push_back(std::move(entry));
}

std::optional<Fault> FaultPlan::take(const std::string& method) {
    const auto found = std::find_if(entries.begin(), entries.end(),
                                    [&method](const Entry& entry) { return entry.method == method; });
    if (found == entries.end()) {
        return std::nullopt;
    }
    Fault fault = found->fault;
    if (found->count && --*found->count == 0) {
        entries.erase(found);
    }
    return fault;
}

void FaultPlan::clear() {
    entries.clear();
}

std::vector<std::string> FaultPlan::left() const {
    std::vector<std::string> texts;
    for (const Entry& entry : entries) {
        texts.push_back(entry.method + (entry.count ? "*" + std::to_string(*entry.count) : "") + "=" +
                        entry.fault.text);
    }
    return texts;
}

} // namespace cloud
