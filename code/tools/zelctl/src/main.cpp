// zelctl: the command line client of the cluster. Parses the global flags and the subcommand,
// runs it, and turns every error into one line on stderr and a meaningful exit code.
#include <algorithm>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "commands.h"
#include "config_file.h"
#include "options.h"
#include "session.h"
#include "zelbase/exceptions.h"
#include "zelcore/report.h"

int main(int argc, char** argv) {
  using namespace zelctl;
  global_options options;
  CLI::App app{
      "zelctl: the command line client of the cluster (status, login, state, watch, "
      "history, mirror, serve, validate, submit, cancel, hold, release, retry, priority)"};
  app.require_subcommand(1);
  // The global flags may also follow the subcommand: "zelctl mirror --simulate ...".
  app.fallthrough();
  add_global_options(app, options);
  add_config_option(app);
  std::vector<command> commands{
      add_status_command(app, options),  add_login_command(app, options),
      add_state_command(app, options),   add_watch_command(app, options),
      add_history_command(app, options), add_mirror_command(app, options),
      add_serve_command(app, options),   add_validate_command(app, options),
      add_submit_command(app, options)};
  for (command& c : add_steer_commands(app, options)) commands.push_back(std::move(c));
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    // An unknown flag before any subcommand leaves none parsed: naming the flag says more than
    // the missing subcommand that it caused.
    std::vector<std::string> unknown = app.remaining();
    std::reverse(unknown.begin(), unknown.end());  // in the order of the command line
    const bool unknown_flag =
        dynamic_cast<const CLI::RequiredError*>(&e) != nullptr && !unknown.empty();
    // The help of the subcommand that was given, when one was.
    const std::vector<CLI::App*> given = app.get_subcommands();
    const std::string help =
        given.empty() ? "zelctl --help" : "zelctl " + given.front()->get_name() + " --help";
    std::fprintf(stderr, "zelctl: %s (see %s)\n",
                 unknown_flag ? CLI::ExtrasError(unknown).what() : usage_error_text(app, e).c_str(),
                 help.c_str());
    return exit_usage;
  }
  // The library's own reports are for its developers: only errors reach the terminal.
  zelcore::set_report_threshold(zelbase::severity_critical);
  try {
    target where(options);
    for (const auto& c : commands) {
      if (c.app->parsed()) return c.run(where);
    }
    return exit_usage;
  } catch (const failure& e) {
    std::fprintf(stderr, "zelctl: %s\n", e.what());
    return e.code();
  } catch (const zelbase::es::base& e) {
    std::fprintf(stderr, "zelctl: %s\n", e.message().c_str());
    return exit_failure;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zelctl: %s\n", e.what());
    return exit_failure;
  }
}
