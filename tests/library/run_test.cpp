// Registrations through the built library, driven as the daemon drives it and compared with the oracle step
// by step.

#include <optional>
#include <string>
#include <vector>

#include "compared_host.h"
#include "library_test.h"

using namespace kit;
using Operation = ScriptedHost::Operation;

namespace {

const std::string kPartner =
    R"({"token": "T", "token_type": "partner", "register_mac_address": "0a:1b:2c:3d:4e:5f"})";
const std::string kTemporary = R"({"token": "T", "token_type": "temporary"})";

class RunTest : public testing::Test {
protected:
    RunTest() {
        calls::reset(false);
    }

    void Start(const Settings& settings = {}) {
        host.emplace(library.handler(), settings);
    }

    void Command(const std::string& name, const std::string& payload, int type = kWithReply) {
        EXPECT_EQ(host->command(type, name, ++request_id, payload), "") << name << " " << payload;
    }
    void StartRegistration(const std::string& payload = kPartner, int type = kWithReply) {
        Command(text::kStartCommand, payload, type);
    }
    void Retry(int type = kWithReply) {
        Command(text::kRetryCommand, "not JSON", type);
    }

    void Answer(const std::vector<kit::Answer>& answers) {
        for (const kit::Answer& answer : answers) {
            EXPECT_EQ(host->respond(answer), "") << answer.body;
        }
    }

    /// The next operations of this kind fail.
    void Fail(Operation failing, int times) {
        host->succeeds = [failing, times](Operation operation) mutable {
            return operation != failing || times-- <= 0;
        };
    }

    /// Ends a test: so many registrations have succeeded, and none is in progress.
    void ExpectSuccesses(int count) const {
        EXPECT_EQ(host->expected().successes(), count);
        EXPECT_FALSE(host->expected().snapshot().in_progress);
    }

    const kit::Answer user_token = {text::kUserToken};
    const kit::Answer device_id = {text::kDeviceId};
    const kit::Answer refused = {R"({"error": {"message": "no"}})"};
    HandlerLibrary library;
    std::optional<ComparedHost> host;
    unsigned long long request_id = 0x1122334455667788;
};

} // namespace

TEST_F(RunTest, BothTokenTypesWithAndWithoutAWishForAReply) {
    Start();
    for (const std::string& payload : {kPartner, kTemporary}) {
        for (const int type : {kWithReply, kWithoutReply}) {
            StartRegistration(payload, type);
            Answer({user_token, device_id});
        }
    }
    ExpectSuccesses(4);
}

TEST_F(RunTest, RequestsCarryTheRequestId) {
    Start();
    StartRegistration();
    EXPECT_EQ(host->outstanding().at(0).request_id, request_id);
    Answer({user_token});
    EXPECT_EQ(host->outstanding().at(0).request_id, request_id);
}

TEST_F(RunTest, EveryRefusalIsAnsweredAtOnce) {
    Settings without_mac;
    without_mac.interface_mac = "";
    Start(without_mac);
    for (const int type : {kWithReply, kWithoutReply}) {
        Command("ping", "", type);
        Retry(type);
        for (const char* const payload :
             {"", R"({"token": "T")", R"({"token_type": "partner"})",
              R"({"token": 5, "token_type": "partner"})", R"({"token": "T"})",
              R"({"token": "", "token_type": ""})", R"({"token": "T", "token_type": ""})",
              R"({"token": "T", "token_type": "Temporary"})", R"({"token": "T", "token_type": "partner"})"}) {
            StartRegistration(payload, type);
            EXPECT_FALSE(host->accepted());
        }
    }
}

TEST_F(RunTest, CommandsAreRefusedWhileARegistrationRuns) {
    Start();
    StartRegistration();
    StartRegistration(kTemporary);
    Retry();
    Retry(kWithoutReply);
    Answer({user_token, device_id});
    ExpectSuccesses(1);
}

