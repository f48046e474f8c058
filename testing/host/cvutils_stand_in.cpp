#include "cvutils_stand_in.h"

#include <cstdarg>
#include <cstdio>
#include <map>
#include <mutex>
#include <set>
#include <utility>

#include "cvutils/json.h"
#include "cvutils/log.h"
#include "cvutils/network.h"
#include "cvutils/settings.h"
#include "journal.h"

namespace {

struct State {
    std::mutex mutex;
    std::vector<kit::LogLine> lines;
    std::map<std::string, int> integers;
    std::map<std::string, std::string> texts;
    std::optional<std::string> mac = "0a:1b:2c:3d:4e:5f";
    std::set<std::string> failing_keys;
};

State& state() {
    static auto* const instance = new State;
    return *instance;
}

// What a test makes fail, and jansson when its memory does.
bool attached(json_t* object, const char* key, json_t* value) {
    bool fails = false;
    {
        const kit::InHost host;
        const std::lock_guard<std::mutex> lock(state().mutex);
        fails = state().failing_keys.count(key) != 0;
    }
    if (fails) {
        json_decref(value);
    } else {
        fails = json_object_set_new(object, key, value) != 0;
    }
    if (fails) {
        const kit::InHost host;
        kit::journal().record(std::string("cannot attach ") + key);
    }
    return !fails;
}

// Written piece by piece and not with json_dumps(): tests count the module's own calls of that.
std::string text_of(const json_t* document) {
    std::string text;
    const auto append = [](const char* piece, std::size_t length, void* target) {
        static_cast<std::string*>(target)->append(piece, length);
        return 0;
    };
    json_dump_callback(document, append, &text, JSON_ENCODE_ANY);
    return text;
}

} // namespace

namespace kit {

void reset_cvutils() {
    cv::log::current_level = 3;
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().lines = std::vector<kit::LogLine>(); // With its memory: the long run watches the heap.
    state().integers.clear();
    state().texts.clear();
    state().mac = "0a:1b:2c:3d:4e:5f";
    state().failing_keys.clear();
}

std::vector<LogLine> log_lines() {
    const std::lock_guard<std::mutex> lock(state().mutex);
    return state().lines;
}

void set_setting(const std::string& key, int value) {
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().integers[key] = value;
}

void set_setting(const std::string& key, const std::string& value) {
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().texts[key] = value;
}

void set_mac_address(std::optional<std::string> mac) {
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().mac = std::move(mac);
}

void fail_attach(const std::string& key) {
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().failing_keys.insert(key);
}

} // namespace kit

namespace cv {

int log::current_level = 3;

void log::print(int destination, int level, const char* line) {
    const kit::InHost host;
    char file[128] = "";
    char function[128] = "";
    int number = 0;
    int prefix_length = 0;
    std::sscanf(line, "[%127[^:]:%d][%127[^(]()]: %n", file, &number, function, &prefix_length);
    std::string event = "log " + std::to_string(level) + " ";
    if (prefix_length == 0) {
        event += std::string("without prefix: ") + line;
    } else {
        event += std::string(function) + ": " + (line + prefix_length);
    }
    {
        const std::lock_guard<std::mutex> lock(state().mutex);
        state().lines.push_back({destination, level, file, number, function, line + prefix_length});
    }
    kit::journal().record(event);
}

void log_json(int level, const char* title, const json_t* document) {
    const kit::InHost host;
    if (log::current_level >= level) {
        kit::journal().record("log_json " + std::to_string(level) + " " + title + "|" + text_of(document));
    }
}

bool json_attach_value(json_t* object, const char* key, const char* value) {
    return attached(object, key, json_string(value));
}

bool json_attach_value(json_t* object, const char* key, const std::vector<std::string>& values) {
    json_t* array = json_array();
    for (const std::string& value : values) {
        if (json_array_append_new(array, json_string(value.c_str())) != 0) {
            json_decref(array);
            array = nullptr;
            break;
        }
    }
    return attached(object, key, array);
}

const char* json_extract_string_value(const json_t* value) {
    return json_string_value(value);
}

const char* json_extract_string_value(const json_t* object, const char* key) {
    return json_string_value(json_object_get(object, key));
}

json_t* json_object_get_recursive(const json_t* root, const std::vector<std::string>& keys) {
    const json_t* value = root;
    for (const std::string& key : keys) {
        value = json_object_get(value, key.c_str());
    }
    return const_cast<json_t*>(value);
}

MemoryStream::MemoryStream(char* stream_buffer, std::size_t buffer_size)
    : buffer(stream_buffer), size(buffer_size), length(0) {
    buffer[0] = '\0';
}

void MemoryStream::print(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int wanted = std::vsnprintf(buffer + length, size - length, format, arguments);
    va_end(arguments);
    if (wanted > 0) {
        const auto added = static_cast<std::size_t>(wanted);
        length = added < size - length ? length + added : size - 1;
    }
}

const char* MemoryStream::text() const {
    return buffer;
}

bool get_mac_address(const std::string& interface_name, std::string& mac) {
    const kit::InHost host;
    kit::journal().record("get_mac_address " + interface_name);
    const std::lock_guard<std::mutex> lock(state().mutex);
    if (!state().mac) {
        return false;
    }
    mac = *state().mac;
    return true;
}

int setMgmt::getKeyValue(const std::string& key, int default_value) {
    const kit::InHost host;
    kit::journal().record("get_setting " + key + " " + std::to_string(default_value));
    const std::lock_guard<std::mutex> lock(state().mutex);
    const auto found = state().integers.find(key);
    return found != state().integers.end() ? found->second : default_value;
}

std::string setMgmt::getKeyValue(const std::string& key, const std::string& default_value) {
    const kit::InHost host;
    kit::journal().record("get_setting " + key + " " + default_value);
    const std::lock_guard<std::mutex> lock(state().mutex);
    const auto found = state().texts.find(key);
    return found != state().texts.end() ? found->second : default_value;
}

} // namespace cv
