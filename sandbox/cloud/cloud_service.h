#ifndef CLOUD_CLOUD_SERVICE_H
#define CLOUD_CLOUD_SERVICE_H

#include <map>
#include <mutex>
#include <set>
#include <string>

#include <nlohmann/json.hpp>

namespace cloud {

using Json = nlohmann::ordered_json;

struct CloudOptions {
    std::set<std::string> partner_tokens;
    std::set<std::string> temporary_tokens;
    std::string partner_id;
};

/// What the simulated cloud knows and decides: JSON-RPC 2.0 documents in and out, no transport.
///
/// Services and methods, with the params that they look at:
/// - connect/login connect: "partner_user_token" and "partner_id"; gives "user_token"
/// - connect/login get_device_token: "user_token", a temporary token; gives "user_token"
/// - connect/box_mgmt register_box: "user_token", one that was handed out, and "macs"; gives "device_id"
///
/// Any thread may call it.
class CloudService {
public:
    explicit CloudService(CloudOptions options);

    struct Answer {
        std::string method;
        /// What was decided, for a log line.
        std::string outcome;
        Json document;
    };

    Answer answer(const std::string& service, const std::string& request_text);

private:
    Json connect(const Json& params);
    Json get_device_token(const Json& params);
    Json register_box(const Json& params);
    std::string hand_out_user_token();

    const CloudOptions options;
    std::mutex mutex;
    std::set<std::string> user_tokens;
    std::map<std::string, std::string> device_ids;
};

} // namespace cloud

#endif
