#ifndef CLOUD_ADMIN_H
#define CLOUD_ADMIN_H

#include <string>
#include <vector>

#include <CLI/App.hpp>

#include "cloud/cloud_service.h"
#include "cloud/web_server.h"

namespace cloud {

/// Answers a request to the administration of a running cloud, HTTP with JSON bodies on a port of its own:
///
///     POST /faults     adds the faults of an array of texts, all or none; 400 with {"error": reason}
///     GET /faults      the faults that no request has taken yet
///     DELETE /faults   forgets these and lets every request go that a fault holds up
///     GET /requests    the latest requests, see CloudService::latest_requests()
///
/// `server` is the one whose requests a fault holds up.
Response administer(CloudService& service, WebServer& server, const Request& request);

/// The client of it, `cvcloud-sim ctl`.
class Control {
public:
    /// Adds the subcommand to the program's command line.
    explicit Control(CLI::App& program);

    /// Whether the command line asks for it, and nothing else.
    bool is_wanted() const;

    /// Does what the command line asks for and returns the exit code.
    int run() const;

private:
    CLI::App& app;
    CLI::App* control;
    CLI::App* fault;
    CLI::App* faults;
    CLI::App* clear;
    CLI::App* requests;
    std::string url;
    std::vector<std::string> fault_texts;
};

/// For options that take faults: an empty text, or what is wrong with one.
std::string check_fault(const std::string& text);

} // namespace cloud

#endif
