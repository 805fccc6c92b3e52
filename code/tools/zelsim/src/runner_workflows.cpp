// The runner's workflows: runnable tasks become jobs with their job info, ended jobs give their
// tasks a status and their out-values to the dependants, kills end the jobs, and a workflow that
// has ended gets its result and leaves the live state.
#include <limits>
#include <list>

#include "runner.h"
#include "zelbase/paths.h"
#include "zelcapi/workflow_manager.h"

namespace zelsim {

namespace {

using zelcore::properties;
using zelworkflow::workflow_info;

std::int64_t saturating_sum(std::int64_t a, std::int64_t b) {
  std::int64_t sum = 0;
  if (!__builtin_add_overflow(a, b, &sum)) return sum;
  return b > 0 ? std::numeric_limits<std::int64_t>::max()
               : std::numeric_limits<std::int64_t>::min();
}

// Whether the in-node that `destination` names ("<task>" or "<task>><in-node>") exists in the
// workflow and takes a value of the value's kind; out-values go only where they are taken.
bool takes(const workflow_info& wi, const std::string& destination,
           const zelcore::property& value) {
  std::string node = destination;
  const std::string task = zelbase::path_front(node, '>');
  zelbase::path_pop_front(node, '>');
  if (!wi.has_task_info(task)) return false;
  properties encoded;
  wi.get_task_info(task)->encode_task_info(encoded);
  const properties& in_nodes = encoded.get_properties_value("in-nodes");
  if (node.empty()) {
    if (in_nodes.size() != 1) return false;
    node = in_nodes.begin()->first;
  }
  const properties* in_node = in_nodes.get_properties_value_ptr(node);
  if (in_node == nullptr) return false;
  const std::string& accepts = in_node->get_string_value("accepts", "any");
  return accepts == "any" || accepts == zelcore::property_kind_c_str(value.kind());
}

}  // namespace

void runner::adopt(const std::string& id, const identity& owner) {
  flows_[id] = flow{owner.user, owner.client_id, 0, 0};
  gone_.erase(id);
  touched_.insert(id);
}

const std::string* runner::owner_of(const std::string& id) const {
  const auto live = flows_.find(id);
  if (live != flows_.end()) return &live->second.owner;
  const auto gone = gone_.find(id);
  return gone == gone_.end() ? nullptr : &gone->second;
}

bool runner::has_ended(const std::string& id) const { return gone_.count(id) != 0; }

void runner::touch(const std::string& id) {
  if (flows_.count(id) != 0) touched_.insert(id);
}

void runner::removing(const std::string& id) {
  const auto f = flows_.find(id);
  if (f == flows_.end()) return;
  // The active task jobs of the workflow are the wpaths that begin with its own.
  const std::string prefix = zelcapi::workflow_manager::create_wpath(id, "");
  for (auto it = task_jobs_.lower_bound(prefix);
       it != task_jobs_.end() && it->first.compare(0, prefix.size(), prefix) == 0;) {
    job& j = jobs_.at((it++)->second);
    cancel(j);
  }
  forget_later(id, f->second.owner);
  flows_.erase(id);
  touched_.erase(id);
}

void runner::forget_later(const std::string& id, const std::string& owner) {
  gone_[id] = owner;
  forget_.emplace(now_ + key_keep_ms_, id);
}

void runner::settle() {
  while (!touched_.empty()) {
    const std::string id = *touched_.begin();
    touched_.erase(touched_.begin());
    schedule(id);
  }
  dispatch();
}

void runner::schedule(const std::string& id) {
  const auto found = flows_.find(id);
  if (found == flows_.end()) return;
  flow& f = found->second;
  if (!master_.has_workflow_in_state(id)) {
    forget_later(id, f.owner);
    flows_.erase(found);
    return;
  }
  const workflow_info& wi = *master_.get_workflow_from_state(id);
  if (wi.get_type() == workflow_info::workflow_type_template) return;
  zelcapi::workflow_manager& manager = master_.get_workflow_manager();
  std::list<std::string> tasks;
  wi.get_task_uris(tasks);
  for (const std::string& task : tasks) {
    if (!wi.is_task_kill_triggered(task)) continue;
    const auto active = task_jobs_.find(zelcapi::workflow_manager::create_wpath(id, task));
    if (active != task_jobs_.end()) cancel(jobs_.at(active->second));
    manager.set_task_status(id, task, zelcore::task::status_killed, seconds(), "",
                            "killed on request");
  }
  const workflow_info::status status = wi.get_status();
  if (status != workflow_info::status_failed && status != workflow_info::status_killed) {
    std::list<std::string> runnable;
    std::map<std::string, std::string> reasons;
    wi.get_tasks_runnability(runnable, reasons);
    for (const std::string& task : runnable) make_task_job(id, f, task);
  }
  // Queued jobs follow the priorities of their workflow and task.
  for (const std::string& task : tasks) {
    const auto active = task_jobs_.find(zelcapi::workflow_manager::create_wpath(id, task));
    if (active == task_jobs_.end()) continue;
    job& j = jobs_.at(active->second);
    const std::int64_t priority = saturating_sum(wi.get_priority(), wi.get_task_priority(task));
    if (priority != j.priority) reprioritise(j, priority);
  }
  if (wi.get_type() == workflow_info::workflow_type_spawned && f.active == 0 &&
      (status == workflow_info::status_finished || status == workflow_info::status_failed ||
       status == workflow_info::status_killed)) {
    end_workflow(id, status);
  }
}

void runner::make_task_job(const std::string& workflow, flow& f, const std::string& task) {
  zelcapi::workflow_manager& manager = master_.get_workflow_manager();
  const workflow_info& wi = *master_.get_workflow_from_state(workflow);
  const auto info = wi.get_task_info(task);
  job j = new_job("job-w", f.owner, f.client_id);
  j.workflow = workflow;
  j.task = task;
  // The parameters were checked when the workflow came; a workflow of the workload's templates
  // has none of the runner's, and runs with the defaults.
  j.params = read_task_parameters(info->get_parameters(), run_ms_);
  if (j.params.command.empty()) j.params.command = info->get_kind();
  j.params.max_attempts = wi.get_task_max_attempts(task);
  j.task_attempt = wi.get_task_num_attempts(task) + 1;
  j.priority = saturating_sum(wi.get_priority(), wi.get_task_priority(task));
  manager.set_task_scheduling_state(workflow, task, zelcore::task::scheduling_queued);

  // The job info is prepared on a copy: preparing it changes the task, which no action tells.
  const std::string wpath = zelcapi::workflow_manager::create_wpath(workflow, task);
  zelcapi::workflow_manager::workflow_map copies;
  copies.emplace(workflow, boost::shared_ptr<workflow_info>(new workflow_info(wi)));
  std::uint64_t sequence = 0;
  zelcapi::workflow_manager scratch(nullptr, copies, sequence);
  scratch.create_job_info_for_task(wpath);
  properties record = job_record(j, task);
  scratch.insert_job_info_for_job_id(wpath, record);
  if (!record.get_property("allocated-license-capabilities")) {
    record.erase("allocated-license-capabilities");
  }
  master_.set_item(zelcapi::state_item_job, j.id, record);
  task_jobs_[wpath] = j.id;
  ++f.active;
  ++f.jobs_run;
  enqueue(jobs_.emplace(j.id, std::move(j)).first->second);
}

void runner::task_ended(const job& j, bool ok, std::int64_t exit_code) {
  if (!master_.has_workflow_in_state(j.workflow)) return;
  if (ok) pass_out_values(j);
  master_.get_workflow_manager().set_task_status(
      j.workflow, j.task, ok ? zelcore::task::status_finished : zelcore::task::status_failed,
      seconds(), pool_.nodes()[j.node].id, "exit code " + std::to_string(exit_code));
  // An init task's status and values reach the workflows that wait on its init workflow.
  const workflow_info& wi = *master_.get_workflow_from_state(j.workflow);
  for (const auto& [waiting, originator] : wi.get_waiting_wfs()) touch(waiting);
  touch(j.workflow);
}

void runner::pass_out_values(const job& j) {
  const workflow_info& wi = *master_.get_workflow_from_state(j.workflow);
  properties task;
  wi.get_task_info(j.task)->encode_task_info(task);
  properties routed;
  for (const auto& [name, declared] : task.get_properties_value("out-values")) {
    zelcore::property_ptr value = j.params.out_values.get_property(name);
    if (!value) value = zelcore::make_string(j.task);
    zelbase::ptr_refcount<zelcore::property_list> destinations(new zelcore::property_list());
    for (const zelcore::property_ptr& d :
         static_cast<const properties&>(*declared).get_list_value("destinations")) {
      const std::string& path = static_cast<const zelcore::property_string&>(*d).value();
      if (takes(wi, path, *value)) destinations->push_back(d);
    }
    properties entry;
    entry["value"] = value;
    entry["destinations"] = destinations;
    routed.set_properties_value(name, entry);
  }
  if (routed.empty()) return;
  master_.get_workflow_manager().set_in_out_values(j.workflow, j.task, routed, properties(), j.id);
}

void runner::end_workflow(const std::string& id, std::uint32_t status) {
  const flow f = flows_.at(id);
  master_.add_workflow_result(
      id, zelcapi::workflow_result_info(status, static_cast<std::uint32_t>(f.jobs_run)));
  master_.get_workflow_manager().remove_workflow(id);
  forget_later(id, f.owner);
  flows_.erase(id);
}

}  // namespace zelsim
