#include <csignal>
#include <cstdio>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include <sys/socket.h>

#include <httplib.h>

#include "cloud/cloud_service.h"
#include "common/command_line.h"

namespace {

constexpr const char* address = "127.0.0.1";
constexpr std::size_t request_limit = 1024 * 1024;

void log_request(const std::string& service, const cloud::CloudService::Answer& answer) {
    const std::time_t now = std::time(nullptr);
    tm date{};
    gmtime_r(&now, &date);
    char time_text[32];
    std::strftime(time_text, sizeof time_text, "%Y-%m-%dT%H:%M:%SZ", &date);
    std::fprintf(stderr, "%s %s %s: %s\n", time_text, service.c_str(), answer.method.c_str(),
                 answer.outcome.c_str());
}

} // namespace

int main(int argc, char** argv) {
    int port = 0;
    std::vector<std::string> partner_tokens{"desk-partner-token"};
    std::vector<std::string> temporary_tokens{"desk-temporary-token"};
    cloud::CloudOptions options;
    options.partner_id = "desk-partner";
    CLI::App app(
        "The maker's cloud of an appliance on a desk: JSON-RPC 2.0 over HTTP on the loopback. It prints "
        "\"cvcloud-sim: listening on URL\", logs each request in one line to the standard error, and stops "
        "on SIGTERM.",
        "cvcloud-sim");
    app.footer("Exit codes: 0 stopped by a signal, 1 could not start, 2 the command line is wrong");
    app.add_option("--port", port, "Port to listen on; 0 takes a free one")
        ->check(CLI::Range(0, 65535).description(""))
        ->type_name("PORT")
        ->capture_default_str();
    app.add_option("--partner-id", options.partner_id, "The partner that may connect")
        ->type_name("ID")
        ->capture_default_str();
    app.add_option("--partner-token", partner_tokens, "A partner token that is good; may be repeated")
        ->type_name("TOKEN")
        ->allow_extra_args(false)
        ->capture_default_str();
    app.add_option("--temporary-token", temporary_tokens, "A temporary token that is good; may be repeated")
        ->type_name("TOKEN")
        ->allow_extra_args(false)
        ->capture_default_str();
    if (const auto exit_code = sandbox::read_command_line(app, argc, argv)) {
        return *exit_code;
    }
    options.partner_tokens = {partner_tokens.begin(), partner_tokens.end()};
    options.temporary_tokens = {temporary_tokens.begin(), temporary_tokens.end()};

    // Blocked before the server starts its threads, so that only the wait below takes them.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGTERM);
    sigaddset(&stop_signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

    cloud::CloudService service(options);
    httplib::Server server;
    server.set_payload_max_length(request_limit);
    // An idle connection would hold up the stop.
    server.set_keep_alive_max_count(1);
    // The library's own choice, SO_REUSEPORT, would let two clouds share a port unnoticed.
    server.set_socket_options([](socket_t socket) {
        const int yes = 1;
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    server.Post(R"(/(.+))", [&service](const httplib::Request& request, httplib::Response& response) {
        const std::string name = request.matches[1];
        const cloud::CloudService::Answer answer = service.answer(name, request.body);
        log_request(name, answer);
        response.set_content(
            answer.document.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace),
            "application/json");
    });

    if (port == 0) {
        port = server.bind_to_any_port(address);
    } else if (!server.bind_to_port(address, port)) {
        sandbox::print_problem(app, "cannot listen on " + std::string(address) + ":" + std::to_string(port) +
                                        ": the port is in use or not allowed; choose another --port");
        return 1;
    }
    std::printf("cvcloud-sim: listening on http://%s:%d\n", address, port);
    std::fflush(stdout);
    std::thread listener([&server] { server.listen_after_bind(); });
    int signal = 0;
    sigwait(&stop_signals, &signal);
    // A stop() before the listener runs would be lost.
    while (!server.is_running()) {
        std::this_thread::yield();
    }
    server.stop();
    listener.join();
    return 0;
}
