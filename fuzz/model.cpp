#include "model.h"

#include <cstdlib>
#include <initializer_list>
#include <optional>
#include <tuple>

namespace fuzz {

namespace {

enum { login_state = 0, box_state = 1, finish_state = 4, fail_state = 5 };

std::string error_text(const std::string& result, const std::string& reason) {
    return "{\"result\": \"" + result + "\", \"reason\": \"" + reason + "\"}";
}

std::string reply_effect(unsigned long long request_id, const std::string& text) {
    return "reply " + std::to_string(request_id) + " " + text;
}

// The one-line text of a value, which it takes over; none for a null, which stands for what JSON cannot hold.
std::optional<std::string> take_text(json_t* value) {
    if (value == nullptr) {
        return std::nullopt;
    }
    char* text = json_dumps(value, 0);
    std::string copy = text;
    std::free(text);
    json_decref(value);
    return copy;
}

const json_t* find(const json_t* value, std::initializer_list<const char*> path) {
    for (const char* key : path) {
        value = json_is_object(value) ? json_object_get(value, key) : nullptr;
    }
    return value;
}

std::optional<std::string> text_of(const json_t* value) {
    if (!json_is_string(value)) {
        return std::nullopt;
    }
    return std::string(json_string_value(value), json_string_length(value));
}

std::string upper_case(std::string text) {
    for (char& character : text) {
        if (character >= 'a' && character <= 'z') {
            character = static_cast<char>(character - 'a' + 'A');
        }
    }
    return text;
}

} // namespace

bool operator==(const Snapshot& one, const Snapshot& other) {
    const auto members = [](const Snapshot& snapshot) {
        const auto& [state, in_progress, login, box, first_method, token, mac, error_response, request_id,
                     reply_requested, user_token, device_id, wake_ups] = snapshot;
        return std::tie(state, in_progress, login.tries_left, login.succeeded, login.value, box.tries_left,
                        box.succeeded, box.value, first_method, token, mac, error_response, request_id,
                        reply_requested, user_token, device_id, wake_ups);
    };
    return members(one) == members(other);
}

std::string describe(const Snapshot& snapshot) {
    const auto step = [](const Snapshot::Step& progress) {
        return std::to_string(progress.tries_left) + " tries left, " + (progress.succeeded ? "" : "not ") +
               "succeeded, value [" + progress.value + "]";
    };
    return "state " + std::to_string(snapshot.state) + (snapshot.in_progress ? ", in progress" : "") +
           (snapshot.reply_requested ? ", reply requested" : "") + "\nlogin: " + step(snapshot.login) +
           "\nbox: " + step(snapshot.box) + "\nfirst_method [" + snapshot.first_method + "]\ntoken [" +
           snapshot.token + "]\nmac [" + snapshot.mac + "]\nerror_response [" + snapshot.error_response +
           "]\nrequest_id " + std::to_string(snapshot.request_id) + "\nuser_token [" + snapshot.user_token +
           "]\ndevice_id [" + snapshot.device_id + "]\nwake-ups " + std::to_string(snapshot.wake_ups);
}

void Model::start_up() {
    const Snapshot before = now;
    now = Snapshot();
    now.user_token = before.user_token;
    now.device_id = before.device_id;
    login_method.clear();
    reset();
}

void Model::reset() {
    now.state = login_state;
    for (Snapshot::Step* step : {&now.login, &now.box}) {
        step->tries_left = settings.retry_num + 1;
        step->succeeded = false;
        step->value.clear();
    }
    now.first_method.clear();
    now.token.clear();
    now.mac.clear();
    now.error_response.clear();
    now.reply_requested = false;
    now.in_progress = false;
}

void Model::command(int type, const std::string& name, unsigned long long request_id,
                    const std::string& payload) {
    std::string refusal;
    bool accepted = false;
    if (name == "start_cloud_registration") {
        accepted = start(type, request_id, payload, refusal);
    } else if (name == "retry_cloud_registration") {
        accepted = retry(type, request_id, refusal);
    } else {
        refusal = error_text("error_other", "Unexpected message: " + name);
    }
    if (!accepted && type == 2) {
        effects.push_back(reply_effect(request_id, refusal));
    }
}

bool Model::start(int type, unsigned long long request_id, const std::string& payload, std::string& refusal) {
    if (now.in_progress) {
        refusal = error_text("error_in_progress", "Another registration process is in progress");
        return false;
    }
    json_t* document = json_loadb(payload.data(), payload.size(), 0, nullptr);
    const std::optional<std::string> token = text_of(find(document, {"token"}));
    const std::optional<std::string> token_type = text_of(find(document, {"token_type"}));
    const std::optional<std::string> named_mac = text_of(find(document, {"register_mac_address"}));
    const bool is_json = document != nullptr;
    json_decref(document);

    const char* reason = nullptr;
    if (!is_json) {
        reason = "Could not parse input into a JSON";
    } else if (!token) {
        reason = "token not found";
    } else if (!token_type) {
        reason = "token_type not found";
    } else if (token->empty()) {
        reason = "empty token";
    } else if (token_type->empty()) {
        reason = "empty token_type";
    } else if (*token_type != "partner" && *token_type != "temporary") {
        reason = "invalid token_type";
    }
    if (reason != nullptr) {
        refusal = error_text("error_invalid_arguments", reason);
        return false;
    }
    std::string mac = named_mac.value_or("");
    if (mac.empty()) {
        mac = settings.interface_mac;
    }
    if (mac.empty()) {
        refusal = error_text("error_internal", "Could not determine MAC address");
        return false;
    }

    reset();
    record(type, request_id);
    now.token = *token;
    now.mac = upper_case(mac);
    login_method = *token_type == "partner" ? "connect" : "get_device_token";
    now.first_method = login_method;
    now.user_token = *token;
    now.device_id = "thebox";
    now.in_progress = true;
    wake_up();
    return true;
}

bool Model::retry(int type, unsigned long long request_id, std::string& refusal) {
    if (now.in_progress) {
        refusal = error_text("error_in_progress", "Another registration process is in progress");
        return false;
    }
    record(type, request_id);
    if (now.state != fail_state) {
        refusal = error_text("error_other", "Retry called, but current state is not FAIL");
        return false;
    }
    if (!now.login.succeeded) {
        now.login.tries_left = settings.retry_num + 1;
        now.state = login_state;
    } else if (!now.box.succeeded) {
        now.box.tries_left = settings.retry_num + 1;
        now.state = box_state;
    } else {
        now.state = finish_state;
    }
    now.error_response.clear();
    now.in_progress = true;
    wake_up();
    return true;
}

void Model::record(int type, unsigned long long request_id) {
    if (type == 2) {
        now.reply_requested = true;
    }
    now.request_id = request_id;
}

void Model::wake_up() {
    if (!wake_up_is_lost) {
        ++now.wake_ups;
    }
    wake_up_is_lost = false;
}

void Model::respond(std::size_t index, std::uint32_t status, const std::string& body) {
    const auto request = requests.begin() + static_cast<std::ptrdiff_t>(index);
    const bool login = *request == Exchange::login;
    requests.erase(request);

    std::optional<std::string> value;
    std::string error;
    if (status != 0) {
        error = error_text("error_cvnc", "Response status " + std::to_string(status));
    } else if (body.empty()) {
        error = error_text("error_cvnc", "Empty response");
    } else if (json_t* document = json_loadb(body.data(), body.size(), 0, nullptr)) {
        const json_t* found = find(document, {"result", login ? "user_token" : "device_id"});
        value = text_of(found);
        if (!value) {
            std::string reason = login ? "user_token not found in response" : "device_id not found";
            if (found != nullptr) {
                reason = login ? "invalid user_token in response" : "invalid device_id in response";
            } else {
                const json_t* message = find(document, {"error", "data", "message"});
                if (message == nullptr) {
                    message = find(document, {"error", "message"});
                }
                reason = text_of(message).value_or(reason);
            }
            const char* login_result =
                now.first_method == "connect" ? "error_connect" : "error_get_device_token";
            error = error_text(login ? login_result : "error_register_box", reason);
        }
        json_decref(document);
    } else {
        error = error_text("error_cvnc", "Response is not JSON: " + body);
    }

    // The login's response is given back before its result is reported, the box registration's after that.
    if (login) {
        effects.push_back("release_response before wake-up " + std::to_string(now.wake_ups));
        if (value) {
            now.user_token = *value;
        }
        store(now.login, value.has_value(), value.value_or(""), error);
    } else {
        if (value) {
            now.device_id = *value;
        }
        store(now.box, value.has_value(), value.value_or(""), error);
        effects.push_back("release_response before wake-up " + std::to_string(now.wake_ups));
    }
}

void Model::store(Snapshot::Step& step, bool succeeded, const std::string& value, const std::string& error) {
    step.succeeded = succeeded;
    step.value = value;
    now.error_response = error;
    wake_up();
}

void Model::run() {
    --now.wake_ups;
    act_on_state();
}

void Model::enter(int state) {
    now.state = state;
    act_on_state();
}

void Model::act_on_state() {
    position = Worker::waiting;
    switch (now.state) {
    case login_state:
        if (login_method.empty()) {
            now.error_response = error_text("error_internal", "unknown state");
            enter(fail_state);
        } else if (now.login.succeeded) {
            enter(box_state);
        } else {
            spend_try();
        }
        break;
    case box_state:
        if (now.box.succeeded) {
            enter(finish_state);
        } else {
            spend_try();
        }
        break;
    case finish_state:
        success = *take_text(json_pack("{s:s, s:s, s:s}", "result", "ok", "user_token",
                                       now.login.value.c_str(), "device_id", now.box.value.c_str()));
        effects.push_back("publish cloud_registration_done " + success);
        position = Worker::publishing;
        break;
    default:
        if (now.reply_requested) {
            effects.push_back(reply_effect(now.request_id, now.error_response));
            position = Worker::replying;
        } else {
            now.in_progress = false;
        }
    }
}

void Model::spend_try() {
    Snapshot::Step& step = now.state == login_state ? now.login : now.box;
    if (step.tries_left <= 0) {
        enter(fail_state);
        return;
    }
    --step.tries_left;
    if (step.tries_left < settings.retry_num) {
        effects.push_back("sleep " + std::to_string(settings.retry_interval));
        position = Worker::pausing;
    } else {
        build();
    }
}

void Model::pause_over() {
    build();
}

void Model::build() {
    std::string method = "register_box";
    bool fields = true;
    std::optional<std::string> params;
    if (now.state == box_state) {
        params = take_text(json_pack("{s:[s], s:s, s:s, s:s}", "macs", now.mac.c_str(), "box_detected_name",
                                     settings.box_name.c_str(), "setup_type", settings.setup_type.c_str(),
                                     "device_model", settings.device_model.c_str()));
    } else if (login_method == "connect") {
        method = login_method;
        fields = false;
        params = take_text(json_pack("{s:s, s:s}", "partner_user_token", now.token.c_str(), "partner_id",
                                     settings.partner_id.c_str()));
    } else {
        method = login_method;
        params = "";
    }
    if (!params) {
        now.error_response = error_text("error_internal", "jansson error");
        spend_try();
        return;
    }
    effects.push_back("build_request " + method + " [" + *params + "]" + (fields ? " fields" : ""));
    position = Worker::building;
}

void Model::built(const char* request) {
    const bool login = now.state == login_state;
    if (request == nullptr) {
        const std::string method = login ? login_method : "register_box";
        now.error_response = error_text("error_internal", "Failed to build cloud request for " + method);
        spend_try();
        return;
    }
    effects.push_back(std::string("send_request ") + (login ? "connect/login" : "connect/box_mgmt") + " " +
                      request + " for " + std::to_string(now.request_id));
    position = Worker::sending;
}

void Model::accept() {
    requests.push_back(now.state == login_state ? Exchange::login : Exchange::box);
}

void Model::sent(bool accepted) {
    if (accepted) {
        position = Worker::waiting;
        return;
    }
    now.error_response = error_text("error_cvnc", "cvnc_ask error");
    spend_try();
}

void Model::published(bool accepted) {
    if (!accepted) {
        now.error_response = error_text("error_internal", "cvex error");
        enter(fail_state);
    } else if (now.reply_requested) {
        effects.push_back(reply_effect(now.request_id, success));
        position = Worker::replying;
    } else {
        position = Worker::waiting;
        reset();
    }
}

void Model::replied() {
    position = Worker::waiting;
    if (now.state == finish_state) {
        reset();
    } else {
        now.in_progress = false;
    }
}

} // namespace fuzz
