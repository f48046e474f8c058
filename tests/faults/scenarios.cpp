#include "scenarios.h"

#include <new>
#include <thread>

#include "cvcloudregisterhandler.h"
#include "cvutils_stand_in.h"
#include "texts.h"

using kit::Answer;
using kit::Call;
namespace text = kit::text;

// Texts that are longer than what a std::string holds without an allocation.
const std::string kDeviceId = "the device identity of the cloud";

namespace {

const std::string kToken = "the token of the requester";
const std::string kUserToken = "the user token of the cloud";
const std::string kSuffix = " of a box with a long name";

kit::Settings settings() {
    kit::Settings settings;
    settings.retry_interval = 1;
    settings.setup_type += kSuffix;
    settings.box_name += kSuffix;
    settings.device_model += kSuffix;
    settings.partner_id = "the partner's identifier";
    return settings;
}

Command make_command(const std::string& name, const std::string& payload, unsigned long long request_id) {
    Command command;
    command.name = name;
    command.payload = payload;
    command.request_id = request_id;
    return command;
}

Command held(Command command) {
    command.hold = true;
    return command;
}

} // namespace

Command start(bool partner, unsigned long long request_id, int type) {
    // A partner's command names the address, the other leaves it to the box's interface.
    Command command = make_command(
        text::kStartCommand,
        partner ? R"({"token": ")" + kToken +
                      R"(", "token_type": "partner", "register_mac_address": "a0:b1:c2:d3:e4:f5"})"
                : R"({"token": ")" + kToken + R"(", "token_type": "temporary"})",
        request_id);
    command.type = type;
    return command;
}

Command retry(unsigned long long request_id, int type) {
    Command command = make_command(text::kRetryCommand, "not JSON", request_id);
    command.type = type;
    return command;
}

std::vector<Scenario> scenarios() {
    const kit::Answer empty = {""};
    const kit::Answer no_json = {"<html>"};
    const kit::Answer no_value = {"{}"};
    const kit::Answer full = {R"({"error": {"data": {"message": "the cloud is full today"}}})"};
    const kit::Answer bad_status = {"whatever", 504};
    const kit::Answer good_login = {text::answer("user_token", kUserToken)};
    std::vector<Scenario> list;
    list.push_back({"partner", {start(true, 7)}, {}, {}});
    list.push_back({"temporary", {start(false, 8, 1)}, {}, {}});
    list.push_back({"partner answered at once", {start(true, 7)}, {}, {}, true});
    list.push_back({"temporary answered at once", {start(false, 8, 1)}, {}, {}, true});
    list.push_back({"partner failing, then retried",
                    {start(true, 1), retry(2), retry(3, 1), retry(4)},
                    {bad_status, no_value, full, good_login},
                    {no_json, {R"({"result": {"device_id": 5}})"}, empty, full}});
    list.push_back({"temporary failing, then retried",
                    {start(false, 1, 1), retry(2), retry(3, 1)},
                    {no_json, {R"({"result": {"user_token": 5}})"}, empty, good_login},
                    {bad_status, {R"({"error": {"message": 5}})"}}});
    list.push_back({"both failing at once, then retried",
                    {start(true, 1), retry(2), retry(3)},
                    {bad_status, no_value, no_json, full, good_login},
                    {empty, no_value},
                    true});
    // One try is spent on each of the first two failures, and the retry runs into the third.
    list.push_back(
        {"daemon failing, then retried", {start(true, 1), retry(2), retry(3)}, {}, {}, false, 1, 1, 1});
    list.push_back({"refused",
                    {make_command("an unknown command", "", 1), make_command(text::kStartCommand, "{", 2),
                     make_command(text::kStartCommand, R"({"token": "", "token_type": "partner"})", 3),
                     make_command(text::kStartCommand, R"({"token": "T"})", 4), retry(5),
                     held(start(true, 6)), start(true, 9), retry(10)},
                    {},
                    {}});
    list.push_back({"init and uninit", {}, {}, {}});
    return list;
}

Daemon::Daemon(const Scenario& played) : scenario(played), rules(settings()) {
    kit::journal().clear();
    kit::reset_cvutils();
    kit::store(rules.settings);
    partner_id = rules.settings.partner_id;
    rules.answers_inside = scenario.answers_inside;
    script(Operation::build, 1, scenario.failing_builds);
    script(Operation::send, 1, scenario.failing_sends);
    script(Operation::publish, 1, scenario.failing_publishes);
}

void Daemon::deliver(const Command& command) const {
    kit::send_command(g_handler_api, command.name, command.payload, command.type, command.request_id);
    faulty_system().await_idle_worker();
}

bool Daemon::answer() {
    kit::OutstandingRequest request = {};
    if (!take(request, 0)) {
        return false;
    }
    const Answer answer = next_answer(request.service);
    std::thread([&] {
        kit::mark_thread(kit::Role::callback);
        try {
            ScriptedHost::deliver(request, answer);
        } catch (const std::bad_alloc&) {
            callback_threw = true;
        }
    }).join();
    if (!callback_threw) {
        faulty_system().await_idle_worker();
    }
    return true;
}

void Daemon::be_kind() {
    scenario.login_answers.clear();
    scenario.box_answers.clear();
    forget_script();
}

void Daemon::drop_outstanding() {
    for (kit::OutstandingRequest request; take(request, 0);) {
        delete static_cast<unsigned long long*>(request.user_data);
    }
}

int Daemon::outcome(Operation operation, int scripted) {
    const Call calls[] = {Call::build_request, Call::send_request, Call::publish_message,
                          Call::send_response};
    const kit::InModule module; // It is the module's call that fails.
    return kit::calls::fails(calls[static_cast<int>(operation)]) ? kit::calls::ordered_result() : scripted;
}

bool Daemon::answers_inside(const std::string& service, Answer& answer) {
    if (scenario.answers_inside) {
        answer = next_answer(service);
    }
    return scenario.answers_inside;
}

Answer Daemon::next_answer(const std::string& service) {
    const bool login = service == text::kLoginService;
    std::deque<Answer>& answers = login ? scenario.login_answers : scenario.box_answers;
    Answer answer = {login ? text::answer("user_token", kUserToken) : text::answer("device_id", kDeviceId)};
    if (!answers.empty()) {
        answer = answers.front();
        answers.pop_front();
    }
    rules.answers.emplace_back(answer.body, answer.status);
    return answer;
}
