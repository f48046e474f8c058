#include "oracle.h"

#include <tuple>

#include "cvutils_stand_in.h"
#include "texts.h"

namespace kit {

namespace {

enum { login_state = 0, box_state = 1, finish_state = 4, fail_state = 5 };

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

void store(const Settings& settings) {
    const std::string directory = "/daemons/cvcloudd/registration/";
    set_setting(directory + "retry_num", settings.retry_num);
    set_setting(directory + "retry_interval", settings.retry_interval);
    set_setting(directory + "setup_type", settings.setup_type);
    set_setting(directory + "box_name", settings.box_name);
    set_setting(directory + "device_model", settings.device_model);
    set_mac_address(settings.interface_mac.empty() ? std::nullopt : std::optional(settings.interface_mac));
}

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

json_t* Oracle::parse(const std::string& text) {
    return json_loadb(text.data(), text.size(), 0, nullptr);
}

std::optional<std::string> Oracle::write(std::initializer_list<Member> members) {
    json_t* const document = json_object();
    bool complete = true;
    for (const auto& [key, value] : members) {
        complete = json_object_set_new(document, key, value) == 0 && complete;
    }
    std::optional<std::string> text;
    if (complete) {
        const auto append = [](const char* piece, std::size_t length, void* target) {
            static_cast<std::string*>(target)->append(piece, length);
            return 0;
        };
        json_dump_callback(document, append, &text.emplace(), 0);
    }
    json_decref(document);
    return text;
}

void Oracle::start_up() {
    const Snapshot before = now;
    now = Snapshot();
    now.user_token = before.user_token;
    now.device_id = before.device_id;
    login_method.clear();
    requests.clear();
    position = Worker::waiting;
    is_finishing = false;
    reset();
}

void Oracle::reset() {
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

void Oracle::command(int type, const std::string& name, unsigned long long request_id,
                     const std::string& payload, bool busy) {
    std::string refusal;
    bool accepted = false;
    if (name != text::kStartCommand && name != text::kRetryCommand) {
        refusal = text::unexpected(name);
    } else if (now.in_progress || (busy && is_finishing)) {
        refusal = text::kBusy;
    } else if (name == text::kStartCommand) {
        accepted = accepts_start(type, request_id, payload, refusal);
    } else {
        accepted = accepts_retry(type, request_id, refusal);
    }
    if (!accepted && type == 2) {
        effects.push_back(text::refusal(refusal));
        effects.push_back(reply_event(request_id, refusal));
    }
}

bool Oracle::accepts_start(int type, unsigned long long request_id, const std::string& payload,
                           std::string& refusal) {
    json_t* document = parse(payload);
    const std::optional<std::string> token = text_of(find(document, {"token"}));
    const std::optional<std::string> token_type = text_of(find(document, {"token_type"}));
    const std::optional<std::string> named_mac = text_of(find(document, {"register_mac_address"}));
    const bool is_json = document != nullptr;
    json_decref(document);

    std::string mac = named_mac.value_or("");
    if (mac.empty()) {
        mac = settings.interface_mac;
    }
    if (!is_json) {
        effects.push_back(text::cannot_parse(payload));
        refusal = text::kNotJson;
    } else if (!token) {
        refusal = text::kNoToken;
    } else if (!token_type) {
        refusal = text::kNoTokenType;
    } else if (token->empty()) {
        refusal = text::kEmptyToken;
    } else if (token_type->empty()) {
        refusal = text::kEmptyTokenType;
    } else if (*token_type != "partner" && *token_type != "temporary") {
        refusal = text::kInvalidTokenType;
    } else if (mac.empty()) {
        refusal = text::kNoMac;
    }
    if (!refusal.empty()) {
        return false;
    }

    reset();
    record(type, request_id);
    now.token = *token;
    now.mac = upper_case(mac);
    login_method = *token_type == "partner" ? text::kConnect : text::kGetDeviceToken;
    now.first_method = login_method;
    now.user_token = *token;
    now.device_id = text::kTemporaryId;
    now.in_progress = true;
    wake_up();
    return true;
}

bool Oracle::accepts_retry(int type, unsigned long long request_id, std::string& refusal) {
    record(type, request_id);
    if (now.state != fail_state) {
        refusal = text::kNotFailed;
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

void Oracle::record(int type, unsigned long long request_id) {
    if (type == 2) {
        now.reply_requested = true;
    }
    now.request_id = request_id;
}

void Oracle::wake_up() {
    if (writes_byte()) {
        ++now.wake_ups;
        effects.emplace_back("wake-up");
    }
}

void Oracle::respond(std::size_t index, std::uint32_t status, const std::string& body) {
    const auto request = requests.begin() + static_cast<std::ptrdiff_t>(index);
    const bool login = *request == Exchange::login;
    requests.erase(request);

    std::optional<std::string> value;
    std::string error;
    if (status != 0) {
        error = text::status(status);
    } else if (body.empty()) {
        error = text::kEmptyResponse;
    } else if (json_t* document = parse(body)) {
        const json_t* found = find(document, {"result", login ? "user_token" : "device_id"});
        value = text_of(found);
        if (!value) {
            std::string reason = login ? text::kNoUserToken : text::kNoDeviceId;
            if (found != nullptr) {
                reason = login ? text::kInvalidUserToken : text::kInvalidDeviceId;
            } else {
                const json_t* message = find(document, {"error", "data", "message"});
                if (message == nullptr) {
                    message = find(document, {"error", "message"});
                }
                reason = text_of(message).value_or(reason);
            }
            error =
                text::error_reply("error_" + (!login                               ? text::kRegisterBox
                                              : now.first_method == text::kConnect ? text::kConnect
                                                                                   : text::kGetDeviceToken),
                                  reason);
        }
        json_decref(document);
    } else {
        error = text::response_not_json(body);
    }

    // The login's response is given back before its result is reported, the box registration's after that.
    if (login) {
        effects.emplace_back("release_response");
    }
    if (!value) {
        effects.push_back(std::string("log 0 ") + (login ? "extract_token" : "register_box_callback") + ": " +
                          error);
    } else {
        (login ? now.user_token : now.device_id) = *value;
    }
    store_result(login ? now.login : now.box, value.has_value(), value.value_or(""), error);
    if (!login) {
        effects.emplace_back("release_response");
    }
}

void Oracle::store_result(Snapshot::Step& step, bool succeeded, const std::string& value,
                          const std::string& error) {
    step.succeeded = succeeded;
    step.value = value;
    now.error_response = error;
    wake_up();
}

void Oracle::run() {
    --now.wake_ups;
    is_finishing = false;
    act_on_state();
}

void Oracle::enter(int state) {
    now.state = state;
    act_on_state();
}

void Oracle::act_on_state() {
    position = Worker::waiting;
    switch (now.state) {
    case login_state:
        if (login_method.empty()) {
            effects.push_back(text::unknown_work_state(login_state));
            now.error_response = text::kUnknownState;
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
        if (const auto body = write({{"result", json_string("ok")},
                                     {"user_token", json_string(now.login.value.c_str())},
                                     {"device_id", json_string(now.box.value.c_str())}})) {
            success = *body;
            effects.push_back(publish_event(success));
            position = Worker::publishing;
        } else {
            now.error_response = text::kJansson;
            enter(fail_state);
        }
        break;
    default:
        if (now.reply_requested) {
            effects.push_back(reply_event(now.request_id, now.error_response));
            position = Worker::replying;
        } else {
            end_run();
        }
    }
}

void Oracle::end_run() {
    position = Worker::waiting;
    is_finishing = true;
    if (now.state == finish_state) {
        ++success_count;
        reset();
    } else {
        now.in_progress = false;
    }
}

void Oracle::spend_try() {
    const bool login = now.state == login_state;
    Snapshot::Step& step = login ? now.login : now.box;
    if (step.tries_left <= 0) {
        effects.push_back(text::no_more_tries(login ? login_method : text::kRegisterBox));
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

void Oracle::fail_try(const std::string& error) {
    now.error_response = error;
    spend_try();
}

void Oracle::pause_over() {
    build();
}

void Oracle::build() {
    std::string method = login_method;
    std::optional<std::string> params = "(none)";
    if (now.state == box_state) {
        method = text::kRegisterBox;
        params = write({{"macs", json_pack("[s]", now.mac.c_str())},
                        {"box_detected_name", json_string(settings.box_name.c_str())},
                        {"setup_type", json_string(settings.setup_type.c_str())},
                        {"device_model", json_string(settings.device_model.c_str())}});
    } else if (login_method == text::kConnect) {
        params = write({{"partner_user_token", json_string(now.token.c_str())},
                        {"partner_id", json_string(settings.partner_id.c_str())}});
    }
    if (!params) {
        fail_try(text::kJansson);
        return;
    }
    effects.push_back("build_request " + method + " " + *params +
                      (method == text::kConnect
                           ? " fields=no"
                           : " fields=yes user_token=" + now.user_token + " device_id=" + now.device_id));
    position = Worker::building;
}

void Oracle::built(bool has_text) {
    const bool login = now.state == login_state;
    if (!has_text) {
        effects.push_back(text::kCannotAddFields);
        fail_try(text::not_built(login ? login_method : text::kRegisterBox));
    } else if (!has_block()) {
        fail_try(text::kNoMemory);
    } else {
        effects.push_back("send_request " + (login ? text::kLoginService : text::kBoxService));
        position = Worker::sending;
    }
}

void Oracle::accept() {
    requests.push_back(now.state == login_state ? Exchange::login : Exchange::box);
}

void Oracle::sent(bool accepted) {
    if (accepted) {
        position = Worker::waiting;
    } else {
        fail_try(text::kNotSent);
    }
}

void Oracle::published(bool accepted) {
    if (!accepted) {
        now.error_response = text::kNotPublished;
        enter(fail_state);
    } else if (now.reply_requested) {
        effects.push_back(reply_event(now.request_id, success));
        position = Worker::replying;
    } else {
        end_run();
    }
}

void Oracle::replied() {
    end_run();
}

} // namespace kit
