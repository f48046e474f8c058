#include "cloud/transport.h"

#include <cmath>
#include <cstdio>
#include <ctime>

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

/// What the fault does to a response that is right so far.
void apply(const Fault& fault, Response& response) {
    switch (fault.kind) {
    case FaultKind::status:
        response.status = static_cast<unsigned>(std::stoul(fault.argument));
        response.body.clear();
        break;
    case FaultKind::empty:
        response.body.clear();
        break;
    case FaultKind::text:
        response.body = fault.argument;
        response.type = text_type;
        break;
    case FaultKind::oversized:
        response.padding = std::stoul(fault.argument);
        break;
    case FaultKind::drop:
        response.is_dropped = true;
        break;
    case FaultKind::delay:
        response.wait = std::chrono::milliseconds(std::lround(std::ceil(std::stod(fault.argument) * 1000)));
        break;
    case FaultKind::silence:
        response.wait = std::chrono::hours(24);
        break;
    default:
        // The faults that are documents are in the answer.
        break;
    }
}

} // namespace

Response answer_request(CloudService& service, const Request& request) {
    Response response;
    if (request.method != MHD_HTTP_METHOD_POST || request.path.size() < 2) {
        response.status = MHD_HTTP_NOT_FOUND;
        return response;
    }
    const std::string name = request.path.substr(1);
    const CloudService::Answer answer = service.answer(name, request.body);
    log_request(name, answer);
    response.body = answer.document.dump(-1, ' ', false, Json::error_handler_t::replace);
    if (answer.fault) {
        apply(*answer.fault, response);
    }
    return response;
}

} // namespace cloud
