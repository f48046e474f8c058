#include "library.h"

#include <dlfcn.h>

#include <algorithm>
#include <map>
#include <memory>

#include "handler_library.h"

namespace schedules {

namespace {

struct Loaded {
    std::unique_ptr<kit::HandlerLibrary> library;
    bool instrumented = false;
    const char* const* broken_lines = nullptr;
    int* broken_line = nullptr;
    const char* begin = nullptr;
};

Loaded* current = nullptr;
bool constructed_for_sanitizer = false;

} // namespace

void load_library(const std::string& path, bool has_broken_lines) {
    static std::map<std::string, Loaded> libraries;
    current = &libraries[path];
    if (current->library == nullptr) {
        constructed_for_sanitizer = false;
        current->library = std::make_unique<kit::HandlerLibrary>(path.c_str());
        current->instrumented = constructed_for_sanitizer;
        Dl_info information = {};
        dladdr(current->library->symbol("get_handler_api"), &information);
        current->begin = static_cast<const char*>(information.dli_fbase);
        if (has_broken_lines) {
            current->broken_lines = &current->library->object<const char*>("schedules_broken_lines");
            current->broken_line = &current->library->object<int>("schedules_broken_line");
        }
    }
}

CvHandlerAPI& handler() {
    return current->library->handler();
}

bool instrumented() {
    return current->instrumented;
}

std::uint32_t place_in_library(const void* code) {
    return static_cast<std::uint32_t>(static_cast<const char*>(code) - current->begin);
}

std::vector<std::string> broken_lines() {
    std::vector<std::string> names;
    for (const char* const* name = current->broken_lines; name != nullptr && *name != nullptr; ++name) {
        names.emplace_back(*name);
    }
    return names;
}

void break_line(const std::string& name) {
    const std::vector<std::string> names = broken_lines();
    const auto found = std::find(names.begin(), names.end(), name);
    if (current->broken_line != nullptr) {
        *current->broken_line = found == names.end() ? 0 : static_cast<int>(found - names.begin()) + 1;
    }
}

} // namespace schedules

/// Called by the constructors of a library that was compiled for the thread sanitizer.
extern "C" void __tsan_init() { // NOLINT(bugprone-reserved-identifier)
    schedules::constructed_for_sanitizer = true;
}
