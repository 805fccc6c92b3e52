// The subcommands of zelctl: each adds itself to the program and returns what runs it.
#pragma once

#include <functional>
#include <vector>

#include <CLI/CLI.hpp>

#include "options.h"
#include "session.h"

namespace zelctl {

struct command {
  CLI::App* app;
  // Runs the subcommand once the flags are parsed; returns the exit code.
  std::function<int(target&)> run;
};

command add_status_command(CLI::App& app, global_options& options);
command add_login_command(CLI::App& app, global_options& options);
command add_state_command(CLI::App& app, global_options& options);
command add_watch_command(CLI::App& app, global_options& options);
command add_history_command(CLI::App& app, global_options& options);
command add_mirror_command(CLI::App& app, global_options& options);
command add_serve_command(CLI::App& app, global_options& options);
command add_validate_command(CLI::App& app, global_options& options);
command add_submit_command(CLI::App& app, global_options& options);
// cancel, hold, release, retry and priority.
std::vector<command> add_steer_commands(CLI::App& app, global_options& options);

}  // namespace zelctl
