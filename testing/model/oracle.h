#ifndef ORACLE_H
#define ORACLE_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <jansson.h>

namespace kit {

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

/// Stores the settings and the MAC address in the stand-in for the utility library.
void store(const Settings& settings);

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

/// What the module has to do, said a second time: no threads, no pipes, no code of the module. Whoever drives
/// the module reports, one event at a time, what the host did and what came of each of the worker's calls.
/// The oracle answers with the effects that have to be seen by then, and with the snapshot that has to be
/// seen.
///
/// The worker's part goes like this: run() when it has read a byte; then, for as long as worker() is not
/// `waiting`, the call that worker() names has to come, its effect is the last one, and its outcome is
/// reported with the member that belongs to it. Commands and responses may be reported at any moment in
/// between, in the order in which they happened.
///
/// With threads, two things are left open. From the worker's last call of a run (finishing() is true from
/// there) until it waits again, a command may still find the registration in progress. And after the stop
/// byte a byte that the worker has not read may be abandoned: then run() does not come.
class Oracle {
public:
    /// Where the worker is: asleep, or inside a call that leaves the module.
    enum class Worker { waiting, pausing, building, sending, publishing, replying };

    explicit Oracle(Settings host_settings) : settings(std::move(host_settings)) {}
    virtual ~Oracle() = default;

    // ---- The host.

    /// A registration object is created and initialised.
    void start_up();
    /// A command is delivered. `busy`: it was refused as busy while finishing() was true.
    void command(int type, const std::string& name, unsigned long long request_id, const std::string& payload,
                 bool busy = false);
    /// The callback of the oldest but `index` outstanding request is called.
    void respond(std::size_t index, std::uint32_t status, const std::string& body);
    /// A byte is written to the run pipe, or lost.
    void wake_up();
    void lose_next_wake_up() {
        wake_up_is_lost = true;
    }

    // ---- The worker. Each goes on to its next call that leaves the module.

    /// A byte is read from the run pipe.
    void run();
    /// sleep() returns.
    void pause_over();
    /// build_request() returns a text or null.
    void built(bool has_text);
    /// The cloud client has taken the request, and may answer it from now on: before sent(true).
    void accept();
    /// send_request() returns.
    void sent(bool accepted);
    /// publish_message() returns.
    void published(bool accepted);
    /// send_response() returns.
    void replied();
    /// The worker is in select() again.
    void waits() {
        is_finishing = false;
    }

    Worker worker() const {
        return position;
    }

    /// From the last call of a run on, until waits(): the module may or may not have ended the registration.
    bool finishing() const {
        return is_finishing;
    }

    /// Requests that were accepted and not answered, the oldest first.
    std::size_t outstanding() const {
        return requests.size();
    }

    const Snapshot& snapshot() const {
        return now;
    }

    /// Registrations that have succeeded.
    int successes() const {
        return success_count;
    }

    Settings settings;

    /// What has to have been seen, in the journal's words: requests, replies, published messages, pauses,
    /// responses given back ("release_response"), wake-ups ("wake-up"), log lines of levels 0 and 1. Whoever
    /// compares takes them away.
    std::vector<std::string> effects;

protected:
    // What comes of the module's calls underneath, which the oracle does not decide; by default all is well.

    /// A text is parsed: the document, or null. The caller's.
    virtual json_t* parse(const std::string& text);

    using Member = std::pair<const char*, json_t*>;
    /// A document is made of the members, whose values are handed over, null where JSON cannot hold the
    /// value, and written: its text, or none.
    virtual std::optional<std::string> write(std::initializer_list<Member> members);

    /// There is memory for the block that goes with a request.
    virtual bool has_block() {
        return true;
    }

    /// The wake-up byte is written.
    virtual bool writes_byte() {
        return !std::exchange(wake_up_is_lost, false);
    }

private:
    enum class Exchange { login, box };

    bool accepts_start(int type, unsigned long long request_id, const std::string& payload,
                       std::string& refusal);
    bool accepts_retry(int type, unsigned long long request_id, std::string& refusal);
    void record(int type, unsigned long long request_id);
    void reset();
    void act_on_state();
    void enter(int state);
    void spend_try();
    void fail_try(const std::string& error);
    void build();
    void store_result(Snapshot::Step& step, bool succeeded, const std::string& value,
                      const std::string& error);
    void end_run();

    Snapshot now;
    Worker position = Worker::waiting;
    bool is_finishing = false;
    /// The method of the login step; empty before the first one was installed.
    std::string login_method;
    /// The text of the success that is being published or sent.
    std::string success;
    int success_count = 0;
    std::vector<Exchange> requests;
    bool wake_up_is_lost = false;
};

} // namespace kit

#endif
