#ifndef CLOUD_WEB_SERVER_H
#define CLOUD_WEB_SERVER_H

#include <memory>
#include <string>
#include <thread>

#include <httplib.h>

namespace cloud {

/// The media type of what the cloud takes and sends.
inline constexpr const char* json_type = "application/json";

/// A server with a thread for each connection, so that a request which is not answered holds up no other.
class WebServer {
public:
    /// Serves https when certificate and key are given, two PEM files. Throws std::runtime_error when they
    /// cannot be used.
    explicit WebServer(const std::string& certificate_file = {}, const std::string& key_file = {});
    ~WebServer();
    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;

    /// For the routes, before start().
    httplib::Server& routes() {
        return *server;
    }

    /// Listens on the port of the IPv4 address, or on a free one for 0, and serves on threads of its own.
    /// False when the port cannot be had.
    bool start(const std::string& address, int port);

    /// Returns when every request that has come is over.
    void stop();

    /// http://ADDRESS:PORT, or with https.
    const std::string& url() const {
        return listening_on;
    }

private:
    std::string protocol;
    std::unique_ptr<httplib::Server> server;
    std::string listening_on;
    std::thread listener;
    int listening_socket = -1;
};

/// The descriptor of the connection that the request came over, or -1. For the request's own thread while it
/// handles the request.
int connection_of(const httplib::Request& request);

} // namespace cloud

#endif
