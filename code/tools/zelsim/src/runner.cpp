// The runner: its clock, the queue of jobs, their start on nodes with free cores, their ends and
// retries, the steering of plain jobs, and the ended jobs' way into history.
#include "runner.h"

#include <chrono>
#include <cstdio>
#include <limits>
#include <optional>

#include "records.h"
#include "zelbase/exceptions.h"
#include "zelbase/strings.h"
#include "zelbase/time.h"

namespace zelsim {

namespace {

using zelcapi::state_item_type;
using zelcore::properties;

constexpr const char* source_file = "code\\tools\\zelsim\\src\\runner";

std::uint64_t steady_ms() {
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                        std::chrono::steady_clock::now().time_since_epoch())
                                        .count());
}

}  // namespace

runner::runner(master_state& master, node_pool& pool, const options& o)
    : master_(master),
      pool_(pool),
      run_ms_(o.run_ms),
      manual_(o.manual_time),
      key_keep_ms_(std::uint64_t{o.key_keep_time} * 1000),
      job_keep_ms_(std::uint64_t{o.job_keep_time} * 1000),
      epoch_(o.start_time != 0 ? o.start_time : zelbase::time_in_seconds()),
      started_(steady_ms()) {}

// --- the clock ---

std::uint64_t runner::clock_now() const { return manual_ ? now_ : steady_ms() - started_; }

std::uint32_t runner::seconds() const { return epoch_ + static_cast<std::uint32_t>(now_ / 1000); }

std::uint64_t runner::next_event() const {
  std::uint64_t next = std::numeric_limits<std::uint64_t>::max();
  for (const auto* events : {&ends_, &retire_, &forget_}) {
    if (!events->empty()) next = std::min(next, events->begin()->first);
  }
  return next;
}

void runner::catch_up(std::uint64_t until) {
  for (std::uint64_t at = next_event(); at <= until; at = next_event()) {
    now_ = std::max(now_, at);
    while (!ends_.empty() && ends_.begin()->first <= now_) {
      job& j = jobs_.at(ends_.begin()->second);
      ends_.erase(ends_.begin());
      end_attempt(j, j.succeeds());
    }
    while (!retire_.empty() && retire_.begin()->first <= now_) {
      const auto [when, id] = *retire_.begin();
      retire_.erase(retire_.begin());
      retire(id);
    }
    while (!forget_.empty() && forget_.begin()->first <= now_) {
      gone_.erase(forget_.begin()->second);
      forget_.erase(forget_.begin());
    }
    settle();
  }
  now_ = std::max(now_, until);
  // The workload's jobs end on their own time: their cores may let a queued job start.
  if (!queue_.empty()) dispatch();
}

unsigned runner::drive() {
  if (manual_) return 100;
  catch_up(clock_now());
  const std::uint64_t next = next_event();
  return next >= now_ + 100 ? 100 : static_cast<unsigned>(next > now_ ? next - now_ : 0);
}

void runner::advance(std::uint64_t ms) {
  if (!manual_) {
    zelbase::es::arg::raise(source_file, __LINE__,
                            "the runner's clock follows real time; advancing it needs "
                            "options.manual_time");
  }
  catch_up(now_ + ms);
}

// --- jobs ---

runner::job runner::new_job(const char* prefix, const std::string& owner,
                            const std::string& client_id) {
  char id[32];
  std::snprintf(id, sizeof id, "%s%07llu", prefix, static_cast<unsigned long long>(++next_job_));
  job j;
  j.id = id;
  j.owner = owner;
  j.client_id = client_id;
  return j;
}

const char* runner::state_name(job_state s) {
  switch (s) {
    case job_state::queued: return "queued";
    case job_state::held: return "held";
    case job_state::running: return "running";
    case job_state::finished: return "finished";
    case job_state::failed: return "failed";
    case job_state::cancelled: return "cancelled";
  }
  return "unknown";
}

