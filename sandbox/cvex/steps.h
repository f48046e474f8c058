#ifndef CVEX_STEPS_H
#define CVEX_STEPS_H

#include <map>
#include <memory>
#include <string>

#include "cvex/wire.h"

namespace cvex {

/// Tells a person what happens from a command to its reply: the cloud requests as the daemon makes them, and
/// what is published at the end.
class Steps {
public:
    Steps() = default;
    virtual ~Steps() = default;
    Steps(const Steps&) = delete;
    Steps& operator=(const Steps&) = delete;

    virtual void sent_command(const std::string& name) = 0;

    /// Takes every published message; those that are not about a registration are left out.
    void tell(const PublishedMessage& message);

    /// The end. `successful_reply` is empty when no reply came or it reports a failure, which is shown
    /// elsewhere; `reason` is that of the failure.
    void finish(const std::string& successful_reply, const std::string& reason);

    /// Called some ten times a second while nothing happens. A pause is shown from the first call on.
    virtual void tick() {}

    /// What the last request failed of; empty when the cloud answered it.
    std::string last_error;

protected:
    virtual void sent_request(const std::string& method, int number, const std::string& service) = 0;
    /// The cloud has answered. Whether the answer was of use is known when the next event comes.
    virtual void answered_request() {}
    /// `error` is empty when the answer was of use.
    virtual void ended_request(const std::string& method, int number, const std::string& error) = 0;
    virtual void published(const std::string& name, const std::string& payload) = 0;
    virtual void end(const std::string& successful_reply) = 0;

private:
    void end_answered(const std::string& error);

    std::map<std::string, int> tries;
    /// The method whose last try was answered; the next event says whether the answer was of use.
    std::string answered;
};

/// On a terminal one line for each try, alive while it lasts: a spinner that becomes a tick or a cross, with
/// the time that has passed; in ASCII unless the locale is UTF-8, without colours when NO_COLOR is set.
/// Plain lines when the standard output is no terminal, or one that TERM calls dumb.
std::unique_ptr<Steps> make_steps();

} // namespace cvex

#endif
