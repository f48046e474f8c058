#ifndef CVCLOUDD_RECORDER_H
#define CVCLOUDD_RECORDER_H

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include <nlohmann/json.hpp>

#include "cvcloud/message.h"

namespace cvcloudd {

/// Keeps everything that crosses the boundary of the handlers in one file, a JSON object per line; cvex
/// timeline draws it.
///
/// The first line is {"record": "cvcloudd 1", "started": ..., "title": ...}, with the daemon's start in UTC
/// and, where one was given, the title of the run. Each further line has "time" (seconds since the start by
/// the monotonic clock, never falling from line to line), "thread" ("dispatch", "callback", "exchange", or
/// "worker" for a thread of a handler that has no name of its own), "event", and the members of the event:
///
///     command   request_id, name, type (2 wants a reply), payload   just before the handler gets it
///     build     request (its number), method, params, connect_fields
///     request   request, service, method, body                      just before it is accepted or refused
///     response  request, service, method, status, error, body       just before its callback
///     reply     request_id, payload                                 just before it is accepted or refused
///     publish   name, payload                                       just before it is accepted or refused
///     refused   of ("build", "request", "reply" or "publish") and the event's request, method, request_id
///               or name: the daemon did not take the latest such event
///     log       level, line                                         every line of the process's log
///
/// Payloads, parameters and bodies are texts as they crossed; bytes that are not UTF-8 are replaced. Tokens
/// are in the file, so only its owner may read it.
///
/// Any thread may call the operations. Each line is written at once and whole.
class Recorder {
public:
    /// Starts a record, with a title unless that is empty, for the calling thread, which is the dispatch
    /// thread, in the file at `path`, which is replaced. An empty path records nothing. Throws
    /// std::runtime_error when the file cannot be written. No other thread logs while the recorder is made or
    /// destroyed.
    Recorder(const std::string& path, const std::string& title);
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    void command(const Message& message);
    void build(std::uint64_t request, const char* method, std::string_view params, bool connect_fields);
    void build_refused(const char* method);
    void request(const char* service, const char* body);
    void request_refused(const char* body);
    void response(std::uint64_t request, const std::string& service, const std::string& method,
                  std::uint32_t status, const std::string& error, const std::string& body);
    void reply(std::uint64_t request_id, std::string_view payload);
    void reply_refused(std::uint64_t request_id);
    void publish(const char* name, std::string_view payload);
    void publish_refused(const char* name);

private:
    bool is_on() const {
        return descriptor != -1;
    }
    void write(const char* event, const nlohmann::ordered_json& members);
    bool write_line(const nlohmann::ordered_json& line) const;

    const std::string file;
    const std::thread::id dispatch_thread;
    const std::chrono::steady_clock::time_point start;
    int descriptor = -1;
    std::mutex mutex;
    bool failed = false;
};

} // namespace cvcloudd

#endif
