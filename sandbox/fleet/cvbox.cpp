// Boxes that register once, each a process of its own that loads the handler library as cvcloudd does.
//
// They are forked from this process before it has any thread, so that they share what is the same for all.
// What happens is told on the standard output, a line in one write each, times in seconds since the epoch:
//
//     ready COUNT KIB                     every box has its handler initialised; memory of all of them
//     start TIME                          the instant that the spread of the starts counts from
//     try BOX METHOD BEGIN END STATUS     a request and the status of its response
//     end BOX TIME registered DEVICE      the device id as the cloud gave it
//     end BOX TIME failed
//     died BOX                            a box ended in another way

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <fstream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <jansson.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/cloud_access.h"
#include "common/command_line.h"
#include "common/handler_library.h"
#include "cvutils/log.h"
#include "cvutils_control.h"

namespace {

struct Options {
    Options() {
        cloud.partner_id = "desk-partner";
    }

    long first = 0;
    long count = 1;
    sandbox::CloudAccessOptions cloud;
    std::string token = "desk-partner-token";
    std::string handler;
    std::string settings_file;
    double spread = 0;
    double start_at = 0;
};

constexpr std::int32_t request_with_reply = 2;

struct Pipe {
    Pipe() {
        if (pipe2(ends, O_CLOEXEC) != 0) {
            throw std::runtime_error(std::string("cannot make a pipe: ") + std::strerror(errno));
        }
    }
    int ends[2];
};

double seconds_now() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void wait_until(double seconds) {
    timespec instant{};
    instant.tv_sec = static_cast<std::time_t>(seconds);
    instant.tv_nsec = static_cast<long>((seconds - static_cast<double>(instant.tv_sec)) * 1e9);
    while (clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &instant, nullptr) == EINTR) {
    }
}

/// Where in the spread a box starts, 0 to 1: any run of boxes is spread evenly, whatever the fleet's size is.
double place_in_spread(long box) {
    constexpr double golden_ratio = 0.6180339887498949;
    const double place = static_cast<double>(box) * golden_ratio;
    return place - static_cast<double>(static_cast<long>(place));
}

std::string start_payload(const Options& options, long box) {
    char mac[18];
    std::snprintf(mac, sizeof mac, "02:00:%02lX:%02lX:%02lX:%02lX", box >> 24U & 0xff, box >> 16U & 0xff,
                  box >> 8U & 0xff, box & 0xff);
    const std::unique_ptr<json_t, void (*)(json_t*)> payload(
        json_pack("{s:s, s:s, s:s}", "token", options.token.c_str(), "token_type", "partner",
                  "register_mac_address", mac),
        &json_decref);
    const std::unique_ptr<char, void (*)(void*)> text(json_dumps(payload.get(), 0), &free);
    return text.get();
}

void print_end(long box, const std::string& reply) {
    const double now = seconds_now();
    const std::unique_ptr<json_t, void (*)(json_t*)> document(
        json_loadb(reply.data(), reply.size(), 0, nullptr), &json_decref);
    const char* const device_id = json_string_value(json_object_get(document.get(), "device_id"));
    // By its beginning: the reason of a failure may make any document of a reply.
    if (reply.rfind(R"({"result": "ok", )", 0) == 0 && device_id != nullptr) {
        dprintf(STDOUT_FILENO, "end %ld %.6f registered %s\n", box, now, device_id);
    } else {
        dprintf(STDOUT_FILENO, "end %ld %.6f failed\n", box, now);
    }
}

/// The cloud access object of a box that registers once and has no message exchange: it prints each request,
/// keeps the reply, and does without a thread of its own.
class BoxCloud final : public sandbox::CloudAccess {
public:
    BoxCloud(sandbox::CloudAccessOptions access_options, long box_number)
        : CloudAccess(std::move(access_options)), box(box_number) {}
    ~BoxCloud() {
        shut_down();
    }
    BoxCloud(const BoxCloud&) = delete;
    BoxCloud& operator=(const BoxCloud&) = delete;

    /// Carries out the requests of the box's one command and returns the reply.
    std::string serve_until_reply() {
        serve();
        return reply;
    }

    int publish_message(const char* /*name*/, const void* /*data*/, unsigned int /*length*/) override {
        return 0;
    }

    int send_response(const Message* message) override {
        reply.assign(message->payload, message->payload_len);
        stop();
        return 0;
    }

private:
    // The handler has one request under way at a time.
    void request_sent(const sandbox::CloudRequest& /*request*/) override {
        sent = seconds_now();
    }

    void request_ended(const sandbox::CloudRequest& request) override {
        dprintf(STDOUT_FILENO, "try %ld %s %.6f %.6f %u\n", box, request.method.c_str(), sent, seconds_now(),
                request.status);
    }

    const long box;
    double sent = 0;
    std::string reply;
};

/// The life of one box, in a process of its own.
int run_box(const Options& options, long box, const Pipe& ready, const Pipe& go) {
    BoxCloud cloud(options.cloud, box);
    sandbox::HandlerLibrary handler(options.handler);
    std::vector<std::string> commands;
    if (!handler.init(cloud, commands)) {
        return 1;
    }
    double start = 0;
    if (write(ready.ends[1], "r", 1) != 1 || close(ready.ends[1]) != 0 ||
        read(go.ends[0], &start, sizeof start) != static_cast<ssize_t>(sizeof start)) {
        return 1;
    }
    wait_until(start + options.spread * place_in_spread(box));

    const std::string payload = start_payload(options, box);
    Message message{};
    message.type = request_with_reply;
    std::strcpy(message.name, "start_cloud_registration");
    message.request_id = static_cast<std::uint64_t>(box) + 1;
    message.payload_len = static_cast<std::uint32_t>(payload.size());
    message.payload = payload.data();
    handler.handle(message);
    // Its callbacks are called by this thread: none is in the handler when it goes.
    print_end(box, cloud.serve_until_reply());
    return 0;
}

