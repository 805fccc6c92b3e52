// zelctl's configuration file, read by CLI11's own reader; the texts of its errors.
#include "config_file.h"

#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <vector>

namespace zelctl {
namespace {

const char* const config_flag = "--config";

// The file named by --config, or "" when there is none.
std::string config_path(const CLI::App& app) {
  const CLI::Option* option = app.get_option_no_throw(config_flag);
  if (option == nullptr || option->count() == 0) return "";
  return option->as<std::string>();
}

bool word_char(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; }

// Replaces each whole occurrence of the file's values in text (one not inside a longer word).
std::string without_values(std::string text, const std::vector<CLI::ConfigItem>& items) {
  static const std::string hidden = "(value from the file)";
  for (const CLI::ConfigItem& item : items) {
    for (const std::string& value : item.inputs) {
      if (value.empty()) continue;
      for (std::size_t at = text.find(value); at != std::string::npos; at = text.find(value, at)) {
        const std::size_t end = at + value.size();
        const bool whole =
            (at == 0 || !word_char(text[at - 1])) && (end == text.size() || !word_char(text[end]));
        if (!whole) {
          ++at;
          continue;
        }
        text.replace(at, value.size(), hidden);
        at += hidden.size();
      }
    }
  }
  return text;
}

}  // namespace

void add_config_option(CLI::App& app) {
  app.set_config(config_flag, "",
                 "read flags from this file: \"key = value\" lines named as the long flags, "
                 "global ones first, a subcommand's under [SUBCOMMAND]; the command line wins");
  app.allow_config_extras(CLI::config_extras_mode::error);
}

std::string usage_error_text(const CLI::App& app, const CLI::ParseError& error) {
  const std::string path = config_path(app);
  if (path.empty()) return error.what();
  if (dynamic_cast<const CLI::FileError*>(&error) != nullptr) {
    std::ifstream in(path);
    const int why = errno;
    if (!in) return "cannot read --config '" + path + "': " + std::strerror(why);
    return "cannot read --config '" + path + "': not a regular file";
  }
  std::vector<CLI::ConfigItem> items;
  try {
    items = app.get_config_formatter()->from_file(path);
  } catch (const CLI::Error&) {
    return "cannot read --config '" + path + "'";
  }
  // CLI11 names a key that no flag takes "INI was not able to parse KEY".
  static const std::string unknown_prefix = "INI was not able to parse ";
  const std::string text = error.what();
  if (dynamic_cast<const CLI::ConfigError*>(&error) != nullptr &&
      text.rfind(unknown_prefix, 0) == 0) {
    return "--config '" + path + "': unknown key '" + text.substr(unknown_prefix.size()) +
           "' (keys are the long flags without dashes; a subcommand's go under [SUBCOMMAND])";
  }
  return without_values(text, items);
}

}  // namespace zelctl
