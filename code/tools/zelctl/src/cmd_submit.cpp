// zelctl submit: checks a work description file, sends it to the master through the library's
// work_client, prints the master's outcome per item and, with --wait or --watch, waits until the
// work has ended and exits by how it ended.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "description_check.h"
#include "json_output.h"
#include "stop_signal.h"
#include "write_outcomes.h"
#include "zelcapi/state_connection.h"
#include "zelcapi/work_client.h"
#include "zelcore/identifiers.h"
#include "zelcore/plugin_db.h"

namespace zelctl {
namespace {

struct submit_flags {
  std::string file;
  std::vector<std::string> settings;
  std::string key;
  bool dry_run = false;
  bool wait = false;
  bool watch = false;
  unsigned wait_timeout = 0;
};

// The longest wait the library takes, for a wait without --wait-timeout.
constexpr unsigned unlimited_wait_ms = std::numeric_limits<unsigned>::max();
constexpr unsigned max_wait_timeout_s = unlimited_wait_ms / 1000;

// A template's state id: the workflow's name and a digest of the request's key when the user gave
// one, so that the same --key makes the same request (the master refuses a key reused for other
// fields); else of a fresh unique id.
std::string template_id(const std::string& name, const std::string& key) {
  const std::string seed = key.empty() ? zelcore::string_uuid(false) : key;
  std::uint64_t hash = 14695981039346656037ull;  // FNV-1a
  for (const unsigned char c : seed) hash = (hash ^ c) * 1099511628211ull;
  char hex[17];
  std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(hash));
  return name + "-template-" + hex;
}

// What the master said of one item, and where the item came from: a workflow action's name, or
// a job's place in the description ("/jobs/2").
struct answered_item {
  std::string what;
  zelcapi::item_result result;
};

// Sends the description and returns the master's answer; `items` gets each of its items with
// where it came from.
zelcapi::write_result send(const zelcapi::work_description& d, zelcapi::work_client& client,
                           const zelcapi::write_options& options,
                           std::vector<answered_item>& items) {
  zelcapi::write_result result;
  std::vector<std::string> what;
  if (d.kind == zelcapi::description_kind::jobs) {
    std::vector<zelcore::properties> jobs;
    for (const zelcore::property_ptr& job : d.submission.get_list_value("jobs")) {
      jobs.push_back(static_cast<const zelcore::properties&>(*job));
      what.push_back("/jobs/" + std::to_string(what.size()));
    }
    result = client.submit_jobs(jobs, d.name, options);
  } else if (d.is_template && options.dry_run) {
    // The master checks each item against its state as it is, where a template that a dry run
    // adds is never there: the template alone is checked (zelctl checked the values).
    result =
        client.update_workflows({d.add_workflow_action(template_id(d.name, options.key))}, options);
  } else if (d.is_template) {
    // The template, a workflow spawned from it with the values, and the template removed again:
    // one request, so that the key covers all three. The spawned workflow is a copy and stays.
    const std::string id = template_id(d.name, options.key);
    result = client.update_workflows(
        {d.add_workflow_action(id), d.spawn_action(id, ""), client.actions().remove_workflow(id)},
        options);
  } else {
    result = client.update_workflows({d.add_workflow_action("")}, options);
  }
  for (std::size_t i = 0; i < result.items.size(); ++i) {
    const zelcapi::item_result& r = result.items[i];
    items.push_back({i < what.size() ? what[i] : r.action, r});
  }
  return result;
}

// The ids of what runs: the workflow that was added or spawned, or every job made.
std::vector<std::string> work_ids(const zelcapi::work_description& d,
                                  const std::vector<answered_item>& items) {
  std::vector<std::string> ids;
  if (d.kind == zelcapi::description_kind::jobs) {
    for (const answered_item& i : items) ids.push_back(i.result.id);
  } else {
    const std::size_t runs = d.is_template ? 1 : 0;
    if (runs < items.size()) ids.push_back(items[runs].result.id);
  }
  return ids;
}

// How a piece of work ended, or why the wait for it did.
struct ending {
  std::string id;
  std::string status;  // finished, failed, killed, cancelled; timed-out, removed, link-lost
  std::string text;
  exit_code code = exit_ok;
};

exit_code code_of_status(const std::string& status) {
  if (status == "finished") return exit_ok;
  if (status == "failed") return exit_work_failed;
  return exit_work_cancelled;  // killed, cancelled
}

// Which end of several decides the exit code: a wait that failed, then failed work, then
// cancelled work.
int severity(exit_code code) {
  switch (code) {
    case exit_work_cancelled: return 1;
    case exit_work_failed: return 2;
    case exit_work_removed: return 3;
    case exit_wait_timed_out: return 4;
    case exit_connection: return 5;
    case exit_interrupted: return 6;
    default: return 0;
  }
}

ending ended_as(const zelcapi::work_record& r) {
  ending e;
  e.id = r.id;
  if (r.type == zelcapi::work_record::job) {
    e.status = r.record.get_string_value("state", "");
  } else {
    e.status = zelcapi::workflow_status_c_str(r.has_result ? r.result.status : r.status);
  }
  e.text = "ended " + e.status;
  if (r.has_result) e.text += " (" + plural(r.result.ht, "job", "jobs") + " run)";
  e.code = code_of_status(e.status);
  return e;
}

ending wait_failed(const std::string& id, const zelcapi::wait_error& w) {
  ending e;
  e.id = id;
  e.text = w.message();
  switch (w.why()) {
    case zelcapi::wait_error::timed_out:
      e.status = "timed-out";
      e.code = exit_wait_timed_out;
      break;
    case zelcapi::wait_error::removed:
      e.status = "removed";
      e.code = exit_work_removed;
      break;
    case zelcapi::wait_error::link_lost:
      e.status = "link-lost";
      e.code = exit_connection;
      break;
  }
  return e;
}

// The live status line of --watch: rewritten in place on a terminal, else one line per change.
class status_line {
 public:
  explicit status_line(std::FILE* out) : out_(out), terminal_(isatty(fileno(out)) != 0) {}
  ~status_line() { finish(); }
  void show(const std::string& text) {
    if (text == last_) return;
    last_ = text;
    if (terminal_) {
      std::fprintf(out_, "\r\033[K%s", text.c_str());
    } else {
      std::fprintf(out_, "%s\n", text.c_str());
    }
    std::fflush(out_);
  }
  void finish() {
    if (terminal_ && !last_.empty()) std::fprintf(out_, "\n");
    last_.clear();
  }

