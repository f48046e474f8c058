// Registrations through the built library, driven as the daemon drives it.

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "library_test.h"

using namespace kit;

namespace {

const std::string kPartnerStart =
    R"({"token": "T", "token_type": "partner", "register_mac_address": "0a:1b:2c:3d:4e:5f"})";
const std::string kTemporaryStart = R"({"token": "T", "token_type": "temporary"})";

const std::string kLogin = "connect/login";
const std::string kBoxManagement = "connect/box_mgmt";

const std::string kConnect =
    R"(build_request connect {"partner_user_token": "T", "partner_id": "acme"} fields=no)";
const std::string kGetDeviceToken =
    "build_request get_device_token (none) fields=yes user_token=T device_id=thebox";
const std::string kRegisterBox =
    R"(build_request register_box {"macs": ["0A:1B:2C:3D:4E:5F"], "box_detected_name": "Corvane Orlo", )"
    R"("setup_type": "STANDALONE", "device_model": "orlov2"} fields=yes user_token=U device_id=thebox)";
const std::string kSendLogin = "send_request connect/login";
const std::string kSendRegisterBox = "send_request connect/box_mgmt";
const std::string kPublish = "publish cloud_registration_done " + text::kDone;

std::string refusal_of_the_cloud(const std::string& message) {
    return R"({"error": {"message": ")" + message + R"("}})";
}

class RunTest : public LibraryTest {
protected:
    void SetSettings(int retry_num, int retry_interval) {
        set_setting("/daemons/cvcloudd/registration/retry_num", retry_num);
        set_setting("/daemons/cvcloudd/registration/retry_interval", retry_interval);
    }
};

} // namespace

TEST_F(RunTest, PartnerTokenIsExchangedAndTheBoxRegistered) {
    Start();
    start_registration(kPartnerStart, kWithReply, 0x1122334455667788);
    Answer(kLogin, text::kUserToken);
    Answer(kBoxManagement, text::kDeviceId);

    const std::string reply = "reply " + std::to_string(0x1122334455667788) + " " + text::kDone;
    AwaitEndOfRun(reply);
    ExpectTraffic({kConnect, kSendLogin, kRegisterBox, kSendRegisterBox, kPublish, reply});
    EXPECT_EQ(journal().count("release_response"), 2U);
    EXPECT_EQ(cloud.user_token, "U");
    EXPECT_EQ(cloud.device_id, "D");
}

TEST_F(RunTest, TemporaryTokenIsExchangedAndTheBoxRegisteredUnderItsInterface) {
    Start();
    start_registration(kTemporaryStart, kWithReply, 7);
    Answer(kLogin, text::kUserToken);
    Answer(kBoxManagement, text::kDeviceId);

    AwaitEndOfRun("reply 7 " + text::kDone);
    ExpectTraffic(
        {kGetDeviceToken, kSendLogin, kRegisterBox, kSendRegisterBox, kPublish, "reply 7 " + text::kDone});
    EXPECT_EQ(journal().count("get_mac_address eth2"), 1U);
}

TEST_F(RunTest, ReplyRecordIsZeroButForItsFields) {
    Start();
    start_registration(kPartnerStart, kWithReply, 0x1122334455667788);
    Answer(kLogin, text::kUserToken);
    Answer(kBoxManagement, text::kDeviceId);
    AwaitEndOfRun("reply " + std::to_string(0x1122334455667788) + " " + text::kDone);

    ASSERT_EQ(cloud.replies().size(), 1U);
    const Message reply = cloud.replies().front().record;
    Message expected = {};
    expected.name[0] = '0';
    EXPECT_EQ(reply.type, 0);
    EXPECT_EQ(std::memcmp(reply.name, expected.name, sizeof expected.name), 0);
    EXPECT_EQ(reply.request_id, 0x1122334455667788U);
    EXPECT_EQ(reply.reserved, 0U);
    EXPECT_EQ(reply.payload_len, text::kDone.length());
}

TEST_F(RunTest, RequestsCarryTheRequestId) {
    Start();
    start_registration(kPartnerStart, kWithReply, 0x1122334455667788);
    Await(kSendLogin);
    EXPECT_EQ(cloud.outstanding().at(0).request_id, 0x1122334455667788U);
    Answer(kLogin, text::kUserToken);
    Await(kSendRegisterBox);
    EXPECT_EQ(cloud.outstanding().at(0).request_id, 0x1122334455667788U);
}

TEST_F(RunTest, WithoutAWishForAReplyTheResultIsOnlyPublished) {
    Start();
    start_registration(kPartnerStart, kWithoutReply, 7);
    Answer(kLogin, text::kUserToken);
    Answer(kBoxManagement, text::kDeviceId);

    AwaitEndOfRun(kPublish);
    ExpectTraffic({kConnect, kSendLogin, kRegisterBox, kSendRegisterBox, kPublish});
}

