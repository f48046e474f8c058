// registrations LIBRARY|floor SCENARIO COUNT [TOKEN-LENGTH USER-TOKEN-LENGTH]
// Does a scenario COUNT times, for a tool that counts from outside.

#include <memory>

#include "figures.h"
#include "scenarios.h"
#include "stand_ins.h"

int main(int argc, char** argv) {
    if (argc != 4 && argc != 6) {
        kit::die("usage: registrations LIBRARY|floor SCENARIO COUNT [TOKEN-LENGTH USER-TOKEN-LENGTH]");
    }
    start_measuring();
    kit::LeanHost host;
    const std::unique_ptr<StandIn> floor = std::string(argv[1]) == "floor" ? make_floor() : nullptr;
    CvHandlerAPI& handler = floor != nullptr ? *floor : load_handler(argv[1]);
    init(host, handler);
    run_scenario(host, handler, argv[2], positive_number(argv[3]),
                 argc == 6 ? static_cast<std::size_t>(positive_number(argv[4])) : 32,
                 argc == 6 ? static_cast<std::size_t>(positive_number(argv[5])) : 32);
    handler.uninit();
    return 0;
}
