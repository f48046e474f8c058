#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include "cloud/admin.h"
#include "cloud/cloud_service.h"
#include "cloud/fault.h"
#include "cloud/transport.h"
#include "cloud/web_server.h"
#include "common/command_line.h"
#include "common/process.h"

namespace {

struct Options {
    std::string address = "127.0.0.1";
    int port = 0;
    int admin_port = 0;
    std::vector<std::string> partner_tokens{"desk-partner-token"};
    std::vector<std::string> temporary_tokens{"desk-temporary-token"};
    std::vector<std::string> faults;
    double time_limit_seconds = 30;
    std::string certificate_file;
    std::string key_file;
    cloud::CloudOptions cloud;
};

/// Of the two servers, the file of boxes and a few connections; more of them wait when there are no more.
constexpr int descriptors_needed = 64;

void add_options(CLI::App& app, Options& options) {
    app.add_option("--address", options.address,
                   "IPv4 address of this machine to listen on; 0.0.0.0 is all of them")
        ->check(CLI::ValidIPV4.description(""))
        ->type_name("ADDRESS")
        ->capture_default_str();
    app.add_option("--port", options.port, "Port to listen on; 0 takes a free one")
        ->check(CLI::Range(0, 65535).description(""))
        ->type_name("PORT")
        ->capture_default_str();
    app.add_option("--admin-port", options.admin_port, "Port of the administration; 0 takes a free one")
        ->check(CLI::Range(0, 65535).description(""))
        ->type_name("PORT")
        ->capture_default_str();
    app.add_option("--partner-id", options.cloud.partner_id, "The partner that may connect")
        ->type_name("ID")
        ->capture_default_str();
    app.add_option("--partner-token", options.partner_tokens, "A partner token that is good; may be repeated")
        ->type_name("TOKEN")
        ->allow_extra_args(false)
        ->capture_default_str();
    app.add_option("--temporary-token", options.temporary_tokens,
                   "A temporary token that is good; may be repeated")
        ->type_name("TOKEN")
        ->allow_extra_args(false)
        ->capture_default_str();
    app.add_option("--boxes", options.cloud.boxes_file,
                   "SQLite file that keeps the boxes and the user tokens handed out [default: in memory]")
        ->type_name("FILE");
    app.add_option("--fault", options.faults, "Something that goes wrong, see below; may be repeated")
        ->type_name("FAULT")
        ->check(CLI::Validator(&cloud::check_fault, ""))
        ->allow_extra_args(false);
    app.add_option("--time-limit", options.time_limit_seconds,
                   "How long a request may take to come, and its answer to be read")
        ->check(CLI::Range(0.001, 86400.0).description(""))
        ->type_name("SECONDS")
        ->capture_default_str();
    CLI::Option* const certificate =
        app.add_option("--tls-cert", options.certificate_file, "Serve https with this certificate, PEM")
            ->type_name("FILE");
    CLI::Option* const key =
        app.add_option("--tls-key", options.key_file, "The certificate's private key, PEM")
            ->type_name("FILE");
    certificate->needs(key);
    key->needs(certificate);
}

int serve(const Options& options) {
    // Blocked before the servers start their threads, so that only the wait below takes them.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGTERM);
    sigaddset(&stop_signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
    cloud::CloudService service(options.cloud);
    service.add_faults(options.faults);
    const auto time_limit = std::chrono::ceil<std::chrono::milliseconds>(
        std::chrono::duration<double>(options.time_limit_seconds));
    cloud::WebServer server(time_limit, options.certificate_file, options.key_file);
    cloud::WebServer admin_server(time_limit);
    const auto answer = [&](const cloud::Request& request) {
        return cloud::answer_request(service, request);
    };
    const auto administer = [&](const cloud::Request& request) {
        return cloud::administer(service, server, request);
    };
    // Whoever reaches the administration may use it: it stays on the loopback.
    const std::string loopback = "127.0.0.1";
    const auto start = [](cloud::WebServer& started, const std::string& address, int port,
                          const cloud::WebServer::Handler& handler, const std::string& option) {
        if (!started.start(address, port, handler)) {
            throw std::runtime_error("cannot listen on " + address + ":" + std::to_string(port) +
                                     ": the port is in use or not allowed, or the address is "
                                     "not of this machine; choose another " +
                                     option);
        }
    };
    start(admin_server, loopback, options.admin_port, administer, "--admin-port");
    start(server, options.address, options.port, answer, "--port or --address");
    std::printf("cvcloud-sim: administered on %s\ncvcloud-sim: listening on %s\n", admin_server.url().c_str(),
                server.url().c_str());
    std::fflush(stdout);
    int signal = 0;
    sigwait(&stop_signals, &signal);
    admin_server.stop();
    server.stop();
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    options.cloud.partner_id = "desk-partner";
    CLI::App app(
        "The maker's cloud of an appliance on a desk: JSON-RPC 2.0 over HTTP. It prints "
        "\"cvcloud-sim: listening on URL\", logs each request in one line to the standard error, and stops "
        "on SIGTERM. What goes wrong is told with --fault, or with cvcloud-sim ctl while it runs.",
        "cvcloud-sim");
    app.footer(cloud::describe_faults() + "\nExit codes: 0 stopped by a signal or ctl succeeded, 1 could not "
                                          "start or ctl found no cloud, 2 the "
                                          "command line is wrong");
    app.require_subcommand(0, 1);
    add_options(app, options);
    const cloud::Control control(app);
    if (const auto exit_code = sandbox::read_command_line(app, argc, argv)) {
        return *exit_code;
    }
    if (control.is_wanted()) {
        return control.run();
    }
    options.cloud.partner_tokens = {options.partner_tokens.begin(), options.partner_tokens.end()};
    options.cloud.temporary_tokens = {options.temporary_tokens.begin(), options.temporary_tokens.end()};
    try {
        sandbox::prepare_process(descriptors_needed);
        return serve(options);
    } catch (const std::exception& error) {
        sandbox::print_problem(app, error.what());
        return 1;
    }
}
