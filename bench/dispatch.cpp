// dispatch LIBRARY REPEATS COMMANDS
// How long handle() holds the daemon's dispatch thread, also while the worker is held and its pipe is full.

#include <unistd.h>

#include <array>
#include <memory>
#include <vector>

#include "figures.h"
#include "scenarios.h"
#include "stand_ins.h"

namespace {

const Exchange exchange;
constexpr const char* kStart = "start_cloud_registration";
constexpr const char* kRetry = "retry_cloud_registration";

/// The times of one kind of command.
class Samples {
public:
    void take(kit::LeanHost& host, CvHandlerAPI& handler, const char* name,
              const std::string& payload) const {
        const std::int64_t begin = kit::nanoseconds();
        host.command(handler, name, payload);
        json_array_append_new(samples, json_integer(kit::nanoseconds() - begin));
    }

    json_t* const samples = json_array();
};

json_t* measure(kit::LeanHost& host, CvHandlerAPI& handler, StandIn& floor, kit::LeanHost& floor_host,
                long commands) {
    const Samples start;
    const Samples floor_start;
    const Samples retry;
    const Samples refusal;
    const Samples refusal_while_worker_is_held;
    const Samples start_with_full_pipe;
    for (long done = 0; done < commands; ++done) {
        start.take(host, handler, kStart, exchange.payload);
        finish(host, exchange);
        floor_start.take(floor_host, floor, kStart, exchange.payload);
        finish(floor_host, exchange);
        refusal.take(host, handler, "ping", "");
        expect_replies(host, 1);

        // A registration that fails because nothing can be sent, and its retry.
        host.refuses = true;
        host.command(handler, kStart, exchange.payload);
        worker_idle().wait();
        expect_replies(host, 1);
        host.refuses = false;
        retry.take(host, handler, kRetry, "");
        finish(host, exchange);

        // A worker that does not come back from the host.
        kit::Signal held;
        kit::Signal resume;
        host.held = &held;
        host.resume = &resume;
        host.command(handler, kStart, exchange.payload);
        held.wait();
        host.held = nullptr;
        refusal_while_worker_is_held.take(host, handler, kStart, exchange.payload);
        expect_replies(host, 1);
        resume.signal();

        // A worker that does not come to its pipe, and a pipe without room: the start's wake-up is dropped.
        worker_idle().wait();
        host.answer(exchange.login_answer);
        worker_idle().wait();
        kit::idle_system().hold = &resume;
        host.answer(exchange.box_answer);
        worker_idle().wait();
        expect_replies(host, 1);
        const auto [read_end, write_end] = kit::idle_system().run_pipe;
        std::array<char, 4096> bytes = {};
        while (write(write_end, bytes.data(), bytes.size()) > 0) {
        }
        start_with_full_pipe.take(host, handler, kStart, exchange.payload);
        while (read(read_end, bytes.data(), bytes.size()) > 0) {
        }
        if (write(write_end, "x", 1) != 1) { // In place of the one that was dropped.
            kit::die("the module's pipe does not take a byte");
        }
        resume.signal();
        finish(host, exchange);
    }
    return json_pack("{s:o, s:o, s:o, s:o, s:o, s:o}", "start", start.samples, "floor", floor_start.samples,
                     "retry", retry.samples, "refusal", refusal.samples, "refusal, worker held",
                     refusal_while_worker_is_held.samples, "start, pipe full", start_with_full_pipe.samples);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        kit::die("usage: dispatch LIBRARY REPEATS COMMANDS");
    }
    start_measuring();
    stay_on_one_processor();
    const std::unique_ptr<StandIn> floor = make_floor();
    CvHandlerAPI& handler = load_handler(argv[1]);
    kit::LeanHost floor_host;
    kit::LeanHost host;
    init(floor_host, *floor);
    init(host, handler);
    json_t* const result = json_array();
    for (long repeat = 0; repeat < positive_number(argv[2]); ++repeat) {
        json_array_append_new(result, measure(host, handler, *floor, floor_host, positive_number(argv[3])));
    }
    handler.uninit();
    floor->uninit();
    print_result(result);
    return 0;
}
