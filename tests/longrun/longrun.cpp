// Many registrations in one process, with faults drawn from a seed: each command ends as the oracle says, and
// memory, descriptors and threads stay what they were.
//
//   longrun [REGISTRATIONS [SEED]]

#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

#include "compared_host.h"
#include "cvutils/log.h"
#include "cvutils_stand_in.h"
#include "handler_library.h"
#include "journal.h"
#include "process.h"
#include "scripted_calls.h"
#include "texts.h"

using namespace kit;

namespace {

// Texts that are longer than what a std::string holds without an allocation.
const std::string kPayload = R"({"token": "the token of the requester", "token_type": ")";
const std::string kGoodLogin = text::answer("user_token", "the user token of the cloud");
const std::string kGoodBox = text::answer("device_id", "the device identity of the cloud");

// The journal's own lists may have grown to a longer command's length; the process by what the allocator
// keeps.
constexpr long kHeapTolerance = 16 * 1024;
constexpr long kResidentTolerance = 1024;

unsigned seed = 1;
long commands = 0;

[[noreturn]] void fail(const std::string& message) {
    std::fprintf(stderr, "longrun: seed %u, command %ld: %s\n", seed, commands, message.c_str());
    std::_Exit(1);
}

void compare(const std::string& what, std::size_t there, std::size_t at_first) {
    if (there != at_first) {
        fail(what + ": " + std::to_string(at_first) + " at first, now " + std::to_string(there));
    }
}

long resident_kilobytes() {
    std::ifstream file("/proc/self/statm");
    long size = 0;
    long resident = 0;
    file >> size >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

long heap_in_use() {
    return static_cast<long>(mallinfo2().uordblks);
}

/// A daemon whose faults are drawn.
class Daemon {
public:
    Daemon(CvHandlerAPI& handler, std::mt19937& generator) : random(generator), host(handler, settings()) {
        host.succeeds = [this](ScriptedHost::Operation) { return !one_in(10); };
    }

    /// One command of the requester's, up to its end.
    void do_command() {
        ++commands;
        cv::log::current_level = one_in(16) ? 3 : 0;
        const bool has_failed = host.expected().snapshot().state == 5;
        const bool is_retry = has_failed ? !one_in(3) : one_in(20);
        send(is_retry ? text::kRetryCommand : text::kStartCommand,
             kPayload + (one_in(2) ? R"(partner"})" : R"(temporary"})"));
        ++(host.accepted() ? accepted : refused);
        while (host.expected().snapshot().in_progress) {
            if (one_in(20)) {
                send(text::kStartCommand, "no matter what");
                ++refused;
            } else {
                answer();
            }
        }
    }

    long accepted = 0;
    long refused = 0;
    long succeeded() const {
        return host.expected().successes();
    }

private:
    static Settings settings() {
        Settings settings;
        settings.retry_num = 3;
        settings.partner_id = "the partner's identifier";
        return settings;
    }

    bool one_in(unsigned int chances) {
        return random() % chances == 0;
    }

    static void expect_none(const std::string& difference) {
        if (!difference.empty()) {
            fail(difference);
        }
    }

    void send(const std::string& name, const std::string& payload) {
        expect_none(host.command(one_in(2) ? kWithReply : kWithoutReply, name, ++request_id, payload));
    }

    void answer() {
        const bool login = host.outstanding().at(0).service == text::kLoginService;
        Answer given = {login ? kGoodLogin : kGoodBox};
        if (one_in(4)) {
            const char* const bodies[] = {"", "<html>", "{}",
                                          R"({"result": {"user_token": 5, "device_id": 5}})",
                                          R"({"error": {"message": "the cloud is full today"}})"};
            if (one_in(6)) {
                given.status = 504;
            } else {
                given.body = bodies[random() % std::size(bodies)];
            }
        }
        expect_none(host.respond(given, one_in(8)));
    }

    std::mt19937& random;
    ComparedHost host;
    unsigned long long request_id = 0;
};

long positive_number(const char* text) {
    char* end = nullptr;
    const long number = std::strtol(text, &end, 10);
    if (*end != '\0' || number <= 0) {
        std::fprintf(stderr, "longrun: '%s' is not a number above 0; usage: longrun [REGISTRATIONS [SEED]]\n",
                     text);
        std::exit(2);
    }
    return number;
}

} // namespace

int main(int argc, char** argv) {
    const long registrations = argc > 1 ? positive_number(argv[1]) : 100000;
    seed = argc > 2 ? static_cast<unsigned>(positive_number(argv[2])) : 1;
    std::mt19937 random(seed);
    calls::reset(false);
    const HandlerLibrary library;

    // The daemon is a new one now and then: the scripted host keeps what it sent.
    constexpr long kOfOneDaemon = 500;
    long accepted = 0;
    long succeeded = 0;
    long refused = 0;
    std::size_t descriptors = 0;
    std::size_t thread_count = 0;
    long warm_heap = 0;
    long warm_resident = 0;
    while (accepted < registrations) {
        {
            Daemon daemon(library.handler(), random);
            while (daemon.accepted < kOfOneDaemon && accepted + daemon.accepted < registrations) {
                daemon.do_command();
            }
            accepted += daemon.accepted;
            succeeded += daemon.succeeded();
            refused += daemon.refused;
            if (thread_count == 0) {
                thread_count = names_in("/proc/self/task").size();
                descriptors = names_in("/proc/self/fd").size();
            }
            compare("descriptors", names_in("/proc/self/fd").size(), descriptors);
            compare("threads", threads(thread_count).size(), thread_count);
        }
        journal().clear();
        reset_cvutils();
        if (warm_heap == 0 && accepted >= registrations / 10) {
            warm_heap = heap_in_use();
            warm_resident = resident_kilobytes();
        }
    }
    const long heap_growth = heap_in_use() - warm_heap;
    const long resident_growth = resident_kilobytes() - warm_resident;
    if (heap_growth > kHeapTolerance || resident_growth > kResidentTolerance) {
        fail("after the first tenth the heap grew by " + std::to_string(heap_growth) +
             " bytes, the process by " + std::to_string(resident_growth) + " kB");
    }
    std::printf(
        "longrun: %ld registrations, %ld succeeded, %ld commands refused, seed %u: each as the oracle says; "
        "heap %+ld bytes, resident %+ld kB, descriptors and threads unchanged\n",
        accepted, succeeded, refused, seed, heap_growth, resident_growth);
    return 0;
}
