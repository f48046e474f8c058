#ifndef CVEX_WIRE_H
#define CVEX_WIRE_H

#include <cstdint>
#include <string>
#include <vector>

#include <zmq.hpp>

/// The message exchange as it crosses the sockets of a run directory: the one place that knows endpoints and
/// frames.
///
/// A client's DEALER or REQ socket sends commands to the daemon's ROUTER socket and receives replies from it;
/// a client's SUB socket receives what the daemon's XPUB socket publishes. docs/wire.md shows the frames.
namespace cvex {

/// The message type of a command whose sender waits for a direct reply.
inline constexpr std::int32_t type_wants_reply = 2;
inline constexpr std::int32_t type_without_reply = 0;

/// The longest command name and the longest payload of a command, in bytes.
inline constexpr std::size_t name_limit = 259;
inline constexpr std::size_t payload_limit = 65536;

/// The daemon publishes this, without payload, as soon as it has taken a new subscription: a client that has
/// seen it misses no message that is published from then on.
inline constexpr const char* subscribed_message = "cvex_subscribed";

/// The daemon publishes this for each cloud request, once when it is sent and once when it has ended. JSON
/// members: "event" ("sent" or "ended"), "request" (its number, counted from 1 at the daemon's start),
/// "service", "method"; with "ended" also "status" (0 when the cloud answered) and, for a failure or a
/// refusal, "error" (what happened, for a person).
inline constexpr const char* progress_message = "cvcloudd_progress";

/// The daemon answers this itself: its payload is the level to log from now on, 0 to 3. The reply is
/// {"result": "ok", "log_level": N}, or an error reply.
inline constexpr const char* log_level_command = "cvcloudd_log_level";

/// And this: the reply is {"result": "ok", "pid", "seconds" (since the daemon's start), "log_level",
/// "handlers": [{"library", "mandatory", "commands": [...]}], "registration" (see Activity::registration()),
/// "last_result": {"command", "result", "reason"} or null}.
inline constexpr const char* status_command = "cvcloudd_status";

struct Command {
    std::int32_t type = type_wants_reply;
    std::string name;
    std::string payload;
};

/// What the daemon publishes is numbered from 1 on, and a reply tells the last number that was published
/// before it: the two come over different sockets, and a receiver puts them in order again by these numbers.
struct PublishedMessage {
    std::string name;
    std::string payload;
    std::uint64_t number = 0;
};

struct Reply {
    std::string payload;
    std::uint64_t published_before = 0;
};

/// The endpoints of the exchange in a run directory, and the socket files behind them.
std::string commands_endpoint(const std::string& run_directory);
std::string published_endpoint(const std::string& run_directory);
std::string socket_file(const std::string& endpoint);

/// Throws std::runtime_error when the path of a socket in `run_directory` is longer than a socket address
/// holds, or when another user owns the directory or may write to it: that user could serve it, too.
void check_run_directory(const std::string& run_directory);

void send_command(zmq::socket_t& dealer, const Command& command);
Reply receive_reply(zmq::socket_t& dealer);
PublishedMessage receive_published(zmq::socket_t& subscriber);

/// Where a reply goes.
struct Requester {
    std::string address;
    /// A REQ socket begins its command with an empty frame, and drops a reply that does not begin with one.
    bool is_req = false;
};

/// The command that frames make, the address of the sender in front, and who that is. Throws
/// std::invalid_argument, with the reason, for frames that are no command; `sender` is set even then.
Command parse_command(std::vector<std::string> frames, Requester& sender);

/// As parse_command(), for the next frames that the daemon's socket has received.
Command receive_command(zmq::socket_t& router, Requester& sender);

/// The two below return at once. False when the message was not sent: to a requester that does not take its
/// replies, or because a subscriber does not take what is published. Without `to_all_or_none` that
/// subscriber alone misses the message, and the result is true.
bool send_reply(zmq::socket_t& router, const Requester& receiver, const Reply& reply);
bool publish(zmq::socket_t& publisher, const PublishedMessage& message, bool to_all_or_none);

} // namespace cvex

#endif