properties runner::job_record(const job& j, const std::string& name) const {
  properties record;
  record.set_string_value("id", j.id);
  record.set_string_value("name", name);
  record.set_string_value("state", "queued");
  record.set_string_value("node", "");
  if (j.plain()) record.set_string_value("submission-id", j.submission);
  record.set_string_value("client-id", j.client_id);
  record.set_string_value("user", j.owner);
  record.set_string_value("queue", j.params.queue);
  record.set_int_value("priority", j.priority);
  record.set_properties_value("progress", progress_of(0, 0));
  record.set_int_value("submit-time", seconds());
  record.set_int_value("start-time", 0);
  record.set_int_value("end-time", 0);
  record.set_int_value("exit-code", -1);
  record.set_int_value("cores", j.params.cores);
  record.set_int_value("memory-mb", j.params.memory_mb);
  record.set_string_value("command", j.params.command);
  record.set_int_value("attempts", 0);
  record.set_int_value("max-attempts", j.params.max_attempts);
  record.set_int_value("task-count", j.params.tasks);
  record["tags"] = zelcore::make_string_list(j.params.tags);
  record.set_properties_value("env", j.params.env);
  return record;
}

// Each task record of a plain job gets `update`.
void runner::update_tasks(const job& j, const properties& update) {
  for (std::int64_t t = 1; t <= j.params.tasks; ++t) {
    master_.update_item(zelcapi::state_item_task, j.id + ".t" + std::to_string(t), update);
  }
}

std::string runner::submit(const std::vector<job_params>& specs, const std::string& name,
                           const identity& who, std::vector<std::string>& ids) {
  if (specs.empty()) return "";
  char submission_id[32];
  std::snprintf(submission_id, sizeof submission_id, "sub-s%06llu",
                static_cast<unsigned long long>(++next_submission_));
  const std::string submission = submission_id;
  properties sub;
  sub.set_string_value("id", submission);
  sub.set_string_value("client-id", who.client_id);
  sub.set_string_value("user", who.user);
  sub.set_string_value("name", name);
  sub.set_int_value("job-count", static_cast<std::int64_t>(specs.size()));
  sub.set_int_value("submit-time", seconds());
  master_.set_item(zelcapi::state_item_submission, submission, sub);
  for (const job_params& params : specs) {
    job j = new_job("job-s", who.user, who.client_id);
    j.submission = submission;
    j.params = params;
    j.priority = params.priority;
    const std::string name = params.name.empty() ? j.id : params.name;
    master_.set_item(zelcapi::state_item_job, j.id, job_record(j, name));
    for (std::int64_t t = 1; t <= params.tasks; ++t) {
      const std::string task_id = j.id + ".t" + std::to_string(t);
      master_.set_item(zelcapi::state_item_task, task_id,
                       queued_task_record(task_id, name + " part " + std::to_string(t), j.id,
                                          submission, who.client_id));
    }
    ids.push_back(j.id);
    enqueue(jobs_.emplace(j.id, std::move(j)).first->second);
  }
  submissions_[submission] = static_cast<std::int64_t>(specs.size());
  dispatch();
  return submission;
}

void runner::enqueue(job& j) {
  j.state = job_state::queued;
  j.order = ++next_order_;
  queue_.emplace(j.priority, j.order, j.id);
}

void runner::reprioritise(job& j, std::int64_t priority) {
  if (j.state == job_state::queued) {
    queue_.erase(queue_key(j.priority, j.order, j.id));
    queue_.emplace(priority, j.order, j.id);
  }
  j.priority = priority;
}

void runner::dispatch() {
  // The first job that does not fit holds a node against the workload, and the jobs after it do
  // not take that node's cores either: it starts once that node's running jobs have ended.
  pool_.release_holds();
  bool holding = false;
  for (auto it = queue_.begin(); it != queue_.end() && pool_.most_free() > 0;) {
    job& j = jobs_.at(std::get<2>(*it));
    const std::optional<std::size_t> node = pool_.free_node(j.params.cores, 0, holding);
    if (!node) {
      holding = holding || pool_.hold_for(j.params.cores);
      ++it;
      continue;
    }
    it = queue_.erase(it);
    start(j, *node);
  }
}

