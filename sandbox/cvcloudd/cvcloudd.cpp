#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <curl/curl.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "common/command_line.h"
#include "common/handler_library.h"
#include "common/json_text.h"
#include "common/process.h"
#include "cvcloudd/daemon_cloud.h"
#include "cvcloudd/exchange.h"
#include "cvcloudd/log_line.h"
#include "cvcloudd/readiness.h"
#include "cvcloudd/recorder.h"
#include "cvutils_control.h"

namespace cvcloudd {

namespace {

using sandbox::HandlerLibrary;

struct Options {
    std::string run_directory;
    std::vector<std::string> handlers;
    std::string settings_file;
    std::string record_file;
    std::string record_title;
    double request_timeout_seconds = 10;
    int log_level = 2;
    bool deliver_unknown = false;
    bool mask_tokens = false;
    sandbox::CloudAccessOptions cloud;
    std::vector<std::string> refusals;
};

/// Of the exchange, the cloud requests, two handlers and a few clients.
constexpr int descriptors_needed = 64;

const auto daemon_start = std::chrono::steady_clock::now();

/// SIGTERM and SIGINT as a descriptor. Made before any thread, which inherits the blocked signals.
class StopSignal {
public:
    StopSignal() {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGTERM);
        sigaddset(&signals, SIGINT);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        descriptor = signalfd(-1, &signals, SFD_CLOEXEC);
        if (descriptor == -1) {
            throw std::runtime_error(std::string("signalfd: ") + std::strerror(errno));
        }
    }
    ~StopSignal() {
        close(descriptor);
    }
    StopSignal(const StopSignal&) = delete;
    StopSignal& operator=(const StopSignal&) = delete;

    int fd() const {
        return descriptor;
    }

private:
    int descriptor;
};

/// Ends the process on a stop signal for as long as this lives, while the daemon starts: it may hang in a
/// file that nobody writes to, or in a handler. Nothing has been accepted yet that would have to be ended.
class StartGuard {
public:
    explicit StartGuard(const StopSignal& stop)
        : over(eventfd(0, EFD_CLOEXEC)), thread([this, &stop] {
              pollfd descriptors[] = {{stop.fd(), POLLIN, 0}, {over, POLLIN, 0}};
              while (poll(descriptors, 2, -1) == -1) {
              }
              if (descriptors[1].revents == 0) {
                  _exit(0);
              }
          }) {}
    ~StartGuard() {
        eventfd_write(over, 1);
        thread.join();
        close(over);
    }
    StartGuard(const StartGuard&) = delete;
    StartGuard& operator=(const StartGuard&) = delete;

private:
    const int over;
    std::thread thread;
};

/// The loaded handlers and who of them takes which command. For the dispatch thread.
class Handlers {
public:
    Handlers(DaemonCloud& cloud_access, bool delivers_unknown)
        : cloud(cloud_access), deliver_unknown(delivers_unknown) {}
    /// A handler is destroyed only when no command can reach it any more, and no callback but one that its
    /// own send_request() calls.
    ~Handlers() {
        cloud.shut_down();
    }
    Handlers(const Handlers&) = delete;
    Handlers& operator=(const Handlers&) = delete;

    /// Throws std::runtime_error when a library cannot be loaded or a mandatory handler is not ready.
    void load(const std::string& path) {
        auto library = std::make_unique<HandlerLibrary>(path);
        std::vector<std::string> commands;
        if (!library->init(cloud, commands)) {
            if (library->mandatory()) {
                throw std::runtime_error("mandatory handler " + library->path() +
                                         " is not ready; its reason is in the log above");
            }
            log_line(1, "handler " + library->path() + " is not ready and is left out");
            return;
        }
        for (const std::string& command : commands) {
            if (!subscribers.emplace(command, library.get()).second) {
                log_line(1, "handler " + library->path() + " subscribes to " + command +
                                ", which is taken already; the first handler keeps it");
            }
        }
        libraries.push_back(std::move(library));
    }

    /// Who gets the command: its subscriber, else the first handler when unknown commands are delivered, else
    /// nobody, null.
    HandlerLibrary* receiver(const std::string& command) const {
        const auto found = subscribers.find(command);
        if (found != subscribers.end()) {
            return found->second;
        }
        return deliver_unknown && !libraries.empty() ? libraries.front().get() : nullptr;
    }

