#include "process.h"

#include <dirent.h>
#include <sched.h>

#include <chrono>
#include <memory>
#include <utility>

namespace kit {

namespace {

thread_local Role role = Role::worker;
// How many calls of the host are around the code that runs.
thread_local int depth_in_host = 0;

} // namespace

void mark_thread(Role marked) {
    role = marked;
    depth_in_host = 1;
}

Role thread_role() {
    return role;
}

bool in_module() {
    return depth_in_host == 0;
}

InHost::InHost() {
    ++depth_in_host;
}

InHost::~InHost() {
    --depth_in_host;
}

InModule::InModule() : before(std::exchange(depth_in_host, 0)) {}

InModule::~InModule() {
    depth_in_host = before;
}

std::set<std::string> names_in(const char* directory) {
    std::set<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(opendir(directory), closedir);
    while (const dirent* entry = readdir(stream.get())) {
        if (entry->d_name[0] != '.') {
            names.insert(entry->d_name);
        }
    }
    return names;
}

std::set<std::string> threads(std::size_t expected) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    std::set<std::string> found = names_in("/proc/self/task");
    while (found.size() > expected && std::chrono::steady_clock::now() < deadline) {
        sched_yield();
        found = names_in("/proc/self/task");
    }
    return found;
}

} // namespace kit
