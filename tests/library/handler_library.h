#ifndef HANDLER_LIBRARY_H
#define HANDLER_LIBRARY_H

#include <dlfcn.h>

#include <cstddef>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cvcloud/cvhandler_api.h"
#include "fake_cloud_api.h"

/// A handler library, loaded for as long as this object lives.
class HandlerLibrary {
public:
    /// Where the built library is.
    static const char* const built;

    /// Ends the program when there is no library at `path`. `scope` is RTLD_LOCAL, or RTLD_GLOBAL to put its
    /// names before those of libraries that are loaded later.
    explicit HandlerLibrary(const std::string& path = built, int scope = RTLD_LOCAL);
    ~HandlerLibrary();
    HandlerLibrary(const HandlerLibrary&) = delete;
    HandlerLibrary& operator=(const HandlerLibrary&) = delete;

    /// The address of an exported name; ends the program when the library exports no such name.
    void* symbol(const char* name) const;

    /// The exported object of that name.
    template <typename T>
    T& object(const char* name) const {
        return *static_cast<T*>(symbol(name));
    }

    CvHandlerAPI& handler() const {
        return *handler_object;
    }

    /// True while the built library is in the process's memory.
    static bool in_memory();

private:
    void* library;
    CvHandlerAPI* handler_object;
};

/// The kind of a command whose sender waits for a reply, and one of the other kinds.
constexpr int kWithReply = 2;
constexpr int kWithoutReply = 1;

/// A valid start, the cloud's good answers to its requests, and what is published and replied then.
inline const std::string kStart = R"({"token": "T", "token_type": "partner"})";
inline const std::string kUserToken = R"({"result": {"user_token": "U"}})";
inline const std::string kDeviceId = R"({"result": {"device_id": "D"}})";
inline const std::string kDone = R"({"result": "ok", "user_token": "U", "device_id": "D"})";

/// Delivers a command as the daemon does: the payload without a NUL behind it, and gone after the call.
void send_command(CvHandlerAPI& handler, const std::string& name, const std::string& payload, int type,
                  unsigned long long request_id);

/// Fails the test unless this is all that the handler did so far: requests, published messages, replies and
/// pauses, in order. Responses given back are not part of it: the worker may act on a result before its
/// response is given back.
void ExpectTraffic(const std::vector<std::string>& events);

/// Waits until the event has happened `times` times and the worker has ended the run in which it did: until
/// then the next command would be refused.
void AwaitEndOfRun(const std::string& event, std::size_t times = 1);

/// The names in a directory.
std::set<std::string> names_in(const char* directory);

/// A daemon with the handler loaded. Every test ends with a shut-down and the library gone.
class LibraryTest : public ::testing::Test {
protected:
    LibraryTest();
    ~LibraryTest() override;

    /// init() with the daemon's cloud access object.
    void Start();

    void start_registration(const std::string& payload, int type, unsigned long long request_id) {
        send_command(library->handler(), "start_cloud_registration", payload, type, request_id);
    }
    void retry_registration(int type, unsigned long long request_id) {
        send_command(library->handler(), "retry_cloud_registration", "", type, request_id);
    }

    /// Waits for the next request to the service and answers it on another thread.
    void Answer(const std::string& service, const std::string& body);

    fake_host::FakeCloudApi cloud;
    std::vector<std::string> commands;
    std::unique_ptr<HandlerLibrary> library;

private:
    std::map<std::string, std::size_t> answered;
};

#endif
