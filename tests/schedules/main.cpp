/// @file
/// Explores the situations with the library as it ships and with the instrumented one, and shows that daemons
/// that break their contract and broken lines of the module are reported; or replays one schedule.

#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <set>
#include <string>
#include <vector>

#include <jansson.h>

#include "cvutils/log.h"
#include "library.h"
#include "scheduler.h"
#include "search.h"
#include "situations.h"

namespace schedules {

namespace {

constexpr char kUsage[] = R"(usage: schedules [--whole]
       schedules BUILD[:LINE] SITUATION [SCHEDULE]

The first form explores everything; --whole adds a large situation. The second explores one situation and
prints each kind of failure with its schedule, or runs one schedule and prints its steps. BUILD is shipped or
instrumented, LINE one of broken_lines.py. 7d2w1c is a schedule: seven steps of the dispatch thread, two of
the worker, one of the callback.
)";

/// What has to be there, so that a list that got lost is no success.
constexpr std::size_t kExpectedSituations = 16;
constexpr std::size_t kExpectedBreaches = 10;
constexpr std::size_t kExpectedBrokenLines = 19;
/// What the shipped library shows to no one: the accesses are between two points.
const std::set<std::string> kSeenInstrumentedOnly = {"flag-before-last-field", "read-after-request"};

/// What outlives a process that an execution has ended.
struct Shared {
    Search search;
    bool finished;
    std::array<char, 2000> message;
};

Shared* shared = nullptr;

struct Build {
    std::string name;
    bool instrumented;
};

const std::array<Build, 2> kBuilds = {{{"shipped", false}, {"instrumented", true}}};

struct Failure {
    std::string message;
    std::string schedule;
};

[[noreturn]] void end(const std::string& message) {
    std::fflush(stdout);
    std::fprintf(stderr, "schedules: %s\n", message.c_str());
    std::exit(1);
}

void expect_count(std::size_t count, std::size_t expected, const std::string& what) {
    if (count != expected) {
        end("there are " + std::to_string(count) + " " + what + ", and not " + std::to_string(expected));
    }
}

/// Always the same choice: the thread that ran last goes on.
class Steady : public Chooser {
public:
    Thread choose(const Choice& choice) override {
        int thread = choice.last;
        while ((choice.enabled & (1U << thread)) == 0) {
            thread = (thread + 1) % kThreads;
        }
        return static_cast<Thread>(thread);
    }
};

/// Follows a schedule, and prints it step by step.
class Replay final : public Steady {
public:
    explicit Replay(const std::string& schedule) {
        for (const char* text = schedule.c_str(); *text != '\0';) {
            char* rest = nullptr;
            const long count = std::strtol(text, &rest, 10);
            const char* const letter = std::strchr(kLetters, *rest);
            if (count <= 0 || letter == nullptr || *letter == '\0') {
                end("'" + schedule + "' is not a schedule; see --help");
            }
            choices.insert(choices.end(), static_cast<std::size_t>(count),
                           static_cast<Thread>(letter - kLetters));
            text = rest + 1;
        }
    }

    Thread choose(const Choice& choice) override {
        const Thread thread = step < choices.size() ? choices[step] : Steady::choose(choice);
        ++step;
        if ((choice.enabled & (1U << thread)) == 0) {
            fail("the schedule is another situation's: step " + std::to_string(step) + " cannot be taken");
        }
        std::printf("%*s%c: %s\n", 20 * thread, "", kLetters[thread], choice.next[thread].name);
        return thread;
    }

private:
    std::vector<Thread> choices;
    std::size_t step = 0;
};

double processor_seconds() {
    rusage used = {};
    getrusage(RUSAGE_CHILDREN, &used);
    return static_cast<double>(used.ru_utime.tv_sec + used.ru_stime.tv_sec) +
           1e-6 * static_cast<double>(used.ru_utime.tv_usec + used.ru_stime.tv_usec);
}

std::string path(const Build& build, bool broken) {
    return std::string(CV_LIBRARY_DIR "/libcvcloudregisterhandler") + (broken ? "_broken" : "") +
           (build.instrumented ? "_instrumented" : "") + ".so";
}

void load(const Build& build, const std::string& broken = "") {
    load_library(path(build, !broken.empty()), !broken.empty());
    if (instrumented() != build.instrumented) {
        end(path(build, false) + " is not the build that its name promises");
    }
    const std::vector<std::string> lines = broken_lines();
    if (!broken.empty() && std::find(lines.begin(), lines.end(), broken) == lines.end()) {
        end("no line of broken_lines.py is called " + broken);
    }
    break_line("");
    ignored = build.instrumented ? kBehindWrite | kBehindRequest | kBusy : 0;
    // The table of build_error_response() is made by whoever comes first, and only read from then on.
    const Message unknown_command = {};
    handler().handle(&unknown_command);
    Steady steady;
    run(situations().front(), steady);
    break_line(broken);
}

/// Runs `body` in a process of its own. The message of the failure that has ended it; empty when there was
/// none.
std::string in_child(const std::function<void()>& body) {
    shared->message[0] = '\0';
    shared->finished = false;
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        body();
        shared->finished = true;
        std::fflush(nullptr);
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFSIGNALED(status)) {
        return std::string("ended by ") + strsignal(WTERMSIG(status));
    }
    return shared->finished ? "" : shared->message.data();
}

