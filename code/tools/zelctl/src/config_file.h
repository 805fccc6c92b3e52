// zelctl's --config FILE: flags read from a file as well as from the command line.
#pragma once

#include <string>

#include <CLI/CLI.hpp>

namespace zelctl {

// Adds the global --config FILE. The file holds "key = value" lines named as the long flags
// without their dashes: global flags at the top, a subcommand's flags under its section
// ("[mirror]"). The command line wins over the file; an unknown key, or a file that cannot be
// read, fails the parse.
void add_config_option(CLI::App& app);

// The one line that says what was wrong with the command line or the configuration file. Never
// holds a value that the file gave (it may be a password): such a value reads "(value from the
// file)".
std::string usage_error_text(const CLI::App& app, const CLI::ParseError& error);

}  // namespace zelctl