 private:
  std::FILE* out_;
  bool terminal_;
  std::string last_;
};

// "3 finished, 1 running": counts by name, in name order.
std::string counted(const std::map<std::string, int>& counts) {
  std::string out;
  for (const auto& [name, n] : counts) {
    out += (out.empty() ? "" : ", ") + std::to_string(n) + " " + name;
  }
  return out;
}

const char* task_status_name(std::int64_t status) {
  static const char* const names[] = {"waiting",  "runnable", "running",
                                      "finished", "failed",   "killed"};
  return status >= 0 && status < 6 ? names[status] : "unknown";
}

// A workflow's line: its status and its tasks counted by status.
std::string workflow_line(const zelcapi::work_record& r) {
  if (r.has_result || !r.seen) return r.describe();
  std::map<std::string, int> counts;
  for (const auto& [name, task] : r.record.get_properties_value("tasks", zelcore::properties())) {
    if (!task || task->kind() != zelcore::property::kind_properties) continue;
    const auto& t = static_cast<const zelcore::properties&>(*task);
    const std::int64_t status = t.get_int_value("status", 0);
    // A waiting task whose job is queued or sent to a node says so.
    const std::int64_t scheduling = status == 0 ? t.get_int_value("scheduling-state", 0) : 0;
    ++counts[scheduling == 1   ? "queued"
             : scheduling == 2 ? "dispatched"
                               : task_status_name(status)];
  }
  return r.describe() + ": tasks " + counted(counts);
}

// The jobs' line: their states as the replica holds them.
std::string jobs_line(const zelcapi::state& replica, const std::vector<std::string>& ids) {
  std::map<std::string, int> counts;
  for (const std::string& id : ids) {
    ++counts[replica.has_item(zelcapi::state_item_job, id)
                 ? replica.get_item(zelcapi::state_item_job, id).get_string_value("state", "?")
                 : "not seen"];
  }
  return "jobs: " + counted(counts);
}

ending interrupted(const std::string& id, const zelcapi::wait_error& w) {
  ending e;
  e.id = id;
  e.status = "interrupted";
  const std::string last = w.last().state_name();
  e.text =
      "stopped waiting" + (last.empty() ? std::string() : " at " + last) + ": the work goes on";
  e.code = exit_interrupted;
  return e;
}

// A wait runs in slices of this length so that Ctrl-C or SIGTERM ends it.
constexpr unsigned wait_slice_ms = 200;

// Waits for every id in turn within one time-out; stops at the first wait that fails or when a
// stop signal arrives.
std::vector<ending> wait_for(const zelcapi::work_description& d, zelcapi::work_client& client,
                             const zelcapi::state& replica, const std::vector<std::string>& ids,
                             const submit_flags& f, std::FILE* watch_out) {
  std::unique_ptr<status_line> line;
  if (f.watch) line = std::make_unique<status_line>(watch_out);
  const bool jobs = d.kind == zelcapi::description_kind::jobs;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(f.wait_timeout);
  const auto left_ms = [&] {
    if (f.wait_timeout == 0) return unlimited_wait_ms;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - std::chrono::steady_clock::now())
                          .count();
    return static_cast<unsigned>(std::max<long long>(left, 0));
  };
  // A workflow's end is its result, which the master records just before it removes the
  // workflow: its status alone may say finished while the result is still on its way.
  const zelcapi::work_client::wait_predicate until = [&](const zelcapi::work_record& r) {
    if (line) line->show(jobs ? jobs_line(replica, ids) : workflow_line(r));
    return jobs ? r.ended() : r.has_result;
  };
  std::vector<ending> out;
  for (const std::string& id : ids) {
    for (;;) {
      const unsigned ms = left_ms();
      const unsigned slice = std::min(ms, wait_slice_ms);
      try {
        out.push_back(ended_as(jobs ? client.wait_for_job(id, slice, until)
                                    : client.wait_for_workflow(id, slice, until)));
        break;
      } catch (const zelcapi::wait_error& w) {
        const bool slice_over = w.why() == zelcapi::wait_error::timed_out && slice < ms;
        if (slice_over && !stop_requested()) continue;
        if (line) line->finish();
        out.push_back(slice_over ? interrupted(id, w) : wait_failed(id, w));
        return out;
      }
    }
  }
  if (line) line->finish();
  return out;
}

