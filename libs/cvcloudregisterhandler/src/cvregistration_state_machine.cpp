#include "cvregistration_state_machine.h"

#include <unistd.h>

#include <cstring>
#include <vector>

#include "cvcloud/cvcloud_api.h"
#include "cvregistration_callbacks.h"
#include "cvregistration_constants.h"
#include "cvregistration_globals.h"
#include "cvregistration_log.h"
#include "cvregistration_utils.h"
#include "cvutils/json.h"

namespace cv::registration {

namespace {

// The tries of a step: one more than the retries. With the most retries that a setting can hold the sum
// wraps, and the step is not tried at all.
std::int32_t full_budget() {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(g_retry_num) + 1U);
}

std::string jansson_error() {
    return build_error_response(error_internal, "jansson error");
}

} // namespace

RegistrationHandler::RegistrationHandler() {
    token_types = {
        {"partner", {kConnectMethod, [this] { return send_connect_request(); }}},
        {"temporary", {kGetDeviceTokenMethod, [this] { return send_get_device_token_request(); }}},
    };
    // The login step depends on the token type: set_input_params() installs it.
    states = {
        {REGISTER_DEVICE,
         {kRegisterMethod, &register_progress, [this] { return send_register_box_request(); }, FINISH}},
    };
}

bool RegistrationHandler::init() {
    if (!thread.init(this)) {
        return false;
    }
    reset();
    return true;
}

void RegistrationHandler::uninit() {
    thread.uninit();
}

void RegistrationHandler::reset() {
    state = LOGIN;
    for (StepProgress* progress : {&login_progress, &register_progress}) {
        progress->succeeded = false;
        progress->tries_left = full_budget();
        progress->value.clear();
    }
    first_method.clear();
    token.clear();
    mac.clear();
    error_response.clear();
    reply_requested = false;
    set_in_progress(false);
}

bool RegistrationHandler::set_input_params(const RegistrationParameters& params) {
    token = params.token;
    mac = params.mac;
    const auto token_type = token_types.find(params.token_type);
    if (token_type == token_types.end()) {
        CV_LOG(0, "BUG: Unknown token type: %s", params.token_type.c_str());
        return false;
    }
    first_method = token_type->second.name;
    CV_LOG(2, "Registration input params: token=%s, mac=%s, token_type=%s", token.c_str(), mac.c_str(),
           params.token_type.c_str());
    states[LOGIN] = {first_method, &login_progress, token_type->second.action, REGISTER_DEVICE};
    return true;
}

int RegistrationHandler::start_cloud_registration() {
    set_in_progress(true);
    return thread.run();
}

bool RegistrationHandler::retry_cloud_registration(std::string& error) {
    if (state != FAIL) {
        error = build_error_response(error_other, "Retry called, but current state is not FAIL");
        return false;
    }
    if (!login_progress.succeeded) {
        login_progress.tries_left = full_budget();
        state = LOGIN;
    } else if (!register_progress.succeeded) {
        register_progress.tries_left = full_budget();
        state = REGISTER_DEVICE;
    } else {
        state = FINISH;
    }
    error_response.clear();
    set_in_progress(true);
    thread.run();
    return true;
}

int RegistrationHandler::set_user_token_info(const std::string& user_token, bool success,
                                             const std::string& error) {
    return store_result(login_progress, user_token, success, error);
}

int RegistrationHandler::set_device_id_info(const std::string& device_id, bool success,
                                            const std::string& error) {
    return store_result(register_progress, device_id, success, error);
}

int RegistrationHandler::store_result(StepProgress& progress, const std::string& value, bool success,
                                      const std::string& error) {
    progress.value = value;
    progress.succeeded = success;
    error_response = error;
    return thread.run();
}

void RegistrationHandler::set_in_progress(bool in_progress) {
    // Sequentially consistent: on the appliance, a store between two full barriers. Clearing the flag hands
    // every other member back to the daemon's thread, so it is the last thing that a run does.
    registration_in_progress.store(in_progress);
}

void RegistrationHandler::run_state_machine() {
    if (state < FINISH) {
        handle_crt_state();
    } else if (state == FINISH) {
        handle_finish();
    } else if (state == FAIL) {
        // The results so far and the wish for a reply stay, for a retry.
        if (reply_requested) {
            send_cvex_response(request_id, error_response);
        }
        set_in_progress(false);
    } else {
        CV_LOG(0, "Unknown state %d", state);
    }
}

void RegistrationHandler::advance_state(State next) {
    state = next;
    run_state_machine();
}

void RegistrationHandler::handle_crt_state() {
    const auto found = states.find(state);
    if (found == states.end()) {
        CV_LOG(0, "BUG: Unknown state %d", state);
        error_response = build_error_response(error_internal, "unknown state");
        advance_state(FAIL);
        return;
    }
    StateHandler& step = found->second;
    if (step.progress->succeeded) {
        advance_state(step.next_state);
    } else {
        do_work(step);
    }
}

