// The "update-workflow" actions of the workflow manager: the reader and dispatcher, the writers
// that describe a change to the receiver, the appliers, and the public setters built on them.
#include "zelcapi/workflow_manager.h"

#include <utility>
#include <vector>

#include <boost/make_shared.hpp>

#include "workflow_manager_detail.h"
#include "zelbase/time.h"
#include "zelcore/identifiers.h"

namespace zelcapi {

using namespace workflow_manager_detail;

// --- Update messages: reader and dispatcher ---

std::string workflow_manager::_get_workflow_id_from_update_props(const properties& update) const {
  const std::string& action = update.get_string_value("action");
  if (is_one_of(action, {"add-workflow", "remove-workflow", "add-dependant", "set-priority",
                         "remove-dependant"}))
    return update.get_string_value("state-id", zelbase::string_empty_string());
  if (action == "set-in-values") return update.get_string_value("workflow-id");
  // "set-task-max-attemps" is how older writers spelled the max-attempts action here.
  if (is_one_of(action, {"update-task-progress", "set-task-status", "set-in-out-values",
                         "set-task-priority", "set-task-scheduling-state", "set-task-max-attemps",
                         "add-task", "set-workflow-meta-data", "add-workflow-meta-data",
                         "add-ext-meta-data"}))
    return update.get_string_value("wf-state-id");
  if (is_one_of(action, {"set-in-value", "set-init-in-value"}))
    return wfid_of(update.get_string_value("input-node-id"));
  return std::string();
}

void workflow_manager::update_workflow(const properties& update, const zelcore::plugin_db& db) {
  const std::string wf = _get_workflow_id_from_update_props(update);
  _notify_pre_update_workflow(wf, update);
  _update_workflow(update, db);
  _notify_post_update_workflow(wf, update);
}

void workflow_manager::_update_workflow(const properties& update, const zelcore::plugin_db& db) {
  const std::string& empty = zelbase::string_empty_string();
  const properties no_meta;
  const std::string& action = update.get_string_value("action");
  // Each branch reads its fields in a fixed order; a missing field raises before any change.
  if (action == "add-workflow") {
    const properties& workflow = update.get_properties_value("workflow");
    const std::string& state_id = update.get_string_value("state-id");
    std::string produced;
    _add_workflow(workflow, db, produced, state_id);
  } else if (action == "remove-workflow") {
    _remove_workflow(update.get_string_value("state-id"));
  } else if (action == "set-in-value") {
    const std::string& force_state_id = update.get_string_value("force-state-id");
    const std::string& originator = update.get_string_value("originator", empty);
    const bool force_spawn_value = update.get_bool_value("force-spawn-value");
    const std::string& input_node_id = update.get_string_value("input-node-id");
    const property_ptr value = required_property(update, "value");
    const properties& workflow_meta = update.get_properties_value("workflow-meta", no_meta);
    std::string state_id;
    _set_in_value(input_node_id, value, state_id, force_state_id, workflow_meta, force_spawn_value,
                  originator);
  } else if (action == "set-in-values") {
    const std::string& force_state_id = update.get_string_value("force-state-id");
    const std::string& originator = update.get_string_value("originator", empty);
    const bool force_spawn_value = update.get_bool_value("force-spawn-value");
    const std::string& workflow_id = update.get_string_value("workflow-id");
    const properties& workflow_meta = update.get_properties_value("workflow-meta", no_meta);
    const properties_ptr values = required_shared_tree(update, "values");
    std::string state_id;
    _set_in_values(workflow_id, values, state_id, force_state_id, workflow_meta, force_spawn_value,
                   originator);
  } else if (action == "set-init-in-value") {
    const std::string& input_node_id = update.get_string_value("input-node-id");
    const property_ptr value = required_property(update, "value");
    _set_init_in_value(input_node_id, value, update.get_string_value("originator", empty));
  } else if (action == "set-in-out-values") {
    const std::string& wf = update.get_string_value("wf-state-id");
    const std::string& wtid = update.get_string_value("task-wtid");
    const properties& values = update.get_properties_value("values");
    const properties& workflow_meta = update.get_properties_value("workflow-meta", no_meta);
    _set_in_out_values(wf, wtid, values, workflow_meta,
                       update.get_string_value("originator", empty));
  } else if (action == "set-task-status") {
    const std::string& wf = update.get_string_value("wf-state-id");
    const std::string& wtid = update.get_string_value("task-wtid");
    const auto status = static_cast<zelcore::task::status>(update.get_int_value("task-status"));
    const auto tm = static_cast<unsigned int>(update.get_int_value("tm"));
    const std::string& nid = update.get_string_value("nid");
    _set_task_status(wf, wtid, status, tm, nid, update.get_string_value("msg"));
  } else if (action == "set-task-scheduling-state") {
    const std::string& wf = update.get_string_value("wf-state-id");
    const std::string& wtid = update.get_string_value("task-wtid");
    _set_task_scheduling_state(wf, wtid,
                               static_cast<zelcore::task::scheduling_state>(
                                   update.get_int_value("task-scheduling-state")));
  } else if (action == "update-task-progress") {
    const std::string& wf = update.get_string_value("wf-state-id");
    const std::string& wtid = update.get_string_value("task-wtid");
    _update_task_progress(wf, wtid, update.get_properties_value("progress"));
  } else if (action == "set-task-max-attempts") {
    const std::string& wf = update.get_string_value("wf-state-id");
    const std::string& wtid = update.get_string_value("task-wtid");
    _set_task_max_attempts(wf, wtid, update.get_int_value("max-attempts"));
  } else if (action == "set-task-priority") {
    const std::string& wf = update.get_string_value("wf-state-id");
    const std::string& wtid = update.get_string_value("task-wtid");
    const std::int64_t priority = update.get_int_value("priority");
    const auto whence = static_cast<workflow_info::priority_whence>(update.get_int_value("whence"));
    const std::int64_t min_priority = update.get_int_value("min");
    _set_task_priority(wf, wtid, priority, whence, min_priority, update.get_int_value("max"));
  } else if (action == "add-task") {
    const std::string& wf = update.get_string_value("wf-state-id");
    const properties& task = update.get_properties_value("task-info");
    std::string wtid;
    _add_task(wf, task, db, wtid);
  } else if (action == "set-workflow-meta-data") {
    const std::string& wf = update.get_string_value("wf-state-id");
    _set_workflow_meta_data(wf, update.get_properties_value("meta-data"));
  } else if (action == "add-workflow-meta-data") {
    const std::string& wf = update.get_string_value("wf-state-id");
    _add_workflow_meta_data(wf, update.get_properties_value("meta-data"));
  } else if (action == "add-ext-meta-data") {
    const std::string& wf = update.get_string_value("wf-state-id");
    _add_ext_meta_data(wf, update.get_properties_value("meta-data"));
  } else if (action == "add-dependant") {
    const std::string& dependant = update.get_string_value("dependant");
    _add_dependant(update.get_string_value("state-id"), dependant);
  } else if (action == "remove-dependant") {
    const std::string& dependant = update.get_string_value("dependant");
    const std::string& state_id = update.get_string_value("state-id", empty);
    if (state_id.empty())
      _remove_dependant(dependant);
    else
      _remove_dependant(state_id, dependant);
  } else if (action == "set-priority") {
    const std::int64_t priority = update.get_int_value("priority");
    const std::string& state_id = update.get_string_value("state-id");
    const auto whence = static_cast<workflow_info::priority_whence>(update.get_int_value("whence"));
    const std::int64_t min_priority = update.get_int_value("min");
    _set_priority(state_id, priority, whence, min_priority, update.get_int_value("max"));
  } else {
    const std::string message = "unknown workflow-update action requested";
    report_failure(unknown_action_report_line, message);
    zelbase::es::arg::raise(source_file, unknown_action_raise_line, message);
  }
}

// --- Update messages: writers ---

void workflow_manager::_notify_pre_update_workflow(const std::string& wf,
                                                   const properties& update) {
  if (receiver_) receiver_->wm_cb_workflow_will_be_updated(wf, update);
}

void workflow_manager::_notify_post_update_workflow(const std::string& wf,
                                                    const properties& update) {
  if (receiver_) receiver_->wm_cb_workflow_was_updated(wf, update);
}

void workflow_manager::_notify_add_workflow(const std::string& state_id,
                                            const properties& workflow) {
  if (!receiver_) return;
  _notify_post_update_workflow(state_id, properties{{"action", string_value("add-workflow")},
                                                    {"state-id", string_value(state_id)},
                                                    {"workflow", tree_value(workflow)}});
}

void workflow_manager::_notify_add_dependant(const std::string& wf, const std::string& dependant) {
  if (!receiver_) return;
  _notify_post_update_workflow(wf, properties{{"action", string_value("add-dependant")},
                                              {"state-id", string_value(wf)},
                                              {"dependant", string_value(dependant)}});
}

void workflow_manager::_notify_remove_dependant(const std::string& wf,
                                                const std::string& dependant) {
  if (!receiver_) return;
  _notify_post_update_workflow(wf, properties{{"action", string_value("remove-dependant")},
                                              {"state-id", string_value(wf)},
                                              {"dependant", string_value(dependant)}});
}

void workflow_manager::_notify_remove_dependant(const std::string& dependant) {
  if (!receiver_) return;
  _notify_post_update_workflow(std::string(),
                               properties{{"action", string_value("remove-dependant")},
                                          {"dependant", string_value(dependant)}});
}

void workflow_manager::_notify_set_priority(const std::string& wf, std::int64_t priority,
                                            workflow_info::priority_whence whence,
                                            std::int64_t min_priority, std::int64_t max_priority) {
  if (!receiver_) return;
  _notify_post_update_workflow(wf, properties{{"action", string_value("set-priority")},
                                              {"state-id", string_value(wf)},
                                              {"priority", int_value(priority)},
                                              {"whence", int_value(whence)},
                                              {"min", int_value(min_priority)},
                                              {"max", int_value(max_priority)}});
}

void workflow_manager::_notify_add_task(const std::string& wf, const std::string& wtid) {
  if (!receiver_) return;
  properties task(false);
  get_workflow_info(wf)->get_task_info(wtid)->encode_task_info(task);
  _notify_post_update_workflow(wf, properties{{"action", string_value("add-task")},
                                              {"wf-state-id", string_value(wf)},
                                              {"task-info", tree_value(task)}});
}

void workflow_manager::_notify_set_task_status(const std::string& wf, const std::string& wtid,
                                               zelcore::task::status status, unsigned int tm,
                                               const std::string& nid, const std::string& msg) {
  if (!receiver_) return;
  _notify_post_update_workflow(wf, properties{{"action", string_value("set-task-status")},
                                              {"wf-state-id", string_value(wf)},
                                              {"task-wtid", string_value(wtid)},
                                              {"task-status", int_value(status)},
                                              {"tm", int_value(tm)},
                                              {"nid", string_value(nid)},
                                              {"msg", string_value(msg)}});
}

void workflow_manager::_notify_set_task_scheduling_state(const std::string& wf,
                                                         const std::string& wtid,
                                                         zelcore::task::scheduling_state state) {
  if (!receiver_) return;
  _notify_post_update_workflow(wf, properties{{"action", string_value("set-task-scheduling-state")},
                                              {"wf-state-id", string_value(wf)},
                                              {"task-wtid", string_value(wtid)},
                                              {"task-scheduling-state", int_value(state)}});
}

void workflow_manager::_notify_update_task_progress(const std::string& wf, const std::string& wtid,
                                                    const properties& progress) {
  if (!receiver_) return;
  _notify_post_update_workflow(wf, properties{{"action", string_value("update-task-progress")},
                                              {"wf-state-id", string_value(wf)},
                                              {"task-wtid", string_value(wtid)},
                                              {"progress", tree_value(progress)}});
}

void workflow_manager::_notify_set_task_max_attempts(const std::string& wf, const std::string& wtid,
                                                     std::int64_t max_attempts) {
  if (!receiver_) return;
  // Written with an underscore, which update_workflow does not accept: readers of different
  // ages rely on these spellings staying as they are.
  _notify_post_update_workflow(wf, properties{{"action", string_value("set-task-max_attempts")},
                                              {"wf-state-id", string_value(wf)},
                                              {"task-wtid", string_value(wtid)},
                                              {"max-attempts", int_value(max_attempts)}});
}

void workflow_manager::_notify_set_task_priority(const std::string& wf, const std::string& wtid,
                                                 std::int64_t priority,
                                                 workflow_info::priority_whence whence,
                                                 std::int64_t min_priority,
                                                 std::int64_t max_priority) {
  if (!receiver_) return;
  _notify_post_update_workflow(wf, properties{{"action", string_value("set-task-priority")},
                                              {"wf-state-id", string_value(wf)},
                                              {"task-wtid", string_value(wtid)},
                                              {"priority", int_value(priority)},
                                              {"whence", int_value(whence)},
                                              {"min", int_value(min_priority)},
                                              {"max", int_value(max_priority)}});
}

void workflow_manager::_notify_set_workflow_meta_data(const std::string& wf,
                                                      const properties& meta) {
  if (receiver_)
    _notify_post_update_workflow(wf, meta_data_action("set-workflow-meta-data", wf, meta));
}

void workflow_manager::_notify_add_workflow_meta_data(const std::string& wf,
                                                      const properties& meta) {
  if (receiver_)
    _notify_post_update_workflow(wf, meta_data_action("add-workflow-meta-data", wf, meta));
}

void workflow_manager::_notify_add_ext_meta_data(const std::string& wf, const properties& meta) {
  if (receiver_) _notify_post_update_workflow(wf, meta_data_action("add-ext-meta-data", wf, meta));
}

void workflow_manager::_notify_set_in_value(const std::string& input_node_id,
                                            const property_ptr& value,
                                            const std::string& force_state_id,
                                            const properties& workflow_meta, bool force_spawn_value,
                                            const std::string& originator) {
  if (!receiver_) return;
  _notify_post_update_workflow(
      wfid_of(input_node_id),
      properties{{"action", string_value("set-in-value")},
                 {"input-node-id", string_value(input_node_id)},
                 {"value", value},
                 {"workflow-meta", tree_value(workflow_meta)},
                 {"force-state-id", string_value(force_state_id)},
                 {"force-spawn-value", zelcore::make_bool(force_spawn_value)},
                 {"originator", string_value(originator)}});
}

void workflow_manager::_notify_set_in_values(const std::string& wf, const properties_ptr& values,
                                             const std::string& force_state_id,
                                             const properties& workflow_meta,
                                             bool force_spawn_value,
                                             const std::string& originator) {
  if (!receiver_) return;
  _notify_post_update_workflow(
      wf, properties{{"action", string_value("set-in-values")},
                     {"workflow-id", string_value(wf)},
                     {"workflow-meta", tree_value(workflow_meta)},
                     {"force-state-id", string_value(force_state_id)},
                     {"force-spawn-value", zelcore::make_bool(force_spawn_value)},
                     {"values", values},
                     {"originator", string_value(originator)}});
}

void workflow_manager::_notify_set_init_in_value(const std::string& input_node_id,
                                                 const property_ptr& value,
                                                 const std::string& originator) {
  if (!receiver_) return;
  _notify_post_update_workflow(wfid_of(input_node_id),
                               properties{{"action", string_value("set-init-in-value")},
                                          {"input-node-id", string_value(input_node_id)},
                                          {"value", value},
                                          {"originator", string_value(originator)}});
}

void workflow_manager::_notify_set_in_out_values(const std::string& wf, const std::string& wtid,
                                                 const properties& values,
                                                 const properties& workflow_meta,
                                                 const std::string& originator) {
  if (!receiver_) return;
  _notify_post_update_workflow(wf, properties{{"action", string_value("set-in-out-values")},
                                              {"wf-state-id", string_value(wf)},
                                              {"task-wtid", string_value(wtid)},
                                              {"values", tree_value(values)},
                                              {"workflow-meta", tree_value(workflow_meta)},
                                              {"originator", string_value(originator)}});
}

// --- Appliers ---

void workflow_manager::_set_priority(const std::string& wf, std::int64_t priority,
                                     workflow_info::priority_whence whence,
                                     std::int64_t min_priority, std::int64_t max_priority) {
  get_workflow_info(wf)->set_priority(priority, whence, min_priority, max_priority);
}

void workflow_manager::_set_task_priority(const std::string& wf, const std::string& wtid,
                                          std::int64_t priority,
                                          workflow_info::priority_whence whence,
                                          std::int64_t min_priority, std::int64_t max_priority) {
  get_workflow_info(wf)->set_task_priority(wtid, priority, whence, min_priority, max_priority);
}

void workflow_manager::_set_task_max_attempts(const std::string& wf, const std::string& wtid,
                                              std::int64_t max_attempts) {
  get_workflow_info(wf)->set_task_max_attempts(wtid, static_cast<unsigned int>(max_attempts));
}

void workflow_manager::_set_task_scheduling_state(const std::string& wf, const std::string& wtid,
                                                  zelcore::task::scheduling_state state) {
  get_workflow_info(wf)->set_task_scheduling_state(wtid, state);
}

void workflow_manager::_update_task_progress(const std::string& wf, const std::string& wtid,
                                             const properties& progress) {
  get_workflow_info(wf)->update_task_progress(wtid, progress);
}

void workflow_manager::_set_workflow_meta_data(const std::string& wf, const properties& meta) {
  get_workflow_info(wf)->set_workflow_meta_data(meta);
}

void workflow_manager::_add_workflow_meta_data(const std::string& wf, const properties& meta) {
  get_workflow_info(wf)->add_workflow_meta_data(meta);
}

void workflow_manager::_add_ext_meta_data(const std::string& wf, const properties& meta) {
  get_workflow_info(wf)->add_ext_meta_data(meta);
}

void workflow_manager::_add_dependant(const std::string& wf, const std::string& dependant) {
  get_workflow_info(wf)->add_dependant(dependant);
}

void workflow_manager::_remove_dependant(const std::string& wf, const std::string& dependant) {
  get_workflow_info(wf)->remove_dependant(dependant);
}

void workflow_manager::_remove_dependant(const std::string& dependant) {
  for (auto& entry : workflows_) entry.second->remove_dependant(dependant);
}

void workflow_manager::_add_task(const std::string& wf, const properties& task,
                                 const zelcore::plugin_db& db, std::string& wtid) {
  // The task is built first, so a bad description fails before the workflow lookup.
  zelbase::ptr_refcount<task_info> ti = task_info::create_task_info(task, db);
  wtid = get_workflow_info(wf)->add_task_info(ti);
}

bool workflow_manager::_set_task_status(const std::string& wf, const std::string& wtid,
                                        zelcore::task::status status, unsigned int tm,
                                        const std::string& nid, const std::string& msg) {
  // An init task's status holds for every workflow that waits on the init workflow, and on
  // from those that are init workflows themselves: depth first, each waiting list in key order.
  // The walk keeps its own stack, as a snapshot may chain any number of init workflows; a
  // waiting cycle ends where a status no longer changes.
  using waiting_iterator = std::map<std::string, std::string>::const_iterator;
  std::vector<std::pair<waiting_iterator, waiting_iterator>> pending;
  const auto set_status = [&](const std::string& id) {
    workflow_info* wi = get_workflow_info(id);
    if (!wi->set_task_status(wtid, status, tm, nid, msg)) return false;
    if (wi->get_type() == workflow_info::workflow_type_init &&
        wi->get_task_info(wtid)->get_type() == zelcore::task::task_type_init) {
      const auto& waiting = wi->get_waiting_wfs();
      pending.emplace_back(waiting.begin(), waiting.end());
    }
    return true;
  };
  if (!set_status(wf)) return false;
  while (!pending.empty()) {
    auto& [next, end] = pending.back();
    if (next == end) {
      pending.pop_back();
      continue;
    }
    // The key lives in its map, which a status change leaves as it is.
    const std::string& waiting_id = (next++)->first;
    set_status(waiting_id);
  }
  return true;
}

// --- Local changes ---

void workflow_manager::add_dependant(const std::string& wf, const std::string& dependant) {
  _add_dependant(wf, dependant);
  _notify_add_dependant(wf, dependant);
}

void workflow_manager::remove_dependant(const std::string& wf, const std::string& dependant) {
  _remove_dependant(wf, dependant);
  _notify_remove_dependant(wf, dependant);
}

void workflow_manager::remove_dependant(const std::string& dependant) {
  _remove_dependant(dependant);
  _notify_remove_dependant(dependant);
}

void workflow_manager::add_ext_meta_data(const std::string& wf, const properties& meta) {
  _add_ext_meta_data(wf, meta);
  _notify_add_ext_meta_data(wf, meta);
}

void workflow_manager::add_workflow_meta_data(const std::string& wf, const properties& meta) {
  _add_workflow_meta_data(wf, meta);
  _notify_add_workflow_meta_data(wf, meta);
}

void workflow_manager::set_workflow_meta_data(const std::string& wf, const properties& meta) {
  _set_workflow_meta_data(wf, meta);
  _notify_set_workflow_meta_data(wf, meta);
}

void workflow_manager::set_ext_meta_data(const std::string& wf, const properties& meta) {
  get_workflow_info(wf)->set_ext_meta_data(meta);
}

void workflow_manager::add_task(const std::string& wf, const properties& task,
                                const zelcore::plugin_db& db, std::string& wtid) {
  _add_task(wf, task, db, wtid);
  _notify_add_task(wf, wtid);
}

void workflow_manager::set_priority(const std::string& wf, std::int64_t priority,
                                    workflow_info::priority_whence whence,
                                    std::int64_t min_priority, std::int64_t max_priority) {
  _set_priority(wf, priority, whence, min_priority, max_priority);
  _notify_set_priority(wf, priority, whence, min_priority, max_priority);
}

void workflow_manager::set_task_priority(const std::string& task_path, std::int64_t priority,
                                         workflow_info::priority_whence whence,
                                         std::int64_t min_priority, std::int64_t max_priority) {
  std::string wf, wtid;
  extract_wfid_and_wtid(task_path, wf, wtid);
  _set_task_priority(wf, wtid, priority, whence, min_priority, max_priority);
  _notify_set_task_priority(wf, wtid, priority, whence, min_priority, max_priority);
}

void workflow_manager::set_task_max_attempts(const std::string& task_path,
                                             unsigned int max_attempts) {
  std::string wf, wtid;
  extract_wfid_and_wtid(task_path, wf, wtid);
  _set_task_max_attempts(wf, wtid, max_attempts);
  _notify_set_task_max_attempts(wf, wtid, max_attempts);
}

void workflow_manager::set_task_scheduling_state(const std::string& wf, const std::string& wtid,
                                                 zelcore::task::scheduling_state state) {
  _set_task_scheduling_state(wf, wtid, state);
  _notify_set_task_scheduling_state(wf, wtid, state);
}

void workflow_manager::set_task_scheduling_state(const std::string& task_path,
                                                 zelcore::task::scheduling_state state) {
  std::string wf, wtid;
  extract_wfid_and_wtid(task_path, wf, wtid);
  set_task_scheduling_state(wf, wtid, state);
}

void workflow_manager::update_task_progress(const std::string& wf, const std::string& wtid,
                                            const properties& progress) {
  _update_task_progress(wf, wtid, progress);
  _notify_update_task_progress(wf, wtid, progress);
}

void workflow_manager::update_task_progress(const std::string& task_path,
                                            const properties& progress) {
  std::string wf, wtid;
  extract_wfid_and_wtid(task_path, wf, wtid);
  update_task_progress(wf, wtid, progress);
}

void workflow_manager::set_task_status(const std::string& wf, const std::string& wtid,
                                       zelcore::task::status status, unsigned int tm,
                                       const std::string& nid, const std::string& msg) {
  if (_set_task_status(wf, wtid, status, tm, nid, msg))
    _notify_set_task_status(wf, wtid, status, tm, nid, msg);
}

void workflow_manager::set_task_status(const std::string& task_path, zelcore::task::status status,
                                       unsigned int tm, const std::string& nid,
                                       const std::string& msg) {
  std::string wf, wtid;
  extract_wfid_and_wtid(task_path, wf, wtid);
  set_task_status(wf, wtid, status, tm, nid, msg);
}

}  // namespace zelcapi