TEST_F(RunTest, AnswersMayComeBeforeTheSendReturns) {
    Start();
    cloud.answer_inside_next_send({text::kUserToken});
    cloud.answer_inside_next_send({text::kDeviceId});
    start_registration(kPartnerStart, kWithReply, 7);

    AwaitEndOfRun("reply 7 " + text::kDone);
    ExpectTraffic({kConnect, kSendLogin, kRegisterBox, kSendRegisterBox, kPublish, "reply 7 " + text::kDone});
}

TEST_F(RunTest, OneRegistrationFollowsAnother) {
    Start();
    start_registration(kPartnerStart, kWithReply, 7);
    Answer(kLogin, text::kUserToken);
    Answer(kBoxManagement, text::kDeviceId);
    AwaitEndOfRun("reply 7 " + text::kDone);
    start_registration(kTemporaryStart, kWithReply, 8);
    Answer(kLogin, text::kUserToken);
    Answer(kBoxManagement, text::kDeviceId);

    AwaitEndOfRun("reply 8 " + text::kDone);
    ExpectTraffic({kConnect, kSendLogin, kRegisterBox, kSendRegisterBox, kPublish, "reply 7 " + text::kDone,
                   kGetDeviceToken, kSendLogin, kRegisterBox, kSendRegisterBox, kPublish,
                   "reply 8 " + text::kDone});
}

// ---- Refusals

TEST_F(RunTest, EveryRefusalIsAnsweredAtOnce) {
    Start();
    set_mac_address(std::nullopt);
    const struct {
        const char* command;
        const char* payload;
        std::string reply;
    } refusals[] = {
        {"ping", "", text::error_reply("error_other", "Unexpected message: ping")},
        {"retry_cloud_registration", "not JSON",
         text::error_reply("error_other", "Retry called, but current state is not FAIL")},
        {"start_cloud_registration", "",
         text::error_reply("error_invalid_arguments", "Could not parse input into a JSON")},
        {"start_cloud_registration", R"({"token": "T")",
         text::error_reply("error_invalid_arguments", "Could not parse input into a JSON")},
        {"start_cloud_registration", R"({"token_type": "partner"})",
         text::error_reply("error_invalid_arguments", "token not found")},
        {"start_cloud_registration", R"({"token": 5, "token_type": "partner"})",
         text::error_reply("error_invalid_arguments", "token not found")},
        {"start_cloud_registration", R"({"token": "T"})",
         text::error_reply("error_invalid_arguments", "token_type not found")},
        {"start_cloud_registration", R"({"token": "", "token_type": ""})",
         text::error_reply("error_invalid_arguments", "empty token")},
        {"start_cloud_registration", R"({"token": "T", "token_type": ""})",
         text::error_reply("error_invalid_arguments", "empty token_type")},
        {"start_cloud_registration", R"({"token": "T", "token_type": "Temporary"})",
         text::error_reply("error_invalid_arguments", "invalid token_type")},
        {"start_cloud_registration", R"({"token": "T", "token_type": "partner"})",
         text::error_reply("error_internal", "Could not determine MAC address")},
    };
    unsigned long long request_id = 0;
    std::vector<std::string> replies;
    for (const auto& refusal : refusals) {
        send_command(library->handler(), refusal.command, refusal.payload, kWithReply, ++request_id);
        replies.push_back("reply " + std::to_string(request_id) + " " + refusal.reply);
        send_command(library->handler(), refusal.command, refusal.payload, kWithoutReply, 99);
    }
    ExpectTraffic(replies);
}

TEST_F(RunTest, CommandsAreRefusedWhileARegistrationRuns) {
    const std::string busy = text::error_reply("error_in_progress", "Another registration process is in progress");
    Start();
    start_registration(kPartnerStart, kWithReply, 7);
    start_registration(kTemporaryStart, kWithReply, 8);
    retry_registration(kWithReply, 9);
    retry_registration(kWithoutReply, 10);
    // The refused commands left no trace in the one that runs.
    Answer(kLogin, text::kUserToken);
    Answer(kBoxManagement, text::kDeviceId);
    AwaitEndOfRun("reply 7 " + text::kDone);

    EXPECT_EQ(journal().events({"reply"}),
              (std::vector<std::string>{"reply 8 " + busy, "reply 9 " + busy, "reply 7 " + text::kDone}));
    EXPECT_EQ(journal().events({"build_request"}),
              (std::vector<std::string>{kConnect, kRegisterBox}));
}

// ---- Failures and their resumption

