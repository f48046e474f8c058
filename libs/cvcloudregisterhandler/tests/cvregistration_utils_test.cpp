#include "cvregistration_utils.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <utility>

#include "cvregistration_callbacks.h"
#include "cvregistration_constants.h"
#include "cvregistration_log.h"
#include "module_test.h"

using namespace cv::registration;
using namespace kit;

namespace {

using SettingsTest = ModuleTest;
using ErrorReplyTest = ModuleTest;
using ReplyTest = ModuleTest;
using SendRequestTest = ModuleTest;
using LogTest = ModuleTest;

/// The settings as the program began, before any test loaded them.
class SettingsBeforeLoading : public testing::Environment {
public:
    void SetUp() override {
        ASSERT_EQ(g_retry_num, 0);
        ASSERT_EQ(g_retry_interval, 0);
        for (const std::string* text : {&g_register_interface, &g_setup_type, &g_box_name, &g_device_model}) {
            ASSERT_EQ(*text, "");
        }
    }
};

const testing::Environment* const settings_before_loading =
    testing::AddGlobalTestEnvironment(new SettingsBeforeLoading);

// ---- Settings

TEST_F(SettingsTest, AnEmptyStoreGivesTheDefaultsInOrder) {
    init_global_settings();
    EXPECT_EQ(g_retry_num, 3);
    EXPECT_EQ(g_retry_interval, 1);
    EXPECT_EQ(g_register_interface, "eth2");
    EXPECT_EQ(g_setup_type, "STANDALONE");
    EXPECT_EQ(g_box_name, "Corvane Orlo");
    EXPECT_EQ(g_device_model, "orlov2");
    EXPECT_EQ(events(), (Events{
                            "get_setting /daemons/cvcloudd/registration/retry_num 3",
                            "get_setting /daemons/cvcloudd/registration/retry_interval 1",
                            "get_setting /daemons/cvcloudd/registration/register_interface eth2",
                            "get_setting /daemons/cvcloudd/registration/setup_type STANDALONE",
                            "get_setting /daemons/cvcloudd/registration/box_name Corvane Orlo",
                            "get_setting /daemons/cvcloudd/registration/device_model orlov2",
                            "log 3 init_global_settings: g_retry_num=3, g_retry_interval=1,, "
                            "g_register_interface=eth2",
                        }));
}

TEST_F(SettingsTest, StoredValuesAreKeptAsTheyAre) {
    set_setting("/daemons/cvcloudd/registration/retry_num", -1);
    set_setting("/daemons/cvcloudd/registration/retry_interval", 0);
    set_setting("/daemons/cvcloudd/registration/register_interface", "wlan0");
    set_setting("/daemons/cvcloudd/registration/setup_type", "CLUSTER");
    set_setting("/daemons/cvcloudd/registration/box_name", "");
    set_setting("/daemons/cvcloudd/registration/device_model", "x1");
    init_global_settings();
    EXPECT_EQ(g_retry_num, -1);
    EXPECT_EQ(g_retry_interval, 0);
    EXPECT_EQ(g_register_interface, "wlan0");
    EXPECT_EQ(g_setup_type, "CLUSTER");
    EXPECT_EQ(g_box_name, "");
    EXPECT_EQ(g_device_model, "x1");
    EXPECT_EQ(log_events(), Events{"log 3 init_global_settings: g_retry_num=-1, g_retry_interval=0,, "
                                   "g_register_interface=wlan0"});
}

// ---- Error replies

TEST_F(ErrorReplyTest, NamesEachIdentifier) {
    const std::pair<ErrorId, const char*> names[] = {
        {error_invalid_arguments, "error_invalid_arguments"},
        {error_in_progress, "error_in_progress"},
        {error_internal, "error_internal"},
        {error_cvnc, "error_cvnc"},
        {error_connect, "error_connect"},
        {error_get_device_token, "error_get_device_token"},
        {error_register_box, "error_register_box"},
        {error_other, "error_other"},
    };
    for (const auto& [id, name] : names) {
        EXPECT_EQ(build_error_response(id, "the reason"), text::error_reply(name, "the reason"));
    }
    EXPECT_EQ(build_error_response(error_other, ""), R"({"result": "error_other", "reason": ""})");
}

TEST_F(ErrorReplyTest, CallsAnUnknownIdentifierError) {
    for (const int value : {-1, 8, 1000}) {
        EXPECT_EQ(build_error_response(static_cast<ErrorId>(value), "r"),
                  R"({"result": "error", "reason": "r"})");
    }
}

TEST_F(ErrorReplyTest, DoesNotEscapeTheReason) {
    EXPECT_EQ(build_error_response(error_other, "say \"no\"\\\n"),
              "{\"result\": \"error_other\", \"reason\": \"say \"no\"\\\n\"}");
}

// ---- Direct replies

TEST_F(ReplyTest, IsAZeroedRecordAroundTheTextItself) {
    const std::string text("twenty bytes of\0text", 20);
    send_cvex_response(0x0123456789abcdef, text);

    Message expected;
    std::memset(&expected, 0, sizeof expected);
    expected.name[0] = '0';
    expected.request_id = 0x0123456789abcdef;
    expected.payload_len = 20;
    expected.payload = text.data();
    ASSERT_EQ(cloud.replies().size(), 1U);
    const Reply reply = cloud.replies().front();
    EXPECT_EQ(reply.record.type, 0);
    EXPECT_STREQ(reply.record.name, "0");
    EXPECT_EQ(reply.record.payload, text.data());
    EXPECT_EQ(std::memcmp(&reply.record, &expected, sizeof expected), 0);
    EXPECT_EQ(reply.payload, text);
}

TEST_F(ReplyTest, ReturnsWhatTheDaemonReturned) {
    cloud.return_from_next_reply(-7);
    EXPECT_EQ(send_cvex_response(1, "text"), -7);
    EXPECT_EQ(send_cvex_response(1, "text"), 0);
    EXPECT_EQ(events(), (Events{"reply 1 text", "reply 1 text"})); // Nothing is logged or tried again.
}

// ---- Requests

TEST_F(SendRequestTest, BuildsTheTextThenTheBlockThenSends) {
    std::string error = "earlier";
    EXPECT_TRUE(send_request_to_cloud("service", "method", "{}, and more", 2, 7, register_box_callback, error,
                                      false));
    EXPECT_EQ(error, "earlier");
    EXPECT_EQ(events(),
              (Events{
                  "build_request method {} fields=no",
                  "log 3 send_request_to_cloud: service: service, full request: method {} fields=no",
                  "new 8",
                  "send_request service",
                  "free request text",
              }));
    ASSERT_EQ(cloud.outstanding().size(), 1U);
    EXPECT_EQ(cloud.outstanding()[0].text, "method {} fields=no");
    EXPECT_EQ(cloud.outstanding()[0].callback, &register_box_callback);
    EXPECT_EQ(cloud.outstanding()[0].request_id, 7U);
}

TEST_F(SendRequestTest, AsksForTheConnectionFields) {
    cloud.user_token = "u";
    cloud.device_id = "d";
    std::string error;
    EXPECT_TRUE(
        send_request_to_cloud("s", "m", "", 0, 0xffffffffffffffff, get_user_token_callback, error, true));
    EXPECT_EQ(events({"build_request"}),
              Events{"build_request m (none) fields=yes user_token=u device_id=d"});
    ASSERT_EQ(cloud.outstanding().size(), 1U);
    EXPECT_EQ(cloud.outstanding()[0].callback, &get_user_token_callback);
    EXPECT_EQ(cloud.outstanding()[0].request_id, 0xffffffffffffffff);
}

TEST_F(SendRequestTest, NeitherAllocatesNorSendsWithoutAText) {
    cloud.fail_next_build();
    std::string error;
    EXPECT_FALSE(
        send_request_to_cloud("s", "get_device_token", "", 0, 7, get_user_token_callback, error, false));
    EXPECT_EQ(error, text::not_built("get_device_token"));
    EXPECT_EQ(events(), (Events{
                            "build_request get_device_token (none) fields=no",
                            text::kCannotAddFields,
                        }));
}

TEST_F(SendRequestTest, SendsNothingWithoutABlock) {
    calls::fail_next(Call::new_nothrow);
    std::string error;
    EXPECT_FALSE(send_request_to_cloud("s", "m", "p", 1, 7, get_user_token_callback, error, false));
    EXPECT_EQ(error, text::kNoMemory);
    EXPECT_EQ(events(), (Events{
                            "build_request m p fields=no",
                            "log 3 send_request_to_cloud: service: s, full request: m p fields=no",
                            "new 8",
                            "free request text",
                        }));
}

TEST_F(SendRequestTest, FreesTheTextThenTheBlockWhenTheCloudClientRefuses) {
    for (const int result : {1, -1}) {
        journal().clear();
        cloud.refuse_next_send(1, result);
        std::string error;
        EXPECT_FALSE(send_request_to_cloud("s", "m", "p", 1, 7, get_user_token_callback, error, false));
        EXPECT_EQ(error, text::kNotSent);
        EXPECT_EQ(events(), (Events{
                                "build_request m p fields=no",
                                "log 3 send_request_to_cloud: service: s, full request: m p fields=no",
                                "new 8",
                                "send_request s",
                                "free request text",
                                "delete 8",
                            }));
        EXPECT_TRUE(cloud.outstanding().empty());
    }
}

// ---- The wake-up byte

class WriteByteTest : public ModuleTest {
protected:
    WriteByteTest() {
        EXPECT_EQ(pipe2(ends, O_NONBLOCK), 0);
        journal().clear();
    }

