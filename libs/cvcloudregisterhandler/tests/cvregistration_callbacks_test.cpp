#include "cvregistration_callbacks.h"

#include <new>

#include "cvregistration_constants.h"
#include "module_test.h"

using namespace cv::registration;
using namespace kit;

namespace {

/// A response that holds no wanted value, and what the registration learns of it.
struct Failure {
    Answer answer;
    std::string result;
    std::string reason;
    bool is_document = true;
};

class CallbackTest : public HandlerTest {
protected:
    /// Delivers the answer of an accepted request, and nothing else is in the journal.
    void deliver(cvtessel_callback callback, const Answer& answer) {
        cloud.send_request("", "", callback, new (std::nothrow) unsigned long long(7));
        journal().clear();
        ASSERT_TRUE(cloud.answer(answer));
    }

    /// What the wake-up leaves in the journal.
    Events wake_up() const {
        const std::string descriptor = std::to_string(handler.thread.run_pipe[1]);
        return {
            "poll " + descriptor + " for writing, timeout 0",
            "write " + descriptor + " x",
            "log 3 run: Wrote run byte on fd " + descriptor + " (1)",
        };
    }

    static Events joined(const std::vector<Events>& parts) {
        Events all;
        for (const Events& part : parts) {
            all.insert(all.end(), part.begin(), part.end());
        }
        return all;
    }

    void expect_reported(const RegistrationHandler::StepProgress& progress, const std::string& value,
                         bool succeeded, const std::string& error) const {
        EXPECT_EQ(progress.value, value);
        EXPECT_EQ(progress.succeeded, succeeded);
        EXPECT_EQ(handler.error_response, error);
        EXPECT_EQ(wake_ups(), 1);
    }
};

// ---- The login step

class LoginCallbackTest : public CallbackTest {
protected:
    LoginCallbackTest() {
        cloud.user_token = "input token";
        cloud.device_id = "thebox";
        handler.first_method = kConnectMethod;
        handler.error_response = "earlier";
        handler.login_progress.value = "earlier";
    }

