#include "fake_cloud_api.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <thread>

#include "journal.h"

namespace fake_host {

namespace {

int next_result(std::deque<int>& results) {
    if (results.empty()) {
        return 0;
    }
    const int result = results.front();
    results.pop_front();
    return result;
}

void append(std::deque<int>& results, int times, int result) {
    results.insert(results.end(), static_cast<std::size_t>(times), result);
}

// A misuse that no test could go on from.
[[noreturn]] void misuse(const char* what) {
    std::fprintf(stderr, "fake_host: %s\n", what);
    std::abort();
}

} // namespace

FakeCloudApi::~FakeCloudApi() {
    for (const OutstandingRequest& request : requests) {
        delete static_cast<unsigned long long*>(request.user_data);
    }
}

void FakeCloudApi::fail_next_build(int times) {
    const std::lock_guard<std::mutex> lock(mutex);
    append(build_results, times, 1);
}

void FakeCloudApi::refuse_next_send(int times, int result) {
    const std::lock_guard<std::mutex> lock(mutex);
    append(send_results, times, result);
}

void FakeCloudApi::fail_next_publish(int times, int result) {
    const std::lock_guard<std::mutex> lock(mutex);
    append(publish_results, times, result);
}

void FakeCloudApi::return_from_next_reply(int result) {
    const std::lock_guard<std::mutex> lock(mutex);
    append(reply_results, 1, result);
}

void FakeCloudApi::answer_inside_next_send(const Answer& answer) {
    const std::lock_guard<std::mutex> lock(mutex);
    inside_answers.push_back(answer);
}

bool FakeCloudApi::answer(const Answer& answer) {
    std::optional<OutstandingRequest> request;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (requests.empty()) {
            return false;
        }
        request = requests.front();
        requests.pop_front();
    }
    deliver(*request, answer);
    return true;
}

bool FakeCloudApi::answer_from_own_thread(const Answer& answer) {
    bool answered = false;
    std::thread([&] { answered = this->answer(answer); }).join();
    return answered;
}

void FakeCloudApi::deliver(const OutstandingRequest& request, const Answer& answer) {
    auto* response = new cvtessel_response{};
    response->status = answer.status;
    response->body = new char[answer.body.length()];
    std::memcpy(response->body, answer.body.data(), answer.body.length());
    response->body_length = static_cast<std::uint32_t>(answer.body.length());
    {
        const std::lock_guard<std::mutex> lock(mutex);
        lent.insert(response);
    }
    request.callback(response, request.user_data);
}

std::vector<OutstandingRequest> FakeCloudApi::outstanding() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return {requests.begin(), requests.end()};
}

std::vector<Reply> FakeCloudApi::replies() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return sent_replies;
}

std::size_t FakeCloudApi::lent_responses() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return lent.size();
}

int FakeCloudApi::send_request(const char* request, const char* service, cvtessel_callback callback,
                               void* user_data) {
    const OutstandingRequest sent = {service, request, callback, user_data,
                                     *static_cast<const unsigned long long*>(user_data)};
    std::optional<Answer> inside_answer;
    int result = 0;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        result = next_result(send_results);
        if (result == 0 && !inside_answers.empty()) {
            inside_answer = inside_answers.front();
            inside_answers.pop_front();
        } else if (result == 0) {
            requests.push_back(sent);
        }
    }
    // Recorded only now: whoever waits for the event finds the request outstanding.
    journal().record("send_request " + sent.service);
    if (inside_answer) {
        deliver(sent, *inside_answer);
    }
    return result;
}

void FakeCloudApi::release_response(cvtessel_response* response) {
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

char* FakeCloudApi::build_request(const char* method, const char* params, unsigned int params_len,
                                  bool add_connect_fields) {
    const std::string params_text =
        params_len == 0 ? std::string("(none)") + params : std::string(params, params_len);
    std::string text = std::string(method) + " " + params_text;
    if (add_connect_fields) {
        text += " fields=yes user_token=" + user_token + " device_id=" + device_id;
    } else {
        text += " fields=no";
    }
    journal().record("build_request " + text);
    const std::lock_guard<std::mutex> lock(mutex);
    return next_result(build_results) == 0 ? strdup(text.c_str()) : nullptr;
}

int FakeCloudApi::publish_message(const char* name, const void* data, unsigned int length) {
    int result = 0;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        result = next_result(publish_results);
    }
    journal().record(std::string("publish ") + name + " " +
                     std::string(static_cast<const char*>(data), length));
    return result;
}

int FakeCloudApi::daemon_operation() {
    misuse("the module called the daemon's own operation");
}

int FakeCloudApi::send_response(const Message* reply) {
    const std::string payload(reply->payload, reply->payload_len);
    int result = 0;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        result = next_result(reply_results);
        sent_replies.push_back({*reply, payload});
    }
    journal().record("reply " + std::to_string(reply->request_id) + " " + payload);
    return result;
}

} // namespace fake_host
