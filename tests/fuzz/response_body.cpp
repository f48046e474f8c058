// One response of the cloud with whatever status and body, to either exchange of a registration of either
// kind; the registration then ends, or is resumed after its failure.
//
// The first byte says which response it is and how it comes; if it says so, four bytes of status follow; the
// rest is the body.

#include <utility>

#include "input.h"
#include "stepped_host.h"

namespace {

constexpr const char* kGoodBody = R"({"result": {"user_token": "u", "device_id": "d"}})";

class CloudScript : public fuzz::Script {
public:
    CloudScript(std::uint8_t first_byte, std::uint32_t response_status, std::string response_body)
        : flags(first_byte), status(response_status), body(std::move(response_body)) {}

    bool act(fuzz::SteppedHost& host) override {
        if (host.expected().outstanding() != 0) {
            respond(host);
        } else if (commands == 0) {
            host.command(2, "start_cloud_registration", 1,
                         (flags & 1) != 0 ? R"({"token": "t", "token_type": "partner"})"
                                          : R"({"token": "t", "token_type": "temporary"})");
            ++commands;
        } else if (commands == 1) {
            host.command(2, "retry_cloud_registration", 2, "");
            ++commands;
        } else {
            return false;
        }
        return true;
    }

    void act_meanwhile(fuzz::SteppedHost& host) override {
        if ((flags & 8) != 0 && host.expected().outstanding() != 0) {
            respond(host);
        }
    }

private:
    void respond(fuzz::SteppedHost& host) {
        const bool to_login = !host.expected().snapshot().login.succeeded;
        if (given || to_login == ((flags & 2) != 0)) {
            host.respond(0, 0, kGoodBody);
        } else {
            given = true;
            host.respond(0, status, body, (flags & 4) != 0);
        }
    }

    std::uint8_t flags;
    std::uint32_t status;
    std::string body;
    int commands = 0;
    bool given = false;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    fuzz::Input input(bytes, size);
    const std::uint8_t flags = input.byte();
    std::uint32_t status = 0;
    for (int taken = 0; (flags & 16) != 0 && taken < 4; ++taken) {
        status = status << 8 | input.byte();
    }
    kit::Settings settings;
    settings.retry_num = 0;
    CloudScript script(flags, status, input.rest());
    fuzz::SteppedHost(settings, (flags >> 5) % 5 - 1, script).live();
    return 0;
}
