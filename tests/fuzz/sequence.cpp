// A sequence of what a host can do: commands, responses, failures of its own operations, stops.
//
// Two bytes of settings, then one byte for each thing that the host does, with what it needs behind it. The
// host keeps its contract but for one thing: it may write run bytes that nobody asked for, as long as a
// registration is in progress. Responses can then come late and more than once for a step.

#include "input.h"
#include "stepped_host.h"

namespace {

std::string quoted(const std::string& text) {
    return '"' + text + '"';
}

class SequenceScript : public fuzz::Script {
public:
    explicit SequenceScript(fuzz::Input& sequence) : input(sequence) {}

    bool act(fuzz::SteppedHost& host) override {
        if (input.empty()) {
            return false;
        }
        const std::uint8_t action = input.byte();
        late = (action & 0x80) != 0;
        const std::size_t outstanding = host.expected().outstanding();
        switch (action & 0x1f) {
        case 0:
            start(host, "partner");
            break;
        case 1:
            start(host, "temporary");
            break;
        case 2: {
            const std::uint8_t kind = input.byte();
            command(host, kind, "start_cloud_registration", input.text(input.byte()));
            break;
        }
        case 3: {
            const std::uint8_t kind = input.byte();
            command(host, kind, "retry_cloud_registration", input.text(kind >> 4));
            break;
        }
        case 4: {
            const std::uint8_t kind = input.byte();
            command(host, kind, input.text(input.byte()), "");
            break;
        }
        case 5: // A good response, and with its top bit from a thread of its own.
            if (outstanding != 0) {
                const std::uint8_t which = input.byte();
                const std::string value = quoted(input.text(which >> 5 & 3));
                host.respond((which & 0x1f) % outstanding, 0,
                             "{\"result\": {\"user_token\": " + value + ", \"device_id\": " + value + "}}",
                             (which & 0x80) != 0);
            }
            break;
        case 6: // The cloud's own words.
            if (outstanding != 0) {
                const std::uint8_t which = input.byte();
                host.respond((which & 0x1f) % outstanding, 0,
                             R"({"error": {"message": )" + quoted(input.text(which >> 5)) + "}}");
            }
            break;
        case 7:
            if (outstanding != 0) {
                const std::uint8_t which = input.byte();
                const std::uint32_t status = input.byte();
                host.respond(which % outstanding, status, input.text(input.byte()));
            }
            break;
        case 8:
            if (host.expected().snapshot().in_progress) {
                host.wake_up();
            }
            break;
        case 9:
            host.lose_next_wake_up();
            break;
        case 10:
            interrupted = true;
            break;
        case 11:
            failing_builds = input.byte() & 7;
            break;
        case 12:
            refused_sends = input.byte() & 7;
            break;
        case 13:
            failing_publishes = input.byte() & 3;
            break;
        case 14: // What comes next, comes while the worker is inside its next calls.
            meanwhile = 1 + (input.byte() & 7);
            break;
        case 15:
            host.log_level(input.byte() % 5 - 1);
            break;
        case 16:
            host.interface_mac(input.text(input.byte() & 31));
            break;
        case 17:
            host.stop();
            break;
        default:
            break;
        }
        return true;
    }

    void act_meanwhile(fuzz::SteppedHost& host) override {
        // A command that the worker could not refuse would be the second at once: the daemon delivers none.
        while (meanwhile > 0 && host.expected().snapshot().in_progress) {
            --meanwhile;
            act(host);
        }
    }

    bool worker_is_late() override {
        const bool is_late = late;
        late = false;
        return is_late;
    }

    bool interrupts() override {
        const bool interrupt = interrupted;
        interrupted = false;
        return interrupt;
    }

    bool succeeds(kit::ScriptedHost::Operation operation) override {
        using Operation = kit::ScriptedHost::Operation;
        int& failing = operation == Operation::build  ? failing_builds
                       : operation == Operation::send ? refused_sends
                                                      : failing_publishes;
        return failing == 0 || failing-- == 0;
    }

private:
    void start(fuzz::SteppedHost& host, const char* token_type) {
        const std::uint8_t kind = input.byte();
        std::string payload =
            R"({"token": "t)" + std::to_string(kind) + R"(", "token_type": )" + quoted(token_type);
        if ((kind & 0x80) != 0) {
            payload += R"(, "register_mac_address": )" + quoted(input.text(kind >> 4 & 7));
        }
        command(host, kind, "start_cloud_registration", payload + "}");
    }

    void command(fuzz::SteppedHost& host, std::uint8_t kind, const std::string& name,
                 const std::string& payload) {
        const int type = (kind & 1) != 0 ? 2 : (kind >> 1 & 3) - 1;
        host.command(type, name, (static_cast<unsigned long long>(kind) << 56) + ++commands, payload);
    }

    fuzz::Input& input;
    unsigned int commands = 0;
    bool late = false;
    bool interrupted = false;
    int failing_builds = 0;
    int refused_sends = 0;
    int failing_publishes = 0;
    int meanwhile = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    fuzz::Input input(bytes, size);
    const std::uint8_t retries = input.byte();
    const std::uint8_t texts = input.byte();
    kit::Settings settings;
    settings.retry_num = retries % 6 - 2;
    settings.retry_interval = (retries >> 4) - 1;
    // A text that JSON cannot hold makes the requests impossible that carry it.
    std::uint8_t unfit = texts;
    for (std::string* text :
         {&settings.partner_id, &settings.setup_type, &settings.box_name, &settings.device_model}) {
        if ((unfit & 1) != 0) {
            *text = "\xff";
        }
        unfit = static_cast<std::uint8_t>(unfit >> 1);
    }
    SequenceScript script(input);
    fuzz::SteppedHost host(settings, (texts >> 4) % 5 - 1, script);
    do {
        host.live();
    } while (!input.empty());
    return 0;
}
