// Work descriptions: telling a workflow from plain jobs, the jobs' checks, settings given as
// NAME=VALUE, and the actions that carry a converted workflow to the master.
#include "zelcapi/description.h"

#include <limits>

#include "description_checks.h"
#include "zelbase/exceptions.h"

namespace zelcapi {

namespace {

using namespace description_detail;

constexpr const char* source_file = "code\\app\\common\\shared\\zelcapi\\src\\description";
constexpr std::int64_t max_attempts = 1000;
constexpr std::int64_t max_job_tasks = 1000;

const std::vector<std::string> jobs_keys{"name", "jobs"};
const std::vector<std::string> job_keys{
    "name", "command",      "cores", "memory-mb", "queue",         "priority", "tags",
    "env",  "max-attempts", "tasks", "run-ms",    "fail-attempts", "exit-code"};

}  // namespace

namespace description_detail {

void convert_jobs(const properties& d, error_list& errors, work_description& out) {
  const std::size_t errors_before = out.errors.size();
  const fields f(errors, d, "", "a jobs description", jobs_keys);
  if (const std::string* name = f.text("name")) out.name = *name;
  const property_list* jobs = f.list("jobs");
  if (jobs != nullptr && jobs->value().empty()) {
    errors.add(f.path_of("jobs"), description_issue::out_of_range,
               "a jobs description has at least one job");
  }
  if (jobs == nullptr) return;
  std::size_t index = 0;
  for (const property_ptr& e : jobs->value()) {
    const std::string path = child_path(f.path_of("jobs"), index++);
    if (e->kind() != property::kind_properties) {
      errors.add(path, description_issue::wrong_kind,
                 "expected a map (a job), got " + describe_value(*e));
      continue;
    }
    const fields job(errors, static_cast<const properties&>(*e), path, "a job", job_keys);
    properties checked;
    copy_run_parameters(job, checked);
    job.text("name");
    std::int64_t number = 0;
    job.integer("priority", std::numeric_limits<std::int64_t>::min(),
                std::numeric_limits<std::int64_t>::max(), number);
    job.integer("max-attempts", 1, max_attempts, number);
    job.integer("tasks", 1, max_job_tasks, number);
  }
  if (out.errors.size() != errors_before) return;
  // Every key was checked: the jobs go to the master as they were written.
  out.submission["jobs"] = d.get_property("jobs");
  if (d.is_present("name")) out.submission["name"] = d.get_property("name");
}

}  // namespace description_detail

const char* description_issue_c_str(description_issue issue) {
  switch (issue) {
    case description_issue::missing: return "missing";
    case description_issue::unknown_key: return "unknown-key";
    case description_issue::wrong_kind: return "wrong-kind";
    case description_issue::out_of_range: return "out-of-range";
    case description_issue::bad_name: return "bad-name";
    case description_issue::duplicate: return "duplicate";
    case description_issue::unknown_name: return "unknown-name";
    case description_issue::cycle: return "cycle";
    case description_issue::bad_value: return "bad-value";
    case description_issue::no_value: return "no-value";
  }
  return "unknown";
}

description_setting parse_description_setting(const std::string& text) {
  const std::size_t equals = text.find('=');
  if (equals == std::string::npos || equals == 0) {
    zelbase::es::arg::raise(source_file, __LINE__, "'" + text + "' is not NAME=VALUE");
  }
  return {text.substr(0, equals), zelcore::make_string(text.substr(equals + 1))};
}

work_description convert_description(const properties& description,
                                     const std::vector<description_setting>& settings) {
  work_description out;
  error_list errors(out.errors);
  const std::vector<std::string> kinds{"tasks", "jobs"};
  if (description.is_present("tasks")) {
    out.kind = description_kind::workflow;
    properties workflow = description;
    if (workflow.erase("jobs")) {
      errors.add("/jobs", description_issue::bad_value,
                 "a description has \"tasks\" (a workflow) or \"jobs\" (plain jobs), not both");
    }
    convert_workflow(workflow, settings, errors, out);
    return out;
  }
  if (description.is_present("jobs")) {
    out.kind = description_kind::jobs;
    convert_jobs(description, errors, out);
    for (std::size_t i = 0; i < settings.size(); ++i) {
      errors.add("", description_issue::unknown_name, "a jobs description takes no in-values",
                 static_cast<int>(i));
    }
    return out;
  }
  // Neither: a misspelt "tasks" or "jobs" is the likely cause.
  for (const auto& [key, value] : description) {
    const std::string hint = did_you_mean(key, kinds);
    if (value && !hint.empty()) {
      errors.add(child_path("", key), description_issue::unknown_key,
                 "unknown key '" + key + "'" + hint);
      return out;
    }
  }
  errors.add("", description_issue::missing,
             "a description has \"tasks\" (a workflow) or \"jobs\" (plain jobs)");
  return out;
}

properties work_description::add_workflow_action(const std::string& state_id) const {
  if (kind != description_kind::workflow || !valid()) {
    zelbase::es::arg::raise(source_file, __LINE__,
                            "add_workflow_action needs a valid workflow description");
  }
  properties action;
  action.set_string_value("action", "add-workflow");
  action.set_string_value("state-id", state_id);
  action.set_properties_value("workflow", workflow);
  return action;
}

properties work_description::spawn_action(const std::string& template_id,
                                          const std::string& state_id) const {
  if (kind != description_kind::workflow || !valid() || !is_template) {
    zelbase::es::arg::raise(source_file, __LINE__,
                            "spawn_action needs a valid template description");
  }
  properties action;
  action.set_string_value("action", "set-in-values");
  action.set_string_value("workflow-id", template_id);
  action.set_properties_value("workflow-meta", properties());
  action.set_string_value("force-state-id", state_id);
  action.set_bool_value("force-spawn-value", false);
  action.set_properties_value("values", spawn_values);
  action.set_string_value("originator", "");
  return action;
}

}  // namespace zelcapi
