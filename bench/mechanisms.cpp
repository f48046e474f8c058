// mechanisms LIBRARY REPEATS REGISTRATIONS SECONDS
// The module among other ways to wake a worker, with commands and answers that come within 0 to 2 ms, on one
// processor; and how often each worker wakes while there is nothing to do for so many seconds.

#include <algorithm>
#include <array>
#include <chrono>
#include <iterator>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "figures.h"
#include "process.h"
#include "scenarios.h"
#include "stand_ins.h"

namespace {

struct Mechanism {
    const char* name;
    CvHandlerAPI* handler;
};

kit::LeanHost host;

// The time between commands and answers, as a network might take it.
void pass_time(std::mt19937& random) {
    std::this_thread::sleep_for(
        std::chrono::microseconds(std::uniform_int_distribution<long>(0, 2000)(random)));
}

void measure_latency(const Mechanism& mechanism, long registrations, std::mt19937& random, json_t* samples) {
    const Exchange exchange;
    const auto timed = [&](const auto& action) {
        pass_time(random);
        const std::int64_t begin = kit::nanoseconds();
        action();
        worker_idle().wait();
        json_array_append_new(samples, json_integer(host.arrival - begin));
    };
    init(host, *mechanism.handler);
    for (long done = 0; done < registrations; ++done) {
        timed([&] { host.command(*mechanism.handler, "start_cloud_registration", exchange.payload); });
        timed([&] { host.answer(exchange.login_answer); });
        timed([&] { host.answer(exchange.box_answer); });
        expect_replies(host, 1);
    }
    mechanism.handler->uninit();
}

json_t* measure_idle(const std::vector<Mechanism>& mechanisms, std::chrono::seconds window) {
    std::vector<std::vector<std::string>> threads;
    for (const Mechanism& mechanism : mechanisms) {
        const std::set<std::string> before = kit::names_in("/proc/self/task");
        init(host, *mechanism.handler);
        const std::set<std::string> after = kit::names_in("/proc/self/task");
        std::set_difference(after.begin(), after.end(), before.begin(), before.end(),
                            std::back_inserter(threads.emplace_back()));
    }
    const auto switches = [&] {
        std::vector<long> found;
        for (const std::vector<std::string>& of_mechanism : threads) {
            long sum = 0;
            for (const std::string& thread : of_mechanism) {
                sum += number_in("/proc/self/task/" + thread + "/status", "\nvoluntary_ctxt_switches:");
            }
            found.push_back(sum);
        }
        return found;
    };
    // The first sleep is not a wake-up.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const std::vector<long> begin = switches();
    std::this_thread::sleep_for(window);
    const std::vector<long> end = switches();
    json_t* const result = json_object();
    for (std::size_t index = 0; index < mechanisms.size(); ++index) {
        json_object_set_new(result, mechanisms[index].name,
                            json_pack("{s:I, s:I}", "threads", static_cast<json_int_t>(threads[index].size()),
                                      "switches", static_cast<json_int_t>(end[index] - begin[index])));
        mechanisms[index].handler->uninit();
    }
    return result;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        kit::die("usage: mechanisms LIBRARY REPEATS REGISTRATIONS SECONDS");
    }
    start_measuring();
    const long repeats = positive_number(argv[2]);
    const long registrations = positive_number(argv[3]);
    const std::chrono::seconds window(positive_number(argv[4]));
    stay_on_one_processor();
    const std::array stand_ins = {make_polling_worker(), make_condition_queue(), make_promise_with_timeout(),
                                  make_event_loop(), make_building_floor()};
    const std::vector<Mechanism> mechanisms = {
        {"module", &load_handler(argv[1])},         {"poll every 1 ms", stand_ins[0].get()},
        {"condition variable", stand_ins[1].get()}, {"promise with time-out", stand_ins[2].get()},
        {"event loop", stand_ins[3].get()},         {"pipe", stand_ins[4].get()},
    };
    std::mt19937 random(1);
    json_t* const latency = json_array();
    for (long repeat = 0; repeat < repeats; ++repeat) {
        json_t* const figures = json_object();
        for (const Mechanism& mechanism : mechanisms) {
            json_t* const samples = json_array();
            measure_latency(mechanism, registrations, random, samples);
            json_object_set_new(figures, mechanism.name, samples);
        }
        json_array_append_new(latency, figures);
    }
    json_t* const idle = measure_idle(mechanisms, window);
    print_result(json_pack("{s:o, s:I, s:o}", "latency", latency, "seconds",
                           static_cast<json_int_t>(window.count()), "idle", idle));
    return 0;
}
