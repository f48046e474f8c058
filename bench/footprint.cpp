// footprint LIBRARY EMPTY-LIBRARY REPEATS
// What the module takes of a process, and how long it takes to load and to unload it, against a library in
// which there is nothing.

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

#include "figures.h"
#include "handler_library.h"
#include "process.h"
#include "scenarios.h"

namespace {

// Written to before it is first used, so that reading does not change what is read.
std::array<char, std::size_t{1} << 20U> text;

const char* read_file(const char* name) {
    const int file = open(name, O_RDONLY | O_CLOEXEC);
    std::size_t length = 0;
    for (ssize_t got = 1; got > 0 && length < text.size() - 1; length += static_cast<std::size_t>(got)) {
        got = std::max<ssize_t>(read(file, text.data() + length, text.size() - 1 - length), 0);
    }
    close(file);
    text[length] = '\0';
    return text.data();
}

// The kilobytes that no other process shares.
long private_kilobytes() {
    const char* const smaps = read_file("/proc/self/smaps_rollup");
    long sum = 0;
    for (const char* label : {"Private_Clean:", "Private_Dirty:"}) {
        sum += std::strtol(std::strstr(smaps, label) + std::strlen(label), nullptr, 10);
    }
    return sum;
}

long descriptors() {
    long entries = 0;
    DIR* const directory = opendir("/proc/self/fd");
    while (readdir(directory) != nullptr) {
        ++entries;
    }
    closedir(directory);
    return entries;
}

json_t* figures() {
    const long kilobytes = private_kilobytes();
    return json_pack("{s:I, s:I, s:I}", "private_kilobytes", static_cast<json_int_t>(kilobytes),
                     "descriptors", static_cast<json_int_t>(descriptors()), "threads",
                     static_cast<json_int_t>(kit::names_in("/proc/self/task").size()));
}

json_t* load_times(const char* path, long repeats) {
    json_t* const loads = json_array();
    json_t* const unloads = json_array();
    for (long repeat = 0; repeat < repeats; ++repeat) {
        const std::int64_t begin = kit::nanoseconds();
        void* const library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
        const std::int64_t loaded = kit::nanoseconds();
        if (library == nullptr || dlclose(library) != 0) {
            kit::die(dlerror());
        }
        json_array_append_new(unloads, json_integer(kit::nanoseconds() - loaded));
        json_array_append_new(loads, json_integer(loaded - begin));
    }
    return json_pack("{s:o, s:o}", "load", loads, "unload", unloads);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        kit::die("usage: footprint LIBRARY EMPTY-LIBRARY REPEATS");
    }
    start_measuring();
    const long repeats = positive_number(argv[3]);
    text.fill('x');
    worker_idle();
    json_t* const result = json_object();
    const Exchange exchange;
    kit::LeanHost host;
    // The host itself and the libraries that it has anyway are in use before.
    json_decref(json_loads(exchange.payload.c_str(), 0, nullptr));
    std::free(json_dumps(json_object_get(figures(), "threads"), JSON_ENCODE_ANY));
    const std::size_t threads_before = kit::names_in("/proc/self/task").size();
    json_object_set_new(result, "before", figures());

    std::optional<kit::HandlerLibrary> library(argv[1]);
    json_object_set_new(result, "loaded", figures());
    CvHandlerAPI& handler = library->handler();
    init(host, handler);
    json_object_set_new(result, "ready", figures());
    register_box(host, handler, exchange);
    json_object_set_new(result, "registered", figures());
    handler.uninit();
    library.reset();
    kit::threads(threads_before);
    json_object_set_new(result, "unloaded", figures());

    json_t* const times = json_array();
    for (int block = 0; block < 7; ++block) {
        json_array_append_new(times, json_pack("{s:o, s:o}", "module", load_times(argv[1], repeats), "empty",
                                               load_times(argv[2], repeats)));
    }
    json_object_set_new(result, "times", times);
    print_result(result);
    return 0;
}
