// Many registrations in one process, with faults drawn from a seed: each command ends as the oracle says, and memory,
// descriptors and threads stay what they were.
//
//   longrun [REGISTRATIONS [SEED]]

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "cvutils/log.h"
#include "cvutils_stand_in.h"
#include "handler_library.h"
#include "journal.h"
#include "idle_system.h"
#include "oracle.h"
#include "process.h"
#include "scripted_host.h"
#include "texts.h"

using namespace kit;
using Operation = ScriptedHost::Operation;
using Worker = Oracle::Worker;

namespace {

// Texts that are longer than what a std::string holds without an allocation.
const std::string kPayload = R"({"token": "the token of the requester", "token_type": ")";
const std::string kGoodLogin = text::answer("user_token", "the user token of the cloud");
const std::string kGoodBox = text::answer("device_id", "the device identity of the cloud");

// The journal's own lists may have grown to a longer command's length; the process by what the allocator
// keeps.
constexpr long kHeapTolerance = 16 * 1024;
constexpr long kResidentTolerance = 1024;

/// The worker's pauses are recorded, and over at once.
class RecordingSystem : public IdleSystem {
    unsigned int sleep(unsigned int seconds) override {
        journal().record("sleep " + std::to_string(seconds));
        return 0;
    }
};

RecordingSystem underneath;
unsigned seed = 1;
long commands = 0;

[[noreturn]] void fail(const std::string& message) {
    for (const std::string& event : journal().events()) {
        std::fprintf(stderr, "  %s\n", event.c_str());
    }
    die("longrun: seed " + std::to_string(seed) + ", command " + std::to_string(commands) + ": " + message);
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

/// A daemon with its cloud, and the oracle beside them: what fails is drawn before it happens.
class Daemon {
public:
    Daemon(CvHandlerAPI& daemons_handler, std::mt19937& generator)
        : handler(daemons_handler), random(generator), oracle({3, 1}) {
        cloud.partner_id = oracle.settings.partner_id = "the partner's identifier";
        reset_cvutils();
        store(oracle.settings);
        std::vector<std::string> subscribed;
        if (handler.init(&cloud, subscribed) == 0) {
            fail("init() failed");
        }
        oracle.start_up();
        underneath.idle.wait();
    }

    ~Daemon() {
        handler.uninit();
    }

    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    /// One command of the requester's, up to its end.
    void do_command() {
        ++commands;
        cv::log::current_level = one_in(16) ? 3 : 0;
        const bool has_failed = oracle.snapshot().state == 5;
        const bool is_retry = has_failed ? !one_in(3) : one_in(20);
        const std::string payload = kPayload + (one_in(2) ? R"(partner"})" : R"(temporary"})");
        send(is_retry ? text::kRetryCommand : text::kStartCommand, payload);
        while (oracle.snapshot().in_progress) {
            if (one_in(20)) {
                send(text::kStartCommand, "no matter what");
            } else {
                answer();
            }
        }
    }

    long accepted = 0;
    long refused = 0;
    long succeeded() const {
        return oracle.successes();
    }

private:
    bool one_in(unsigned int chances) {
        return random() % chances == 0;
    }

    void send(const std::string& name, const std::string& payload) {
        const int type = one_in(2) ? kWithReply : kWithoutReply;
        ++request_id;
        oracle.command(type, name, request_id, payload);
        const bool is_accepted = oracle.snapshot().wake_ups != 0;
        ++(is_accepted ? accepted : refused);
        play_worker();
        send_command(handler, name, payload, type, request_id);
        compare_effects(is_accepted);
    }

    void answer() {
        if (oracle.outstanding() != 1 || cloud.outstanding().size() != 1) {
            fail("there should be exactly one request");
        }
        const bool login = cloud.outstanding().front().service == text::kLoginService;
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
        oracle.respond(0, given.status, given.body);
        play_worker();
        if (!(one_in(8) ? cloud.answer_from_own_thread(given) : cloud.answer(given))) {
            fail("there is no request to answer");
        }
        compare_effects(true);
    }

    /// Draws what comes of each call that the worker is about to make, for the cloud and for the oracle.
    void play_worker() {
        if (oracle.snapshot().wake_ups == 0) {
            return;
        }
        oracle.run();
        const auto drawn = [this](Operation operation, unsigned int chances) {
            const int result = one_in(chances) ? (one_in(2) ? 1 : -1) : 0;
            cloud.script(operation, result);
            return result == 0;
        };
        while (oracle.worker() != Worker::waiting) {
            switch (oracle.worker()) {
            case Worker::pausing:
                oracle.pause_over();
                break;
            case Worker::building:
                oracle.built(drawn(Operation::build, 10));
                break;
            case Worker::sending: {
                const bool accepted_by_cloud = drawn(Operation::send, 10);
                if (accepted_by_cloud) {
                    oracle.accept();
                }
                oracle.sent(accepted_by_cloud);
                break;
            }
            case Worker::publishing:
                oracle.published(drawn(Operation::publish, 10));
                break;
            default:
                oracle.replied();
            }
        }
    }

    /// After the worker's run, if there is one.
    void compare_effects(bool worker_runs) {
        if (worker_runs) {
            underneath.idle.wait();
        }
        // The callback may give the response back after the worker has gone on.
        std::vector<std::string>& due = oracle.effects;
        due.erase(std::remove_if(due.begin(), due.end(),
                                 [](const std::string& effect) {
                                     return effect == "wake-up" || effect == "release_response" ||
                                            (cv::log::current_level == 0 && effect.rfind("log 1", 0) == 0);
                                 }),
                  due.end());
        if (due != journal().events({"build_request", "send_request", "publish", "reply", "sleep", "log 0", "log 1"})) {
            for (const std::string& effect : due) {
                std::fprintf(stderr, "  due: %s\n", effect.c_str());
            }
            fail("these effects were due, and the following were seen");
        }
        if (cloud.lent_responses() != 0 || cloud.outstanding().size() != oracle.outstanding() ||
            cloud.user_token != oracle.snapshot().user_token || cloud.device_id != oracle.snapshot().device_id) {
            fail("a response is left, or a request, or the cloud access object's identity is another");
        }
        due.clear();
        journal().clear();
    }

    CvHandlerAPI& handler;
    std::mt19937& random;
    ScriptedHost cloud;
    Oracle oracle;
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
    put_in_front(&underneath);
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
        fail("after the first tenth the heap grew by " + std::to_string(heap_growth) + " bytes, the process by " +
             std::to_string(resident_growth) + " kB");
    }
    std::printf("longrun: %ld registrations, %ld succeeded, %ld commands refused, seed %u: each as the oracle says; "
                "heap %+ld bytes, resident %+ld kB, descriptors and threads unchanged\n",
                accepted, succeeded, refused, seed, heap_growth, resident_growth);
    return 0;
}
