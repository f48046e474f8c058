#ifndef CLOUD_CLOUD_SERVICE_H
#define CLOUD_CLOUD_SERVICE_H

#include <deque>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "cloud/box_store.h"
#include "cloud/fault.h"

namespace cloud {

using Json = nlohmann::ordered_json;

struct CloudOptions {
    std::set<std::string> partner_tokens;
    std::set<std::string> temporary_tokens;
    std::string partner_id;
    /// File of the boxes and user tokens; in memory when empty.
    std::string boxes_file;
};

/// What the simulated cloud knows and decides: JSON-RPC 2.0 documents in and out, no transport.
///
/// Services and methods, with the params that they look at:
/// - connect/login connect: "partner_user_token" and "partner_id"; gives "user_token"
/// - connect/login get_device_token: "user_token", a temporary token; gives "user_token"
/// - connect/box_mgmt register_box: "user_token", one that was handed out, and "macs"; gives "device_id"
///
/// A fault that waits for the method takes precedence. Any thread may call the operations.
class CloudService {
public:
    /// Throws std::runtime_error when the file of boxes cannot be used.
    explicit CloudService(CloudOptions options);

    struct Answer {
        std::string method;
        /// What was decided, for a log line.
        std::string outcome;
        Json document;
        /// What the transport does instead of just sending the document; the documents of faults that are
        /// documents are made here.
        std::optional<Fault> fault;
    };

    Answer answer(const std::string& service, const std::string& request_text);

    /// Adds faults, all or none of them. Throws std::invalid_argument with the reason.
    void add_faults(const std::vector<std::string>& texts);
    void clear_faults();
    Json faults_left() const;

    /// The latest requests in the order of their arrival: {"time" (seconds, monotonic), "service", "method",
    /// "params", "outcome"} each.
    Json latest_requests() const;

private:
    Json carry_out(const std::string& service, const std::string& method, const Json& params,
                   std::string& outcome);
    Json connect(const Json& params);
    Json get_device_token(const Json& params);
    Json register_box(const Json& params);
    std::string hand_out_user_token();
    void note(const std::string& service, const Answer& answer, Json params);

    const CloudOptions options;
    mutable std::mutex mutex;
    BoxStore boxes;
    FaultPlan faults;
    std::deque<Json> requests;
};

} // namespace cloud

#endif
