#include "cvex/settings_command.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

#include <nlohmann/json.hpp>

#include "common/json_text.h"
#include "common/nearest.h"
#include "common/printable.h"
#include "cvutils/settings_file.h"

namespace cvex {

namespace {

using nlohmann::ordered_json;

constexpr int exit_not_set = 1;

enum class Type { integer, text };

const std::string registration = "/daemons/cvcloudd/registration/";

/// What the registration handler reads below `registration`. An integer outside of its range has no use.
struct Setting {
    const char* name;
    Type type;
    int least;
    int greatest;
    const char* meaning;
};

constexpr int a_day = 86400;

constexpr std::array settings_of_registration{
    Setting{"retry_num", Type::integer, 0, std::numeric_limits<int>::max() - 1,
            "how often a step is tried again"},
    Setting{"retry_interval", Type::integer, 0, a_day, "seconds between two tries"},
    Setting{"register_interface", Type::text, 0, 0, "interface whose MAC address is registered"},
    Setting{"setup_type", Type::text, 0, 0, "set-up type told to the cloud"},
    Setting{"box_name", Type::text, 0, 0, "name told to the cloud"},
    Setting{"device_model", Type::text, 0, 0, "device model told to the cloud"},
};

std::string describe_settings() {
    std::string text =
        "Keys that the registration handler reads, below " + registration + ", which may be left out:\n";
    for (const Setting& setting : settings_of_registration) {
        const std::string type = setting.type == Type::integer ? "integer, " + std::to_string(setting.least) +
                                                                     " to " + std::to_string(setting.greatest)
                                                               : "text";
        text += std::string("  ") + setting.name + "\n      " + type + ": " + setting.meaning + "\n";
    }
    return text + "Key that the desk reads:\n  /network/interfaces/NAME/mac\n      text: MAC address of the "
                  "interface NAME\n";
}

/// The registration's setting of a whole key; null for a key of others.
const Setting* setting_of(const std::string& key) {
    const auto* const found =
        std::find_if(settings_of_registration.begin(), settings_of_registration.end(),
                     [&](const Setting& candidate) { return key == registration + candidate.name; });
    return found != settings_of_registration.end() ? found : nullptr;
}

/// The type that the registration handler, or the desk, reads the key as; nothing for the keys of others.
std::optional<Type> type_of(const std::string& key) {
    if (const Setting* const setting = setting_of(key)) {
        return setting->type;
    }
    const std::string interfaces = "/network/interfaces/";
    const std::string address = "/mac";
    const bool is_address = key.size() > interfaces.size() + address.size() &&
                            key.compare(0, interfaces.size(), interfaces) == 0 &&
                            key.compare(key.size() - address.size(), address.size(), address) == 0;
    return is_address ? std::optional(Type::text) : std::nullopt;
}

/// The whole key, also of one that stands without its beginning.
std::string whole_key(const std::string& key) {
    return setting_of(registration + key) != nullptr ? registration + key : key;
}

/// The known key that a mistyped one comes nearest to.
std::string nearest_key(const std::string& key) {
    std::vector<std::string> names;
    for (const Setting& setting : settings_of_registration) {
        names.push_back(key.find('/') == std::string::npos ? setting.name : registration + setting.name);
    }
    return sandbox::nearest(key, names);
}

std::optional<int> parse_int(const std::string& text) {
    int number = 0;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    return result.ec == std::errc() && result.ptr == end ? std::optional(number) : std::nullopt;
}

ordered_json to_json(const json_t* value) {
    const std::unique_ptr<char, void (*)(void*)> text(json_dumps(value, JSON_ENCODE_ANY), &std::free);
    return sandbox::parse_json(text.get());
}

/// A value that no reader of the store can use: neither an integer nor a text, or not what the key is read
/// as.
std::string problem_of(const settings::File& store, const std::string& key) {
    const std::optional<Type> type = type_of(key);
    const json_t* const value = store.value(key);
    if (const std::string problem = store.range_problem(key); !problem.empty()) {
        return problem + ": correct it with cvex settings set";
    }
    const char* wanted = nullptr;
    if (type == Type::integer && !json_is_integer(value)) {
        wanted = "an integer";
    } else if (type == Type::text && !json_is_string(value)) {
        wanted = "a text";
    } else if (!type && !json_is_integer(value) && !json_is_string(value)) {
        wanted = "an integer or a text";
    }
    return wanted == nullptr ? std::string()
                             : "settings file " + store.place(key) + ": \"" + key + "\" is not " + wanted +
                                   ": correct it with cvex settings set";
}

/// For a person: a text as it is.
std::string to_text(const json_t* value) {
    return json_is_string(value) ? json_string_value(value) : to_json(value).dump();
}

} // namespace

SettingsCommand::SettingsCommand(CLI::App& app, const std::string& client_run_directory)
    : run_directory(client_run_directory) {
    command = app.add_subcommand(
        "settings", "Read or edit the settings store in its file; the next start of cvcloudd reads it anew");
    command->fallthrough();
    command->require_subcommand(1);
    command->footer(describe_settings() + "\n" + app.get_footer());
    command
        ->add_option("--file", given_file, "File of the store [default: settings.json in the run directory]")
        ->type_name("FILE");
    command->add_flag("--json", as_json,
                      "Print {\"key\": ..., \"value\": ...}, or for list one object of key to value");

    get_command = command->add_subcommand("get", "Print the value of a key");
    set_command = command->add_subcommand(
        "set", "Set a key; the file is replaced at once and whole, everything else in it stays");
    for (CLI::App* subcommand : {get_command, set_command}) {
        subcommand->add_option("key", key, "Key, for example retry_num")
            ->transform([](const std::string& given) { return whole_key(given); })
            ->type_name("")
            ->required();
    }
    set_command
        ->add_option("value", value,
                     "Integer or text; known keys take only their type. Put -- before a value that begins "
                     "with a minus")
        ->type_name("")
        ->required();
    set_command->add_flag("--text", as_text, "Store a text even if it reads as an integer");
    set_command->add_flag("--force", is_forced, "Set a key that nothing here reads, or a value out of range");
    command->add_subcommand("list", "Print every key with its value");
}

std::string SettingsCommand::file() const {
    return given_file.empty() ? run_directory + "/settings.json" : given_file;
}

int SettingsCommand::run(const CLI::App& app) const {
    if (given_file.empty() && run_directory.empty()) {
        sandbox::print_problem(app, "--file or --run-dir is required; see cvex settings --help");
        return sandbox::exit_usage;
    }
    try {
        return get_command->parsed() ? get(app) : set_command->parsed() ? set(app) : list(app);
    } catch (const settings::FileError& error) {
        sandbox::print_problem(app, error.what());
        return sandbox::exit_usage;
    }
}

int SettingsCommand::get(const CLI::App& app) const {
    const settings::File store(file());
    const json_t* const stored = store.value(key);
    if (stored == nullptr) {
        sandbox::print_problem(app, "\"" + key + "\" is not set in " + file() + "; its reader has a default");
        return exit_not_set;
    }
    if (const std::string problem = problem_of(store, key); !problem.empty()) {
        sandbox::print_problem(app, problem);
        return sandbox::exit_usage;
    }
    const std::string text = as_json
                                 ? sandbox::json_line(ordered_json{{"key", key}, {"value", to_json(stored)}})
                                 : to_text(stored);
    sandbox::print_line(text);
    return 0;
}

std::string SettingsCommand::problem_of_change() const {
    const std::optional<Type> type = type_of(key);
    const std::optional<int> number = parse_int(value);
    if (type == Type::integer && (as_text || !number)) {
        return "\"" + key + "\" is an integer of 32 bits, not the text '" + value + "'";
    }
    if (is_forced) {
        return {};
    }
    if (!type) {
        return "nothing here reads the key \"" + key + "\"" + nearest_key(key) +
               "; --force sets it all the same";
    }
    const Setting* const setting = setting_of(key);
    if (type == Type::integer && (*number < setting->least || *number > setting->greatest)) {
        return "\"" + key + "\" is from " + std::to_string(setting->least) + " to " +
               std::to_string(setting->greatest) + ", not " + value + "; --force sets it all the same";
    }
    return {};
}

int SettingsCommand::set(const CLI::App& app) const {
    if (const std::string problem = problem_of_change(); !problem.empty()) {
        sandbox::print_problem(app, problem);
        return sandbox::exit_usage;
    }
    const std::optional<Type> type = type_of(key);
    const std::optional<int> number = parse_int(value);
    const ordered_json stored =
        number && !as_text && type != Type::text ? ordered_json(*number) : ordered_json(value);
    settings::set(file(), key, stored.dump(-1, ' ', false, ordered_json::error_handler_t::replace));
    if (as_json) {
        sandbox::print_line(sandbox::json_line(ordered_json{{"key", key}, {"value", stored}}));
    }
    return 0;
}

int SettingsCommand::list(const CLI::App& app) const {
    const settings::File store(file());
    int exit_code = 0;
    ordered_json members = ordered_json::object();
    for (const std::string& name : store.keys()) {
        if (const std::string problem = problem_of(store, name); !problem.empty()) {
            sandbox::print_problem(app, problem);
            exit_code = sandbox::exit_usage;
        } else if (as_json) {
            members[name] = to_json(store.value(name));
        } else {
            sandbox::print_line(name + " = " + to_text(store.value(name)));
        }
    }
    if (as_json) {
        sandbox::print_line(sandbox::json_line(members));
    }
    return exit_code;
}

} // namespace cvex
