#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <unistd.h>

#include "common/command_line.h"
#include "common/json_text.h"
#include "common/printable.h"
#include "common/process.h"
#include "cvex/catalogue.h"
#include "cvex/client.h"
#include "cvex/doctor.h"
#include "cvex/explain.h"
#include "cvex/reply.h"
#include "cvex/settings_command.h"
#include "cvex/steps.h"
#include "cvex/timeline.h"

namespace {

using nlohmann::json;
using sandbox::text_member;

enum ExitCode : int {
    exit_ok = 0,
    exit_failed = 1,
    exit_refused = 3,
    exit_timed_out = 4,
    exit_no_daemon = 5,
};

constexpr const char* footer = R"(Exit codes:
  0  the command succeeded: the reply's "result" is "ok", or no reply was asked for
  1  it was accepted and failed; what stopped it is in the reply's "reason"; or a setting is not set
  2  the command line is wrong, or a file that it names cannot be used
  3  it was refused: bad arguments, a registration in progress, nothing to retry, unknown command
  4  no reply came within --timeout
  5  no daemon serves the run directory

With --json the standard output has nothing but what the option's own line says, as lines of
JSON; without a reply it stays empty. Problems are told on the standard error in either form.)";

constexpr std::chrono::milliseconds tick_interval{100};

struct Options {
    std::string run_directory;
    std::optional<std::string> token;
    std::string token_file;
    std::string token_type = "partner";
    std::string mac;
    std::string name;
    std::string payload;
    std::string record_file;
    std::string page_file;
    int log_level = 0;
    double timeout_seconds = 60;
    std::optional<double> listen_seconds;
    std::vector<std::string> listen_names;
    std::size_t listen_count = 0;
    bool as_json = false;
    bool no_reply = false;
    bool with_log = false;
    bool is_raw = false;
    bool masks_tokens = false;
    bool watches = false;
};

std::chrono::steady_clock::duration to_duration(double seconds) {
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(seconds));
}

ExitCode outcome_of(const std::string& reply) {
    static const std::set<std::string> refusals{"error_invalid_arguments", "error_in_progress",
                                                "error_other"};
    if (reply.empty()) {
        return exit_refused;
    }
    const std::string result = cvex::read_reply(reply).result;
    if (result == "ok") {
        return exit_ok;
    }
    return refusals.count(result) == 1 ? exit_refused : exit_failed;
}

std::string describe_failure(const std::string& command, const std::string& reply, ExitCode outcome,
                             const std::string& last_error) {
    const auto [result, reason] = cvex::read_reply(reply);
    std::string text = command + (outcome == exit_refused ? " was refused: " : " failed: ");
    text += result.empty() ? "the reply is \"" + reply + "\"" : result + ": " + reason;
    if (outcome == exit_failed && !last_error.empty()) {
        text += " (" + last_error + ")";
    }
    const std::optional<cvex::Advice> advice = cvex::advice_for_reply(result, reason);
    return text + (advice && !advice->action.empty() ? "; what to do: " + advice->action : "");
}

/// How a conversation is shown: the reply as it came, with the steps to it for a person, or put into words.
enum class Form { reply, steps, status };

void print_status(const json& status);

/// Sends the command and tells what happens until it is answered.
int converse(const CLI::App& app, const Options& options, const cvex::Command& command, Form form) {
    // Connecting has a second of its own, however short the wait for the reply is to be.
    cvex::Client client(options.run_directory,
                        std::chrono::ceil<std::chrono::milliseconds>(
                            std::chrono::duration<double>(std::clamp(options.timeout_seconds, 1.0, 5.0))));
    client.send(command);
    if (options.no_reply) {
        if (form == Form::steps) {
            std::printf("%s sent\n", command.name.c_str());
        }
        return exit_ok;
    }

    const std::unique_ptr<cvex::Steps> steps = form == Form::steps ? cvex::make_steps() : nullptr;
    if (steps) {
        steps->sent_command(command.name);
    }
    const auto deadline = std::chrono::steady_clock::now() + to_duration(options.timeout_seconds);
    for (;;) {
        const auto next_tick = std::chrono::steady_clock::now() + tick_interval;
        const cvex::Event event = client.wait(steps ? std::min(deadline, next_tick) : deadline);
        if (std::holds_alternative<cvex::TimedOut>(event)) {
            if (steps && std::chrono::steady_clock::now() < deadline) {
                steps->tick();
                continue;
            }
            if (steps) {
                steps->finish("", "");
            }
            sandbox::print_problem(
                app, "no reply to " + command.name +
                         " came within the time-out: look at the daemon's log or raise --timeout");
            return exit_timed_out;
        }
        if (const auto* message = std::get_if<cvex::PublishedMessage>(&event)) {
            if (steps) {
                steps->tell(*message);
            }
            continue;
        }
        const std::string& reply = std::get<cvex::Reply>(event).payload;
        const ExitCode outcome = outcome_of(reply);
        if (steps) {
            steps->finish(outcome == exit_ok ? sandbox::printable_on(STDOUT_FILENO, reply) : "",
                          cvex::read_reply(reply).reason);
            if (outcome != exit_ok) {
                sandbox::print_problem(app,
                                       describe_failure(command.name, reply, outcome, steps->last_error));
            }
        } else if (form == Form::status && outcome == exit_ok) {
            print_status(sandbox::parse_json<json>(reply));
        } else {
            sandbox::print_line(reply);
        }
        return outcome;
    }
}

