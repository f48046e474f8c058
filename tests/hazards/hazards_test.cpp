// What a daemon, or the system, may do to the loaded library; docs/host-hazards.md tells what comes of each.

#include <dlfcn.h>
#include <fcntl.h>
#include <semaphore.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <set>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "library_test.h"

using namespace kit;

namespace {

std::set<int> open_descriptors() {
    std::set<int> descriptors;
    for (int descriptor = 0; descriptor < FD_SETSIZE; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) != -1) {
            descriptors.insert(descriptor);
        }
    }
    return descriptors;
}

sem_t signal_arrived;

void on_signal(int /*signal*/) {
    const int error = errno;
    sem_post(&signal_arrived);
    errno = error;
}

class HazardTest : public LibraryTest {
protected:
    /// Starts the handler and returns the worker's thread.
    pid_t StartAndFindWorker() {
        const std::set<std::string> before = names_in("/proc/self/task");
        Start();
        Await("select");
        for (const std::string& name : names_in("/proc/self/task")) {
            if (before.count(name) == 0) {
                return static_cast<pid_t>(std::stol(name));
            }
        }
        ADD_FAILURE() << "there is no worker";
        return -1;
    }
};

} // namespace

TEST_F(HazardTest, WorkerOutlivesASignalStorm) {
    sem_init(&signal_arrived, 0, 0);
    struct sigaction action = {};
    action.sa_handler = on_signal; // Without SA_RESTART, though select() is never restarted.
    struct sigaction before = {};
    sigaction(SIGUSR1, &action, &before);
    const pid_t worker = StartAndFindWorker();

    std::atomic<bool> raging{true};
    std::thread storm([&] {
        while (raging) {
            // One after the other: signals of one kind do not queue up.
            syscall(SYS_tgkill, getpid(), worker, SIGUSR1);
            while (sem_wait(&signal_arrived) == -1 && errno == EINTR) {
            }
        }
    });
    for (unsigned long long request_id = 1; request_id <= 20; ++request_id) {
        RegisterBox(request_id);
    }
    Await("log 3 thread_function: system() was interrupted. Continuing...", 100);
    raging = false;
    storm.join();
    // And the next one in the calm.
    RegisterBox(21);
    for (unsigned long long request_id = 1; request_id <= 21; ++request_id) {
        EXPECT_EQ(journal().count("reply " + std::to_string(request_id) + " " + text::kDone), 1U);
    }
    library->handler().uninit();
    sigaction(SIGUSR1, &before, nullptr);
    sem_destroy(&signal_arrived);
}

TEST_F(HazardTest, ForkedChildLeavesTheParentAlone) {
    const auto fork_and_wait = [] {
        const pid_t child = fork();
        if (child == 0) {
            _exit(0); // Closes the child's copies of the pipes.
        }
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    };
    const std::set<int> before = open_descriptors();
    Start();
    // Both pipes are inherited, also by a program that the child executes.
    int inherited = 0;
    for (const int descriptor : open_descriptors()) {
        if (before.count(descriptor) == 0) {
            ++inherited;
            EXPECT_EQ(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
        }
    }
    EXPECT_EQ(inherited, 4);

    fork_and_wait();
    start_registration(text::kStart, kWithReply, 1);
    Await("send_request connect/login");
    fork_and_wait();
    Answer("connect/login", text::kUserToken);
    Await("send_request connect/box_mgmt");
    fork_and_wait();
    Answer("connect/box_mgmt", text::kDeviceId);
    AwaitEndOfRun("reply 1 " + text::kDone);
}

TEST_F(HazardTest, UnloadWithARequestOutstanding) {
    Start();
    start_registration(text::kStart, kWithReply, 1);
    Await("send_request connect/login");
    library->handler().uninit();
    library.reset();
    EXPECT_FALSE(HandlerLibrary::in_memory());

    // The daemon still has the request, its block, and a callback that is gone.
    ASSERT_EQ(cloud.outstanding().size(), 1U);
    EXPECT_EQ(cloud.outstanding().front().request_id, 1U);
    Dl_info unused = {};
    EXPECT_EQ(dladdr(reinterpret_cast<void*>(cloud.outstanding().front().callback), &unused), 0);

    library = std::make_unique<HandlerLibrary>();
}

TEST_F(HazardTest, MacAddressInUpperCaseInEveryLocale) {
    Start();
    unsigned long long request_id = 0;
    // The second one is made by the build: it has its own idea of an upper-case "i".
    for (const char* const name : {"C.UTF-8", "tr_TR.ISO-8859-9"}) {
        ASSERT_NE(std::setlocale(LC_ALL, name), nullptr) << name;
        if (std::string(name) != "C.UTF-8") {
            ASSERT_EQ(std::toupper('i'), 0xDD) << "this is not the locale that it should be";
        }
        start_registration(
            R"({"token": "T", "token_type": "partner", "register_mac_address": "ab:cd:ef:09:Ab:F0"})",
            kWithReply, ++request_id);
        Answer("connect/login", text::kUserToken);
        Answer("connect/box_mgmt", text::kDeviceId);
        AwaitEndOfRun("reply " + std::to_string(request_id) + " " + text::kDone);
        std::setlocale(LC_ALL, "C");
        EXPECT_EQ(
            journal().count(
                R"(build_request register_box {"macs": ["AB:CD:EF:09:AB:F0"], "box_detected_name": "Corvane Orlo", )"
                R"("setup_type": "STANDALONE", "device_model": "orlov2"} fields=yes user_token=U device_id=thebox)"),
            request_id);
    }
}
