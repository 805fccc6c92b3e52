// The master's seeded workload: which change comes next, and the records it writes.
#include "workload.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "records.h"
#include "zelbase/time.h"
#include "zelcapi/workflow_manager.h"

namespace zelsim {

namespace {

using zelcapi::state_item_type;
using zelcore::properties;
using zelworkflow::workflow_info;

const char* const users[] = {"alice", "bob", "carol", "dave", "erin", "frank", "grace", "heidi"};
const char* const programs[] = {"zelctl", "submit", "monitor", "mirror"};
const char* const queues[] = {"default", "short", "long", "gpu"};
const char* const job_names[] = {"render", "simulate", "compile", "analyse", "train", "index"};
const std::int64_t core_choices[] = {4, 8, 16, 32};

template <class T, std::size_t N>
constexpr std::size_t count_of(const T (&)[N]) {
  return N;
}

}  // namespace

workload::workload(master_state& master, node_pool& pool, const options& o,
                   const std::vector<std::string>& node_ids)
    : master_(master),
      pool_(pool),
      jobs_(o.jobs),
      host_(o.host),
      rng_(o.seed),
      start_time_(o.start_time != 0 ? o.start_time : zelbase::time_in_seconds()),
      step_micros_(o.rate != 0 ? std::max<std::uint64_t>(1, 1000000 / o.rate) : 1000) {
  for (const std::string& id : node_ids) add_node(id, host_, false);
  add_template("build", {"fetch", "compile", "test", "package"});
  add_template("render", {"prepare", "frames", "encode"});
}

std::uint32_t workload::now() const {
  return start_time_ + static_cast<std::uint32_t>(micros_ / 1000000);
}

std::string workload::numbered(const char* prefix, std::uint64_t n, int width) const {
  char text[64];
  std::snprintf(text, sizeof text, "%s-%0*llu", prefix, width, static_cast<unsigned long long>(n));
  return text;
}

std::string workload::new_workflow_id() {
  const std::uint64_t high = rng_(), low = rng_();
  char text[48];
  std::snprintf(text, sizeof text, "WOFL-%08llx-%04llx-4%03llx-%04llx-%012llx",
                static_cast<unsigned long long>(high >> 32),
                static_cast<unsigned long long>((high >> 16) & 0xffff),
                static_cast<unsigned long long>(high & 0xfff),
                static_cast<unsigned long long>(0x8000 | ((low >> 48) & 0x3fff)),
                static_cast<unsigned long long>(low & 0xffffffffffffULL));
  return text;
}

void workload::add_node(const std::string& id, const std::string& host, bool removable) {
  const std::int64_t cores = core_choices[pick(count_of(core_choices))];
  properties record;
  record.set_string_value("id", id);
  record.set_string_value("host", host);
  record.set_int_value("cores", cores);
  record.set_int_value("cores-used", 0);
  record.set_int_value("memory-mb", cores * 4096);
  record.set_int_value("load", 0);
  record.set_string_value("state", "up");
  record.set_string_value("os", "linux");
  record.set_string_value("arch", "x86_64");
  record.set_int_value("join-time", now());
  record.set_int_value("heartbeat-time", now());
  record.set_string_value("version", "0.1.0");
  master_.set_item(zelcapi::state_item_node, id, record);
  pool_.add(id, cores, removable);
}

void workload::add_template(const std::string& name, const std::vector<std::string>& steps) {
  // A chain: every step's out-value "out" feeds the next step's in-node "in".
  properties tasks;
  for (std::size_t i = 0; i < steps.size(); ++i) {
    properties task;
    task.set_string_value("kind", "command");
    task.set_int_value("type", 0);
    properties in_node;
    in_node.set_string_value("accepts", "any");
    properties in_nodes;
    in_nodes.set_properties_value("in", in_node);
    task.set_properties_value("in-nodes", in_nodes);
    zelbase::ptr_refcount<zelcore::property_list> destinations(new zelcore::property_list());
    if (i + 1 < steps.size()) destinations->push_back(zelcore::make_string(steps[i + 1] + ">in"));
    properties out;
    out["destinations"] = destinations;
    properties outs;
    outs.set_properties_value("out", out);
    task.set_properties_value("out-values", outs);
    tasks.set_properties_value(steps[i], task);
  }
  properties workflow;
  workflow.set_int_value("type", workflow_info::workflow_type_template);
  workflow.set_properties_value("tasks", tasks);
  properties meta;
  meta.set_string_value("name", name);
  std::string id;
  master_.get_workflow_manager().add_workflow(workflow, master_.get_plugin_db(), id,
                                              new_workflow_id());
  master_.get_workflow_manager().set_workflow_meta_data(id, meta);
  templates_.emplace_back(id, steps);
}

void workload::step() {
  micros_ += step_micros_;
  const std::size_t max_clients = std::min<std::size_t>(50, 3 + jobs_ / 500);
  const std::size_t max_workers = std::min<std::size_t>(200, 2 + jobs_ / 100);
  const std::size_t max_workflows = std::min<std::size_t>(100, 4 + jobs_ / 200);
  const std::size_t live_jobs = queued_.size() + running_.size() + ended_.size();
  std::size_t workers = 0;
  for (const node_pool::node& n : pool_.nodes()) workers += n.removable ? 1 : 0;
  // (weight, event) for every event that may happen now.
  std::vector<std::pair<unsigned, bool (workload::*)()>> events;
  const auto add = [&events](bool possible, unsigned weight, bool (workload::*event)()) {
    if (possible) events.emplace_back(weight, event);
  };
  add(clients_.size() < max_clients, 2, &workload::client_login);
  add(clients_.size() > 1, 1, &workload::client_logout);
  add(workers < max_workers, 1, &workload::node_join);
  add(workers > 1, 1, &workload::node_leave);
  add(!clients_.empty() && live_jobs < jobs_, 6, &workload::submit);
  add(!queued_.empty(), 8, &workload::start_job);
  add(!running_.empty(), 12, &workload::job_progress);
  add(!running_.empty(), 6, &workload::end_job);
  add(!ended_.empty(), 6, &workload::historize_job);
  add(true, 3, &workload::node_heartbeat);
  add(workflows_.size() < max_workflows, 3, &workload::spawn_workflow);
  add(!workflows_.empty(), 10, &workload::workflow_step);
  add(results_.size() > 8, 1, &workload::remove_workflow_result);
  unsigned total = 0;
  for (const auto& e : events) total += e.first;
  std::uint64_t draw = pick(total);
  for (const auto& [weight, event] : events) {
    if (draw < weight) {
      if (!(this->*event)()) node_heartbeat();
      return;
    }
    draw -= weight;
  }
}

bool workload::client_login() {
  const std::string id = numbered("client", ++last_client_, 4);
  properties record;
  record.set_string_value("id", id);
  record.set_string_value("user", users[pick(count_of(users))]);
  record.set_string_value("program", programs[pick(count_of(programs))]);
  record.set_string_value("host", numbered("desk", 1 + pick(40), 2) + ".lan");
  record.set_int_value("pid", 1000 + static_cast<std::int64_t>(pick(60000)));
  record.set_int_value("login-time", now());
  record.set_string_value("version", "0.1.0");
  master_.set_item(zelcapi::state_item_client, id, record);
  clients_.push_back(id);
  return true;
}

bool workload::client_logout() {
  const std::size_t i = pick(clients_.size());
  master_.remove_item(zelcapi::state_item_client, clients_[i]);
  clients_[i] = std::move(clients_.back());
  clients_.pop_back();
  return true;
}

bool workload::node_join() {
  const std::string id = numbered("worker", ++last_node_, 3);
  add_node(id, id + ".sim", true);
  return true;
}

bool workload::node_leave() {
  // Running jobs point at nodes by index: only the last node may leave, and only when idle.
  const node_pool::node& last = pool_.nodes().back();
  if (!last.removable || last.used != 0) return false;
  master_.remove_item(zelcapi::state_item_node, last.id);
  pool_.remove_last();
  return true;
}

bool workload::submit() {
  const std::string& client = clients_[pick(clients_.size())];
  const std::string user =
      master_.get_item(zelcapi::state_item_client, client).get_string_value("user");
  const std::string submission = numbered("sub", ++last_submission_, 6);
  const std::string source = numbered("src", last_submission_, 6);
  const std::string name = job_names[pick(count_of(job_names))];
  const std::string queue = queues[pick(count_of(queues))];
  const std::int64_t job_count = 1 + static_cast<std::int64_t>(pick(4));
  const std::int64_t priority = static_cast<std::int64_t>(pick(100));

  properties src;
  src.set_string_value("id", source);
  src.set_string_value("client-id", client);
  src.set_string_value("submission-id", submission);
  src.set_string_value("kind", "script");
  src.set_string_value("path", "/home/" + user + "/jobs/" + name + ".sh");
  src.set_int_value("size", 200 + static_cast<std::int64_t>(pick(20000)));
  master_.set_item(zelcapi::state_item_source, source, src);

  properties sub;
  sub.set_string_value("id", submission);
  sub.set_string_value("client-id", client);
  sub.set_string_value("user", user);
  sub.set_string_value("name", name);
  sub.set_string_value("source-id", source);
  sub.set_string_value("queue", queue);
  sub.set_int_value("priority", priority);
  sub.set_int_value("job-count", job_count);
  sub.set_int_value("submit-time", now());
  master_.set_item(zelcapi::state_item_submission, submission, sub);
  submissions_[submission] = submission_run{source, job_count};

  for (std::int64_t j = 0; j < job_count; ++j) {
    job_run run;
    run.id = numbered("job", ++last_job_, 7);
    run.submission = submission;
    run.tasks = 1 + static_cast<std::int64_t>(pick(3));
    run.cores = 1 + static_cast<std::int64_t>(pick(4));
    properties env;
    env.set_string_value("USER", user);
    env.set_string_value("SCRATCH", "/scratch/" + run.id);
    properties job;
    job.set_string_value("id", run.id);
    job.set_string_value("name", name + "-" + std::to_string(j + 1));
    job.set_string_value("state", "queued");
    job.set_string_value("node", "");
    job.set_string_value("submission-id", submission);
    job.set_string_value("client-id", client);
    job.set_string_value("user", user);
    job.set_string_value("queue", queue);
    job.set_int_value("priority", priority);
    job.set_properties_value("progress", progress_of(0, 0));
    job.set_int_value("submit-time", now());
    job.set_int_value("start-time", 0);
    job.set_int_value("end-time", 0);
    job.set_int_value("exit-code", -1);
    job.set_int_value("cores", run.cores);
    job.set_int_value("memory-mb", 512 * (1 + static_cast<std::int64_t>(pick(16))));
    job.set_string_value("command", "/home/" + user + "/jobs/" + name + ".sh");
    job.set_int_value("attempts", 0);
    job.set_int_value("max-attempts", 3);
    job.set_int_value("task-count", run.tasks);
    job["tags"] = zelcore::make_string_list({queue, name});
    job.set_properties_value("env", env);
    master_.set_item(zelcapi::state_item_job, run.id, job);
    for (std::int64_t t = 1; t <= run.tasks; ++t) {
      const std::string task_id = run.id + ".t" + std::to_string(t);
      master_.set_item(zelcapi::state_item_task, task_id,
                       queued_task_record(task_id, name + " part " + std::to_string(t), run.id,
                                          submission, client));
    }
    queued_.push_back(std::move(run));
  }
  return true;
}

bool workload::start_job() {
  job_run& run = queued_.front();
  const std::optional<std::size_t> found =
      pool_.free_node(run.cores, pick(pool_.nodes().size()), true);
  if (!found) return false;
  const std::size_t i = *found;
  const node_pool::node& n = pool_.nodes()[i];
  run.node = i;
  run.slot = n.id + "/" + std::to_string(n.used);
  pool_.take(i, run.cores);
  properties slot;
  slot.set_string_value("id", run.slot);
  slot.set_string_value("node", n.id);
  slot.set_string_value("job-id", run.id);
  slot.set_int_value("cores", run.cores);
  slot.set_int_value("since", now());
  master_.set_item(zelcapi::state_item_slot, run.slot, slot);
  properties update;
  update.set_string_value("state", "running");
  update.set_string_value("node", n.id);
  update.set_string_value("slot-id", run.slot);
  update.set_int_value("start-time", now());
  update.set_int_value("attempts", 1);
  master_.update_item(zelcapi::state_item_job, run.id, update);
  for (std::int64_t t = 1; t <= run.tasks; ++t) {
    properties task;
    task.set_string_value("state", "running");
    task.set_string_value("node", n.id);
    task.set_int_value("start-time", now());
    master_.update_item(zelcapi::state_item_task, run.id + ".t" + std::to_string(t), task);
  }
  pool_.update_record(i);
  running_.push_back(std::move(run));
  queued_.pop_front();
  return true;
}

bool workload::job_progress() {
  job_run& run = running_[pick(running_.size())];
  run.progress = std::min<std::int64_t>(99, run.progress + 5 + static_cast<std::int64_t>(pick(30)));
  properties update;
  update.set_properties_value("progress", progress_of(run.progress, run.progress / 10));
  update.set_int_value("cpu-seconds", run.progress * run.cores * 3);
  master_.update_item(zelcapi::state_item_job, run.id, update);
  return true;
}

bool workload::end_job() {
  const std::size_t i = pick(running_.size());
  if (running_[i].progress < 50) return job_progress();
  job_run run = std::move(running_[i]);
  running_[i] = std::move(running_.back());
  running_.pop_back();
  const bool failed = chance(8);
  const std::int64_t exit_code = failed ? 1 + static_cast<std::int64_t>(pick(127)) : 0;
  properties update;
  update.set_string_value("state", failed ? "failed" : "finished");
  update.set_int_value("end-time", now());
  update.set_int_value("exit-code", exit_code);
  update.set_properties_value("progress", progress_of(failed ? run.progress : 100, 10));
  master_.update_item(zelcapi::state_item_job, run.id, update);
  for (std::int64_t t = 1; t <= run.tasks; ++t) {
    properties task;
    task.set_string_value("state", failed ? "failed" : "finished");
    task.set_int_value("end-time", now());
    task.set_int_value("exit-code", exit_code);
    master_.update_item(zelcapi::state_item_task, run.id + ".t" + std::to_string(t), task);
  }
  // The slot and the scratch directory are gone with the run.
  master_.remove_item(zelcapi::state_item_slot, run.slot);
  master_.erase_property_ref(zelcapi::state_item_job, run.id, "/slot-id");
  master_.erase_property_ref(zelcapi::state_item_job, run.id, "/env/SCRATCH");
  pool_.give(run.node, run.cores);
  pool_.update_record(run.node);
  ended_.push_back(std::move(run));
  return true;
}

bool workload::historize_job() {
  const job_run run = std::move(ended_.front());
  ended_.pop_front();
  for (std::int64_t t = 1; t <= run.tasks; ++t) {
    master_.historize_item(zelcapi::state_item_task, run.id + ".t" + std::to_string(t));
  }
  master_.historize_item(zelcapi::state_item_job, run.id);
  const auto sub = submissions_.find(run.submission);
  if (--sub->second.live_jobs == 0) {
    master_.historize_item(zelcapi::state_item_submission, sub->first);
    master_.remove_item(zelcapi::state_item_source, sub->second.source);
    submissions_.erase(sub);
  }
  return true;
}

bool workload::node_heartbeat() {
  const std::size_t i = pick(pool_.nodes().size());
  properties update;
  update.set_int_value("heartbeat-time", now());
  update.set_int_value("load", pool_.load(i));
  master_.update_item(zelcapi::state_item_node, pool_.nodes()[i].id, update);
  return true;
}

bool workload::spawn_workflow() {
  const auto& [from, steps] = templates_[pick(templates_.size())];
  workflow_run flow;
  flow.id = new_workflow_id();
  flow.tasks = steps;
  properties meta;
  meta.set_string_value("owner", clients_.empty() ? "" : clients_[pick(clients_.size())]);
  std::string spawned;
  const bool taken = master_.get_workflow_manager().set_in_value(
      zelcapi::workflow_manager::create_wpath(from, flow.tasks.front()),
      zelcore::make_string(numbered("input", ++last_input_, 6)), spawned, flow.id, meta, false,
      "zelsim");
  if (!taken) return false;
  workflows_.push_back(std::move(flow));
  return true;
}

bool workload::workflow_step() {
  const std::size_t i = pick(workflows_.size());
  workflow_run& flow = workflows_[i];
  zelcapi::workflow_manager& manager = master_.get_workflow_manager();
  const std::string& task = flow.tasks[flow.task];
  if (chance(10)) {
    // Now and then a change of priority or meta data instead of progress.
    switch (pick(3)) {
      case 0:
        manager.set_task_priority(zelcapi::workflow_manager::create_wpath(flow.id, task),
                                  static_cast<std::int64_t>(pick(200)) - 100,
                                  workflow_info::priority_absolute, -100, 100);
        break;
      case 1:
        manager.set_priority(flow.id, static_cast<std::int64_t>(pick(21)) - 10,
                             workflow_info::priority_relative, -1000, 1000);
        break;
      default: {
        properties meta;
        meta.set_int_value("checked-at", now());
        manager.add_workflow_meta_data(flow.id, meta);
      }
    }
    return true;
  }
  switch (flow.phase) {
    case 0:
      manager.set_task_scheduling_state(flow.id, task, zelcore::task::scheduling_queued);
      break;
    case 1:
      manager.set_task_status(flow.id, task, zelcore::task::status_running, now(),
                              pool_.nodes()[pick(pool_.nodes().size())].id, "started");
      break;
    case 2: manager.update_task_progress(flow.id, task, progress_of(10 + pick(80), 1)); break;
    default: {
      flow.failed = chance(5);
      manager.set_task_status(
          flow.id, task,
          flow.failed ? zelcore::task::status_failed : zelcore::task::status_finished, now(), "",
          flow.failed ? "exit code 1" : "done");
      if (flow.failed || flow.task + 1 == flow.tasks.size()) {
        end_workflow(flow);
        workflows_[i] = std::move(workflows_.back());
        workflows_.pop_back();
        return true;
      }
      ++flow.task;
    }
  }
  flow.phase = (flow.phase + 1) % 4;
  return true;
}

void workload::end_workflow(workflow_run& flow) {
  const workflow_info::status status = master_.get_workflow_from_state(flow.id)->get_status();
  master_.add_workflow_result(
      flow.id, zelcapi::workflow_result_info(status, static_cast<std::uint32_t>(flow.task + 1)));
  master_.get_workflow_manager().remove_workflow(flow.id);
  results_.push_back(flow.id);
}

bool workload::remove_workflow_result() {
  master_.remove_workflow_result(results_.front());
  results_.pop_front();
  return true;
}

}  // namespace zelsim
