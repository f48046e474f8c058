#include "cvregistration_utils.h"

#include <poll.h>
#include <unistd.h>

#include <map>
#include <new>

#include "cvregistration_constants.h"
#include "cvregistration_globals.h"
#include "cvregistration_log.h"
#include "cvutils/settings.h"

namespace cv::registration {

const char* const kStartCloudRegMsg = "start_cloud_registration";
const char* const kRetryCloudRegMsg = "retry_cloud_registration";
const char* const kCloudRegDoneMsg = "cloud_registration_done";

const char* const kToken = "token";
const char* const kTokenType = "token_type";
const char* const kRegisterMacAddress = "register_mac_address";

const char* const kLoginService = "connect/login";
const char* const kConnectMethod = "connect";
const char* const kGetDeviceTokenMethod = "get_device_token";
const char* const kRegisterService = "connect/box_mgmt";
const char* const kRegisterMethod = "register_box";

const char* const kTemporaryDeviceId = "thebox";

int g_retry_num;
int g_retry_interval;
std::string g_register_interface;
std::string g_setup_type;
std::string g_box_name;
std::string g_device_model;

void init_global_settings() {
    g_retry_num = setMgmt::getKeyValue("/daemons/cvcloudd/registration/retry_num", 3);
    g_retry_interval = setMgmt::getKeyValue("/daemons/cvcloudd/registration/retry_interval", 1);
    g_register_interface = setMgmt::getKeyValue("/daemons/cvcloudd/registration/register_interface", "eth2");
    g_setup_type = setMgmt::getKeyValue("/daemons/cvcloudd/registration/setup_type", "STANDALONE");
    g_box_name = setMgmt::getKeyValue("/daemons/cvcloudd/registration/box_name", "Corvane Orlo");
    g_device_model = setMgmt::getKeyValue("/daemons/cvcloudd/registration/device_model", "orlov2");
    // The text is fixed, with its doubled comma.
    CV_LOG(3, "g_retry_num=%d, g_retry_interval=%d,, g_register_interface=%s", g_retry_num, g_retry_interval,
           g_register_interface.c_str());
}

std::string build_error_response(ErrorId id, const std::string& reason) {
    static const std::map<ErrorId, const char*> results = {
        {error_invalid_arguments, "error_invalid_arguments"},
        {error_in_progress, "error_in_progress"},
        {error_internal, "error_internal"},
        {error_cvnc, "error_cvnc"},
        {error_connect, "error_connect"},
        {error_get_device_token, "error_get_device_token"},
        {error_register_box, "error_register_box"},
        {error_other, "error_other"},
    };
    const auto found = results.find(id);
    const char* const result = found != results.end() ? found->second : "error";
    return std::string("{\"result\": \"") + result + "\", \"reason\": \"" + reason + "\"}";
}

int send_cvex_response(unsigned long long request_id, const std::string& text) {
    Message reply = {};
    reply.name[0] = '0'; // The name of every reply is the text "0".
    reply.request_id = request_id;
    reply.payload_len = static_cast<std::uint32_t>(text.length());
    reply.payload = text.data();
    return g_cvcloud_api->send_response(&reply);
}

bool send_request_to_cloud(const char* service, const char* method, const char* params,
                           unsigned int params_len, unsigned long long request_id, ResponseCallback callback,
                           std::string& error, bool add_connect_fields) {
    HeapText request(g_cvcloud_api->build_request(method, params, params_len, add_connect_fields));
    if (!request) {
        CV_LOG(1, "Error adding connect fields to request");
        error =
            build_error_response(error_internal, std::string("Failed to build cloud request for ") + method);
        return false;
    }
    CV_LOG(3, "service: %s, full request: %s", service, request.get());

    auto* request_id_block = new (std::nothrow) unsigned long long(request_id);
    if (request_id_block == nullptr) {
        error = build_error_response(error_internal, "memory alloc error");
        return false;
    }
    if (g_cvcloud_api->send_request(request.get(), service, callback, request_id_block) == 0) {
        return true; // The block is the callback's now, and may be gone already.
    }
    error = build_error_response(error_cvnc, "cvnc_ask error");
    request.reset(); // Before the block: the order of the releases is fixed.
    delete request_id_block;
    return false;
}

int write_byte(int descriptor) {
    pollfd writable = {descriptor, POLLOUT, 0};
    if (poll(&writable, 1, 0) < 1) {
        return -1;
    }
    return static_cast<int>(write(descriptor, "x", 1));
}

} // namespace cv::registration
