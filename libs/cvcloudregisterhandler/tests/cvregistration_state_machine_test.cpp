#include "cvregistration_state_machine.h"

#include <unistd.h>

#include <cerrno>
#include <deque>
#include <functional>
#include <limits>

#include "cvregistration_callbacks.h"
#include "cvregistration_constants.h"
#include "module_test.h"

using namespace cv::registration;
using namespace kit;

namespace {

using State = RegistrationHandler::State;

static_assert(RegistrationHandler::LOGIN == 0);
static_assert(RegistrationHandler::REGISTER_DEVICE == 1);
static_assert(RegistrationHandler::FINISH == 4);
static_assert(RegistrationHandler::FAIL == 5);

/// Notes whether a registration is in progress when a reply is sent.
class ObservingCloud : public ScriptedHost {
public:
    int send_response(const Message* reply) override {
        in_progress_at_reply = g_registration_handler->registration_in_progress;
        return ScriptedHost::send_response(reply);
    }

    bool in_progress_at_reply = false;
};

class StateMachineTest : public HandlerTest {
protected:
    StateMachineTest() {
        handler.request_id = 7;
        cloud.partner_id = "p";
    }

    /// A registration that has been handed over and not been woken yet.
    void prepare(const std::string& token_type = "partner") {
        ASSERT_TRUE(handler.set_input_params({"t", token_type, "0A:1B"}));
        handler.registration_in_progress = true;
        journal().clear();
    }

    /// As prepare(), with a login step whose tries are recorded and end like this, the last of them ever
    /// again.
    void prepare_tries(std::deque<bool> results) {
        prepare();
        handler.states[RegistrationHandler::LOGIN].action = [results]() mutable {
            journal().record("try");
            const bool result = results.front();
            if (results.size() > 1) {
                results.pop_front();
            }
            return result;
        };
    }

    void finish_login(const std::string& user_token = "u") {
        handler.login_progress.succeeded = true;
        handler.login_progress.value = user_token;
    }

    void finish_registration(const std::string& device_id = "d") {
        handler.register_progress.succeeded = true;
        handler.register_progress.value = device_id;
    }

    void expect_failed(const std::string& error) const {
        EXPECT_EQ(handler.state, RegistrationHandler::FAIL);
        EXPECT_EQ(handler.error_response, error);
        EXPECT_FALSE(handler.registration_in_progress);
    }