/// The token as the command line tells it; a file comes before the environment.
std::optional<std::string> find_token(const CLI::App& app, const Options& options) {
    if (options.token_file.empty()) {
        if (!options.token) {
            sandbox::print_problem(app,
                                   "a token is required: --token-file, the environment variable CVEX_TOKEN "
                                   "or --token; see cvex start --help");
        }
        return options.token;
    }
    std::string token;
    std::ifstream file;
    if (options.token_file != "-") {
        file.open(options.token_file);
    }
    if (!std::getline(options.token_file == "-" ? std::cin : file, token)) {
        sandbox::print_problem(app, "no token can be read from " + options.token_file +
                                        "; --token-file names a file whose first line is the token");
        return std::nullopt;
    }
    return token;
}

int start(const CLI::App& app, const Options& options) {
    const std::optional<std::string> token = find_token(app, options);
    if (!token) {
        return sandbox::exit_usage;
    }
    json payload{{"token", *token}, {"token_type", options.token_type}};
    if (!options.mac.empty()) {
        payload["register_mac_address"] = options.mac;
    }
    const std::int32_t type = options.no_reply ? cvex::type_without_reply : cvex::type_wants_reply;
    return converse(app, options, {type, "start_cloud_registration", payload.dump()},
                    options.as_json ? Form::reply : Form::steps);
}

int retry(const CLI::App& app, const Options& options) {
    const std::int32_t type = options.no_reply ? cvex::type_without_reply : cvex::type_wants_reply;
    return converse(app, options, {type, "retry_cloud_registration", ""},
                    options.as_json ? Form::reply : Form::steps);
}

int send(const CLI::App& app, const Options& options) {
    std::string payload = options.payload;
    if (payload == "-") {
        payload.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    }
    const std::size_t begin = payload.find_first_not_of(" \t\r\n");
    if (!options.is_raw && begin != std::string::npos && (payload[begin] == '{' || payload[begin] == '[')) {
        try {
            [[maybe_unused]] const json document = json::parse(payload);
        } catch (const json::parse_error& error) {
            const std::string problem = error.what();
            // Without the library's own number of the error in front.
            sandbox::print_problem(app, "the payload is not JSON: " + problem.substr(problem.find("] ") + 2) +
                                            "; correct it or send it all the same with --raw");
            return sandbox::exit_usage;
        }
    }
    const std::int32_t type = options.no_reply ? cvex::type_without_reply : cvex::type_wants_reply;
    return converse(app, options, {type, options.name, payload}, Form::reply);
}

std::string join(const json& texts, const char* separator) {
    std::string joined;
    for (const json& text : texts) {
        joined += (joined.empty() ? "" : separator) + text.get<std::string>();
    }
    return joined;
}

std::string describe_registration(const json& registration) {
    const std::string state = registration.at("state");
    if (state == "idle") {
        return "none in progress";
    }
    const int tries = registration.at("try");
    const std::string error = registration.at("error");
    std::string text = registration.at("command");
    if (tries > 0) {
        text += ": " + registration.at("step").get<std::string>() + " try " + std::to_string(tries);
    }
    if (!error.empty()) {
        text += " failed: " + error;
    }
    text += state == "request" ? ", at work for "
            : state == "pause" ? ", in a pause for "
                               : ", perhaps over for ";
    std::array<char, 32> seconds{};
    std::snprintf(seconds.data(), seconds.size(), "%.1f s", registration.at("seconds").get<double>());
    return text + seconds.data();
}

