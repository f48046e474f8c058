#include "scripted_calls.h"

#include <fcntl.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <utility>

#include "journal.h"
#include "tracked.h"

namespace kit {

namespace {

struct Outcome {
    int result;
    int error;
    std::array<int, 2> ends = {-1, -1};
};

struct Scripts {
    std::map<Call, std::deque<Outcome>> next;
    std::function<void()> write_hook;
    std::set<int> unreal_descriptors = {0};
    std::vector<std::array<int, 2>> pipes;
    calls::SelectCall last_select;
};

std::mutex mutex;

Scripts& scripts() {
    static auto* const instance = new Scripts;
    return *instance;
}

// Constant-initialised: the operators new ask for them before main().
Fault ordered;
std::atomic<int> made{0};
std::atomic<int> failures{0};
std::atomic<bool> records_everything{false};
thread_local Outcome taken = {};

Tracked request_texts;
Tracked parameter_texts;
Tracked documents;

/// A call of the module's in the journal.
class Recorded {
public:
    explicit Recorded(std::string what, bool always = false)
        : is_recorded(always || records_everything),
          number(is_recorded ? journal().begin(std::move(what)) : 0) {}

    template <typename Result>
    Result returns(Result result) const {
        const int error = errno;
        if (is_recorded) {
            journal().returned(number, result, error);
        }
        errno = error;
        return result;
    }

private:
    bool is_recorded;
    std::size_t number;
};

// Counts a call, and takes what its script says.
bool failing(Call call) {
    if (call == ordered.call) {
        const int number = ++made;
        if (number < ordered.first || number - ordered.first >= ordered.count) {
            return false;
        }
        ++failures;
        taken = {ordered.result, ordered.error};
    } else if (call == Call::new_throwing) {
        return false; // A script would allocate.
    } else {
        const InHost host;
        const std::lock_guard<std::mutex> lock(mutex);
        const auto found = scripts().next.find(call);
        if (found == scripts().next.end() || found->second.empty()) {
            return false;
        }
        taken = found->second.front();
        found->second.pop_front();
    }
    errno = taken.error;
    return true;
}

std::string numbered(const char* name, int number) {
    return std::string(name) + " " + std::to_string(number);
}

} // namespace

namespace calls {

void reset(bool everything) {
    // Never destroyed: calls come until the program has ended.
    static auto* const instance = new ScriptedCalls;
    put_in_front(instance);
    order();
    const std::lock_guard<std::mutex> lock(mutex);
    scripts() = Scripts();
    if (!everything) {
        scripts().unreal_descriptors.clear();
    }
    records_everything = everything;
}

void fail_next(Call call, int result, int error) {
    const std::lock_guard<std::mutex> lock(mutex);
    scripts().next[call].push_back({result, error});
}

void order(const Fault& fault) {
    ordered = fault;
    made = 0;
    failures = 0;
}

int fired() {
    return failures;
}

bool fails(Call call) {
    return in_module() && failing(call);
}

int ordered_result() {
    return taken.result;
}

void return_from_next_pipe2(int read_end, int write_end) {
    const std::lock_guard<std::mutex> lock(mutex);
    scripts().next[Call::pipe2].push_back({0, 0, {read_end, write_end}});
    scripts().unreal_descriptors.insert({read_end, write_end});
}

std::vector<std::array<int, 2>> pipes() {
    const std::lock_guard<std::mutex> lock(mutex);
    return scripts().pipes;
}

void before_write(std::function<void()> hook) {
    const std::lock_guard<std::mutex> lock(mutex);
    scripts().write_hook = std::move(hook);
}

SelectCall last_select() {
    const std::lock_guard<std::mutex> lock(mutex);
    return scripts().last_select;
}

bool all_are_recorded() {
    return records_everything;
}

int unreleased_texts_and_documents() {
    return request_texts.count() + parameter_texts.count() + documents.count();
}

} // namespace calls

unsigned int ScriptedCalls::sleep(unsigned int seconds) {
    if (!in_module()) {
        return System::sleep(seconds);
    }
    const InHost host;
    return Recorded(numbered("sleep", static_cast<int>(seconds)), true).returns(0U);
}

int ScriptedCalls::pipe2(int* ends, int flags) {
    if (!in_module()) {
        return System::pipe2(ends, flags);
    }
    const InHost host;
    const Recorded call(flags == O_NONBLOCK ? "pipe2 nonblocking" : numbered("pipe2", flags));
    int result = 0;
    if (failing(Call::pipe2)) {
        result = taken.result;
        if (result == 0) {
            std::copy(taken.ends.begin(), taken.ends.end(), ends);
        }
    } else {
        result = System::pipe2(ends, flags);
    }
    const std::lock_guard<std::mutex> lock(mutex);
    if (result == 0) {
        std::vector<std::array<int, 2>>& pipes = scripts().pipes;
        pipes.erase(pipes.begin(), pipes.size() > 1 ? pipes.end() - 1 : pipes.begin());
        pipes.push_back({ends[0], ends[1]});
    }
    return call.returns(result);
}

int ScriptedCalls::poll(pollfd* descriptors, nfds_t count, int timeout) {
    if (!in_module()) {
        return System::poll(descriptors, count, timeout);
    }
    const InHost host;
    std::string events = "writing";
    if (descriptors->events != POLLOUT) {
        events = std::to_string(descriptors->events);
    }
    const Recorded call(numbered("poll", descriptors->fd) + " for " + events + ", timeout " +
                        std::to_string(timeout));
    return call.returns(failing(Call::poll) ? taken.result : System::poll(descriptors, count, timeout));
}

int ScriptedCalls::select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional,
                          timeval* timeout) {
    if (!in_module()) {
        return System::select(count, readable, writable, exceptional, timeout);
    }
    const InHost host;
    {
        std::set<int> read_descriptors;
        for (int descriptor = 0; descriptor < FD_SETSIZE; ++descriptor) {
            if (FD_ISSET(descriptor, readable)) {
                read_descriptors.insert(descriptor);
            }
        }
        const std::lock_guard<std::mutex> lock(mutex);
        scripts().last_select = {count, std::move(read_descriptors), writable != nullptr,
                                 exceptional != nullptr, timeout != nullptr};
    }
    const Recorded call("select", true);
    if (failing(Call::select)) {
        return call.returns(taken.result);
    }
    waits(true);
    const int result = System::select(count, readable, writable, exceptional, timeout);
    const int error = errno;
    waits(false);
    errno = error;
    return call.returns(result);
}

