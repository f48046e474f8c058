#include "lean_host.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include "process.h"

namespace kit {

Signal::Signal() : descriptor(eventfd(0, EFD_SEMAPHORE | EFD_CLOEXEC)) {}

Signal::~Signal() {
    close(descriptor);
}

void Signal::signal() const {
    if (eventfd_write(descriptor, 1) != 0) {
        die("a signal cannot be given");
    }
}

void Signal::wait() const {
    eventfd_t one = 0;
    if (eventfd_read(descriptor, &one) != 0) {
        die("a signal cannot be waited for");
    }
}

int LeanHost::send_request(const char* /*request*/, const char* /*service*/,
                           cvtessel_callback request_callback, void* request_user_data) {
    arrival = nanoseconds();
    callback = request_callback;
    user_data = request_user_data;
    if (held != nullptr) {
        held->signal();
        resume->wait();
    }
    return refuses ? 1 : 0;
}

void LeanHost::release_response(cvtessel_response* /*response*/) {}

char* LeanHost::build_request(const char* /*method*/, const char* params, unsigned int params_len,
                              bool /*add_connect_fields*/) {
    const InHost host; // The text is the host's gift.
    auto* const request = static_cast<char*>(std::malloc(params_len + 1U));
    std::memcpy(request, params, params_len);
    request[params_len] = '\0';
    return request;
}

int LeanHost::publish_message(const char* /*name*/, const void* /*data*/, unsigned int /*length*/) {
    arrival = nanoseconds();
    ++published;
    return 0;
}

int LeanHost::daemon_operation() {
    die("a handler called the daemon's own operation");
}

int LeanHost::send_response(const Message* /*reply*/) {
    ++replies;
    return 0;
}

void LeanHost::init(CvHandlerAPI& handler) {
    std::vector<std::string> commands;
    const InModule module;
    if (handler.init(this, commands) == 0) {
        die("a handler is not ready");
    }
}

void LeanHost::command(CvHandlerAPI& handler, const char* name, const std::string& payload) {
    Message message = {};
    message.type = 2;
    std::strncpy(message.name, name, sizeof message.name - 1);
    message.request_id = ++request_id;
    message.payload_len = static_cast<std::uint32_t>(payload.length());
    message.payload = payload.data();
    const InModule module;
    handler.handle(&message);
}

void LeanHost::answer(const std::string& body) {
    cvtessel_response response = {0, 0, const_cast<char*>(body.data()),
                                  static_cast<std::uint32_t>(body.length())};
    const cvtessel_callback answered = callback;
    if (answered == nullptr) {
        die("there is no request to answer");
    }
    callback = nullptr;
    const InModule module;
    answered(&response, user_data);
}

std::int64_t nanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

void die(const std::string& message) {
    std::fprintf(stderr, "%s\n", message.c_str());
    std::_Exit(1);
}

} // namespace kit
