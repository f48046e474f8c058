#include "cvcloudd/daemon_cloud.h"

#include <utility>

#include <nlohmann/json.hpp>

#include "common/cloud_answer.h"
#include "common/json_text.h"
#include "cvcloudd/log_line.h"
#include "cvex/wire.h"
#include "cvutils_control.h"

namespace cvcloudd {

namespace {

using nlohmann::ordered_json;
using sandbox::CloudRequest;

ordered_json progress(const char* event, const CloudRequest& request) {
    return {{"event", event},
            {"request", request.number},
            {"service", request.service},
            {"method", request.method}};
}

void publish_progress(Exchange& exchange, const ordered_json& document) {
    exchange.publish(cvex::progress_message, sandbox::json_line(document));
}

} // namespace

DaemonCloud::DaemonCloud(sandbox::CloudAccessOptions access_options,
                         const std::vector<std::string>& refusals_on_purpose, Exchange& message_exchange,
                         Recorder& boundary_recorder)
    : CloudAccess(std::move(access_options)), exchange(message_exchange), recorder(boundary_recorder) {
    for (const std::string& refusal : refusals_on_purpose) {
        refusals.add(refusal);
    }
    start();
}

DaemonCloud::~DaemonCloud() {
    shut_down();
}

int DaemonCloud::send_request(const char* request, const char* service, cvtessel_callback callback,
                              void* user_data) {
    recorder.request(service, request);
    if (refusals.take(Operation::request) ||
        CloudAccess::send_request(request, service, callback, user_data) != 0) {
        recorder.request_refused(request);
        return 1;
    }
    return 0;
}

char* DaemonCloud::build_request(const char* method, const char* params, unsigned int params_len,
                                 bool add_connect_fields) {
    if (!refusals.take(Operation::build)) {
        if (char* const request =
                CloudAccess::build_request(method, params, params_len, add_connect_fields)) {
            return request;
        }
        log_line(1, std::string("the parameters of ") + method + " are not a JSON object");
    }
    recorder.build_refused(method);
    return nullptr;
}

int DaemonCloud::publish_message(const char* name, const void* data, unsigned int length) {
    const std::string payload(static_cast<const char*>(data), length);
    recorder.publish(name, payload);
    if (refusals.take(Operation::publish) || !exchange.publish(name, payload)) {
        recorder.publish_refused(name);
        return 1;
    }
    return 0;
}

int DaemonCloud::send_response(const Message* reply) {
    const std::string payload(reply->payload, reply->payload_len);
    recorder.reply(reply->request_id, payload);
    if (!exchange.reply(reply->request_id, payload)) {
        recorder.reply_refused(reply->request_id);
        return 1;
    }
    return 0;
}

void DaemonCloud::request_built(std::uint64_t number, const char* method, std::string_view params,
                                bool add_connect_fields) {
    recorder.build(number, method, params, add_connect_fields);
}

void DaemonCloud::request_sent(const CloudRequest& request) {
    exchange.activity().request_sent(request.method);
    publish_progress(exchange, progress("sent", request));
}

void DaemonCloud::request_ended(const CloudRequest& request) {
    if (request.status != 0) {
        log_line(1, "request " + std::to_string(request.number) + " failed: " + request.failure);
    }
    if (request.is_sent) {
        exchange.activity().request_ended(request.failure);
        ordered_json ended = progress("ended", request);
        ended["status"] = request.status;
        const std::string error =
            request.status != 0 ? request.failure : sandbox::problem_of_answer(request.response);
        if (!error.empty()) {
            ended["error"] = error;
        }
        publish_progress(exchange, ended);
    }
    cv::log::learn_tokens(request.response);
    recorder.response(request.number, request.service, request.method, request.status, request.failure,
                      request.response);
}

} // namespace cvcloudd
