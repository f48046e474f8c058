#include "common/command_line.h"

#include <cstdio>
#include <vector>

#include <unistd.h>

#include "common/printable.h"

namespace sandbox {

std::optional<int> read_command_line(CLI::App& app, int argc, char** argv) {
    app.set_version_flag("--version", app.get_name() + " " CV_VERSION, "Show the version");
    try {
        app.parse(argc, argv);
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            return app.exit(error);
        }
        // A word that is not understood may be why something else is missing: it is what the line names.
        const std::vector<std::string> unknown = app.remaining(true);
        const std::string problem =
            unknown.empty() ? error.what() : "'" + unknown.front() + "' is not understood";
        print_problem(app, problem + "; see " + app.get_name() + " --help");
        return exit_usage;
    }
}

void print_problem(const CLI::App& app, const std::string& problem) {
    std::fprintf(stderr, "%s: %s\n", app.get_name().c_str(), printable_on(STDERR_FILENO, problem).c_str());
}

} // namespace sandbox
