// The HTTP server of the simulated cloud, on GNU libmicrohttpd.
#ifndef CLOUD_WEB_SERVER_H
#define CLOUD_WEB_SERVER_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include <microhttpd.h>

namespace cloud {

/// The media type of what the cloud takes and sends.
inline constexpr const char* json_type = "application/json";

struct Request {
    std::string method;
    std::string path;
    std::string body;
};

struct Response {
    unsigned status = MHD_HTTP_OK;
    std::string body;
    const char* type = json_type;
    /// A document of so many bytes in the place of the body. It is made while it is sent.
    std::size_t padding = 0;
    /// The connection is closed instead.
    bool is_dropped = false;
    /// The response waits so long, or until WebServer::release().
    std::optional<std::chrono::milliseconds> wait;
};

/// Serves all connections on one thread, so a request that waits holds up no other. What a client can make it
/// hold is bounded: the connections, the bytes of a request, and the time.
class WebServer {
public:
    using Handler = std::function<Response(const Request&)>;

    /// A request may take `time_limit` to come, and its response to be taken. Serves https when certificate
    /// and key are given, two PEM files.
    explicit WebServer(std::chrono::milliseconds time_limit, std::string certificate_file = {},
                       std::string key_file = {});
    ~WebServer();
    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;

    /// Listens on the port of the IPv4 address, or on a free one for 0, and calls `handle_request` for each
    /// request, on a thread of its own. False when the port cannot be had; throws std::runtime_error for
    /// another reason.
    bool start(const std::string& address, int port, Handler handle_request);

    /// Lets every response go that waits.
    void release();

    /// Closes every connection and returns when no request is handled any more.
    void stop();

    /// http://ADDRESS:PORT, or with https.
    const std::string& url() const {
        return listening_on;
    }

private:
    using Clock = std::chrono::steady_clock;
    struct Exchange;
    struct Connection {
        int socket;
        Clock::time_point deadline;
        bool waits = false;
    };

    static MHD_Result handle(void* server, MHD_Connection* connection, const char* path, const char* method,
                             const char* version, const char* data, std::size_t* length, void** exchange);
    static void complete(void* server, MHD_Connection* connection, void** exchange,
                         MHD_RequestTerminationCode code);
    static void notify(void* server, MHD_Connection* connection, void** context,
                       MHD_ConnectionNotificationCode code);
    bool suspend(MHD_Connection* connection, std::chrono::milliseconds wait, std::uint64_t releases_before);
    void set_deadline(MHD_Connection* connection);
    void watch();
    void resume(bool all);

    const std::chrono::milliseconds time_limit;
    const std::string certificate_file;
    const std::string key_file;
    Handler handler;
    std::string listening_on;
    MHD_Daemon* daemon = nullptr;

    std::mutex mutex;
    std::map<MHD_Connection*, Connection> connections;
    std::atomic<bool> is_stopping = false;
    /// How often release() was called.
    std::atomic<std::uint64_t> releases = 0;
    /// Wakes the watching thread for a response that begins to wait.
    int changed = -1;
    /// Ends what has taken too long.
    std::thread watcher;
};

} // namespace cloud

#endif
