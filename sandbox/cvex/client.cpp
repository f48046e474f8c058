#include "cvex/client.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace cvex {

namespace {

constexpr std::chrono::seconds connect_timeout{5};
constexpr std::chrono::milliseconds hand_over_timeout{1000};

/// Whether somebody accepts connections on the socket file. ZeroMQ itself would wait for it to appear.
bool is_served(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size());
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor == -1) {
        return false;
    }
    const bool served = connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(descriptor);
    return served;
}

} // namespace

Client::Client(const std::string& run_directory)
    : commands(context, zmq::socket_type::dealer), published(context, zmq::socket_type::sub) {
    check_run_directory(run_directory);
    if (!is_served(socket_file(commands_endpoint(run_directory)))) {
        throw NoDaemon("no cvcloudd serves the run directory " + run_directory +
                       ": start one there or correct --run-dir");
    }
    commands.set(zmq::sockopt::linger, static_cast<int>(hand_over_timeout.count()));
    commands.connect(commands_endpoint(run_directory));
    published.set(zmq::sockopt::linger, 0);
    published.set(zmq::sockopt::subscribe, "");
    published.connect(published_endpoint(run_directory));

    const auto deadline = std::chrono::steady_clock::now() + connect_timeout;
    for (;;) {
        const Event event = wait(deadline);
        if (std::holds_alternative<TimedOut>(event)) {
            throw NoDaemon("cvcloudd does not answer in the run directory " + run_directory + ": restart it");
        }
        if (const auto* message = std::get_if<PublishedMessage>(&event);
            message != nullptr && message->name == subscribed_message) {
            return;
        }
    }
}

void Client::send(const Command& command) {
    send_command(commands, command);
}

Event Client::wait(std::chrono::steady_clock::time_point deadline) {
    for (;;) {
        if (early_reply && early_reply->published_before <= last_seen) {
            return *std::exchange(early_reply, std::nullopt);
        }
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        std::array<zmq::pollitem_t, 2> items{
            {{published.handle(), 0, ZMQ_POLLIN, 0}, {commands.handle(), 0, ZMQ_POLLIN, 0}}};
        zmq::poll(items.data(), early_reply ? 1 : 2, std::max(left, std::chrono::milliseconds(0)));
        if ((items[0].revents & ZMQ_POLLIN) != 0) {
            PublishedMessage message = receive_published(published);
            last_seen = message.number;
            return message;
        }
        if ((items[1].revents & ZMQ_POLLIN) != 0) {
            early_reply = receive_reply(commands);
        } else if (early_reply) {
            // What is missing does not come; the reply is there all the same.
            return *std::exchange(early_reply, std::nullopt);
        } else {
            return TimedOut{};
        }
    }
}

} // namespace cvex
