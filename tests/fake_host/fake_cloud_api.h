#ifndef FAKE_CLOUD_API_H
#define FAKE_CLOUD_API_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "cvcloud/cvcloud_api.h"

namespace fake_host {

/// The cloud's answer to one request.
struct Answer {
    std::string body;
    std::uint32_t status = 0;
};

/// A reply that the module sent: its record, whose payload pointer is no longer to be followed, and a copy of
/// the payload.
struct Reply {
    Message record;
    std::string payload;
};

/// A request that was accepted and has not been answered yet.
struct OutstandingRequest {
    std::string service;
    std::string text;
    cvtessel_callback callback;
    void* user_data;
    /// The number in the user data block when the request was sent.
    unsigned long long request_id;
};

/// The daemon's cloud access object, scripted and recorded. It records in the journal:
///   build_request METHOD PARAMS fields=no
///   build_request METHOD PARAMS fields=yes user_token=TOKEN device_id=ID
///   send_request SERVICE
///   release_response
///   publish NAME DATA
///   reply REQUEST_ID PAYLOAD
/// Without parameters PARAMS is "(none)". Any thread may call any member; the string members belong to the
/// module while a registration runs.
class FakeCloudApi : public CvCloudAPI {
public:
    FakeCloudApi() = default;
    FakeCloudApi(const FakeCloudApi&) = delete;
    FakeCloudApi& operator=(const FakeCloudApi&) = delete;

    /// Deletes the user data blocks of requests that nobody answered.
    ~FakeCloudApi();

    // ---- Scripts: the results of the next calls, in order. Without a script everything succeeds.

    void fail_next_build(int times = 1);
    void refuse_next_send(int times = 1, int result = 1);
    void fail_next_publish(int times = 1, int result = 1);
    void return_from_next_reply(int result);

    /// The next accepted request is answered with this before send_request() returns.
    void answer_inside_next_send(const Answer& answer);

    // ---- Answers to the oldest outstanding request; wait for one with Await("send_request ...").
    // False when no request is outstanding.

    /// Calls the callback on the calling thread.
    bool answer(const Answer& answer);

    /// Calls the callback on a thread of its own and waits for it to return.
    bool answer_from_own_thread(const Answer& answer);

    // ---- What the module did.

    std::vector<OutstandingRequest> outstanding() const;
    std::vector<Reply> replies() const;

    /// Responses that were lent to a callback and have not come back.
    std::size_t lent_responses() const;

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
    /// Lends a response to the callback: on the heap and without a NUL behind the body, for the sanitizers.
    void deliver(const OutstandingRequest& request, const Answer& answer);

    mutable std::mutex mutex;
    std::deque<int> build_results;
    std::deque<int> send_results;
    std::deque<int> publish_results;
    std::deque<int> reply_results;
    std::deque<Answer> inside_answers;
    std::deque<OutstandingRequest> requests;
    std::vector<Reply> sent_replies;
    std::set<const cvtessel_response*> lent;
};

} // namespace fake_host

#endif
