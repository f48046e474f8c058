#include "cvex/wire.h"

#include <charconv>
#include <iterator>
#include <stdexcept>

#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <zmq_addon.hpp>

namespace cvex {

namespace {

const std::string scheme = "ipc://";

/// False when the frames could not be sent at once and the flags say not to wait.
bool send_frames(zmq::socket_t& socket, const std::vector<std::string>& frames,
                 zmq::send_flags flags = zmq::send_flags::none) {
    std::vector<zmq::const_buffer> buffers;
    for (const std::string& frame : frames) {
        buffers.push_back(zmq::buffer(frame));
    }
    return zmq::send_multipart(socket, buffers, flags).has_value();
}

std::vector<std::string> receive_frames(zmq::socket_t& socket) {
    std::vector<zmq::message_t> messages;
    if (!zmq::recv_multipart(socket, std::back_inserter(messages))) {
        return {};
    }
    std::vector<std::string> frames;
    for (const zmq::message_t& message : messages) {
        frames.push_back(message.to_string());
    }
    return frames;
}

/// Of the daemon's own frames; 0 for what is no number.
std::uint64_t to_number(const std::string& text) {
    std::uint64_t number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

} // namespace

std::string commands_endpoint(const std::string& run_directory) {
    return scheme + run_directory + "/commands";
}

std::string published_endpoint(const std::string& run_directory) {
    return scheme + run_directory + "/published";
}

std::string socket_file(const std::string& endpoint) {
    return endpoint.substr(scheme.size());
}

void check_run_directory(const std::string& run_directory) {
    constexpr std::size_t path_limit = sizeof(sockaddr_un::sun_path) - 1;
    const std::string longest = socket_file(published_endpoint(run_directory));
    if (longest.size() > path_limit) {
        throw std::runtime_error("socket path " + longest + " has " + std::to_string(longest.size()) +
                                 " bytes, more than the " + std::to_string(path_limit) +
                                 " of a socket address: use a shorter --run-dir");
    }
    struct stat status {};
    if (stat(run_directory.c_str(), &status) == -1) {
        return;
    }
    if (status.st_uid != geteuid()) {
        throw std::runtime_error("the run directory " + run_directory + " belongs to user " +
                                 std::to_string(status.st_uid) + ": use a directory of your own");
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        throw std::runtime_error("other users may write to the run directory " + run_directory +
                                 ": chmod go-w it, or use a directory of your own");
    }
}

void send_command(zmq::socket_t& dealer, const Command& command) {
    send_frames(dealer, {command.name, std::to_string(command.type), command.payload});
}

Reply receive_reply(zmq::socket_t& dealer) {
    std::vector<std::string> frames = receive_frames(dealer);
    frames.resize(2);
    return {frames[0], to_number(frames[1])};
}

PublishedMessage receive_published(zmq::socket_t& subscriber) {
    std::vector<std::string> frames = receive_frames(subscriber);
    frames.resize(3);
    return {frames[0], frames[1], to_number(frames[2])};
}

Command parse_command(std::vector<std::string> frames, Requester& sender) {
    if (!frames.empty()) {
        sender.address = frames[0];
        frames.erase(frames.begin());
    }
    if (!frames.empty() && frames[0].empty()) {
        sender.is_req = true;
        frames.erase(frames.begin());
    }
    if (frames.size() != 3) {
        throw std::invalid_argument("A command has the three frames name, type and payload");
    }
    Command command{0, frames[0], frames[2]};
    if (command.name.empty() || command.name.size() > name_limit ||
        command.name.find('\0') != std::string::npos) {
        throw std::invalid_argument("A command name has 1 to " + std::to_string(name_limit) +
                                    " bytes, none of them NUL");
    }
    if (command.payload.size() > payload_limit) {
        throw std::invalid_argument("A command's payload has at most " + std::to_string(payload_limit) +
                                    " bytes");
    }
    const std::string& type = frames[1];
    const char* const end = type.data() + type.size();
    if (const auto result = std::from_chars(type.data(), end, command.type);
        result.ec != std::errc() || result.ptr != end) {
        throw std::invalid_argument("A command type is a decimal number of 32 bits");
    }
    if (sender.is_req && command.type != type_wants_reply) {
        throw std::invalid_argument("A REQ socket waits for a reply: its commands have the type 2");
    }
    return command;
}

Command receive_command(zmq::socket_t& router, Requester& sender) {
    return parse_command(receive_frames(router), sender);
}

bool send_reply(zmq::socket_t& router, const Requester& receiver, const Reply& reply) {
    std::vector<std::string> frames{receiver.address};
    if (receiver.is_req) {
        frames.emplace_back();
    }
    frames.insert(frames.end(), {reply.payload, std::to_string(reply.published_before)});
    return send_frames(router, frames, zmq::send_flags::dontwait);
}

bool publish(zmq::socket_t& publisher, const PublishedMessage& message, bool to_all_or_none) {
    publisher.set(zmq::sockopt::xpub_nodrop, to_all_or_none ? 1 : 0);
    return send_frames(publisher, {message.name, message.payload, std::to_string(message.number)},
                       zmq::send_flags::dontwait);
}

} // namespace cvex