    ~WriteByteTest() override {
        close(ends[0]);
        close(ends[1]);
    }

    std::string writable() const {
        return "poll " + std::to_string(ends[1]) + " for writing, timeout 0";
    }

    std::string write_x() const {
        return "write " + std::to_string(ends[1]) + " x";
    }

    int ends[2] = {-1, -1};
};

TEST_F(WriteByteTest, WritesAnXWhenThePipeIsWritable) {
    EXPECT_EQ(write_byte(ends[1]), 1);
    EXPECT_EQ(events(), (Events{writable(), write_x()}));
    char received[2] = {};
    EXPECT_EQ(read(ends[0], received, sizeof received), 1);
    EXPECT_EQ(received[0], 'x');
}

TEST_F(WriteByteTest, WritesNothingWhenPollSaysNo) {
    for (const int no : {0, -1}) {
        journal().clear();
        calls::fail_next(Call::poll, no);
        EXPECT_EQ(write_byte(ends[1]), -1);
        EXPECT_EQ(events(), Events{writable()});
    }
}

TEST_F(WriteByteTest, ReturnsTheResultOfTheWrite) {
    for (const int result : {0, -1}) {
        calls::fail_next(Call::write, result);
        EXPECT_EQ(write_byte(ends[1]), result);
    }
}

TEST_F(WriteByteTest, DropsTheWakeUpWhenThePipeIsFull) {
    fcntl(ends[1], F_SETPIPE_SZ, 4096); // Only to fill it sooner.
    int written = 0;
    while (write_byte(ends[1]) == 1) {
        ++written;
    }
    EXPECT_GT(written, 0);
    journal().clear();
    EXPECT_EQ(write_byte(ends[1]), -1);
    EXPECT_EQ(events(), Events{writable()});
    int bytes = 0;
    EXPECT_EQ(ioctl(ends[0], FIONREAD, &bytes), 0);
    EXPECT_EQ(bytes, written);
}

// ---- The log macro

TEST_F(LogTest, BeginsEachLineWithItsPlace) {
    CV_LOG(2, "%s is %d", "answer", 42);
    const int line = __LINE__ - 1;
    ASSERT_EQ(log_lines().size(), 1U);
    EXPECT_EQ(log_lines()[0].destination, 0);
    EXPECT_EQ(log_lines()[0].level, 2);
    EXPECT_EQ(log_lines()[0].file, "cvregistration_utils_test.cpp");
    EXPECT_EQ(log_lines()[0].line, line);
    EXPECT_EQ(log_lines()[0].function, "TestBody");
    EXPECT_EQ(log_lines()[0].message, "answer is 42");
}

TEST_F(LogTest, BuildsALineOnlyWhenItsLevelIsAdmitted) {
    for (int admitted = -1; admitted <= 3; ++admitted) {
        cv::log::current_level = admitted;
        for (int level = 0; level <= 3; ++level) {
            bool evaluated = false;
            CV_LOG(level, "%d", static_cast<int>(evaluated = true));
            EXPECT_EQ(evaluated, level <= admitted) << level << " at " << admitted;
        }
    }
    EXPECT_EQ(log_lines().size(), 0U + 1U + 2U + 3U + 4U);
}

TEST_F(LogTest, AssemblesTheLineInABufferOf512Characters) {
    CV_LOG(0, "%s", std::string(600, 'a').c_str());
    ASSERT_EQ(log_lines().size(), 1U);
    const LogLine line = log_lines()[0];
    const std::string prefix =
        "[" + line.file + ":" + std::to_string(line.line) + "][" + line.function + "()]: ";
    EXPECT_EQ(prefix.length() + line.message.length(), 511U);
}

} // namespace
