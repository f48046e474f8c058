#include "situations.h"

#include <algorithm>
#include <array>
#include <sstream>
#include <utility>

#include "cvutils_stand_in.h"
#include "journal.h"
#include "library.h"
#include "oracle.h"
#include "points.h"
#include "races.h"
#include "scheduler.h"
#include "scripted_host.h"
#include "texts.h"

namespace schedules {

namespace {

/// The daemon of one execution, with the oracle beside it: at each call that leaves the module it has to be
/// due.
class Daemon final : public kit::ScriptedHost, public Watcher {
public:
    explicit Daemon(const Situation& daemon_situation) : situation(daemon_situation), oracle(settings()) {
        partner_id = oracle.settings.partner_id;
        fail_next_publish(situation.failed_publishes);
        oracle.start_up();
        kit::store(oracle.settings);
    }

    void dispatch_commands();
    void finish();

    // ---- What the module does.

    int send_request(const char* request, const char* service, cvtessel_callback callback,
                     void* user_data) override;
    void release_response(cvtessel_response* response) override;
    char* build_request(const char* method, const char* params, unsigned int params_len,
                        bool add_connect_fields) override;
    int publish_message(const char* name, const void* data, unsigned int length) override;
    int send_response(const Message* reply) override;
    void pauses(unsigned int seconds) override;
    void wake_up_written() override;
    void wake_up_read() override;
    void worker_waits() override;
    void flag_loaded() override;
    void flag_stored() override;

private:
    kit::Settings settings() const {
        kit::Settings host_settings;
        host_settings.retry_num = situation.retries;
        host_settings.retry_interval = 1;
        return host_settings;
    }

    void deliver(const std::string& command);
    void answer_requests();
    void answer_next();
    void answer_again(cvtessel_callback callback, void* user_data);
    kit::Answer next_answer();
    void respond(const kit::Answer& answer);
    void expect(const std::string& effect, bool of_contract = false);

    bool breaks(const char* breach) const {
        return situation.name == breach;
    }

    const Situation& situation;
    kit::Oracle oracle;
    std::size_t requests = 0;
    /// What becomes of the last one; there is no other outstanding.
    char fate = 'g';
    int answers = 0;
    int commands = 0;
    /// Commands of a second thread that the daemon knows of already.
    int undelivered = 0;
    bool closed = false;
    bool in_uninit = false;
    /// Commands of which the daemon has seen the end.
    int ended = 0;
    int queued = 0;
    int callbacks = 0;
    Clock queue_clock = {};
    Clock callback_clock = {};
    /// What the oracle does with the next command of a thread, and at the end of the run, when the module
    /// comes to its flag.
    std::array<std::function<void()>, kThreads> at_load;
    std::function<void()> at_store;
};

Daemon* daemon = nullptr;

// ---- The dispatch thread

void Daemon::dispatch_commands() {
    std::vector<std::string> names;
    if (handler().init(this, names) == 0) {
        fail("init() fails");
    }
    const Clock begin = release();
    start(callback, [this, begin] {
        acquire(begin);
        answer_requests();
    });
    if (breaks("two-commands") || breaks("command-during-uninit")) {
        undelivered = breaks("two-commands") ? 1 : 0;
        start(second, [this, begin] {
            acquire(begin);
            if (breaks("command-during-uninit")) {
                point({"uninit begins", kExchange, 0, kExchange, [] { return daemon->in_uninit ? 1 : 0; }});
            }
            undelivered = 0;
            deliver("start");
        });
    }
    std::istringstream script(situation.script);
    for (std::string word; script >> word && word != "uninit";) {
        if (word == "wait") {
            point({"wait", kExchange, 0, kExchange,
                   [] { return daemon->ended >= daemon->commands + daemon->undelivered ? 1 : 0; }});
        } else {
            deliver(word);
        }
    }
    if (!breaks("callback-during-uninit")) {
        point({"close", 0, kRequests});
        closed = true;
        point({"last callback", kCallbacks, 0, kCallbacks, [] { return daemon->callbacks == 0 ? 1 : 0; }});
        acquire(callback_clock);
    }
    point({"uninit", 0, kExchange});
    in_uninit = true;
    handler().uninit();
    point({"unload", 0, kRequests});
    closed = true;
}

void Daemon::deliver(const std::string& command) {
    const auto id = static_cast<unsigned long long>(++commands);
    const int type = command == "quiet-start" ? 1 : 2;
    const bool retry = command == "retry";
    const std::string& name = retry ? kit::text::kRetryCommand : kit::text::kStartCommand;
    const std::string payload = retry ? ""
                                      : R"({"token": "T)" + std::to_string(id) + R"(", "token_type": ")" +
                                            (id % 2 == 1 ? "partner" : "temporary") + R"("})";
    point({retry ? "retry" : "start", kObject, kBusy | kExchange});
    const auto report = [&] { oracle.command(type, name, id, payload); };
    if (instrumented()) {
        at_load[running()] = report;
    } else {
        report();
    }
    kit::send_command(handler(), name, payload, type, id);
}

