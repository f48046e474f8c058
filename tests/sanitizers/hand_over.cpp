// Registrations in a host that adds nothing to the module's own synchronisation: no log, no lock, no waiting for the end
// of a run. A signal for each request hands it over to the thread that answers it. What the module does without a
// hand-over between its threads is therefore to be seen by the thread sanitizer.

#include <sched.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>

#include "cvcloudregisterhandler.h"
#include "cvutils/log.h"
#include "cvutils_stand_in.h"
#include "lean_host.h"

namespace {

constexpr int kRegistrations = 300;

} // namespace

int main() {
    cv::log::current_level = -1;
    kit::set_setting("/daemons/cvcloudd/registration/retry_num", 0);
    kit::LeanHost host;
    const kit::Signal sent;
    host.held = &sent;
    host.init(*get_handler_api());

    std::atomic<bool> finished{false};
    std::thread answers([&] {
        for (unsigned int count = 0;; ++count) {
            sent.wait();
            if (finished) {
                return;
            }
            // Some registrations fail, at either step.
            host.answer(R"({"result": {"user_token": "U", "device_id": "D"}})", count % 5 == 4 ? 504 : 0);
        }
    });

    int refusals = 0;
    for (int count = 0; count < kRegistrations; ++count) {
        const std::string type = count % 2 == 0 ? "partner" : "temporary";
        const std::string payload = R"({"token": "T", "register_mac_address": "0a", "token_type": ")" + type + R"("})";
        while (host.command(*get_handler_api(), "start_cloud_registration", payload)) {
            ++refusals;
            sched_yield();
        }
    }
    while (host.replies.load(std::memory_order_relaxed) < refusals + kRegistrations) {
        sched_yield();
    }
    finished = true;
    sent.signal();
    answers.join();
    get_handler_api()->uninit();
    std::printf("hand_over: %d registrations, each ended once\n", kRegistrations);
    return 0;
}