/// Explores the situation to the end, or until `enough` says so of the failures.
std::vector<Failure> explore(const Situation& situation, const std::function<bool(const Failure&)>& enough) {
    new (shared) Shared();
    std::vector<Failure> failures;
    do {
        const std::string message = in_child([&situation] {
            while (shared->search.next_execution()) {
                run(situation, shared->search);
            }
        });
        if (!shared->finished) {
            failures.push_back({message, shared->search.schedule()});
        }
    } while (!shared->finished && !enough(failures.back()));
    return failures;
}

/// The place in the sources of a place in the library; what was inlined there from elsewhere is passed over.
std::string line_of(const std::string& place, const std::string& library) {
    std::string line = place;
    if (FILE* const output = popen(("addr2line -si -e '" + library + "' " + place).c_str(), "r")) {
        std::array<char, 200> text = {};
        while (std::fgets(text.data(), text.size(), output) != nullptr) {
            line = std::string(text.data(), std::strcspn(text.data(), " \n"));
            if (line.rfind("cv", 0) == 0) {
                break;
            }
        }
        pclose(output);
    }
    return line;
}

std::string with_lines(std::string message, const std::string& library) {
    for (std::size_t at = 0; (at = message.find("+0x", at)) != std::string::npos;) {
        const std::size_t length = message.find_first_not_of("+x0123456789abcdef", at) - at;
        const std::string line = line_of(message.substr(at, length), library);
        message.replace(at, length, line);
        at += line.length();
    }
    return message;
}

void print(const Build& build, const Situation& situation, const std::string& broken,
           const Failure& failure) {
    std::printf("%s\nreplay: schedules %s%s %s %s\n",
                with_lines(failure.message, path(build, !broken.empty())).c_str(), build.name.c_str(),
                broken.empty() ? "" : (":" + broken).c_str(), situation.name.c_str(),
                failure.schedule.c_str());
}

bool is_first(const Failure& /*failure*/) {
    return true;
}

/// Explores every situation of a daemon that keeps its contract.
void prove(bool whole) {
    std::size_t count = 0;
    std::size_t schedules = 0;
    for (const Build& build : kBuilds) {
        load(build);
        const double before = processor_seconds();
        count = 0;
        for (const Situation& situation : situations()) {
            if (situation.breaks_contract() || (situation.is_large() && !whole)) {
                continue;
            }
            const double begin = processor_seconds();
            const std::vector<Failure> failures = explore(situation, is_first);
            if (!failures.empty()) {
                print(build, situation, "", failures.front());
                end("the situation " + situation.name + " fails");
            }
            std::printf("%-14s%-26s%10zu schedules %8.2f s\n", build.name.c_str(), situation.name.c_str(),
                        shared->search.executions, processor_seconds() - begin);
            std::fflush(stdout);
            schedules += shared->search.executions;
            count += situation.is_large() ? 0 : 1;
        }
        std::printf("%-14s%.1f s of processor time\n", build.name.c_str(), processor_seconds() - before);
    }
    expect_count(count, kExpectedSituations, "situations");
    std::printf("schedules: %zu situations, %zu schedules with both builds, all as the oracle says\n", count,
                schedules);
}

