#include "stand_ins.h"
#include "scenarios.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <future>
#include <mutex>

#include "cvutils/json.h"

int StandIn::init(CvCloudAPI* api, std::vector<std::string>& /*commands*/) {
    cloud = api;
    stopping = false;
    worker = std::thread(&StandIn::work, this);
    return 1;
}

void StandIn::uninit() {
    stopping = true;
    wake();
    worker.join();
}

void StandIn::handle(const Message* message) {
    json_t* const payload = json_loadb(message->payload, message->payload_len, 0, nullptr);
    take(CONNECT, payload);
    json_decref(payload);
    step = CONNECT;
    wake();
}

void StandIn::respond(cvtessel_response* response, void* stand_in) {
    auto* const self = static_cast<StandIn*>(stand_in);
    json_t* const body = json_loadb(response->body, response->body_length, 0, nullptr);
    self->step = self->step == CONNECT ? REGISTER_BOX : FINISH;
    self->take(self->step, body);
    json_decref(body);
    self->cloud->release_response(response);
    self->wake();
}

void StandIn::work() {
    for (wait(); !stopping; wait()) {
        char* const text = text_of(step);
        const auto length = static_cast<unsigned int>(std::strlen(text));
        if (step == FINISH) {
            cloud->publish_message("cloud_registration_done", text, length);
            const Message reply = {};
            cloud->send_response(&reply);
        } else {
            char* const request = cloud->build_request("a method", text, length, true);
            cloud->send_request(request, "a service", respond, this);
            std::free(request);
        }
        std::free(text);
    }
}

void StandIn::take(Step next_step, const json_t* document) {
    const auto result = [document](const char* name) {
        return cv::json_extract_string_value(cv::json_object_get_recursive(document, {"result", name}));
    };
    switch (next_step) {
    case CONNECT:
        token = cv::json_extract_string_value(document, "token");
        mac = cv::json_extract_string_value(document, "register_mac_address");
        break;
    case REGISTER_BOX:
        user_token = result("user_token");
        break;
    case FINISH:
        device_id = result("device_id");
        break;
    }
}

char* StandIn::text_of(Step current_step) {
    json_t* const document = json_object();
    switch (current_step) {
    case CONNECT:
        cv::json_attach_value(document, "partner_user_token", token.c_str());
        cv::json_attach_value(document, "partner_id", cloud->partner_id.c_str());
        break;
    case REGISTER_BOX:
        cv::json_attach_value(document, "macs", std::vector<std::string>{mac});
        cv::json_attach_value(document, "box_detected_name", "Corvane Orlo");
        cv::json_attach_value(document, "setup_type", "STANDALONE");
        cv::json_attach_value(document, "device_model", "orlov2");
        break;
    case FINISH:
        cv::json_attach_value(document, "result", "ok");
        cv::json_attach_value(document, "user_token", user_token.c_str());
        cv::json_attach_value(document, "device_id", device_id.c_str());
        break;
    }
    char* const text = json_dumps(document, 0);
    json_decref(document);
    return text;
}

namespace {

class PollingWorker : public StandIn {
    void wake() override {
        woken = true;
    }

    void wait() override {
        worker_idle().signal();
        while (!woken.exchange(false)) {
            usleep(1000);
        }
    }

    std::atomic<bool> woken{false};
};

class ConditionQueue : public StandIn {
    void wake() override {
        const std::lock_guard<std::mutex> lock(mutex);
        queue.push_back('x');
        changed.notify_one();
    }

    void wait() override {
        worker_idle().signal();
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [this] { return !queue.empty(); });
        queue.pop_front();
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::deque<char> queue;
};

class PromiseWithTimeout : public StandIn {
    void wake() override {
        const std::lock_guard<std::mutex> lock(mutex);
        promise.set_value();
    }

