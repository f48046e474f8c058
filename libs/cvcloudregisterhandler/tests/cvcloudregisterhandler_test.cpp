#include "cvcloudregisterhandler.h"

#include <cerrno>
#include <cstring>
#include <optional>

#include "module_test.h"

using namespace cv::registration;
using namespace kit;

namespace {

static_assert(sizeof mandatory_cloud_handler == 1);
static_assert(sizeof(HandlerAPI_impl) == sizeof(void*)); // A virtual table and no data members.

constexpr std::int32_t kRequest = kWithReply;

const Events kCommands = {"start_cloud_registration", "retry_cloud_registration"};

/// The exported objects as the library is loaded, before any test called init().
class LoadedLibrary : public testing::Environment {
public:
    void SetUp() override {
        ASSERT_EQ(mandatory_cloud_handler, 1);
        ASSERT_EQ(g_cvcloud_api, nullptr);
        ASSERT_EQ(g_registration_handler, nullptr);
        ASSERT_EQ(get_handler_api(), &g_handler_api);
    }
};

const testing::Environment* const loaded_library = testing::AddGlobalTestEnvironment(new LoadedLibrary);

class EntryPointTest : public ModuleTest {
protected:
    EntryPointTest() {
        g_cvcloud_api = nullptr;
        cloud.partner_id = "p";
    }

    ~EntryPointTest() override {
        api->uninit();
    }

    int init() {
        return api->init(&cloud, commands);
    }