void print_status(const json& status) {
    const auto print_row = [](const char* head, const std::string& text) {
        std::printf("%-18s %s\n", head, sandbox::printable_on(STDOUT_FILENO, text).c_str());
    };
    print_row("cvcloudd", "process " + status.at("pid").dump() + ", up for " + status.at("seconds").dump() +
                              " s, log level " + status.at("log_level").dump());
    for (const json& handler : status.at("handlers")) {
        print_row("handler", handler.at("library").get<std::string>() +
                                 (handler.at("mandatory").get<bool>() ? " (mandatory)" : "") + " takes " +
                                 join(handler.at("commands"), ", "));
    }
    print_row("registration", describe_registration(status.at("registration")));
    const json& last = status.at("last_result");
    const std::string reason = text_member(last, "reason");
    const std::string outcome = last.contains("reply")
                                    ? "the reply is \"" + text_member(last, "reply") + "\""
                                    : text_member(last, "result") + (reason.empty() ? "" : ": " + reason);
    print_row("last result", last.is_null() ? "none yet" : text_member(last, "command") + ": " + outcome);
}

int watch_status(const Options& options);

int show_status(const CLI::App& app, const Options& options) {
    if (options.watches) {
        return watch_status(options);
    }
    const cvex::Command command{cvex::type_wants_reply, cvex::status_command, ""};
    return converse(app, options, command, options.as_json ? Form::reply : Form::status);
}

/// Shows the status again whenever something is published, and every second on a terminal, until interrupted.
int watch_status(const Options& options) {
    using Clock = std::chrono::steady_clock;
    const bool is_terminal = isatty(STDOUT_FILENO) != 0;
    cvex::Client client(options.run_directory);
    std::string shown;
    for (;;) {
        client.send({cvex::type_wants_reply, cvex::status_command, ""});
        cvex::Event event;
        do {
            event = client.wait(Clock::now() + to_duration(options.timeout_seconds));
        } while (std::holds_alternative<cvex::PublishedMessage>(event));
        if (std::holds_alternative<cvex::TimedOut>(event)) {
            return exit_timed_out;
        }
        const std::string& reply = std::get<cvex::Reply>(event).payload;
        static const std::regex times(R"("seconds": [^,}]+)");
        const std::string news = std::regex_replace(reply, times, "");
        if (is_terminal && !options.as_json) {
            std::printf("\033[H\033[J");
            print_status(sandbox::parse_json<json>(reply));
        } else if (news != shown) {
            shown = news;
            options.as_json ? sandbox::print_line(reply) : print_status(sandbox::parse_json<json>(reply));
        }
        event = client.wait(Clock::now() + std::chrono::seconds(1));
    }
}

int set_log_level(const CLI::App& app, const Options& options) {
    return converse(app, options,
                    {cvex::type_wants_reply, cvex::log_level_command, std::to_string(options.log_level)},
                    Form::reply);
}

int listen(const Options& options) {
    cvex::Client client(options.run_directory);
    std::fprintf(stderr, "cvex: listening\n");
    using Clock = std::chrono::steady_clock;
    const auto end = options.listen_seconds ? Clock::now() + to_duration(*options.listen_seconds)
                                            : Clock::time_point::max();
    const std::vector<std::string>& names = options.listen_names;
    for (std::size_t count = 0;
         Clock::now() < end && (options.listen_count == 0 || count < options.listen_count);) {
        const cvex::Event event = client.wait(std::min(end, Clock::now() + std::chrono::hours(1)));
        const auto* message = std::get_if<cvex::PublishedMessage>(&event);
        if (const std::uint64_t lost = client.take_lost(); lost > 0) {
            std::fprintf(stderr, "cvex: %llu messages were lost: they came faster than they were read\n",
                         static_cast<unsigned long long>(lost));
        }
        if (message == nullptr || message->name == cvex::subscribed_message ||
            (!names.empty() && std::find(names.begin(), names.end(), message->name) == names.end())) {
            continue;
        }
        ++count;
        if (options.as_json) {
            const json line{{"name", message->name}, {"payload", message->payload}};
            sandbox::print_line(sandbox::json_line(line));
        } else {
            std::puts(sandbox::printable_on(STDOUT_FILENO, message->name + " " + message->payload).c_str());
        }
    }
    return exit_ok;
}

