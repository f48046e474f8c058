#include "rules.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include <jansson.h>

using underneath::Event;
using underneath::Role;

namespace {

const std::string kSuffix = " of a box with a long name";

using Document = std::unique_ptr<json_t, void (*)(json_t*)>;

Document parse(const std::string& text) {
    return {json_loadb(text.data(), text.length(), 0, nullptr), json_decref};
}

// What a start with this payload means.
Command meaning(const std::string& payload, Command command) {
    const Document document = parse(payload);
    const auto text = [&document](const char* key) {
        return json_string_value(json_object_get(document.get(), key));
    };
    const char* const token = text("token");
    const char* const type = text("token_type");
    const char* const mac = text("register_mac_address");
    command.token = token != nullptr ? token : "";
    command.partner = type != nullptr && std::string(type) == "partner";
    command.mac = mac != nullptr && *mac != '\0' ? mac : "0a:1b:2c:3d:4e:5f";
    std::transform(command.mac.begin(), command.mac.end(), command.mac.begin(), [](char character) {
        return character >= 'a' && character <= 'z' ? character - 32 : character;
    });
    command.reason = token == nullptr                                       ? "token not found"
                     : type == nullptr                                      ? "token_type not found"
                     : *token == '\0'                                       ? "empty token"
                     : *type == '\0'                                        ? "empty token_type"
                     : !command.partner && std::string(type) != "temporary" ? "invalid token_type"
                                                                            : "";
    return command;
}

// What a response with this body means.
Answer meaning(const std::string& body, bool is_login) {
    const Document document = parse(body);
    const json_t* const result = json_object_get(document.get(), "result");
    const json_t* const value = json_object_get(result, is_login ? "user_token" : "device_id");
    Answer answer;
    if (json_is_string(value)) {
        answer.value = json_string_value(value);
        return answer;
    }
    answer.result = "step";
    if (value != nullptr) {
        answer.reason = is_login ? "invalid user_token in response" : "invalid device_id in response";
        return answer;
    }
    const json_t* const error = json_object_get(document.get(), "error");
    const json_t* message = json_object_get(json_object_get(error, "data"), "message");
    if (message == nullptr) {
        message = json_object_get(error, "message");
    }
    answer.reason = json_is_string(message) ? json_string_value(message)
                    : is_login              ? "user_token not found in response"
                                            : "device_id not found";
    return answer;
}

} // namespace

std::string error_text(const std::string& result, const std::string& reason) {
    return R"({"result": ")" + result + R"(", "reason": ")" + reason + R"("})";
}

void Rules::load(Role role) {
    for (Event& event : underneath::take_trace(role)) {
        traces[static_cast<int>(role)].push_back(event);
    }
}

Event Rules::next(Role role, const std::string& what) {
    std::deque<Event>& trace = traces[static_cast<int>(role)];
    if (trace.empty()) {
        underneath::die("the rules expect \"" + what + "\" and nothing came");
    }
    const Event event = trace.front();
    if (event.what != what) {
        underneath::die("the rules expect \"" + what + "\" and \"" + event.what + "\" came");
    }
    trace.pop_front();
    return event;
}

void Rules::expect_nothing(Role role) {
    std::deque<Event>& trace = traces[static_cast<int>(role)];
    if (!trace.empty()) {
        underneath::die("the rules expect nothing more and \"" + trace.front().what + "\" came");
    }
}

// ---- The daemon's thread

void Rules::init(int result, bool threw) {
    load(Role::host);
    stop_pipe = run_pipe = {-1, 0};
    worker_ended = stop_written = false;
    unread = 0;
    bool expect_throw = false;
    ready = false;
    created = next(Role::host, "new handler").result != 0;
    if (!created) {
        next(Role::host, "log 0 There was an error while creating a RegistrationHandler obj");
    } else {
        const Event stop = next(Role::host, "pipe2");
        Event failed = stop;
        if (stop.result == 0) {
            stop_pipe = stop.ends;
            failed = next(Role::host, "pipe2");
        }
        if (failed.result == 0) {
            run_pipe = failed.ends;
            expect_throw = next(Role::host, "thread").result == 0;
            ready = !expect_throw;
        } else {
            next(Role::host, std::string("log 0 Failed to create pipe: ") + strerror(failed.error));
            close_pipes();
            close_pipes(); // The handler's own uninit(); the entries were not cleared.
            created = false;
        }
    }
    if (ready) {
        reset();
        state = login_state;
    }
    expect_nothing(Role::host);
    if ((result != 0) != ready || threw != expect_throw) {
        underneath::die("init() ended in another way than the rules say");
    }
}

