#include "common/command_line.h"

#include <cstdio>
#include <vector>

#include <unistd.h>

#include "common/printable.h"

namespace sandbox {

namespace {

/// The required options of the program, and of the subcommand that was given, that the command line lacks.
std::vector<std::string> missing_options(const CLI::App& app) {
    std::vector<std::string> names;
    std::vector<const CLI::App*> commands{&app};
    for (const CLI::App* command : app.get_subcommands()) {
        commands.push_back(command);
    }
    for (const CLI::App* command : commands) {
        for (const CLI::Option* option : command->get_options()) {
            if (option->get_required() && option->count() == 0) {
                names.push_back(option->get_name());
            }
        }
    }
    return names;
}

std::string join(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

} // namespace

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
        const std::vector<std::string> missing = missing_options(app);
        std::string problem = error.what();
        if (!unknown.empty()) {
            problem = "'" + unknown.front() + "' is not understood";
        } else if (error.get_name() == "RequiredError" && missing.size() > 1) {
            problem = join(missing) + " are required";
        }
        print_problem(app, problem + "; see " + app.get_name() + " --help");
        return exit_usage;
    }
}

void print_problem(const CLI::App& app, const std::string& problem) {
    std::fprintf(stderr, "%s: %s\n", app.get_name().c_str(), printable_on(STDERR_FILENO, problem).c_str());
}

} // namespace sandbox