    CvHandlerAPI* const api = get_handler_api();
    Events commands;
    const std::string size_of_handler = std::to_string(sizeof(RegistrationHandler));
};

TEST_F(EntryPointTest, TheHandlerObjectIsAlwaysTheSame) {
    CvHandlerAPI* const first = get_handler_api();
    ASSERT_NE(init(), 0);
    EXPECT_EQ(get_handler_api(), first);
    EXPECT_NE(dynamic_cast<HandlerAPI_impl*>(first), nullptr);
}

TEST_F(EntryPointTest, TheInheritedOperationsDoNothing) {
    Events list = {"one"};
    api->subscribe_for_cmds(list);
    EXPECT_EQ(list, Events{"one"});
    json_t* command = json_string("text");
    api->handle_cmd(command);
    EXPECT_EQ(command->refcount, 1U);
    EXPECT_STREQ(json_string_value(command), "text");
    json_decref(command);
    api->handle_cmd(nullptr);
}

// ---- init

TEST_F(EntryPointTest, InitSubscribesThenReadsTheSettingsThenStartsTheWorker) {
    EXPECT_NE(init(), 0);
    EXPECT_EQ(commands, kCommands);
    EXPECT_EQ(g_cvcloud_api, &cloud);
    ASSERT_NE(g_registration_handler, nullptr);
    EXPECT_TRUE(g_registration_handler->thread.worker.joinable());
    EXPECT_EQ(g_registration_handler->login_progress.tries_left, 4); // The reset saw the settings.
    const Events order = events({"new ", "get_setting", "pipe2"});
    ASSERT_EQ(order.size(), 1U + 6U + 2U);
    EXPECT_EQ(order.front(), "new " + size_of_handler);
    EXPECT_EQ(order[6], "get_setting /daemons/cvcloudd/registration/device_model orlov2");
    EXPECT_EQ(order[7], "pipe2 nonblocking");
}

TEST_F(EntryPointTest, InitAppendsToTheListThatIsThere) {
    commands = {"retry_cloud_registration", "other"};
    EXPECT_NE(init(), 0);
    EXPECT_EQ(commands, (Events{"retry_cloud_registration", "other", "start_cloud_registration",
                                "retry_cloud_registration"}));
}

TEST_F(EntryPointTest, InitRefusesToWorkWithoutACloudAccessObject) {
    g_cvcloud_api = &cloud; // Of an earlier init().
    commands = {"other"};
    EXPECT_EQ(api->init(nullptr, commands), 0);
    EXPECT_EQ(events(), Events{text::kNoCloudAccess});
    EXPECT_EQ(g_cvcloud_api, nullptr);
    EXPECT_EQ(g_registration_handler, nullptr);
    EXPECT_EQ(commands, Events{"other"});
}

TEST_F(EntryPointTest, InitWithoutACloudAccessObjectSaysSoBeforeItEndsWhatIsThere) {
    ASSERT_NE(init(), 0);
    Await("select");
    journal().clear();
    EXPECT_EQ(api->init(nullptr, commands), 0);
    EXPECT_EQ(events().front(), text::kNoCloudAccess);
    EXPECT_EQ(events().back(), "delete " + size_of_handler);
    EXPECT_EQ(g_registration_handler, nullptr);
}

TEST_F(EntryPointTest, InitFailsWithoutMemoryForTheRegistrationObject) {
    RegistrationHandler foreign;
    g_registration_handler = &foreign; // It must not be taken for the object that could not be created.
    calls::fail_next(Call::new_nothrow);
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(events(), (Events{"new " + size_of_handler, text::kNoHandler}));
    EXPECT_EQ(g_cvcloud_api, &cloud);
    EXPECT_EQ(g_registration_handler, nullptr);
    EXPECT_EQ(commands, Events{});
}

TEST_F(EntryPointTest, InitDestroysTheRegistrationObjectWhenTheWorkerCannotBeStarted) {
    set_setting("/daemons/cvcloudd/registration/retry_num", 9);
    calls::fail_next(Call::pipe2, -1, EMFILE);
    // In memory that was dirty before: a worker that was never started must not be joined.
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(events({"log 0", "log 2", "close", "delete"}),
              (Events{text::no_pipe("Too many open files"), "close 0", "close 0", "close 0",
                      "close 0", // uninit() closes the unopened pipes once more.
                      "delete " + size_of_handler}));
    EXPECT_EQ(g_registration_handler, nullptr);
    EXPECT_EQ(g_cvcloud_api, &cloud);
    EXPECT_EQ(commands, kCommands);
    EXPECT_EQ(g_retry_num, 9);
    journal().clear();
    api->uninit();
    EXPECT_EQ(events(), Events{});
}

TEST_F(EntryPointTest, InitLeavesNothingOfTheMemoryThatWasThereBefore) {
    ASSERT_NE(init(), 0);
    EXPECT_EQ(g_registration_handler->request_id, 0U);
    EXPECT_EQ(g_registration_handler->state, RegistrationHandler::LOGIN);
    EXPECT_FALSE(g_registration_handler->reply_requested);
    EXPECT_FALSE(g_registration_handler->registration_in_progress);
    EXPECT_FALSE(g_registration_handler->login_progress.succeeded);
    EXPECT_FALSE(g_registration_handler->register_progress.succeeded);
}

TEST_F(EntryPointTest, AFailedInitCallsTheUninitOfADerivedHandler) {
    class Derived : public HandlerAPI_impl {
    public:
        void uninit() override {
            ++calls;
            HandlerAPI_impl::uninit();
        }
        int calls = 0;
    };
    Derived derived;
    EXPECT_EQ(derived.init(nullptr, commands), 0);
    EXPECT_EQ(derived.calls, 1);
    calls::fail_next(Call::new_nothrow);
    EXPECT_EQ(derived.init(&cloud, commands), 0);
    EXPECT_EQ(derived.calls, 2);
    calls::fail_next(Call::pipe2, -1, EMFILE);
    EXPECT_EQ(derived.init(&cloud, commands), 0);
    EXPECT_EQ(derived.calls, 3);
}

// ---- uninit

TEST_F(EntryPointTest, UninitStopsTheWorkerThenDestroysTheRegistrationObject) {
    ASSERT_NE(init(), 0);
    journal().clear();
    api->uninit();
    const Events order = events({"log 2 ", "close", "delete"});
    ASSERT_EQ(order.size(), 2U + 4U + 1U);
    EXPECT_EQ(events({"log 2 thread_function"}),
              Events{"log 2 thread_function: stopping registration thread..."});
    EXPECT_EQ(order.back(), "delete " + size_of_handler);
    EXPECT_EQ(g_registration_handler, nullptr);
    EXPECT_EQ(g_cvcloud_api, &cloud);

    journal().clear();
    api->uninit();
    EXPECT_EQ(events(), Events{});
}

TEST_F(EntryPointTest, InitAfterUninitReadsTheSettingsAgain) {
    ASSERT_NE(init(), 0);
    api->uninit();
    set_setting("/daemons/cvcloudd/registration/retry_num", 6);
    EXPECT_NE(init(), 0);
    EXPECT_EQ(g_registration_handler->login_progress.tries_left, 7);
}

// ---- handle

class CommandTest : public EntryPointTest {
protected:
    CommandTest() {
        EXPECT_NE(init(), 0);
        Await("select");
        journal().clear();
        cloud.user_token = "earlier token";
        cloud.device_id = "earlier id";
    }