    void wait() override {
        std::future<void> future = promise.get_future();
        worker_idle().signal();
        while (future.wait_for(std::chrono::seconds(1)) != std::future_status::ready) {
            // A time-out: nothing is overdue yet.
        }
        const std::lock_guard<std::mutex> lock(mutex); // The promise is in use until wake() returns.
        promise = {};
    }

    std::mutex mutex;
    std::promise<void> promise;
};

class EventLoop : public StandIn {
public:
    EventLoop() {
        epoll_event event = {};
        event.events = EPOLLIN;
        epoll_ctl(loop, EPOLL_CTL_ADD, wake_up, &event);
    }
    ~EventLoop() override {
        close(loop);
        close(wake_up);
    }
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

private:
    void wake() override {
        eventfd_write(wake_up, 1);
    }

    void wait() override {
        worker_idle().signal();
        epoll_event event = {};
        epoll_wait(loop, &event, 1, -1);
        eventfd_t count = 0;
        eventfd_read(wake_up, &count);
    }

    int loop = epoll_create1(0);
    int wake_up = eventfd(0, EFD_SEMAPHORE);
};

class BuildingFloor : public StandIn {
public:
    BuildingFloor() {
        if (pipe2(run_pipe, O_NONBLOCK) != 0 || pipe2(stop_pipe, O_NONBLOCK) != 0) {
            kit::die("there is no pipe for the floor");
        }
    }
    ~BuildingFloor() override {
        for (const int end : {run_pipe[0], run_pipe[1], stop_pipe[0], stop_pipe[1]}) {
            close(end);
        }
    }
    BuildingFloor(const BuildingFloor&) = delete;
    BuildingFloor& operator=(const BuildingFloor&) = delete;

private:
    void wake() override {
        pollfd writable = {run_pipe[1], POLLOUT, 0};
        if (poll(&writable, 1, 0) < 1 || write(run_pipe[1], "x", 1) != 1) {
            kit::die("the floor's pipe is full");
        }
    }

    void wait() override {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(run_pipe[0], &readable);
        FD_SET(stop_pipe[0], &readable);
        char byte = 0;
        if (select(std::max(run_pipe[0], stop_pipe[0]) + 1, &readable, nullptr, nullptr, nullptr) != 1 ||
            read(run_pipe[0], &byte, 1) != 1) {
            kit::die("the floor's pipe is not readable");
        }
    }

    int run_pipe[2] = {};
    int stop_pipe[2] = {};
};

class Floor : public BuildingFloor {
public:
    ~Floor() override {
        for (json_t* const document : documents) {
            json_decref(document);
        }
    }

private:
    void take(Step /*step*/, const json_t* /*document*/) override {}

    char* text_of(Step current_step) override {
        return json_dumps(documents[current_step], 0);
    }

    std::array<json_t*, 3> documents = {
        json_pack("{s:s, s:s}", "partner_user_token", std::string(32, 't').c_str(), "partner_id",
                  "the partner's identifier"),
        json_pack("{s:[s], s:s, s:s, s:s}", "macs", "0A:1B:2C:3D:4E:5F", "box_detected_name", "Corvane Orlo",
                  "setup_type", "STANDALONE", "device_model", "orlov2"),
        json_pack("{s:s, s:s, s:s}", "result", "ok", "user_token", std::string(32, 'u').c_str(), "device_id",
                  "box-0123456789abcdef"),
    };
};

} // namespace

std::unique_ptr<StandIn> make_polling_worker() {
    return std::make_unique<PollingWorker>();
}

std::unique_ptr<StandIn> make_condition_queue() {
    return std::make_unique<ConditionQueue>();
}

std::unique_ptr<StandIn> make_promise_with_timeout() {
    return std::make_unique<PromiseWithTimeout>();
}

std::unique_ptr<StandIn> make_event_loop() {
    return std::make_unique<EventLoop>();
}

std::unique_ptr<StandIn> make_building_floor() {
    return std::make_unique<BuildingFloor>();
}

std::unique_ptr<StandIn> make_floor() {
    return std::make_unique<Floor>();
}
