#include "cloud/web_server.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace cloud {

namespace {

constexpr unsigned connection_limit = 2048;
/// Of a request's head and of its body, in bytes.
constexpr std::size_t head_limit = 8 * 1024;
constexpr std::size_t body_limit = 64 * 1024;
/// Of a connection on which nothing happens.
constexpr unsigned idle_seconds = 10;
/// How often the time limit is checked.
constexpr std::chrono::seconds watch_interval{1};

constexpr std::string_view padding_head = R"({"padding": ")";
constexpr std::string_view padding_tail = R"("})";

/// The part of a document of `*size` bytes from `begin` on.
ssize_t read_padding(void* size, std::uint64_t begin, char* part, std::size_t length) {
    const std::size_t tail_begin = *static_cast<std::size_t*>(size) - padding_tail.size();
    auto position = static_cast<std::size_t>(begin);
    for (std::size_t i = 0; i < length; ++i, ++position) {
        part[i] = position < padding_head.size() ? padding_head[position]
                  : position < tail_begin        ? 'x'
                                                 : padding_tail[position - tail_begin];
    }
    return static_cast<ssize_t>(length);
}

void free_padding(void* size) {
    delete static_cast<std::size_t*>(size);
}

using OwnedResponse = std::unique_ptr<MHD_Response, void (*)(MHD_Response*)>;

MHD_Result queue(MHD_Connection* connection, const Response& response) {
    const OwnedResponse queued(
        response.padding > 0
            ? MHD_create_response_from_callback(response.padding, head_limit, &read_padding,
                                                new std::size_t(response.padding), &free_padding)
            : MHD_create_response_from_buffer(response.body.size(), const_cast<char*>(response.body.data()),
                                              MHD_RESPMEM_MUST_COPY),
        &MHD_destroy_response);
    MHD_add_response_header(queued.get(), MHD_HTTP_HEADER_CONTENT_TYPE, response.type);
    return MHD_queue_response(connection, response.status, queued.get());
}

std::string read_file(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// A socket that listens, or -1.
int listen_on(const std::string& address, int port) {
    sockaddr_in end{};
    end.sin_family = AF_INET;
    end.sin_port = htons(static_cast<std::uint16_t>(port));
    inet_pton(AF_INET, address.c_str(), &end.sin_addr);
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int yes = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    if (bind(socket, reinterpret_cast<const sockaddr*>(&end), sizeof end) == -1 ||
        listen(socket, SOMAXCONN) == -1) {
        close(socket);
        return -1;
    }
    return socket;
}

int port_of(int socket) {
    sockaddr_in end{};
    socklen_t length = sizeof end;
    getsockname(socket, reinterpret_cast<sockaddr*>(&end), &length);
    return ntohs(end.sin_port);
}

} // namespace

/// A request as it comes in, and its response as soon as there is one.
struct WebServer::Exchange {
    Request request;
    std::optional<Response> response;
};

WebServer::WebServer(std::chrono::milliseconds limit, std::string certificate, std::string key)
    : time_limit(limit), certificate_file(std::move(certificate)), key_file(std::move(key)) {}

WebServer::~WebServer() {
    stop();
}

bool WebServer::start(const std::string& address, int port, Handler handle_request) {
    handler = std::move(handle_request);
    const int socket = listen_on(address, port);
    if (socket == -1) {
        return false;
    }
    const bool is_secure = !certificate_file.empty();
    listening_on = (is_secure ? "https://" : "http://") + address + ":" + std::to_string(port_of(socket));
    rlimit descriptors{};
    getrlimit(RLIMIT_NOFILE, &descriptors);
    const std::string certificate = read_file(certificate_file);
    const std::string key = read_file(key_file);
    std::vector<MHD_OptionItem> options{
        {MHD_OPTION_LISTEN_SOCKET, socket, nullptr},
        {MHD_OPTION_CONNECTION_LIMIT,
         static_cast<intptr_t>(std::min<rlim_t>(connection_limit, descriptors.rlim_cur / 2)), nullptr},
        {MHD_OPTION_CONNECTION_MEMORY_LIMIT, head_limit, nullptr},
        {MHD_OPTION_CONNECTION_TIMEOUT, idle_seconds, nullptr},
        {MHD_OPTION_NOTIFY_COMPLETED, reinterpret_cast<intptr_t>(&WebServer::complete), this},
        {MHD_OPTION_NOTIFY_CONNECTION, reinterpret_cast<intptr_t>(&WebServer::notify), this}};
    if (is_secure) {
        options.push_back({MHD_OPTION_HTTPS_MEM_CERT, 0, const_cast<char*>(certificate.c_str())});
        options.push_back({MHD_OPTION_HTTPS_MEM_KEY, 0, const_cast<char*>(key.c_str())});
    }
    options.push_back({MHD_OPTION_END, 0, nullptr});
    changed = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    daemon = MHD_start_daemon(
        MHD_USE_EPOLL_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME | (is_secure ? MHD_USE_TLS : 0), 0, nullptr,
        nullptr, &WebServer::handle, this, MHD_OPTION_ARRAY, options.data(), MHD_OPTION_END);
    if (daemon == nullptr) {
        const std::string reason = std::strerror(errno);
        close(socket);
        throw std::runtime_error(is_secure
                                     ? "cannot serve https with the certificate " + certificate_file +
                                           " and the key " + key_file + "; correct --tls-cert and --tls-key"
                                     : "cannot serve http: " + reason);
    }
    watcher = std::thread(&WebServer::watch, this);
    return true;
}

