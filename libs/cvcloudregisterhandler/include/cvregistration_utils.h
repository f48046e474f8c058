#ifndef CVREGISTRATION_UTILS_H
#define CVREGISTRATION_UTILS_H

/// @file
/// Settings, error replies, sending, the wake-up byte, and owners of what jansson allocates.

#include <cstdlib>
#include <memory>
#include <string>

#include <jansson.h>

#include "cvcloud/cvcloud_api.h"

namespace cv::registration {

/// Gives up one reference to a JSON value.
struct JsonRelease {
    /// `value` is not null: an empty owner releases nothing.
    void operator()(json_t* value) const {
        json_decref(value);
    }
};

/// Frees a text of the C library's heap.
struct TextRelease {
    /// `text` is not null: an empty owner frees nothing.
    void operator()(char* text) const {
        std::free(text);
    }
};

/// Owns one reference to a JSON value.
using JsonDocument = std::unique_ptr<json_t, JsonRelease>;

/// Owns a text that is released with free(): from json_dumps() or from CvCloudAPI::build_request().
using HeapText = std::unique_ptr<char, TextRelease>;

/// What went wrong, as replies name it. The numeric values never leave the module.
enum ErrorId : int {
    /// The start command's payload is not what it has to be.
    error_invalid_arguments,
    /// A registration is under way.
    error_in_progress,
    /// Something failed on the box: no MAC address, no memory, a request not built, a message not published.
    error_internal,
    /// The cloud access object refused a request, or its response failed or holds no document.
    error_cvnc,
    /// The cloud's answer to a partner token holds no user token.
    error_connect,
    /// The cloud's answer to a temporary token holds no user token.
    error_get_device_token,
    /// The cloud's answer to the box registration holds no device id.
    error_register_box,
    /// A command that is unknown, or a retry where nothing has failed.
    error_other,
};

/// Builds the error reply {"result": "<identifier>", "reason": "<reason>"}; the result of an identifier
/// outside the enumeration is "error". Any thread may call it.
///
/// Nothing in the reason is escaped: with a double quote or a backslash in it the reply is not valid JSON.
/// That is so on purpose; the text is fixed.
std::string build_error_response(ErrorId id, const std::string& reason);

/// @name Settings
/// Read once by init_global_settings() before the worker thread exists, and only read afterwards, on any
/// thread. They hold what the store holds: no value is out of range.
/// @{

/// Tries of a step after its first one. Below 0, and at the greatest int, a step is not tried at all.
extern int g_retry_num;
/// Pause before each of those tries, in seconds. Below 0 it counts as that many seconds less than 2^32.
extern int g_retry_interval;
/// Network interface whose MAC address the box is registered under when a start command names none.
extern std::string g_register_interface;
/// "setup_type" of the box registration.
extern std::string g_setup_type;
/// "box_detected_name" of the box registration: the name under which the box is shown.
extern std::string g_box_name;
/// "device_model" of the box registration.
extern std::string g_device_model;

/// @}

/// Reads the settings from the settings store, on the daemon's thread.
void init_global_settings();

/// Sends `text` to the requester that `request_id` names. Any thread may call it.
/// Returns the daemon's own result, which no caller acts on: a reply that is lost is lost.
int send_cvex_response(unsigned long long request_id, const std::string& text);

/// Receives the response to one request. `user_data` is the request's 8-byte heap block.
using ResponseCallback = void (*)(cvtessel_response* response, void* user_data);

/// Builds a cloud request and hands it to the cloud access object, on the worker thread.
///
/// `params` is `params_len` bytes of JSON text, or empty. `request_id` travels with the request as a heap
/// block of 8 bytes that `callback` receives as its user data and has to delete. True when the request is on
/// its way: `callback` will be called once, perhaps before this function returns. False when it is not: no
/// callback will come, and `error` holds the error reply. `error` is untouched on success.
bool send_request_to_cloud(const char* service, const char* method, const char* params,
                           unsigned int params_len, unsigned long long request_id, ResponseCallback callback,
                           std::string& error, bool add_connect_fields);

/// Writes one wake-up byte to a pipe, on any thread; never blocks. Returns 1 when it was written. Returns -1
/// when the wake-up is lost: the pipe is full, or `poll` or `write` failed.
int write_byte(int descriptor);

} // namespace cv::registration

#endif
