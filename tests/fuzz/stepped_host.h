#ifndef STEPPED_HOST_H
#define STEPPED_HOST_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "cvregistration_state_machine.h"
#include "oracle.h"
#include "scripted_host.h"
#include "system_calls.h"

namespace fuzz {

class SteppedHost;

/// What the host does, and when. Called on the one thread of the stepped host.
class Script {
public:
    /// The worker sleeps: does one thing, or returns false when there is nothing left to do. The module is
    /// then stopped.
    virtual bool act(SteppedHost& host) = 0;

    /// The worker has been woken and not run yet: true lets the host act before it does.
    virtual bool worker_is_late() {
        return false;
    }

    /// The worker is inside a call that left the module: what the host does meanwhile.
    virtual void act_meanwhile(SteppedHost& /*host*/) {}

    /// select() is interrupted by a signal.
    virtual bool interrupts() {
        return false;
    }

    /// Whether an operation of the worker's succeeds.
    virtual bool succeeds(kit::ScriptedHost::Operation /*operation*/) {
        return true;
    }

protected:
    ~Script() = default;
};

/// The module and the oracle, side by side on one thread: the worker's loop runs as on the box, and whenever
/// it calls select(), sleep() or the cloud access object, the host gets its turn. So every interleaving that
/// an input asks for is repeated exactly. At each such call, and after everything that the host does, what
/// was seen of the module is compared with the oracle; a difference is reported and ends the process.
class SteppedHost final : public kit::ScriptedHost, private kit::System {
public:
    /// `log_level` -1 logs nothing.
    SteppedHost(const kit::Settings& settings, int log_level, Script& owner);
    ~SteppedHost() override;

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

    const kit::Oracle& expected() const {
        return oracle;
    }

    int send_request(const char* request, const char* service, cvtessel_callback callback,
                     void* user_data) override;
    char* build_request(const char* method, const char* params, unsigned int params_len,
                        bool add_connect_fields) override;

private:
    int outcome(Operation operation, int scripted) override;

    unsigned int sleep(unsigned int seconds) override;
    int poll(pollfd* descriptors, nfds_t count, int timeout) override;
    int select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout) override;
    ssize_t write(int descriptor, const void* buffer, std::size_t size) override;

    /// Lets the host act while the worker is inside a call.
    void leave_worker(kit::Oracle::Worker worker);
    void compare();
    void require(bool condition, const char* what) const;
    [[noreturn]] void fail(const std::string& what) const;
    kit::Snapshot seen() const;
    int wake_ups() const;

    Script& script;
    kit::Oracle oracle;
    /// All effects so far, for the report.
    std::vector<std::string> history;
    /// The text that was built last.
    std::string built;
    bool inside_command = false;
    bool stopping = false;
    bool wake_up_is_lost = false;
};

} // namespace fuzz

#endif