void runner::start(job& j, std::size_t node) {
  const std::string& node_id = pool_.nodes()[node].id;
  pool_.take(node, j.params.cores);
  j.node = node;
  j.slot = node_id + "/" + j.id;
  j.state = job_state::running;
  ++j.attempts;
  j.ends_at = now_ + static_cast<std::uint64_t>(j.params.run_ms);
  ends_.emplace(j.ends_at, j.id);
  properties slot;
  slot.set_string_value("id", j.slot);
  slot.set_string_value("node", node_id);
  slot.set_string_value("job-id", j.id);
  slot.set_int_value("cores", j.params.cores);
  slot.set_int_value("since", seconds());
  master_.set_item(zelcapi::state_item_slot, j.slot, slot);
  properties update;
  update.set_string_value("state", "running");
  update.set_string_value("node", node_id);
  update.set_string_value("slot-id", j.slot);
  update.set_int_value("start-time", seconds());
  update.set_int_value("attempts", j.attempts);
  master_.update_item(zelcapi::state_item_job, j.id, update);
  if (j.plain()) {
    properties task;
    task.set_string_value("state", "running");
    task.set_string_value("node", node_id);
    task.set_int_value("start-time", seconds());
    update_tasks(j, task);
  } else {
    master_.get_workflow_manager().set_task_status(
        j.workflow, j.task, zelcore::task::status_running, seconds(), node_id, "job " + j.id);
  }
  pool_.update_record(node);
}

void runner::release_node(job& j) {
  pool_.give(j.node, j.params.cores);
  master_.remove_item(zelcapi::state_item_slot, j.slot);
  master_.erase_property_ref(zelcapi::state_item_job, j.id, "/slot-id");
  pool_.update_record(j.node);
  j.slot.clear();
}

void runner::end_attempt(job& j, bool ok) {
  const std::int64_t exit_code = ok ? 0 : j.params.exit_code;
  if (j.plain() && !ok && j.attempts < j.params.max_attempts) {
    // The next attempt waits in the queue like a new job.
    properties update;
    update.set_string_value("state", "queued");
    update.set_string_value("node", "");
    update.set_int_value("exit-code", exit_code);
    master_.update_item(zelcapi::state_item_job, j.id, update);
    properties task;
    task.set_string_value("state", "queued");
    task.set_string_value("node", "");
    update_tasks(j, task);
    release_node(j);
    enqueue(j);
    return;
  }
  finish(j, ok ? job_state::finished : job_state::failed, exit_code);
  if (!j.plain()) task_ended(j, ok, exit_code);
}

void runner::finish(job& j, job_state end, std::int64_t exit_code) {
  const bool was_running = j.state == job_state::running;
  if (was_running) {
    for (auto [at, last] = ends_.equal_range(j.ends_at); at != last; ++at) {
      if (at->second != j.id) continue;
      ends_.erase(at);
      break;
    }
  } else if (j.state == job_state::queued) {
    queue_.erase(queue_key(j.priority, j.order, j.id));
  }
  j.state = end;
  properties update;
  update.set_string_value("state", state_name(end));
  update.set_int_value("end-time", seconds());
  update.set_int_value("exit-code", exit_code);
  if (end == job_state::finished) update.set_properties_value("progress", progress_of(100, 1));
  master_.update_item(zelcapi::state_item_job, j.id, update);
  if (j.plain()) {
    properties task;
    task.set_string_value("state", state_name(end));
    task.set_int_value("end-time", seconds());
    task.set_int_value("exit-code", exit_code);
    update_tasks(j, task);
  }
  if (was_running) release_node(j);
  j.retire_at = now_ + job_keep_ms_;
  retire_.emplace(j.retire_at, j.id);
  if (!j.plain()) {
    task_jobs_.erase(zelcapi::workflow_manager::create_wpath(j.workflow, j.task));
    const auto f = flows_.find(j.workflow);
    if (f != flows_.end()) --f->second.active;
    touch(j.workflow);
  }
}

