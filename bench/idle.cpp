// idle LIBRARY before|waiting|after SECONDS
// What the module's worker does while there is nothing to do: before a registration, while one waits for a
// response, or after its end.

#include <sys/prctl.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "figures.h"
#include "process.h"
#include "scenarios.h"

namespace {

struct Activity {
    long voluntary_switches;
    long involuntary_switches;
    /// On a processor, as the scheduler counts it.
    long nanoseconds;
};

Activity activity_of(const std::string& thread) {
    const std::string directory = "/proc/self/task/" + thread;
    return {number_in(directory + "/status", "\nvoluntary_ctxt_switches:"),
            number_in(directory + "/status", "nonvoluntary_ctxt_switches:"),
            number_in(directory + "/schedstat", "")};
}

// The worker has said that it is about to wait; the kernel tells when it does.
void await_sleep(const std::string& thread) {
    const std::string file = "/proc/self/task/" + thread + "/status";
    for (;;) {
        std::ifstream stream(file);
        const std::string text((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
        if (text.find("State:\tS") != std::string::npos) {
            return;
        }
        std::this_thread::yield();
    }
}

} // namespace

int main(int argc, char** argv) {
    const std::string phase = argc == 4 ? argv[2] : "";
    if (phase != "before" && phase != "waiting" && phase != "after") {
        kit::die("usage: idle LIBRARY before|waiting|after SECONDS");
    }
    start_measuring();
    const std::chrono::seconds window(positive_number(argv[3]));
    CvHandlerAPI& handler = load_handler(argv[1]);
    kit::LeanHost host;
    const Exchange exchange;
    const std::set<std::string> before = kit::names_in("/proc/self/task");
    init(host, handler);
    const std::set<std::string> after = kit::names_in("/proc/self/task");
    std::vector<std::string> workers;
    std::set_difference(after.begin(), after.end(), before.begin(), before.end(),
                        std::back_inserter(workers));
    if (workers.size() != 1) {
        kit::die("the module should have one thread, not " + std::to_string(workers.size()));
    }
    if (phase == "waiting") {
        host.command(handler, "start_cloud_registration", exchange.payload);
        worker_idle().wait();
    } else if (phase == "after") {
        register_box(host, handler, exchange);
    }
    await_sleep(workers[0]);
    const Activity begin = activity_of(workers[0]);
    std::this_thread::sleep_for(window);
    const Activity end = activity_of(workers[0]);
    if (phase == "waiting") {
        answer_requests(host, exchange);
    }
    handler.uninit();
    print_result(json_pack("{s:s, s:I, s:I, s:I, s:I}", "phase", phase.c_str(), "seconds",
                           static_cast<json_int_t>(window.count()), "voluntary_switches",
                           static_cast<json_int_t>(end.voluntary_switches - begin.voluntary_switches),
                           "involuntary_switches",
                           static_cast<json_int_t>(end.involuntary_switches - begin.involuntary_switches),
                           "cpu_nanoseconds", static_cast<json_int_t>(end.nanoseconds - begin.nanoseconds)));
    return 0;
}
