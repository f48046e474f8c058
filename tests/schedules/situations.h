#ifndef SITUATIONS_H
#define SITUATIONS_H

/// @file
/// What a daemon does in the executions: the situations of a daemon that keeps its contract, and the daemons
/// that do not.

#include <string>
#include <vector>

namespace schedules {

struct Situation {
    std::string name;
    /// What the dispatch thread does after init(), in order: "start", "quiet-start" (without a reply),
    /// "retry", each without waiting for anything; "wait" for the end of the commands; "uninit".
    std::string script;
    /// What becomes of the requests, in order, a letter each: a (g)ood answer, the cloud's refusal (b), a
    /// good answer (i)nside send_request(), not sent (n). Those that follow are like the last of them, and
    /// good without any.
    std::string requests = "g";
    int retries = 0;
    int failed_publishes = 0;
    /// For a daemon that breaks its contract, as its name says: what has to be reported, with the shipped and
    /// with the instrumented library.
    std::vector<std::string> reports = {};
    std::vector<std::string> instrumented_reports = {};

    bool breaks_contract() const {
        return !reports.empty();
    }
    /// Of a whole run only: it takes longer than all others together.
    bool is_large() const {
        return name.rfind("large-", 0) == 0;
    }
};

/// The situations of good daemons, and one for each breach.
const std::vector<Situation>& situations();

/// Runs the situation once, and reports a failure when something is wrong with it.
void run(const Situation& situation, class Chooser& chooser);

} // namespace schedules

#endif
