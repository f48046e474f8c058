#ifndef BENCH_H
#define BENCH_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "cvcloud/cvcloud_api.h"
#include "cvregistration_state_machine.h"
#include "model.h"

namespace fuzz {

class Bench;

/// What the host does, and when. Called on the one thread of the bench.
class Host {
public:
    /// The worker sleeps: does one thing, or returns false when there is nothing left to do. The module is
    /// then stopped.
    virtual bool act(Bench& bench) = 0;

    /// The worker has been woken and not run yet: true lets the host act before it does.
    virtual bool worker_is_late() {
        return false;
    }

    /// The worker is inside a call that left the module: what the host does meanwhile.
    virtual void act_meanwhile(Bench& /*bench*/) {}

    /// select() is interrupted by a signal.
    virtual bool interrupts() {
        return false;
    }

    // What comes of the worker's calls.
    virtual bool builds() {
        return true;
    }
    virtual bool accepts() {
        return true;
    }
    virtual bool publishes() {
        return true;
    }

protected:
    ~Host() = default;
};

/// The module and its model, side by side on one thread: the worker's loop runs as on the box, and whenever
/// it calls select(), sleep() or the cloud access object, the host gets its turn. So every interleaving that
/// an input asks for is repeated exactly. At each such call, and after everything that the host does, what
/// was seen of the module is held against the model; a difference is reported and ends the process.
class Bench : public CvCloudAPI {
public:
    /// `log_level` -1 logs nothing.
    Bench(const Settings& settings, int log_level, Host& owner);
    ~Bench();
    Bench(const Bench&) = delete;
    Bench& operator=(const Bench&) = delete;

    /// One life of the module: started, run until the host has nothing left to do or stops it, shut down.
    /// What is outstanding by then is answered first, as the daemon has to.
    void live();

    // ---- What the host can do, inside its act() and act_meanwhile().

    void command(int type, const std::string& name, unsigned long long request_id,
                 const std::string& payload);
    /// Answers one of the outstanding requests, the oldest being 0, perhaps on a thread of its own.
    void respond(std::size_t index, std::uint32_t status, const std::string& body, bool own_thread = false);
    /// Writes a run byte that nobody asked for.
    void wake_up();
    /// The next run byte finds the pipe full.
    void lose_next_wake_up();
    /// The module is to be shut down when the host has acted.
    void stop();
    void log_level(int level);
    void interface_mac(const std::string& mac);

    const Model& expected() const {
        return model;
    }

    // ---- What stands in front of the system's functions.

    /// The bench that is at work on this thread, or null.
    static Bench*& current();
    /// False: interrupted.
    bool select();
    void sleep(unsigned int seconds);
    /// False: the pipe is full.
    bool poll();

    // ---- The interface to the module.

    int send_request(const char* request, const char* service, cvtessel_callback callback,
                     void* user_data) override;
    void release_response(cvtessel_response* response) override;
    char* build_request(const char* method, const char* params, unsigned int params_len,
                        bool add_connect_fields) override;
    int publish_message(const char* name, const void* data, unsigned int length) override;
    int daemon_operation() override;
    int send_response(const Message* reply) override;

private:
    struct Request {
        cvtessel_callback callback;
        void* user_data;
    };

    struct Response {
        cvtessel_response record;
        std::unique_ptr<char[]> body;
    };

    /// Lets the host act while the worker is inside a call.
    void leave_worker(Model::Worker worker);
    void compare();
    void require(bool condition, const char* what) const;
    [[noreturn]] void fail(const std::string& what) const;
    Snapshot seen() const;
    int wake_ups() const;

    Host& host;
    Model model;
    std::vector<Request> requests;
    std::vector<std::string> effects;
    /// All effects so far, for the report.
    std::vector<std::string> history;
    std::unique_ptr<Response> lent;
    bool inside_command = false;
    bool stopping = false;
    bool wake_up_is_lost = false;
    unsigned int built_requests = 0;
};

} // namespace fuzz

#endif
