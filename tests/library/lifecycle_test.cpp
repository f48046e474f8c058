// The library from its load to its unload: init(), uninit(), and what they leave in the process.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "library_test.h"

using namespace kit;

namespace {

std::set<std::string> open_descriptors() {
    return names_in("/proc/self/fd");
}

struct Mappings {
    std::multiset<std::string> files; // Each as often as it is mapped.
    std::size_t other = 0;
};

Mappings mappings() {
    Mappings found;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        const std::size_t path = line.find('/');
        if (path != std::string::npos) {
            found.files.insert(line.substr(path));
        } else {
            ++found.other;
        }
    }
    return found;
}

// The threads of a process that has had one more than the main thread: from the first on, the thread
// sanitizer keeps one of its own.
std::set<std::string> threads_after_the_first() {
    std::string first;
    std::thread([&first] { first = std::to_string(gettid()); }).join();
    return threads(names_in("/proc/self/task").size() - names_in("/proc/self/task").count(first));
}

// A pipe that was never opened counts descriptor 0 as its write end. Takes the descriptor again.
void ExpectDescriptorZeroClosed() {
    EXPECT_EQ(fcntl(0, F_GETFD), -1);
    EXPECT_EQ(open("/dev/null", O_RDONLY), 0);
}

// Every descriptor below a limit is in use.
class FullDescriptorTable {
public:
    explicit FullDescriptorTable(int limit) {
        getrlimit(RLIMIT_NOFILE, &before);
        rlimit raised = before;
        raised.rlim_cur = FD_SETSIZE + 64;
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0) << "this machine allows too few open files";
        for (int descriptor = 0; descriptor < limit - 1;) {
            descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
            EXPECT_GE(descriptor, 0);
            opened.push_back(descriptor);
        }
    }
    ~FullDescriptorTable() {
        for (const int descriptor : opened) {
            close(descriptor);
        }
        setrlimit(RLIMIT_NOFILE, &before);
    }
    FullDescriptorTable(const FullDescriptorTable&) = delete;
    FullDescriptorTable& operator=(const FullDescriptorTable&) = delete;

private:
    rlimit before = {};
    std::vector<int> opened;
};

class LifecycleTest : public LibraryTest {
protected:
    void ExpectInitFails(CvCloudAPI* api) {
        EXPECT_EQ(library->handler().init(api, commands), 0);
        EXPECT_EQ(library->object<void*>("g_registration_handler"), nullptr);
    }
};

} // namespace

TEST_F(LifecycleTest, LoadedLibraryExportsItsObjects) {
    EXPECT_EQ(library->object<unsigned char>("mandatory_cloud_handler"), 1);
    EXPECT_EQ(library->symbol("g_handler_api"), static_cast<void*>(&library->handler()));
    EXPECT_EQ(library->object<void*>("g_cvcloud_api"), nullptr);
    EXPECT_EQ(library->object<void*>("g_registration_handler"), nullptr);
    const struct {
        const char* name;
        const char* value;
    } constants[] = {
        {"_ZN2cv12registration17kStartCloudRegMsgE", "start_cloud_registration"},
        {"_ZN2cv12registration17kRetryCloudRegMsgE", "retry_cloud_registration"},
        {"_ZN2cv12registration16kCloudRegDoneMsgE", "cloud_registration_done"},
        {"_ZN2cv12registration13kLoginServiceE", "connect/login"},
        {"_ZN2cv12registration14kConnectMethodE", "connect"},
        {"_ZN2cv12registration21kGetDeviceTokenMethodE", "get_device_token"},
        {"_ZN2cv12registration16kRegisterServiceE", "connect/box_mgmt"},
        {"_ZN2cv12registration15kRegisterMethodE", "register_box"},
        {"_ZN2cv12registration18kTemporaryDeviceIdE", "thebox"},
        {"_ZN2cv12registration19kRegisterMacAddressE", "register_mac_address"},
        {"_ZN2cv12registration6kTokenE", "token"},
        {"_ZN2cv12registration10kTokenTypeE", "token_type"},
    };
    for (const auto& constant : constants) {
        EXPECT_STREQ(library->object<const char*>(constant.name), constant.value) << constant.name;
    }
}

TEST_F(LifecycleTest, HandlerObjectIsTheSameOnEveryCall) {
    auto* const get_handler_api = reinterpret_cast<CvHandlerAPI* (*)()>(library->symbol("get_handler_api"));
    EXPECT_EQ(get_handler_api(), &library->handler());
    Start();
    EXPECT_EQ(get_handler_api(), &library->handler());
}

