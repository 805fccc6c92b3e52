// "cluster.api.workflow.update": each "update-workflow" action is checked (its sender's right to
// the workflow, the ids it creates, the runner's task parameters), tried on copies of the
// workflows it touches, and then applied to the master's workflow manager, which sends it to the
// replicas as it was applied.
#include <optional>
#include <set>

#include "write_requests.h"
#include "zelbase/exceptions.h"
#include "zelbase/paths.h"
#include "zelcapi/workflow_manager.h"
#include "zelcore/identifiers.h"

namespace zelsim {

namespace {

using zelcore::properties;
using zelworkflow::workflow_info;

constexpr const char* source_file = "code\\tools\\zelsim\\src\\workflow_actions";

[[noreturn]] void refuse(const std::string& text) {
  zelbase::es::arg::raise(source_file, __LINE__, text);
}

// A string field, or "" when it is absent or of another kind.
std::string text_of(const properties& tree, const std::string& key) {
  const zelcore::property_ptr p = tree.get_property(key);
  return p && p->kind() == zelcore::property::kind_string
             ? static_cast<const zelcore::property_string&>(*p).value()
             : std::string();
}

bool one_of(const std::string& name, std::initializer_list<const char*> names) {
  for (const char* n : names) {
    if (name == n) return true;
  }
  return false;
}

// The runner sets these as tasks run; clients do not.
bool masters_own(const std::string& name) {
  return one_of(name, {"set-task-status", "set-task-scheduling-state", "update-task-progress"});
}

// The workflow that an action names, read as the workflow manager reads it (a missing field
// raises); none for an action that the manager does not apply.
std::optional<std::string> target_of(const std::string& name, const properties& action) {
  if (one_of(name, {"add-workflow", "remove-workflow", "add-dependant", "set-priority"})) {
    return action.get_string_value("state-id");
  }
  if (name == "remove-dependant") return action.get_string_value("state-id", "");
  if (name == "set-in-values") return action.get_string_value("workflow-id");
  if (name == "set-in-value" || name == "set-init-in-value") {
    return zelbase::workflow_id(zelbase::path_front(action.get_string_value("input-node-id"), '>'));
  }
  if (one_of(name, {"set-in-out-values", "set-task-max-attempts", "set-task-priority", "add-task",
                    "set-workflow-meta-data", "add-workflow-meta-data", "add-ext-meta-data"})) {
    return action.get_string_value("wf-state-id");
  }
  return std::nullopt;
}

// The task of an in-value action: the first element of the in-node path after the workflow.
std::string in_node_task(const properties& action) {
  std::string path = action.get_string_value("input-node-id");
  zelbase::path_pop_front(path, '>');
  return zelbase::path_front(path, '>');
}

// Whether an in-value action spawns a workflow from `wi`: a value for a template, or one for an
// init workflow that is not for one of its init tasks.
bool spawns(const workflow_info& wi, const std::string& name, const properties& action) {
  if (name != "set-in-value" && name != "set-in-values") return false;
  if (wi.get_type() == workflow_info::workflow_type_template) return true;
  if (wi.get_type() != workflow_info::workflow_type_init) return false;
  if (name == "set-in-values") return true;
  const std::string task = in_node_task(action);
  return !wi.has_task_info(task) ||
         wi.get_task_info(task)->get_type() != zelcore::task::task_type_init;
}

// Copies of live workflows in a workflow manager of their own, on which an action is tried
// before the master applies it.
struct trial {
  zelcapi::workflow_manager::workflow_map workflows;
  std::uint64_t sequence;
  zelcapi::workflow_manager manager{nullptr, workflows, sequence};

