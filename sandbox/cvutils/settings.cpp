#include "cvutils/settings.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>

#include <jansson.h>

#include "cvutils/log.h"
#include "cvutils_control.h"

namespace cv::setMgmt {

namespace {

using Document = std::unique_ptr<json_t, void (*)(json_t*)>;

std::string settings_file;

void log_error(const std::string& text) {
    log::print(0, 0, text.c_str());
}

Document read_store(std::string& problem) {
    json_error_t error{};
    Document store(json_load_file(settings_file.c_str(), JSON_REJECT_DUPLICATES, &error), &json_decref);
    if (!store && error.line < 1) {
        problem = "settings file " + settings_file + " cannot be read: " + std::strerror(errno);
    } else if (!store) {
        problem = "settings file " + settings_file + ":" + std::to_string(error.line) + ": " + error.text;
    } else if (!json_is_object(store.get())) {
        problem = "settings file " + settings_file + ":1: not a JSON object of key to value";
        store.reset();
    }
    return store;
}

/// The value stored under `key`, if it is one of the wanted type; a value of another type is reported, since
/// whoever wrote it wonders why it has no effect.
template <typename IsWanted>
json_t* find(const Document& store, const std::string& key, IsWanted is_wanted, const char* wanted) {
    json_t* value = store ? json_object_get(store.get(), key.c_str()) : nullptr;
    if (value != nullptr && !is_wanted(value)) {
        log_error("settings file " + settings_file + ": \"" + key + "\" is not " + wanted +
                  "; its default is used");
        return nullptr;
    }
    return value;
}

Document open_store() {
    if (settings_file.empty()) {
        return {nullptr, &json_decref};
    }
    std::string problem;
    Document store = read_store(problem);
    if (!store) {
        log_error(problem + "; defaults are used");
    }
    return store;
}

bool is_int(const json_t* value) {
    return json_is_integer(value) && json_integer_value(value) >= INT_MIN &&
           json_integer_value(value) <= INT_MAX;
}

} // namespace

std::string use_settings_file(const std::string& path) {
    settings_file = path;
    std::string problem;
    read_store(problem);
    return problem;
}

int getKeyValue(const std::string& key, int default_value) {
    const Document store = open_store();
    const json_t* value = find(store, key, is_int, "an integer");
    return value != nullptr ? static_cast<int>(json_integer_value(value)) : default_value;
}

std::string getKeyValue(const std::string& key, const std::string& default_value) {
    const Document store = open_store();
    const json_t* value = find(
        store, key, [](const json_t* candidate) { return json_is_string(candidate); }, "a text");
    return value != nullptr ? json_string_value(value) : default_value;
}

} // namespace cv::setMgmt
