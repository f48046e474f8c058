#include "cvcloudd/exchange.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <pthread.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "common/json_text.h"
#include "cvcloudd/log_line.h"

namespace cvcloudd {

namespace {

constexpr int linger_milliseconds = 1000;
/// So many commands may wait for the dispatch thread, and as many for their reply.
constexpr std::size_t commands_limit = 1000;
/// What libzmq keeps of one client before this thread has read it: messages, and bytes of a frame. One that
/// is longer ends the connection.
constexpr int unread_limit = 100;
constexpr std::int64_t frame_limit = 16 * cvex::payload_limit;

void open_socket(zmq::socket_t& socket, const std::string& endpoint) {
    socket.set(zmq::sockopt::linger, linger_milliseconds);
    try {
        socket.bind(endpoint);
    } catch (const zmq::error_t& error) {
        throw std::runtime_error("cannot serve the socket " + cvex::socket_file(endpoint) + ": " +
                                 error.what() + "; check --run-dir");
    }
}

/// Kept open to be closed when a connection has come for which no descriptor is left.
std::atomic<int> reserve_descriptor{-1};

} // namespace

/// What libzmq accepts connections with. It ends the process when no descriptor is left: such a connection is
/// accepted in the place of the reserve and closed. On libzmq's thread alone.
extern "C" int accept4(int socket, sockaddr* address, socklen_t* length, int flags) {
    const auto accept_one = [=] {
        return static_cast<int>(syscall(SYS_accept4, socket, address, length, flags));
    };
    const int accepted = accept_one();
    if (accepted != -1 || errno != EMFILE || reserve_descriptor == -1) {
        return accepted;
    }
    log_line(0, "a client is turned away: no descriptor is left; raise ulimit -n");
    close(reserve_descriptor);
    close(accept_one());
    reserve_descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
    errno = ECONNABORTED;
    return -1;
}

std::string error_reply(const std::string& result, const std::string& reason) {
    const nlohmann::ordered_json reply{{"result", result}, {"reason", reason}};
    return sandbox::json_line(reply);
}

Exchange::DirectoryLock::DirectoryLock(const std::string& run_directory) {
    cvex::check_run_directory(run_directory);
    const std::string path = run_directory + "/cvcloudd.lock";
    descriptor = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (descriptor == -1) {
        throw std::runtime_error("cannot create " + path + ": " + std::strerror(errno) +
                                 "; --run-dir names a directory that this user may write");
    }
    if (flock(descriptor, LOCK_EX | LOCK_NB) == -1) {
        close(descriptor);
        throw std::runtime_error("another cvcloudd already serves the run directory " + run_directory +
                                 ": stop it or use another --run-dir");
    }
}

Exchange::DirectoryLock::~DirectoryLock() {
    close(descriptor);
}

Exchange::Exchange(const std::string& run_directory)
    : lock(run_directory), router(context, zmq::socket_type::router),
      publisher(context, zmq::socket_type::xpub) {
    // Each new subscription is to be seen here, also when others have subscribed to the same before.
    publisher.set(zmq::sockopt::xpub_verbose, 1);
    router.set(zmq::sockopt::rcvhwm, unread_limit);
    router.set(zmq::sockopt::maxmsgsize, frame_limit);
    publisher.set(zmq::sockopt::maxmsgsize, frame_limit);
    // A reply that cannot be sent is an error, not silently lost.
    router.set(zmq::sockopt::router_mandatory, 1);
    // The lock is held, so a socket file that is still there was left by a daemon that was killed: it is
    // replaced.
    reserve_descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
    open_socket(publisher, cvex::published_endpoint(run_directory));
    open_socket(router, cvex::commands_endpoint(run_directory));
    thread = std::thread(&Exchange::run, this);
}

Exchange::~Exchange() {
    refuse_commands();
    outgoing.close();
    thread.join();
}

void Exchange::refuse_commands() {
    received.close();
    while (const auto waiting = received.take()) {
        reply(waiting->request_id, error_reply("error_other", "cvcloudd is stopping"));
    }
}

bool Exchange::reply(std::uint64_t request_id, std::string payload) {
    current_activity.replied(request_id, payload);
    return outgoing.put(OutgoingReply{request_id, std::move(payload)});
}

bool Exchange::publish(std::string name, std::string payload) {
    current_activity.published(name);
    return outgoing.put(OutgoingMessage{std::move(name), std::move(payload)});
}

void Exchange::run() {
    pthread_setname_np(pthread_self(), "exchange");
    while (!outgoing.finished()) {
        std::array<zmq::pollitem_t, 3> items{{{router.handle(), 0, ZMQ_POLLIN, 0},
                                              {publisher.handle(), 0, ZMQ_POLLIN, 0},
                                              {nullptr, outgoing.fd(), ZMQ_POLLIN, 0}}};
        zmq::poll(items.data(), items.size(), std::chrono::milliseconds(-1));
        if ((items[0].revents & ZMQ_POLLIN) != 0) {
            receive_command();
        }
        if ((items[1].revents & ZMQ_POLLIN) != 0) {
            acknowledge_subscriptions();
        }
        while (const auto item = outgoing.take()) {
            if (const auto* reply_item = std::get_if<OutgoingReply>(&*item)) {
                send_reply(*reply_item);
            } else {
                const auto& message = std::get<OutgoingMessage>(*item);
                send_published(message.name, message.payload);
            }
        }
    }
    for (const auto& [request_id, requester] : requesters) {
        send_reply_to(requester,
                      error_reply("error_internal", "cvcloudd stopped before the command was answered"));
    }
}

void Exchange::receive_command() {
    cvex::Requester sender;
    try {
        ReceivedCommand item{++last_request_id, cvex::receive_command(router, sender)};
        const bool wants_reply = item.command.type == cvex::type_wants_reply;
        if (received.size() >= commands_limit || requesters.size() >= commands_limit) {
            const std::string reason = std::to_string(commands_limit) + " commands wait already";
            log_line(1, "the command " + item.command.name + " is refused: " + reason);
            if (wants_reply) {
                send_reply_to(sender, error_reply("error_other", reason));
            }
            return;
        }
        if (wants_reply) {
            requesters[item.request_id] = sender;
        }
        if (!received.put(std::move(item))) {
            send_reply({last_request_id, error_reply("error_other", "cvcloudd is stopping")});
        }
    } catch (const std::invalid_argument& error) {
        log_line(1, std::string("command refused: ") + error.what());
        send_reply_to(sender, error_reply("error_other", error.what()));
    }
}

void Exchange::acknowledge_subscriptions() {
    // One message for all that have come: every subscriber gets it.
    bool has_come = false;
    zmq::message_t message;
    while (publisher.recv(message, zmq::recv_flags::dontwait)) {
        has_come = has_come || (message.size() > 0 && *message.data<char>() == 1);
    }
    if (has_come) {
        send_published(cvex::subscribed_message, "");
    }
}

void Exchange::send_reply(const OutgoingReply& reply_item) {
    const auto requester = requesters.find(reply_item.request_id);
    if (requester == requesters.end()) {
        log_line(2, "nobody waits for a reply to request " + std::to_string(reply_item.request_id));
        return;
    }
    send_reply_to(requester->second, reply_item.payload);
    requesters.erase(requester);
}

void Exchange::send_reply_to(const cvex::Requester& requester, const std::string& payload) {
    try {
        if (cvex::send_reply(router, requester, {payload, last_published})) {
            return;
        }
        log_line(1, "a reply is lost: its requester does not take its replies");
    } catch (const zmq::error_t& error) {
        log_line(2, "a reply is lost: its requester has gone (" + std::string(error.what()) + ")");
    }
}

void Exchange::send_published(const std::string& name, const std::string& payload) {
    const cvex::PublishedMessage message{name, payload, ++last_published};
    const bool was_losing = std::exchange(is_losing, !cvex::publish(publisher, message, true));
    if (!is_losing) {
        return;
    }
    cvex::publish(publisher, message, false);
    if (!was_losing) {
        log_line(1, "a subscriber does not take what is published and loses messages, the first of them " +
                        name);
    }
}

} // namespace cvcloudd
