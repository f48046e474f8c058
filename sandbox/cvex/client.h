#ifndef CVEX_CLIENT_H
#define CVEX_CLIENT_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <variant>

#include <zmq.hpp>

#include "cvex/wire.h"

namespace cvex {

/// No daemon serves the exchange of the run directory, or no longer does; the text says which directory and
/// what to do.
struct NoDaemon : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct TimedOut {};

using Event = std::variant<Reply, PublishedMessage, TimedOut>;

/// One connection to the exchange: it sends commands and sees every reply to them and every message that is
/// published from the end of the constructor on. For one thread.
class Client {
public:
    /// Connects and subscribes within `patience`; throws NoDaemon when nobody answers.
    explicit Client(const std::string& run_directory,
                    std::chrono::milliseconds patience = std::chrono::seconds(5));

    /// Hands the command over; it is on its way even when the connection is closed at once. Throws
    /// std::runtime_error when its payload is too long.
    void send(const Command& command);

    /// The next event, or TimedOut when none comes before `deadline`. What was published before a reply was
    /// sent is told before the reply. Throws NoDaemon when the daemon has gone and a reply is still owed: it
    /// will not come any more.
    Event wait(std::chrono::steady_clock::time_point deadline);

    /// How many messages were published and have not come, since this was last asked: the daemon does not
    /// keep them without limit for a client that does not read.
    std::uint64_t take_lost();

private:
    const std::string run_directory;
    zmq::context_t context;
    zmq::socket_t commands;
    /// Tells that the connection of `commands` is lost.
    zmq::socket_t monitor;
    /// Ends that before `monitor` closes: libzmq loses the memory of an event that has no taker any more.
    const std::unique_ptr<void, void (*)(void*)> monitoring;
    bool is_lost = false;
    unsigned replies_owed = 0;
    zmq::socket_t published;
    std::uint64_t last_seen = 0;
    std::uint64_t lost = 0;
    /// A reply that has overtaken what was published before it.
    std::optional<Reply> early_reply;
    std::chrono::steady_clock::time_point early_until;
};

} // namespace cvex

#endif