TEST_F(LifecycleTest, InitAppendsTheCommandsToThoseThatAreThere) {
    commands = {"other", "start_cloud_registration"};
    Start();
    EXPECT_EQ(commands, (std::vector<std::string>{"other", "start_cloud_registration",
                                                  "start_cloud_registration", "retry_cloud_registration"}));
    EXPECT_EQ(library->object<CvCloudAPI*>("g_cvcloud_api"), &cloud);
    EXPECT_NE(library->object<void*>("g_registration_handler"), nullptr);
}

TEST_F(LifecycleTest, UninitKeepsTheCloudAccessObjectAndMayBeCalledAgain) {
    Start();
    library->handler().uninit();
    EXPECT_EQ(library->object<void*>("g_registration_handler"), nullptr);
    EXPECT_EQ(library->object<CvCloudAPI*>("g_cvcloud_api"), &cloud);
    const std::vector<std::string> events = journal().events();
    library->handler().uninit();
    EXPECT_EQ(journal().events(), events);
}

TEST_F(LifecycleTest, InitWithoutCloudAccessObjectFailsBeforeAnythingElse) {
    Start();
    library->handler().uninit();
    commands.clear();
    journal().clear();

    ExpectInitFails(nullptr);
    EXPECT_EQ(library->object<CvCloudAPI*>("g_cvcloud_api"), nullptr);
    EXPECT_TRUE(commands.empty());
    EXPECT_EQ(journal().events(), std::vector<std::string>{text::kNoCloudAccess});
}

TEST_F(LifecycleTest, InitWithoutMemoryFailsBeforeTheCommandsAreListed) {
    calls::fail_next(Call::new_nothrow);
    ExpectInitFails(&cloud);
    EXPECT_TRUE(commands.empty());
    EXPECT_EQ(journal().events(), std::vector<std::string>{text::kNoHandler});
    // The next one succeeds.
    Start();
    RegisterBox(7);
}

TEST_F(LifecycleTest, ShutDownAbandonsNothingThatRuns) {
    Start();
    start_registration(text::kStart, kWithReply, 7);
    Await("send_request connect/login");
    // The request is answered and the next one is out: the daemon may shut down while the worker waits.
    ASSERT_TRUE(cloud.answer_from_own_thread({text::kUserToken}));
    AwaitEndOfRun("send_request connect/box_mgmt");
    library->handler().uninit();
    EXPECT_EQ(journal().count("log 2 thread_function: stopping registration thread..."), 1U);
    EXPECT_TRUE(journal().events({"reply"}).empty());
}

// ---- Memory that was dirty before

TEST_F(LifecycleTest, FailedInitInDirtyMemoryJoinsNoWorker) {
    const std::set<std::string> before = open_descriptors();
    calls::fail_next(Call::pipe2, -1, EMFILE);
    ExpectInitFails(&cloud); // A worker that never started would end the process when it is joined.

    EXPECT_EQ(commands, (std::vector<std::string>{"start_cloud_registration", "retry_cloud_registration"}));
    EXPECT_EQ(journal().events({"log 0", "log 2"}),
              std::vector<std::string>{text::no_pipe("Too many open files")});
    ExpectDescriptorZeroClosed();
    library->handler().uninit();
    EXPECT_EQ(open_descriptors(), before);
    commands.clear();
    Start();
    RegisterBox(7);
}

TEST_F(LifecycleTest, RequestIdIsZeroInDirtyMemory) {
    // Where the registration object keeps the identifier shows when a command brings one.
    constexpr unsigned long long kRequestId = 0x1122334455667788;
    Start();
    const unsigned char* object = library->object<const unsigned char*>("g_registration_handler");
    ASSERT_EQ(object, calls::last_block());
    retry_registration(kWithoutReply, kRequestId);
    std::size_t offset = 0;
    while (std::memcmp(object + offset, &kRequestId, sizeof kRequestId) != 0) {
        offset += sizeof kRequestId;
    }

    library->handler().uninit();
    Start();
    object = library->object<const unsigned char*>("g_registration_handler");
    unsigned long long request_id = kRequestId;
    std::memcpy(&request_id, object + offset, sizeof request_id);
    EXPECT_EQ(request_id, 0U);
}

TEST_F(LifecycleTest, HandlerInDirtyMemoryIsIdleAndOwesNoReply) {
    set_setting("/daemons/cvcloudd/registration/retry_num", 0);
    cloud.answer_inside_next_send({"{}"});
    Start();
    start_registration(text::kStart, kWithoutReply, 7); // Would be refused as busy, or answered at its end.
    AwaitEndOfRun(text::no_more_tries("connect"));
    EXPECT_TRUE(journal().events({"reply"}).empty());
}

