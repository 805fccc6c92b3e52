// In-value propagation of the workflow manager: values passed into a workflow, spawning
// workflows from templates, and output values passed on to the waiting workflows.
#include "zelcapi/workflow_manager.h"

#include <utility>
#include <vector>

#include <boost/make_shared.hpp>

#include "workflow_manager_detail.h"
#include "zelbase/time.h"
#include "zelcore/identifiers.h"

namespace zelcapi {

using namespace workflow_manager_detail;

// --- In-values ---

bool workflow_manager::_set_in_value(const std::string& wpath, const property_ptr& value,
                                     std::string& state_id, const std::string& force_state_id,
                                     const properties& workflow_meta, bool force_spawn_value,
                                     const std::string& originator) {
  const std::string wfid = wfid_of(wpath);
  std::string in_node_path = wpath;
  zelbase::path_pop_front(in_node_path, path_separator);
  workflow_info* wi = get_workflow_info(wfid);
  switch (wi->get_type()) {
    case workflow_info::workflow_type_template:
      return _spawn_from_template(*wi, wfid, in_node_path, value, state_id, force_state_id,
                                  workflow_meta, originator);
    case workflow_info::workflow_type_init:
      return _set_in_value_on_init_workflow(*wi, wfid, in_node_path, value, state_id,
                                            force_state_id, force_spawn_value, originator);
    case workflow_info::workflow_type_spawned:
      state_id = wfid;
      if (!wi->set_in_value(in_node_path, value, force_spawn_value, originator)) return false;
      wi->add_workflow_meta_data(workflow_meta);
      return true;
  }
  return false;
}

bool workflow_manager::_spawn_from_template(const workflow_info& templ, const std::string& wfid,
                                            const std::string& in_node_path,
                                            const property_ptr& value, std::string& state_id,
                                            const std::string& force_state_id,
                                            const properties& workflow_meta,
                                            const std::string& originator) {
  _choose_state_id(state_id, force_state_id);
  auto copy = boost::make_shared<workflow_info>(templ);
  if (copy->is_inited()) {
    copy->set_type(workflow_info::workflow_type_spawned);
    copy->clear_dependants();
  } else {
    // A template that still needs init values becomes an init workflow, fed through an init task.
    copy->set_type(workflow_info::workflow_type_init);
    const std::string wtid = zelbase::path_front(in_node_path, path_separator);
    if (copy->get_task_info(wtid)->get_type() != zelcore::task::task_type_init) return false;
  }
  return _spawn_copy(copy, wfid, &workflow_meta, in_node_path, value, state_id, originator);
}

bool workflow_manager::_set_in_value_on_init_workflow(
    workflow_info& init, const std::string& wfid, const std::string& in_node_path,
    const property_ptr& value, std::string& state_id, const std::string& force_state_id,
    bool force_spawn_value, const std::string& originator) {
  const std::string wtid = zelbase::path_front(in_node_path, path_separator);
  if (init.get_task_info(wtid)->get_type() == zelcore::task::task_type_init) {
    state_id = wfid;
    if (!init.set_in_value(in_node_path, value, force_spawn_value, originator)) return false;
    _set_in_value_on_waiting_wfs(init, in_node_path, value, force_spawn_value);
    return true;
  }
  // Any other task: the value starts a child of the init workflow.
  _choose_state_id(state_id, force_state_id);
  auto copy = boost::make_shared<workflow_info>(init);
  copy->set_type(workflow_info::workflow_type_spawned);
  copy->clear_waiting_wfs();
  copy->clear_dependants();
  if (!_spawn_copy(copy, wfid, nullptr, in_node_path, value, state_id, originator)) return false;
  // While init values are still to come, the child waits for them.
  if (!init.is_inited()) init.add_waiting_wf(state_id, originator);
  init.add_dependant(state_id);
  return true;
}

void workflow_manager::_choose_state_id(std::string& state_id,
                                        const std::string& force_state_id) const {
  if (force_state_id.empty())
    create_unique_state_id(state_id);
  else
    state_id = force_state_id;
}

bool workflow_manager::_spawn_copy(boost::shared_ptr<workflow_info>& copy,
                                   const std::string& parent_id, const properties* workflow_meta,
                                   const std::string& in_node_path, const property_ptr& value,
                                   const std::string& state_id, const std::string& originator) {
  const property_ptr parent = string_value(parent_id);
  copy->add_workflow_meta_data("parent-id", parent);
  copy->set_ext_meta_data("origin{template}", parent);
  if (workflow_meta) copy->add_workflow_meta_data(*workflow_meta);
  copy->spawn(get_next_sequence_number(), value, attempts_config_);
  // A refused value discards the copy; the sequence number stays used.
  if (!copy->set_in_value(in_node_path, value, false, originator)) return false;
  _add_workflow(copy, state_id);
  return true;
}

void workflow_manager::_set_in_value_on_waiting_wfs(const workflow_info& wi,
                                                    const std::string& in_node_path,
                                                    const property_ptr& value,
                                                    bool force_spawn_value) {
  for (const auto& [waiting_id, waiting_originator] : wi.get_waiting_wfs()) {
    try {
      get_workflow_info(waiting_id)
          ->set_in_value(in_node_path, value, force_spawn_value, waiting_originator);
    } catch (const zelbase::es::base&) {
      report_failure(__LINE__,
                     zelbase::string_with_format("Failed to set in-value %s on waiting workflow %s",
                                                 in_node_path.c_str(), waiting_id.c_str()));
    }
  }
}

bool workflow_manager::_set_in_values(const std::string& wpath, const properties_ptr& values,
                                      std::string& state_id, const std::string& force_state_id,
                                      const properties& workflow_meta, bool force_spawn_value,
                                      const std::string& originator) {
  state_id = wpath;
  // Sources go first, so that the workflow has them before the other values arrive.
  for (const bool sources : {true, false}) {
    for (const auto& [name, value] : *values) {
      if (!value || (name.find("source-url") != std::string::npos) != sources) continue;
      _set_in_value(zelbase::path_appended(state_id, name, path_separator), value, state_id,
                    force_state_id, workflow_meta, force_spawn_value, originator);
    }
  }
  return true;
}

bool workflow_manager::_set_init_in_value(const std::string& wpath, const property_ptr& value,
                                          const std::string& originator) {
  std::string in_node_path = wpath;
  zelbase::path_pop_front(in_node_path, path_separator);
  workflow_info* wi = get_workflow_info(wfid_of(wpath));
  if (wi->get_type() != workflow_info::workflow_type_init)
    raise_arg(__LINE__, "Can't set init in-value on a non-init workflow");
  if (!wi->set_in_value(in_node_path, value, false, originator)) return false;
  _set_in_value_on_waiting_wfs(*wi, in_node_path, value, false);
  return true;
}

bool workflow_manager::_set_in_out_values(const std::string& wfid, const std::string& wtid,
                                          const properties& out_values,
                                          const properties& workflow_meta,
                                          const std::string& originator) {
  workflow_info* wi = get_workflow_info(wfid);
  zelbase::ptr_refcount<task_info> task = wi->get_task_info(wtid);
  const zelcore::task::task_type type = task->get_type();
  // Read every route before storing anything, so a malformed out-value changes nothing.
  std::vector<std::pair<property_ptr, property_ptr>> routes;
  routes.reserve(out_values.size());
  for (const auto& [name, entry] : out_values) {
    if (!entry) continue;
    const properties& out_value = out_values.get_properties_value(name);
    out_value.get_list_value("destinations");  // raises unless it is a list
    routes.emplace_back(required_property(out_value, "value"),
                        out_value.get_property("destinations"));
  }
  task->decode_out_values(out_values);
  // Waiting workflows are copies of this one and have the same task ids.
  for (const auto& waiting : wi->get_waiting_wfs())
    get_workflow_info(waiting.first)->get_task_info(wtid)->decode_out_values(out_values);
  std::string scratch;
  for (const auto& [value, destinations] : routes) {
    for (const property_ptr& destination :
         static_cast<const zelcore::property_list&>(*destinations).value()) {
      if (!destination || destination->kind() != zelcore::property::kind_string) continue;
      const std::string path = zelbase::path_appended(
          wfid, static_cast<const zelcore::property_string&>(*destination).value(), path_separator);
      if (type == zelcore::task::task_type_ordinary)
        _set_in_value(path, value, scratch, zelbase::string_empty_string(), workflow_meta, false,
                      originator);
      else if (type == zelcore::task::task_type_init)
        _set_init_in_value(path, value, originator);
    }
  }
  return true;
}

bool workflow_manager::set_in_value(const std::string& wpath, const property_ptr& value,
                                    std::string& state_id, const std::string& force_state_id,
                                    const properties& workflow_meta, bool force_spawn_value,
                                    const std::string& originator) {
  // The caller may receive the id in the string that holds the address.
  const std::string input_node_id = wpath;
  if (!_set_in_value(input_node_id, value, state_id, force_state_id, workflow_meta,
                     force_spawn_value, originator))
    return false;
  // The replica spawns under the id that was actually used.
  _notify_set_in_value(input_node_id, value, state_id, workflow_meta, force_spawn_value,
                       originator);
  return true;
}

bool workflow_manager::set_in_values(const std::string& wpath, const properties_ptr& values,
                                     std::string& state_id, const std::string& force_state_id,
                                     const properties& workflow_meta, bool force_spawn_value,
                                     const std::string& originator) {
  // A null tree is an empty one, so that the written action stays applicable.
  const properties_ptr tree = values ? values : properties_ptr(new properties());
  // The caller may receive the id in the string that holds the address or the forced id, which
  // the applier overwrites before it has read them.
  const std::string wf = wpath;
  const std::string force = force_state_id;
  if (!_set_in_values(wf, tree, state_id, force, workflow_meta, force_spawn_value, originator))
    return false;
  _notify_set_in_values(wf, tree, state_id, workflow_meta, force_spawn_value, originator);
  return true;
}

bool workflow_manager::set_init_in_value(const std::string& wpath, const property_ptr& value,
                                         const std::string& originator) {
  if (!_set_init_in_value(wpath, value, originator)) return false;
  _notify_set_init_in_value(wpath, value, originator);
  return true;
}

bool workflow_manager::set_in_out_values(const std::string& wfid, const std::string& wtid,
                                         const properties& out_values,
                                         const properties& workflow_meta,
                                         const std::string& originator) {
  if (!_set_in_out_values(wfid, wtid, out_values, workflow_meta, originator)) return false;
  _notify_set_in_out_values(wfid, wtid, out_values, workflow_meta, originator);
  return true;
}

bool workflow_manager::set_in_out_values(const std::string& wpath, const properties& out_values,
                                         const properties& workflow_meta,
                                         const std::string& originator) {
  std::string wf, wtid;
  extract_wfid_and_wtid(wpath, wf, wtid);
  return set_in_out_values(wf, wtid, out_values, workflow_meta, originator);
}

}  // namespace zelcapi
