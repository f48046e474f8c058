#include "cvex/client.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace cvex {

namespace {

constexpr std::chrono::milliseconds hand_over_timeout{1000};
/// For messages that a reply has overtaken; the daemon may have dropped them.
constexpr std::chrono::milliseconds overtaken_timeout{1000};
constexpr const char* monitor_endpoint = "inproc://monitor";

/// Whether somebody listens on the socket file. ZeroMQ itself would wait for it to appear.
bool is_served(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size());
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor == -1) {
        throw std::system_error(errno, std::generic_category(), "socket");
    }
    // So many connections may wait for a daemon that is stopped that there is no room for another.
    const bool served =
        connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
        errno == EAGAIN;
    close(descriptor);
    return served;
}

void* start_monitoring(zmq::socket_t& socket) {
    if (zmq_socket_monitor(socket.handle(), monitor_endpoint, ZMQ_EVENT_DISCONNECTED) != 0) {
        throw zmq::error_t();
    }
    return socket.handle();
}

void stop_monitoring(void* socket) {
    zmq_socket_monitor(socket, nullptr, 0);
}

/// Takes a message off the socket, frame by frame, unseen.
void discard_message(zmq::socket_t& socket) {
    zmq::message_t frame;
    do {
        if (!socket.recv(frame)) {
            return;
        }
    } while (frame.more());
}

} // namespace

Client::Client(const std::string& directory, std::chrono::milliseconds patience)
    : run_directory(directory), commands(context, zmq::socket_type::dealer),
      monitor(context, zmq::socket_type::pair), monitoring(start_monitoring(commands), stop_monitoring),
      published(context, zmq::socket_type::sub) {
    check_run_directory(run_directory);
    if (!is_served(socket_file(commands_endpoint(run_directory)))) {
        throw NoDaemon("no cvcloudd serves the run directory " + run_directory +
                       ": start one there or correct --run-dir");
    }
    commands.set(zmq::sockopt::linger, static_cast<int>(hand_over_timeout.count()));
    monitor.connect(monitor_endpoint);
    commands.connect(commands_endpoint(run_directory));
    published.set(zmq::sockopt::linger, 0);
    published.set(zmq::sockopt::subscribe, "");
    published.connect(published_endpoint(run_directory));

    const auto deadline = std::chrono::steady_clock::now() + patience;
    for (;;) {
        const Event event = wait(deadline);
        if (std::holds_alternative<TimedOut>(event)) {
            throw NoDaemon("the cvcloudd in the run directory " + run_directory +
                           " does not answer: restart it");
        }
        if (const auto* message = std::get_if<PublishedMessage>(&event);
            message != nullptr && message->name == subscribed_message) {
            lost = 0;
            return;
        }
    }
}

std::uint64_t Client::take_lost() {
    return std::exchange(lost, 0);
}

void Client::send(const Command& command) {
    if (command.payload.size() > payload_limit) {
        throw std::runtime_error("the payload has " + std::to_string(command.payload.size()) +
                                 " bytes, more than the " + std::to_string(payload_limit) +
                                 " that a command carries: shorten it");
    }
    if (command.type == type_wants_reply) {
        ++replies_owed;
    }
    send_command(commands, command);
}

Event Client::wait(std::chrono::steady_clock::time_point deadline) {
    for (;;) {
        if (early_reply && early_reply->published_before <= last_seen) {
            return *std::exchange(early_reply, std::nullopt);
        }
        if (early_reply) {
            deadline = std::min(deadline, early_until);
        }
        if (is_lost) {
            // What has come before the end is still there to be read, and nothing more comes.
            deadline = {};
        }
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        std::array<zmq::pollitem_t, 3> items{{{published.handle(), 0, ZMQ_POLLIN, 0},
                                              {monitor.handle(), 0, ZMQ_POLLIN, 0},
                                              {commands.handle(), 0, ZMQ_POLLIN, 0}}};
        // Behind an early reply no other is taken.
        zmq::poll(items.data(), early_reply ? 2 : 3, std::max(left, std::chrono::milliseconds(0)));
        if ((items[0].revents & ZMQ_POLLIN) != 0) {
            PublishedMessage message = receive_published(published);
            lost += last_seen != 0 && message.number > last_seen ? message.number - last_seen - 1 : 0;
            last_seen = message.number;
            return message;
        }
        if ((items[2].revents & ZMQ_POLLIN) != 0) {
            early_reply = receive_reply(commands);
            early_until = std::chrono::steady_clock::now() + overtaken_timeout;
            replies_owed -= std::min(replies_owed, 1U);
        } else if ((items[1].revents & ZMQ_POLLIN) != 0) {
            discard_message(monitor);
            is_lost = replies_owed > 0 || early_reply;
        } else if (early_reply) {
            // What is missing does not come; the reply is there all the same.
            return *std::exchange(early_reply, std::nullopt);
        } else if (is_lost) {
            throw NoDaemon("the cvcloudd in the run directory " + run_directory +
                           " ended before it answered: start it again");
        } else {
            return TimedOut{};
        }
    }
}

} // namespace cvex
