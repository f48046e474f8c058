// The places where a failed allocation of the standard library leaves the module as an exception, or ends the
// process. Each throwing allocation of every scenario fails once, in a process of its own; where it happened
// and how it ended is compared with the table in the document that the command line names, in both
// directions.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <iostream>
#include <map>
#include <new>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <execinfo.h>

#include "cvcloudregisterhandler.h"
#include "cvregistration_globals.h"
#include "cvregistration_state_machine.h"
#include "process.h"
#include "scenarios.h"

using kit::Call;
using kit::InModule;
using kit::Role;

namespace {

constexpr int kDepth = 64;

/// What a child tells before it ends: plain data, for a pipe.
struct Report {
    int role = -1; // Of the thread that failed; -1 when nothing failed.
    int depth = 0;
    void* addresses[kDepth] = {};
};

// How a child's process ended: its exit code, and the words of the document for it.
enum Exit {
    kNothingFailed,
    kLeftInit,
    kLeftHandle,
    kLeftCallback,
    kLeftInitAndLost,
    kLeftCallbackAndLost,
    kSwallowed,
    kBroken
};
const char* const kEndings[] = {"nothing",
                                "leaves `init`",
                                "leaves `handle`",
                                "leaves the callback",
                                "leaves `init`, memory lost",
                                "leaves the callback, response lost",
                                "is swallowed",
                                "breaks the module"};

int report_descriptor = -1;

void write_report(void* const* addresses, int count) {
    Report report;
    report.role = static_cast<int>(kit::thread_role());
    report.depth = count < kDepth ? count : kDepth;
    std::memcpy(report.addresses, addresses, sizeof(void*) * static_cast<std::size_t>(report.depth));
    if (write(report_descriptor, &report, sizeof report) != sizeof report) {
        _exit(kBroken);
    }
}

/// A daemon that catches what leaves the module, in a child process.
class CatchingDaemon {
public:
    explicit CatchingDaemon(const Scenario& played) : host(played) {}

    // Ends with one of the codes above, unless the process ends first.
    int play() {
        if (!init()) {
            // The daemon cleans up; the next init() works.
            uninit();
            kit::calls::order();
            if (!init() || !registers()) {
                return kBroken;
            }
            uninit();
            return unreleased() > 0 ? kLeftInitAndLost : kLeftInit;
        }
        for (const Command& command : host.scenario.commands) {
            if (!run(command)) {
                kit::calls::order();
                if (host.callback_threw) {
                    // Nobody wakes the worker: the registration stays in progress, and only uninit() is left.
                    if (!in_progress()) {
                        return kBroken;
                    }
                    uninit();
                    const bool all_lost = host.lent_responses() == 1 && unreleased() == 1;
                    const bool none_lost = host.lent_responses() == 0 && unreleased() == 0;
                    return all_lost ? kLeftCallbackAndLost : none_lost ? kLeftCallback : kBroken;
                }
                // A request of an earlier command may be outstanding.
                host.be_kind();
                while (host.answer()) {
                }
                if (in_progress() || !registers()) {
                    return kBroken;
                }
                uninit();
                return unreleased() > 0 ? kBroken : kLeftHandle;
            }
        }
        uninit();
        return kit::calls::fired() > 0 ? kSwallowed : kNothingFailed;
    }

private:
    static bool in_progress() {
        return g_registration_handler->registration_in_progress;
    }

    bool init() {
        try {
            std::vector<std::string> commands;
            commands.reserve(8); // The daemon's own list.
            const InModule module;
            return g_handler_api.init(&host, commands) != 0;
        } catch (const std::bad_alloc&) {
            return false;
        }
    }

    static void uninit() {
        const InModule module;
        g_handler_api.uninit();
    }

    bool run(const Command& command) {
        try {
            host.deliver(command);
        } catch (const std::bad_alloc&) {
            return false;
        }
        while (!command.hold && host.answer()) {
            if (host.callback_threw) {
                return false;
            }
        }
        return true;
    }

    bool registers() {
        host.be_kind();
        host.deliver(start(true, 90));
        while (host.answer()) {
        }
        return !in_progress() && host.device_id == kDeviceId;
    }