int examine(const Options& options) {
    const auto timeout =
        std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(options.timeout_seconds));
    return cvex::examine(options.run_directory, timeout) ? exit_ok : exit_failed;
}

int explain_file(const CLI::App& app, const Options& options) {
    std::ifstream file;
    if (options.record_file != "-") {
        file.open(options.record_file);
        if (!file || file.peek() == std::ifstream::traits_type::eof()) {
            sandbox::print_problem(app, options.record_file + " cannot be read, or is empty");
            return sandbox::exit_usage;
        }
    }
    std::istream& input = options.record_file == "-" ? std::cin : file;
    if (options.masks_tokens) {
        cvex::mask_tokens(input, std::cout);
    } else {
        cvex::explain(input, std::cout);
    }
    return exit_ok;
}

int draw_timeline(const CLI::App& app, const Options& options) {
    try {
        const cvex::Timeline timeline = cvex::make_timeline(cvex::read_record(options.record_file));
        if (options.page_file.empty()) {
            const bool utf8 = sandbox::has_utf8_locale();
            std::fputs(cvex::timeline_text(timeline, utf8, options.with_log).c_str(), stdout);
            return exit_ok;
        }
        std::ofstream page(options.page_file);
        page << cvex::timeline_page(timeline);
        page.close();
        if (page) {
            return exit_ok;
        }
        sandbox::print_problem(app, "cannot write the page " + options.page_file +
                                        "; --html names a file that this user may write");
    } catch (const cvex::RecordError& error) {
        sandbox::print_problem(app, error.what());
    }
    return sandbox::exit_usage;
}

const CLI::Validator a_day_at_most = CLI::Range(0.0, 86400.0).description("");

void add_timeout(CLI::App& command, Options& options) {
    command.add_option("--timeout", options.timeout_seconds, "How long to wait for the reply")
        ->check(a_day_at_most)
        ->type_name("SECONDS")
        ->capture_default_str();
}

