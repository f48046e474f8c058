// A handler that shows what the daemon owes to handlers. "probe_cloud" sends as many cloud requests as its
// payload says, a decimal number, and replies when the last of them has been called back. At the end it tells
// in the log how many requests were accepted and called back, and what a request gets that comes too late.

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "cvcloud/cvhandler_api.h"
#include "cvutils/log.h"

namespace {

CvCloudAPI* cloud = nullptr;
std::atomic<unsigned> accepted = 0;
std::atomic<unsigned> called_back = 0;

/// One "probe_cloud" command, shared by its requests; the last of them answers and deletes it.
struct Probe {
    std::uint64_t request_id;
    std::atomic<unsigned> outstanding;
    std::atomic<unsigned> failed;
};

void log_text(const std::string& text) {
    cv::log::print(0, 0, ("probe: " + text).c_str());
}

void reply(std::uint64_t request_id, const std::string& text) {
    Message message{};
    message.name[0] = '0';
    message.request_id = request_id;
    message.payload_len = static_cast<std::uint32_t>(text.size());
    message.payload = text.c_str();
    cloud->send_response(&message);
}

void count_callback(cvtessel_response* response, void* user_data) {
    auto* const probe = static_cast<Probe*>(user_data);
    ++called_back;
    if (response->status != 0) {
        ++probe->failed;
        log_text("status " + std::to_string(response->status) +
                 ", body: " + std::string(response->body, response->body_length));
    }
    cloud->release_response(response);
    if (--probe->outstanding == 0) {
        reply(probe->request_id, R"({"result": "ok", "failed": )" + std::to_string(probe->failed) + "}");
        delete probe;
    }
}

/// Every other request is a text of the handler's own, not of build_request().
int send(Probe* probe, unsigned number) {
    if (number % 2 == 1) {
        return cloud->send_request(R"({"method": 5, "id": "own"})", "connect/probe", count_callback, probe);
    }
    char* const request = cloud->build_request("probe", "{}", 2, true);
    const int result = cloud->send_request(request, "connect/probe", count_callback, probe);
    std::free(request);
    return result;
}

/// Sends once more from inside the callback, as a handler without end would.
void send_again(cvtessel_response* response, void* /*user_data*/) {
    ++called_back;
    cloud->release_response(response);
    const int result = cloud->send_request("{}", "connect/probe", send_again, nullptr);
    log_text("a request of its callback gets " + std::to_string(result));
}

class ProbeHandler final : public CvHandlerAPI {
public:
    int init(CvCloudAPI* api, std::vector<std::string>& commands) override {
        cloud = api;
        commands.insert(commands.end(), {"probe_cloud", "probe_hold", "probe_publish"});
        return 1;
    }

    void subscribe_for_cmds(std::vector<std::string>& commands) override {
        commands.emplace_back("probe_late_subscription");
    }

    void uninit() override {
        log_text("accepted " + std::to_string(accepted) + ", called back " + std::to_string(called_back));
        const unsigned before = called_back;
        const int result = cloud->send_request("{}", "connect/probe", send_again, nullptr);
        log_text("a request at the end gets " + std::to_string(result) + " and " +
                 std::to_string(called_back - before) + " callback");
    }

    void handle(const Message* message) override {
        const std::string name = message->name;
        const std::string payload(message->payload, message->payload_len);
        if (name == "probe_hold") {
            // Until somebody writes to the pipe.
            std::ifstream(payload).get();
        }
        if (name == "probe_publish") {
            for (auto left = std::stoul(payload); left > 0; --left) {
                cloud->publish_message("probe", "", 0);
            }
        }
        if (name != "probe_cloud") {
            reply(message->request_id, R"({"result": "ok"})");
            return;
        }
        const auto count = static_cast<unsigned>(std::stoul(payload));
        auto* const probe = new Probe{message->request_id, {count}, {0}};
        for (unsigned i = 0; i < count; ++i) {
            if (send(probe, i) == 0) {
                ++accepted;
            }
        }
        log_text("sent");
    }
};

ProbeHandler handler;

} // namespace

extern "C" CvHandlerAPI* get_handler_api() {
    return &handler;
}
