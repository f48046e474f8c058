#include "cvregistration_callbacks.h"

#include <new>

#include "module_test.h"

using namespace cv::registration;
using namespace kit;

namespace {

/// One of the two exchanges, and what is its callback's own.
struct Exchange {
    cvtessel_callback callback;
    std::string first_method;
    std::string title;
    std::string key;
    std::string function;
    std::string result;
    std::string missing;
    std::string invalid;
    RegistrationHandler::StepProgress RegistrationHandler::*progress;
    std::string CvCloudAPI::*identity;
    /// The exchange is closed before its result is reported, or after.
    bool closes_first;
};

const Exchange kConnectExchange = {get_user_token_callback,
                                   "connect",
                                   "connect response:",
                                   "user_token",
                                   "extract_token",
                                   "error_connect",
                                   text::kNoUserToken,
                                   text::kInvalidUserToken,
                                   &RegistrationHandler::login_progress,
                                   &CvCloudAPI::user_token,
                                   true};

// Every failure is named after the login step of the run; all that is not "connect" counts as the other one.
Exchange other_login(const std::string& first_method) {
    Exchange exchange = kConnectExchange;
    exchange.first_method = first_method;
    exchange.title = first_method + " response:";
    exchange.result = "error_get_device_token";
    return exchange;
}

const Exchange kRegisterBoxExchange = {register_box_callback,
                                       "connect",
                                       "register_box response: ",
                                       "device_id",
                                       "register_box_callback",
                                       "error_register_box",
                                       text::kNoDeviceId,
                                       text::kInvalidDeviceId,
                                       &RegistrationHandler::register_progress,
                                       &CvCloudAPI::device_id,
                                       false};

class CallbackTest : public HandlerTest, public testing::WithParamInterface<Exchange> {
protected:
    CallbackTest() {
        cloud.*exchange.identity = "earlier";
        handler.first_method = exchange.first_method;
    }

    /// Delivers the answer of an accepted request, and nothing else is in the journal.
    void deliver(const Answer& answer) {
        handler.error_response = "earlier";
        (handler.*exchange.progress).value = "earlier";
        cloud.send_request("", "", exchange.callback, new (std::nothrow) unsigned long long(7));
        journal().clear();
        ASSERT_TRUE(cloud.answer(answer));
    }

    std::string body(const std::string& value) const {
        return R"({"result": {")" + exchange.key + R"(": )" + value + R"(}, "error": {"message": "m"}})";
    }

    void expect(const Answer& answer, const std::string& value, const std::string& error, bool is_document) {
        SCOPED_TRACE(answer.body);
        (handler.*exchange.progress).succeeded = !error.empty();
        deliver(answer);
        const Events document = {"log_json 2 " + exchange.title + "|" + answer.body, "release document"};
        const Events close = {"delete 8", "release_response"};
        const Events failure = {"log 0 " + exchange.function + ": " + error};
        const std::string descriptor = std::to_string(handler.thread.run_pipe[1]);
        const Events wake_up = {"poll " + descriptor + " for writing, timeout 0",
                                "write " + descriptor + " x",
                                "log 3 run: Wrote run byte on fd " + descriptor + " (1)"};
        EXPECT_EQ(
            events(),
            joined({is_document ? document : Events{}, exchange.closes_first ? close : Events{},
                    error.empty() ? Events{} : failure, wake_up, exchange.closes_first ? Events{} : close}));
        EXPECT_EQ(cloud.*exchange.identity, error.empty() ? value : "earlier");
        EXPECT_EQ((handler.*exchange.progress).value, value);
        EXPECT_EQ((handler.*exchange.progress).succeeded, error.empty());
        EXPECT_EQ(handler.error_response, error);
        EXPECT_EQ(wake_ups(), 1);
        char byte = 0;
        read(handler.thread.run_pipe[0], &byte, 1);
    }

    void expect_success(const std::string& value) {
        expect({body('"' + value + '"')}, value, "", true);
    }

    /// A failure of a document, which carries the exchange's own result.
    void expect_failure(const std::string& document, const std::string& reason) {
        expect({document}, "", text::error_reply(exchange.result, reason), true);
    }

    const Exchange exchange = GetParam();
};

INSTANTIATE_TEST_SUITE_P(Exchanges, CallbackTest,
                         testing::Values(kConnectExchange, other_login("get_device_token"),
                                         other_login("connect2"), other_login(""), kRegisterBoxExchange));

TEST_P(CallbackTest, InstallsTheValueThenReportsIt) {
    expect_success("abc");
    std::string value_at_wake_up;
    calls::before_write([&] { value_at_wake_up = cloud.*exchange.identity; });
    deliver({body(R"("next")")});
    EXPECT_EQ(value_at_wake_up, "next");
}

TEST_P(CallbackTest, LeavesTheOtherIdentityAlone) {
    cloud.user_token = "user token";
    cloud.device_id = "thebox";
    deliver({body(R"("abc")")});
    EXPECT_EQ(cloud.user_token, exchange.closes_first ? "abc" : "user token");
    EXPECT_EQ(cloud.device_id, exchange.closes_first ? "thebox" : "abc");
}

TEST_P(CallbackTest, AcceptsAnEmptyValue) {
    expect_success("");
}

TEST_P(CallbackTest, ScreensTheStatusBeforeTheLength) {
    expect({"", 7}, "", text::status(7), false);
    expect({body(R"("abc")"), 4294967295U}, "", text::status(4294967295U), false);
    expect({"", 0}, "", text::kEmptyResponse, false);
}

TEST_P(CallbackTest, QuotesABodyThatIsNotJson) {
    for (const std::string text : {"nonsense", "{\"result\": "}) {
        expect({text}, "", text::response_not_json(text), false);
    }
}

TEST_P(CallbackTest, RefusesAValueThatIsNoString) {
    for (const char* const value : {"42", "null", "{}"}) {
        expect_failure(body(value), exchange.invalid);
    }
}

TEST_P(CallbackTest, GivesTheCloudsOwnWordsAsTheReason) {
    expect_failure(R"({"error": {"data": {"message": "x"}, "message": "y"}})", "x");
    expect_failure(R"({"error": {"data": {"message": "x"}}})", "x");
    expect_failure(R"({"error": {"data": {}, "message": "y"}})", "y");
    expect_failure(R"({"error": {"message": ""}})", "");
}

TEST_P(CallbackTest, SaysThatTheValueIsMissingWhenTheCloudSaysNothing) {
    for (const char* const document : {R"({})", R"([1])", R"({"result": {"other": "u"}})",
                                       R"({"result": "u"})", R"({"error": {"message": 5}})"}) {
        expect_failure(document, exchange.missing);
    }
}

TEST_P(CallbackTest, LooksForTheSecondMessageOnlyWhenTheFirstIsMissing) {
    expect_failure(R"({"error": {"data": {"message": 5}}})", exchange.missing);
    expect_failure(R"({"error": {"data": {"message": 5}, "message": "y"}})", exchange.missing);
    expect_failure(R"({"error": {"data": {"message": null}, "message": "y"}})", exchange.missing);
}

} // namespace
