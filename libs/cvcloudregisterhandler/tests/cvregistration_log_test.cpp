// Below level 0 nothing is logged, and everything else is as ever. The other tests see these lines.

#include <cerrno>
#include <string>
#include <vector>

#include "cvcloudregisterhandler.h"
#include "module_test.h"

namespace {

using namespace kit;
using cv::registration::RegistrationHandler;
using cv::registration::RegistrationThread;

template <typename Base>
class Silent : public Base {
protected:
    Silent() {
        cv::log::current_level = -1;
    }

    ~Silent() override {
        EXPECT_EQ(log_events(), Events{});
    }

    std::vector<std::string> commands;
};

using SilentModuleTest = Silent<ModuleTest>;
using SilentHandlerTest = Silent<HandlerTest>;

TEST_F(SilentModuleTest, RefusesToWorkWithoutACloudAccessObject) {
    EXPECT_EQ(get_handler_api()->init(nullptr, commands), 0);
}

TEST_F(SilentModuleTest, FailsWithoutMemoryForTheRegistrationObject) {
    calls::fail_next(Call::new_nothrow);
    EXPECT_EQ(get_handler_api()->init(&cloud, commands), 0);
}

TEST_F(SilentModuleTest, FailsWithoutPipes) {
    calls::fail_next(Call::pipe2, -1, EMFILE);
    EXPECT_EQ(get_handler_api()->init(&cloud, commands), 0);
}

TEST_F(SilentModuleTest, StopsItsWorker) {
    EXPECT_NE(get_handler_api()->init(&cloud, commands), 0);
    get_handler_api()->uninit();
    EXPECT_EQ(g_registration_handler, nullptr);
}

TEST_F(SilentHandlerTest, RefusesAnUnknownTokenType) {
    EXPECT_FALSE(handler.set_input_params({"t", "other", "m"}));
}

TEST_F(SilentHandlerTest, EndsTheRunInAWorkStateWithoutAnEntry) {
    handler.state = static_cast<RegistrationHandler::State>(2);
    handler.run_state_machine();
    EXPECT_EQ(handler.state, RegistrationHandler::FAIL);
}

TEST_F(SilentHandlerTest, StaysInAnUnknownState) {
    handler.state = static_cast<RegistrationHandler::State>(6);
    handler.run_state_machine();
    EXPECT_EQ(handler.state, 6);
}

TEST_F(SilentHandlerTest, GoesOnWhenThereIsNothingToReadAndEndsWhenSelectFails) {
    int runs = 0;
    handler.thread.handler = &handler;
    handler.states[RegistrationHandler::LOGIN] = {"step", &handler.login_progress,
                                                  [&runs] {
                                                      ++runs;
                                                      calls::fail_next(Call::select, -1, EBADF);
                                                      return true;
                                                  },
                                                  RegistrationHandler::REGISTER_DEVICE};
    handler.thread.run();
    calls::fail_next(Call::read, 0);
    EXPECT_EQ(RegistrationThread::thread_function(&handler.thread), nullptr);
    EXPECT_EQ(runs, 1);
}

} // namespace
