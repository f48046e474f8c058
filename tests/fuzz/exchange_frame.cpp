// The frames of a message at the daemon's end of the exchange. A byte says how long the next frame is.

#include <cstdlib>
#include <stdexcept>
#include <vector>

#include "cvex/wire.h"
#include "input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    fuzz::Input input(bytes, size);
    std::vector<std::string> frames;
    while (!input.empty()) {
        frames.push_back(input.text(input.byte()));
    }
    try {
        cvex::Requester sender;
        const cvex::Command command = cvex::parse_command(frames, sender);
        const bool is_sound = frames.size() == (sender.is_req ? 5 : 4) &&
                              command.name == frames[frames.size() - 3] && command.payload == frames.back() &&
                              command.name.size() - 1 < cvex::name_limit &&
                              command.name.find('\0') == std::string::npos;
        if (!is_sound) {
            std::abort();
        }
    } catch (const std::invalid_argument&) {
        // It is answered with the reason.
    }
    return 0;
}
