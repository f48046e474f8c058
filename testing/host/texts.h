#ifndef TEXTS_H
#define TEXTS_H

// Every fixed text of the module, once: what a change of a text in the module takes with it, besides the page
// that lists it, docs/troubleshooting.md or docs/messages.md.

#include <string>

namespace kit {

namespace text {

// ---- Names

inline const std::string kStartCommand = "start_cloud_registration";
inline const std::string kRetryCommand = "retry_cloud_registration";
inline const std::string kDoneMessage = "cloud_registration_done";
inline const std::string kLoginService = "connect/login";
inline const std::string kBoxService = "connect/box_mgmt";
inline const std::string kConnect = "connect";
inline const std::string kGetDeviceToken = "get_device_token";
inline const std::string kRegisterBox = "register_box";
inline const std::string kTemporaryId = "thebox";

// ---- Error replies

inline std::string error_reply(const std::string& result, const std::string& reason) {
    return R"({"result": ")" + result + R"(", "reason": ")" + reason + R"("})";
}

inline std::string invalid_arguments(const std::string& reason) {
    return error_reply("error_invalid_arguments", reason);
}
inline const std::string kNotJson = invalid_arguments("Could not parse input into a JSON");
inline const std::string kNoToken = invalid_arguments("token not found");
inline const std::string kNoTokenType = invalid_arguments("token_type not found");
inline const std::string kEmptyToken = invalid_arguments("empty token");
inline const std::string kEmptyTokenType = invalid_arguments("empty token_type");
inline const std::string kInvalidTokenType = invalid_arguments("invalid token_type");

inline const std::string kBusy =
    error_reply("error_in_progress", "Another registration process is in progress");
inline const std::string kNoMac = error_reply("error_internal", "Could not determine MAC address");
inline const std::string kNotFailed =
    error_reply("error_other", "Retry called, but current state is not FAIL");
inline std::string unexpected(const std::string& command) {
    return error_reply("error_other", "Unexpected message: " + command);
}

inline const std::string kJansson = error_reply("error_internal", "jansson error");
inline const std::string kNoMemory = error_reply("error_internal", "memory alloc error");
inline const std::string kNotSent = error_reply("error_cvnc", "cvnc_ask error");
inline std::string not_built(const std::string& method) {
    return error_reply("error_internal", "Failed to build cloud request for " + method);
}

inline const std::string kEmptyResponse = error_reply("error_cvnc", "Empty response");
inline std::string status(unsigned long number) {
    return error_reply("error_cvnc", "Response status " + std::to_string(number));
}
inline std::string response_not_json(const std::string& body) {
    return error_reply("error_cvnc", "Response is not JSON: " + body);
}
/// The reasons of a response without the wanted value.
inline const std::string kNoUserToken = "user_token not found in response";
inline const std::string kInvalidUserToken = "invalid user_token in response";
inline const std::string kNoDeviceId = "device_id not found";
inline const std::string kInvalidDeviceId = "invalid device_id in response";

inline const std::string kNotPublished = error_reply("error_internal", "cvex error");
inline const std::string kUnknownState = error_reply("error_internal", "unknown state");

// ---- Success

inline std::string done(const std::string& user_token, const std::string& device_id) {
    return R"({"result": "ok", "user_token": ")" + user_token + R"(", "device_id": ")" + device_id + R"("})";
}

// ---- Log lines of levels 0 and 1, as the journal has them

inline const std::string kNoCloudAccess = "log 0 init: There was an error while cloning cvcloud_api";
inline const std::string kNoHandler =
    "log 0 init: There was an error while creating a RegistrationHandler obj";
inline std::string no_pipe(const std::string& reason) {
    return "log 0 init_pipes: Failed to create pipe: " + reason;
}
inline std::string cannot_parse(const std::string& payload) {
    return "log 1 parse_message: Could not parse \"" + payload + "\"";
}
inline std::string refusal(const std::string& reply) {
    return "log 1 handle: Could not handle request. Sending response: \"" + reply + "\"";
}
inline std::string unknown_token_type(const std::string& type) {
    return "log 0 set_input_params: BUG: Unknown token type: " + type;
}
inline std::string no_more_tries(const std::string& step) {
    return "log 1 do_work: No more tries left. " + step + " failed";
}
inline std::string unknown_work_state(int state) {
    return "log 0 handle_crt_state: BUG: Unknown state " + std::to_string(state);
}
inline const std::string kCannotAddFields =
    "log 1 send_request_to_cloud: Error adding connect fields to request";
inline std::string select_error(int error, const std::string& reason) {
    return "log 0 thread_function: Error at select: errno=" + std::to_string(error) + " (" + reason + ")";
}
inline std::string read_returned(long result) {
    return "log 0 thread_function: read returned " + std::to_string(result);
}

// ---- What tests send and answer

inline std::string answer(const std::string& key, const std::string& value) {
    return R"({"result": {")" + key + R"(": ")" + value + R"("}})";
}
inline const std::string kUserToken = answer("user_token", "U");
inline const std::string kDeviceId = answer("device_id", "D");
inline const std::string kDone = done("U", "D");
inline const std::string kStart = R"({"token": "T", "token_type": "partner"})";

} // namespace text

inline std::string publish_event(const std::string& text) {
    return "publish " + text::kDoneMessage + " " + text;
}

inline std::string reply_event(unsigned long long request_id, const std::string& text) {
    return "reply " + std::to_string(request_id) + " " + text;
}

} // namespace kit

#endif