/// Every daemon that breaks its contract is reported, as it is expected to be.
void report_breaches() {
    std::size_t count = 0;
    for (const Build& build : kBuilds) {
        load(build);
        count = 0;
        for (const Situation& situation : situations()) {
            if (!situation.breaks_contract()) {
                continue;
            }
            ++count;
            std::vector<std::string> missing =
                build.instrumented ? situation.instrumented_reports : situation.reports;
            explore(situation, [&missing](const Failure& failure) {
                missing.erase(std::remove_if(missing.begin(), missing.end(),
                                             [&failure](const std::string& report) {
                                                 return failure.message.find(report) != std::string::npos;
                                             }),
                              missing.end());
                return missing.empty();
            });
            if (!missing.empty()) {
                end("the host " + situation.name + ", " + build.name +
                    ": nobody reports: " + missing.front());
            }
        }
    }
    expect_count(count, kExpectedBreaches, "hosts that break their contract");
    std::printf("schedules: each of %zu hosts that break their contract reported with both builds\n", count);
}

/// True when a situation shows the broken line.
bool is_found(const Build& build, const std::string& line) {
    load(build, line);
    return std::any_of(situations().begin(), situations().end(), [](const Situation& situation) {
        return !situation.breaks_contract() && !situation.is_large() && !explore(situation, is_first).empty();
    });
}

void find_broken_lines() {
    for (const Build& build : kBuilds) {
        load_library(path(build, true), true);
        const std::vector<std::string> lines = broken_lines();
        expect_count(lines.size(), kExpectedBrokenLines, "broken lines");
        std::size_t found = 0;
        for (const std::string& line : lines) {
            if (build.instrumented || kSeenInstrumentedOnly.count(line) == 0) {
                if (!is_found(build, line)) {
                    end("the broken line " + line + ", " + build.name + ": nobody reports it");
                }
                ++found;
            }
        }
        std::printf("schedules: %zu of %zu broken lines found with the %s library\n", found, lines.size(),
                    build.name.c_str());
    }
}

template <typename List>
const auto& named(const List& list, const std::string& name) {
    std::string names;
    for (const auto& entry : list) {
        if (entry.name == name) {
            return entry;
        }
        names += " " + entry.name;
    }
    end("'" + name + "' is none of:" + names + "; see --help");
}

/// One situation, or one schedule of it.
int look_at(const std::vector<std::string>& arguments) {
    const std::size_t colon = arguments[0].find(':');
    const Build& build = named(kBuilds, arguments[0].substr(0, colon));
    const std::string broken = colon == std::string::npos ? "" : arguments[0].substr(colon + 1);
    const Situation& situation = named(situations(), arguments[1]);
    load(build, broken);
    if (arguments.size() == 3) {
        const std::string message = in_child([&] {
            Replay replay(arguments[2]);
            run(situation, replay);
        });
        std::puts(message.empty() ? "no failure" : with_lines(message, path(build, !broken.empty())).c_str());
        return message.empty() ? 0 : 1;
    }
    std::set<std::string> seen;
    const std::vector<Failure> failures = explore(situation, [&](const Failure& failure) {
        if (seen.insert(failure.message).second) {
            print(build, situation, broken, failure);
        }
        return !situation.breaks_contract();
    });
    std::printf("%zu schedules, %zu of them repeated, %zu failures\n", shared->search.executions,
                shared->search.repeated, failures.size());
    return failures.empty() ? 0 : 1;
}

int main(const std::vector<std::string>& arguments) {
    std::signal(SIGPIPE, SIG_DFL); // Whoever starts this may ignore it.
    const rlimit no_cores = {};
    setrlimit(RLIMIT_CORE, &no_cores);
    json_object_seed(1); // Or jansson would ask the system for one.
    cv::log::current_level = -1;
    shared = static_cast<Shared*>(
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const bool whole = arguments == std::vector<std::string>{"--whole"};
    if (arguments.size() == 2 || arguments.size() == 3) {
        return look_at(arguments);
    }
    if (!arguments.empty() && !whole) {
        std::fputs(kUsage, stdout);
        return arguments[0] == "--help" ? 0 : 2;
    }
    prove(whole);
    report_breaches();
    find_broken_lines();
    return 0;
}

} // namespace

void fail(const std::string& message) {
    std::snprintf(shared->message.data(), shared->message.size(), "%s", message.c_str());
    std::fflush(stdout);
    _exit(1);
}

} // namespace schedules

int main(int argc, char** argv) {
    static std::array<char, BUFSIZ> buffer; // Not of the memory that executions are asked for.
    std::setvbuf(stdout, buffer.data(), _IOLBF, buffer.size());
    return schedules::main({argv + 1, argv + argc});
}
