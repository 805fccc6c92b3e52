// Task queries of the workflow manager: task infos and statuses, and the job info records built
// for a task.
#include "zelcapi/workflow_manager.h"

#include <utility>
#include <vector>

#include <boost/make_shared.hpp>

#include "workflow_manager_detail.h"
#include "zelbase/time.h"
#include "zelcore/identifiers.h"

namespace zelcapi {

using namespace workflow_manager_detail;

// --- Task and workflow queries ---

zelbase::ptr_refcount<const task_info> workflow_manager::get_task_info(
    const std::string& wfid, const std::string& wtid) const {
  return get_workflow_info(wfid)->get_task_info(wtid);
}

zelbase::ptr_refcount<const task_info> workflow_manager::get_task_info(
    const std::string& wpath) const {
  std::string wf, wtid;
  extract_wfid_and_wtid(wpath, wf, wtid);
  return get_task_info(wf, wtid);
}

zelcore::task::status workflow_manager::get_task_status(const std::string& wfid,
                                                        const std::string& wtid) const {
  return get_task_info(wfid, wtid)->get_status();
}

zelcore::task::status workflow_manager::get_task_status(const std::string& wpath) const {
  return get_task_info(wpath)->get_status();
}

zelcore::task::task_type workflow_manager::get_task_type(const std::string& wfid,
                                                         const std::string& wtid) const {
  return get_task_info(wfid, wtid)->get_type();
}

zelcore::task::task_type workflow_manager::get_task_type(const std::string& wpath) const {
  return get_task_info(wpath)->get_type();
}

const zelcore::task::status_info& workflow_manager::get_task_status_info(
    const std::string& wpath) const {
  // The reference points into the task, which its workflow keeps alive.
  return get_task_info(wpath)->get_status_info();
}

unsigned int workflow_manager::get_task_max_attempts(const std::string& wpath) const {
  std::string wf, wtid;
  extract_wfid_and_wtid(wpath, wf, wtid);
  return get_workflow_info(wf)->get_task_max_attempts(wtid);
}

unsigned int workflow_manager::get_task_num_attempts(const std::string& wpath) const {
  std::string wf, wtid;
  extract_wfid_and_wtid(wpath, wf, wtid);
  return get_workflow_info(wf)->get_task_num_attempts(wtid);
}

std::int64_t workflow_manager::get_task_priority(const std::string& wpath) const {
  std::string wf, wtid;
  extract_wfid_and_wtid(wpath, wf, wtid);
  return get_workflow_info(wf)->get_task_priority(wtid);
}

bool workflow_manager::is_task_kill_triggered(const std::string& wfid,
                                              const std::string& wtid) const {
  return get_workflow_info(wfid)->is_task_kill_triggered(wtid);
}

bool workflow_manager::is_task_kill_triggered(const std::string& wpath) const {
  std::string wf, wtid;
  extract_wfid_and_wtid(wpath, wf, wtid);
  return is_task_kill_triggered(wf, wtid);
}

bool workflow_manager::has_task(const std::string& wpath) const {
  try {
    std::string wf, wtid;
    extract_wfid_and_wtid(wpath, wf, wtid);
    return get_workflow_info(wf)->has_task_info(wtid);
  } catch (const zelbase::es::base&) {
    return false;
  }
}

workflow_info::status workflow_manager::get_workflow_status(const std::string& wf) const {
  return get_workflow_info(wf)->get_status();
}

std::int64_t workflow_manager::get_priority(const std::string& wf) const {
  return get_workflow_info(wf)->get_priority();
}

const properties& workflow_manager::get_workflow_configuration(const std::string& wf) const {
  return get_workflow_info(wf)->get_configuration();
}

const properties& workflow_manager::get_workflow_meta_data(const std::string& wf) const {
  return get_workflow_info(wf)->get_workflow_meta_data();
}

const properties& workflow_manager::get_ext_meta_data(const std::string& wf) const {
  return get_workflow_info(wf)->get_ext_meta_data();
}

void workflow_manager::get_task_uris(const std::string& wf, std::list<std::string>& out) const {
  get_workflow_info(wf)->get_task_uris(out);
}

void workflow_manager::get_workflow_dot(const std::string& wf, std::string& out) {
  get_workflow_info(wf)->make_dot_graph(out);
}

void workflow_manager::get_invalid_pre_reqs_tasks(std::set<std::string>& out) const {
  std::set<std::string> wtids;
  for (const auto& [id, wi] : workflows_) {
    wtids.clear();
    wi->get_invalid_pre_reqs_tasks(wtids);
    for (const auto& wtid : wtids) out.insert(task_path(id, wtid));
  }
}

void workflow_manager::get_tasks_runnability(std::list<std::string>& runnable,
                                             std::map<std::string, std::string>& reasons) const {
  std::list<std::string> ready;
  std::map<std::string, std::string> not_ready;
  for (const auto& [id, wi] : workflows_) {
    ready.clear();
    not_ready.clear();
    wi->get_tasks_runnability(ready, not_ready);
    for (const auto& wtid : ready) runnable.push_back(task_path(id, wtid));
    for (const auto& [wtid, reason] : not_ready) reasons[task_path(id, wtid)] = reason;
  }
}

void workflow_manager::create_job_info_for_task(const std::string& wpath) {
  std::string wf, wtid;
  extract_wfid_and_wtid(wpath, wf, wtid);
  const workflow_info& wi = *get_workflow_info(wf);
  wi.get_task_info(wtid)->create_job_info(wi);
}

void workflow_manager::insert_job_info_for_job_id(const std::string& job_id,
                                                  properties& out) const {
  std::string wf, wtid;
  extract_wfid_and_wtid(job_id, wf, wtid);
  const workflow_info& wi = *get_workflow_info(wf);
  const zelbase::ptr_refcount<const task_info> task = wi.get_task_info(wtid);
  properties encoded(false);
  task->encode_task_info(encoded);
  out["workflow-state-id"] = string_value(wf);
  out["task-info"] = tree_value(encoded);
  out["meta-data"] = tree_value(wi.get_workflow_meta_data());
  out["workflow-configuration"] = tree_value(wi.get_configuration());
  out["allocated-license-capabilities"] = task->get_job_allocated_license_capabilities();
}

}  // namespace zelcapi