    void expect_reset() const {
        EXPECT_EQ(handler.state, RegistrationHandler::LOGIN);
        for (const RegistrationHandler::StepProgress* progress :
             {&handler.login_progress, &handler.register_progress}) {
            EXPECT_FALSE(progress->succeeded);
            EXPECT_EQ(progress->tries_left, g_retry_num + 1);
            EXPECT_EQ(progress->value, "");
        }
        EXPECT_EQ(handler.first_method, "");
        EXPECT_EQ(handler.token, "");
        EXPECT_EQ(handler.mac, "");
        EXPECT_EQ(handler.error_response, "");
        EXPECT_FALSE(handler.reply_requested);
        EXPECT_FALSE(handler.registration_in_progress);
    }
};

// ---- Construction, init and reset

TEST(Construction, BuildsTheTablesAndNothingElse) {
    RegistrationHandler handler;
    ASSERT_EQ(handler.token_types.size(), 2U);
    EXPECT_EQ(handler.token_types.at("partner").name, "connect");
    EXPECT_EQ(handler.token_types.at("temporary").name, "get_device_token");
    ASSERT_EQ(handler.states.size(), 1U);
    const auto& step = handler.states.at(RegistrationHandler::REGISTER_DEVICE);
    EXPECT_EQ(step.name, "register_box");
    EXPECT_EQ(step.progress, &handler.register_progress);
    EXPECT_EQ(step.next_state, RegistrationHandler::FINISH);
    for (const std::string* text :
         {&handler.first_method, &handler.token, &handler.mac, &handler.error_response}) {
        EXPECT_EQ(*text, "");
    }
    EXPECT_FALSE(handler.thread.started);
}

TEST(Construction, LeavesNothingUnset) {
    const RegistrationHandler handler;
    EXPECT_EQ(handler.state, RegistrationHandler::LOGIN);
    EXPECT_FALSE(handler.registration_in_progress);
    for (const RegistrationHandler::StepProgress* progress :
         {&handler.login_progress, &handler.register_progress}) {
        EXPECT_EQ(progress->tries_left, 0);
        EXPECT_FALSE(progress->succeeded);
        EXPECT_EQ(progress->value, "");
    }
    EXPECT_EQ(handler.request_id, 0U);
    EXPECT_FALSE(handler.reply_requested);
    const RegistrationHandler::StateHandler step;
    EXPECT_EQ(step.progress, nullptr);
    EXPECT_FALSE(step.action);
    EXPECT_EQ(step.next_state, RegistrationHandler::LOGIN);
}

TEST_F(ModuleTest, InitStartsTheWorkerThenResets) {
    RegistrationHandler handler;
    handler.error_response = "earlier";
    handler.reply_requested = true;
    EXPECT_TRUE(handler.init());
    EXPECT_TRUE(handler.thread.started);
    EXPECT_EQ(handler.error_response, "");
    EXPECT_FALSE(handler.reply_requested);
    EXPECT_EQ(handler.login_progress.tries_left, 4);
    handler.uninit();
    EXPECT_FALSE(handler.thread.worker.joinable());
}

TEST_F(ModuleTest, InitDoesNothingElseWhenTheWorkerCannotBeStarted) {
    RegistrationHandler handler;
    handler.error_response = "earlier";
    handler.registration_in_progress = true;
    calls::fail_next(Call::pipe2, -1, EMFILE);
    EXPECT_FALSE(handler.init());
    EXPECT_EQ(handler.error_response, "earlier");
    EXPECT_TRUE(handler.registration_in_progress);
}

TEST_F(StateMachineTest, ResetClearsTheRegistrationButNeitherTheRequestNorTheTable) {
    prepare();
    finish_login();
    finish_registration();
    handler.state = RegistrationHandler::FAIL;
    handler.login_progress.tries_left = -3;
    handler.register_progress.tries_left = 9;
    handler.error_response = "earlier";
    handler.reply_requested = true;
    g_retry_num = 5;
    handler.reset();
    expect_reset();
    EXPECT_EQ(handler.request_id, 7U);
    EXPECT_EQ(handler.states.count(RegistrationHandler::LOGIN), 1U);
    EXPECT_EQ(wake_ups(), 0);
}

// ---- Parameters and token types

TEST_F(StateMachineTest, TheLoginStepFollowsTheLatestTokenType) {
    for (const auto& [type, method] : {std::pair("partner", "connect"), {"temporary", "get_device_token"}}) {
        journal().clear();
        EXPECT_TRUE(handler.set_input_params({std::string("secret of ") + type, type, "0A:1B"}));
        EXPECT_EQ(handler.token, std::string("secret of ") + type);
        EXPECT_EQ(handler.mac, "0A:1B");
        EXPECT_EQ(handler.first_method, method);
        const auto& step = handler.states.at(RegistrationHandler::LOGIN);
        EXPECT_EQ(step.name, method);
        EXPECT_EQ(step.progress, &handler.login_progress);
        EXPECT_EQ(step.next_state, RegistrationHandler::REGISTER_DEVICE);
        EXPECT_EQ(log_events(),
                  Events{std::string("log 2 set_input_params: Registration input params: token=secret of ") +
                         type + ", mac=0A:1B, token_type=" + type});
        EXPECT_TRUE(step.action());
        EXPECT_EQ(events({std::string("build_request ") + method + " "}).size(), 1U);
    }
}

TEST_F(StateMachineTest, AnUnknownTokenTypeIsABugThatLeavesTheLoginStep) {
    prepare("partner");
    for (const std::string token_type : {"Partner", "temporary ", ""}) {
        journal().clear();
        EXPECT_FALSE(handler.set_input_params({"new " + token_type, token_type, "mac " + token_type}));
        EXPECT_EQ(events(), Events{text::unknown_token_type(token_type)});
        EXPECT_EQ(handler.token, "new " + token_type);
        EXPECT_EQ(handler.mac, "mac " + token_type);
        EXPECT_EQ(handler.first_method, "connect");
        EXPECT_EQ(handler.states.at(RegistrationHandler::LOGIN).name, "connect");
    }
}

TEST_F(StateMachineTest, AnUnknownTokenTypeAtFirstLeavesNoLoginStep) {
    EXPECT_FALSE(handler.set_input_params({"t", "unknown", "m"}));
    EXPECT_EQ(handler.states.count(RegistrationHandler::LOGIN), 0U);
    EXPECT_EQ(handler.first_method, "");
}

// ---- Start

TEST_F(StateMachineTest, StartMarksTheRegistrationThenWakesTheWorker) {
    prepare();
    handler.registration_in_progress = false;
    handler.error_response = "earlier";
    bool in_progress_at_wake_up = false;
    calls::before_write([&] { in_progress_at_wake_up = handler.registration_in_progress; });
    EXPECT_EQ(handler.start_cloud_registration(), 1);
    EXPECT_TRUE(in_progress_at_wake_up);
    EXPECT_TRUE(handler.registration_in_progress);
    EXPECT_EQ(wake_ups(), 1);
    EXPECT_EQ(handler.token, "t"); // It does not reset.
    EXPECT_EQ(handler.error_response, "earlier");
}

TEST_F(StateMachineTest, StartTellsThatTheWakeUpWasDropped) {
    prepare();
    calls::fail_next(Call::poll, 0);
    EXPECT_EQ(handler.start_cloud_registration(), -1);
    EXPECT_TRUE(handler.registration_in_progress);
}

// ---- Retry

class RetryTest : public StateMachineTest {
protected:
    RetryTest() {
        prepare();
        handler.registration_in_progress = false;
        handler.state = RegistrationHandler::FAIL;
        handler.error_response = "earlier";
        handler.login_progress.tries_left = 0;
        handler.register_progress.tries_left = 0;
        handler.reply_requested = true;
    }

