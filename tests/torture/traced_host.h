#ifndef TRACED_HOST_H
#define TRACED_HOST_H

#include <deque>
#include <functional>
#include <mutex>
#include <set>
#include <string>

#include "cvcloud/cvcloud_api.h"

/// The cloud's answer to one request, and what it means: a value, or the result and reason of a failure. The
/// result "step" stands for the one that names the step.
struct Answer {
    std::string body;
    std::string value;
    std::string result;
    std::string reason;
    std::uint32_t status = 0;
};

/// A daemon whose operations fail on order and are traced. Beside it this file's source holds the utility
/// library; its functions are the host's, but what jansson allocates in them fails on order like the rest.
class TracedHost : public CvCloudAPI {
public:
    int send_request(const char* request, const char* service, cvtessel_callback callback,
                     void* user_data) override;
    void release_response(cvtessel_response* response) override;
    char* build_request(const char* method, const char* params, unsigned int params_len,
                        bool add_connect_fields) override;
    int publish_message(const char* name, const void* data, unsigned int length) override;
    int daemon_operation() override;
    int send_response(const Message* reply) override;

    /// Chooses the answer to a request to the service.
    std::function<Answer(const std::string& service)> choose;
    /// The answer comes before send_request() returns.
    bool answers_inside = false;
    /// How many of the next calls fail, beside the fault on order.
    int failing_builds = 0;
    int failing_sends = 0;
    int failing_publishes = 0;

    /// Answers the outstanding request on a thread of its own, which is joined. False when there is none.
    /// When the callback throws, `callback_threw` is set.
    bool answer();

    /// The answers that were delivered and not taken, oldest first.
    std::deque<Answer> delivered;
    bool callback_threw = false;

    bool is_waiting() const;
    std::size_t lent_responses() const;
    /// Forgets the outstanding request, as a daemon does that gives up on it.
    void drop_outstanding();

private:
    struct Outstanding {
        std::string service;
        cvtessel_callback callback = nullptr;
        void* user_data = nullptr;
    };
    void deliver(const Outstanding& request);

    mutable std::mutex mutex;
    std::deque<Outstanding> outstanding;
    std::set<const cvtessel_response*> lent;
};

#endif
