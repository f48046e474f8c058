#include "cvcloudregisterhandler.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstring>
#include <new>

#include "cvregistration_constants.h"
#include "cvregistration_globals.h"
#include "cvregistration_log.h"
#include "cvregistration_state_machine.h"
#include "cvregistration_utils.h"
#include "cvutils/json.h"
#include "cvutils/network.h"

unsigned char mandatory_cloud_handler = 1;
HandlerAPI_impl g_handler_api;
CvCloudAPI* g_cvcloud_api = nullptr;
cv::registration::RegistrationHandler* g_registration_handler = nullptr;

namespace cv::registration {

namespace {

constexpr std::int32_t kRequestWithReply = 2;

bool refuse(std::string& response, ErrorId id, const std::string& reason) {
    response = build_error_response(id, reason);
    return false;
}

bool refuse_while_in_progress(std::string& response) {
    return refuse(response, error_in_progress, "Another registration process is in progress");
}

void record_request(const Message& message) {
    // A request without reply does not clear the wish of an earlier one whose registration failed.
    if (message.type == kRequestWithReply) {
        g_registration_handler->reply_requested = true;
    }
    g_registration_handler->request_id = message.request_id;
}

// Reads and validates the payload of a start command. On false `response` holds the error reply.
bool parse_message(const Message& message, RegistrationParameters& params, std::string& response) {
    CV_LOG(2, "Received %s message", kStartCloudRegMsg);
    JsonDocument payload(json_loadb(message.payload, message.payload_len, 0, nullptr));
    if (!payload) {
        // A precision above INT_MAX would be negative, and so none.
        const auto length = static_cast<int>(std::min<std::uint32_t>(message.payload_len, INT_MAX));
        CV_LOG(1, "Could not parse \"%.*s\"", length, message.payload);
        return refuse(response, error_invalid_arguments, "Could not parse input into a JSON");
    }
    const char* token = json_extract_string_value(payload.get(), kToken);
    if (token == nullptr) {
        return refuse(response, error_invalid_arguments, "token not found");
    }
    const char* token_type = json_extract_string_value(payload.get(), kTokenType);
    if (token_type == nullptr) {
        return refuse(response, error_invalid_arguments, "token_type not found");
    }
    const char* mac = json_extract_string_value(payload.get(), kRegisterMacAddress);
    params = {token, token_type, mac != nullptr ? mac : ""};
    payload.reset(); // Before a refusal is built: the order of the releases is fixed.

    if (params.token.empty()) {
        return refuse(response, error_invalid_arguments, "empty token");
    }
    if (params.token_type.empty()) {
        return refuse(response, error_invalid_arguments, "empty token_type");
    }
    if (params.token_type != "temporary" && params.token_type != "partner") {
        return refuse(response, error_invalid_arguments, "invalid token_type");
    }
    if (params.mac.empty() && !get_mac_address(g_register_interface, params.mac)) {
        return refuse(response, error_internal, "Could not determine MAC address");
    }
    for (char& character : params.mac) {
        character = static_cast<char>(std::toupper(static_cast<unsigned char>(character)));
    }
    return true;
}

// Both return true when the registration is the worker's to run and to answer. On false `response` holds the
// refusal to send, which is empty in one case.

bool handle_start_registration(const Message& message, std::string& response) {
    if (g_registration_handler->registration_in_progress.load()) {
        return refuse_while_in_progress(response);
    }
    RegistrationParameters params;
    if (!parse_message(message, params, response)) {
        return false;
    }
    g_registration_handler->reset();
    record_request(message);
    if (!g_registration_handler->set_input_params(params)) {
        return false; // The one refusal with an empty reply, which is fixed as such.
    }
    g_cvcloud_api->user_token = params.token;
    g_cvcloud_api->device_id = kTemporaryDeviceId;
    g_registration_handler->start_cloud_registration();
    return true;
}

bool handle_retry_registration(const Message& message, std::string& response) {
    if (g_registration_handler->registration_in_progress.load()) {
        return refuse_while_in_progress(response);
    }
    record_request(message);
    return g_registration_handler->retry_cloud_registration(response);
}

// Named as its log lines have to be. False when the handler is not ready; what was made by then is left.
bool init(CvCloudAPI* api, std::vector<std::string>& commands) {
    g_cvcloud_api = api;
    if (api == nullptr) {
        CV_LOG(0, "There was an error while cloning cvcloud_api");
        return false;
    }
    void* storage = ::operator new(sizeof(RegistrationHandler), std::nothrow);
    if (storage == nullptr) {
        g_registration_handler = nullptr;
        CV_LOG(0, "There was an error while creating a RegistrationHandler obj");
        return false;
    }
    // Nothing of the memory's previous use is left in the object, not even in its padding.
    std::memset(storage, 0, sizeof(RegistrationHandler));
    g_registration_handler = new (storage) RegistrationHandler;
    commands.emplace_back(kStartCloudRegMsg);
    commands.emplace_back(kRetryCloudRegMsg);
    init_global_settings();
    return g_registration_handler->init();
}

} // namespace

} // namespace cv::registration

int HandlerAPI_impl::init(CvCloudAPI* api, std::vector<std::string>& commands) {
    if (!cv::registration::init(api, commands)) {
        uninit(); // Not HandlerAPI_impl::uninit(): a derived handler's own is called, too.
        return 0;
    }
    return 1;
}

void HandlerAPI_impl::uninit() {
    if (g_registration_handler == nullptr) {
        return;
    }
    g_registration_handler->uninit();
    delete g_registration_handler;
    g_registration_handler = nullptr;
}

void HandlerAPI_impl::handle(const Message* message) {
    using namespace cv::registration;

    std::string response;
    bool accepted = false;
    if (std::strcmp(message->name, kStartCloudRegMsg) == 0) {
        accepted = handle_start_registration(*message, response);
    } else if (std::strcmp(message->name, kRetryCloudRegMsg) == 0) {
        accepted = handle_retry_registration(*message, response);
    } else {
        refuse(response, error_other, std::string("Unexpected message: ") + message->name);
    }
    if (accepted || message->type != kRequestWithReply) {
        return;
    }
    CV_LOG(1, "Could not handle request. Sending response: \"%s\"", response.c_str());
    send_cvex_response(message->request_id, response);
}

CvHandlerAPI* get_handler_api() {
    return &g_handler_api;
}