void Daemon::finish() {
    if (lent_responses() != 0) {
        fail("a response was not released");
    }
    for (const std::string& effect : oracle.effects) {
        if (effect.rfind("log ", 0) != 0) {
            fail("did not happen: " + effect);
        }
    }
    if (situation.script.find("wait uninit") != std::string::npos) {
        const kit::Snapshot& snapshot = oracle.snapshot();
        if (snapshot.in_progress || snapshot.user_token != user_token || snapshot.device_id != device_id) {
            fail("the end is not the oracle's: " + user_token + ", " + device_id);
        }
    }
}

// ---- The callback thread

void Daemon::answer_requests() {
    for (;;) {
        point({"next request", kObject, kRequests | kCallbacks | kBehindRequest, kRequests, [] {
                   return (daemon->breaks("never-answers") ? 0 : daemon->queued) + (daemon->closed ? 1 : 0);
               }});
        if (closed) {
            return;
        }
        acquire(queue_clock);
        --queued;
        ++callbacks;
        answer_next();
        point({"callback returns", 0, kCallbacks});
        --callbacks;
        callback_clock = release();
    }
}

void Daemon::answer_next() {
    const kit::OutstandingRequest request = outstanding().front();
    const kit::Answer next = next_answer();
    respond(next);
    answer(next);
    if (breaks("calls-twice")) {
        answer_again(request.callback, request.user_data);
    } else if (breaks("calls-often")) {
        for (int times = 0; times < 3; ++times) {
            answer_again(request.callback, new unsigned long long(0));
        }
    } else if (breaks("calls-after-end") || breaks("calls-after-next-start")) {
        if (oracle.outstanding() == 0 && answers == 2) {
            // The registration ends with the second answer.
            point({"the end", kExchange, 0, kExchange, [] {
                       const int late = daemon->breaks("calls-after-next-start") ? 2 : 1;
                       return daemon->ended >= 1 && daemon->commands >= late ? 1 : 0;
                   }});
            answer_again(request.callback, new unsigned long long(0));
        }
    }
}

// As the base class answers, but for a request that is not outstanding.
void Daemon::answer_again(cvtessel_callback callback_function, void* user_data) {
    ScriptedHost::send_request("again", "again", callback_function, user_data);
    answer(next_answer());
}

kit::Answer Daemon::next_answer() {
    const std::string number = std::to_string(++answers);
    return fate == 'b' ? kit::Answer{R"({"error": {"message": "no )" + number + R"("}})"}
                       : kit::Answer{R"({"result": {"user_token": "U)" + number + R"(", "device_id": "D)" +
                                     number + R"("}})"};
}

void Daemon::respond(const kit::Answer& next) {
    if (oracle.outstanding() == 0) {
        return; // For a host that breaks its contract there is no rule.
    }
    oracle.respond(0, next.status, next.body);
}

void Daemon::release_response(cvtessel_response* response) {
    point({"release_response", kObject, 0});
    expect("release_response", true);
    ScriptedHost::release_response(response);
}

