// zelctl validate: checks a work description file (YAML or JSON) offline and prints every error
// as FILE:LINE:COL: path: message, or what the file describes when it is valid.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "description_check.h"

namespace zelctl {
namespace {

struct validate_flags {
  std::string file;
  std::vector<std::string> settings;
};

int run_validate(const validate_flags& f) {
  const zelcapi::work_description d = checked_description(f.file, f.settings);
  std::printf("%s: %s\n", f.file.c_str(), description_summary(d).c_str());
  return exit_ok;
}

}  // namespace

command add_validate_command(CLI::App& app, global_options&) {
  CLI::App* sub = app.add_subcommand(
      "validate", "check a work description file (YAML or JSON) offline: every error at once");
  auto flags = std::make_shared<validate_flags>();
  sub->add_option("file", flags->file, "the description file")->required();
  sub->add_option("--set", flags->settings, "NAME=VALUE: a value for one of the in-values")
      ->allow_extra_args(false);
  return {sub, [flags](target&) { return run_validate(*flags); }};
}

}  // namespace zelctl