void runner::retire(const std::string& id) {
  const auto it = jobs_.find(id);
  // A job that ran again after its end waits for its new end.
  if (it == jobs_.end() || it->second.retire_at > now_ || it->second.state == job_state::queued ||
      it->second.state == job_state::held || it->second.state == job_state::running) {
    return;
  }
  const job& j = it->second;
  if (j.plain()) {
    for (std::int64_t t = 1; t <= j.params.tasks; ++t) {
      master_.historize_item(zelcapi::state_item_task, j.id + ".t" + std::to_string(t));
    }
  }
  master_.historize_item(zelcapi::state_item_job, j.id);
  if (j.plain()) {
    const auto sub = submissions_.find(j.submission);
    if (sub != submissions_.end() && --sub->second == 0) {
      master_.historize_item(zelcapi::state_item_submission, sub->first);
      submissions_.erase(sub);
    }
  }
  jobs_.erase(it);
}

void runner::cancel(job& j) { finish(j, job_state::cancelled, -1); }

verdict runner::steer(const std::string& job_id, const std::string& action, std::int64_t priority,
                      const identity& who, bool dry_run) {
  const auto it = jobs_.find(job_id);
  if (it == jobs_.end()) {
    if (!master_.has_item(zelcapi::state_item_job, job_id)) {
      return {outcome::not_found, "job '" + job_id + "' is not in the cluster's live state", ""};
    }
    const std::string owner =
        master_.get_item(zelcapi::state_item_job, job_id).get_string_value("user", "");
    if (!who.admin && owner != who.user) {
      return {outcome::access_denied, "job '" + job_id + "' belongs to '" + owner + "'", owner};
    }
    return {outcome::not_allowed,
            "job '" + job_id + "' is run by the simulated workload, which takes no steering", ""};
  }
  job& j = it->second;
  if (!who.admin && j.owner != who.user) {
    return {outcome::access_denied, "job '" + job_id + "' belongs to '" + j.owner + "'", j.owner};
  }
  if (!j.plain()) {
    return {outcome::invalid,
            "job '" + job_id + "' runs task '" + j.task + "' of workflow '" + j.workflow +
                "': steer it through the workflow's actions",
            ""};
  }
  const std::string is = "job '" + job_id + "' is " + state_name(j.state);
  const bool ended = j.state == job_state::finished || j.state == job_state::failed ||
                     j.state == job_state::cancelled;
  const verdict done{outcome::done, "", ""};
  if (action == "cancel") {
    if (j.state == job_state::cancelled) return {outcome::already_done, is, ""};
    if (ended) return {outcome::not_allowed, is, ""};
    if (!dry_run) cancel(j);
    return done;
  }
  if (action == "hold" || action == "release") {
    const bool hold = action == "hold";
    if (j.state == (hold ? job_state::held : job_state::queued)) {
      return {outcome::already_done, is, ""};
    }
    if (j.state != (hold ? job_state::queued : job_state::held)) {
      return {outcome::not_allowed, is, ""};
    }
    if (dry_run) return done;
    if (hold) {
      queue_.erase(queue_key(j.priority, j.order, j.id));
      j.state = job_state::held;
    } else {
      enqueue(j);
    }
    properties update;
    update.set_string_value("state", state_name(j.state));
    master_.update_item(zelcapi::state_item_job, j.id, update);
    return done;
  }
  if (action == "retry") {
    if (j.state != job_state::failed && j.state != job_state::cancelled) {
      return {outcome::not_allowed, is, ""};
    }
    if (dry_run) return done;
    j.attempts = 0;
    enqueue(j);
    properties update;
    update.set_string_value("state", "queued");
    update.set_string_value("node", "");
    update.set_int_value("attempts", 0);
    update.set_int_value("end-time", 0);
    update.set_int_value("exit-code", -1);
    master_.update_item(zelcapi::state_item_job, j.id, update);
    properties task;
    task.set_string_value("state", "queued");
    task.set_string_value("node", "");
    task.set_int_value("end-time", 0);
    task.set_int_value("exit-code", -1);
    update_tasks(j, task);
    return done;
  }
  // "priority"
  if (ended) return {outcome::not_allowed, is, ""};
  if (j.priority == priority) {
    return {outcome::already_done,
            zelbase::string_with_format("job '%s' has priority %lld", job_id.c_str(),
                                        static_cast<long long>(priority)),
            ""};
  }
  if (dry_run) return done;
  reprioritise(j, priority);
  properties update;
  update.set_int_value("priority", priority);
  master_.update_item(zelcapi::state_item_job, j.id, update);
  return done;
}

}  // namespace zelsim
