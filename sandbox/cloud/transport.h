// The simulated cloud's side of HTTP.
#ifndef CLOUD_TRANSPORT_H
#define CLOUD_TRANSPORT_H

#include "cloud/cloud_service.h"
#include "cloud/web_server.h"

namespace cloud {

/// What the service makes of a request, logged in one line: its answer, or what a fault says. A request is a
/// POST to the name of the service.
Response answer_request(CloudService& service, const Request& request);

} // namespace cloud

#endif
