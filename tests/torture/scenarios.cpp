#include "scenarios.h"

#include <cstring>
#include <memory>

#include "cvcloudregisterhandler.h"
#include "underneath.h"

namespace {

// Texts that are longer than what a std::string holds without an allocation.
const std::string kToken = "the token of the requester";
const std::string kUserToken = "the user token of the cloud";
const std::string kDeviceId = "the device identity of the cloud";

Answer step_failure(const std::string& body, const std::string& reason) {
    return {body, "", "step", reason};
}

Answer bad_status() {
    return {"whatever", "", "error_cvnc", "Response status 504", 504};
}

Command make_command(const std::string& name, const std::string& payload, unsigned long long request_id) {
    Command command;
    command.name = name;
    command.payload = payload;
    command.request_id = request_id;
    return command;
}

Command refused(const std::string& payload, const std::string& reason, unsigned long long request_id) {
    Command command = make_command("start_cloud_registration", payload, request_id);
    command.reason = reason;
    return command;
}

Command held(Command command) {
    command.hold = true;
    return command;
}

} // namespace

Answer good_login() {
    return {R"({"result": {"user_token": ")" + kUserToken + R"("}})", kUserToken, "", ""};
}

Answer good_box() {
    return {R"({"result": {"device_id": ")" + kDeviceId + R"("}})", kDeviceId, "", ""};
}

Command start(bool partner, unsigned long long request_id, int type) {
    // A partner's command names the address, the other leaves it to the box's interface.
    const std::string payload =
        partner ? R"({"token": ")" + kToken +
                      R"(", "token_type": "partner", "register_mac_address": "a0:b1:c2:d3:e4:f5"})"
                : R"({"token": ")" + kToken + R"(", "token_type": "temporary"})";
    Command command = make_command("start_cloud_registration", payload, request_id);
    command.type = type;
    command.token = kToken;
    command.partner = partner;
    command.mac = partner ? "A0:B1:C2:D3:E4:F5" : "0A:1B:2C:3D:4E:5F";
    return command;
}

Command retry(unsigned long long request_id, int type) {
    Command command = make_command("retry_cloud_registration", "not JSON", request_id);
    command.type = type;
    return command;
}

std::vector<Scenario> scenarios() {
    const Answer empty = {"", "", "error_cvnc", "Empty response"};
    const Answer no_json = {"<html>", "", "error_cvnc", "Response is not JSON: <html>"};
    const Answer full = step_failure(R"({"error": {"data": {"message": "the cloud is full today"}}})",
                                     "the cloud is full today");
    std::vector<Scenario> list;
    list.push_back({"partner", {start(true, 7)}, {}, {}});
    list.push_back({"temporary", {start(false, 8, 1)}, {}, {}});
    list.push_back({"partner answered at once", {start(true, 7)}, {}, {}, true});
    list.push_back({"temporary answered at once", {start(false, 8, 1)}, {}, {}, true});
    list.push_back(
        {"partner failing, then retried",
         {start(true, 1), retry(2), retry(3, 1), retry(4)},
         {bad_status(), step_failure("{}", "user_token not found in response"), full, good_login()},
         {no_json, step_failure(R"({"result": {"device_id": 5}})", "invalid device_id in response"), empty,
          full}});
    list.push_back(
        {"temporary failing, then retried",
         {start(false, 1, 1), retry(2), retry(3, 1)},
         {no_json, step_failure(R"({"result": {"user_token": 5}})", "invalid user_token in response"), empty,
          good_login()},
         {bad_status(), step_failure(R"({"error": {"message": 5}})", "device_id not found")}});
    list.push_back(
        {"both failing at once, then retried",
         {start(true, 1), retry(2), retry(3)},
         {bad_status(), step_failure("{}", "user_token not found in response"), no_json, full, good_login()},
         {empty, step_failure("{}", "device_id not found")},
         true});
    // One try is spent on each of the first two failures, and the retry runs into the third.
    list.push_back(
        {"daemon failing, then retried", {start(true, 1), retry(2), retry(3)}, {}, {}, false, 1, 1, 1});
    list.push_back({"refused",
                    {make_command("an unknown command", "", 1), refused("{", "any", 2),
                     refused(R"({"token": "", "token_type": "partner"})", "empty token", 3),
                     refused(R"({"token": "T"})", "token_type not found", 4), retry(5), held(start(true, 6)),
                     start(true, 9), retry(10)},
                    {},
                    {}});
    list.push_back({"init and uninit", {}, {}, {}});
    return list;
}

void script(TracedHost& host, Scenario& scenario) {
    host.partner_id = "the partner's identifier";
    host.answers_inside = scenario.answers_inside;
    host.failing_builds = scenario.failing_builds;
    host.failing_sends = scenario.failing_sends;
    host.failing_publishes = scenario.failing_publishes;
    host.choose = [&scenario](const std::string& service) {
        const bool login = service == "connect/login";
        std::deque<Answer>& answers = login ? scenario.login_answers : scenario.box_answers;
        Answer answer = login ? good_login() : good_box();
        if (!answers.empty()) {
            answer = answers.front();
            answers.pop_front();
        }
        return answer;
    };
}

void deliver(const Command& command) {
    const auto bytes = std::make_unique<char[]>(command.payload.length());
    std::memcpy(bytes.get(), command.payload.data(), command.payload.length());
    Message message = {};
    message.type = command.type;
    std::strncpy(message.name, command.name.c_str(), sizeof message.name - 1);
    message.request_id = command.request_id;
    message.payload_len = static_cast<std::uint32_t>(command.payload.length());
    message.payload = bytes.get();
    const underneath::Inside module;
    g_handler_api.handle(&message);
}
