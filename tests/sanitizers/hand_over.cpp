// Registrations in a host that adds nothing to the module's own synchronisation: no log, no waiting for the
// end of a run. Its only lock hands the requests over to the thread that answers them. What the module does
// without a hand-over between its threads is therefore to be seen by the thread sanitizer.

#include <sched.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "cvcloud/cvhandler_api.h"
#include "cvcloudregisterhandler.h"
#include "cvutils/log.h"
#include "fake_cvutils.h"

namespace {

constexpr int kRegistrations = 300;

// The last reply that was sent on this thread.
thread_local std::string last_reply;

class Cloud final : public CvCloudAPI {
public:
    Cloud() : answers([this] { answer_requests(); }) {}

    /// Returns when every request is answered; none may follow.
    void finish() {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            finished = true;
        }
        changed.notify_one();
        answers.join();
    }

    int send_request(const char* /*request*/, const char* /*service*/, cvtessel_callback callback,
                     void* user_data) override {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            requests.push_back({callback, user_data});
        }
        changed.notify_one();
        return 0;
    }
    void release_response(cvtessel_response* response) override {
        delete response;
    }
    char* build_request(const char* /*method*/, const char* /*params*/, unsigned int /*params_len*/,
                        bool /*add_connect_fields*/) override {
        return strdup("request");
    }
    int publish_message(const char* /*name*/, const void* /*data*/, unsigned int /*length*/) override {
        return 0;
    }
    int daemon_operation() override {
        return 0;
    }
    int send_response(const Message* reply) override {
        last_reply.assign(reply->payload, reply->payload_len);
        // Relaxed, as nothing else may be handed over with it.
        replies.fetch_add(1, std::memory_order_relaxed);
        return 0;
    }

    std::atomic<int> replies{0};

private:
    struct Request {
        cvtessel_callback callback;
        void* user_data;
    };

    void answer_requests() {
        std::string body = R"({"result": {"user_token": "U", "device_id": "D"}})";
        for (unsigned int count = 0;; ++count) {
            Request request = {};
            {
                std::unique_lock<std::mutex> lock(mutex);
                changed.wait(lock, [this] { return !requests.empty() || finished; });
                if (requests.empty()) {
                    return;
                }
                request = requests.front();
                requests.pop_front();
            }
            // Some registrations fail, at either step.
            const std::uint32_t status = count % 5 == 4 ? 504 : 0;
            request.callback(
                new cvtessel_response{status, 0, body.data(), static_cast<std::uint32_t>(body.length())},
                request.user_data);
        }
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Request> requests;
    bool finished = false;
    std::thread answers; // The last member: it uses the others.
};

// Sends a start command again and again until no registration is in progress; returns the refusals.
int send_start(const std::string& payload) {
    Message message = {};
    message.type = 2;
    std::strcpy(message.name, "start_cloud_registration");
    message.payload_len = static_cast<std::uint32_t>(payload.length());
    message.payload = payload.data();
    for (int refusals = 0;; ++refusals) {
        last_reply.clear();
        get_handler_api()->handle(&message);
        if (last_reply.find("error_in_progress") == std::string::npos) {
            return refusals;
        }
        sched_yield();
    }
}

} // namespace

int main() {
    cv::log::current_level = -1;
    fake_host::set_setting("/daemons/cvcloudd/registration/retry_num", 0);
    Cloud cloud;
    std::vector<std::string> commands;
    if (get_handler_api()->init(&cloud, commands) == 0) {
        std::fputs("hand_over: init() failed\n", stderr);
        return 1;
    }
    int refusals = 0;
    for (int count = 0; count < kRegistrations; ++count) {
        const std::string type = count % 2 == 0 ? "partner" : "temporary";
        refusals +=
            send_start(R"({"token": "T", "register_mac_address": "0a", "token_type": ")" + type + R"("})");
    }
    refusals +=
        send_start("") + 1; // Not a registration, and refused for its payload when the last one has ended.
    cloud.finish();
    get_handler_api()->uninit();
    const int ended = cloud.replies.load() - refusals;
    std::printf("hand_over: %d registrations, %d ended\n", kRegistrations, ended);
    return ended == kRegistrations ? 0 : 1;
}
