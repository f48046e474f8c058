#ifndef CVCLOUD_CVCLOUD_API_H
#define CVCLOUD_CVCLOUD_API_H

/// @file
/// The cloud access object, which takes handlers' requests, messages and replies, and its responses.
///
/// This is a stand-in for the maker's header: the offsets of its members and the slots of its operations are
/// its own. Only their order is known to be the maker's.

#include <cstddef>
#include <cstdint>
#include <string>

#include "cvcloud/message.h"

/// One response of the cloud. It belongs to the cloud access object; a callback that has received it may read
/// it until it gives it back with CvCloudAPI::release_response().
struct cvtessel_response {
    /// 0 when the exchange succeeded, any other value when it failed.
    std::uint32_t status;
    /// The daemon's own.
    std::uint32_t reserved;
    /// The response text as it came; not necessarily NUL-terminated.
    char* body;
    /// Length of the body in bytes.
    std::uint32_t body_length;
};

static_assert(offsetof(cvtessel_response, status) == 0);
static_assert(offsetof(cvtessel_response, body) == 8);
static_assert(sizeof(void*) != 4 || offsetof(cvtessel_response, body_length) == 12);
static_assert(sizeof(void*) != 4 || sizeof(cvtessel_response) == 16);

/// Receives the response to one request, once, on a thread of the cloud access object's choice, perhaps
/// before send_request() has returned. `user_data` is what the request was sent with.
using cvtessel_callback = void (*)(cvtessel_response* response, void* user_data);

/// The daemon's cloud access object: builds and sends requests, delivers responses, and gives handlers their
/// way out to `cvex`.
///
/// The daemon creates and destroys it; it is valid from before a handler's init() until after its uninit().
/// Handlers call through the virtual table, so the order of the operations is part of the binary interface.
/// There is no virtual destructor: it would take slots of the table.
class CvCloudAPI {
public:
    /// Sends a text of build_request() to `service`. Any thread may call it.
    ///
    /// Returns 0 when it took the request: `callback` is then called exactly once, with the response and
    /// `user_data`. After any other value it is never called. `request` may be freed as soon as the call
    /// returns.
    virtual int send_request(const char* request, const char* service, cvtessel_callback callback,
                             void* user_data) = 0;

    /// Takes a response back; the callback calls it exactly once, on its own thread, when it has finished
    /// reading.
    virtual void release_response(cvtessel_response* response) = 0;

    /// Builds the request text for `method` with the JSON text `params` of `params_len` bytes; with
    /// `add_connect_fields` the object adds its connection fields. Any thread may call it. Which fields these
    /// are is the maker's affair; this stand-in's are `user_token` and `device_id`.
    ///
    /// Returns a text that the caller releases with free(), or null when the request cannot be built.
    virtual char* build_request(const char* method, const char* params, unsigned int params_len,
                                bool add_connect_fields) = 0;

    /// Publishes a message named `name` with `length` bytes of data on `cvex`, for every listener. Handlers
    /// call it on threads of their own.
    ///
    /// Returns 0 on success, any other value on failure. The data is used during the call only.
    virtual int publish_message(const char* name, const void* data, unsigned int length) = 0;

    /// One operation of the daemon's own, that no handler calls, is in this place; the maker's table may hold
    /// more of them, here and elsewhere.
    virtual int daemon_operation() = 0;

    /// Delivers a reply to the requester that `reply->request_id` names. Any thread may call it. The record
    /// and its payload are used during the call only; a handler acts on no result.
    virtual int send_response(const Message* reply) = 0;

    /// The token for the object's requests. Handlers write it.
    std::string user_token;
    /// The box's identity in these requests. Handlers write it.
    std::string device_id;
    /// The partner identifier that the box was configured with. Handlers read it and never write it.
    std::string partner_id;

protected:
    ~CvCloudAPI() = default;
};

#endif