    void expect_resumed_at(State state) {
        bool in_progress_at_wake_up = false;
        calls::before_write([&] { in_progress_at_wake_up = handler.registration_in_progress; });
        std::string error = "untouched";
        EXPECT_TRUE(handler.retry_cloud_registration(error));
        calls::before_write({});
        EXPECT_EQ(error, "untouched");
        EXPECT_EQ(handler.state, state);
        EXPECT_EQ(handler.error_response, "");
        EXPECT_TRUE(handler.reply_requested);
        EXPECT_TRUE(in_progress_at_wake_up);
        EXPECT_TRUE(handler.registration_in_progress);
        EXPECT_EQ(wake_ups(), 1);
    }
};

TEST_F(RetryTest, ResumesAtTheLoginWithAFreshBudget) {
    handler.login_progress.value = "kept";
    finish_registration();
    expect_resumed_at(RegistrationHandler::LOGIN);
    EXPECT_EQ(handler.login_progress.tries_left, g_retry_num + 1);
    EXPECT_EQ(handler.login_progress.value, "kept");
    EXPECT_FALSE(handler.login_progress.succeeded);
    EXPECT_EQ(handler.register_progress.tries_left, 0);
}

TEST_F(RetryTest, ResumesAtTheBoxRegistrationWithTheTokenThatIsThere) {
    finish_login();
    handler.register_progress.value = "kept";
    expect_resumed_at(RegistrationHandler::REGISTER_DEVICE);
    EXPECT_EQ(handler.register_progress.tries_left, g_retry_num + 1);
    EXPECT_EQ(handler.register_progress.value, "kept");
    EXPECT_FALSE(handler.register_progress.succeeded);
    EXPECT_EQ(handler.login_progress.tries_left, 0);
    EXPECT_EQ(handler.login_progress.value, "u");
    EXPECT_TRUE(handler.login_progress.succeeded);
}

TEST_F(RetryTest, GoesStraightToTheEndWhenBothStepsHaveSucceeded) {
    finish_login();
    finish_registration();
    expect_resumed_at(RegistrationHandler::FINISH);
    EXPECT_EQ(handler.login_progress.tries_left, 0);
    EXPECT_EQ(handler.register_progress.tries_left, 0);
    handler.run_state_machine();
    EXPECT_EQ(events({"build_request", "publish"}), Events{publish_event(text::done("u", "d"))});
}

TEST_F(RetryTest, IsAcceptedAlsoWhenTheWakeUpIsDropped) {
    calls::fail_next(Call::poll, 0);
    std::string error;
    EXPECT_TRUE(handler.retry_cloud_registration(error));
    EXPECT_TRUE(handler.registration_in_progress);
}

TEST_F(RetryTest, IsRefusedInEveryOtherStateAndChangesNothing) {
    for (const State state :
         {RegistrationHandler::LOGIN, RegistrationHandler::REGISTER_DEVICE, RegistrationHandler::FINISH}) {
        for (const bool in_progress : {false, true}) {
            handler.state = state;
            handler.registration_in_progress = in_progress;
            std::string error;
            EXPECT_FALSE(handler.retry_cloud_registration(error));
            EXPECT_EQ(error, text::kNotFailed);
            EXPECT_EQ(handler.state, state);
            EXPECT_EQ(handler.registration_in_progress, in_progress);
            EXPECT_EQ(handler.error_response, "earlier");
            EXPECT_EQ(handler.login_progress.tries_left, 0);
        }
    }
    EXPECT_EQ(wake_ups(), 0);
    EXPECT_EQ(events(), Events{});
}

// ---- Results

TEST_F(StateMachineTest, ResultsAreStoredForTheWorker) {
    prepare();
    EXPECT_EQ(handler.set_user_token_info("u", true, ""), 1);
    EXPECT_EQ(handler.login_progress.value, "u");
    EXPECT_TRUE(handler.login_progress.succeeded);
    EXPECT_EQ(handler.error_response, "");
    EXPECT_EQ(handler.set_device_id_info("d", false, "refused"), 1);
    EXPECT_EQ(handler.register_progress.value, "d");
    EXPECT_FALSE(handler.register_progress.succeeded);
    EXPECT_EQ(handler.error_response, "refused");
    EXPECT_EQ(handler.login_progress.value, "u");
    EXPECT_EQ(handler.state, RegistrationHandler::LOGIN);
    EXPECT_EQ(wake_ups(), 2);
}

TEST_F(StateMachineTest, ResultsAreStoredBeforeTheWorkerIsWoken) {
    std::string seen;
    calls::before_write([&] {
        seen = handler.login_progress.value + (handler.login_progress.succeeded ? " yes " : " no ") +
               handler.error_response;
    });
    handler.set_user_token_info("u", true, "e");
    EXPECT_EQ(seen, "u yes e");
}

TEST_F(StateMachineTest, ResultsTellThatTheWakeUpWasDropped) {
    calls::fail_next(Call::poll, 0);
    EXPECT_EQ(handler.set_user_token_info("u", true, ""), -1);
    calls::fail_next(Call::poll, 0);
    EXPECT_EQ(handler.set_device_id_info("d", true, ""), -1);
    EXPECT_EQ(handler.login_progress.value + handler.register_progress.value, "ud");
}

TEST_F(StateMachineTest, ResultsMayBeTheHandlersOwnTexts) {
    handler.login_progress.value = "u";
    handler.error_response = "e";
    handler.set_user_token_info(handler.login_progress.value, true, handler.error_response);
    EXPECT_EQ(handler.login_progress.value, "u");
    EXPECT_EQ(handler.error_response, "e");
    handler.set_device_id_info(handler.error_response, false, handler.login_progress.value);
    EXPECT_EQ(handler.register_progress.value, "e");
    EXPECT_EQ(handler.error_response, "u");
}

// ---- Dispatch

TEST_F(StateMachineTest, AWorkStateWithoutAnEntryIsABugThatEndsTheRun) {
    handler.reply_requested = true;
    for (const int value : {0, 2, 3}) {
        journal().clear();
        handler.registration_in_progress = true;
        handler.state = static_cast<State>(value);
        handler.run_state_machine();
        const std::string error = text::kUnknownState;
        EXPECT_EQ(events(), (Events{text::unknown_work_state(value), "reply 7 " + error}));
        expect_failed(error);
    }
}

TEST_F(StateMachineTest, AStateBeyondTheLastIsOnlyLogged) {
    handler.reply_requested = true;
    handler.registration_in_progress = true;
    handler.error_response = "earlier";
    handler.state = static_cast<State>(6);
    handler.run_state_machine();
    EXPECT_EQ(events(), Events{"log 0 run_state_machine: Unknown state 6"});
    EXPECT_EQ(handler.state, static_cast<State>(6));
    EXPECT_TRUE(handler.registration_in_progress);
    EXPECT_EQ(handler.error_response, "earlier");
}

TEST_F(StateMachineTest, AFailureIsAnsweredBeforeTheNextCommandIsAdmitted) {
    ObservingCloud observing_cloud;
    g_cvcloud_api = &observing_cloud;
    prepare();
    finish_login();
    handler.register_progress.value = "kept";
    handler.reply_requested = true;
    handler.error_response = "the error";
    handler.advance_state(RegistrationHandler::FAIL);
    EXPECT_EQ(events(), Events{"reply 7 the error"});
    EXPECT_TRUE(observing_cloud.in_progress_at_reply);
    expect_failed("the error");
    EXPECT_TRUE(handler.reply_requested);
    EXPECT_TRUE(handler.login_progress.succeeded);
    EXPECT_EQ(handler.login_progress.value, "u");
    EXPECT_EQ(handler.register_progress.value, "kept");
    handler.run_state_machine(); // A late wake-up: it stays failed, and answers again.
    EXPECT_EQ(events(), (Events{"reply 7 the error", "reply 7 the error"}));
    expect_failed("the error");
}

TEST_F(StateMachineTest, AFailureThatNobodyWaitsForIsNotAnswered) {
    prepare();
    handler.error_response = "the error";
    handler.advance_state(RegistrationHandler::FAIL);
    EXPECT_EQ(events(), Events{});
    expect_failed("the error");
}

TEST_F(StateMachineTest, AStepThatHasSucceededMovesOnAtOnce) {
    prepare();
    finish_login();
    handler.run_state_machine();
    EXPECT_EQ(handler.state, RegistrationHandler::REGISTER_DEVICE);
    EXPECT_EQ(events({"send_request", "publish"}), Events{"send_request connect/box_mgmt"});

    finish_registration();
    handler.run_state_machine();
    EXPECT_EQ(events({"send_request", "publish"}),
              (Events{"send_request connect/box_mgmt", publish_event(text::done("u", "d"))}));
    expect_reset();
}

// ---- The budget of tries

TEST_F(StateMachineTest, AStepIsTriedOnceMoreThanItIsRetriedWithAPauseBeforeEachRetry) {
    g_retry_num = 2;
    g_retry_interval = 11;
    handler.reset();
    prepare_tries({false});
    handler.error_response = "last error";
    handler.reply_requested = true;
    handler.run_state_machine();
    EXPECT_EQ(events(), (Events{"log 3 do_work: Number of tries left is: 3", "try", "sleep 11", "try",
                                "sleep 11", "try", text::no_more_tries("connect"), "reply 7 last error"}));
    expect_failed("last error");
    EXPECT_EQ(handler.login_progress.tries_left, 0);
}

TEST_F(StateMachineTest, AStepWaitsOnceItsRequestIsOnItsWay) {
    prepare_tries({true});
    handler.run_state_machine();
    EXPECT_EQ(events(), (Events{"log 3 do_work: Number of tries left is: 4", "try"}));
    EXPECT_EQ(handler.state, RegistrationHandler::LOGIN);
    EXPECT_EQ(handler.login_progress.tries_left, 3);
    EXPECT_TRUE(handler.registration_in_progress);
}

TEST_F(StateMachineTest, ASecondWakeUpSpendsATryAndSendsAgain) {
    g_retry_interval = 0;
    prepare_tries({true});
    handler.run_state_machine();
    handler.run_state_machine();
    EXPECT_EQ(events({"try", "sleep"}), (Events{"try", "sleep 0", "try"}));
    EXPECT_EQ(handler.login_progress.tries_left, 2);
}

TEST_F(StateMachineTest, SendFailuresAndFailedResponsesShareTheBudget) {
    g_retry_num = 2;
    handler.reset();
    prepare_tries({false, true});
    handler.run_state_machine();
    EXPECT_EQ(handler.login_progress.tries_left, 1);
    handler.set_user_token_info("", false, "first error");
    handler.run_state_machine();
    EXPECT_EQ(handler.login_progress.tries_left, 0);
    EXPECT_TRUE(handler.registration_in_progress);
    handler.set_user_token_info("", false, "second error");
    handler.run_state_machine();
    EXPECT_EQ(events({"try", "sleep", "log 1"}),
              (Events{"try", "sleep 1", "try", "sleep 1", "try", text::no_more_tries("connect")}));
    expect_failed("second error");
}

TEST_F(StateMachineTest, ATryThatFollowsTwoSendFailuresIsTheLastOfTwoRetries) {
    g_retry_num = 2;
    handler.reset();
    prepare_tries({false, false, true});
    handler.run_state_machine();
    handler.set_user_token_info("", false, "the error");
    handler.run_state_machine();
    EXPECT_EQ(events({"try"}).size(), 3U);
    expect_failed("the error");
}

TEST_F(StateMachineTest, WithoutRetriesAStepIsTriedOnce) {
    g_retry_num = 0;
    handler.reset();
    prepare_tries({false});
    handler.run_state_machine();
    EXPECT_EQ(events({"try", "sleep"}), Events{"try"});
    expect_failed("");
}

TEST_F(StateMachineTest, ANegativeNumberOfRetriesFailsAStepUntried) {
    for (const int retries : {-1, -5}) {
        g_retry_num = retries;
        handler.reset();
        prepare("temporary");
        handler.run_state_machine();
        EXPECT_EQ(events(), (Events{"log 3 do_work: Number of tries left is: " + std::to_string(retries + 1),
                                    text::no_more_tries("get_device_token")}));
        expect_failed("");
        EXPECT_EQ(handler.login_progress.tries_left, retries + 1);
    }
}

TEST_F(StateMachineTest, TheLargestNumberOfRetriesWrapsAndFailsAStepUntried) {
    g_retry_num = std::numeric_limits<int>::max();
    handler.reset();
    prepare();
    handler.run_state_machine();
    EXPECT_EQ(events(), (Events{"log 3 do_work: Number of tries left is: -2147483648",
                                text::no_more_tries("connect")}));
}

TEST_F(StateMachineTest, TheBoxRegistrationHasABudgetOfItsOwn) {
    prepare();
    finish_login();
    handler.login_progress.tries_left = 0;
    cloud.refuse_next_send(4);
    handler.run_state_machine();
    EXPECT_EQ(events({"send_request", "sleep", "log 1"}),
              (Events{"send_request connect/box_mgmt", "sleep 1", "send_request connect/box_mgmt", "sleep 1",
                      "send_request connect/box_mgmt", "sleep 1", "send_request connect/box_mgmt",
                      text::no_more_tries("register_box")}));
    expect_failed(text::kNotSent);
}

TEST_F(StateMachineTest, AnEmptyActionIsAProgrammingError) {
    prepare();
    handler.states[RegistrationHandler::LOGIN].action = {};
    EXPECT_THROW(handler.run_state_machine(), std::bad_function_call);
}

// ---- The end of a successful run

class FinishTest : public StateMachineTest {
protected:
    FinishTest() {
        prepare();
        finish_login();
        finish_registration();
        handler.state = RegistrationHandler::FINISH;
        handler.reply_requested = true;
    }

