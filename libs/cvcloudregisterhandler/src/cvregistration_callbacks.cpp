#include "cvregistration_callbacks.h"

#include <string>
#include <vector>

#include "cvcloud/cvcloud_api.h"
#include "cvregistration_constants.h"
#include "cvregistration_globals.h"
#include "cvregistration_log.h"
#include "cvregistration_state_machine.h"
#include "cvregistration_utils.h"
#include "cvutils/json.h"

namespace cv::registration {

namespace {

// Screens a response: true when its body may be parsed, else `error` holds the error reply.
bool check_response(unsigned int status, const unsigned int& body_length, std::string& error) {
    if (status != 0) {
        error = build_error_response(error_cvnc, "Response status " + std::to_string(status));
        return false;
    }
    if (body_length == 0) {
        error = build_error_response(error_cvnc, "Empty response");
        return false;
    }
    return true;
}

// Screens and parses a response. Null when there is no document; `error` then holds the error reply.
JsonDocument parse_response(const cvtessel_response& response, std::string& error) {
    if (!check_response(response.status, response.body_length, error)) {
        return nullptr;
    }
    JsonDocument document(json_loadb(response.body, response.body_length, 0, nullptr));
    if (!document) {
        error = build_error_response(error_cvnc, "Response is not JSON: " +
                                                     std::string(response.body, response.body_length));
    }
    return document;
}

// The error reply for a document without the wanted value: the cloud's own words where it says any.
std::string missing_value_error(const json_t* document, ErrorId failure, const char* reason) {
    const json_t* message = json_object_get_recursive(document, {"error", "data", "message"});
    if (message == nullptr) {
        message = json_object_get_recursive(document, {"error", "message"});
    }
    const char* text = message != nullptr ? json_extract_string_value(message) : nullptr;
    return build_error_response(failure, text != nullptr ? text : reason);
}

void delete_request_id_block(void* user_data) {
    delete static_cast<unsigned long long*>(user_data);
}

// Takes the user token out of a response and closes the exchange. False when there is none; `error` then
// holds the error reply. `name` is the registration's login step.
bool extract_token(cvtessel_response* response, void* user_data, const std::string& name, std::string& token,
                   std::string& error) {
    const ErrorId failure = name == kConnectMethod ? error_connect : error_get_device_token;
    bool found = false;
    if (const JsonDocument document = parse_response(*response, error)) {
        log_json(2, (name + " response:").c_str(), document.get());
        const json_t* value = json_object_get_recursive(document.get(), {"result", "user_token"});
        if (value == nullptr) {
            error = missing_value_error(document.get(), failure, "user_token not found in response");
        } else if (const char* text = json_extract_string_value(value)) {
            token = text;
            found = true;
        } else {
            error = build_error_response(failure, "invalid user_token in response");
        }
    }
    delete_request_id_block(user_data);
    g_cvcloud_api->release_response(response);
    if (!found) {
        CV_LOG(0, "%s", error.c_str());
    }
    return found;
}

} // namespace

void get_user_token_callback(cvtessel_response* response, void* user_data) {
    const std::string name = g_registration_handler->first_method;
    std::string token;
    std::string error;
    const bool success = extract_token(response, user_data, name, token, error);
    if (success) {
        g_cvcloud_api->user_token = token;
    }
    g_registration_handler->set_user_token_info(token, success, error);
}

void register_box_callback(cvtessel_response* response, void* user_data) {
    std::string device_id;
    std::string error;
    bool success = false;
    if (const JsonDocument document = parse_response(*response, error)) {
        log_json(2, "register_box response: ", document.get());
        const json_t* value = json_object_get_recursive(document.get(), {"result", "device_id"});
        if (value == nullptr) {
            error = missing_value_error(document.get(), error_register_box, "device_id not found");
        } else if (const char* text = json_extract_string_value(value)) {
            device_id = text;
            g_cvcloud_api->device_id = device_id;
            success = true;
        } else {
            error = build_error_response(error_register_box, "invalid device_id in response");
        }
    }
    if (!success) {
        CV_LOG(0, "%s", error.c_str());
    }
    // The login's callback closes first and reports last. Both orders are fixed: the daemon sees them.
    g_registration_handler->set_device_id_info(device_id, success, error);
    delete_request_id_block(user_data);
    g_cvcloud_api->release_response(response);
}

} // namespace cv::registration
