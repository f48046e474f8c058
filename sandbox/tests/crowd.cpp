// Many clients of one message exchange at once: crowd RUN-DIRECTORY CLIENTS COMMANDS. Each client sends so
// many commands without waiting, most of them starts, then takes the replies. It prints "one reply is
// missing" when a single one is, and at the end the number of replies of each result, with what was missing
// or too much.

#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "cvex/client.h"
#include "cvex/reply.h"

namespace {

using nlohmann::json;

constexpr std::chrono::seconds time_limit{60};

class Crowd {
public:
    Crowd(std::string directory, unsigned client_count, unsigned command_count)
        : run_directory(std::move(directory)), commands(command_count), expected(0) {
        for (unsigned number = 0; number < commands; ++number) {
            expected += command(number).type == cvex::type_wants_reply ? client_count : 0;
        }
        std::vector<std::thread> clients;
        for (unsigned i = 0; i < client_count; ++i) {
            clients.emplace_back([this] { run_client(); });
        }
        for (std::thread& client : clients) {
            client.join();
        }
    }

    int report() const {
        json counts = results;
        counts["missing"] = missing;
        counts["surplus"] = surplus;
        std::printf("%s\n", counts.dump().c_str());
        return missing == 0 && surplus == 0 ? 0 : 1;
    }

private:
    static cvex::Command command(unsigned number) {
        switch (number % 10) {
        case 3:
            return {cvex::type_wants_reply, "retry_cloud_registration", ""};
        case 5:
            return {cvex::type_without_reply, "retry_cloud_registration", ""};
        case 7:
            return {cvex::type_wants_reply, "nobody_takes_this", ""};
        default:
            return {cvex::type_wants_reply, "start_cloud_registration",
                    R"({"token": "desk-partner-token", "token_type": "partner"})"};
        }
    }

    void run_client() {
        cvex::Client client(run_directory);
        unsigned wanted = 0;
        for (unsigned number = 0; number < commands; ++number) {
            const cvex::Command next = command(number);
            wanted += next.type == cvex::type_wants_reply ? 1 : 0;
            client.send(next);
        }
        for (; wanted > 0; --wanted) {
            const std::string reply = next_reply(client);
            if (reply.empty()) {
                const std::lock_guard lock(mutex);
                missing += wanted;
                return;
            }
            count(reply);
        }
        // Whatever comes before the reply to a last command of its own is a reply too many.
        client.send({cvex::type_wants_reply, "last_of_the_crowd", ""});
        for (;;) {
            const std::string reply = next_reply(client);
            if (reply.find("last_of_the_crowd") != std::string::npos) {
                return;
            }
            const std::lock_guard lock(mutex);
            if (reply.empty()) {
                ++missing;
                return;
            }
            ++surplus;
        }
    }

    /// Empty when none comes in time; no command of the crowd is answered with an empty text.
    static std::string next_reply(cvex::Client& client) {
        const auto deadline = std::chrono::steady_clock::now() + time_limit;
        for (;;) {
            const cvex::Event event = client.wait(deadline);
            if (std::holds_alternative<cvex::TimedOut>(event)) {
                return {};
            }
            if (const auto* reply = std::get_if<cvex::Reply>(&event)) {
                return reply->payload;
            }
        }
    }

    void count(const std::string& reply) {
        const std::lock_guard lock(mutex);
        ++results[cvex::read_reply(reply).result];
        if (++received == expected - 1) {
            std::printf("one reply is missing\n");
            std::fflush(stdout);
        }
    }

    const std::string run_directory;
    const unsigned commands;
    unsigned expected;
    std::mutex mutex;
    std::map<std::string, unsigned> results;
    unsigned received = 0;
    unsigned missing = 0;
    unsigned surplus = 0;
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: crowd RUN-DIRECTORY CLIENTS COMMANDS\n");
        return 2;
    }
    return Crowd(argv[1], static_cast<unsigned>(std::stoul(argv[2])),
                 static_cast<unsigned>(std::stoul(argv[3])))
        .report();
}
