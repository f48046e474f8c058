#ifndef FLEET_BOX_CLOUD_H
#define FLEET_BOX_CLOUD_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <curl/curl.h>

#include "cvcloud/cvcloud_api.h"

namespace fleet {

/// One request that has come to its end.
struct Try {
    std::string method;
    /// Seconds since the epoch.
    double begin;
    double end;
    /// As in cvtessel_response, with the meanings of cvcloudd: 0, an HTTP status (100 and above) or an error
    /// number of the transfer library.
    std::uint32_t status;
};

/// The cloud access object of a box that does nothing but register: as cvcloudd's, without a message exchange
/// and without a thread of its own. Requests go out one after another on the thread that serves.
class BoxCloud final : public CvCloudAPI {
public:
    /// `url` is http or https, without the service's path. `on_try` is called on the serving thread.
    BoxCloud(std::string url, std::string box_partner_id, std::function<void(const Try&)> on_try);
    ~BoxCloud();
    BoxCloud(const BoxCloud&) = delete;
    BoxCloud& operator=(const BoxCloud&) = delete;

    /// Carries out requests and calls their callbacks, until the first reply. Returns its text.
    std::string serve();

    int send_request(const char* request, const char* service, cvtessel_callback callback,
                     void* user_data) override;
    void release_response(cvtessel_response* response) override;
    char* build_request(const char* method, const char* params, unsigned int params_len,
                        bool add_connect_fields) override;
    int publish_message(const char* name, const void* data, unsigned int length) override;
    int daemon_operation() override;
    int send_response(const Message* reply) override;

private:
    struct Request {
        std::string text;
        std::string service;
        cvtessel_callback callback;
        void* user_data;
    };

    void carry_out(const Request& request);

    const std::string url;
    const std::function<void(const Try&)> on_try;
    CURL* const transfer;
    curl_slist* const header;
    std::atomic<int> last_request_number{0};
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Request> requests;
    std::optional<std::string> reply_text;
};

} // namespace fleet

#endif