void RegistrationHandler::do_work(StateHandler& step) {
    std::int32_t& tries_left = step.progress->tries_left;
    CV_LOG(3, "Number of tries left is: %d", tries_left);
    while (tries_left > 0) {
        --tries_left;
        // The first try of a budget goes out at once.
        if (tries_left < g_retry_num) {
            sleep(static_cast<unsigned int>(g_retry_interval));
        }
        if (step.action()) {
            return; // The response will wake the worker, and may have done so already.
        }
    }
    CV_LOG(1, "No more tries left. %s failed", step.name.c_str());
    advance_state(FAIL);
}

void RegistrationHandler::handle_finish() {
    const std::string body = build_success_message();
    if (body.empty() || !send_cloud_registration_done(body.c_str())) {
        advance_state(FAIL);
        return;
    }
    if (reply_requested) {
        send_cvex_response(request_id, body);
    }
    reset();
}

bool RegistrationHandler::send_connect_request() {
    JsonDocument params(json_object());
    if (!params) {
        error_response = jansson_error();
        return false;
    }
    HeapText text;
    if (json_attach_value(params.get(), "partner_user_token", token.c_str()) &&
        json_attach_value(params.get(), "partner_id", g_cvcloud_api->partner_id.c_str())) {
        text.reset(json_dumps(params.get(), 0));
    }
    const bool sent = send_params(kLoginService, kConnectMethod, text.get(), get_user_token_callback, false);
    params.reset(); // Both before the outcome is logged: the order of the releases is fixed.
    text.reset();
    if (sent) {
        CV_LOG(3, "Successfully sent %s", kConnectMethod);
        return true;
    }
    CV_LOG(2, "There was an error while sending %s: %s", kConnectMethod, error_response.c_str());
    return false;
}

bool RegistrationHandler::send_get_device_token_request() {
    if (send_request_to_cloud(kLoginService, kGetDeviceTokenMethod, "", 0, request_id,
                              get_user_token_callback, error_response, true)) {
        CV_LOG(3, "Successfully sent %s", kGetDeviceTokenMethod);
        return true;
    }
    CV_LOG(2, "There was an error while sending %s: %s", kGetDeviceTokenMethod, error_response.c_str());
    return false;
}

bool RegistrationHandler::send_register_box_request() {
    JsonDocument params(json_object());
    if (!params) {
        error_response = jansson_error();
        return false;
    }
    HeapText text;
    if (json_attach_value(params.get(), "macs", std::vector<std::string>{mac}) &&
        json_attach_value(params.get(), "box_detected_name", g_box_name.c_str()) &&
        json_attach_value(params.get(), "setup_type", g_setup_type.c_str()) &&
        json_attach_value(params.get(), "device_model", g_device_model.c_str())) {
        text.reset(json_dumps(params.get(), 0));
    }
    const bool sent = send_params(kRegisterService, kRegisterMethod, text.get(), register_box_callback, true);
    params.reset(); // As in send_connect_request().
    text.reset();
    if (sent) {
        CV_LOG(3, "Successfully sent %s", kRegisterMethod);
        return true;
    }
    CV_LOG(2, "There was an error while sending %s: %s", kRegisterMethod, error_response.c_str());
    return false;
}

bool RegistrationHandler::send_params(const char* service, const char* method, const char* params,
                                      ResponseCallback callback, bool add_connect_fields) {
    if (params == nullptr) {
        error_response = jansson_error();
        return false;
    }
    const auto length = static_cast<unsigned int>(std::strlen(params));
    return send_request_to_cloud(service, method, params, length, request_id, callback, error_response,
                                 add_connect_fields);
}

std::string RegistrationHandler::build_success_message() {
    JsonDocument message(json_object());
    HeapText text;
    if (message && json_attach_value(message.get(), "result", "ok") &&
        json_attach_value(message.get(), "user_token", login_progress.value.c_str()) &&
        json_attach_value(message.get(), "device_id", register_progress.value.c_str())) {
        text.reset(json_dumps(message.get(), 0));
    }
    if (!text) {
        error_response = jansson_error();
        return {};
    }
    std::string body = text.get();
    text.reset(); // Both before the line below, in this order, which is fixed.
    message.reset();
    CV_LOG(2, "Response: %s", body.c_str());
    return body;
}

bool RegistrationHandler::send_cloud_registration_done(const char* text) {
    CV_LOG(3, "Sending %s message", kCloudRegDoneMsg);
    if (g_cvcloud_api->publish_message(kCloudRegDoneMsg, text,
                                       static_cast<unsigned int>(std::strlen(text))) != 0) {
        error_response = build_error_response(error_internal, "cvex error");
        return false;
    }
    CV_LOG(3, "Successfully sent %s cvex message", kCloudRegDoneMsg);
    return true;
}

} // namespace cv::registration
