// Checking a work description file for validate and submit, and saying what a valid one holds.
#include "description_check.h"

#include <cstdio>

#include "description_file.h"
#include "options.h"
#include "zelbase/exceptions.h"

namespace zelctl {

std::string plural(std::size_t n, const char* one, const char* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

std::string description_summary(const zelcapi::work_description& d) {
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

zelcapi::work_description checked_description(const std::string& file,
                                              const std::vector<std::string>& settings) {
  std::vector<zelcapi::description_setting> parsed;
  for (const std::string& s : settings) {
    try {
      parsed.push_back(zelcapi::parse_description_setting(s));
    } catch (const zelbase::es::arg& e) {
      throw failure(exit_usage, "--set " + e.message());
    }
  }
  const description_text text = read_description_file(file);
  zelcapi::work_description converted = zelcapi::convert_description(text.tree, parsed);
  const std::vector<placed_error> errors = place_errors(text, converted);
  for (const placed_error& e : errors) {
    std::printf("%s:%d:%d: %s%s\n", file.c_str(), e.place.line, e.place.column,
                e.path.empty() ? "" : (e.path + ": ").c_str(), e.message.c_str());
  }
  std::size_t count = errors.size();
  for (const zelcapi::description_error& e : converted.errors) {
    if (e.setting < 0) continue;
    std::printf("--set %s: %s\n", settings[static_cast<std::size_t>(e.setting)].c_str(),
                e.message.c_str());
    ++count;
  }
  if (count != 0) {
    std::fflush(stdout);
    throw failure(exit_invalid, file + ": " + plural(count, "error", "errors"));
  }
  return converted;
}

}  // namespace zelctl
