#include "common/command_line.h"

#include <cstdio>

namespace sandbox {

std::optional<int> read_command_line(CLI::App& app, int argc, char** argv) {
    try {
        app.parse(argc, argv);
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            return app.exit(error);
        }
        print_problem(app, std::string(error.what()) + "; see " + app.get_name() + " --help");
        return exit_usage;
    }
}

void print_problem(const CLI::App& app, const std::string& problem) {
    std::fprintf(stderr, "%s: %s\n", app.get_name().c_str(), problem.c_str());
}

} // namespace sandbox