ssize_t ScriptedCalls::read(int descriptor, void* buffer, std::size_t size) {
    if (!in_module()) {
        return System::read(descriptor, buffer, size);
    }
    const InHost host;
    const Recorded call(numbered("read", descriptor));
    return call.returns(failing(Call::read) ? taken.result : System::read(descriptor, buffer, size));
}

ssize_t ScriptedCalls::write(int descriptor, const void* buffer, std::size_t size) {
    if (!in_module()) {
        return System::write(descriptor, buffer, size);
    }
    const InHost host;
    const Recorded call(numbered("write", descriptor) + " " +
                        std::string(static_cast<const char*>(buffer), size));
    std::function<void()> hook;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        hook = scripts().write_hook;
    }
    if (hook) {
        hook();
    }
    return call.returns(failing(Call::write) ? taken.result : System::write(descriptor, buffer, size));
}

int ScriptedCalls::close(int descriptor) {
    if (!in_module()) {
        return System::close(descriptor);
    }
    const InHost host;
    const Recorded call(numbered("close", descriptor));
    bool is_unreal = false;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        is_unreal = scripts().unreal_descriptors.count(descriptor) != 0;
    }
    // The system releases the descriptor of a close() that fails, too.
    const int result = is_unreal ? 0 : System::close(descriptor);
    return call.returns(failing(Call::close) ? taken.result : result);
}

void ScriptedCalls::free(void* memory) {
    const InHost host;
    if (request_texts.remove(memory)) {
        Recorded("free request text").returns(0);
    } else if (parameter_texts.remove(memory)) {
        Recorded("free parameter text").returns(0);
    }
    System::free(memory);
}

char* ScriptedCalls::strdup(const char* text) {
    char* const copy = System::strdup(text);
    request_texts.add(copy);
    return copy;
}

json_t* ScriptedCalls::json_object() {
    if (!in_module()) {
        return System::json_object();
    }
    json_t* const object = failing(Call::json_object) ? nullptr : System::json_object();
    if (object != nullptr) {
        documents.add(object);
    }
    return object;
}

json_t* ScriptedCalls::json_loadb(const char* buffer, std::size_t length, std::size_t flags,
                                  json_error_t* error) {
    json_t* const document = System::json_loadb(buffer, length, flags, error);
    if (document != nullptr && in_module()) {
        documents.add(document);
    }
    return document;
}

char* ScriptedCalls::json_dumps(const json_t* value, std::size_t flags) {
    if (!in_module()) {
        return System::json_dumps(value, flags);
    }
    char* const text = failing(Call::json_dumps) ? nullptr : System::json_dumps(value, flags);
    if (text != nullptr) {
        parameter_texts.add(text);
    }
    return text;
}

void ScriptedCalls::json_delete(json_t* value) {
    if (documents.remove(value)) {
        const InHost host;
        Recorded("release document").returns(0);
    }
    System::json_delete(value);
}

} // namespace kit
