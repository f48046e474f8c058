#include "cvex/doctor.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <variant>

#include <netdb.h>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/json_text.h"
#include "common/printable.h"
#include "cvex/client.h"
#include "cvutils/settings_file.h"

namespace cvex {

namespace {

using nlohmann::ordered_json;
using sandbox::text_member;

/// What is wrong, and what to do; or only what was found.
struct Finding {
    bool is_good;
    std::string text;
};

std::string owner_of(uid_t user) {
    const passwd* const entry = getpwuid(user);
    return entry != nullptr ? entry->pw_name : "user " + std::to_string(user);
}

Finding examine_directory(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        return {false, path + ": " + std::strerror(errno) + "; correct --run-dir, or start cvcloudd there"};
    }
    std::string text = path + " of " + owner_of(status.st_uid);
    if (status.st_uid != geteuid() && status.st_uid != 0) {
        return {false, text + "; run cvex as that user"};
    }
    return (status.st_mode & S_IWOTH) != 0
               ? Finding{false, text + " can be written by everybody: chmod 700 it"}
               : Finding{true, text};
}

/// The daemon's answer to the status command; nothing with the reason in `problem`.
std::optional<ordered_json> ask_daemon(const std::string& run_directory, std::chrono::milliseconds timeout,
                                       std::string& problem) {
    try {
        Client client(run_directory);
        client.send({type_wants_reply, status_command, ""});
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        for (;;) {
            const Event event = client.wait(deadline);
            if (const auto* reply = std::get_if<Reply>(&event)) {
                return sandbox::parse_json(reply->payload);
            }
            if (std::holds_alternative<TimedOut>(event)) {
                problem = "it does not answer: look at its log, restart it";
                return std::nullopt;
            }
        }
    } catch (const std::exception& error) {
        problem = error.what();
        return std::nullopt;
    }
}

/// The version that a library carries in its package metadata note; empty when it has none.
std::string version_of(const std::string& library) {
    std::ifstream file(library, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    const std::size_t begin = bytes.find(R"({"type":)");
    const std::size_t end = bytes.find('}', std::min(begin, bytes.size()));
    return end == std::string::npos
               ? ""
               : text_member(sandbox::parse_json(bytes.substr(begin, end + 1 - begin)), "version");
}

Finding examine_handlers(const ordered_json& status) {
    for (const ordered_json& handler : status.at("handlers")) {
        for (const ordered_json& command : handler.at("commands")) {
            if (command == "start_cloud_registration") {
                const std::string library = handler.at("library");
                const std::string version = version_of(library);
                return {true, library + (version.empty() ? ", of unknown version" : ", version " + version)};
            }
        }
    }
    return {false, "no handler takes start_cloud_registration; start cvcloudd with --handler "
                   "libcvcloudregisterhandler.so"};
}

/// Connects to the host and port of a URL and sends nothing.
Finding examine_cloud(const std::string& url, std::chrono::milliseconds timeout) {
    const std::size_t scheme_end = url.find("://");
    const std::string authority = url.substr(scheme_end == std::string::npos ? 0 : scheme_end + 3);
    const std::string address = authority.substr(0, authority.find('/'));
    const std::size_t colon = address.rfind(':');
    const bool has_port = colon != std::string::npos && address.find(']', colon) == std::string::npos;
    std::string host = address.substr(0, has_port ? colon : std::string::npos);
    if (host.size() > 2 && host.front() == '[') {
        host = host.substr(1, host.size() - 2);
    }
    const std::string port = has_port ? address.substr(colon + 1) : url.rfind("https", 0) == 0 ? "443" : "80";

    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (const int error = getaddrinfo(host.c_str(), port.c_str(), &hints, &found); error != 0) {
        return {false, url + ": " + gai_strerror(error) + "; correct --cloud-url, or look at the box's DNS"};
    }
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> addresses(found, freeaddrinfo);
    const int descriptor = socket(found->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    int error = connect(descriptor, found->ai_addr, found->ai_addrlen) == 0 ? 0 : errno;
    if (error == EINPROGRESS) {
        pollfd connected{descriptor, POLLOUT, 0};
        socklen_t size = sizeof error;
        if (poll(&connected, 1, static_cast<int>(timeout.count())) == 0) {
            error = ETIMEDOUT;
        } else {
            getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size);
        }
    }
    close(descriptor);
    return error == 0 ? Finding{true, url + " accepts connections"}
                      : Finding{false, url + ": " + std::strerror(error) +
                                           "; is the cloud up, and the box's network? correct --cloud-url"};
}

/// Certificates of an https cloud are valid only when the clock is about right: not before this release.
Finding examine_clock() {
    std::array<char, 32> now{};
    const std::time_t time = std::time(nullptr);
    tm date{};
    std::strftime(now.data(), now.size(), "%Y-%m-%d %H:%M:%S UTC", gmtime_r(&time, &date));
    return now.data() >= std::string(CV_RELEASE_DATE)
               ? Finding{true, now.data()}
               : Finding{false, std::string(now.data()) + " is before this release: set it with date or NTP"};
}

Finding examine_interface(const std::string& settings_file) {
    std::string name = "eth2";
    std::string simulated;
    try {
        if (!settings_file.empty()) {
            const settings::File store(settings_file);
            if (const char* const set =
                    json_string_value(store.value("/daemons/cvcloudd/registration/register_interface"))) {
                name = set;
            }
            if (const char* const mac =
                    json_string_value(store.value("/network/interfaces/" + name + "/mac"))) {
                simulated = mac;
            }
        }
    } catch (const settings::FileError& error) {
        return {false, std::string(error.what()) + "; correct the file"};
    }
    std::string address;
    std::getline(std::ifstream("/sys/class/net/" + name + "/address"), address);
    if (!simulated.empty()) {
        return {true, name + " is simulated with " + simulated};
    }
    return address.empty()
               ? Finding{false, "there is no " + name +
                                    "; choose another with cvex settings set register_interface NAME, or "
                                    "name an address with cvex start --mac"}
               : Finding{true, name + " has " + address};
}

bool print(const char* head, const Finding& finding) {
    const bool utf8 = sandbox::has_utf8_locale();
    std::printf("%s %-13s %s\n", finding.is_good ? (utf8 ? "✔" : "+") : (utf8 ? "✘" : "x"), head,
                sandbox::printable_on(STDOUT_FILENO, finding.text).c_str());
    return finding.is_good;
}

} // namespace

bool examine(const std::string& run_directory, std::chrono::milliseconds timeout) {
    bool is_good = print("run directory", examine_directory(run_directory));
    std::string problem;
    if (const auto status = ask_daemon(run_directory, timeout, problem)) {
        is_good &= print("daemon", {true, "version " + text_member(*status, "version") + ", process " +
                                              status->at("pid").dump()});
        is_good &= print("handler", examine_handlers(*status));
        is_good &= print("cloud", examine_cloud(text_member(*status, "cloud"), timeout));
        is_good &= print("interface", examine_interface(text_member(*status, "settings")));
    } else {
        is_good = print("daemon", {false, problem});
    }
    is_good &= print("clock", examine_clock());
    return is_good;
}

} // namespace cvex
