// latency LIBRARY REPEATS REGISTRATIONS [LOG-LEVEL]
// From a command or an answer to what the worker sends because of it, for the module and for its two floors
// in turn, on one processor.

#include <sched.h>

#include <array>
#include <memory>
#include <utility>

#include "cvutils/log.h"
#include "figures.h"
#include "scenarios.h"
#include "stand_ins.h"

namespace {

constexpr std::array kSteps = {"start", "login", "box"};

struct Contender {
    const char* name;
    CvHandlerAPI* handler;
    std::unique_ptr<kit::LeanHost> host;
    std::array<json_t*, 3> samples;
};

// The worker has said that it is about to sleep; with the processor given away, it does.
void await_sleeping_worker() {
    worker_idle().wait();
    for (int times = 0; times < 3; ++times) {
        sched_yield();
    }
}

void register_box(Contender& contender, const Exchange& exchange) {
    kit::LeanHost& host = *contender.host;
    const auto timed = [&](std::size_t step, const auto& action) {
        const std::int64_t begin = kit::nanoseconds();
        action();
        await_sleeping_worker();
        json_array_append_new(contender.samples[step], json_integer(host.arrival - begin));
    };
    timed(0, [&] { host.command(*contender.handler, "start_cloud_registration", exchange.payload); });
    timed(1, [&] { host.answer(exchange.login_answer); });
    timed(2, [&] { host.answer(exchange.box_answer); });
    expect_replies(host, 1);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 4 && argc != 5) {
        kit::die("usage: latency LIBRARY REPEATS REGISTRATIONS [LOG-LEVEL]");
    }
    start_measuring();
    const long repeats = positive_number(argv[2]);
    const long registrations = positive_number(argv[3]);
    stay_on_one_processor();
    const std::unique_ptr<StandIn> floor = make_floor();
    const std::unique_ptr<StandIn> building_floor = make_building_floor();
    std::array contenders = {
        Contender{"module", &load_handler(argv[1]), std::make_unique<kit::LeanHost>(), {}},
        Contender{"floor", floor.get(), std::make_unique<kit::LeanHost>(), {}},
        Contender{"building floor", building_floor.get(), std::make_unique<kit::LeanHost>(), {}},
    };
    if (argc == 5) {
        cv::log::current_level = static_cast<int>(positive_number(argv[4]));
    }
    const Exchange exchange;
    for (Contender& contender : contenders) {
        init(*contender.host, *contender.handler);
        for (int warm_up = 0; warm_up < 100; ++warm_up) {
            register_box(*contender.host, *contender.handler, exchange);
        }
    }
    json_t* const result = json_array();
    for (long repeat = 0; repeat < repeats; ++repeat) {
        json_t* const figures = json_object();
        for (Contender& contender : contenders) {
            json_t* const steps = json_object();
            for (std::size_t step = 0; step < kSteps.size(); ++step) {
                contender.samples[step] = json_array();
                json_object_set_new(steps, kSteps[step], contender.samples[step]);
            }
            json_object_set_new(figures, contender.name, steps);
        }
        for (long done = 0; done < registrations; ++done) {
            for (Contender& contender : contenders) {
                register_box(contender, exchange);
            }
        }
        json_array_append_new(result, figures);
    }
    for (const Contender& contender : contenders) {
        contender.handler->uninit();
    }
    print_result(result);
    return 0;
}
