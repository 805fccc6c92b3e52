// zelctl cancel, hold, release, retry and priority: steers jobs and workflows named by their ids
// and prints the master's outcome of each, in the order of the command line.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "json_output.h"
#include "write_outcomes.h"
#include "zelcapi/connection.h"
#include "zelcapi/work_client.h"
#include "zelcore/plugin_db.h"

namespace zelctl {
namespace {

// What one subcommand does to jobs and, when it applies to them, to workflows.
struct verb {
  const char* name;
  const char* help;
  zelcapi::job_action job;
  bool takes_workflows;
};

const verb verbs[] = {
    {"cancel",
     "cancel jobs (queued, held or running) and workflows (their jobs end, they end killed)",
     zelcapi::job_action::cancel, true},
    {"hold", "hold queued jobs: they do not start until released", zelcapi::job_action::hold,
     false},
    {"release", "release held jobs: they queue again", zelcapi::job_action::release, false},
    {"retry", "queue failed or cancelled jobs again", zelcapi::job_action::retry, false},
    {"priority", "set the priority of jobs and workflows (--to P)", zelcapi::job_action::priority,
     true},
};

struct steer_flags {
  std::vector<std::string> ids;
  std::int64_t priority = 0;
  bool dry_run = false;
  bool admin = false;
};

// A job's id begins with "job-"; every other id names a workflow by its state id.
bool is_job_id(const std::string& id) { return id.rfind("job-", 0) == 0; }

// A priority as the master takes it: a whole number that fits in 64 bits. The flag's own
// conversion would turn a larger one into the largest priority without a word.
std::string check_priority(std::string& value) {
  errno = 0;
  char* end = nullptr;
  std::strtoll(value.c_str(), &end, 10);
  if (value.empty() || *end != '\0') return "'" + value + "' is not a whole number";
  if (errno == ERANGE) return "'" + value + "' is outside the priorities' range (64 bits)";
  return "";
}

// One id of the command line and what the master said of it.
struct steered {
  std::string id;
  bool job = true;
  bool answered = false;
  zelcapi::item_result result;
};

void print_outcomes(const std::vector<steered>& all, bool dry_run, bool json) {
  if (json) {
    nlohmann::json items = nlohmann::json::array();
    for (const steered& s : all) {
      if (!s.answered) continue;
      nlohmann::json item{{"id", s.id},
                          {"kind", s.job ? "job" : "workflow"},
                          {"outcome", zelcapi::write_outcome_c_str(s.result.outcome)}};
      if (!s.result.text.empty()) item["text"] = s.result.text;
      if (!s.result.owner.empty()) item["owner"] = s.result.owner;
      items.push_back(item);
    }
    print_json({{"dry-run", dry_run}, {"items", items}}, true);
    return;
  }
  int width = 0;
  for (const steered& s : all) width = std::max(width, static_cast<int>(s.id.size()));
  for (const steered& s : all) {
    if (!s.answered) continue;
    std::printf("%-*s  %s\n", width, s.id.c_str(), outcome_words(s.result).c_str());
  }
  if (dry_run) std::printf("(dry run: the master checked these and changed nothing)\n");
  std::fflush(stdout);
}

// Puts the items of `result` on the ids of `all` that `job` selects, in order.
void take_items(std::vector<steered>& all, bool job, const zelcapi::write_result& result) {
  std::size_t next = 0;
  for (steered& s : all) {
    if (s.job != job || next >= result.items.size()) continue;
    s.result = result.items[next++];
    s.answered = true;
  }
}

int run_steer(const verb& v, const steer_flags& f, const global_options& o, target& t) {
  std::vector<steered> all;
  std::vector<std::string> jobs;
  std::vector<std::string> workflows;
  for (const std::string& id : f.ids) {
    steered s;
    s.id = id;
    s.job = is_job_id(id);
    (s.job ? jobs : workflows).push_back(id);
    all.push_back(s);
  }
  zelcapi::connection c;
  if (f.admin) {
    admin_log_in(c, t);
  } else {
    log_in(c, t);
  }
  zelcore::plugin_db plugins;
  zelcapi::work_client client(c, plugins);
  client.set_timeout(t.timeout());
  zelcapi::write_options options;
  options.dry_run = f.dry_run;
  try {
    if (!jobs.empty()) {
      take_items(all, true, client.steer_jobs(v.job, jobs, f.priority, options));
    }
    if (!workflows.empty()) {
      take_items(all, false,
                 v.job == zelcapi::job_action::cancel
                     ? client.cancel_workflows(workflows, options)
                     : client.set_workflow_priority(workflows, f.priority, options));
    }
  } catch (const zelcapi::write_error& e) {
    // When the jobs' answer came before the workflows' request failed, it is still printed.
    if (std::any_of(all.begin(), all.end(), [](const steered& s) { return s.answered; })) {
      print_outcomes(all, f.dry_run, o.json);
    }
    throw failure(e.why() == zelcapi::write_error::link_lost ? exit_connection : exit_failure,
                  e.message());
  }
  print_outcomes(all, f.dry_run, o.json);
  for (const steered& s : all) {
    if (!s.answered || !s.result.ok()) return exit_refused;
  }
  return exit_ok;
}

command add_steer_command(CLI::App& app, global_options& options, const verb& v) {
  CLI::App* sub = app.add_subcommand(v.name, v.help);
  auto flags = std::make_shared<steer_flags>();
  const std::string name = v.name;
  const bool takes_workflows = v.takes_workflows;
  sub->add_option("ids", flags->ids,
                  takes_workflows ? "ids of jobs (job-...) or workflows (any other id)"
                                  : "ids of jobs (job-...)")
      ->required()
      ->check(CLI::Validator(
          [name, takes_workflows](std::string& id) -> std::string {
            if (id.empty()) return "an id is empty";
            if (!takes_workflows && !is_job_id(id)) {
              return "'" + id + "' is not a job id (job-...): " + name + " takes jobs only";
            }
            return "";
          },
          "ID"));
  if (v.job == zelcapi::job_action::priority) {
    sub->add_option("--to", flags->priority, "the new priority (higher runs first)")
        ->required()
        ->check(CLI::Validator(check_priority, "PRIORITY"));
  }
  sub->add_flag("--dry-run", flags->dry_run,
                "ask the master to check every item and answer, changing nothing");
  sub->add_flag("--admin", flags->admin, "log in as an administrator (steers everyone's work)");
  add_json_flag(*sub, options);
  return {sub, [&v, flags, &options](target& t) { return run_steer(v, *flags, options, t); }};
}

}  // namespace

std::vector<command> add_steer_commands(CLI::App& app, global_options& options) {
  std::vector<command> out;
  for (const verb& v : verbs) out.push_back(add_steer_command(app, options, v));
  return out;
}

}  // namespace zelctl