void WebServer::release() {
    ++releases;
    resume(true);
}

void WebServer::stop() {
    if (daemon != nullptr) {
        {
            // After it no response begins to wait.
            const std::lock_guard lock(mutex);
            is_stopping = true;
        }
        eventfd_write(changed, 1);
        watcher.join();
        resume(true);
        MHD_stop_daemon(std::exchange(daemon, nullptr));
    }
    if (changed != -1) {
        close(std::exchange(changed, -1));
    }
}

MHD_Result WebServer::handle(void* server, MHD_Connection* connection, const char* path, const char* method,
                             const char* /*version*/, const char* data, std::size_t* length,
                             void** exchange_place) {
    auto& self = *static_cast<WebServer*>(server);
    if (*exchange_place == nullptr) {
        *exchange_place = new Exchange{{method, path, {}}, std::nullopt};
        const char* const announced =
            MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
        const bool is_too_long = announced != nullptr && std::strtoull(announced, nullptr, 10) > body_limit;
        return is_too_long ? queue(connection, {MHD_HTTP_CONTENT_TOO_LARGE, {}, json_type, 0, false, {}})
                           : MHD_YES;
    }
    auto& exchange = *static_cast<Exchange*>(*exchange_place);
    if (*length > 0) {
        // A body that has not told its length ends the connection when it is too long.
        if (exchange.request.body.size() + *length > body_limit) {
            return MHD_NO;
        }
        exchange.request.body.append(data, std::exchange(*length, 0));
        return MHD_YES;
    }
    if (!exchange.response) {
        const std::uint64_t releases_before = self.releases;
        exchange.response = self.handler(exchange.request);
        if (exchange.response->wait && self.suspend(connection, *exchange.response->wait, releases_before)) {
            return MHD_YES;
        }
    }
    self.set_deadline(connection);
    return exchange.response->is_dropped || self.is_stopping ? MHD_NO : queue(connection, *exchange.response);
}

/// Nothing of a suspended connection is looked at until it is resumed: then its request is handled again.
/// False when it must not wait, since it was released after `releases_before` or everything is.
bool WebServer::suspend(MHD_Connection* connection, std::chrono::milliseconds wait,
                        std::uint64_t releases_before) {
    const std::lock_guard lock(mutex);
    const auto found = connections.find(connection);
    if (is_stopping || releases != releases_before || found == connections.end()) {
        return false;
    }
    found->second.deadline = Clock::now() + wait;
    found->second.waits = true;
    MHD_suspend_connection(connection);
    eventfd_write(changed, 1);
    return true;
}

void WebServer::complete(void* server, MHD_Connection* connection, void** exchange,
                         MHD_RequestTerminationCode /*code*/) {
    delete static_cast<Exchange*>(std::exchange(*exchange, nullptr));
    static_cast<WebServer*>(server)->set_deadline(connection);
}

void WebServer::notify(void* server, MHD_Connection* connection, void** /*context*/,
                       MHD_ConnectionNotificationCode code) {
    auto& self = *static_cast<WebServer*>(server);
    const std::lock_guard lock(self.mutex);
    if (code == MHD_CONNECTION_NOTIFY_STARTED) {
        const int socket = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
        self.connections[connection] = {socket, Clock::now() + self.time_limit};
    } else {
        self.connections.erase(connection);
    }
}

void WebServer::set_deadline(MHD_Connection* connection) {
    const std::lock_guard lock(mutex);
    if (const auto found = connections.find(connection); found != connections.end()) {
        found->second.deadline = Clock::now() + time_limit;
    }
}

void WebServer::watch() {
    for (;;) {
        std::vector<pollfd> descriptors{{changed, POLLIN, 0}};
        auto wake_up = Clock::now() + watch_interval;
        {
            const std::lock_guard lock(mutex);
            if (is_stopping) {
                return;
            }
            for (const auto& [connection, state] : connections) {
                if (state.waits) {
                    wake_up = std::min(wake_up, state.deadline);
                    // Its client may give up.
                    descriptors.push_back({state.socket, POLLRDHUP, 0});
                }
            }
        }
        const auto pause = std::chrono::ceil<std::chrono::milliseconds>(wake_up - Clock::now()).count();
        poll(descriptors.data(), descriptors.size(), static_cast<int>(std::max<std::int64_t>(pause, 0)));
        eventfd_t count = 0;
        eventfd_read(changed, &count);
        {
            const std::lock_guard lock(mutex);
            for (auto& [connection, state] : connections) {
                const bool has_left =
                    state.waits && std::any_of(descriptors.begin() + 1, descriptors.end(),
                                               [socket = state.socket](const pollfd& item) {
                                                   return item.fd == socket && item.revents != 0;
                                               });
                if (has_left) {
                    state.deadline = Clock::now();
                } else if (!state.waits && state.deadline <= Clock::now()) {
                    shutdown(state.socket, SHUT_RDWR);
                }
            }
        }
        resume(false);
    }
}

/// Lets the responses go that have waited long enough, or all.
void WebServer::resume(bool all) {
    std::vector<MHD_Connection*> resumed;
    {
        const std::lock_guard lock(mutex);
        for (auto& [connection, state] : connections) {
            if (state.waits && (all || state.deadline <= Clock::now())) {
                state.waits = false;
                state.deadline = Clock::now() + time_limit;
                resumed.push_back(connection);
            }
        }
    }
    // Only what is resumed here can end.
    for (MHD_Connection* const connection : resumed) {
        MHD_resume_connection(connection);
    }
}

} // namespace cloud