nlohmann::json item_json(const answered_item& i, bool jobs) {
  nlohmann::json item{{jobs ? "place" : "action", i.what},
                      {"outcome", zelcapi::write_outcome_c_str(i.result.outcome)}};
  if (!i.result.id.empty()) item["id"] = i.result.id;
  if (!i.result.text.empty()) item["text"] = i.result.text;
  if (!i.result.owner.empty()) item["owner"] = i.result.owner;
  return item;
}

void print_items(const submit_flags& f, const zelcapi::write_result& result,
                 const std::vector<answered_item>& items) {
  std::size_t what_width = 0;
  std::size_t id_width = 1;
  for (const answered_item& i : items) {
    what_width = std::max(what_width, i.what.size());
    id_width = std::max(id_width, i.result.id.size());
  }
  for (const answered_item& i : items) {
    std::printf("%-*s  %-*s  %s\n", static_cast<int>(what_width), i.what.c_str(),
                static_cast<int>(id_width), i.result.id.empty() ? "-" : i.result.id.c_str(),
                outcome_words(i.result).c_str());
  }
  if (!result.submission_id.empty()) std::printf("submission %s\n", result.submission_id.c_str());
  if (result.repeated) {
    std::printf(
        "(key %s was sent before: this is the master's first answer, nothing was made "
        "again)\n",
        result.key.c_str());
  }
  if (f.dry_run) std::printf("(dry run: the master checked these and changed nothing)\n");
  std::fflush(stdout);
}

