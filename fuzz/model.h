#ifndef MODEL_H
#define MODEL_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <jansson.h>

namespace fuzz {

/// What the host is configured with.
struct Settings {
    int retry_num = 1;
    int retry_interval = 2;
    std::string setup_type = "STANDALONE";
    std::string box_name = "Corvane Orlo";
    std::string device_model = "orlov2";
    std::string partner_id = "p1";
    /// Empty: the interface has no MAC address to tell.
    std::string interface_mac = "0a:1b:2c:3d:4e:5f";
};

/// Everything that is to be seen of a registration at one moment.
struct Snapshot {
    struct Step {
        int tries_left = 0;
        bool succeeded = false;
        std::string value;
    };

    int state = 0;
    bool in_progress = false;
    Step login;
    Step box;
    std::string first_method;
    std::string token;
    std::string mac;
    std::string error_response;
    unsigned long long request_id = 0;
    bool reply_requested = false;
    /// Of the cloud access object.
    std::string user_token;
    std::string device_id;
    /// Bytes that the worker has not read.
    int wake_ups = 0;
};

bool operator==(const Snapshot& one, const Snapshot& other);

/// The snapshot in readable lines.
std::string describe(const Snapshot& snapshot);

/// What the module has to do, told a second time: no threads, no pipes, no code of the module. Whoever drives
/// it tells it what the host does and what came of each of the worker's calls; it answers with the effects
/// that have to have been seen by then, and with the snapshot that has to be seen.
class Model {
public:
    /// Where the worker is: asleep, or inside a call that leaves the module.
    enum class Worker { waiting, pausing, building, sending, publishing, replying };

    explicit Model(const Settings& host_settings) : settings(host_settings) {}

    // ---- The host.

    /// A registration object is created and initialised.
    void start_up();
    void command(int type, const std::string& name, unsigned long long request_id,
                 const std::string& payload);
    /// The oldest but `index` outstanding request is answered.
    void respond(std::size_t index, std::uint32_t status, const std::string& body);
    /// A byte is written to the run pipe, or lost.
    void wake_up();
    void lose_next_wake_up() {
        wake_up_is_lost = true;
    }

    // ---- The worker. Each goes on to its next call that leaves the module.

    /// A byte is read from the run pipe.
    void run();
    void pause_over();
    /// Null: no request was built.
    void built(const char* request);
    /// The cloud client has taken the request, and may answer it from now on.
    void accept();
    void sent(bool accepted);
    void published(bool accepted);
    void replied();

    Worker worker() const {
        return position;
    }

    /// Requests that were accepted and not answered, the oldest first.
    std::size_t outstanding() const {
        return requests.size();
    }

    const Snapshot& snapshot() const {
        return now;
    }

    Settings settings;
    /// What has to have been seen; whoever compares takes them away.
    std::vector<std::string> effects;

private:
    enum class Exchange { login, box };

    bool start(int type, unsigned long long request_id, const std::string& payload, std::string& refusal);
    bool retry(int type, unsigned long long request_id, std::string& refusal);
    void record(int type, unsigned long long request_id);
    void reset();
    void act_on_state();
    void enter(int state);
    void spend_try();
    void build();
    void fail_with(const char* result, const std::string& reason);
    void store(Snapshot::Step& step, bool succeeded, const std::string& value, const std::string& error);

    Snapshot now;
    Worker position = Worker::waiting;
    /// The method of the login step; empty before the first one was installed.
    std::string login_method;
    /// The text of the success that is being published or sent.
    std::string success;
    std::vector<Exchange> requests;
    bool wake_up_is_lost = false;
};

} // namespace fuzz

#endif