    nlohmann::ordered_json describe() const {
        nlohmann::ordered_json handlers = nlohmann::ordered_json::array();
        for (const auto& library : libraries) {
            nlohmann::ordered_json commands = nlohmann::ordered_json::array();
            for (const auto& [command, subscriber] : subscribers) {
                if (subscriber == library.get()) {
                    commands.push_back(command);
                }
            }
            handlers.push_back({{"library", library->path()},
                                {"mandatory", library->mandatory()},
                                {"commands", std::move(commands)}});
        }
        return handlers;
    }

private:
    DaemonCloud& cloud;
    const bool deliver_unknown;
    std::vector<std::unique_ptr<HandlerLibrary>> libraries;
    std::map<std::string, HandlerLibrary*> subscribers;
};

/// For the option: an empty text, or what is wrong with a refusal.
std::string check_refusal(const std::string& text) {
    try {
        Refusals().add(text);
        return {};
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
}

std::string set_log_level(const std::string& payload) {
    if (payload.size() != 1 || payload[0] < '0' || payload[0] > '3') {
        return error_reply("error_invalid_arguments", "The log level is 0, 1, 2 or 3");
    }
    const int level = payload[0] - '0';
    __atomic_store_n(&cv::log::current_level, level, __ATOMIC_RELAXED);
    return R"({"result": "ok", "log_level": )" + payload + "}";
}

std::string describe_status(const Options& options, const Handlers& handlers, const Activity& activity) {
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - daemon_start);
    const nlohmann::ordered_json status{
        {"result", "ok"},
        {"version", CV_VERSION},
        {"pid", getpid()},
        {"seconds", seconds.count()},
        {"log_level", __atomic_load_n(&cv::log::current_level, __ATOMIC_RELAXED)},
        {"cloud", options.cloud.url},
        {"settings",
         options.settings_file.empty() ? "" : std::filesystem::absolute(options.settings_file).string()},
        {"handlers", handlers.describe()},
        {"registration", activity.registration()},
        {"last_result", activity.last_result()}};
    return sandbox::json_line(status);
}

void deliver(const ReceivedCommand& received, const Options& options, const Handlers& handlers,
             Exchange& exchange, Recorder& recorder) {
    const cvex::Command& command = received.command;
    if (command.name == cvex::log_level_command) {
        exchange.reply(received.request_id, set_log_level(command.payload));
        return;
    }
    if (command.name == cvex::status_command) {
        exchange.reply(received.request_id, describe_status(options, handlers, exchange.activity()));
        return;
    }
    cv::log::learn_tokens(command.payload);
    HandlerLibrary* const handler = handlers.receiver(command.name);
    if (handler == nullptr) {
        log_line(1, "no handler takes the command " + command.name);
        exchange.reply(received.request_id,
                       error_reply("error_other", "No handler takes the command " + command.name));
        return;
    }
    Message message{};
    message.type = command.type;
    command.name.copy(message.name, sizeof message.name - 1);
    message.request_id = received.request_id;
    message.payload_len = static_cast<std::uint32_t>(command.payload.size());
    message.payload = command.payload.data();
    recorder.command(message);
    exchange.activity().delivered(received.request_id, command);
    handler->handle(message);
}

/// The dispatch thread: one command at a time, until a stop signal.
void dispatch(const StopSignal& stop, const Options& options, const Handlers& handlers, Exchange& exchange,
              Recorder& recorder) {
    for (;;) {
        pollfd descriptors[] = {{stop.fd(), POLLIN, 0}, {exchange.commands().fd(), POLLIN, 0}};
        if (poll(descriptors, 2, -1) == -1 && errno != EINTR) {
            throw std::runtime_error(std::string("poll: ") + std::strerror(errno));
        }
        if (descriptors[0].revents != 0) {
            return;
        }
        if (const auto received = exchange.commands().take()) {
            deliver(*received, options, handlers, exchange, recorder);
        }
    }
}

void serve(const Options& options) {
    const StopSignal stop;
    std::optional<StartGuard> start_guard(stop);
    if (!options.settings_file.empty()) {
        const std::string problem = cv::setMgmt::use_settings_file(options.settings_file);
        if (!problem.empty()) {
            throw std::runtime_error(problem + "; correct the file");
        }
    }

    Recorder recorder(options.record_file, options.record_title);
    Exchange exchange(options.run_directory);
    DaemonCloud cloud(options.cloud, options.refusals, exchange, recorder);
    Handlers handlers(cloud, options.deliver_unknown);
    for (const std::string& path : options.handlers) {
        handlers.load(path);
    }
    start_guard.reset();
    std::puts("cvcloudd: ready");
    std::fflush(stdout);
    report_readiness();
    dispatch(stop, options, handlers, exchange, recorder);

    log_line(2, "stopping");
    // What a handler replies while it ends is still sent: the exchange goes last.
    exchange.refuse_commands();
}

} // namespace

} // namespace cvcloudd

