// dispatch LIBRARY REPEATS COMMANDS
// How long handle() holds the daemon's dispatch thread, also while the worker is held and its pipe is full.

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <vector>

#include "lean_host.h"
#include "stand_ins.h"

namespace {

// The pipes that the module has opened, the run pipe last.
std::vector<std::array<int, 2>> pipes;

const Exchange exchange;
constexpr const char* kStart = "start_cloud_registration";
constexpr const char* kRetry = "retry_cloud_registration";

} // namespace

int pipe2(int ends[2], int flags) {
    static const auto next = reinterpret_cast<decltype(&pipe2)>(dlsym(RTLD_NEXT, "pipe2"));
    const int result = next(ends, flags);
    pipes.push_back({ends[0], ends[1]});
    return result;
}

namespace {

/// The times of one kind of command.
class Samples {
public:
    void take(LeanHost& host, CvHandlerAPI& handler, const char* name, const std::string& payload) const {
        const std::int64_t begin = nanoseconds();
        host.command(handler, name, payload);
        json_array_append_new(samples, json_integer(nanoseconds() - begin));
    }

    json_t* const samples = json_array();
};

void finish(LeanHost& host) {
    worker_idle().wait();
    host.answer(exchange.login_answer);
    worker_idle().wait();
    host.answer(exchange.box_answer);
    worker_idle().wait();
    host.expect_replies(1);
}

json_t* measure(LeanHost& host, CvHandlerAPI& handler, StandIn& floor, LeanHost& floor_host, long commands) {
    const Samples start;
    const Samples floor_start;
    const Samples retry;
    const Samples refusal;
    const Samples refusal_while_worker_is_held;
    const Samples start_with_full_pipe;
    for (long done = 0; done < commands; ++done) {
        start.take(host, handler, kStart, exchange.payload);
        finish(host);
        floor_start.take(floor_host, floor, kStart, exchange.payload);
        finish(floor_host);
        refusal.take(host, handler, "ping", "");
        host.expect_replies(1);

        // A registration that fails because nothing can be sent, and its retry.
        host.refuses = true;
        host.command(handler, kStart, exchange.payload);
        worker_idle().wait();
        host.expect_replies(1);
        host.refuses = false;
        retry.take(host, handler, kRetry, "");
        finish(host);

        // A worker that does not come back from the host.
        Event held;
        Event resume;
        host.held = &held;
        host.resume = &resume;
        host.command(handler, kStart, exchange.payload);
        held.wait();
        host.held = nullptr;
        refusal_while_worker_is_held.take(host, handler, kStart, exchange.payload);
        host.expect_replies(1);
        resume.signal();

        // A worker that does not come to its pipe, and a pipe without room: the start's wake-up is dropped.
        worker_idle().wait();
        host.answer(exchange.login_answer);
        worker_idle().wait();
        hold_worker_in_select(&resume);
        host.answer(exchange.box_answer);
        worker_idle().wait();
        host.expect_replies(1);
        const auto [read_end, write_end] = pipes.back();
        std::array<char, 4096> bytes = {};
        while (write(write_end, bytes.data(), bytes.size()) > 0) {
        }
        start_with_full_pipe.take(host, handler, kStart, exchange.payload);
        while (read(read_end, bytes.data(), bytes.size()) > 0) {
        }
        if (write(write_end, "x", 1) != 1) { // In place of the one that was dropped.
            die("the module's pipe does not take a byte");
        }
        resume.signal();
        finish(host);
    }
    return json_pack("{s:o, s:o, s:o, s:o, s:o, s:o}", "start", start.samples, "floor", floor_start.samples,
                     "retry", retry.samples, "refusal", refusal.samples, "refusal, worker held",
                     refusal_while_worker_is_held.samples, "start, pipe full", start_with_full_pipe.samples);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        die("usage: dispatch LIBRARY REPEATS COMMANDS");
    }
    stay_on_one_processor();
    const std::unique_ptr<StandIn> floor = make_floor();
    CvHandlerAPI& handler = load_handler(argv[1]);
    LeanHost floor_host;
    LeanHost host;
    floor_host.init(*floor);
    host.init(handler);
    json_t* const result = json_array();
    for (long repeat = 0; repeat < positive_number(argv[2]); ++repeat) {
        json_array_append_new(result, measure(host, handler, *floor, floor_host, positive_number(argv[3])));
    }
    handler.uninit();
    floor->uninit();
    print_result(result);
    return 0;
}