TEST_F(RunTest, FailedStepsAreTriedUntilTheBudgetIsSpentAndThenResumed) {
    Settings settings;
    settings.retry_num = 2;
    settings.retry_interval = 5;
    Start(settings);
    for (const std::string& payload : {kPartner, kTemporary}) {
        StartRegistration(payload);
        Answer({{text::kUserToken, 504}, {""}, {"<html>"}});
        Retry();
        Answer({refused, {"{}"}, {R"({"result": {"user_token": 42}})"}});
        Retry();
        Answer({user_token, refused, {"{}"}, {R"({"result": {"device_id": 42}})"}});
        Retry();
        Answer({device_id});
    }
    ExpectSuccesses(2);
}

TEST_F(RunTest, RequestsThatCannotBeSentSpendTheSameBudget) {
    Start();
    Fail(Operation::send, 2);
    StartRegistration();
    Fail(Operation::build, 2);
    Retry();
    Fail(Operation::send, 1);
    Retry();
    Answer({user_token, device_id});
    ExpectSuccesses(1);
}

TEST_F(RunTest, ResultThatCannotBePublishedIsPublishedByARetryWithoutTheCloud) {
    Start();
    Fail(Operation::publish, 1);
    StartRegistration();
    Answer({user_token, device_id});
    Retry();
    ExpectSuccesses(1);
}

TEST_F(RunTest, WishForAReplySurvivesAFailedRegistration) {
    Settings single_try;
    single_try.retry_num = 0;
    Start(single_try);
    StartRegistration();
    Answer({refused});
    Retry(kWithoutReply);
    Answer({user_token, device_id});
    // A success ends the wish.
    StartRegistration(kPartner, kWithoutReply);
    Answer({refused});
    ExpectSuccesses(1);
}

TEST_F(RunTest, NegativeNumberOfRetriesMakesNoTry) {
    Settings no_try;
    no_try.retry_num = -1;
    Start(no_try);
    StartRegistration(); // Answered with an empty text: no step left one.
    ExpectSuccesses(0);
}

// ---- Settings and log

TEST_F(RunTest, SettingsAreReadOnceForEachInit) {
    Start();
    set_setting("/daemons/cvcloudd/registration/box_name", "");
    StartRegistration();
    Answer({user_token, device_id}); // The request is as the oracle's settings say.
    host.reset();
    Settings changed;
    changed.box_name = "";
    Start(changed);
    StartRegistration();
    Answer({user_token, device_id});
    ExpectSuccesses(1);
}

// ---- What the oracle leaves to the journal

class JournalTest : public LibraryTest {};

TEST_F(JournalTest, RequestWithoutMemoryForItsIdentityIsNotSent) {
    set_setting("/daemons/cvcloudd/registration/retry_num", 0);
    Start();
    calls::fail_next(Call::new_nothrow);
    start_registration(text::kStart, kWithReply, 7);
    AwaitEndOfRun(reply_event(7, text::kNoMemory));
    EXPECT_TRUE(journal().events({"send_request"}).empty());
}

TEST_F(JournalTest, AnswersMayComeBeforeTheSendReturns) {
    Start();
    cloud.answer_inside_next_send({text::kUserToken});
    cloud.answer_inside_next_send({text::kDeviceId});
    start_registration(text::kStart, kWithReply, 7);
    AwaitEndOfRun(reply_event(7, text::kDone));
    EXPECT_EQ(journal().events({"send_request", "publish", "reply"}),
              (std::vector<std::string>{"send_request connect/login", "send_request connect/box_mgmt",
                                        publish_event(text::kDone), reply_event(7, text::kDone)}));
}

TEST_F(JournalTest, LogLinesNameTheirSource) {
    Start();
    start_registration("", kWithReply, 7);
    const LogLine line = log_lines().back();
    EXPECT_EQ(line.destination, 0);
    EXPECT_EQ(line.level, 1);
    EXPECT_EQ(line.file, "cvcloudregisterhandler.cpp");
    EXPECT_GT(line.line, 0);
    EXPECT_EQ(line.function, "handle");
}