    void expect_failure(const Failure& failure) {
        SCOPED_TRACE(failure.answer.body);
        handler.login_progress.succeeded = true;
        deliver(get_user_token_callback, failure.answer);
        const std::string error = error_reply(failure.result, failure.reason);
        Events screening;
        if (failure.is_document) {
            screening = {"log_json 2 " + handler.first_method + " response:|" + failure.answer.body,
                         "release document"};
        }
        EXPECT_EQ(events(), joined({screening,
                                    {"delete 8", "release_response", "log 0 extract_token: " + error},
                                    wake_up()}));
        EXPECT_EQ(cloud.user_token, "input token");
        expect_reported(handler.login_progress, "", false, error);
        char byte = 0;
        read(handler.thread.run_pipe[0], &byte, 1);
    }
};

TEST_F(LoginCallbackTest, ClosesTheExchangeThenReportsTheToken) {
    deliver(get_user_token_callback, {R"({"result": {"user_token": "u"}})"});
    EXPECT_EQ(events(), joined({{R"(log_json 2 connect response:|{"result": {"user_token": "u"}})",
                                 "release document", "delete 8", "release_response"},
                                wake_up()}));
    EXPECT_EQ(cloud.user_token, "u");
    EXPECT_EQ(cloud.device_id, "thebox");
    expect_reported(handler.login_progress, "u", true, "");
}

TEST_F(LoginCallbackTest, InstallsTheTokenBeforeItReportsIt) {
    std::string token_at_wake_up;
    calls::before_write([&] { token_at_wake_up = cloud.user_token; });
    deliver(get_user_token_callback, {R"({"result": {"user_token": "u"}})"});
    EXPECT_EQ(token_at_wake_up, "u");
}

TEST_F(LoginCallbackTest, AcceptsAnEmptyToken) {
    deliver(get_user_token_callback, {R"({"result": {"user_token": ""}, "error": {"message": "m"}})"});
    EXPECT_EQ(cloud.user_token, "");
    expect_reported(handler.login_progress, "", true, "");
}

TEST_F(LoginCallbackTest, TitlesTheDocumentWithTheLoginStep) {
    handler.first_method = kGetDeviceTokenMethod;
    deliver(get_user_token_callback, {R"({"result": {"user_token": "u"}})"});
    EXPECT_EQ(events({"log_json"}),
              Events{R"(log_json 2 get_device_token response:|{"result": {"user_token": "u"}})"});
}

TEST_F(LoginCallbackTest, ScreensTheStatusBeforeTheLength) {
    expect_failure({{"", 7}, "error_cvnc", "Response status 7", false});
    expect_failure({{R"({"result": {"user_token": "u"}})", 4294967295U},
                    "error_cvnc",
                    "Response status 4294967295",
                    false});
    expect_failure({{"", 0}, "error_cvnc", "Empty response", false});
}

TEST_F(LoginCallbackTest, QuotesABodyThatIsNotJson) {
    expect_failure({{"nonsense"}, "error_cvnc", "Response is not JSON: nonsense", false});
    expect_failure({{"{\"result\": "}, "error_cvnc", "Response is not JSON: {\"result\": ", false});
}

TEST_F(LoginCallbackTest, RefusesATokenThatIsNoString) {
    const std::string reason = "invalid user_token in response";
    expect_failure(
        {{R"({"result": {"user_token": 42}, "error": {"message": "m"}})"}, "error_connect", reason});
    expect_failure({{R"({"result": {"user_token": null}})"}, "error_connect", reason});
    expect_failure({{R"({"result": {"user_token": {}}})"}, "error_connect", reason});
}

TEST_F(LoginCallbackTest, GivesTheCloudsOwnWordsAsTheReason) {
    expect_failure({{R"({"error": {"data": {"message": "x"}, "message": "y"}})"}, "error_connect", "x"});
    expect_failure({{R"({"error": {"data": {"message": "x"}}})"}, "error_connect", "x"});
    expect_failure({{R"({"error": {"data": {}, "message": "y"}})"}, "error_connect", "y"});
    expect_failure({{R"({"error": {"message": ""}})"}, "error_connect", ""});
}

TEST_F(LoginCallbackTest, SaysThatThereIsNoTokenWhenTheCloudSaysNothing) {
    const std::string reason = "user_token not found in response";
    expect_failure({{R"({})"}, "error_connect", reason});
    expect_failure({{R"([1])"}, "error_connect", reason});
    expect_failure({{R"({"result": {"token": "u"}})"}, "error_connect", reason});
    expect_failure({{R"({"result": "u"})"}, "error_connect", reason});
    expect_failure({{R"({"error": {"message": 5}})"}, "error_connect", reason});
}

TEST_F(LoginCallbackTest, LooksForTheSecondMessageOnlyWhenTheFirstIsMissing) {
    const std::string reason = "user_token not found in response";
    expect_failure({{R"({"error": {"data": {"message": 5}}})"}, "error_connect", reason});
    expect_failure({{R"({"error": {"data": {"message": 5}, "message": "y"}})"}, "error_connect", reason});
    expect_failure({{R"({"error": {"data": {"message": null}, "message": "y"}})"}, "error_connect", reason});
}

TEST_F(LoginCallbackTest, NamesEveryFailureAfterTheLoginStepOfTheRun) {
    for (const char* method : {kGetDeviceTokenMethod, "connect2", ""}) {
        handler.first_method = method;
        expect_failure({{R"({"result": {"user_token": 42}})"},
                        "error_get_device_token",
                        "invalid user_token in response"});
        expect_failure({{R"({"error": {"message": "y"}})"}, "error_get_device_token", "y"});
        expect_failure({{R"({})"}, "error_get_device_token", "user_token not found in response"});
        expect_failure({{"x", 1}, "error_cvnc", "Response status 1", false});
    }
}

// ---- The box registration step

class RegisterBoxCallbackTest : public CallbackTest {
protected:
    RegisterBoxCallbackTest() {
        cloud.user_token = "user token";
        cloud.device_id = "thebox";
        handler.error_response = "earlier";
        handler.register_progress.value = "earlier";
    }