void Rules::close_pipe(const std::array<int, 2>& pipe) {
    for (const int end : pipe) {
        if (end != -1) {
            next(Role::host, "close " + std::to_string(end));
        }
    }
}

void Rules::close_pipes() {
    close_pipe(stop_pipe);
    close_pipe(run_pipe);
}

void Rules::uninit() {
    load(Role::host);
    load(Role::worker);
    if (created) {
        if (ready) {
            stop_written = write_byte(Role::host, stop_pipe) || underneath::lost_stops() > 0;
            worker();
        }
        close_pipes();
    }
    created = ready = in_progress = has_failed = false;
    reply_requested = false;
    expect_nothing(Role::host);
    expect_nothing(Role::worker);
    expect_nothing(Role::callback);
}

bool Rules::write_byte(Role role, const std::array<int, 2>& pipe) {
    const std::string descriptor = " " + std::to_string(pipe[1]);
    return next(role, "poll" + descriptor).result >= 1 && next(role, "write" + descriptor).result == 1;
}

void Rules::wake(Role role) {
    if (write_byte(role, run_pipe)) {
        ++unread;
    } else {
        ++dropped_wake_ups;
    }
}

void Rules::reset() {
    login = registration = {false, kRetries + 1, ""};
    first_method = token = mac = error = "";
    state = login_state;
    reply_requested = in_progress = has_failed = false;
}

void Rules::refuse(const Command& command, const std::string& text) {
    if (command.type == 2) {
        next(Role::host, "log 1 Could not handle request. Sending response: \"" + text + "\"");
        next(Role::host, "reply " + std::to_string(command.request_id) + " " + text);
    }
}

void Rules::command(const Command& delivered) {
    load(Role::host);
    Command command = delivered;
    const std::deque<Event>& trace = traces[static_cast<int>(Role::host)];
    if (!trace.empty() && !trace.front().mutilated.empty()) {
        command = meaning(trace.front().mutilated, command);
    }
    if (command.name != "start_cloud_registration" && command.name != "retry_cloud_registration") {
        refuse(command, error_text("error_other", "Unexpected message: " + command.name));
    } else if (in_progress) {
        refuse(command, error_text("error_in_progress", "Another registration process is in progress"));
    } else if (command.name == "retry_cloud_registration") {
        reply_requested = reply_requested || command.type == 2;
        request_id = command.request_id;
        if (state != fail_state) {
            refuse(command, error_text("error_other", "Retry called, but current state is not FAIL"));
        } else {
            state = !login.succeeded ? login_state : !registration.succeeded ? register_state : finish_state;
            if (state == login_state) {
                login.tries_left = kRetries + 1;
            } else if (state == register_state) {
                registration.tries_left = kRetries + 1;
            }
            error = "";
            has_failed = false;
            in_progress = true;
            wake(Role::host);
        }
    } else if (next(Role::host, "json_loadb").result == 0) {
        next(Role::host, "log 1 Could not parse \"" + command.payload + "\"");
        refuse(command, error_text("error_invalid_arguments", "Could not parse input into a JSON"));
    } else if (!command.reason.empty()) {
        refuse(command, error_text("error_invalid_arguments", command.reason));
    } else {
        reset();
        reply_requested = command.type == 2;
        request_id = command.request_id;
        token = command.token;
        mac = command.mac;
        first_method = command.partner ? "connect" : "get_device_token";
        user_token = token;
        device_id = "thebox";
        in_progress = true;
        wake(Role::host);
    }
    expect_nothing(Role::host);
    load(Role::worker);
    worker();
    expect_nothing(Role::worker);
}

// ---- The worker

void Rules::worker() {
    std::deque<Event>& trace = traces[static_cast<int>(Role::worker)];
    while (!worker_ended) {
        const bool failed = !trace.empty() && trace.front().what == "select" && trace.front().result == -1;
        if (!failed && !stop_written && unread == 0) {
            return; // Asleep.
        }
        const Event select = next(Role::worker, "select");
        if (select.result == -1) {
            if (select.error != EINTR) {
                next(Role::worker, "log 0 Error at select: errno=" + std::to_string(select.error) + " (" +
                                       strerror(select.error) + ")");
                worker_ended = true;
            }
        } else if (stop_written) {
            worker_ended = true;
        } else {
            const Event read = next(Role::worker, "read");
            if (read.result > 0) {
                --unread;
                run();
            } else {
                next(Role::worker, "log 0 read returned " + std::to_string(read.result));
            }
        }
    }
}

