#include "cvregistration_thread.h"

#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <future>
#include <set>
#include <thread>
#include <utility>

#include "module_test.h"

using namespace cv::registration;
using namespace kit;

namespace {

std::string close_of(int descriptor) {
    return "close " + std::to_string(descriptor);
}

// ---- Without a worker

using PipesTest = ModuleTest;

TEST_F(PipesTest, BeginUnopened) {
    const RegistrationThread thread;
    EXPECT_EQ(thread.stop_pipe[0], -1);
    EXPECT_EQ(thread.stop_pipe[1], 0);
    EXPECT_EQ(thread.run_pipe[0], -1);
    EXPECT_EQ(thread.run_pipe[1], 0);
    EXPECT_FALSE(thread.worker.joinable());
    EXPECT_FALSE(thread.started);
    EXPECT_EQ(thread.handler, nullptr);
}

TEST_F(PipesTest, AreOpenedNonBlockingTheStopPipeFirst) {
    RegistrationThread thread;
    calls::return_from_next_pipe2(101, 102);
    calls::return_from_next_pipe2(103, 104);
    EXPECT_TRUE(thread.init_pipes());
    EXPECT_EQ(events(), (Events{"pipe2 nonblocking", "pipe2 nonblocking"}));
    EXPECT_EQ(thread.stop_pipe[0], 101);
    EXPECT_EQ(thread.stop_pipe[1], 102);
    EXPECT_EQ(thread.run_pipe[0], 103);
    EXPECT_EQ(thread.run_pipe[1], 104);
}

TEST_F(PipesTest, ThatWereNeverOpenedAreClosedAtDescriptor0) {
    RegistrationThread thread;
    calls::fail_next(Call::pipe2, -1, EMFILE);
    EXPECT_FALSE(thread.init_pipes());
    EXPECT_EQ(events(), (Events{
                            "pipe2 nonblocking", text::no_pipe("Too many open files"),
                            "close 0", // The write end of the stop pipe,
                            "close 0", // and that of the run pipe.
                        }));
}

TEST_F(PipesTest, AreBothClosedWhenTheSecondCannotBeOpened) {
    RegistrationThread thread;
    calls::return_from_next_pipe2(101, 102);
    calls::fail_next(Call::pipe2, -1, ENFILE);
    EXPECT_FALSE(thread.init_pipes());
    EXPECT_EQ(events(), (Events{
                            "pipe2 nonblocking",
                            "pipe2 nonblocking",
                            text::no_pipe("Too many open files in system"),
                            "close 101",
                            "close 102",
                            "close 0",
                        }));
    EXPECT_EQ(thread.stop_pipe[0], 101); // The entries stay.
    EXPECT_EQ(thread.stop_pipe[1], 102);
}

TEST_F(PipesTest, ThatSelectCannotWatchAreRefusedAndClosedOnce) {
    const std::array<int, 4> cases[] = {
        {FD_SETSIZE, FD_SETSIZE + 1, FD_SETSIZE + 2, FD_SETSIZE + 3},
        {101, 102, FD_SETSIZE, FD_SETSIZE + 1},
        {FD_SETSIZE, FD_SETSIZE + 1, 101, 102}, // Another thread has closed some between the two.
    };
    for (const auto& [stop_read, stop_write, run_read, run_write] : cases) {
        journal().clear();
        RegistrationThread thread;
        calls::return_from_next_pipe2(stop_read, stop_write);
        calls::return_from_next_pipe2(run_read, run_write);
        EXPECT_FALSE(thread.init_pipes());
        thread.uninit();
        EXPECT_EQ(events(), (Events{
                                "pipe2 nonblocking",
                                "pipe2 nonblocking",
                                text::no_pipe("Too many open files"),
                                close_of(stop_read),
                                close_of(stop_write),
                                close_of(run_read),
                                close_of(run_write),
                            }));
    }
}

TEST_F(PipesTest, OfTheLastDescriptorThatSelectCanWatchAreAccepted) {
    const std::array<int, 4> cases[] = {
        {101, 102, FD_SETSIZE - 1, FD_SETSIZE},
        {FD_SETSIZE - 1, FD_SETSIZE, 101, 102},
    };
    for (const auto& [stop_read, stop_write, run_read, run_write] : cases) {
        RegistrationThread thread;
        calls::return_from_next_pipe2(stop_read, stop_write);
        calls::return_from_next_pipe2(run_read, run_write);
        EXPECT_TRUE(thread.init_pipes());
    }
}

TEST_F(PipesTest, AreClosedReadEndFirstWithoutTheEndsThatAreUnopened) {
    const std::pair<std::pair<int, int>, Events> cases[] = {
        {{101, 102}, {"close 101", "close 102"}},
        {{-1, 102}, {"close 102"}},
        {{101, -1}, {"close 101"}},
        {{-1, -1}, {}},
    };
    calls::return_from_next_pipe2(101, 102); // Declares the two unreal.
    for (const auto& [ends, closed] : cases) {
        journal().clear();
        int pipe[2] = {ends.first, ends.second};
        RegistrationThread::close_pipe(pipe);
        EXPECT_EQ(events(), closed);
        EXPECT_EQ(pipe[0], ends.first);
        EXPECT_EQ(pipe[1], ends.second);
    }
}

TEST_F(PipesTest, ThatCannotBeOpenedLeaveNoWorker) {
    RegistrationHandler handler;
    calls::fail_next(Call::pipe2, -1, EMFILE);
    EXPECT_FALSE(handler.thread.init(&handler));
    EXPECT_FALSE(handler.thread.started);
    EXPECT_FALSE(handler.thread.worker.joinable());
    EXPECT_EQ(handler.thread.handler, nullptr);
    journal().clear();
    handler.thread.uninit();
    EXPECT_EQ(events(), (Events{"close 0", "close 0"}));
}

// ---- The worker's loop, run by the test itself

/// Leaves ones where the next function has its variables.
[[gnu::noinline]] void soil_the_stack() {
    std::array<unsigned char, 65536> bytes;
    bytes.fill(0xff);
    asm volatile("" : : "r"(bytes.data()) : "memory");
}

class WorkerLoopTest : public HandlerTest {
protected:
    WorkerLoopTest() {
        handler.thread.handler = &handler;
        g_retry_num = 0;
        // Each run of the state machine calls the step's action once.
        handler.login_progress.tries_left = 1000;
        handler.states[RegistrationHandler::LOGIN] = {"step", &handler.login_progress,
                                                      [this] {
                                                          journal().record("state machine");
                                                          if (++runs == stop_after) {
                                                              stop();
                                                          }
                                                          return true;
                                                      },
                                                      RegistrationHandler::REGISTER_DEVICE};
        cv::log::current_level = 2; // Without the state machine's own lines.
    }