/// Forks all boxes. In a box it does not return.
std::map<pid_t, long> fork_boxes(const Options& options, const Pipe& ready, const Pipe& go) {
    const pid_t launcher = getpid();
    std::map<pid_t, long> boxes;
    for (long box = options.first; box < options.first + options.count; ++box) {
        const pid_t process = fork();
        if (process == -1) {
            throw std::runtime_error("cannot start more than " + std::to_string(boxes.size()) + " of " +
                                     std::to_string(options.count) + " boxes: " + std::strerror(errno) +
                                     "; start fewer, or raise the limit on processes");
        }
        if (process == 0) {
            // No box outlives this process, however it ends.
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != launcher) {
                _exit(1);
            }
            close(ready.ends[0]);
            close(go.ends[1]);
            int code = 1;
            try {
                code = run_box(options, box, ready, go);
            } catch (const std::exception& error) {
                dprintf(STDERR_FILENO, "cvbox: box %ld: %s\n", box, error.what());
            }
            _exit(code);
        }
        boxes.emplace(process, box);
    }
    return boxes;
}

void await_ready(const Options& options, const Pipe& ready) {
    long count = 0;
    char bytes[4096];
    for (ssize_t length = 0; (length = read(ready.ends[0], bytes, sizeof bytes)) > 0;) {
        count += length;
    }
    if (count != options.count) {
        throw std::runtime_error(std::to_string(options.count - count) + " of " +
                                 std::to_string(options.count) +
                                 " boxes could not start their handler; start fewer, or free memory");
    }
}

/// The memory of the processes together, each shared page counted once, in KiB.
long memory_of(const std::map<pid_t, long>& boxes) {
    long sum = 0;
    for (const auto& [process, box] : boxes) {
        std::ifstream file("/proc/" + std::to_string(process) + "/smaps_rollup");
        std::string word;
        while (file >> word && word != "Pss:") {
        }
        long size = 0;
        file >> size;
        sum += size;
    }
    return sum;
}

void rehearse(const Options& options) {
    Pipe ready;
    Pipe go;
    std::map<pid_t, long> boxes = fork_boxes(options, ready, go);
    close(ready.ends[1]);
    await_ready(options, ready);
    dprintf(STDOUT_FILENO, "ready %ld %ld\n", options.count, memory_of(boxes));

    const double now = seconds_now();
    const double start = options.start_at > now ? options.start_at : now;
    dprintf(STDOUT_FILENO, "start %.6f\n", start);
    for (long box = 0; box < options.count; ++box) {
        if (write(go.ends[1], &start, sizeof start) != static_cast<ssize_t>(sizeof start)) {
            throw std::runtime_error(std::string("cannot tell the boxes to start: ") + std::strerror(errno));
        }
    }
    while (!boxes.empty()) {
        int status = 0;
        const pid_t process = wait(&status);
        const auto box = boxes.find(process);
        if (status != 0) {
            dprintf(STDOUT_FILENO, "died %ld\n", box->second);
        }
        boxes.erase(box);
    }
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app(
        "Boxes that register once, each a process of its own with the real handler library. A part of "
        "cvfleet, which reads what they print.",
        "cvbox");
    app.add_option("--first", options.first, "Number of the first box; its MAC address comes of it")
        ->check(CLI::Range(0L, 0xffffffffL).description(""))
        ->type_name("NUMBER")
        ->capture_default_str();
    app.add_option("--count", options.count, "How many boxes")
        ->check(CLI::PositiveNumber.description(""))
        ->type_name("COUNT")
        ->capture_default_str();
    app.add_option("--cloud-url", options.cloud.url, "The cloud, http://HOST:PORT")
        ->type_name("URL")
        ->required();
    app.add_option("--partner-id", options.cloud.partner_id, "The partner of the boxes")
        ->type_name("ID")
        ->capture_default_str();
    app.add_option("--token", options.token, "The partner token that they register with")
        ->type_name("TOKEN")
        ->capture_default_str();
    app.add_option("--handler", options.handler, "The handler library")->type_name("FILE")->required();
    app.add_option("--settings", options.settings_file, "The settings store of the boxes")
        ->type_name("FILE")
        ->required();
    app.add_option("--spread", options.spread, "Seconds over which the starts are spread evenly")
        ->check(CLI::NonNegativeNumber.description(""))
        ->type_name("SECONDS")
        ->capture_default_str();
    app.add_option("--start-at", options.start_at,
                   "When the first box starts, seconds since the epoch [default: when all are ready]")
        ->type_name("TIME");
    if (const auto exit_code = sandbox::read_command_line(app, argc, argv)) {
        return *exit_code;
    }
    // The failures of thousands of boxes are counted, not read.
    cv::log::current_level = -1;
    try {
        if (const std::string problem = cv::setMgmt::use_settings_file(options.settings_file);
            !problem.empty()) {
            throw std::runtime_error(problem);
        }
        // A library that cannot be loaded is told once, not by every box.
        std::make_unique<sandbox::HandlerLibrary>(options.handler).reset();
        curl_global_init(CURL_GLOBAL_DEFAULT);
        rehearse(options);
        return 0;
    } catch (const std::exception& error) {
        sandbox::print_problem(app, error.what());
        return 1;
    }
}