  trial(const master_state& master, const std::set<std::string>& ids)
      : sequence(master.get_workflow_sequence_number()) {
    for (const std::string& id : ids) {
      if (!master.has_workflow_in_state(id)) continue;
      workflows.emplace(id, boost::shared_ptr<workflow_info>(
                                new workflow_info(*master.get_workflow_from_state(id))));
    }
  }
  properties encoding(const std::string& id) const {
    properties out;
    const auto found = workflows.find(id);
    if (found != workflows.end()) found->second->encode_workflow_info(out);
    return out;
  }
};

// The workflow and the workflows waiting on it: what an in-value reaches.
std::set<std::string> with_waiting(const master_state& master, const std::string& id) {
  std::set<std::string> ids{id};
  if (!master.has_workflow_in_state(id)) return ids;
  for (const auto& [waiting, originator] : master.get_workflow_from_state(id)->get_waiting_wfs()) {
    ids.insert(waiting);
  }
  return ids;
}

}  // namespace

void write_requests::_update(const identity& who, const properties& request, bool dry_run,
                             properties& reply) {
  const auto& actions = request.get_list_value("actions");
  if (actions.empty()) refuse("\"actions\" is empty");
  zelbase::ptr_refcount<zelcore::property_list> list(new zelcore::property_list());
  for (const zelcore::property_ptr& element : actions) {
    std::string name, state_id;
    verdict v{outcome::done, "", ""};
    try {
      if (element->kind() != zelcore::property::kind_properties) {
        refuse(std::string("an action is a properties, not a ") +
               zelcore::property_kind_c_str(element->kind()));
      }
      properties action = static_cast<const properties&>(*element);
      name = action.get_string_value("action");
      v = _action(who, action, dry_run, state_id);
    } catch (const zelbase::es::base& e) {
      v = verdict{outcome::invalid, e.message(), ""};
    }
    properties item = item_of(v);
    if (!name.empty()) item.set_string_value("action", name);
    if (!state_id.empty()) item.set_string_value("state-id", state_id);
    list->push_back(zelcore::property_ptr(new properties(std::move(item))));
  }
  reply["items"] = list;
}

bool write_requests::_creates_unnamed(const zelcore::property_ptr& element) const {
  if (element->kind() != zelcore::property::kind_properties) return false;
  const properties& action = static_cast<const properties&>(*element);
  const std::string name = text_of(action, "action");
  // A missing id is the action's own error, which its item reports.
  if (name == "add-workflow") {
    return action.is_present("state-id") && text_of(action, "state-id").empty();
  }
  if (name != "set-in-value" && name != "set-in-values") return false;
  if (!action.is_present("force-state-id") || !text_of(action, "force-state-id").empty()) {
    return false;
  }
  const std::string target =
      name == "set-in-values"
          ? text_of(action, "workflow-id")
          : zelbase::workflow_id(zelbase::path_front(text_of(action, "input-node-id"), '>'));
  return master_.has_workflow_in_state(target) &&
         spawns(*master_.get_workflow_from_state(target), name, action);
}

bool write_requests::_refused(const identity& who, const std::string& id, verdict& v) const {
  if (!master_.has_workflow_in_state(id)) {
    v = work_.has_ended(id)
            ? verdict{outcome::not_allowed, "workflow '" + id + "' has ended", ""}
            : verdict{outcome::not_found, "'" + id + "' isn't a valid workflow state id", ""};
    return true;
  }
  const std::string* owner = work_.owner_of(id);
  if (owner == nullptr) {
    v = verdict{outcome::not_allowed,
                "workflow '" + id + "' is run by the simulated workload, which takes no actions",
                ""};
    return true;
  }
  if (!who.admin && *owner != who.user) {
    v = verdict{outcome::access_denied, "workflow '" + id + "' belongs to '" + *owner + "'",
                *owner};
    return true;
  }
  return false;
}

bool write_requests::_taken(const identity& who, const std::string& id, verdict& v) const {
  if (const std::string* owner = work_.owner_of(id)) {
    v = *owner == who.user
            ? verdict{outcome::already_done,
                      "workflow '" + id + "' was made before" +
                          (work_.has_ended(id) ? " and has ended" : ""),
                      ""}
            : verdict{outcome::access_denied,
                      "state id '" + id + "' belongs to a workflow of '" + *owner + "'", *owner};
    return true;
  }
  const int where = master_.has_workflow_in_state_or_history(id);
  if (where == 0) return false;
  v = verdict{outcome::not_allowed,
              "state id '" + id + "' belongs to a workflow " +
                  (where == 1 ? "of the simulated workload" : "that has ended"),
              ""};
  return true;
}

void write_requests::_own_meta(properties& tree, const std::string& key, const std::string& owner,
                               bool add) const {
  properties meta = tree.get_properties_value(key, properties());
  const zelcore::property_ptr user = meta.get_property("user");
  if (user && !(user->kind() == zelcore::property::kind_string &&
                static_cast<const zelcore::property_string&>(*user).value() == owner)) {
    refuse("meta data \"user\" names the workflow's owner, '" + owner +
           "', and is the master's to set");
  }
  if (!add) return;
  meta.set_string_value("user", owner);
  tree.set_properties_value(key, meta);
}

void write_requests::_check_task(const std::string& id, const properties& task) const {
  const std::string what = "task '" + id + "': ";
  try {
    const job_params params =
        read_task_parameters(task.get_properties_value("parameters", properties()), run_ms_);
    if (params.cores > pool_.largest()) {
      refuse("parameter 'cores' is " + std::to_string(params.cores) +
             ", more than the largest node has (" + std::to_string(pool_.largest()) + ")");
    }
    const properties& declared = task.get_properties_value("out-values", properties());
    for (const auto& [name, value] : params.out_values) {
      if (!declared.is_present(name)) {
        refuse("parameter 'out-values' names '" + name + "', which the task does not declare");
      }
    }
  } catch (const zelbase::es::base& e) {
    refuse(what + e.message());
  }
}

void write_requests::_check_tasks(const properties& tasks) const {
  for (const auto& [id, task] : tasks) {
    if (task && task->kind() == zelcore::property::kind_properties) {
      _check_task(id, static_cast<const properties&>(*task));
    }
  }
}

verdict write_requests::_action(const identity& who, properties& action, bool dry_run,
                                std::string& state_id) {
  const std::string name = action.get_string_value("action");
  if (masters_own(name)) {
    return {outcome::invalid,
            "'" + name +
                "' is the master's own: task statuses, scheduling and progress follow "
                "the jobs that run the tasks",
            ""};
  }
  if (name == "add-workflow") return _add_workflow(who, action, dry_run, state_id);
  if (one_of(name, {"set-in-value", "set-in-values", "set-init-in-value", "set-in-out-values"})) {
    return _in_values(who, name, action, dry_run, state_id);
  }
  const std::optional<std::string> named = target_of(name, action);
  if (!named) {
    // The manager refuses it with its own text.
    trial t(master_, {});
    t.manager.update_workflow(action, master_.get_plugin_db());
  }
  const std::string target = named.value_or("");
  state_id = target;
  verdict v{outcome::done, "", ""};
  if (name == "remove-workflow") {
    if (!master_.has_workflow_in_state(target) && work_.has_ended(target)) {
      const std::string& owner = *work_.owner_of(target);
      if (!who.admin && owner != who.user) {
        return {outcome::access_denied, "workflow '" + target + "' belongs to '" + owner + "'",
                owner};
      }
      return {outcome::already_done, "workflow '" + target + "' has ended", ""};
    }
    if (_refused(who, target, v)) return v;
    if (dry_run) return v;
    work_.removing(target);
    master_.get_workflow_manager().update_workflow(action, master_.get_plugin_db());
    return v;
  }
  if (name == "remove-dependant" && target.empty()) {
    // Without a workflow it changes every workflow.
    if (!who.admin) {
      return {outcome::access_denied,
              "'remove-dependant' without \"state-id\" changes every workflow: only an "
              "administrator sends it",
              ""};
    }
    action.get_string_value("dependant");
    if (!dry_run) master_.get_workflow_manager().update_workflow(action, master_.get_plugin_db());
    return v;
  }
  if (_refused(who, target, v)) return v;
  if (action.is_present("task-wtid")) {
    const std::string& task = action.get_string_value("task-wtid");
    if (!master_.get_workflow_from_state(target)->has_task_info(task)) {
      return {outcome::not_found, "workflow '" + target + "' has no task '" + task + "'", ""};
    }
  }
  const std::string& owner = *work_.owner_of(target);
  if (name == "set-workflow-meta-data") _own_meta(action, "meta-data", owner, true);
  if (name == "add-workflow-meta-data") _own_meta(action, "meta-data", owner, false);
  if (name == "add-task") {
    const properties& task = action.get_properties_value("task-info");
    _check_task(task.get_string_value("id", ""), task);
  }
  trial t(master_, {target});
  const properties before = t.encoding(target);
  t.manager.update_workflow(action, master_.get_plugin_db());
  if (t.encoding(target) == before) {
    return {outcome::already_done, "'" + name + "' changes nothing in workflow '" + target + "'",
            ""};
  }
  if (dry_run) return v;
  master_.get_workflow_manager().update_workflow(action, master_.get_plugin_db());
  work_.touch(target);
  return v;
}

verdict write_requests::_add_workflow(const identity& who, properties& action, bool dry_run,
                                      std::string& state_id) {
  verdict v{outcome::done, "", ""};
  state_id = action.get_string_value("state-id");
  properties workflow = action.get_properties_value("workflow");
  const bool named = !state_id.empty();
  if (named && _taken(who, state_id, v)) return v;
  if (!named) state_id = "WOFL-" + zelcore::string_uuid(false);
  _own_meta(workflow, "meta-data", who.user, true);
  _check_tasks(workflow.get_properties_value("tasks", properties()));
  action.set_string_value("state-id", state_id);
  action.set_properties_value("workflow", workflow);
  trial t(master_, {});
  t.manager.update_workflow(action, master_.get_plugin_db());
  if (dry_run) {
    // An id the master would have made now means nothing later.
    if (!named) state_id.clear();
    return v;
  }
  master_.get_workflow_manager().update_workflow(action, master_.get_plugin_db());
  work_.adopt(state_id, who);
  return v;
}

verdict write_requests::_in_values(const identity& who, const std::string& name, properties& action,
                                   bool dry_run, std::string& state_id) {
  verdict v{outcome::done, "", ""};
  const std::string target = *target_of(name, action);
  state_id = target;
  if (!master_.has_workflow_in_state(target)) {
    _refused(who, target, v);
    return v;
  }
  const workflow_info& wi = *master_.get_workflow_from_state(target);
  const workflow_info::workflow_type type = wi.get_type();
  const bool creates = spawns(wi, name, action);
  // Anyone spawns from a template; everything else needs the right to the workflow.
  if (type != workflow_info::workflow_type_template && _refused(who, target, v)) return v;
  if (name == "set-in-out-values" &&
      (type == workflow_info::workflow_type_template ||
       (type == workflow_info::workflow_type_init &&
        wi.has_task_info(action.get_string_value("task-wtid")) &&
        wi.get_task_info(action.get_string_value("task-wtid"))->get_type() ==
            zelcore::task::task_type_ordinary))) {
    return {outcome::invalid,
            "out-values of this task would spawn workflows that no action names; send the "
            "values with 'set-in-value' and a \"force-state-id\"",
            ""};
  }
  identity owner = who;
  std::string made;
  if (creates) {
    made = action.get_string_value("force-state-id");
    const bool named = !made.empty();
    if (named && _taken(who, made, v)) {
      state_id = made;
      return v;
    }
    if (!named) made = "WOFL-" + zelcore::string_uuid(false);
    action.set_string_value("force-state-id", made);
    if (type == workflow_info::workflow_type_template) {
      _own_meta(action, "workflow-meta", who.user, true);
    } else {
      // A child of an init workflow is its owner's, as the init workflow's meta data says.
      owner.user = *work_.owner_of(target);
    }
    if (dry_run && !named) made.clear();
  } else if (type != workflow_info::workflow_type_template && action.is_present("workflow-meta")) {
    _own_meta(action, "workflow-meta", *work_.owner_of(target), false);
  }
  const std::set<std::string> reached = with_waiting(master_, target);
  trial t(master_, reached);
  std::vector<properties> before;
  for (const std::string& id : reached) before.push_back(t.encoding(id));
  t.manager.update_workflow(action, master_.get_plugin_db());
  bool changed =
      creates ? t.workflows.count(action.get_string_value("force-state-id")) != 0 : false;
  std::size_t i = 0;
  for (const std::string& id : reached) changed = changed || t.encoding(id) != before[i++];
  if (!changed) {
    if (name == "set-in-out-values") {
      return {outcome::already_done,
              "task '" + action.get_string_value("task-wtid") + "' of workflow '" + target +
                  "' holds these out-values",
              ""};
    }
    return {outcome::not_allowed,
            "workflow '" + target +
                "' took no value: its in-nodes hold values or their tasks have started",
            ""};
  }
  if (creates) state_id = made;
  if (dry_run) return v;
  master_.get_workflow_manager().update_workflow(action, master_.get_plugin_db());
  if (creates && master_.has_workflow_in_state(made)) work_.adopt(made, owner);
  for (const std::string& id : reached) work_.touch(id);
  return v;
}

}  // namespace zelsim