    void stop() {
        write_byte(handler.thread.stop_pipe[1]);
    }

    /// Returns when the loop ends.
    void run_loop() {
        journal().clear();
        soil_the_stack();
        EXPECT_EQ(RegistrationThread::thread_function(&handler.thread), nullptr);
    }

    std::string read_run_byte() const {
        return "read " + std::to_string(handler.thread.run_pipe[0]);
    }

    Events loop_events() const {
        return events({"select", "read", "state machine", "log "});
    }

    int runs = 0;
    int stop_after = -1;
    const std::string stopping = "log 2 thread_function: stopping registration thread...";
};

TEST_F(WorkerLoopTest, RunsTheStateMachineOnceForEachByte) {
    EXPECT_EQ(handler.thread.run(), 1);
    EXPECT_EQ(handler.thread.run(), 1);
    stop_after = 2;
    run_loop();
    EXPECT_EQ(loop_events(), (Events{"select", read_run_byte(), "state machine", "select", read_run_byte(),
                                     "state machine", "select", stopping}));
}

TEST_F(WorkerLoopTest, AbandonsAPendingRunForAStopThatItDoesNotRead) {
    handler.thread.run();
    stop();
    run_loop();
    EXPECT_EQ(loop_events(), (Events{"select", stopping}));
    EXPECT_EQ(wake_ups(), 1);
    int stop_bytes = 0;
    EXPECT_EQ(ioctl(handler.thread.stop_pipe[0], FIONREAD, &stop_bytes), 0);
    EXPECT_EQ(stop_bytes, 1);
}

TEST_F(WorkerLoopTest, WatchesTheReadEndsAndNothingElse) {
    for (int turn = 0; turn < 2; ++turn) {
        stop();
        run_loop();
        const calls::SelectCall call = calls::last_select();
        EXPECT_EQ(call.descriptor_count,
                  std::max(handler.thread.stop_pipe[0], handler.thread.run_pipe[0]) + 1);
        EXPECT_EQ(call.read_descriptors,
                  (std::set<int>{handler.thread.stop_pipe[0], handler.thread.run_pipe[0]}));
        EXPECT_FALSE(call.watches_writing);
        EXPECT_FALSE(call.watches_exceptions);
        EXPECT_FALSE(call.has_timeout);
        std::swap(handler.thread.stop_pipe, handler.thread.run_pipe); // The other end is the larger one now.
    }
}

TEST_F(WorkerLoopTest, OutlivesASignal) {
    cv::log::current_level = 3;
    calls::fail_next(Call::select, -1, EINTR);
    stop();
    run_loop();
    EXPECT_EQ(loop_events(),
              (Events{"select", "log 3 thread_function: system() was interrupted. Continuing...", "select",
                      stopping}));
}

TEST_F(WorkerLoopTest, EndsWhenSelectFails) {
    handler.thread.run();
    calls::fail_next(Call::select, -1, EBADF);
    run_loop();
    EXPECT_EQ(loop_events(), (Events{"select", text::select_error(9, "Bad file descriptor")}));
    EXPECT_EQ(handler.thread.run(), 1); // Nobody reads it, but it is still written.
}

TEST_F(WorkerLoopTest, GoesOnWhenThereIsNothingToRead) {
    handler.thread.run();
    calls::fail_next(Call::read, 0);
    calls::fail_next(Call::read, -1);
    stop_after = 1;
    run_loop();
    EXPECT_EQ(loop_events(), (Events{"select", read_run_byte(), text::read_returned(0), "select",
                                     read_run_byte(), text::read_returned(-1), "select", read_run_byte(),
                                     "state machine", "select", stopping}));
}

TEST_F(WorkerLoopTest, IsWokenByOneByteThatIsLogged) {
    cv::log::current_level = 3;
    journal().clear();
    EXPECT_EQ(handler.thread.run(), 1);
    const std::string descriptor = std::to_string(handler.thread.run_pipe[1]);
    EXPECT_EQ(events(),
              (Events{"poll " + descriptor + " for writing, timeout 0", "write " + descriptor + " x",
                      "log 3 run: Wrote run byte on fd " + descriptor + " (1)"}));
    EXPECT_EQ(wake_ups(), 1);
}

TEST_F(WorkerLoopTest, MissesAWakeUpThatIsDropped) {
    cv::log::current_level = 3;
    calls::fail_next(Call::poll, 0);
    EXPECT_EQ(handler.thread.run(), -1);
    EXPECT_EQ(log_events(), Events{"log 3 run: Wrote run byte on fd " +
                                   std::to_string(handler.thread.run_pipe[1]) + " (-1)"});
    EXPECT_EQ(wake_ups(), 0);
}

// ---- With the worker

class WorkerTest : public ModuleTest {
protected:
    WorkerTest() {
        g_retry_num = 0;
        handler.reset();
        handler.login_progress.tries_left = 1000;
    }

