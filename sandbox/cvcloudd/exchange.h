#ifndef CVCLOUDD_EXCHANGE_H
#define CVCLOUDD_EXCHANGE_H

#include <cstdint>
#include <map>
#include <string>
#include <thread>
#include <variant>

#include <zmq.hpp>

#include "common/mailbox.h"
#include "cvcloudd/activity.h"
#include "cvex/wire.h"

namespace cvcloudd {

/// A command as it waits for the dispatch thread.
struct ReceivedCommand {
    std::uint64_t request_id = 0;
    cvex::Command command;
};

/// The daemon's end of `cvex`: one thread of its own owns the sockets. It numbers the commands, keeps who
/// waits for which reply, and sends what handlers reply and publish.
///
/// Every command that wants a reply gets exactly one: the handler's, or the exchange's own when the command
/// could not be delivered or the daemon stopped before the handler answered. What waits is bounded: a command
/// beyond it is refused; a client that does not read loses what is sent to it, and a line of the log says so.
class Exchange {
public:
    /// Binds the sockets in `run_directory`; throws std::runtime_error when another daemon serves it or it
    /// cannot be used.
    explicit Exchange(const std::string& run_directory);

    /// Answers whoever still waits, sends what is on its way and closes the sockets.
    ~Exchange();

    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;

    /// The commands for the dispatch thread, in the order of their arrival.
    sandbox::Mailbox<ReceivedCommand>& commands() {
        return received;
    }

    /// What goes on; replies and published messages are noted by the exchange itself.
    Activity& activity() {
        return current_activity;
    }

    /// From now on every command is refused, those that were not taken yet as well. Called by the taking
    /// thread.
    void refuse_commands();

    /// Replies to a request. Any thread may call it; false when the exchange is closing.
    bool reply(std::uint64_t request_id, std::string payload);

    /// Publishes a message. Any thread may call it; false when the exchange is closing.
    bool publish(std::string name, std::string payload);

private:
    struct OutgoingReply {
        std::uint64_t request_id;
        std::string payload;
    };

    struct OutgoingMessage {
        std::string name;
        std::string payload;
    };

    /// The mark of ownership of a run directory; the kernel drops it when the process ends, however it ends.
    class DirectoryLock {
    public:
        explicit DirectoryLock(const std::string& run_directory);
        ~DirectoryLock();
        DirectoryLock(const DirectoryLock&) = delete;
        DirectoryLock& operator=(const DirectoryLock&) = delete;

    private:
        int descriptor;
    };

    void run();
    void receive_command();
    void acknowledge_subscriptions();
    void send_reply(const OutgoingReply& reply);
    void send_reply_to(const cvex::Requester& requester, const std::string& payload);
    void send_published(const std::string& name, const std::string& payload);

    DirectoryLock lock;
    Activity current_activity;
    zmq::context_t context;
    zmq::socket_t router;
    zmq::socket_t publisher;
    sandbox::Mailbox<ReceivedCommand> received;
    sandbox::Mailbox<std::variant<OutgoingReply, OutgoingMessage>> outgoing;
    std::uint64_t last_request_id = 0;
    std::uint64_t last_published = 0;
    std::map<std::uint64_t, cvex::Requester> requesters;
    /// A subscriber has missed the last message that was published.
    bool is_losing = false;
    std::thread thread;
};

/// The error reply of the daemon itself, in the form of the handlers' error replies, but always JSON.
std::string error_reply(const std::string& result, const std::string& reason);

} // namespace cvcloudd

#endif
