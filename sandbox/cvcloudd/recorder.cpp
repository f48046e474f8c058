#include "cvcloudd/recorder.h"

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/json_text.h"
#include "cvcloudd/log_line.h"
#include "cvutils_control.h"

namespace cvcloudd {

namespace {

using nlohmann::ordered_json;

std::string utc_now() {
    timespec now{};
    tm date{};
    clock_gettime(CLOCK_REALTIME, &now);
    gmtime_r(&now.tv_sec, &date);
    std::array<char, 64> text{};
    const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &date);
    std::snprintf(text.data() + length, text.size() - length, ".%03ldZ", now.tv_nsec / 1000000);
    return text.data();
}

/// The calling thread's own name, or the process's, which a thread has as long as nobody names it.
std::string thread_name() {
    std::array<char, 16> name{};
    pthread_getname_np(pthread_self(), name.data(), name.size());
    return name.data();
}

std::string process_name() {
    return std::string(program_invocation_short_name).substr(0, 15);
}

ordered_json parse_object(const char* text) {
    ordered_json document = sandbox::parse_json(text);
    return document.is_object() ? document : ordered_json::object();
}

std::uint64_t request_number(const ordered_json& request) {
    const auto id = request.find("id");
    return id != request.end() && id->is_number_unsigned() ? id->get<std::uint64_t>() : 0;
}

std::string request_method(const ordered_json& request) {
    const auto method = request.find("method");
    return method != request.end() && method->is_string() ? method->get<std::string>() : std::string();
}

} // namespace

Recorder::Recorder(const std::string& path, const std::string& title)
    : file(path), dispatch_thread(std::this_thread::get_id()), start(std::chrono::steady_clock::now()) {
    if (path.empty()) {
        return;
    }
    ordered_json head{{"record", "cvcloudd 1"}, {"started", utc_now()}};
    if (!title.empty()) {
        head["title"] = title;
    }
    // Neither a link that somebody else has put there, nor a file that somebody else can read.
    descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    struct stat status {};
    const bool is_file = descriptor != -1 && fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
    if (descriptor != -1 && !is_file) {
        errno = ENODEV;
    }
    if (!is_file || fchmod(descriptor, 0600) == -1 || ftruncate(descriptor, 0) == -1 || !write_line(head)) {
        const std::string reason = std::strerror(errno);
        if (descriptor != -1) {
            close(descriptor);
        }
        throw std::runtime_error("cannot write the record " + path + ": " + reason +
                                 "; --record names a file that this user may write");
    }
    cv::log::set_listener([this](int level, const char* line) {
        write("log", {{"level", level}, {"line", line}});
    });
}

Recorder::~Recorder() {
    if (is_on()) {
        cv::log::set_listener(nullptr);
        close(descriptor);
    }
}

void Recorder::command(const Message& message) {
    write("command", {{"request_id", message.request_id},
                      {"name", message.name},
                      {"type", message.type},
                      {"payload", std::string_view(message.payload, message.payload_len)}});
}

void Recorder::build(std::uint64_t request, const char* method, std::string_view params,
                     bool connect_fields) {
    write("build",
          {{"request", request}, {"method", method}, {"params", params}, {"connect_fields", connect_fields}});
}

void Recorder::build_refused(const char* method) {
    write("refused", {{"of", "build"}, {"method", method}});
}

void Recorder::request(const char* service, const char* body) {
    if (!is_on()) {
        return;
    }
    const ordered_json request = parse_object(body);
    write("request", {{"request", request_number(request)},
                      {"service", service},
                      {"method", request_method(request)},
                      {"body", body}});
}

void Recorder::request_refused(const char* body) {
    if (!is_on()) {
        return;
    }
    const ordered_json request = parse_object(body);
    write("refused",
          {{"of", "request"}, {"request", request_number(request)}, {"method", request_method(request)}});
}

void Recorder::response(std::uint64_t request, const std::string& service, const std::string& method,
                        std::uint32_t status, const std::string& error, const std::string& body) {
    write("response", {{"request", request},
                       {"service", service},
                       {"method", method},
                       {"status", status},
                       {"error", error},
                       {"body", body}});
}

void Recorder::reply(std::uint64_t request_id, std::string_view payload) {
    write("reply", {{"request_id", request_id}, {"payload", payload}});
}

void Recorder::reply_refused(std::uint64_t request_id) {
    write("refused", {{"of", "reply"}, {"request_id", request_id}});
}

void Recorder::publish(const char* name, std::string_view payload) {
    write("publish", {{"name", name}, {"payload", payload}});
}

void Recorder::publish_refused(const char* name) {
    write("refused", {{"of", "publish"}, {"name", name}});
}

void Recorder::write(const char* event, const ordered_json& members) {
    if (!is_on()) {
        return;
    }
    std::string problem;
    {
        // The time is taken under the lock: the order of the lines is that of their times.
        const std::lock_guard lock(mutex);
        if (failed) {
            return;
        }
        const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
        const std::string name = thread_name();
        ordered_json line{{"time", std::round(time.count() * 1e6) / 1e6},
                          {"thread", std::this_thread::get_id() == dispatch_thread ? "dispatch"
                                     : name == process_name()                      ? "worker"
                                                                                   : name},
                          {"event", event}};
        line.update(members);
        if (write_line(line)) {
            return;
        }
        failed = true;
        problem = std::strerror(errno);
    }
    // Logged without the lock: the line comes back here as an event.
    log_line(0, "the record " + file + " ends here, it cannot be written: " + problem);
}

bool Recorder::write_line(const ordered_json& line) const {
    const std::string text = line.dump(-1, ' ', false, ordered_json::error_handler_t::replace) + '\n';
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = ::write(descriptor, text.data() + written, text.size() - written);
        if (count == -1 && errno != EINTR) {
            return false;
        }
        written += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    return true;
}

} // namespace cvcloudd
