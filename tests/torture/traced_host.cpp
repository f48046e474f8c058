#include "traced_host.h"

#include <cstring>
#include <exception>
#include <new>
#include <thread>

#include "cvutils/json.h"
#include "cvutils/log.h"
#include "cvutils/network.h"
#include "cvutils/settings.h"
#include "underneath.h"

using underneath::Call;
using underneath::Inside;
using underneath::Outside;

static bool take(int& failing) {
    return failing > 0 && failing-- > 0;
}

int TracedHost::send_request(const char* /*request*/, const char* service, cvtessel_callback callback,
                             void* user_data) {
    const bool refused_on_order = underneath::fails(Call::send_request);
    const bool refused = take(failing_sends) || refused_on_order;
    const Outside host;
    const int result = refused_on_order ? underneath::ordered_result() : refused ? 1 : 0;
    const Outstanding request = {service, callback, user_data};
    if (!refused && !answers_inside) {
        const std::lock_guard<std::mutex> lock(mutex);
        outstanding.push_back(request);
    }
    underneath::record({"send_request " + request.service, result});
    if (!refused && answers_inside) {
        deliver(request);
    }
    return result;
}

void TracedHost::deliver(const Outstanding& request) {
    const Answer answer = choose(request.service);
    auto* const response = new cvtessel_response{};
    response->status = answer.status;
    response->body = new char[answer.body.length()];
    std::memcpy(response->body, answer.body.data(), answer.body.length());
    response->body_length = static_cast<std::uint32_t>(answer.body.length());
    {
        const std::lock_guard<std::mutex> lock(mutex);
        lent.insert(response);
        delivered.push_back(answer);
    }
    const Inside module;
    request.callback(response, request.user_data);
}

bool TracedHost::answer() {
    Outstanding request;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (outstanding.empty()) {
            return false;
        }
        request = outstanding.front();
        outstanding.pop_front();
    }
    std::thread([&] {
        underneath::mark_thread(underneath::Role::callback);
        try {
            deliver(request);
        } catch (const std::bad_alloc&) {
            callback_threw = true;
        }
    }).join();
    return true;
}

bool TracedHost::is_waiting() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return !outstanding.empty();
}

std::size_t TracedHost::lent_responses() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return lent.size();
}

void TracedHost::drop_outstanding() {
    const std::lock_guard<std::mutex> lock(mutex);
    for (const Outstanding& request : outstanding) {
        delete static_cast<unsigned long long*>(request.user_data);
    }
    outstanding.clear();
}

void TracedHost::release_response(cvtessel_response* response) {
    const Outside host;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (lent.erase(response) == 0) {
            underneath::die("a response was released that is not lent to a callback");
        }
    }
    delete[] response->body;
    delete response;
}

char* TracedHost::build_request(const char* method, const char* params, unsigned int params_len,
                                bool add_connect_fields) {
    const bool failed = take(failing_builds) || underneath::fails(Call::build_request);
    const Outside host;
    std::string text = std::string(method) + " " + std::string(params, params_len);
    text += add_connect_fields ? " " + user_token + " " + device_id : " without fields";
    underneath::record({"build_request " + text, failed ? 0 : 1});
    return failed ? nullptr : underneath::track_text(strdup(text.c_str()));
}

int TracedHost::publish_message(const char* name, const void* data, unsigned int length) {
    const bool failed_on_order = underneath::fails(Call::publish_message);
    const bool failed = take(failing_publishes);
    const int result = failed_on_order ? underneath::ordered_result() : failed ? 1 : 0;
    const Outside host;
    underneath::record(
        {std::string("publish ") + name + " " + std::string(static_cast<const char*>(data), length), result});
    return result;
}

int TracedHost::daemon_operation() {
    underneath::die("the module called the daemon's own operation");
}

int TracedHost::send_response(const Message* reply) {
    const int result = underneath::fails(Call::send_response) ? underneath::ordered_result() : 0;
    const Outside host;
    underneath::record(
        {"reply " + std::to_string(reply->request_id) + " " + std::string(reply->payload, reply->payload_len),
         result});
    return result;
}

// ---- The utility library

namespace cv {

int log::current_level = 3;

void log::print(int /*destination*/, int level, const char* line) {
    const Outside host;
    if (level <= 1) {
        const char* const message = std::strstr(line, "()]: ");
        underneath::record(
            {"log " + std::to_string(level) + " " + (message != nullptr ? message + 5 : line)});
    }
}

void log_json(int /*level*/, const char* /*title*/, const json_t* /*document*/) {}

static bool traced_attach(const char* key, bool attached) {
    const Outside host;
    underneath::record({std::string("attach ") + key, attached ? 1 : 0});
    return attached;
}

bool json_attach_value(json_t* object, const char* key, const char* value) {
    return traced_attach(key, json_object_set_new(object, key, json_string(value)) == 0);
}

bool json_attach_value(json_t* object, const char* key, const std::vector<std::string>& values) {
    json_t* const array = json_array();
    bool complete = array != nullptr;
    for (const std::string& value : values) {
        complete = complete && json_array_append_new(array, json_string(value.c_str())) == 0;
    }
    if (!complete) {
        json_decref(array);
    }
    return traced_attach(key, complete && json_object_set_new(object, key, array) == 0);
}

bool get_mac_address(const std::string& /*interface_name*/, std::string& mac) {
    const Outside host;
    mac = "0a:1b:2c:3d:4e:5f";
    return true;
}

int setMgmt::getKeyValue(const std::string& key, int default_value) {
    const Outside host;
    return key == "/daemons/cvcloudd/registration/retry_num" ? 1 : default_value;
}

std::string setMgmt::getKeyValue(const std::string& /*key*/, const std::string& default_value) {
    const Outside host;
    // Longer than what a std::string holds without an allocation.
    return default_value + " of a box with a long name";
}

} // namespace cv