void add_reply_options(CLI::App& command, Options& options) {
    add_timeout(command, options);
    command.add_flag("--no-reply", options.no_reply,
                     "Ask for no reply and return as soon as the command is sent");
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app(
        "The box's message exchange on the command line: sends commands to the handlers that cvcloudd has "
        "loaded and shows what comes back.",
        "cvex");
    app.footer(footer);
    app.require_subcommand(1);
    app.fallthrough();
    CLI::Option* const run_directory =
        app.add_option("--run-dir", options.run_directory, "Run directory of the daemon")
            ->type_name("DIRECTORY")
            ->envname("CVEX_RUN_DIR")
            ->required();

    CLI::App* start_command = app.add_subcommand("start", "Register the box: send start_cloud_registration");
    start_command
        ->add_option("--token", options.token,
                     "Token of the user who registers the box; the list of processes shows it")
        ->type_name("TOKEN")
        ->envname("CVEX_TOKEN");
    start_command
        ->add_option("--token-file", options.token_file,
                     "Read the token from the first line of this file, or of the standard input for -")
        ->type_name("FILE");
    start_command->add_option("--token-type", options.token_type, "Kind of the token")
        ->check(CLI::IsMember({"partner", "temporary"}).description(""))
        ->type_name("partner|temporary")
        ->capture_default_str();
    start_command
        ->add_option("--mac", options.mac, "MAC address to register [default: that of the box's interface]")
        ->type_name("MAC");
    start_command->add_flag("--json", options.as_json, "Print the reply only, as it came");
    add_reply_options(*start_command, options);

    CLI::App* retry_command =
        app.add_subcommand("retry", "Resume a failed registration: send retry_cloud_registration");
    retry_command->add_flag("--json", options.as_json, "Print the reply only, as it came");
    add_reply_options(*retry_command, options);

    CLI::App* listen_command = app.add_subcommand("listen", "Print every published message");
    listen_command
        ->add_option("--timeout", options.listen_seconds, "How long to listen [default: until interrupted]")
        ->check(a_day_at_most)
        ->type_name("SECONDS");
    listen_command->add_option("name", options.listen_names, "Names of messages to print [default: all]")
        ->type_name("");
    listen_command
        ->add_option("--count", options.listen_count, "End after so many messages [default: no end]")
        ->check(CLI::PositiveNumber.description(""))
        ->type_name("COUNT");
    listen_command->add_flag("--json", options.as_json,
                             "Print each message as one line {\"name\": ..., \"payload\": ...}");

    CLI::App* send_command = app.add_subcommand("send", "Send any command and print the reply as it came");
    send_command->add_option("name", options.name, "Name of the command")->type_name("")->required();
    send_command
        ->add_option(
            "payload", options.payload,
            "Payload, sent as it is; - reads it from the standard input. One that begins with { or [ is "
            "held to be JSON [default: none]")
        ->type_name("");
    send_command->add_flag("--raw", options.is_raw, "Send the payload even if it is no JSON");
    send_command->add_flag("--json", options.as_json, "Print the reply only, as it came; so it does anyway");
    add_reply_options(*send_command, options);

    CLI::App* status_command =
        app.add_subcommand("status", "Show the daemon's handlers and what it is doing");
    status_command->add_flag(
        "--json", options.as_json,
        "Print one object: pid, seconds (since its start), log_level, handlers (library, "
        "mandatory, commands), registration (state idle, request, pause or unknown; "
        "command, step, try, error, seconds), last_result (command, result, reason; or command, reply when "
        "that has no result)");
    status_command->add_flag("--watch", options.watches,
                             "Show it again when something happens, until interrupted");
    add_timeout(*status_command, options);

    CLI::App* log_level_command =
        app.add_subcommand("log-level", "Choose how much the running daemon logs and print its reply");
    log_level_command
        ->add_option("level", options.log_level, "0 errors, 1 warnings, 2 information, 3 details")
        ->check(CLI::Range(0, 3).description(""))
        ->type_name("")
        ->required();
    log_level_command->add_flag("--json", options.as_json,
                                "Print the reply only, as it came; so it does anyway");
    add_timeout(*log_level_command, options);

    CLI::App* timeline_command = app.add_subcommand(
        "timeline", "Draw a record of a run, as cvcloudd --record keeps it; no daemon is needed");
    timeline_command
        ->add_option("record", options.record_file,
                     "File of the record, a JSON object a line, which a program reads as it is")
        ->type_name("")
        ->required();
    timeline_command
        ->add_option("--html", options.page_file,
                     "Write one HTML page to this file, which is replaced [default: text on the terminal]")
        ->type_name("FILE");
    timeline_command->add_flag("--log", options.with_log,
                               "Show the log's lines too; the page always has them");
    timeline_command->preparse_callback([run_directory](std::size_t) { run_directory->required(false); });

    CLI::App* explain_command = app.add_subcommand(
        "explain", "Say what a log or a record of the daemon means and what to do; no daemon is needed");
    explain_command
        ->add_option("file", options.record_file, "File of the log or record; - reads the standard input")
        ->type_name("")
        ->required();
    explain_command->add_flag("--mask", options.masks_tokens,
                              "Print the file with *** in place of its tokens instead, to be sent to others");
    explain_command->preparse_callback([run_directory](std::size_t) { run_directory->required(false); });

    CLI::App* doctor_command = app.add_subcommand(
        "doctor",
        "Look at what a registration needs and say what to do where something is missing: run directory, "
        "daemon, handler, cloud, interface, clock");
    add_timeout(*doctor_command, options);

    const cvex::SettingsCommand settings_command(app, options.run_directory);
    settings_command.command->preparse_callback(
        [run_directory](std::size_t) { run_directory->required(false); });

    if (const auto exit_code = sandbox::read_command_line(app, argc, argv)) {
        return *exit_code;
    }
    // Steps are shown as they happen, also to a reader behind a pipe.
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    try {
        // The connection to the daemon takes 16.
        sandbox::prepare_process(32);
        if (start_command->parsed()) {
            return start(app, options);
        }
        if (retry_command->parsed()) {
            return retry(app, options);
        }
        if (listen_command->parsed()) {
            return listen(options);
        }
        if (settings_command.command->parsed()) {
            return settings_command.run(app);
        }
        if (status_command->parsed()) {
            return show_status(app, options);
        }
        if (log_level_command->parsed()) {
            return set_log_level(app, options);
        }
        if (timeline_command->parsed()) {
            return draw_timeline(app, options);
        }
        if (doctor_command->parsed()) {
            return examine(options);
        }
        if (explain_command->parsed()) {
            return explain_file(app, options);
        }
        return send(app, options);
    } catch (const cvex::NoDaemon& error) {
        sandbox::print_problem(app, error.what());
        return exit_no_daemon;
    } catch (const std::exception& error) {
        sandbox::print_problem(app, error.what());
        return exit_failed;
    }
}