    Daemon host;
};

struct Ending {
    Report report;
    std::string how;
};

// Lets the nth throwing allocation fail in a child.
Ending fail_in_child(const Scenario& scenario, int number) {
    int pipe_ends[2];
    if (pipe(pipe_ends) != 0) {
        fail("no pipe");
    }
    const pid_t child = fork();
    if (child == -1) {
        fail("no child process");
    }
    if (child == 0) {
        report_descriptor = pipe_ends[1];
        kit::calls::on_throw = write_report;
        // The C++ library tells about the end of the process; here that is what is wanted.
        const int null = open("/dev/null", O_RDWR);
        dup2(null, 2);
        const rlimit no_core = {0, 0};
        setrlimit(RLIMIT_CORE, &no_core);
        alarm(60);
        CatchingDaemon daemon(scenario);
        kit::calls::order({Call::new_throwing, 0, ENOMEM, number, 1});
        _exit(daemon.play());
    }
    close(pipe_ends[1]);
    Ending ending;
    if (read(pipe_ends[0], &ending.report, sizeof ending.report) != sizeof ending.report) {
        ending.report.role = -1;
    }
    close(pipe_ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFSIGNALED(status)) {
        ending.how = WTERMSIG(status) == SIGABRT ? "the process ends" : strsignal(WTERMSIG(status));
        return ending;
    }
    ending.how = kEndings[std::min<int>(WEXITSTATUS(status), kBroken)];
    return ending;
}

std::string output_of(const std::string& command) {
    std::string output;
    FILE* const stream = popen(command.c_str(), "r");
    char buffer[4096];
    for (std::size_t length = 0; (length = fread(buffer, 1, sizeof buffer, stream)) > 0;) {
        output.append(buffer, length);
    }
    if (pclose(stream) != 0) {
        fail("failed: " + command.substr(0, 60) + "...");
    }
    return output;
}

// "cv::registration::(anonymous namespace)::refuse(std::string&, ...)" becomes "refuse".
std::string short_name(std::string name) {
    for (const std::string prefix : {"cv::registration::", "(anonymous namespace)::"}) {
        for (std::size_t at = 0; (at = name.find(prefix)) != std::string::npos;) {
            name.erase(at, prefix.length());
        }
    }
    name.erase(std::min(name.find('('), name.length()));
    name.erase(std::min(name.find("[abi:"), name.length()));
    const std::size_t space = name.rfind(' ');
    return space == std::string::npos ? name : name.substr(space + 1);
}

// The module's innermost function at each of the addresses' call stacks.
std::vector<std::string> module_functions(const std::vector<Report>& reports) {
    Dl_info program = {};
    dladdr(reinterpret_cast<void*>(&fail_in_child), &program);
    const auto base = reinterpret_cast<std::uintptr_t>(program.dli_fbase);
    std::set<std::uintptr_t> offsets;
    for (const Report& report : reports) {
        for (int i = 0; i < report.depth; ++i) {
            // The call is before the address that it returns to.
            offsets.insert(reinterpret_cast<std::uintptr_t>(report.addresses[i]) - 1 - base);
        }
    }
    std::ostringstream command;
    command << "addr2line -a -f -i -C -e /proc/" << getpid() << "/exe" << std::hex;
    for (const std::uintptr_t offset : offsets) {
        command << " 0x" << offset;
    }
    std::istringstream lines(output_of(command.str()));
    std::map<std::uintptr_t, std::string> functions; // Only those in the module's sources.
    std::uintptr_t address = 0;
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("0x", 0) == 0) {
            address = std::strtoull(line.c_str(), nullptr, 16);
            continue;
        }
        std::string place;
        std::getline(lines, place);
        // Of the functions that were made one by inlining, the innermost comes first. A template of the C++
        // library may be attributed to the line that instantiated it.
        if (line.rfind("std::", 0) != 0 && place.find("cvcloudregisterhandler/src/") != std::string::npos) {
            functions.emplace(address, short_name(line));
        }
    }
    std::vector<std::string> found;
    for (const Report& report : reports) {
        std::string function = "(outside the module's sources)";
        for (int i = 0; i < report.depth; ++i) {
            const auto at = functions.find(reinterpret_cast<std::uintptr_t>(report.addresses[i]) - 1 - base);
            if (at != functions.end()) {
                function = at->second;
                break;
            }
        }
        found.push_back(function);
    }
    return found;
}

// The rows "| `FUNCTION` | THREAD | ENDING | ... |" of a document.
std::set<std::string> listed_places(const char* document) {
    std::ifstream file(document);
    if (!file) {
        fail(std::string("cannot read ") + document);
    }
    const std::set<std::string> threads = {"daemon", "worker", "callback"};
    std::set<std::string> places;
    for (std::string line; std::getline(file, line);) {
        std::vector<std::string> cells;
        std::istringstream row(line);
        for (std::string cell; std::getline(row, cell, '|');) {
            const std::size_t begin = cell.find_first_not_of(' ');
            cells.push_back(
                begin == std::string::npos ? "" : cell.substr(begin, cell.find_last_not_of(' ') - begin + 1));
        }
        if (cells.size() >= 4 && !cells[1].empty() && cells[1].front() == '`' &&
            threads.count(cells[2]) != 0) {
            places.insert("| " + cells[1] + " | " + cells[2] + " | " + cells[3] + " |");
        }
    }
    return places;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: exceptions DOCUMENT (the one with the table of the places)\n";
        return 2;
    }
    kit::mark_thread(Role::daemon);
    faulty_system();
    void* warm_up[1];
    backtrace(warm_up, 1); // Loads what it needs.

    std::vector<Report> reports;
    std::vector<std::string> endings;
    for (const Scenario& scenario : scenarios()) {
        for (int number = 1;; ++number) {
            describe(scenario.name + ", throwing allocation " + std::to_string(number));
            const Ending ending = fail_in_child(scenario, number);
            if (ending.report.role == -1 && ending.how == "nothing") {
                break;
            }
            if (ending.report.role == -1) {
                fail("ends without a failure: " + ending.how);
            }
            reports.push_back(ending.report);
            endings.push_back(ending.how);
        }
    }

    const std::vector<std::string> functions = module_functions(reports);
    const char* const threads[] = {"worker", "daemon", "callback"};
    std::set<std::string> found;
    for (std::size_t i = 0; i < reports.size(); ++i) {
        found.insert("| `" + functions[i] + "` | " + threads[reports[i].role] + " | " + endings[i] + " |");
    }
    const std::set<std::string> listed = listed_places(argv[1]);
    bool equal = true;
    for (const std::string& place : found) {
        if (listed.count(place) == 0) {
            std::cerr << "exceptions: found and not listed: " << place << "\n";
            equal = false;
        }
    }
    for (const std::string& place : listed) {
        if (found.count(place) == 0) {
            std::cerr << "exceptions: listed and not found: " << place << "\n";
            equal = false;
        }
    }
    std::cout << "exceptions: " << reports.size() << " failed allocations in " << found.size() << " places, "
              << (equal ? "all of them listed, and no other" : "NOT the places that are listed") << "\n";
    return equal ? 0 : 1;
}
