#ifndef CVCLOUDD_DAEMON_CLOUD_H
#define CVCLOUDD_DAEMON_CLOUD_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/cloud_access.h"
#include "cvcloudd/exchange.h"
#include "cvcloudd/recorder.h"
#include "cvcloudd/refusals.h"

namespace cvcloudd {

/// The daemon's cloud access object: it publishes and replies on the exchange, records what crosses the
/// boundary of the handlers, publishes the progress of each request, and refuses what it was told to refuse.
class DaemonCloud final : public sandbox::CloudAccess {
public:
    /// `refusals_on_purpose` are as Refusals::add() takes them. Throws std::runtime_error when the options
    /// cannot be used. `exchange` and `recorder` outlive the object.
    DaemonCloud(sandbox::CloudAccessOptions access_options,
                const std::vector<std::string>& refusals_on_purpose, Exchange& exchange, Recorder& recorder);
    ~DaemonCloud();
    DaemonCloud(const DaemonCloud&) = delete;
    DaemonCloud& operator=(const DaemonCloud&) = delete;

    int send_request(const char* request, const char* service, cvtessel_callback callback,
                     void* user_data) override;
    char* build_request(const char* method, const char* params, unsigned int params_len,
                        bool add_connect_fields) override;
    int publish_message(const char* name, const void* data, unsigned int length) override;
    int send_response(const Message* reply) override;

private:
    void request_built(std::uint64_t number, const char* method, std::string_view params,
                       bool add_connect_fields) override;
    void request_sent(const sandbox::CloudRequest& request) override;
    void request_ended(const sandbox::CloudRequest& request) override;

    Exchange& exchange;
    Recorder& recorder;
    Refusals refusals;
};

} // namespace cvcloudd

#endif