    void expect_jansson_failure(const Events& expected) {
        handler.error_response = "earlier";
        handler.run_state_machine();
        Events all = expected;
        all.push_back("reply 7 " + text::kJansson);
        EXPECT_EQ(events(), all);
        expect_failed(text::kJansson);
    }

    const std::string body = text::done("u", "d");
};

TEST_F(FinishTest, PublishesTheResultThenAnswersThenResets) {
    ObservingCloud observing_cloud;
    g_cvcloud_api = &observing_cloud;
    handler.run_state_machine();
    EXPECT_EQ(events(), (Events{
                            "free parameter text",
                            "release document",
                            "log 2 build_success_message: Response: " + body,
                            "log 3 send_cloud_registration_done: Sending cloud_registration_done message",
                            "publish cloud_registration_done " + body,
                            "log 3 send_cloud_registration_done: Successfully sent cloud_registration_done "
                            "cvex message",
                            "reply 7 " + body,
                        }));
    EXPECT_TRUE(observing_cloud.in_progress_at_reply);
    expect_reset();
}

TEST_F(FinishTest, AnswersNobodyWhoDidNotAsk) {
    handler.reply_requested = false;
    handler.run_state_machine();
    EXPECT_EQ(events({"publish", "reply"}), Events{"publish cloud_registration_done " + body});
    expect_reset();
}

TEST_F(FinishTest, IgnoresThatTheReplyFails) {
    cloud.return_from_next_reply(-1);
    handler.run_state_machine();
    EXPECT_EQ(events({"reply"}), Events{"reply 7 " + body});
    expect_reset();
}

TEST_F(FinishTest, EscapesTheResultAndKeepsEmptyTexts) {
    finish_login("");
    finish_registration("say \"d\"\\");
    EXPECT_EQ(handler.build_success_message(),
              R"({"result": "ok", "user_token": "", "device_id": "say \"d\"\\"})");
}

