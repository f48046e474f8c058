// The bytes that a cloud answers a request with, as the cloud access object takes them from a connection.

#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <thread>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/cloud_access.h"
#include "input.h"

namespace {

/// Answers each connection with the current input.
class Cloud {
public:
    Cloud() : listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* const raw = reinterpret_cast<sockaddr*>(&address);
        if (bind(listener, raw, length) == -1 || listen(listener, SOMAXCONN) == -1 ||
            getsockname(listener, raw, &length) == -1) {
            std::abort();
        }
        url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
        std::thread([this] { serve(); }).detach();
    }

    void set_answer(std::string bytes) {
        const std::lock_guard lock(answer_mutex);
        answer = std::move(bytes);
    }

    std::string url;

private:
    void serve() {
        char request[4096];
        for (;;) {
            const int connection = accept(listener, nullptr, nullptr);
            if (recv(connection, request, sizeof request, 0) > 0) {
                // The request may have ended, and the next answer may come, before this one is sent.
                const std::string bytes = current_answer();
                send(connection, bytes.data(), bytes.size(), MSG_NOSIGNAL);
                shutdown(connection, SHUT_WR);
                while (recv(connection, request, sizeof request, 0) > 0) {
                }
            }
            close(connection);
        }
    }

    std::string current_answer() {
        const std::lock_guard lock(answer_mutex);
        return answer;
    }

    const int listener;
    std::mutex answer_mutex;
    std::string answer;
};

class Access final : public sandbox::CloudAccess {
public:
    explicit Access(sandbox::CloudAccessOptions access_options) : CloudAccess(std::move(access_options)) {
        start();
    }
    ~Access() {
        shut_down();
    }
    int publish_message(const char*, const void*, unsigned int) override {
        return 0;
    }
    int send_response(const Message*) override {
        return 0;
    }
};

Access* access_object;
std::mutex mutex;
std::condition_variable called_back;
unsigned calls;

void take(cvtessel_response* response, void* /*user_data*/) {
    if (response->body_length > 4096) {
        std::abort();
    }
    access_object->release_response(response);
    const std::lock_guard lock(mutex);
    ++calls;
    called_back.notify_all();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static Cloud& cloud = *new Cloud;
    sandbox::CloudAccessOptions options;
    options.url = cloud.url;
    options.request_timeout = std::chrono::seconds(5);
    options.response_limit = 4096;
    static Access access(options);
    access_object = &access;
    cloud.set_answer(fuzz::Input(bytes, size).rest());
    std::unique_lock lock(mutex);
    calls = 0;
    if (access.send_request("{}", "connect/login", &take, nullptr) != 0) {
        std::abort();
    }
    called_back.wait(lock, [] { return calls > 0; });
    if (calls != 1) {
        std::abort();
    }
    return 0;
}
