#include "cloud/web_server.h"

#include <condition_variable>
#include <filesystem>
#include <functional>
#include <mutex>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace cloud {

namespace {

constexpr std::size_t request_limit = 1024 * 1024;

class ThreadPerConnection final : public httplib::TaskQueue {
public:
    void enqueue(std::function<void()> serve_connection) override {
        {
            const std::lock_guard lock(mutex);
            ++running;
        }
        std::thread([this, serve = std::move(serve_connection)] {
            serve();
            const std::lock_guard lock(mutex);
            --running;
            ended.notify_all();
        }).detach();
    }

    void shutdown() override {
        std::unique_lock lock(mutex);
        ended.wait(lock, [this] { return running == 0; });
    }

private:
    std::mutex mutex;
    std::condition_variable ended;
    unsigned running = 0;
};

bool is_end(bool is_peer, int descriptor, const std::string& ip, int port) {
    sockaddr_in end{};
    socklen_t length = sizeof end;
    auto* const raw = reinterpret_cast<sockaddr*>(&end);
    const int result =
        is_peer ? getpeername(descriptor, raw, &length) : getsockname(descriptor, raw, &length);
    return result == 0 && end.sin_family == AF_INET && ntohs(end.sin_port) == port &&
           inet_addr(ip.c_str()) == end.sin_addr.s_addr;
}

} // namespace

WebServer::WebServer(const std::string& certificate_file, const std::string& key_file)
    : protocol(certificate_file.empty() ? "http" : "https") {
    if (certificate_file.empty()) {
        server = std::make_unique<httplib::Server>();
    } else {
        server = std::make_unique<httplib::SSLServer>(certificate_file.c_str(), key_file.c_str());
    }
    if (!server->is_valid()) {
        throw std::runtime_error("cannot serve https with the certificate " + certificate_file +
                                 " and the key " + key_file + "; correct --tls-cert and --tls-key");
    }
    server->new_task_queue = [] { return new ThreadPerConnection; };
    server->set_payload_max_length(request_limit);
    // An idle connection would hold up the stop.
    server->set_keep_alive_max_count(1);
    // The library's own choice, SO_REUSEPORT, would let two clouds share a port unnoticed.
    server->set_socket_options([this](socket_t socket) {
        listening_socket = socket;
        const int yes = 1;
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
}

WebServer::~WebServer() {
    stop();
}

bool WebServer::start(const std::string& address, int port) {
    if (port == 0) {
        port = server->bind_to_any_port(address.c_str());
        if (port == -1) {
            return false;
        }
    } else if (!server->bind_to_port(address.c_str(), port)) {
        return false;
    }
    // The library keeps a queue of 5: of boxes that come all at once the others would try again a second
    // later.
    listen(listening_socket, SOMAXCONN);
    listening_on = protocol + "://" + address + ":" + std::to_string(port);
    listener = std::thread([this] { server->listen_after_bind(); });
    return true;
}

void WebServer::stop() {
    if (!listener.joinable()) {
        return;
    }
    // A stop() before the listener runs would be lost.
    while (!server->is_running()) {
        std::this_thread::yield();
    }
    server->stop();
    listener.join();
}

int connection_of(const httplib::Request& request) {
    // The library hands the descriptor to nobody; among those of the process it is the one with both ends of
    // the request.
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int descriptor = std::stoi(entry.path().filename());
        if (is_end(true, descriptor, request.remote_addr, request.remote_port) &&
            is_end(false, descriptor, request.local_addr, request.local_port)) {
            return descriptor;
        }
    }
    return -1;
}

} // namespace cloud