TEST_F(RunTest, LoginThatTheCloudRefusesIsTriedUntilTheBudgetIsSpentAndThenResumed) {
    SetSettings(2, 5);
    const std::string failed = "reply 7 " + text::error_reply("error_connect", "third");
    Start();
    start_registration(kPartnerStart, kWithReply, 7);
    Answer(kLogin, refusal_of_the_cloud("first"));
    Answer(kLogin, refusal_of_the_cloud("second"));
    Answer(kLogin, refusal_of_the_cloud("third"));
    AwaitEndOfRun(failed);
    retry_registration(kWithReply, 8);
    Answer(kLogin, text::kUserToken);
    Answer(kBoxManagement, text::kDeviceId);

    AwaitEndOfRun("reply 8 " + text::kDone);
    ExpectTraffic({kConnect, kSendLogin, "sleep 5", kConnect, kSendLogin, "sleep 5", kConnect, kSendLogin,
                   failed, kConnect, kSendLogin, kRegisterBox, kSendRegisterBox, kPublish,
                   "reply 8 " + text::kDone});
}

TEST_F(RunTest, DeviceTokenFailuresCarryTheirOwnResult) {
    SetSettings(0, 5);
    const std::string failed =
        "reply 7 " + text::error_reply("error_get_device_token", "user_token not found in response");
    Start();
    start_registration(kTemporaryStart, kWithReply, 7);
    Answer(kLogin, "{}");

    AwaitEndOfRun(failed);
    ExpectTraffic({kGetDeviceToken, kSendLogin, failed});
    EXPECT_EQ(cloud.user_token, "T");
}

TEST_F(RunTest, BoxRegistrationThatTheCloudRefusesIsResumedWithTheUserTokenThatIsThere) {
    SetSettings(1, 3);
    const std::string failed = "reply 7 " + text::error_reply("error_register_box", "second");
    Start();
    start_registration(kTemporaryStart, kWithReply, 7);
    Answer(kLogin, text::kUserToken);
    Answer(kBoxManagement, refusal_of_the_cloud("first"));
    Answer(kBoxManagement, refusal_of_the_cloud("second"));
    AwaitEndOfRun(failed);
    EXPECT_EQ(cloud.device_id, "thebox");
    retry_registration(kWithReply, 8);
    Answer(kBoxManagement, text::kDeviceId);

    AwaitEndOfRun("reply 8 " + text::kDone);
    ExpectTraffic({kGetDeviceToken, kSendLogin, kRegisterBox, kSendRegisterBox, "sleep 3", kRegisterBox,
                   kSendRegisterBox, failed, kRegisterBox, kSendRegisterBox, kPublish, "reply 8 " + text::kDone});
}

TEST_F(RunTest, RequestsThatCannotBeSentSpendTheSameBudget) {
    SetSettings(2, 1);
    const std::string failed = "reply 7 " + text::error_reply("error_cvnc", "cvnc_ask error");
    const std::string failed_again =
        "reply 8 " + text::error_reply("error_internal", "Failed to build cloud request for connect");
    Start();
    cloud.refuse_next_send(3);
    start_registration(kPartnerStart, kWithReply, 7);
    AwaitEndOfRun(failed);
    cloud.fail_next_build(3);
    retry_registration(kWithReply, 8);

    AwaitEndOfRun(failed_again);
    ExpectTraffic({kConnect, kSendLogin, "sleep 1", kConnect, kSendLogin, "sleep 1", kConnect, kSendLogin,
                   failed, kConnect, "sleep 1", kConnect, "sleep 1", kConnect, failed_again});
}

TEST_F(RunTest, RequestWithoutMemoryForItsIdentityIsNotSent) {
    SetSettings(0, 1);
    const std::string failed = "reply 7 " + text::error_reply("error_internal", "memory alloc error");
    Start();
    calls::fail_next(Call::new_nothrow);
    start_registration(kPartnerStart, kWithReply, 7);

    AwaitEndOfRun(failed);
    ExpectTraffic({kConnect, failed});
}

TEST_F(RunTest, UnusableResponsesFailTheirStep) {
    SetSettings(3, 1);
    Start();
    start_registration(kPartnerStart, kWithReply, 7);
    Await(kSendLogin);
    ASSERT_TRUE(cloud.answer_from_own_thread({text::kUserToken, 504}));
    Await(kSendLogin, 2);
    ASSERT_TRUE(cloud.answer_from_own_thread({""}));
    Await(kSendLogin, 3);
    ASSERT_TRUE(cloud.answer_from_own_thread({"<html>"}));
    Await(kSendLogin, 4);
    ASSERT_TRUE(cloud.answer_from_own_thread({R"({"result": {"user_token": 42}})"}));

    AwaitEndOfRun("reply 7 " + text::error_reply("error_connect", "invalid user_token in response"));
    EXPECT_EQ(journal().events({"log 0 extract_token"}),
              (std::vector<std::string>{
                  "log 0 extract_token: " + text::error_reply("error_cvnc", "Response status 504"),
                  "log 0 extract_token: " + text::error_reply("error_cvnc", "Empty response"),
                  "log 0 extract_token: " + text::error_reply("error_cvnc", "Response is not JSON: <html>"),
                  "log 0 extract_token: " + text::error_reply("error_connect", "invalid user_token in response")}));
    EXPECT_EQ(journal().count("release_response"), 4U);
}

