// zelctl validate: checks a work description file (YAML or JSON) offline and prints every error
// as FILE:LINE:COL: path: message, or what the file describes when it is valid.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "description_file.h"
#include "zelbase/exceptions.h"
#include "zelcapi/description.h"

namespace zelctl {
namespace {

struct validate_flags {
  std::string file;
  std::vector<std::string> settings;
};

std::string plural(std::size_t n, const char* one, const char* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

// One line on what a valid description holds.
std::string summary(const zelcapi::work_description& d) {
  if (d.kind == zelcapi::description_kind::jobs) {
    const std::size_t jobs = d.submission.get_list_value("jobs").size();
    return (d.name.empty() ? "jobs" : "jobs '" + d.name + "'") + ": " + plural(jobs, "job", "jobs");
  }
  const std::size_t tasks = d.workflow.get_properties_value("tasks").size();
  std::string out = std::string(d.is_template ? "template" : "workflow") + " '" + d.name +
                    "': " + plural(tasks, "task", "tasks");
  if (!d.values.empty()) {
    out += ", in-values";
    for (const auto& [name, value] : d.values) {
      if (value) out += " " + name + "=" + value->describe();
    }
  }
  return out;
}

int run_validate(const validate_flags& f) {
  std::vector<zelcapi::description_setting> settings;
  for (const std::string& s : f.settings) {
    try {
      settings.push_back(zelcapi::parse_description_setting(s));
    } catch (const zelbase::es::arg& e) {
      throw failure(exit_usage, "--set " + e.message());
    }
  }
  const description_text text = read_description_file(f.file);
  const zelcapi::work_description converted = zelcapi::convert_description(text.tree, settings);
  const std::vector<placed_error> errors = place_errors(text, converted);
  for (const placed_error& e : errors) {
    std::printf("%s:%d:%d: %s%s\n", f.file.c_str(), e.place.line, e.place.column,
                e.path.empty() ? "" : (e.path + ": ").c_str(), e.message.c_str());
  }
  std::size_t count = errors.size();
  for (const zelcapi::description_error& e : converted.errors) {
    if (e.setting < 0) continue;
    std::printf("--set %s: %s\n", f.settings[static_cast<std::size_t>(e.setting)].c_str(),
                e.message.c_str());
    ++count;
  }
  if (count != 0) {
    std::fflush(stdout);
    throw failure(exit_invalid, f.file + ": " + plural(count, "error", "errors"));
  }
  std::printf("%s: %s\n", f.file.c_str(), summary(converted).c_str());
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
