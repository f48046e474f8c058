#ifndef CVEX_SETTINGS_COMMAND_H
#define CVEX_SETTINGS_COMMAND_H

#include <string>

#include "common/command_line.h"

namespace cvex {

/// cvex settings: reads and edits the daemon's settings store in its file, with or without a daemon.
class SettingsCommand {
public:
    /// Adds the subcommand. `run_directory` is read when it runs, and outlives the object.
    SettingsCommand(CLI::App& app, const std::string& run_directory);
    SettingsCommand(const SettingsCommand&) = delete;
    SettingsCommand& operator=(const SettingsCommand&) = delete;

    /// Does what the command line says; returns the exit code.
    int run(const CLI::App& app) const;

    CLI::App* command;

private:
    std::string file() const;
    int get(const CLI::App& app) const;
    int set(const CLI::App& app) const;
    /// What is wrong with the key and the value of set, with the next step; empty when nothing is.
    std::string problem_of_change() const;
    int list(const CLI::App& app) const;

    const std::string& run_directory;
    std::string given_file;
    std::string key;
    std::string value;
    bool as_text = false;
    bool is_forced = false;
    bool as_json = false;
    CLI::App* get_command;
    CLI::App* set_command;
};

} // namespace cvex

#endif
