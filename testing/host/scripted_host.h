#ifndef SCRIPTED_HOST_H
#define SCRIPTED_HOST_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "cvcloud/cvhandler_api.h"

namespace kit {

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
/// each with its result; without parameters PARAMS is "(none)". Any thread may call any member; the string
/// members belong to the module while a registration runs.
class ScriptedHost : public CvCloudAPI {
public:
    ScriptedHost() = default;
    ScriptedHost(const ScriptedHost&) = delete;
    ScriptedHost& operator=(const ScriptedHost&) = delete;

    /// Deletes the user data blocks of requests that nobody answered.
    virtual ~ScriptedHost();

    // ---- Scripts: the results of the next calls, in order. Without a script everything succeeds.

    enum class Operation { build, send, publish, reply };

    void script(Operation operation, int result, int times = 1);

    void fail_next_build(int times = 1) {
        script(Operation::build, 1, times);
    }
    void refuse_next_send(int times = 1, int result = 1) {
        script(Operation::send, result, times);
    }
    void fail_next_publish(int times = 1, int result = 1) {
        script(Operation::publish, result, times);
    }
    void return_from_next_reply(int result) {
        script(Operation::reply, result);
    }

    /// Everything succeeds from now on.
    void forget_script();

    /// The next accepted request is answered with this before send_request() returns.
    void answer_inside_next_send(const Answer& answer);

    // ---- Answers to an outstanding request, the oldest being 0; wait for one with Await("send_request
    // ..."). False when no request is outstanding.

    /// Calls the callback on the calling thread.
    bool answer(const Answer& answer, std::size_t index = 0);

    /// Calls the callback on a thread of its own and waits for it to return.
    bool answer_from_own_thread(const Answer& answer, std::size_t index = 0);

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
    int send_response(const Message* message) override;

protected:
    /// What comes of an operation that the module has called, for a host that decides it itself; `scripted`
    /// is what the script says. Called on the module's thread when the operation is in the journal; a request
    /// that is sent comes there once it is outstanding.
    virtual int outcome(Operation /*operation*/, int scripted) {
        return scripted;
    }

    /// The answer to a request that is given before send_request() returns, if there is to be one. Called
    /// when it was accepted.
    virtual bool answers_inside(const std::string& service, Answer& answer);

    /// Lends a response to the callback: on the heap and without a NUL behind the body, for the sanitizers.
    /// Null for an empty body.
    void deliver(const OutstandingRequest& request, const Answer& answer);

    bool take(OutstandingRequest& request, std::size_t index);

private:
    int recorded(const std::string& event, Operation operation);
    int next_result(Operation operation);

    mutable std::mutex mutex;
    std::array<std::deque<int>, 4> results;
    std::deque<Answer> inside_answers;
    std::deque<OutstandingRequest> requests;
    std::vector<Reply> sent_replies;
    std::set<const cvtessel_response*> lent;
};

/// The kind of a command whose sender waits for a reply, and one of the other kinds.
constexpr int kWithReply = 2;
constexpr int kWithoutReply = 1;

/// Delivers a command as the daemon does: the payload without a NUL behind it, and gone after the call.
void send_command(CvHandlerAPI& handler, const std::string& name, const std::string& payload, int type,
                  unsigned long long request_id);

} // namespace kit

#endif
