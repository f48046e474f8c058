#include "box_cloud.h"

#include <chrono>
#include <stdexcept>
#include <utility>

#include <jansson.h>

namespace fleet {

namespace {

constexpr long http_ok = 200;
/// What cvcloudd takes by default.
constexpr long request_timeout_milliseconds = 10000;
constexpr std::size_t response_limit = 1024 * 1024;

using Document = std::unique_ptr<json_t, void (*)(json_t*)>;

struct OwnedResponse : cvtessel_response {
    OwnedResponse(std::uint32_t response_status, std::string text)
        : cvtessel_response{}, bytes(std::move(text)) {
        status = response_status;
        body = bytes.data();
        body_length = static_cast<std::uint32_t>(bytes.size());
    }

    std::string bytes;
};

double now() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

std::size_t receive(const char* data, std::size_t, std::size_t length, void* context) {
    auto& text = *static_cast<std::string*>(context);
    if (text.size() + length > response_limit) {
        return CURL_WRITEFUNC_ERROR;
    }
    text.append(data, length);
    return length;
}

std::string method_of(const std::string& request) {
    const Document document(json_loadb(request.data(), request.size(), 0, nullptr), &json_decref);
    const char* const method = json_string_value(json_object_get(document.get(), "method"));
    return method != nullptr ? method : "-";
}

} // namespace

BoxCloud::BoxCloud(std::string cloud_url, std::string box_partner_id,
                   std::function<void(const Try&)> on_each_try)
    : url(std::move(cloud_url)), on_try(std::move(on_each_try)), transfer(curl_easy_init()),
      header(curl_slist_append(nullptr, "Content-Type: application/json")) {
    if (transfer == nullptr || header == nullptr) {
        throw std::runtime_error("no memory for the transfers of a box");
    }
    partner_id = std::move(box_partner_id);
}

BoxCloud::~BoxCloud() {
    curl_easy_cleanup(transfer);
    curl_slist_free_all(header);
}

std::string BoxCloud::serve() {
    std::unique_lock lock(mutex);
    for (;;) {
        changed.wait(lock, [this] { return reply_text || !requests.empty(); });
        if (reply_text) {
            return *reply_text;
        }
        const Request request = std::move(requests.front());
        requests.pop_front();
        lock.unlock();
        carry_out(request);
        lock.lock();
    }
}

void BoxCloud::carry_out(const Request& request) {
    const std::string address = url + "/" + request.service;
    std::string response;
    curl_easy_setopt(transfer, CURLOPT_URL, address.c_str());
    curl_easy_setopt(transfer, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(transfer, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(transfer, CURLOPT_HTTPHEADER, header);
    curl_easy_setopt(transfer, CURLOPT_POSTFIELDS, request.text.data());
    curl_easy_setopt(transfer, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.text.size()));
    curl_easy_setopt(transfer, CURLOPT_TIMEOUT_MS, request_timeout_milliseconds);
    curl_easy_setopt(transfer, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(transfer, CURLOPT_WRITEFUNCTION, &receive);
    curl_easy_setopt(transfer, CURLOPT_WRITEDATA, &response);

    Try attempt{method_of(request.text), now(), 0, 0};
    const CURLcode result = curl_easy_perform(transfer);
    attempt.end = now();
    long http_status = 0;
    curl_easy_getinfo(transfer, CURLINFO_RESPONSE_CODE, &http_status);
    if (result != CURLE_OK) {
        attempt.status = result;
    } else if (http_status != http_ok) {
        attempt.status = static_cast<std::uint32_t>(http_status);
    }
    on_try(attempt);
    request.callback(new OwnedResponse(attempt.status, std::move(response)), request.user_data);
}

int BoxCloud::send_request(const char* request, const char* service, cvtessel_callback callback,
                           void* user_data) {
    const std::lock_guard lock(mutex);
    requests.push_back({request, service, callback, user_data});
    changed.notify_one();
    return 0;
}

void BoxCloud::release_response(cvtessel_response* response) {
    delete static_cast<OwnedResponse*>(response);
}

char* BoxCloud::build_request(const char* method, const char* params, unsigned int params_len,
                              bool add_connect_fields) {
    const Document members(params_len > 0 ? json_loadb(params, params_len, 0, nullptr) : json_object(),
                           &json_decref);
    if (!json_is_object(members.get())) {
        return nullptr;
    }
    if (add_connect_fields) {
        json_object_set_new(members.get(), "user_token", json_string(user_token.c_str()));
        json_object_set_new(members.get(), "device_id", json_string(device_id.c_str()));
    }
    const Document request(json_pack("{s:s, s:i, s:s, s:O}", "jsonrpc", "2.0", "id", ++last_request_number,
                                     "method", method, "params", members.get()),
                           &json_decref);
    return json_dumps(request.get(), 0);
}

int BoxCloud::publish_message(const char* /*name*/, const void* /*data*/, unsigned int /*length*/) {
    return 0;
}

int BoxCloud::daemon_operation() {
    return 0;
}

int BoxCloud::send_response(const Message* reply) {
    const std::lock_guard lock(mutex);
    reply_text.emplace(reply->payload, reply->payload_len);
    changed.notify_one();
    return 0;
}

} // namespace fleet