TEST_F(FinishTest, FailsWhenTheResultCannotBePublished) {
    for (const int result : {1, -1}) {
        journal().clear();
        handler.state = RegistrationHandler::FINISH;
        handler.registration_in_progress = true;
        cloud.fail_next_publish(1, result);
        handler.run_state_machine();
        const std::string error = text::kNotPublished;
        EXPECT_EQ(events({"log 3", "publish", "reply"}),
                  (Events{"log 3 send_cloud_registration_done: Sending cloud_registration_done message",
                          "publish cloud_registration_done " + body, "reply 7 " + error}));
        expect_failed(error);
        EXPECT_TRUE(handler.login_progress.succeeded);
        EXPECT_TRUE(handler.register_progress.succeeded);
    }
}

TEST_F(FinishTest, FailsWhenTheDocumentCannotBeCreated) {
    calls::fail_next(Call::json_object);
    expect_jansson_failure({});
}

TEST_F(FinishTest, FailsWhenAMemberCannotBeAttached) {
    for (const char* key : {"result", "user_token", "device_id"}) {
        SCOPED_TRACE(key);
        reset_cvutils();
        journal().clear();
        handler.state = RegistrationHandler::FINISH;
        handler.registration_in_progress = true;
        fail_attach(key);
        expect_jansson_failure({std::string("cannot attach ") + key, "release document"});
    }
}

