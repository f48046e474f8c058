#include "lean_host.h"

#include <dirent.h>
#include <dlfcn.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/select.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

#include "cvutils/log.h"

thread_local bool in_host = true;

namespace {

std::atomic<Event*> select_resumes{nullptr};

/// This thread is in the module for as long as this object lives.
class InModule {
public:
    InModule() {
        in_host = false;
    }
    ~InModule() {
        in_host = true;
    }
    InModule(const InModule&) = delete;
    InModule& operator=(const InModule&) = delete;
};

} // namespace

Event::Event() : descriptor(eventfd(0, EFD_SEMAPHORE | EFD_CLOEXEC)) {}

Event::~Event() {
    close(descriptor);
}

void Event::signal() const {
    const std::uint64_t one = 1;
    if (write(descriptor, &one, sizeof one) != sizeof one) {
        die("an event cannot be signalled");
    }
}

void Event::wait() const {
    std::uint64_t one = 0;
    if (read(descriptor, &one, sizeof one) != sizeof one) {
        die("an event cannot be waited for");
    }
}

Event& worker_idle() {
    static Event event;
    return event;
}

void hold_worker_in_select(Event* resume) {
    select_resumes = resume;
}

int select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout) {
    static const auto next = reinterpret_cast<decltype(&select)>(dlsym(RTLD_NEXT, "select"));
    in_host = false; // A worker comes here before all else.
    static thread_local bool woken = true;
    if (woken) {
        // Taken before the signal: what is asked for after it is meant for the next time.
        const Event* const resume = select_resumes.exchange(nullptr);
        worker_idle().signal();
        if (resume != nullptr) {
            resume->wait();
        }
    }
    const int result = next(count, readable, writable, exceptional, timeout);
    woken = result > 0;
    return result;
}

unsigned int sleep(unsigned int /*seconds*/) {
    return 0;
}

Exchange::Exchange(const std::string& token_type, std::size_t token_length, std::size_t user_token_length)
    : payload(R"({"token": ")" + std::string(token_length, 't') + R"(", "token_type": ")" + token_type +
              R"(", "register_mac_address": "0a:1b:2c:3d:4e:5f"})"),
      login_answer(R"({"jsonrpc": "2.0", "id": 1, "result": {"user_token": ")" +
                   std::string(user_token_length, 'u') + R"("}})"),
      box_answer(R"({"jsonrpc": "2.0", "id": 2, "result": {"device_id": "box-0123456789abcdef"}})") {}

LeanHost::LeanHost() {
    partner_id = "the partner's identifier";
    cv::log::current_level = 0;
}

int LeanHost::send_request(const char* /*request*/, const char* /*service*/,
                           cvtessel_callback request_callback, void* request_user_data) {
    arrival = nanoseconds();
    callback = request_callback;
    user_data = request_user_data;
    if (held != nullptr) {
        held->signal();
        resume->wait();
    }
    return refuses ? 1 : 0;
}

void LeanHost::release_response(cvtessel_response* /*response*/) {}

char* LeanHost::build_request(const char* /*method*/, const char* params, unsigned int params_len,
                              bool /*add_connect_fields*/) {
    in_host = true; // The text is the host's gift.
    auto* const request = static_cast<char*>(std::malloc(params_len + 1U));
    in_host = false;
    std::memcpy(request, params, params_len);
    request[params_len] = '\0';
    return request;
}

int LeanHost::publish_message(const char* /*name*/, const void* /*data*/, unsigned int /*length*/) {
    arrival = nanoseconds();
    ++published;
    return 0;
}

int LeanHost::daemon_operation() {
    die("a handler called the daemon's own operation");
}

int LeanHost::send_response(const Message* /*reply*/) {
    ++replies;
    return 0;
}

void LeanHost::init(CvHandlerAPI& handler) {
    std::vector<std::string> commands;
    const InModule module;
    if (handler.init(this, commands) == 0) {
        die("a handler is not ready");
    }
    worker_idle().wait();
}

void LeanHost::command(CvHandlerAPI& handler, const char* name, const std::string& payload) {
    Message message = {};
    message.type = 2;
    std::strncpy(message.name, name, sizeof message.name - 1);
    message.request_id = ++request_id;
    message.payload_len = static_cast<std::uint32_t>(payload.length());
    message.payload = payload.data();
    const InModule module;
    handler.handle(&message);
}

void LeanHost::answer(const std::string& body) {
    cvtessel_response response = {};
    response.body = const_cast<char*>(body.data());
    response.body_length = static_cast<std::uint32_t>(body.length());
    const cvtessel_callback answered = callback;
    if (answered == nullptr) {
        die("there is no request to answer");
    }
    callback = nullptr;
    const InModule module;
    answered(&response, user_data);
}

void LeanHost::register_box(CvHandlerAPI& handler, const Exchange& exchange) {
    const int published_before = published;
    command(handler, "start_cloud_registration", exchange.payload);
    worker_idle().wait();
    answer(exchange.login_answer);
    worker_idle().wait();
    answer(exchange.box_answer);
    worker_idle().wait();
    if (published != published_before + 1) {
        die("a registration did not succeed");
    }
    expect_replies(1);
}

void LeanHost::expect_replies(int expected) {
    if (replies != expected) {
        die("there should be " + std::to_string(expected) + " replies, not " + std::to_string(replies));
    }
    replies = 0;
}

CvHandlerAPI& load_handler(const char* path) {
    void* const library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    void* const entry = library != nullptr ? dlsym(library, "get_handler_api") : nullptr;
    if (entry == nullptr) {
        die(dlerror());
    }
    return *reinterpret_cast<CvHandlerAPI* (*)()>(entry)();
}

std::int64_t nanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

void stay_on_one_processor() {
    cpu_set_t processors;
    if (sched_getaffinity(0, sizeof processors, &processors) == 0) {
        for (int processor = CPU_SETSIZE - 1; processor >= 0; --processor) {
            if (CPU_ISSET(processor, &processors)) {
                CPU_ZERO(&processors);
                CPU_SET(processor, &processors);
                break;
            }
        }
        if (sched_setaffinity(0, sizeof processors, &processors) == 0) {
            return;
        }
    }
    die("the process cannot be kept on one processor");
}

std::set<int> thread_ids() {
    std::set<int> found;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir("/proc/self/task"), closedir);
    while (const dirent* const entry = readdir(directory.get())) {
        if (entry->d_name[0] != '.') {
            found.insert(std::atoi(entry->d_name));
        }
    }
    return found;
}

long number_in(const std::string& file, const std::string& label) {
    std::ifstream stream(file);
    const std::string text((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
    const std::size_t at = text.find(label);
    if (at == std::string::npos) {
        die(file + " has no '" + label + "'");
    }
    return std::strtol(text.c_str() + at + label.length(), nullptr, 10);
}

long positive_number(const char* argument) {
    char* end = nullptr;
    const long number = std::strtol(argument, &end, 10);
    if (*end != '\0' || number <= 0) {
        die(std::string("'") + argument + "' is not a number above 0");
    }
    return number;
}

void print_result(json_t* result) {
    json_dumpf(result, stdout, JSON_REAL_PRECISION(12));
    std::fputc('\n', stdout);
    json_decref(result);
}

void die(const std::string& message) {
    std::fprintf(stderr, "bench: %s\n", message.c_str());
    std::_Exit(1);
}