int main(int argc, char** argv) {
    cvcloudd::Options options;
    CLI::App app(
        "The cloud daemon of an appliance on a desk: loads handler libraries, delivers the commands of its "
        "message exchange to them one at a time, and sends their cloud requests. It prints "
        "\"cvcloudd: ready\" once it takes commands, logs to the standard error, and stops on SIGTERM.",
        "cvcloudd");
    app.footer("Exit codes: 0 stopped by a signal, 1 could not start, 2 the command line is wrong");
    app.add_option("--run-dir", options.run_directory,
                   "Existing directory for the sockets of the message exchange")
        ->check(CLI::ExistingDirectory.description(""))
        ->type_name("DIRECTORY")
        ->required();
    app.add_option("--handler", options.handlers, "Handler library to load; may be repeated")
        ->type_name("FILE")
        ->required()
        ->allow_extra_args(false);
    app.add_option("--cloud-url", options.cloud.url, "The cloud, for example http://127.0.0.1:8080")
        ->type_name("URL")
        ->required();
    app.add_option(
           "--settings", options.settings_file,
           "Settings store, a JSON file of key to value [default: none, every setting has its default]")
        ->type_name("FILE");
    app.add_option("--partner-id", options.cloud.partner_id,
                   "Partner that the box is configured for [default: none]")
        ->type_name("ID");
    app.add_option("--ca-file", options.cloud.authorities_file,
                   "Authorities, PEM, that the certificate of an https cloud has to come from [default: the "
                   "system's]")
        ->type_name("FILE");
    app.add_option("--request-timeout", options.request_timeout_seconds, "How long a cloud request may take")
        ->check(CLI::Range(0.001, 86400.0).description(""))
        ->type_name("SECONDS")
        ->capture_default_str();
    app.add_option(
           "--record", options.record_file,
           "Keep a record of what crosses the handlers' boundary in this file, which is replaced; cvex "
           "timeline draws it [default: none]")
        ->type_name("FILE");
    app.add_option("--record-title", options.record_title,
                   "What the run is, for the record's page [default: none]")
        ->type_name("TEXT");
    app.add_option(
           "--refuse", options.refusals,
           "Refuse the handlers' next COUNT calls of an operation, all without a count: build or request "
           "(a cloud request), or publish (a message); may be repeated")
        ->type_name("OPERATION[*COUNT]")
        ->check(CLI::Validator(&cvcloudd::check_refusal, ""))
        ->allow_extra_args(false);
    app.add_flag(
        "--deliver-unknown", options.deliver_unknown,
        "Deliver a command that no handler subscribed to to the first handler instead of refusing it");
    app.add_option(
           "--log-level", options.log_level,
           "Most detailed level to log: 0 errors, 1 warnings, 2 information, 3 details; cvex log-level "
           "changes it later")
        ->check(CLI::Range(0, 3).description(""))
        ->type_name("LEVEL")
        ->capture_default_str();
    app.add_flag(
        "--mask-tokens", options.mask_tokens,
        "Log \"***\" in place of the tokens of commands and of the cloud's answers; a record has them "
        "all the same");
    if (const auto exit_code = sandbox::read_command_line(app, argc, argv)) {
        return *exit_code;
    }
    options.cloud.request_timeout = std::chrono::ceil<std::chrono::milliseconds>(
        std::chrono::duration<double>(options.request_timeout_seconds));
    __atomic_store_n(&cv::log::current_level, options.log_level, __ATOMIC_RELAXED);
    if (options.mask_tokens) {
        cv::log::mask_tokens();
    }
    curl_global_init(CURL_GLOBAL_DEFAULT);
    int exit_code = 0;
    try {
        sandbox::prepare_process(cvcloudd::descriptors_needed);
        cvcloudd::serve(options);
    } catch (const std::exception& error) {
        sandbox::print_problem(app, error.what());
        exit_code = 1;
    }
    curl_global_cleanup();
    return exit_code;
}