TEST_F(FinishTest, FailsWhenTheDocumentCannotBeWritten) {
    calls::fail_next(Call::json_dumps);
    expect_jansson_failure({"release document"});
}

// ---- The requests of the steps

class SendTest : public StateMachineTest {
protected:
    SendTest() {
        prepare();
        cloud.user_token = "input token";
        cloud.device_id = "thebox";
        handler.error_response = "earlier";
    }

    struct Step {
        bool (RegistrationHandler::*send)();
        std::string function;
        std::string method;
        std::string service;
        std::string text;
        cvtessel_callback callback;
        std::vector<std::string> members;
    };

    std::vector<Step> steps_with_parameters() const {
        return {connect(), register_box()};
    }

    static Step connect() {
        return {&RegistrationHandler::send_connect_request,
                "send_connect_request",
                "connect",
                "connect/login",
                R"(connect {"partner_user_token": "t", "partner_id": "p"} fields=no)",
                get_user_token_callback,
                {"partner_user_token", "partner_id"}};
    }

    static Step register_box() {
        return {&RegistrationHandler::send_register_box_request,
                "send_register_box_request",
                "register_box",
                "connect/box_mgmt",
                R"(register_box {"macs": ["0A:1B"], "box_detected_name": "Corvane Orlo", )"
                R"("setup_type": "STANDALONE", "device_model": "orlov2"} fields=yes )"
                R"(user_token=input token device_id=thebox)",
                register_box_callback,
                {"macs", "box_detected_name", "setup_type", "device_model"}};
    }