void Rules::run() {
    if (state == finish_state) {
        finish();
        return;
    }
    if (state == fail_state) {
        if (reply_requested) {
            next(Role::worker, "reply " + std::to_string(request_id) + " " + error);
        }
        in_progress = false;
        has_failed = true;
        return;
    }
    Step& step = state == login_state ? login : registration;
    if (step.succeeded) {
        advance(state == login_state ? register_state : finish_state);
        return;
    }
    while (step.tries_left > 0) {
        --step.tries_left;
        if (step.tries_left < kRetries) {
            next(Role::worker, "sleep 1");
        }
        if (send_step()) {
            return;
        }
    }
    next(Role::worker,
         "log 1 No more tries left. " + (state == login_state ? first_method : "register_box") + " failed");
    advance(fail_state);
}

void Rules::advance(State next_state) {
    state = next_state;
    run();
}

bool Rules::send_step() {
    if (state == login_state && first_method == "get_device_token") {
        return send("connect/login", "get_device_token", "", true);
    }
    if (state == login_state) {
        std::string params =
            R"({"partner_user_token": ")" + token + R"(", "partner_id": ")" + host.partner_id + R"("})";
        return build_document({"partner_user_token", "partner_id"}, params) &&
               send("connect/login", "connect", params, false);
    }
    std::string params = R"({"macs": [")" + mac + R"("], "box_detected_name": "Corvane Orlo)" + kSuffix +
                         R"(", "setup_type": "STANDALONE)" + kSuffix + R"(", "device_model": "orlov2)" +
                         kSuffix + R"("})";
    return build_document({"macs", "box_detected_name", "setup_type", "device_model"}, params) &&
           send("connect/box_mgmt", "register_box", params, true);
}

bool Rules::build_document(const std::vector<std::string>& members, std::string& text) {
    bool complete = next(Role::worker, "json_object").result != 0;
    for (const std::string& member : members) {
        complete = complete && next(Role::worker, "attach " + member).result != 0;
    }
    if (complete) {
        const Event dumped = next(Role::worker, "json_dumps");
        complete = dumped.result != 0;
        if (!dumped.mutilated.empty()) {
            text = dumped.mutilated;
        }
    }
    if (!complete) {
        error = error_text("error_internal", "jansson error");
    }
    return complete;
}

bool Rules::send(const std::string& service, const std::string& method, const std::string& params,
                 bool fields) {
    const std::string text =
        method + " " + params + (fields ? " " + user_token + " " + device_id : " without fields");
    if (next(Role::worker, "build_request " + text).result == 0) {
        next(Role::worker, "log 1 Error adding connect fields to request");
        error = error_text("error_internal", "Failed to build cloud request for " + method);
        return false;
    }
    if (next(Role::worker, "new request-id block").result == 0) {
        error = error_text("error_internal", "memory alloc error");
        return false;
    }
    if (next(Role::worker, "send_request " + service).result != 0) {
        error = error_text("error_cvnc", "cvnc_ask error");
        return false;
    }
    if (host.answers_inside) {
        callback(Role::worker);
    }
    return true;
}

void Rules::finish() {
    std::string body = R"({"result": "ok", "user_token": ")" + login.value + R"(", "device_id": ")" +
                       registration.value + R"("})";
    if (!build_document({"result", "user_token", "device_id"}, body)) {
        advance(fail_state);
        return;
    }
    if (next(Role::worker, "publish cloud_registration_done " + body).result != 0) {
        error = error_text("error_internal", "cvex error");
        advance(fail_state);
        return;
    }
    if (reply_requested) {
        next(Role::worker, "reply " + std::to_string(request_id) + " " + body);
    }
    reset();
    ++dones;
}

// ---- The responses

void Rules::answer() {
    load(Role::callback);
    callback(Role::callback);
    expect_nothing(Role::callback);
    load(Role::worker);
    worker();
    expect_nothing(Role::worker);
}

void Rules::callback(Role role) {
    Answer answer = host.delivered.front();
    host.delivered.pop_front();
    const bool is_login = state == login_state;
    Step& step = is_login ? login : registration;
    if (answer.status == 0 && !answer.body.empty()) {
        const Event parsed = next(role, "json_loadb");
        if (parsed.result == 0) {
            answer.result = "error_cvnc";
            answer.reason = "Response is not JSON: " + answer.body;
        } else if (!parsed.mutilated.empty()) {
            answer = meaning(parsed.mutilated, is_login);
        }
    }
    step.succeeded = answer.result.empty();
    if (step.succeeded) {
        step.value = answer.value;
        (is_login ? user_token : device_id) = answer.value;
        error = "";
    } else {
        step.value = "";
        if (answer.result == "step") {
            answer.result = !is_login                   ? "error_register_box"
                            : first_method == "connect" ? "error_connect"
                                                        : "error_get_device_token";
        }
        error = error_text(answer.result, answer.reason);
        next(role, "log 0 " + error);
    }
    wake(role);
}
