// A command with whatever payload, and, should it be accepted, the registration that it asks for.
//
// The first byte says what is around the payload; the rest is the payload, or the name of an unknown command.

#include <utility>

#include "input.h"
#include "stepped_host.h"

namespace {

class CommandScript : public fuzz::Script {
public:
    CommandScript(std::uint8_t first_byte, std::string rest) : flags(first_byte), text(std::move(rest)) {}

    bool act(fuzz::SteppedHost& host) override {
        if (!commanded) {
            commanded = true;
            const int type = (flags & 1) != 0 ? 1 : 2;
            switch ((flags >> 1) & 3) {
            case 1:
                host.command(type, "retry_cloud_registration", 7, text);
                break;
            case 2:
                host.command(type, text, 7, "");
                break;
            default:
                host.command(type, "start_cloud_registration", 0xfedcba9876543210ULL, text);
            }
            return true;
        }
        if (host.expected().outstanding() != 0) {
            host.respond(0, 0, R"({"result": {"user_token": "u", "device_id": "d"}})");
            return true;
        }
        return false;
    }

private:
    std::uint8_t flags;
    std::string text;
    bool commanded = false;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    fuzz::Input input(bytes, size);
    const std::uint8_t flags = input.byte();
    kit::Settings settings;
    if ((flags & 8) != 0) {
        settings.interface_mac.clear();
    }
    CommandScript script(flags, input.rest());
    fuzz::SteppedHost(settings, (flags >> 4) % 5 - 1, script).live();
    return 0;
}