    static Step get_device_token() {
        return {&RegistrationHandler::send_get_device_token_request,
                "send_get_device_token_request",
                "get_device_token",
                "connect/login",
                "get_device_token (none) fields=yes user_token=input token device_id=thebox",
                get_user_token_callback,
                {}};
    }

    static std::string service_line(const Step& step) {
        return "log 3 send_request_to_cloud: service: " + step.service + ", full request: " + step.text;
    }

    static std::string error_line(const Step& step, const std::string& error) {
        return "log 2 " + step.function + ": There was an error while sending " + step.method + ": " + error;
    }

    void expect_sent(const Step& step, const Events& released) {
        SCOPED_TRACE(step.method);
        journal().clear();
        EXPECT_TRUE((handler.*step.send)());
        Events expected = {"build_request " + step.text, service_line(step), "new 8",
                           "send_request " + step.service, "free request text"};
        expected.insert(expected.end(), released.begin(), released.end());
        expected.push_back("log 3 " + step.function + ": Successfully sent " + step.method);
        EXPECT_EQ(events(), expected);
        EXPECT_EQ(handler.error_response, "earlier");
        ASSERT_FALSE(cloud.outstanding().empty());
        EXPECT_EQ(cloud.outstanding().back().text, step.text);
        EXPECT_EQ(cloud.outstanding().back().callback, step.callback);
        EXPECT_EQ(cloud.outstanding().back().request_id, 7U);
    }

