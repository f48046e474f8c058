#ifndef LEAN_HOST_H
#define LEAN_HOST_H

#include <cstdint>
#include <string>

#include "cvcloud/cvhandler_api.h"

// A host that does next to nothing and takes no lock: what is measured, or seen by the thread sanitizer, is
// the module.

namespace kit {

/// Hands one thing over from any thread to another. A call costs the same instructions whether it blocks or
/// not.
class Signal {
public:
    Signal();
    ~Signal();
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;

    void signal() const;
    /// Returns once for each signal().
    void wait() const;

private:
    int descriptor;
};

/// The daemon's cloud access object. Commands and answers are delivered on the calling thread, requests
/// arrive on the handler's worker, one at a time.
class LeanHost final : public CvCloudAPI {
public:
    LeanHost() {
        partner_id = "the partner's identifier";
    }

    int send_request(const char* request, const char* service, cvtessel_callback callback,
                     void* user_data) override;
    void release_response(cvtessel_response* response) override;
    char* build_request(const char* method, const char* params, unsigned int params_len,
                        bool add_connect_fields) override;
    int publish_message(const char* name, const void* data, unsigned int length) override;
    int daemon_operation() override;
    int send_response(const Message* reply) override;

    /// Starts a handler's worker. Ends the program when the handler is not ready.
    void init(CvHandlerAPI& handler);

    /// Delivers a command that wants a reply, and returns as handle() does. `name` and `payload` are used
    /// during the call only.
    void command(CvHandlerAPI& handler, const char* name, const std::string& payload);

    /// Calls the callback of the outstanding request.
    void answer(const std::string& body);

    /// When the last request or published message arrived, in nanoseconds().
    std::int64_t arrival = 0;
    /// send_request() refuses.
    bool refuses = false;
    /// When set, send_request() signals `held` and then waits for `resume`.
    const Signal* held = nullptr;
    const Signal* resume = nullptr;
    int published = 0;
    int replies = 0;

private:
    cvtessel_callback callback = nullptr;
    void* user_data = nullptr;
    unsigned long long request_id = 0;
};

/// The monotonic clock.
std::int64_t nanoseconds();

/// Ends the program.
[[noreturn]] void die(const std::string& message);

} // namespace kit

#endif
