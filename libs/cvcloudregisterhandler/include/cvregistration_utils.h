#ifndef CVREGISTRATION_UTILS_H
#define CVREGISTRATION_UTILS_H

#include <cstdlib>
#include <memory>
#include <string>

#include <jansson.h>

#include "cvcloud/cvcloud_api.h"

namespace cv::registration {

struct JsonRelease {
    void operator()(json_t* value) const {
        json_decref(value);
    }
};

struct TextRelease {
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
    error_invalid_arguments,
    error_in_progress,
    error_internal,
    error_cvnc,
    error_connect,
    error_get_device_token,
    error_register_box,
    error_other,
};

/// Builds the error reply {"result": "<identifier>", "reason": "<reason>"}; the result of an identifier
/// outside the enumeration is "error". Any thread may call it.
///
/// The reason is inserted as it is: one that holds a double quote or a backslash makes the reply invalid
/// JSON.
std::string build_error_response(ErrorId id, const std::string& reason);

// The settings, read once by init_global_settings() before the worker thread exists and only read afterwards.
// They hold what the store holds: no value is out of range.

/// Tries of a step after its first one. Below 0 a step is not tried at all.
extern int g_retry_num;
/// Pause before each of those tries, in seconds.
extern int g_retry_interval;
/// Network interface whose MAC address the box is registered under when a start command names none.
extern std::string g_register_interface;
extern std::string g_setup_type;
extern std::string g_box_name;
extern std::string g_device_model;

/// Reads the settings from the settings store, on the daemon's thread.
void init_global_settings();

/// Sends `text` to the requester that `request_id` names. Any thread may call it.
/// Returns the daemon's own result; nobody acts on it, since there is nobody else to tell.
int send_cvex_response(unsigned long long request_id, const std::string& text);

/// Builds a cloud request and hands it to the cloud access object, on the worker thread.
///
/// `params` is `params_len` bytes of JSON text, or empty. `request_id` travels with the request as a heap
/// block of 8 bytes that `callback` receives as its user data and has to delete. True when the request is on
/// its way: `callback` will be called once, perhaps before this function returns. False when it is not: no
/// callback will come, and `error` holds the error reply. `error` is untouched on success.
bool send_request_to_cloud(const char* service, const char* method, const char* params,
                           unsigned int params_len, unsigned long long request_id, cvtessel_callback callback,
                           std::string& error, bool add_connect_fields);

/// Writes one wake-up byte to a pipe, on any thread; never blocks. Returns 1 when it was written and -1 when
/// not: a pipe that is full drops the wake-up.
int write_byte(int descriptor);

} // namespace cv::registration

#endif