// ---- The worker

// `of_contract`: a daemon that breaks its contract makes the module do it more often, which is not the
// failure to show.
void Daemon::expect(const std::string& effect, bool of_contract) {
    std::vector<std::string>& due = oracle.effects;
    due.erase(std::remove_if(due.begin(), due.end(),
                             [](const std::string& text) { return text.rfind("log ", 0) == 0; }),
              due.end());
    const auto found = std::find(due.begin(), due.end(), effect);
    if (found != due.end()) {
        due.erase(found);
    } else if (!of_contract || !situation.breaks_contract()) {
        std::string text = "not due: " + effect;
        for (const std::string& other : due) {
            text += "; due: " + other;
        }
        fail(text);
    }
}

char* Daemon::build_request(const char* method, const char* params, unsigned int params_len,
                            bool add_connect_fields) {
    point({"build_request", kObject, 0});
    for (const std::string* field : {&user_token, &device_id}) {
        access(field, sizeof *field, false, nullptr);
        access(field->data(), field->length(), false, nullptr);
    }
    expect(std::string("build_request ") + method + " " +
           (params_len == 0 ? "(none)" : std::string(params, params_len)) +
           (add_connect_fields ? " fields=yes user_token=" + user_token + " device_id=" + device_id
                               : " fields=no"));
    char* const request = ScriptedHost::build_request(method, params, params_len, add_connect_fields);
    oracle.built(request != nullptr);
    return request;
}

int Daemon::send_request(const char* request, const char* service, cvtessel_callback callback_function,
                         void* user_data) {
    point({"send_request", kObject, kRequests});
    expect(std::string("send_request ") + service);
    if (*static_cast<const unsigned long long*>(user_data) != oracle.snapshot().request_id) {
        fail("a request of another command");
    }
    fate = situation.requests[std::min(requests++, situation.requests.length() - 1)];
    if (fate == 'n') {
        refuse_next_send();
    } else {
        oracle.accept();
    }
    if (fate == 'i') {
        const kit::Answer next = next_answer();
        respond(next);
        answer_inside_next_send(next);
    }
    queue_clock = release();
    const int result = ScriptedHost::send_request(request, service, callback_function, user_data);
    if (fate == 'n' && breaks("answers-refused")) {
        ScriptedHost::send_request(request, service, callback_function, user_data);
    }
    queued = static_cast<int>(outstanding().size());
    oracle.sent(result == 0);
    point({"sent", kObject | kBehindRequest, 0});
    return result;
}

int Daemon::publish_message(const char* name, const void* data, unsigned int length) {
    point({"publish", kObject, kExchange | kBusy});
    expect(std::string("publish ") + name + " " + std::string(static_cast<const char*>(data), length));
    const int result = ScriptedHost::publish_message(name, data, length);
    if (result != 0 || oracle.snapshot().reply_requested) {
        oracle.published(result == 0);
    } else {
        ++ended;
        at_store = [this] { oracle.published(true); };
    }
    if (!instrumented()) {
        flag_stored();
    }
    return result;
}

int Daemon::send_response(const Message* reply) {
    point({"reply", kObject, kExchange});
    expect("reply " + std::to_string(reply->request_id) + " " +
           std::string(reply->payload, reply->payload_len));
    if (breaks("operations-wait")) {
        point({"dispatch", kLife << dispatch, 0, kLife << dispatch,
               [] { return has_ended(dispatch) ? 1 : 0; }});
    }
    const int result = ScriptedHost::send_response(reply);
    ++ended;
    if (running() == worker) {
        at_store = [this] { oracle.replied(); };
        point({"replied", kObject, kBusy});
        if (!instrumented()) {
            flag_stored();
        }
    }
    return result;
}

void Daemon::pauses(unsigned int seconds) {
    expect("sleep " + std::to_string(seconds));
    oracle.pause_over();
}

void Daemon::wake_up_written() {
    expect("wake-up", true);
}

