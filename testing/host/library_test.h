#ifndef LIBRARY_TEST_H
#define LIBRARY_TEST_H

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "await.h"
#include "cvutils_stand_in.h"
#include "handler_library.h"
#include "scripted_calls.h"
#include "scripted_host.h"
#include "texts.h"

namespace kit {

/// Waits until the event has happened `times` times and the worker has ended the run in which it did: until
/// then the next command would be refused.
void AwaitEndOfRun(const std::string& event, std::size_t times = 1);

/// The host as at the start, for a test that loads the library itself.
void reset_host();

/// A daemon with the built library loaded. Every test ends with a shut-down and the library gone.
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
    void Answer(const std::string& service, const std::string& body, std::uint32_t status = 0);

    /// A registration from the start command to the reply.
    void RegisterBox(unsigned long long request_id);

    ScriptedHost cloud;
    std::vector<std::string> commands;
    std::unique_ptr<HandlerLibrary> library;

private:
    std::map<std::string, std::size_t> answered;
};

} // namespace kit

#endif
