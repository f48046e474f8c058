#include "cloud/cloud_service.h"

#include <algorithm>
#include <cstdio>
#include <random>
#include <utility>

namespace cloud {

namespace {

// The error codes of JSON-RPC 2.0; the last is from the range that it leaves to servers.
constexpr int parse_error = -32700;
constexpr int invalid_request = -32600;
constexpr int method_not_found = -32601;
constexpr int invalid_params = -32602;
constexpr int refused = -32000;

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

} // namespace

CloudService::CloudService(CloudOptions service_options) : options(std::move(service_options)) {}

CloudService::Answer CloudService::answer(const std::string& service, const std::string& request_text) {
    Answer answer{"-", "ok", {{"jsonrpc", "2.0"}, {"id", nullptr}}};
    try {
        const Json request = Json::parse(request_text, nullptr, false);
        if (request.is_discarded()) {
            throw RequestError{parse_error, "Parse error", "the request is not JSON"};
        }
        if (!request.is_object() || !request.contains("method") || !request["method"].is_string()) {
            throw RequestError{invalid_request, "Invalid Request", "the request names no method"};
        }
        answer.method = request["method"];
        answer.document["id"] = request.value("id", Json());
        const Json params = request.value("params", Json::object());
        if (!params.is_object()) {
            throw RequestError{invalid_params, "Invalid params", "\"params\" is not an object"};
        }

        const std::lock_guard lock(mutex);
        const std::string called = service + " " + answer.method;
        if (called == "connect/login connect") {
            answer.document["result"] = connect(params);
        } else if (called == "connect/login get_device_token") {
            answer.document["result"] = get_device_token(params);
        } else if (called == "connect/box_mgmt register_box") {
            answer.document["result"] = register_box(params);
            answer.outcome += ", " + params["macs"][0].get<std::string>() + " is " +
                              answer.document["result"]["device_id"].get<std::string>();
        } else {
            throw RequestError{method_not_found, "Method not found",
                               service + " has no method " + answer.method};
        }
    } catch (const RequestError& error) {
        answer.outcome = "refused: " + error.message;
        answer.document["error"] = {
            {"code", error.code}, {"message", error.title}, {"data", {{"message", error.message}}}};
    }
    return answer;
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
    if (user_tokens.count(text_member(params, "user_token")) == 0) {
        throw RequestError{refused, "Refused", "unknown user token"};
    }
    const Json macs = params.value("macs", Json());
    if (!macs.is_array() || macs.size() != 1 || !macs[0].is_string() || macs[0].get<std::string>().empty()) {
        throw RequestError{invalid_params, "Invalid params", "\"macs\" is not an array of one MAC address"};
    }
    const auto number = device_ids.size() + 1;
    const auto box =
        device_ids.try_emplace(macs[0].get<std::string>(), "box-" + std::to_string(number)).first;
    return {{"device_id", box->second}};
}

std::string CloudService::hand_out_user_token() {
    std::random_device random;
    char token[32];
    std::snprintf(token, sizeof token, "user-%08x%08x", random(), random());
    return *user_tokens.insert(token).first;
}

} // namespace cloud
