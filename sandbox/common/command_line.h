#ifndef COMMON_COMMAND_LINE_H
#define COMMON_COMMAND_LINE_H

#include <optional>
#include <string>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

namespace sandbox {

/// The exit code of every program here for a command line that it does not understand.
inline constexpr int exit_usage = 2;

/// Reads the command line into the variables bound to `app`. Nothing is returned when the program shall go
/// on; otherwise help, the version or one line about the mistake is printed and the exit code is returned.
std::optional<int> read_command_line(CLI::App& app, int argc, char** argv);

/// Prints `problem`, also when others have written it, as the program's one line about its failure. To be
/// called by the only thread.
void print_problem(const CLI::App& app, const std::string& problem);

} // namespace sandbox

#endif