    void expect_failure(const Failure& failure) {
        SCOPED_TRACE(failure.answer.body);
        handler.register_progress.succeeded = true;
        deliver(register_box_callback, failure.answer);
        const std::string error = error_reply(failure.result, failure.reason);
        Events screening;
        if (failure.is_document) {
            screening = {"log_json 2 register_box response: |" + failure.answer.body, "release document"};
        }
        EXPECT_EQ(events(), joined({screening,
                                    {"log 0 register_box_callback: " + error},
                                    wake_up(),
                                    {"delete 8", "release_response"}}));
        EXPECT_EQ(cloud.device_id, "thebox");
        expect_reported(handler.register_progress, "", false, error);
        char byte = 0;
        read(handler.thread.run_pipe[0], &byte, 1);
    }
};

TEST_F(RegisterBoxCallbackTest, ReportsTheDeviceIdThenClosesTheExchange) {
    deliver(register_box_callback, {R"({"result": {"device_id": "abc", "extra": 1}})"});
    EXPECT_EQ(events(),
              joined({{R"(log_json 2 register_box response: |{"result": {"device_id": "abc", "extra": 1}})",
                       "release document"},
                      wake_up(),
                      {"delete 8", "release_response"}}));
    EXPECT_EQ(cloud.device_id, "abc");
    EXPECT_EQ(cloud.user_token, "user token");
    expect_reported(handler.register_progress, "abc", true, "");
}

TEST_F(RegisterBoxCallbackTest, InstallsTheDeviceIdBeforeItReportsIt) {
    std::string id_at_wake_up;
    calls::before_write([&] { id_at_wake_up = cloud.device_id; });
    deliver(register_box_callback, {R"({"result": {"device_id": "abc"}})"});
    EXPECT_EQ(id_at_wake_up, "abc");
}

TEST_F(RegisterBoxCallbackTest, AcceptsAnEmptyDeviceId) {
    deliver(register_box_callback, {R"({"result": {"device_id": ""}})"});
    EXPECT_EQ(cloud.device_id, "");
    expect_reported(handler.register_progress, "", true, "");
}

TEST_F(RegisterBoxCallbackTest, ScreensTheStatusBeforeTheLength) {
    expect_failure({{"", 7}, "error_cvnc", "Response status 7", false});
    expect_failure(
        {{R"({"result": {"device_id": "abc"}})", 503}, "error_cvnc", "Response status 503", false});
    expect_failure({{"", 0}, "error_cvnc", "Empty response", false});
}

TEST_F(RegisterBoxCallbackTest, QuotesABodyThatIsNotJson) {
    expect_failure({{"nonsense"}, "error_cvnc", "Response is not JSON: nonsense", false});
}

TEST_F(RegisterBoxCallbackTest, RefusesADeviceIdThatIsNoString) {
    const std::string reason = "invalid device_id in response";
    expect_failure(
        {{R"({"result": {"device_id": 5}, "error": {"message": "m"}})"}, "error_register_box", reason});
    expect_failure({{R"({"result": {"device_id": null}})"}, "error_register_box", reason});
}

TEST_F(RegisterBoxCallbackTest, GivesTheCloudsOwnWordsAsTheReason) {
    expect_failure(
        {{R"({"error": {"data": {"message": "M1"}, "message": "M2"}})"}, "error_register_box", "M1"});
    expect_failure({{R"({"error": {"message": "M2"}})"}, "error_register_box", "M2"});
}

TEST_F(RegisterBoxCallbackTest, SaysThatThereIsNoDeviceIdWhenTheCloudSaysNothing) {
    const std::string reason = "device_id not found";
    expect_failure({{R"({})"}, "error_register_box", reason});
    expect_failure({{R"({"result": {"id": "abc"}})"}, "error_register_box", reason});
    expect_failure({{R"({"error": {"message": 5}})"}, "error_register_box", reason});
    expect_failure(
        {{R"({"error": {"data": {"message": 5}, "message": "M2"}})"}, "error_register_box", reason});
}

} // namespace
