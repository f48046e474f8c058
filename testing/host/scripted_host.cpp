#include "scripted_host.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

#include "journal.h"

namespace kit {

namespace {

// A misuse that no test could go on from.
[[noreturn]] void misuse(const char* what) {
    std::fprintf(stderr, "scripted host: %s\n", what);
    std::abort();
}

} // namespace

ScriptedHost::~ScriptedHost() {
    for (const OutstandingRequest& request : requests) {
        delete static_cast<unsigned long long*>(request.user_data);
    }
}

void ScriptedHost::script(Operation operation, int result, int times) {
    const std::lock_guard<std::mutex> lock(mutex);
    std::deque<int>& script = results[static_cast<std::size_t>(operation)];
    script.insert(script.end(), static_cast<std::size_t>(times), result);
}

void ScriptedHost::forget_script() {
    const std::lock_guard<std::mutex> lock(mutex);
    results = {};
    inside_answers.clear();
}

int ScriptedHost::recorded(const std::string& event, Operation operation) {
    const std::size_t call = journal().begin(event);
    const int result = next_result(operation);
    journal().returned(call, result, 0);
    return result;
}

int ScriptedHost::next_result(Operation operation) {
    int scripted = 0;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        std::deque<int>& script = results[static_cast<std::size_t>(operation)];
        if (!script.empty()) {
            scripted = script.front();
            script.pop_front();
        }
    }
    return outcome(operation, scripted);
}

void ScriptedHost::answer_inside_next_send(const Answer& answer) {
    const std::lock_guard<std::mutex> lock(mutex);
    inside_answers.push_back(answer);
}

bool ScriptedHost::answers_inside(const std::string& /*service*/, Answer& answer) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (inside_answers.empty()) {
        return false;
    }
    answer = inside_answers.front();
    inside_answers.pop_front();
    return true;
}

bool ScriptedHost::take(OutstandingRequest& request, std::size_t index) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (index >= requests.size()) {
        return false;
    }
    const auto found = requests.begin() + static_cast<std::ptrdiff_t>(index);
    request = *found;
    requests.erase(found);
    return true;
}

bool ScriptedHost::answer(const Answer& answer, std::size_t index) {
    OutstandingRequest request = {};
    if (!take(request, index)) {
        return false;
    }
    deliver(request, answer);
    return true;
}

bool ScriptedHost::answer_from_own_thread(const Answer& answer, std::size_t index) {
    bool answered = false;
    std::thread([&] {
        mark_thread(Role::callback);
        answered = this->answer(answer, index);
    }).join();
    return answered;
}

void ScriptedHost::deliver(const OutstandingRequest& request, const Answer& answer) {
    auto response = std::make_unique<cvtessel_response>();
    response->status = answer.status;
    response->body_length = static_cast<std::uint32_t>(answer.body.length());
    if (!answer.body.empty()) {
        response->body = new char[answer.body.length()];
        std::memcpy(response->body, answer.body.data(), answer.body.length());
    }
    {
        const std::lock_guard<std::mutex> lock(mutex);
        lent.insert(response.get());
    }
    const InModule module;
    request.callback(response.release(), request.user_data);
}

std::vector<OutstandingRequest> ScriptedHost::outstanding() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return {requests.begin(), requests.end()};
}

std::vector<Reply> ScriptedHost::replies() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return sent_replies;
}

std::size_t ScriptedHost::lent_responses() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return lent.size();
}

int ScriptedHost::send_request(const char* request, const char* service, cvtessel_callback callback,
                               void* user_data) {
    const InHost host;
    const int result = next_result(Operation::send);
    const OutstandingRequest sent = {service, request, callback, user_data,
                                     *static_cast<const unsigned long long*>(user_data)};
    Answer inside_answer;
    const bool answered = result == 0 && answers_inside(sent.service, inside_answer);
    if (result == 0 && !answered) {
        const std::lock_guard<std::mutex> lock(mutex);
        requests.push_back(sent);
    }
    // Recorded only now: whoever waits for the event finds the request outstanding.
    journal().record({"send_request " + sent.service, Role::worker, false, result});
    if (answered) {
        deliver(sent, inside_answer);
    }
    return result;
}

void ScriptedHost::release_response(cvtessel_response* response) {
    const InHost host;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (lent.erase(response) == 0) {
            misuse("a response was released that is not lent to a callback");
        }
    }
    journal().record("release_response");
    delete[] response->body;
    delete response;
}

char* ScriptedHost::build_request(const char* method, const char* params, unsigned int params_len,
                                  bool add_connect_fields) {
    const InHost host;
    std::string text = std::string(method) + " ";
    text += params_len == 0 ? std::string("(none)") + params : std::string(params, params_len);
    text += add_connect_fields ? " fields=yes user_token=" + user_token + " device_id=" + device_id
                               : " fields=no";
    const int result = recorded("build_request " + text, Operation::build);
    return result == 0 ? strdup(text.c_str()) : nullptr;
}

int ScriptedHost::publish_message(const char* name, const void* data, unsigned int length) {
    const InHost host;
    return recorded(std::string("publish ") + name + " " +
                        std::string(static_cast<const char*>(data), length),
                    Operation::publish);
}

int ScriptedHost::daemon_operation() {
    misuse("the module called the daemon's own operation");
}

int ScriptedHost::send_response(const Message* message) {
    const InHost host;
    const std::string payload(message->payload, message->payload_len);
    {
        const std::lock_guard<std::mutex> lock(mutex);
        sent_replies.push_back({*message, payload});
    }
    return recorded("reply " + std::to_string(message->request_id) + " " + payload, Operation::reply);
}

void send_command(CvHandlerAPI& handler, const std::string& name, const std::string& payload, int type,
                  unsigned long long request_id) {
    const auto bytes = std::make_unique<char[]>(payload.length());
    std::copy(payload.begin(), payload.end(), bytes.get());
    const auto message = std::make_unique<Message>();
    message->type = type;
    name.copy(message->name, sizeof message->name - 1);
    message->request_id = request_id;
    message->payload_len = static_cast<std::uint32_t>(payload.length());
    message->payload = bytes.get();
    const InModule module;
    handler.handle(message.get());
}

} // namespace kit