    void handle(std::int32_t type, const std::string& name, unsigned long long request_id,
                const std::string& payload = "") {
        send_command(*api, name, payload, type, request_id);
    }

    void start(const std::string& payload, std::int32_t type = kRequest, unsigned long long request_id = 7) {
        handle(type, "start_cloud_registration", request_id, payload);
    }

    void retry(std::int32_t type = kRequest, unsigned long long request_id = 8) {
        handle(type, "retry_cloud_registration", request_id, "not JSON");
    }

    /// The worker has gone back to sleep `times` times since the journal was cleared.
    static void await_worker(std::size_t times) {
        Await("select", times);
    }

    /// Delivers a command whose requests are answered with these before their sends return, and waits for the
    /// worker.
    template <typename Deliver>
    void answer(const std::vector<Answer>& answers, Deliver deliver) {
        journal().clear();
        for (const Answer& given : answers) {
            cloud.answer_inside_next_send(given);
        }
        deliver();
        await_worker(answers.size() + 1);
    }

    /// What the daemon and the cloud saw.
    static Events outside() {
        return events({"build_request", "send_request", "sleep", "publish", "reply"});
    }

    const std::string received = "log 2 parse_message: Received start_cloud_registration message";
    const std::string partner = R"({"token": "t", "token_type": "partner", "register_mac_address": "0a:1b"})";
    const std::string temporary =
        R"({"token": "t", "token_type": "temporary", "register_mac_address": "0a:1b"})";
    const Events connect = {
        R"(build_request connect {"partner_user_token": "t", "partner_id": "p"} fields=no)",
        "send_request connect/login"};
    const Events get_device_token = {
        "build_request get_device_token (none) fields=yes user_token=t device_id=thebox",
        "send_request connect/login"};
    const Events register_box = {
        R"(build_request register_box {"macs": ["0A:1B"], "box_detected_name": "Corvane Orlo", )"
        R"("setup_type": "STANDALONE", "device_model": "orlov2"} fields=yes user_token=u device_id=thebox)",
        "send_request connect/box_mgmt"};
    const std::string done = text::done("u", "d");
    const Events finish = {publish_event(done)};
    const Answer user_token = {R"({"result": {"user_token": "u"}})"};
    const Answer device_id = {R"({"result": {"device_id": "d"}})"};
    const Answer refused_login = {R"({"error": {"message": "unknown token"}})"};
};

TEST_F(CommandTest, AnUnknownCommandIsAnswered) {
    for (const std::string name :
         {"ping", "", "start_cloud_registration2", "retry_cloud_registratio", "Start_cloud_registration"}) {
        journal().clear();
        handle(kRequest, name, 3);
        const std::string response = text::unexpected(name);
        EXPECT_EQ(events(), (Events{text::refusal(response), "reply 3 " + response}));
    }
}

TEST_F(CommandTest, AnUnknownCommandOfAnotherKindIsDroppedSilently) {
    for (const std::int32_t type : {0, 1, 3, -2}) {
        handle(type, "ping", 3);
    }
    EXPECT_EQ(events(), Events{});
}

// ---- Refused starts

class RefusedStartTest : public CommandTest {
protected:
    /// A refusal is answered and changes nothing.
    void expect_refused(const std::string& payload, const std::string& response, const Events& before) {
        SCOPED_TRACE(payload);
        RegistrationHandler& handler = *g_registration_handler;
        handler.state = RegistrationHandler::FAIL;
        handler.request_id = 99;
        handler.token = "earlier";
        handler.mac = "earlier";
        handler.first_method = "earlier";
        handler.error_response = "earlier";
        handler.login_progress = {-1, true, "earlier"};
        for (const std::int32_t type : {kRequest, 1}) {
            journal().clear();
            start(payload, type);
            Events expected = {received};
            expected.insert(expected.end(), before.begin(), before.end());
            if (type == kRequest) {
                expected.push_back(text::refusal(response));
                expected.push_back("reply 7 " + response);
            }
            EXPECT_EQ(events(), expected);
            EXPECT_EQ(handler.state, RegistrationHandler::FAIL);
            EXPECT_EQ(handler.request_id, 99U);
            EXPECT_EQ(handler.token, "earlier");
            EXPECT_EQ(handler.mac, "earlier");
            EXPECT_EQ(handler.first_method, "earlier");
            EXPECT_EQ(handler.error_response, "earlier");
            EXPECT_EQ(handler.login_progress.tries_left, -1);
            EXPECT_FALSE(handler.reply_requested);
            EXPECT_FALSE(handler.registration_in_progress);
            EXPECT_EQ(cloud.user_token, "earlier token");
            EXPECT_EQ(cloud.device_id, "earlier id");
        }
    }

