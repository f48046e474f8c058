#ifndef CLOUD_TRANSPORT_H
#define CLOUD_TRANSPORT_H

#include <memory>
#include <mutex>
#include <string>

#include "cloud/cloud_service.h"
#include "cloud/web_server.h"

namespace cloud {

/// Brings the requests of the boxes to the service and its answers back, or does to them what a fault says.
class Transport {
public:
    Transport(CloudService& service, WebServer& server);

    /// Forgets the faults that no request has taken yet and lets every request go that a fault holds up.
    void clear_faults();

    /// Closes every connection that a fault holds up: after it the server can be stopped.
    void stop();

private:
    class Event;

    void handle(const httplib::Request& request, httplib::Response& response);
    void set_body(const CloudService::Answer& answer, httplib::Response& response) const;
    void exchange_event(bool is_last);

    CloudService& service;
    std::mutex mutex;
    /// Set when the requests that wait now shall go on.
    std::shared_ptr<Event> release;
    bool stopping = false;
};

} // namespace cloud

#endif
