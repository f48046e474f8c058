// Many registrations in one process, with faults drawn from a seed: each accepted command ends exactly once
// and as the faults say, and memory, descriptors and threads stay what they were.
//
//   longrun [REGISTRATIONS [SEED]]

#include <dirent.h>
#include <dlfcn.h>
#include <malloc.h>
#include <sched.h>
#include <sys/select.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "cvcloud/cvhandler_api.h"
#include "cvutils/log.h"
#include "fake_cloud_api.h"
#include "fake_cvutils.h"
#include "journal.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kMemoryIsTheSanitizers = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kMemoryIsTheSanitizers = true;
#else
constexpr bool kMemoryIsTheSanitizers = false;
#endif
#else
constexpr bool kMemoryIsTheSanitizers = false;
#endif

namespace {

std::mutex mutex;
std::condition_variable changed;
int selects = 0;

long command_count = 0;
unsigned seed = 1;

[[noreturn]] void die(const std::string& message) {
    std::fprintf(stderr, "longrun: seed %u, command %ld: %s\n", seed, command_count, message.c_str());
    for (const std::string& event : fake_host::journal().events()) {
        std::fprintf(stderr, "  %s\n", event.c_str());
    }
    std::fflush(stderr);
    _exit(1);
}

} // namespace

// The worker's calls bind to these.

int select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout) {
    static const auto next = reinterpret_cast<decltype(&select)>(dlsym(RTLD_NEXT, "select"));
    {
        const std::lock_guard<std::mutex> lock(mutex);
        ++selects;
        changed.notify_all();
    }
    return next(count, readable, writable, exceptional, timeout);
}

unsigned int sleep(unsigned int /*seconds*/) {
    return 0;
}