    void expect_invalid(const std::string& payload, const std::string& response) {
        expect_refused(payload, response, {"release document"});
    }
};

TEST_F(RefusedStartTest, APayloadThatIsNotJsonIsQuoted) {
    for (const std::string payload : {"nonsense", "", R"({"token": )", R"("a text")"}) {
        expect_refused(payload, text::kNotJson, {text::cannot_parse(payload)});
    }
}

TEST_F(RefusedStartTest, APayloadThatIsNotThereIsNotJson) {
    Message message = {};
    message.type = kRequest;
    std::strcpy(message.name, "start_cloud_registration");
    message.request_id = 7;
    api->handle(&message);
    EXPECT_EQ(events({"reply"}), Events{"reply 7 " + text::kNotJson});
}

TEST_F(RefusedStartTest, TheTokenHasToBeAString) {
    expect_invalid(R"({})", text::kNoToken);
    expect_invalid(R"([])", text::kNoToken);
    expect_invalid(R"({"token": 5, "token_type": "partner"})", text::kNoToken);
}

TEST_F(RefusedStartTest, TheTokenTypeHasToBeAString) {
    expect_invalid(R"({"token": ""})", text::kNoTokenType);
    expect_invalid(R"({"token": "t", "token_type": null})", text::kNoTokenType);
}

TEST_F(RefusedStartTest, NeitherMayBeEmpty) {
    expect_invalid(R"({"token": "", "token_type": ""})", text::kEmptyToken);
    expect_invalid(R"({"token": "t", "token_type": ""})", text::kEmptyTokenType);
}

TEST_F(RefusedStartTest, TheTokenTypeIsExact) {
    for (const std::string token_type : {"Temporary", "PARTNER", "partner ", "other"}) {
        expect_invalid(R"({"token": "t", "token_type": ")" + token_type + R"("})", text::kInvalidTokenType);
    }
}

TEST_F(RefusedStartTest, TheBoxHasToHaveAMacAddress) {
    set_mac_address(std::nullopt);
    expect_refused(R"({"token": "t", "token_type": "partner"})", text::kNoMac,
                   {"release document", "get_mac_address eth2"});
}

TEST_F(RefusedStartTest, AnotherRegistrationIsRefusedBeforeAnythingElse) {
    start(partner);
    Await("send_request connect/login");
    await_worker(1);
    for (const std::int32_t type : {kRequest, 1}) {
        for (const char* name : {"start_cloud_registration", "retry_cloud_registration"}) {
            journal().clear();
            handle(type, name, 9, "nonsense");
            EXPECT_EQ(events(), type == kRequest
                                    ? (Events{text::refusal(text::kBusy), "reply 9 " + text::kBusy})
                                    : Events{});
            EXPECT_EQ(g_registration_handler->request_id, 7U);
        }
    }
}

TEST_F(RefusedStartTest, ParametersThatTheRegistrationRefusesAreAnsweredWithAnEmptyText) {
    RegistrationHandler& handler = *g_registration_handler;
    handler.token_types.clear();
    handler.state = RegistrationHandler::FAIL;
    handler.error_response = "earlier";
    start(partner);
    EXPECT_EQ(log_events(), (Events{received, text::unknown_token_type("partner"), text::refusal("")}));
    EXPECT_EQ(events({"reply", "write"}), Events{"reply 7 "});
    // Refused after the reset, with the request recorded.
    EXPECT_EQ(handler.state, RegistrationHandler::LOGIN);
    EXPECT_EQ(handler.error_response, "");
    EXPECT_TRUE(handler.reply_requested);
    EXPECT_EQ(handler.request_id, 7U);
    EXPECT_FALSE(handler.registration_in_progress);
    EXPECT_EQ(cloud.user_token, "earlier token");
    EXPECT_EQ(cloud.device_id, "earlier id");
}

// ---- The MAC address

class MacAddressTest : public CommandTest {
protected:
    std::string mac_of_start(const std::string& members) {
        start(R"({"token": "t", "token_type": "partner")" + members + "}");
        return g_registration_handler->mac;
    }
};

TEST_F(MacAddressTest, IsTheInterfacesWhenTheCommandNamesNone) {
    g_register_interface = "wlan0";
    set_mac_address("0a:fe-zz");
    EXPECT_EQ(mac_of_start(""), "0A:FE-ZZ");
    EXPECT_EQ(events({"get_mac"}), Events{"get_mac_address wlan0"});
}

TEST_F(MacAddressTest, IsTheInterfacesWhenTheCommandsIsEmpty) {
    EXPECT_EQ(mac_of_start(R"(, "register_mac_address": "")"), "0A:1B:2C:3D:4E:5F");
}

TEST_F(MacAddressTest, IsTheInterfacesWhenTheCommandsIsNoString) {
    EXPECT_EQ(mac_of_start(R"(, "register_mac_address": 5)"), "0A:1B:2C:3D:4E:5F");
}

TEST_F(MacAddressTest, OfTheCommandIsTakenInUpperCase) {
    EXPECT_EQ(mac_of_start(R"(, "register_mac_address": "aa:bB:0c-\u00e4", "other": 1)"), "AA:BB:0C-\u00e4");
    EXPECT_EQ(events({"get_mac"}), Events{});
}

// ---- Accepted commands

TEST_F(CommandTest, AStartPreparesEverythingBeforeItWakesTheWorker) {
    RegistrationHandler& handler = *g_registration_handler;
    handler.error_response = "earlier";
    std::string prepared;
    calls::before_write([&] {
        calls::before_write({});
        prepared = cloud.user_token + " " + cloud.device_id + " " + handler.token + " " + handler.mac + " " +
                   handler.first_method + " " + std::to_string(handler.request_id) +
                   (handler.reply_requested ? " reply" : "") +
                   (handler.registration_in_progress ? " in progress" : "") + handler.error_response;
    });
    start(partner);
    EXPECT_EQ(prepared, "t thebox t 0A:1B connect 7 reply in progress");
}

TEST_F(CommandTest, AStartReleasesItsPayloadBeforeItLooksForTheMacAddress) {
    start(R"({"token": "t", "token_type": "partner"})");
    Events order = events({"log 2", "release document", "get_mac_address"});
    ASSERT_GE(order.size(), 4U);
    order.resize(4); // The worker may have released a document of its own by now.
    EXPECT_EQ(order, (Events{received, "release document", "get_mac_address eth2",
                             "log 2 set_input_params: Registration input params: token=t, "
                             "mac=0A:1B:2C:3D:4E:5F, token_type=partner"}));
}

TEST_F(CommandTest, ARegistrationIsAnsweredFromTheCloudsOwnThread) {
    start(partner, kRequest, 0xfedcba9876543210);
    Await("send_request connect/login");
    EXPECT_EQ(cloud.outstanding().at(0).request_id, 0xfedcba9876543210);
    ASSERT_TRUE(cloud.answer_from_own_thread(user_token));
    Await("send_request connect/box_mgmt");
    EXPECT_EQ(cloud.outstanding().at(0).request_id, 0xfedcba9876543210);
    ASSERT_TRUE(cloud.answer_from_own_thread(device_id));
    await_worker(3);
    EXPECT_EQ(outside(), joined({connect, register_box, finish, {"reply 18364758544493064720 " + done}}));
    EXPECT_EQ(cloud.user_token, "u");
    EXPECT_EQ(cloud.device_id, "d");
    EXPECT_FALSE(g_registration_handler->registration_in_progress);
}

TEST_F(CommandTest, AFinishedRegistrationMakesRoomForTheNext) {
    for (const std::string& payload : {partner, temporary, partner}) {
        answer({user_token, device_id}, [&] { start(payload); });
        EXPECT_EQ(outside(), joined({payload == partner ? connect : get_device_token,
                                     register_box,
                                     finish,
                                     {"reply 7 " + done}}));
        answer({user_token, device_id}, [&] { start(payload, 0); });
        EXPECT_EQ(outside(), joined({payload == partner ? connect : get_device_token, register_box, finish}));
    }
}

// ---- Failed registrations and their resumption

class FailedRunTest : public CommandTest {
protected:
    /// A registration for which the cloud refuses the login as often as it is asked.
    void fail_login(std::int32_t type) {
        answer({refused_login, refused_login, refused_login, refused_login}, [&] { start(partner, type); });
    }

