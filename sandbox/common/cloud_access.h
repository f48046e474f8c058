#ifndef COMMON_CLOUD_ACCESS_H
#define COMMON_CLOUD_ACCESS_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include <curl/curl.h>

#include "common/mailbox.h"
#include "cvcloud/cvcloud_api.h"

namespace sandbox {

/// Deletes a resource of a C library with the function that the library has for it.
template <auto release>
struct Releaser {
    template <typename Resource>
    void operator()(Resource* resource) const {
        release(resource);
    }
};

struct CloudAccessOptions {
    /// http or https, without the service's path.
    std::string url;
    std::string partner_id;
    /// PEM file of the authorities that an https cloud's certificate has to come from; those of the system
    /// when empty.
    std::string authorities_file;
    std::chrono::milliseconds request_timeout{10000};
    /// Longest response body in bytes; a longer one ends the request as failed.
    std::size_t response_limit = 1024 * 1024;
};

/// One request of a handler, and what came of it.
struct CloudRequest {
    std::string service;
    /// Empty and 0 in a request that build_request() did not build.
    std::string method;
    std::uint64_t number = 0;
    std::string url;
    /// False when the request was given up before it was sent.
    bool is_sent = false;
    /// Of the response, as CloudAccess defines it.
    std::uint32_t status = 0;
    /// The URL and what went wrong; empty when the status is 0.
    std::string failure;
    /// The response body as it came.
    std::string response;
};

/// The requests of a cloud access object: JSON-RPC 2.0 over HTTP, the service name as the path. A derived
/// class publishes and replies.
///
/// A request is {"jsonrpc": "2.0", "id": number, "method": ..., "params": {...}}, sent by POST to
/// url/service. Its params are those of the handler; the connection fields "user_token" and "device_id" are
/// further members.
///
/// The status of a response is 0 when the cloud answered with HTTP 200, else the HTTP status (100 and above)
/// or the transfer library's error number (below 100: 7 cannot connect, 28 timed out, 42 given up because the
/// daemon stops, 63 longer than the limit). The body is what came, unchanged.
///
/// An accepted request has its callback called exactly once, on the thread that serves and never from inside
/// send_request(). Only after shut_down() is a request not sent any more: it fails at once, and its
/// callback is called from inside send_request(). To refuse it would make a handler that retries go through
/// all its pauses.
class CloudAccess : public CvCloudAPI {
public:
    /// Throws std::runtime_error when the URL or the file of authorities cannot be used.
    explicit CloudAccess(CloudAccessOptions options);
    CloudAccess(const CloudAccess&) = delete;
    CloudAccess& operator=(const CloudAccess&) = delete;

    /// Carries out the requests, on a thread of this object's own.
    void start();

    /// Carries them out on the calling thread until stop() is called.
    void serve();

    /// Sends no further request and ends the outstanding ones as failed. Any thread may call it.
    void stop();

    /// Stops, and waits for the thread that start() has made: the last callback has returned. A callback that
    /// is called afterwards is called by the handler's own send_request(). For the dispatch thread.
    void shut_down();

    int send_request(const char* request, const char* service, cvtessel_callback callback,
                     void* user_data) override;
    void release_response(cvtessel_response* response) override;
    char* build_request(const char* method, const char* params, unsigned int params_len,
                        bool add_connect_fields) override;
    int daemon_operation() override;

protected:
    /// A derived class calls shut_down() in its own destructor: its hooks end with it.
    ~CloudAccess();

    /// build_request() has built a request; called on its thread.
    virtual void request_built(std::uint64_t /*number*/, const char* /*method*/, std::string_view /*params*/,
                               bool /*add_connect_fields*/) {}
    /// The request goes out; called on the thread that serves.
    virtual void request_sent(const CloudRequest& /*request*/) {}
    /// The request has ended; its callback is called next, on the same thread.
    virtual void request_ended(const CloudRequest& /*request*/) {}

private:
    struct Transfer;

    void begin(std::unique_ptr<Transfer> transfer);
    void give_up(Transfer& transfer);
    void collect_ended();
    void abandon_all();
    void end(Transfer& transfer, std::uint32_t status, const std::string& error);

    const CloudAccessOptions options;
    std::atomic<std::uint64_t> last_request_number = 0;
    Mailbox<std::unique_ptr<Transfer>> submitted;
    std::unique_ptr<CURLM, Releaser<curl_multi_cleanup>> multi;
    std::unique_ptr<curl_slist, Releaser<curl_slist_free_all>> json_header;
    std::map<CURL*, std::unique_ptr<Transfer>> active;
    std::thread thread;
};

} // namespace sandbox

#endif
