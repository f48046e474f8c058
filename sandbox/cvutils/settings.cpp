#include "cvutils/settings.h"

#include <climits>
#include <optional>

#include <jansson.h>

#include "cvutils/log.h"
#include "cvutils/settings_file.h"
#include "cvutils_control.h"

namespace cv::setMgmt {

namespace {

std::string settings_file;

void log_error(const std::string& text) {
    log::print(0, 0, text.c_str());
}

std::optional<settings::File> open_store() {
    if (settings_file.empty()) {
        return std::nullopt;
    }
    try {
        return std::optional<settings::File>(std::in_place, settings_file);
    } catch (const settings::FileError& error) {
        log_error(std::string(error.what()) + "; defaults are used");
        return std::nullopt;
    }
}

/// The value stored under `key`, if it is one of the wanted type; a value of another type is reported, since
/// whoever wrote it wonders why it has no effect.
template <typename IsWanted>
const json_t* find(const std::optional<settings::File>& store, const std::string& key, IsWanted is_wanted,
                   const char* wanted) {
    const json_t* const value = store ? store->value(key) : nullptr;
    if (value != nullptr && !is_wanted(value)) {
        // The file may have been edited since it was checked.
        const std::string problem = store->range_problem(key);
        log_error((problem.empty()
                       ? "settings file " + store->place(key) + ": \"" + key + "\" is not " + wanted
                       : problem) +
                  "; its default is used");
        return nullptr;
    }
    return value;
}

bool is_int(const json_t* value) {
    return json_is_integer(value) && json_integer_value(value) >= INT_MIN &&
           json_integer_value(value) <= INT_MAX;
}

} // namespace

std::string use_settings_file(const std::string& path) {
    settings_file = path;
    try {
        const settings::File store(path);
        for (const std::string& key : store.keys()) {
            if (std::string problem = store.range_problem(key); !problem.empty()) {
                return problem;
            }
        }
        return {};
    } catch (const settings::FileError& error) {
        return error.what();
    }
}

int getKeyValue(const std::string& key, int default_value) {
    const auto store = open_store();
    const json_t* value = find(store, key, is_int, "an integer");
    return value != nullptr ? static_cast<int>(json_integer_value(value)) : default_value;
}

std::string getKeyValue(const std::string& key, const std::string& default_value) {
    const auto store = open_store();
    const json_t* value = find(
        store, key, [](const json_t* candidate) { return json_is_string(candidate); }, "a text");
    return value != nullptr ? json_string_value(value) : default_value;
}

} // namespace cv::setMgmt
