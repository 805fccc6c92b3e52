// The workflow manager: workflow ids and wpaths, adding and removing workflows, the
// "update-workflow" actions (writers, reader and appliers), in-value propagation and task queries.
#include "zelcapi/workflow_manager.h"

#include <initializer_list>
#include <utility>
#include <vector>

#include <boost/make_shared.hpp>

#include "zelbase/exceptions.h"
#include "zelbase/paths.h"
#include "zelbase/strings.h"
#include "zelbase/time.h"
#include "zelcore/identifiers.h"
#include "zelcore/report.h"

namespace zelcapi {

namespace {

using zelcore::properties;
using zelworkflow::task_info;
using zelworkflow::workflow_info;
using property_ptr = workflow_manager::property_ptr;

constexpr const char* source_file = "code\\app\\common\\shared\\zelcapi\\src\\workflow_manager";
constexpr const char* report_category = "workflow_manager";
constexpr zelcore::kind report_kind = 8;
constexpr zelbase::severity report_severity = 3;
constexpr std::int64_t invalid_state_id_code = -3414000;
// The lines under which an unknown update action is reported and raised; log readers match
// on them.
constexpr unsigned unknown_action_report_line = 478;
constexpr unsigned unknown_action_raise_line = 479;
constexpr char path_separator = '>';

void report_failure(unsigned line, const std::string& message) {
  zelcore::report(source_file, line, report_category, report_kind, report_severity, message);
}

[[noreturn]] void raise_invalid_state_id(unsigned line, const std::string& message) {
  report_failure(line, message);
  zelbase::es::api_code::raise(source_file, line, invalid_state_id_code, message);
}

[[noreturn]] void raise_arg(unsigned line, const std::string& message) {
  report_failure(line, message);
  zelbase::es::arg::raise(source_file, line, message);
}

property_ptr string_value(const std::string& text) { return zelcore::make_string(text); }
property_ptr int_value(std::int64_t value) { return zelcore::make_int(value); }
property_ptr tree_value(const properties& tree) { return property_ptr(new properties(tree)); }

// A field that must be present, of any kind; raises as the tree's own getters do.
property_ptr required_property(const properties& tree, const std::string& key) {
  property_ptr value = tree.get_property(key);
  if (!value)
    zelbase::es::arg::raise(source_file, __LINE__,
                            zelbase::string_with_format("property '%s' is missing", key.c_str()));
  return value;
}

// A nested tree of an update, shared with the update rather than copied.
workflow_manager::properties_ptr required_shared_tree(const properties& tree,
                                                      const std::string& key) {
  return workflow_manager::properties_ptr(&tree.get_properties_value(key));
}

// The workflow state id addressed by the first element of a wpath.
std::string wfid_of(const std::string& wpath) {
  return zelbase::workflow_id(zelbase::path_front(wpath, path_separator));
}

// How whole-map reports name a task.
std::string task_path(const std::string& state_id, const std::string& wtid) {
  return zelbase::path_appended(zelbase::workflow_new_id(zelbase::workflow_new(), state_id), wtid,
                                path_separator);
}

bool is_one_of(const std::string& text, std::initializer_list<const char*> candidates) {
  for (const char* candidate : candidates)
    if (text == candidate) return true;
  return false;
}

properties meta_data_action(const char* action, const std::string& wf, const properties& meta) {
  return properties{{"action", string_value(action)},
                    {"wf-state-id", string_value(wf)},
                    {"meta-data", tree_value(meta)}};
}

}  // namespace

workflow_manager_event_receiver::~workflow_manager_event_receiver() = default;

// --- Construction, identifiers, numbering ---

workflow_manager::workflow_manager(workflow_manager_event_receiver* receiver,
                                   workflow_map& workflows, std::uint64_t& sequence_number)
    : receiver_(receiver), workflows_(workflows), sequence_number_(sequence_number) {}

workflow_manager::~workflow_manager() = default;

void workflow_manager::set_attempts_config(const attempts_config& config) {
  if (&config == &attempts_config_) return;
  attempts_config_.clear();
  attempts_config_.insert(config.begin(), config.end());
}

std::string workflow_manager::create_wpath(const std::string& wfid, const std::string& wtid) {
  return zelbase::uri_new_scheme_specific(zelbase::workflow_new(),
                                          zelbase::path_appended(wfid, wtid, path_separator));
}

void workflow_manager::extract_wfid_and_wtid(const std::string& wpath, std::string& wfid,
                                             std::string& wtid) {
  // Both outputs may alias the input: read it whole before writing either.
  std::string id = wfid_of(wpath);
  std::string task = zelbase::path_back(wpath, path_separator);
  wfid = std::move(id);
  wtid = std::move(task);
}

void workflow_manager::create_unique_state_id(std::string& out) const {
  out = "WOFL-" + zelcore::string_uuid(false);
}

std::uint64_t workflow_manager::get_next_sequence_number() {
  if (++sequence_number_ == 0) sequence_number_ = 1;
  return sequence_number_;
}

// --- Lookup, adding, removing ---

workflow_info* workflow_manager::get_workflow_info(const std::string& state_id) {
  const auto it = workflows_.find(state_id);
  if (it == workflows_.end())
    raise_invalid_state_id(__LINE__, zelbase::string_with_format(
                                         "'%s' isn't a valid workflow state id", state_id.c_str()));
  return it->second.get();
}

const workflow_info* workflow_manager::get_workflow_info(const std::string& state_id) const {
  return const_cast<workflow_manager*>(this)->get_workflow_info(state_id);
}

void workflow_manager::_add_workflow(boost::shared_ptr<workflow_info>& wi,
                                     const std::string& state_id) {
  if (!workflows_.emplace(state_id, wi).second)
    raise_arg(__LINE__, zelbase::string_with_format("Can't add workflow with same state-id ('%s') "
                                                    "as an already present workflow.",
                                                    state_id.c_str()));
  if (wi->get_type() == workflow_info::workflow_type_spawned && wi->get_sequence_number() == 0)
    wi->spawn(get_next_sequence_number(), string_value("No in-value needed"), attempts_config_);
}

void workflow_manager::_add_workflow(const properties& props, const zelcore::plugin_db& db,
                                     std::string& state_id_out, const std::string& state_id_in) {
  auto wi = boost::make_shared<workflow_info>();
  wi->decode_workflow_info(props, db);
  if (state_id_in.empty())
    create_unique_state_id(state_id_out);
  else if (&state_id_out != &state_id_in)
    state_id_out = state_id_in;
  _add_workflow(wi, state_id_out);
}

void workflow_manager::add_workflow(const properties& workflow, const zelcore::plugin_db& db,
                                    std::string& state_id, const std::string& requested) {
  _add_workflow(workflow, db, state_id, requested);
  _notify_add_workflow(state_id, workflow);
}

void workflow_manager::_remove_workflow(const std::string& state_id) {
  // The id may live in the entry about to be erased.
  const std::string id = state_id;
  get_workflow_info(id)->add_workflow_meta_data("remove-time",
                                                int_value(zelbase::time_in_seconds()));
  const auto it = workflows_.find(id);
  if (it == workflows_.end())
    raise_invalid_state_id(__LINE__, zelbase::string_with_format(
                                         "erase() Invalid workflow state id: '%s'", id.c_str()));
  workflows_.erase(it);
  for (auto& entry : workflows_) entry.second->remove_dependant(id);
}

void workflow_manager::remove_workflow(const std::string& state_id) {
  // The caller may pass the map's own key, which the removal frees.
  const std::string id = state_id;
  const properties update{{"action", string_value("remove-workflow")},
                          {"state-id", string_value(id)}};
  _notify_pre_update_workflow(id, update);
  _remove_workflow(id);
  _notify_post_update_workflow(id, update);
}

// --- Encoders and whole-map queries ---

void workflow_manager::encode_workflow(const std::string& state_id, properties& out) const {
  get_workflow_info(state_id)->encode_workflow_info(out);
}

void workflow_manager::encode_all_workflows(properties& out) const {
  for (const auto& [id, wi] : workflows_) {
    properties encoded(false);
    wi->encode_workflow_info(encoded);
    out[id] = tree_value(encoded);
  }
}

void workflow_manager::encode_task(const std::string& state_id, const std::string& wtid,
                                   properties& out) const {
  get_workflow_info(state_id)->get_task_info(wtid)->encode_task_info(out);
}

void workflow_manager::get_all_workflow_statuses(
    std::map<std::string, workflow_info::status>& out) const {
  for (const auto& [id, wi] : workflows_) out[id] = wi->get_status();
}

void workflow_manager::get_all_wpaths(std::set<std::string>& out) const {
  std::list<std::string> wtids;
  for (const auto& [id, wi] : workflows_) {
    wtids.clear();
    wi->get_task_uris(wtids);
    for (const auto& wtid : wtids) out.insert(create_wpath(id, wtid));
  }
}

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
