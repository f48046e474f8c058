#ifndef COMPARED_HOST_H
#define COMPARED_HOST_H

#include <functional>
#include <string>

#include "oracle.h"
#include "scripted_host.h"

namespace kit {

/// A host around a handler with its worker, and the oracle beside it. Everything that the host does is
/// reported to the oracle first, with what comes of the calls that the worker makes because of it; then it is
/// done, the worker is waited for, and what was seen is compared. The program's ScriptedCalls record at least
/// select() and sleep(). The log lines count as far as the log's level admits them.
class ComparedHost : public ScriptedHost {
public:
    /// Starts the handler. The stand-in for the utility library is given the settings.
    ComparedHost(CvHandlerAPI& daemons_handler, const Settings& settings);
    /// Shuts it down.
    ~ComparedHost() override;

    // Each returns what differs, nothing when all is as the oracle says.

    std::string command(int type, const std::string& name, unsigned long long request_id,
                        const std::string& payload);
    /// Answers the outstanding request, perhaps on a thread of its own.
    std::string respond(const Answer& answer, bool own_thread = true);

    /// The last command was accepted.
    bool accepted() const {
        return is_accepted;
    }

    const Oracle& expected() const {
        return oracle;
    }

    /// Decides whether the next operation of a kind succeeds.
    std::function<bool(Operation)> succeeds = [](Operation) { return true; };

private:
    void foresee_run();
    std::string difference(bool worker_runs);

    CvHandlerAPI& handler;
    Oracle oracle;
    bool is_accepted = false;
};

} // namespace kit

#endif