TEST_F(RunTest, ResultThatCannotBePublishedIsPublishedByARetryWithoutTheCloud) {
    const std::string failed = "reply 7 " + text::error_reply("error_internal", "cvex error");
    Start();
    cloud.fail_next_publish();
    start_registration(kPartnerStart, kWithReply, 7);
    Answer(kLogin, text::kUserToken);
    Answer(kBoxManagement, text::kDeviceId);
    AwaitEndOfRun(failed);
    retry_registration(kWithReply, 8);

    AwaitEndOfRun("reply 8 " + text::kDone);
    ExpectTraffic({kConnect, kSendLogin, kRegisterBox, kSendRegisterBox, kPublish, failed, kPublish,
                   "reply 8 " + text::kDone});
}

TEST_F(RunTest, WishForAReplySurvivesAFailedRegistration) {
    SetSettings(0, 1);
    const std::string failed = "reply 7 " + text::error_reply("error_connect", "no");
    Start();
    start_registration(kPartnerStart, kWithReply, 7);
    Answer(kLogin, refusal_of_the_cloud("no"));
    AwaitEndOfRun(failed);
    retry_registration(kWithoutReply, 8);
    Answer(kLogin, text::kUserToken);
    Answer(kBoxManagement, text::kDeviceId);
    AwaitEndOfRun("reply 8 " + text::kDone);
    // A success ends the wish.
    start_registration(kPartnerStart, kWithoutReply, 9);
    Answer(kLogin, refusal_of_the_cloud("no"));

    AwaitEndOfRun("log 1 do_work: No more tries left. connect failed", 2);
    EXPECT_EQ(journal().events({"reply"}), (std::vector<std::string>{failed, "reply 8 " + text::kDone}));
}

TEST_F(RunTest, NegativeNumberOfRetriesMakesNoTry) {
    SetSettings(-1, 1);
    Start();
    start_registration(kPartnerStart, kWithReply, 7);

    AwaitEndOfRun("reply 7 "); // No step left an error text.
    ExpectTraffic({"reply 7 "});
}

// ---- Settings and log

TEST_F(RunTest, SettingsAreReadOnceForEachInit) {
    const std::vector<std::string> reads = {
        "get_setting /daemons/cvcloudd/registration/retry_num 3",
        "get_setting /daemons/cvcloudd/registration/retry_interval 1",
        "get_setting /daemons/cvcloudd/registration/register_interface eth2",
        "get_setting /daemons/cvcloudd/registration/setup_type STANDALONE",
        "get_setting /daemons/cvcloudd/registration/box_name Corvane Orlo",
        "get_setting /daemons/cvcloudd/registration/device_model orlov2",
    };
    Start();
    EXPECT_EQ(journal().events({"get_setting"}), reads);

    // A change counts from the next init().
    set_setting("/daemons/cvcloudd/registration/box_name", "");
    start_registration(kPartnerStart, kWithReply, 7);
    Answer(kLogin, text::kUserToken);
    Answer(kBoxManagement, text::kDeviceId);
    AwaitEndOfRun("reply 7 " + text::kDone);
    EXPECT_EQ(journal().count(kRegisterBox), 1U);
    EXPECT_EQ(journal().events({"get_setting"}), reads);

    library->handler().uninit();
    Start();
    start_registration(kPartnerStart, kWithReply, 8);
    Answer(kLogin, text::kUserToken);
    Answer(kBoxManagement, text::kDeviceId);
    AwaitEndOfRun("reply 8 " + text::kDone);
    EXPECT_EQ(
        journal().events({"build_request register_box"}).back(),
        R"(build_request register_box {"macs": ["0A:1B:2C:3D:4E:5F"], "box_detected_name": "", )"
        R"("setup_type": "STANDALONE", "device_model": "orlov2"} fields=yes user_token=U device_id=thebox)");
}

TEST_F(RunTest, LogLinesNameTheirSource) {
    Start();
    start_registration("", kWithReply, 7);
    const LogLine line = log_lines().back();
    EXPECT_EQ(line.destination, 0);
    EXPECT_EQ(line.level, 1);
    EXPECT_EQ(line.file, "cvcloudregisterhandler.cpp");
    EXPECT_GT(line.line, 0);
    EXPECT_EQ(line.function, "handle");
    EXPECT_EQ(line.message, "Could not handle request. Sending response: \"" +
                                text::error_reply("error_invalid_arguments", "Could not parse input into a JSON") +
                                "\"");
}