void Daemon::wake_up_read() {
    if (oracle.snapshot().wake_ups == 0) {
        fail("the worker runs, and nobody has woken it");
    }
    oracle.run();
}

void Daemon::worker_waits() {
    if (at_store) {
        fail("the worker waits, and the registration that has ended is still in progress");
    }
    oracle.waits();
}

void Daemon::flag_loaded() {
    if (at_load[running()]) {
        at_load[running()]();
        at_load[running()] = nullptr;
    }
}

void Daemon::flag_stored() {
    if (running() == worker && at_store) {
        at_store();
        at_store = nullptr;
    }
}

} // namespace

void run(const Situation& situation, Chooser& chooser) {
    const long blocks = allocated_blocks();
    {
        Daemon this_daemon(situation);
        daemon = &this_daemon;
        begin_points(this_daemon);
        forget_accesses();
        execute([&this_daemon] { this_daemon.dispatch_commands(); }, chooser);
        end_points();
        this_daemon.finish();
    }
    kit::journal().clear();
    // The first execution makes what stays: tables, the journal.
    static bool first = true;
    if (!std::exchange(first, false) && allocated_blocks() != blocks) {
        fail("memory is lost: " + std::to_string(allocated_blocks() - blocks) + " blocks");
    }
}

const std::vector<Situation>& situations() {
    // clang-format off
    static const std::vector<Situation> all = {
        {"start", "start wait uninit"},
        {"start-without-reply", "quiet-start wait uninit"},
        {"uninit", "start uninit"},
        {"two-registrations", "start wait start wait uninit"},
        {"second-start", "start start wait uninit"},
        {"retry-at-any-moment", "start retry wait uninit"},
        {"login-fails", "start wait retry wait uninit", "bg"},
        {"login-fails-twice", "start wait retry wait uninit", "b"},
        {"box-fails", "start wait retry wait uninit", "gbg"},
        {"tried-again", "start wait uninit", "bg", 1},
        {"refused-request", "start wait uninit", "ng", 1},
        {"publishing-fails", "start wait retry wait uninit", "g", 0, 1},
        {"answer-inside", "start wait uninit", "i"},
        {"answer-inside-uninit", "start uninit", "i"},
        {"failing-retry-uninit", "start retry uninit", "bg"},
        {"second-start-uninit", "start start uninit"},
        {"large-three-commands", "start retry start wait uninit", "bg"},

        {"calls-twice", "start wait uninit", "g", 0, 0, {"memory is freed twice"}, {"memory is freed twice"}},
        {"calls-often", "start wait uninit", "g", 0, 0,
         {"not due: build_request register_box", "wake-ups pile up"}, {"race: "}},
        {"calls-after-end", "start wait uninit", "g", 0, 0,
         {"nobody has woken it", "the end is not the oracle's"}, {"race: "}},
        {"calls-after-next-start", "start wait start wait uninit", "g", 0, 0,
         {"not due: publish", "not due: build_request", "nobody has woken it"}, {"race: "}},
        {"answers-refused", "start wait uninit", "ng", 1, 0, {"memory is freed twice"}, {"memory is freed twice"}},
        {"never-answers", "start wait uninit", "g", 0, 0,
         {"no thread can go on: d at wait"}, {"no thread can go on: d at wait"}},
        {"two-commands", "start wait uninit", "g", 0, 0,
         {"nobody has woken it", "not due: build_request"}, {"race: "}},
        {"callback-during-uninit", "start uninit", "g", 0, 0,
         {"Segmentation fault", "Broken pipe", "a descriptor is used that is not open"}, {"race: ", "Broken pipe"}},
        {"command-during-uninit", "start wait uninit", "g", 0, 0,
         {"Segmentation fault", "Broken pipe", "a descriptor is used that is not open"}, {"race: "}},
        {"operations-wait", "start uninit", "g", 0, 0,
         {"no thread can go on: d at join"}, {"no thread can go on: d at join"}},
    };
    // clang-format on
    return all;
}

} // namespace schedules
