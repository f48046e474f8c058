#include "cloud/transport.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <system_error>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "common/printable.h"

namespace cloud {

namespace {

constexpr const char* text_type = "text/plain";

void log_request(const std::string& service, const CloudService::Answer& answer) {
    timespec now{};
    tm date{};
    clock_gettime(CLOCK_REALTIME, &now);
    gmtime_r(&now.tv_sec, &date);
    char time_text[32];
    std::strftime(time_text, sizeof time_text, "%Y-%m-%dT%H:%M:%S", &date);
    // One line, whatever the names in the request are.
    const std::string text = sandbox::printable(service + ' ' + answer.method + ": " + answer.outcome, true);
    std::fprintf(stderr, "%s.%03ldZ %s\n", time_text, now.tv_nsec / 1000000, text.c_str());
}

/// Closes the connection under the library, which then has nobody to answer to.
void close_connection(const httplib::Request& request) {
    shutdown(connection_of(request), SHUT_RDWR);
}

std::string padded_document(std::size_t size) {
    const std::string head = R"({"padding": ")";
    const std::string tail = R"("})";
    return head + std::string(size - head.size() - tail.size(), 'x') + tail;
}

} // namespace

/// Set once, for all who wait.
class Transport::Event {
public:
    Event() : descriptor(eventfd(0, EFD_CLOEXEC)) {
        if (descriptor == -1) {
            throw std::system_error(errno, std::generic_category(), "eventfd");
        }
    }
    ~Event() {
        close(descriptor);
    }
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    int fd() const {
        return descriptor;
    }
    void set() const {
        eventfd_write(descriptor, 1);
    }

private:
    int descriptor;
};

Transport::Transport(CloudService& cloud_service, WebServer& server)
    : service(cloud_service), release(std::make_shared<Event>()) {
    server.routes().Post(R"(/(.+))", [this](const httplib::Request& request, httplib::Response& response) {
        handle(request, response);
    });
}

void Transport::clear_faults() {
    service.clear_faults();
    exchange_event(false);
}

void Transport::stop() {
    exchange_event(true);
}

void Transport::exchange_event(bool is_last) {
    const std::lock_guard lock(mutex);
    release->set();
    stopping = stopping || is_last;
    if (!stopping) {
        release = std::make_shared<Event>();
    }
}

void Transport::handle(const httplib::Request& request, httplib::Response& response) {
    const std::string name = request.matches[1];
    std::shared_ptr<Event> go_on;
    {
        const std::lock_guard lock(mutex);
        go_on = release;
    }
    const CloudService::Answer answer = service.answer(name, request.body);
    log_request(name, answer);
    set_body(answer, response);
    if (!answer.fault) {
        return;
    }
    const std::string& argument = answer.fault->argument;
    if (answer.fault->kind == FaultKind::drop) {
        close_connection(request);
    } else if (answer.fault->kind == FaultKind::delay || answer.fault->kind == FaultKind::silence) {
        const bool has_end = answer.fault->kind == FaultKind::delay;
        const int milliseconds = has_end ? static_cast<int>(std::ceil(std::stod(argument) * 1000)) : -1;
        pollfd descriptors[] = {{go_on->fd(), POLLIN, 0}, {connection_of(request), POLLRDHUP, 0}};
        poll(descriptors, 2, milliseconds);
        const std::lock_guard lock(mutex);
        if (stopping) {
            close_connection(request);
        }
    }
}

void Transport::set_body(const CloudService::Answer& answer, httplib::Response& response) const {
    if (answer.fault && answer.fault->kind == FaultKind::status) {
        response.status = std::stoi(answer.fault->argument);
    } else if (answer.fault && answer.fault->kind == FaultKind::empty) {
        response.set_content("", json_type);
    } else if (answer.fault && answer.fault->kind == FaultKind::text) {
        response.set_content(answer.fault->argument, text_type);
    } else if (answer.fault && answer.fault->kind == FaultKind::oversized) {
        response.set_content(padded_document(std::stoul(answer.fault->argument)), json_type);
    } else {
        response.set_content(answer.document.dump(-1, ' ', false, Json::error_handler_t::replace), json_type);
    }
}

} // namespace cloud