namespace {

const std::string kUserToken = "the user token of the cloud";
const std::string kDeviceId = "the device identity of the cloud";
const std::string kDone =
    R"({"result": "ok", "user_token": ")" + kUserToken + R"(", "device_id": ")" + kDeviceId + R"("})";
constexpr int kTries = 4; // By the default settings.

std::size_t entries_of(const char* directory) {
    std::size_t entries = 0;
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(opendir(directory), closedir);
    while (readdir(stream.get()) != nullptr) {
        ++entries;
    }
    return entries;
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

// The journal's own lists may have grown to a longer command's length; the process by what the allocator
// keeps.
constexpr long kHeapTolerance = 16 * 1024;
constexpr long kResidentTolerance = 1024;

// A daemon that knows what has to come of each command, since it has drawn the faults itself.
class Daemon {
public:
    Daemon(CvHandlerAPI& daemons_handler, std::mt19937& generator)
        : handler(daemons_handler), random(generator) {
        cloud.partner_id = "the partner's identifier";
        {
            const std::lock_guard<std::mutex> lock(mutex);
            selects = 0;
        }
        wake_ups = 0;
        std::vector<std::string> commands;
        if (handler.init(&cloud, commands) == 0) {
            die("init() failed");
        }
        await_idle_worker();
    }

    ~Daemon() {
        handler.uninit();
        if (!cloud.outstanding().empty() || cloud.lent_responses() != 0) {
            die("a request or a response is left");
        }
    }

    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    void do_command() {
        ++command_count;
        ++request_id;
        fake_host::journal().clear();
        fake_host::reset_cvutils();
        cv::log::current_level = one_in(16) ? 3 : 0;
        const bool retry = failed ? !one_in(3) : one_in(20);
        const bool asks = one_in(2);
        if (retry && !failed) {
            // Recorded before it is refused; the next start forgets it.
            send("retry_cloud_registration", "", asks);
            expect_refusal(
                request_id, asks,
                R"({"result": "error_other", "reason": "Retry called, but current state is not FAIL"})");
            return;
        }
        if (!retry) {
            reply_wanted = false;
            login_done = box_done = false;
        }
        reply_wanted = reply_wanted || asks;
        login_tries = login_done ? login_tries : kTries;
        box_tries = retry && login_done && !box_done ? kTries : retry ? box_tries : kTries;
        failed = false;
        script_next_step();
        const bool partner = one_in(2);
        ++wake_ups;
        if (retry) {
            send("retry_cloud_registration", "", asks);
        } else {
            send("start_cloud_registration",
                 partner ? R"({"token": "the token of the requester", "token_type": "partner"})"
                         : R"({"token": "the token of the requester", "token_type": "temporary"})",
                 asks);
        }
        await_idle_worker();
        while (!failed && !(login_done && box_done && cloud.outstanding().empty())) {
            if (one_in(20)) {
                const unsigned long long probe = kProbe + ++probes;
                send("start_cloud_registration", "no matter what", true, probe);
                expect_refusal(
                    probe, true,
                    R"({"result": "error_in_progress", "reason": "Another registration process is in progress"})");
            }
            answer();
        }
        expect_end();
    }

    long accepted = 0;
    long succeeded = 0;
    long refused = 0;

private:
    static constexpr unsigned long long kProbe = 1ULL << 60U;

    bool one_in(unsigned int chances) {
        return random() % chances == 0;
    }

    // Draws what comes of the tries that the worker makes when it wakes next.
    void script_next_step() {
        will_send = false;
        if (login_done && box_done) {
            script_publish();
            return;
        }
        int& tries = login_done ? box_tries : login_tries;
        int failing = 0;
        while (failing < tries && one_in(5)) {
            ++failing;
        }
        const int builds = failing > 0 ? static_cast<int>(random() % static_cast<unsigned>(failing + 1)) : 0;
        cloud.fail_next_build(builds);
        cloud.refuse_next_send(failing - builds, one_in(2) ? 1 : -1);
        tries -= failing;
        if (tries == 0) {
            failed = true;
            return;
        }
        --tries;
        will_send = true;
    }

    void script_publish() {
        publish_fails = one_in(10);
        if (publish_fails) {
            cloud.fail_next_publish(1, one_in(2) ? 1 : -1);
            failed = true;
        }
    }

    // Answers the request that is outstanding, with what comes after it drawn before.
    void answer() {
        if (!will_send || cloud.outstanding().size() != 1) {
            die("there should be exactly one request");
        }
        const bool login = !login_done;
        fake_host::Answer answer = {login ? R"({"result": {"user_token": ")" + kUserToken + R"("}})"
                                          : R"({"result": {"device_id": ")" + kDeviceId + R"("}})"};
        if (one_in(4)) {
            const char* const bodies[] = {"", "<html>", "{}",
                                          R"({"result": {"user_token": 5, "device_id": 5}})",
                                          R"({"error": {"message": "the cloud is full today"}})"};
            if (one_in(6)) {
                answer.status = 504;
            } else {
                answer.body = bodies[random() % std::size(bodies)];
            }
            if ((login ? login_tries : box_tries) == 0) {
                failed = true;
                will_send = false;
            } else {
                script_next_step();
            }
        } else {
            (login ? login_done : box_done) = true;
            script_next_step();
        }
        ++wake_ups;
        if (!(one_in(8) ? cloud.answer_from_own_thread(answer) : cloud.answer(answer))) {
            die("there is no request to answer");
        }
        await_idle_worker();
    }

    void send(const std::string& name, const std::string& payload, bool asks, unsigned long long id = 0) {
        Message message = {};
        message.type = asks ? 2 : 1;
        std::strncpy(message.name, name.c_str(), sizeof message.name - 1);
        message.request_id = id != 0 ? id : request_id;
        message.payload_len = static_cast<std::uint32_t>(payload.length());
        message.payload = payload.data();
        handler.handle(&message);
    }

    void await_idle_worker() const {
        std::unique_lock<std::mutex> lock(mutex);
        // Once at its start, and once after each byte.
        if (!changed.wait_for(lock, std::chrono::seconds(30), [this] { return selects >= wake_ups + 1; })) {
            lock.unlock();
            die("the worker does not come back");
        }
        if (selects != wake_ups + 1) {
            lock.unlock();
            die("the worker woke without a reason");
        }
    }

    void expect_refusal(unsigned long long id, bool asks, const std::string& text) {
        ++refused;
        const auto replies = fake_host::journal().events({"reply " + std::to_string(id) + " "});
        if (replies.size() != (asks ? 1U : 0U) ||
            (asks && replies[0] != "reply " + std::to_string(id) + " " + text)) {
            die("the refusal is not what it should be");
        }
    }

    void expect_end() {
        ++accepted;
        succeeded += failed ? 0 : 1;
        const auto replies = fake_host::journal().events({"reply " + std::to_string(request_id) + " "});
        const auto published = fake_host::journal().events({"publish "});
        if (replies.size() != (reply_wanted ? 1U : 0U)) {
            die("the command should have been answered " + std::string(reply_wanted ? "once" : "never"));
        }
        const bool says_ok =
            !replies.empty() && replies[0] == "reply " + std::to_string(request_id) + " " + kDone;
        if (reply_wanted && says_ok == failed) {
            die(failed ? "the registration should have failed" : "the registration should have succeeded");
        }
        const bool tried_to_publish = !failed || (login_done && box_done);
        if (published.size() != (tried_to_publish ? 1U : 0U)) {
            die("the result should have been published " + std::string(tried_to_publish ? "once" : "never"));
        }
        if (!cloud.outstanding().empty() || cloud.lent_responses() != 0) {
            die("a request or a response is left");
        }
        if (!failed) {
            reply_wanted = false;
        }
    }

    CvHandlerAPI& handler;
    std::mt19937& random;
    fake_host::FakeCloudApi cloud;
    int wake_ups = 0;
    unsigned long long probes = 0;
    unsigned long long request_id = 0;
    bool failed = false;
    bool reply_wanted = false;
    bool login_done = false;
    bool box_done = false;
    bool will_send = false;
    bool publish_fails = false;
    int login_tries = 0;
    int box_tries = 0;
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
    void* const library = dlopen(CV_HANDLER_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    void* const entry = library != nullptr ? dlsym(library, "get_handler_api") : nullptr;
    if (entry == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    CvHandlerAPI& handler = *reinterpret_cast<CvHandlerAPI* (*)()>(entry)();

    // The daemon is a new one now and then: the fake host keeps what it sent.
    constexpr long kOfOneDaemon = 500;
    long accepted = 0;
    long succeeded = 0;
    long refused = 0;
    std::size_t descriptors = 0;
    std::size_t threads = 0;
    long warm_heap = 0;
    long warm_resident = 0;
    while (accepted < registrations) {
        {
            Daemon daemon(handler, random);
            while (daemon.accepted < kOfOneDaemon && accepted + daemon.accepted < registrations) {
                daemon.do_command();
            }
            accepted += daemon.accepted;
            succeeded += daemon.succeeded;
            refused += daemon.refused;
            std::size_t threads_now = entries_of("/proc/self/task");
            // A worker of the daemon before, although joined, may stay there for a moment longer.
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
            while (threads != 0 && threads_now > threads && std::chrono::steady_clock::now() < deadline) {
                sched_yield();
                threads_now = entries_of("/proc/self/task");
            }
            const std::size_t descriptors_now = entries_of("/proc/self/fd");
            if (threads == 0) {
                threads = threads_now;
                descriptors = descriptors_now;
            }
            if (descriptors_now != descriptors) {
                die("descriptors: " + std::to_string(descriptors) + " at first, now " +
                    std::to_string(descriptors_now));
            }
            if (threads_now != threads) {
                die("threads: " + std::to_string(threads) + " at first, now " + std::to_string(threads_now));
            }
        }
        fake_host::journal().clear();
        fake_host::reset_cvutils();
        if (warm_heap == 0 && accepted >= registrations / 10) {
            warm_heap = heap_in_use();
            warm_resident = resident_kilobytes();
        }
    }
    const long heap_growth = heap_in_use() - warm_heap;
    const long resident_growth = resident_kilobytes() - warm_resident;
    if (!kMemoryIsTheSanitizers && (heap_growth > kHeapTolerance || resident_growth > kResidentTolerance)) {
        die("after the first tenth the heap grew by " + std::to_string(heap_growth) +
            " bytes, the process by " + std::to_string(resident_growth) + " kB");
    }
    dlclose(library);
    std::printf("longrun: %ld registrations, %ld succeeded, %ld commands refused, seed %u: each ended once; "
                "heap %+ld "
                "bytes, resident %+ld kB, descriptors and threads unchanged\n",
                accepted, succeeded, refused, seed, heap_growth, resident_growth);
    return 0;
}