// ---- Descriptors that select() cannot watch

TEST_F(LifecycleTest, DescriptorsBeyondTheReachOfSelectFailInit) {
    const FullDescriptorTable full(FD_SETSIZE);
    const std::set<std::string> before = open_descriptors();
    EXPECT_EQ(before.count(std::to_string(FD_SETSIZE - 1)), 1U);
    EXPECT_EQ(before.count("0"), 1U);
    ExpectInitFails(&cloud);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(journal().events({"log 0"}), std::vector<std::string>{text::no_pipe("Too many open files")});
}

TEST_F(LifecycleTest, RunPipeBeyondTheReachOfSelectFailsInit) {
    const FullDescriptorTable full(FD_SETSIZE - 2); // Room for the stop pipe alone.
    const std::set<std::string> before = open_descriptors();
    ExpectInitFails(&cloud);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(journal().events({"log 0"}), std::vector<std::string>{text::no_pipe("Too many open files")});
}

TEST_F(LifecycleTest, LastDescriptorsWithinTheReachOfSelectServe) {
    const FullDescriptorTable full(FD_SETSIZE - 3); // The last read end is the last that fits a set.
    Start();
    RegisterBox(7);
    library->handler().uninit();
}

// ---- Another handler library with the same names

TEST(SecondHandlerTest, LibraryKeepsToItsOwnObjectsBehindAnotherInTheGlobalScope) {
    const std::string path = testing::TempDir() + "other_handler." + std::to_string(getpid()) + ".so";
    std::filesystem::copy_file(HandlerLibrary::tested(), path,
                               std::filesystem::copy_options::overwrite_existing);
    const HandlerLibrary other(path.c_str(), RTLD_GLOBAL);
    std::filesystem::remove(path);
    const HandlerLibrary library(HandlerLibrary::tested(), RTLD_GLOBAL);
    EXPECT_EQ(library.symbol("g_handler_api"), static_cast<void*>(&library.handler()));
    ASSERT_NE(&library.handler(), &other.handler());

    reset_host();
    ScriptedHost cloud;
    std::vector<std::string> commands;
    ASSERT_NE(library.handler().init(&cloud, commands), 0);
    EXPECT_EQ(library.object<void*>("g_cvcloud_api"), static_cast<CvCloudAPI*>(&cloud));
    EXPECT_NE(library.object<void*>("g_registration_handler"), nullptr);
    EXPECT_EQ(other.object<void*>("g_cvcloud_api"), nullptr);
    EXPECT_EQ(other.object<void*>("g_registration_handler"), nullptr);
    cloud.answer_inside_next_send({text::kUserToken});
    cloud.answer_inside_next_send({text::kDeviceId});
    send_command(library.handler(), "start_cloud_registration", text::kStart, kWithReply, 7);
    AwaitEndOfRun("reply 7 " + text::kDone);
    library.handler().uninit();
}

// ---- What is left in the process

TEST(ReloadTest, LibraryLeavesNothingBehindHoweverOftenItIsLoaded) {
    reset_host();
    ScriptedHost cloud;
    const auto load_register_and_unload = [&cloud] {
        journal().clear();
        std::vector<std::string> commands;
        {
            const HandlerLibrary library;
            ASSERT_NE(library.handler().init(&cloud, commands), 0);
            cloud.answer_inside_next_send({text::kUserToken});
            cloud.answer_inside_next_send({text::kDeviceId});
            send_command(library.handler(), "start_cloud_registration", text::kStart, kWithReply, 7);
            AwaitEndOfRun("reply 7 " + text::kDone);
            library.handler().uninit();
        }
        ASSERT_FALSE(HandlerLibrary::in_memory());
    };
    const std::set<std::string> threads_before = threads_after_the_first();
    load_register_and_unload(); // What the C library keeps for the next thread is there from now on.
    const std::set<std::string> descriptors_before = open_descriptors();
    const Mappings mappings_before = mappings();
    constexpr unsigned int kRounds = 1000;
    for (unsigned int round = 0; round < kRounds && !HasFatalFailure(); ++round) {
        load_register_and_unload();
    }
    EXPECT_EQ(open_descriptors(), descriptors_before);
    EXPECT_EQ(mappings().files, mappings_before.files);
    // The allocator takes and gives back memory as it likes, and so do the sanitizers, but not a piece for
    // each round.
    EXPECT_LT(mappings().other, mappings_before.other + kRounds / 2);
    EXPECT_EQ(threads(threads_before.size()), threads_before);
}