    const std::string error = text::error_reply("error_connect", "unknown token");
    const Events pause = {"sleep 1"};
};

TEST_F(FailedRunTest, AnswersTheLastErrorWhenTheTriesAreUsedUp) {
    fail_login(kRequest);
    EXPECT_EQ(outside(),
              joined({connect, pause, connect, pause, connect, pause, connect, {"reply 7 " + error}}));
    EXPECT_FALSE(g_registration_handler->registration_in_progress);
}

TEST_F(FailedRunTest, IsResumedAtTheLoginWithAFreshBudget) {
    fail_login(kRequest);
    answer({refused_login, user_token, device_id}, [&] { retry(); });
    EXPECT_EQ(outside(), joined({connect, pause, connect, register_box, finish, {"reply 8 " + done}}));
}

TEST_F(FailedRunTest, IsAnsweredWhenTheStartOrTheRetryAsked) {
    fail_login(kRequest);
    answer({user_token, device_id}, [&] { retry(1, 8); });
    EXPECT_EQ(events({"reply"}), Events{"reply 8 " + done});
    fail_login(1);
    EXPECT_EQ(events({"reply"}), Events{});
    answer({user_token, device_id}, [&] { retry(); });
    EXPECT_EQ(events({"reply"}), Events{"reply 8 " + done});
}

TEST_F(FailedRunTest, IsForgottenByTheNextStart) {
    fail_login(kRequest);
    answer({user_token, device_id}, [&] { start(partner, 1, 9); });
    EXPECT_EQ(events({"publish", "reply"}), finish);
}

TEST_F(FailedRunTest, IsResumedAtTheBoxRegistration) {
    const Answer status = {"", 5};
    answer({user_token, status, status, status, status}, [&] { start(temporary); });
    EXPECT_EQ(outside().back(), "reply 7 " + text::status(5));
    EXPECT_EQ(cloud.device_id, "thebox");
    answer({device_id}, [&] { retry(); });
    EXPECT_EQ(outside(), joined({register_box, finish, {"reply 8 " + done}}));
}

TEST_F(FailedRunTest, IsResumedAtTheEndWhenOnlyPublishingFailed) {
    cloud.fail_next_publish();
    answer({user_token, device_id}, [&] { start(partner); });
    EXPECT_EQ(outside().back(), "reply 7 " + text::kNotPublished);
    answer({}, [&] { retry(); });
    EXPECT_EQ(outside(), joined({finish, {"reply 8 " + done}}));
}

// ---- Retries of nothing

TEST_F(CommandTest, ARetryOfNothingIsRecordedThenRefused) {
    retry();
    const std::string response = text::kNotFailed;
    // Its payload is no JSON, and nobody says so.
    EXPECT_EQ(events(), (Events{text::refusal(response), "reply 8 " + response}));
    EXPECT_TRUE(g_registration_handler->reply_requested);
    EXPECT_EQ(g_registration_handler->request_id, 8U);
    journal().clear();
    retry(1, 9);
    EXPECT_EQ(events(), Events{});
    EXPECT_TRUE(g_registration_handler->reply_requested);
    EXPECT_EQ(g_registration_handler->request_id, 9U);
}

} // namespace