int run_submit(const submit_flags& f, const global_options& o, target& t) {
  const zelcapi::work_description d = checked_description(f.file, f.settings);
  const bool waiting = f.wait || f.watch;
  // From here on a first Ctrl-C ends the wait that follows (a second one ends zelctl at once).
  if (waiting) install_stop_signals();
  zelcore::plugin_db plugins;
  zelcapi::state_handler quiet;
  // Waiting needs a replica, loaded before the request so that no change of the work is missed.
  std::unique_ptr<zelcapi::connection> link;
  std::unique_ptr<zelcapi::work_client> client;
  if (waiting) {
    auto state_link = std::make_unique<zelcapi::state_connection>(&quiet, 600, &plugins);
    load_snapshot(*state_link, t);
    client = std::make_unique<zelcapi::work_client>(*state_link, plugins);
    link = std::move(state_link);
  } else {
    link = std::make_unique<zelcapi::connection>();
    log_in(*link, t);
    client = std::make_unique<zelcapi::work_client>(*link, plugins);
  }
  client->set_timeout(t.timeout());
  zelcapi::write_options options;
  options.key = f.key;
  options.dry_run = f.dry_run;
  std::vector<answered_item> items;
  zelcapi::write_result result;
  try {
    result = send(d, *client, options, items);
  } catch (const zelcapi::write_error& e) {
    // Whether the master applied it is unknown: the same key sends it again safely.
    const bool unknown =
        e.why() == zelcapi::write_error::timed_out || e.why() == zelcapi::write_error::link_lost;
    throw failure(
        e.why() == zelcapi::write_error::link_lost ? exit_connection : exit_failure,
        e.message() +
            (unknown ? " (sending it again with --key " + e.key() + " makes nothing twice)" : ""));
  }
  const bool jobs = d.kind == zelcapi::description_kind::jobs;
  if (!o.json) print_items(f, result, items);
  int code = result.all_ok() ? exit_ok : exit_refused;
  std::vector<ending> ends;
  if (waiting && code == exit_ok) {
    const auto* state_link = static_cast<const zelcapi::state_connection*>(link.get());
    ends = wait_for(d, *client, *state_link->get_state(), work_ids(d, items), f,
                    o.json ? stderr : stdout);
    for (const ending& e : ends) {
      if (severity(e.code) > severity(static_cast<exit_code>(code))) code = e.code;
    }
  }
  if (o.json) {
    nlohmann::json all = nlohmann::json::array();
    for (const answered_item& i : items) all.push_back(item_json(i, jobs));
    nlohmann::json out{{"file", f.file},
                       {"kind", jobs            ? "jobs"
                                : d.is_template ? "template"
                                                : "workflow"},
                       {"name", d.name},
                       {"key", result.key},
                       {"dry-run", result.dry_run},
                       {"repeated", result.repeated},
                       {"items", all}};
    if (!result.submission_id.empty()) out["submission-id"] = result.submission_id;
    if (waiting && !ends.empty()) {
      nlohmann::json ended = nlohmann::json::array();
      for (const ending& e : ends) {
        ended.push_back({{"id", e.id}, {"status", e.status}, {"text", e.text}});
      }
      out["ended"] = ended;
    }
    out["exit-code"] = code;
    print_json(out, true);
  } else {
    for (const ending& e : ends) std::printf("%s  %s\n", e.id.c_str(), e.text.c_str());
    std::fflush(stdout);
  }
  for (const ending& e : ends) {
    if (e.code != exit_ok && e.code != exit_work_failed && e.code != exit_work_cancelled) {
      std::fprintf(stderr, "zelctl: %s\n", e.text.c_str());
    }
  }
  return code;
}

}  // namespace

command add_submit_command(CLI::App& app, global_options& options) {
  CLI::App* sub = app.add_subcommand(
      "submit",
      "check a work description file (YAML or JSON) and submit it: a workflow, a template "
      "spawned with --set values, or plain jobs");
  auto flags = std::make_shared<submit_flags>();
  sub->add_option("file", flags->file, "the description file")->required();
  sub->add_option("--set", flags->settings, "NAME=VALUE: a value for one of the in-values")
      ->allow_extra_args(false);
  sub->add_option("--key", flags->key,
                  "the request's client key: the same key again never makes the work twice "
                  "(default: a new one)")
      ->check(CLI::Validator(
          [](std::string& key) { return key.empty() ? std::string("the key is empty") : ""; },
          "KEY"));
  CLI::Option* dry =
      sub->add_flag("--dry-run", flags->dry_run,
                    "ask the master to check every item and answer, changing nothing");
  CLI::Option* wait =
      sub->add_flag("--wait", flags->wait, "wait until the work has ended; exit by how it ended");
  CLI::Option* watch = sub->add_flag("--watch", flags->watch,
                                     "wait as --wait does, with a live status line meanwhile");
  sub->add_option("--wait-timeout", flags->wait_timeout,
                  "with --wait or --watch: seconds to wait for the work's end at most (0: no "
                  "limit); --timeout is each answer's")
      ->check(CLI::Range(0u, max_wait_timeout_s));
  dry->excludes(wait)->excludes(watch);
  add_json_flag(*sub, options);
  return {sub, [flags, &options](target& t) { return run_submit(*flags, options, t); }};
}

}  // namespace zelctl
