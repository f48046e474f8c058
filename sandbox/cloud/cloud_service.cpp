#include "cloud/cloud_service.h"

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <unistd.h>

#include "common/json_text.h"

namespace cloud {

namespace {

// The error codes of JSON-RPC 2.0; the last is from the range that it leaves to servers.
constexpr int parse_error = -32700;
constexpr int invalid_request = -32600;
constexpr int method_not_found = -32601;
constexpr int invalid_params = -32602;
constexpr int internal_error = -32603;
constexpr int refused = -32000;

constexpr std::size_t remembered_requests = 1000;

/// A request that is answered with an error document.
struct RequestError {
    int code;
    std::string title;
    std::string message;
};

std::string text_member(const Json& object, const char* key) {
    const auto member = object.find(key);
    if (member == object.end() || !member->is_string()) {
        throw RequestError{invalid_params, "Invalid params", std::string("no text \"") + key + "\""};
    }
    return member->get<std::string>();
}

/// Replaces the document by that of the fault, if the fault is a document.
void apply(const Fault& fault, CloudService::Answer& answer) {
    const auto set_error = [&answer](Json error) {
        error["code"] = refused;
        answer.document["error"] = std::move(error);
    };
    const char* const value = answer.method == "register_box" ? "device_id" : "user_token";
    switch (fault.kind) {
    case FaultKind::error:
        set_error({{"message", "Refused"}, {"data", {{"message", fault.argument}}}});
        break;
    case FaultKind::error_plain:
        set_error({{"message", fault.argument}});
        break;
    case FaultKind::error_number:
        set_error({{"message", "Refused"}, {"data", {{"message", 42}}}});
        break;
    case FaultKind::result_empty:
        answer.document["result"] = Json::object();
        break;
    case FaultKind::result_number:
        answer.document["result"] = {{value, 42}};
        break;
    default:
        break;
    }
}

double monotonic_seconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

} // namespace

CloudService::CloudService(CloudOptions service_options)
    : options(std::move(service_options)), boxes(options.boxes_file) {}

CloudService::Answer CloudService::answer(const std::string& service, const std::string& request_text) {
    Answer answer{"-", "", {{"jsonrpc", "2.0"}, {"id", nullptr}}, std::nullopt};
    Json params;
    const std::lock_guard lock(mutex);
    try {
        const Json request = sandbox::parse_json(request_text);
        if (request.is_discarded()) {
            throw RequestError{parse_error, "Parse error",
                               "the request is not JSON, or nested deeper than " +
                                   std::to_string(sandbox::json_depth_limit) + " levels"};
        }
        if (!request.is_object() || !request.contains("method") || !request["method"].is_string()) {
            throw RequestError{invalid_request, "Invalid Request", "the request names no method"};
        }
        answer.method = request["method"];
        answer.document["id"] = request.value("id", Json());
        params = request.value("params", Json::object());
        if (!params.is_object()) {
            throw RequestError{invalid_params, "Invalid params", "\"params\" is not an object"};
        }
        answer.fault = faults.take(answer.method);
        if (!answer.fault || answer.fault->is_carried_out) {
            answer.outcome = "ok";
            answer.document["result"] = carry_out(service, answer.method, params, answer.outcome);
        }
    } catch (const RequestError& error) {
        answer.outcome = "refused: " + error.message;
        answer.document["error"] = {
            {"code", error.code}, {"message", error.title}, {"data", {{"message", error.message}}}};
    } catch (const std::runtime_error& error) {
        answer.outcome = std::string("failed: ") + error.what();
        answer.document["error"] = {{"code", internal_error}, {"message", error.what()}};
    }
    if (answer.fault) {
        apply(*answer.fault, answer);
        answer.outcome += (answer.outcome.empty() ? "fault " : ", fault ") + answer.fault->text;
    }
    note(service, answer, std::move(params));
    return answer;
}

void CloudService::add_faults(const std::vector<std::string>& texts) {
    const std::lock_guard lock(mutex);
    FaultPlan changed = faults;
    for (const std::string& text : texts) {
        changed.add(text);
    }
    faults = std::move(changed);
}

void CloudService::clear_faults() {
    const std::lock_guard lock(mutex);
    faults.clear();
}

Json CloudService::faults_left() const {
    const std::lock_guard lock(mutex);
    return faults.left();
}

Json CloudService::latest_requests() const {
    const std::lock_guard lock(mutex);
    return requests;
}

void CloudService::note(const std::string& service, const Answer& answer, Json params) {
    requests.push_back({{"time", monotonic_seconds()},
                        {"service", service},
                        {"method", answer.method},
                        {"params", std::move(params)},
                        {"outcome", answer.outcome}});
    if (requests.size() > remembered_requests) {
        requests.pop_front();
    }
}

Json CloudService::carry_out(const std::string& service, const std::string& method, const Json& params,
                             std::string& outcome) {
    const std::string called = service + " " + method;
    if (called == "connect/login connect") {
        return connect(params);
    }
    if (called == "connect/login get_device_token") {
        return get_device_token(params);
    }
    if (called == "connect/box_mgmt register_box") {
        Json result = register_box(params);
        outcome +=
            ", " + params["macs"][0].get<std::string>() + " is " + result["device_id"].get<std::string>();
        return result;
    }
    throw RequestError{method_not_found, "Method not found", service + " has no method " + method};
}

Json CloudService::connect(const Json& params) {
    if (text_member(params, "partner_id") != options.partner_id) {
        throw RequestError{refused, "Refused", "unknown partner"};
    }
    if (options.partner_tokens.count(text_member(params, "partner_user_token")) == 0) {
        throw RequestError{refused, "Refused", "unknown partner token"};
    }
    return {{"user_token", hand_out_user_token()}};
}

Json CloudService::get_device_token(const Json& params) {
    if (options.temporary_tokens.count(text_member(params, "user_token")) == 0) {
        throw RequestError{refused, "Refused", "unknown temporary token"};
    }
    return {{"user_token", hand_out_user_token()}};
}

Json CloudService::register_box(const Json& params) {
    if (!boxes.has_user_token(text_member(params, "user_token"))) {
        throw RequestError{refused, "Refused", "unknown user token"};
    }
    const Json macs = params.value("macs", Json());
    if (!macs.is_array() || macs.size() != 1 || !macs[0].is_string() || macs[0].get<std::string>().empty()) {
        throw RequestError{invalid_params, "Invalid params", "\"macs\" is not an array of one MAC address"};
    }
    return {{"device_id", boxes.device_id(macs[0])}};
}

std::string CloudService::hand_out_user_token() {
    std::uint64_t number = 0;
    if (getentropy(&number, sizeof number) != 0) {
        throw std::system_error(errno, std::generic_category(), "getentropy");
    }
    char token[32];
    std::snprintf(token, sizeof token, "user-%016" PRIx64, number);
    boxes.add_user_token(token);
    return token;
}

} // namespace cloud