    void expect_refused(const Step& step, const Events& released) {
        SCOPED_TRACE(step.method);
        journal().clear();
        cloud.refuse_next_send();
        EXPECT_FALSE((handler.*step.send)());
        const std::string error = text::kNotSent;
        Events expected = {"build_request " + step.text,   service_line(step),  "new 8",
                           "send_request " + step.service, "free request text", "delete 8"};
        expected.insert(expected.end(), released.begin(), released.end());
        expected.push_back(error_line(step, error));
        EXPECT_EQ(events(), expected);
        EXPECT_EQ(handler.error_response, error);
    }

    void expect_jansson_failure(const Step& step, const Events& expected) {
        journal().clear();
        handler.error_response = "earlier";
        EXPECT_FALSE((handler.*step.send)());
        EXPECT_EQ(events(), expected);
        EXPECT_EQ(handler.error_response, text::kJansson);
    }
};

TEST_F(SendTest, ReleasesTheDocumentThenItsTextThenLogs) {
    for (const Step& step : steps_with_parameters()) {
        expect_sent(step, {"release document", "free parameter text"});
    }
}

TEST_F(SendTest, GetDeviceTokenHasNoParametersOfItsOwn) {
    expect_sent(get_device_token(), {});
}

TEST_F(SendTest, ReleasesEverythingWhenTheCloudClientRefuses) {
    for (const Step& step : steps_with_parameters()) {
        expect_refused(step, {"release document", "free parameter text"});
    }
    expect_refused(get_device_token(), {});
}

TEST_F(SendTest, LogsTheErrorOfARequestThatCannotBeBuilt) {
    for (const Step& step : {connect(), get_device_token(), register_box()}) {
        journal().clear();
        cloud.fail_next_build();
        EXPECT_FALSE((handler.*step.send)());
        const std::string error = text::not_built(step.method);
        EXPECT_EQ(log_events(), (Events{text::kCannotAddFields, error_line(step, error)}));
        EXPECT_EQ(handler.error_response, error);
    }
}

TEST_F(SendTest, LogsNothingWhenTheDocumentCannotBeCreated) {
    for (const Step& step : steps_with_parameters()) {
        calls::fail_next(Call::json_object);
        expect_jansson_failure(step, {});
    }
}

TEST_F(SendTest, ReleasesTheDocumentThenLogsWhenAMemberCannotBeAttached) {
    for (const Step& step : steps_with_parameters()) {
        for (const std::string& member : step.members) {
            SCOPED_TRACE(member);
            reset_cvutils();
            fail_attach(member);
            expect_jansson_failure(
                step, {"cannot attach " + member, "release document", error_line(step, text::kJansson)});
        }
    }
}

TEST_F(SendTest, ReleasesTheDocumentThenLogsWhenItCannotBeWritten) {
    for (const Step& step : steps_with_parameters()) {
        calls::fail_next(Call::json_dumps);
        expect_jansson_failure(step, {"release document", error_line(step, text::kJansson)});
    }
}

TEST_F(SendTest, DescribesTheBoxAsItIsConfigured) {
    handler.mac = "00-1b:2C zz"; // Sent as it is.
    g_box_name = "";
    g_setup_type = "CLUSTER";
    g_device_model = "x1";
    EXPECT_TRUE(handler.send_register_box_request());
    EXPECT_EQ(events({"build_request"}),
              Events{R"(build_request register_box {"macs": ["00-1b:2C zz"], "box_detected_name": "", )"
                     R"("setup_type": "CLUSTER", "device_model": "x1"} fields=yes )"
                     R"(user_token=input token device_id=thebox)"});
}

TEST_F(SendTest, TheResponseMayArriveBeforeTheRequestIsSent) {
    cloud.answer_inside_next_send({R"({"result": {"user_token": "u"}})"});
    handler.run_state_machine();
    EXPECT_TRUE(handler.login_progress.succeeded);
    EXPECT_EQ(cloud.user_token, "u");
    EXPECT_EQ(wake_ups(), 1);
    EXPECT_EQ(events({"send_request", "delete", "release_response", "free request"}),
              (Events{"send_request connect/login", "delete 8", "release_response", "free request text"}));
}

} // namespace
