#include "bench.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <thread>

#include "cvcloudregisterhandler.h"
#include "cvregistration_globals.h"
#include "cvregistration_utils.h"
#include "cvutils/log.h"
#include "fake_cvutils.h"
#include "journal.h"

namespace fuzz {

namespace {

// Without a byte behind the text, so that the address sanitizer sees who reads on. Null for no text.
std::unique_ptr<char[]> exact_copy(const std::string& text) {
    if (text.empty()) {
        return nullptr;
    }
    std::unique_ptr<char[]> copy(new char[text.length()]);
    std::memcpy(copy.get(), text.data(), text.length());
    return copy;
}

void set_setting(const char* key, const std::string& value) {
    fake_host::set_setting(std::string("/daemons/cvcloudd/registration/") + key, value);
}

void set_setting(const char* key, int value) {
    fake_host::set_setting(std::string("/daemons/cvcloudd/registration/") + key, value);
}

} // namespace

Bench*& Bench::current() {
    thread_local Bench* bench = nullptr;
    return bench;
}

Bench::Bench(const Settings& settings, int level, Host& owner) : host(owner), model(settings) {
    fake_host::reset_cvutils();
    fake_host::journal().clear();
    set_setting("retry_num", settings.retry_num);
    set_setting("retry_interval", settings.retry_interval);
    set_setting("setup_type", settings.setup_type);
    set_setting("box_name", settings.box_name);
    set_setting("device_model", settings.device_model);
    partner_id = settings.partner_id;
    interface_mac(settings.interface_mac);
    log_level(level);
    current() = this;
}

Bench::~Bench() {
    current() = nullptr;
    g_cvcloud_api = nullptr;
    // Nothing stays: the fuzzer looks for leaks when an input has left more behind than it found.
    fake_host::reset_cvutils();
    fake_host::journal().clear();
}

void Bench::live() {
    // As the handler object's init(), but for the worker's thread, whose place this one takes.
    stopping = false;
    g_cvcloud_api = this;
    g_registration_handler = new cv::registration::RegistrationHandler;
    cv::registration::init_global_settings();
    require(g_registration_handler->thread.init_pipes(), "the pipes could not be opened");
    g_registration_handler->thread.handler = g_registration_handler;
    g_registration_handler->reset();
    model.start_up();
    compare();

    cv::registration::RegistrationThread::thread_function(&g_registration_handler->thread);
    require(stopping, "the worker ended although nobody had stopped it");
    compare();
    while (!requests.empty()) {
        respond(0, 1, "");
    }
    get_handler_api()->uninit();
    require(g_registration_handler == nullptr, "the registration object is left");
}

void Bench::command(int type, const std::string& name, unsigned long long request_id,
                    const std::string& payload) {
    const std::unique_ptr<char[]> bytes = exact_copy(payload);
    Message message = {};
    message.type = type;
    name.copy(message.name, sizeof message.name - 1);
    message.request_id = request_id;
    message.payload_len = static_cast<std::uint32_t>(payload.length());
    message.payload = bytes.get();

    model.command(type, message.name, request_id, payload);
    inside_command = true;
    get_handler_api()->handle(&message);
    inside_command = false;
    compare();
}

void Bench::respond(std::size_t index, std::uint32_t status, const std::string& body, bool own_thread) {
    const Request request = requests[index];
    requests.erase(requests.begin() + static_cast<std::ptrdiff_t>(index));
    lent = std::make_unique<Response>();
    lent->body = exact_copy(body);
    lent->record = {status, 0, lent->body.get(), static_cast<std::uint32_t>(body.length())};

    model.respond(index, status, body);
    if (own_thread) {
        std::thread([&] {
            current() = this;
            request.callback(&lent->record, request.user_data);
        }).join();
    } else {
        request.callback(&lent->record, request.user_data);
    }
    require(lent == nullptr, "the response was not released");
    compare();
}

void Bench::wake_up() {
    model.wake_up();
    g_registration_handler->thread.run();
    compare();
}

void Bench::lose_next_wake_up() {
    model.lose_next_wake_up();
    wake_up_is_lost = true;
}

void Bench::stop() {
    stopping = true;
}

void Bench::log_level(int level) {
    cv::log::current_level = level;
}

void Bench::interface_mac(const std::string& mac) {
    model.settings.interface_mac = mac;
    fake_host::set_mac_address(mac.empty() ? std::nullopt : std::optional<std::string>(mac));
}

bool Bench::select() {
    require(model.worker() == Model::Worker::waiting, "the worker went to sleep too early");
    compare();
    if (host.interrupts()) {
        return false;
    }
    while (!stopping && (wake_ups() == 0 || host.worker_is_late())) {
        if (!host.act(*this)) {
            break;
        }
    }
    if (stopping || wake_ups() == 0) {
        stopping = true;
        require(write(g_registration_handler->thread.stop_pipe[1], "x", 1) == 1, "no stop byte");
    } else {
        model.run();
    }
    return true;
}

void Bench::sleep(unsigned int seconds) {
    effects.push_back("sleep " + std::to_string(static_cast<int>(seconds)));
    leave_worker(Model::Worker::pausing);
    model.pause_over();
}

bool Bench::poll() {
    const bool writable = !wake_up_is_lost;
    wake_up_is_lost = false;
    return writable;
}

int Bench::send_request(const char* request, const char* service, cvtessel_callback callback,
                        void* user_data) {
    effects.push_back(std::string("send_request ") + service + " " + request + " for " +
                      std::to_string(*static_cast<const unsigned long long*>(user_data)));
    compare();
    const bool accepted = host.accepts();
    if (accepted) {
        requests.push_back({callback, user_data});
        model.accept();
    }
    leave_worker(Model::Worker::sending);
    model.sent(accepted);
    return accepted ? 0 : -1;
}

void Bench::release_response(cvtessel_response* response) {
    require(lent != nullptr && response == &lent->record, "a response was released that is not lent");
    lent.reset(); // At once, so that the address sanitizer sees who still reads it.
    effects.push_back("release_response before wake-up " + std::to_string(wake_ups()));
}

char* Bench::build_request(const char* method, const char* params, unsigned int params_len,
                           bool add_connect_fields) {
    effects.push_back(std::string("build_request ") + method + " [" + std::string(params, params_len) + "]" +
                      (add_connect_fields ? " fields" : ""));
    leave_worker(Model::Worker::building);
    if (!host.builds()) {
        model.built(nullptr);
        return nullptr;
    }
    const std::string text = std::string(method) + "#" + std::to_string(++built_requests);
    model.built(text.c_str());
    return strdup(text.c_str());
}

int Bench::publish_message(const char* name, const void* data, unsigned int length) {
    effects.push_back(std::string("publish ") + name + " " +
                      std::string(static_cast<const char*>(data), length));
    leave_worker(Model::Worker::publishing);
    const bool accepted = host.publishes();
    model.published(accepted);
    return accepted ? 0 : 1;
}

int Bench::daemon_operation() {
    fail("the daemon's own operation was called");
}

int Bench::send_response(const Message* reply) {
    require(reply->type == 0 && std::strcmp(reply->name, "0") == 0 && reply->reserved == 0,
            "the reply's record is not filled as replies are");
    effects.push_back("reply " + std::to_string(reply->request_id) + " " +
                      std::string(reply->payload, reply->payload_len));
    if (!inside_command) {
        leave_worker(Model::Worker::replying);
        model.replied();
    }
    return -1; // Nobody acts on it.
}

void Bench::leave_worker(Model::Worker worker) {
    compare();
    require(model.worker() == worker, "the worker is in a call that is not due");
    host.act_meanwhile(*this);
}

void Bench::compare() {
    history.insert(history.end(), effects.begin(), effects.end());
    if (effects != model.effects) {
        std::string text = "the effects differ; due were:";
        for (const std::string& effect : model.effects) {
            text += "\n  " + effect;
        }
        text += "\nand there were:";
        for (const std::string& effect : effects) {
            text += "\n  " + effect;
        }
        fail(text);
    }
    effects.clear();
    model.effects.clear();
    const Snapshot there = seen();
    if (!(there == model.snapshot())) {
        fail("the registration differs; due was:\n" + describe(model.snapshot()) + "\nand there was:\n" +
             describe(there));
    }
    require(requests.size() == model.outstanding(), "the outstanding requests differ");
}

Snapshot Bench::seen() const {
    const cv::registration::RegistrationHandler& handler = *g_registration_handler;
    const auto step = [](const cv::registration::RegistrationHandler::StepProgress& progress) {
        return Snapshot::Step{progress.tries_left, progress.succeeded, progress.value};
    };
    Snapshot snapshot;
    snapshot.state = handler.state;
    snapshot.in_progress = handler.registration_in_progress;
    snapshot.login = step(handler.login_progress);
    snapshot.box = step(handler.register_progress);
    snapshot.first_method = handler.first_method;
    snapshot.token = handler.token;
    snapshot.mac = handler.mac;
    snapshot.error_response = handler.error_response;
    snapshot.request_id = handler.request_id;
    snapshot.reply_requested = handler.reply_requested;
    snapshot.user_token = user_token;
    snapshot.device_id = device_id;
    snapshot.wake_ups = wake_ups();
    return snapshot;
}

int Bench::wake_ups() const {
    int bytes = -1;
    require(ioctl(g_registration_handler->thread.run_pipe[0], FIONREAD, &bytes) == 0, "no run pipe");
    return bytes;
}

void Bench::require(bool condition, const char* what) const {
    if (!condition) {
        fail(what);
    }
}

void Bench::fail(const std::string& what) const {
    std::fprintf(stderr, "fuzz: the effects so far:\n");
    for (const std::string& effect : history) {
        std::fprintf(stderr, "  %s\n", effect.c_str());
    }
    std::fprintf(stderr, "fuzz: %s\n", what.c_str());
    std::abort();
}

} // namespace fuzz

// The linker puts these in front of the system's functions. Threads without a bench get the system's own: the
// fuzzer's threads sleep, too.
extern "C" {
unsigned int __real_sleep(unsigned int seconds);
int __real_poll(pollfd* descriptors, nfds_t count, int timeout);
int __real_select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout);

unsigned int __wrap_sleep(unsigned int seconds) {
    if (fuzz::Bench* bench = fuzz::Bench::current()) {
        bench->sleep(seconds);
        return 0;
    }
    return __real_sleep(seconds);
}

int __wrap_poll(pollfd* descriptors, nfds_t count, int timeout) {
    fuzz::Bench* bench = fuzz::Bench::current();
    if (bench != nullptr && !bench->poll()) {
        return 0;
    }
    return __real_poll(descriptors, count, timeout);
}

int __wrap_select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout) {
    fuzz::Bench* bench = fuzz::Bench::current();
    if (bench != nullptr && !bench->select()) {
        errno = EINTR;
        return -1;
    }
    return __real_select(count, readable, writable, exceptional, timeout);
}
}