    /// What the step does on the worker.
    void start(std::function<void()> step) {
        handler.states[RegistrationHandler::LOGIN] = {"step", &handler.login_progress,
                                                      [step = std::move(step)] {
                                                          step();
                                                          return true;
                                                      },
                                                      RegistrationHandler::REGISTER_DEVICE};
        ASSERT_TRUE(handler.thread.init(&handler));
    }

    std::string wrote_stop_signal() const {
        return "log 2 uninit: Wrote stop signal on fd " + std::to_string(handler.thread.stop_pipe[1]) +
               " (1)";
    }

    RegistrationHandler handler;
};

TEST_F(WorkerTest, IsStartedWithTheHandler) {
    start([] {});
    EXPECT_TRUE(handler.thread.started);
    EXPECT_TRUE(handler.thread.worker.joinable());
    EXPECT_EQ(handler.thread.handler, &handler);
    handler.thread.uninit();
}

TEST_F(WorkerTest, RunsTheStateMachineOnAThreadOfItsOwn) {
    std::promise<std::thread::id> ran_on;
    start([&] { ran_on.set_value(std::this_thread::get_id()); });
    const std::thread::id worker = handler.thread.worker.get_id();
    EXPECT_EQ(handler.thread.run(), 1);
    EXPECT_EQ(ran_on.get_future().get(), worker);
    handler.thread.uninit();
}

TEST_F(WorkerTest, IsJoinedBeforeThePipesAreClosed) {
    start([] {});
    Await("select");
    journal().clear();
    handler.thread.uninit();
    EXPECT_FALSE(handler.thread.worker.joinable());
    EXPECT_TRUE(handler.thread.started);
    const std::string stop_descriptor = std::to_string(handler.thread.stop_pipe[1]);
    EXPECT_EQ(events({"poll", "write", "log 2 uninit", "close"}),
              (Events{"poll " + stop_descriptor + " for writing, timeout 0",
                      "write " + stop_descriptor + " x", wrote_stop_signal(),
                      close_of(handler.thread.stop_pipe[0]), close_of(handler.thread.stop_pipe[1]),
                      close_of(handler.thread.run_pipe[0]), close_of(handler.thread.run_pipe[1])}));
    EXPECT_EQ(events({"log 2 thread_function", "close"}).front(),
              "log 2 thread_function: stopping registration thread...");
}

TEST_F(WorkerTest, FinishesItsRunBeforeItStopsAndAbandonsTheNextOne) {
    std::promise<void> running;
    std::promise<void> go_on;
    start([&] {
        running.set_value(); // A second call would throw.
        go_on.get_future().wait();
        journal().record("step ends");
    });
    handler.thread.run();
    running.get_future().wait();
    handler.thread.run();
    std::thread host([this] { handler.thread.uninit(); });
    Await(wrote_stop_signal());
    go_on.set_value();
    host.join();
    EXPECT_EQ(events({"step ends", "log 2 thread_function",
                      "close " + std::to_string(handler.thread.stop_pipe[0])}),
              (Events{"step ends", "log 2 thread_function: stopping registration thread...",
                      close_of(handler.thread.stop_pipe[0])}));
}

TEST_F(WorkerTest, ThatEndedOnASelectErrorIsStillJoined) {
    calls::fail_next(Call::select, -1, EINVAL);
    start([] {});
    Await(text::select_error(22, "Invalid argument"));
    EXPECT_EQ(handler.thread.run(), 1);
    handler.thread.uninit();
    EXPECT_FALSE(handler.thread.worker.joinable());
}

} // namespace
