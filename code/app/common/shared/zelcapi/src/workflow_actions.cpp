// The workflow actions a work_client sends, written by a scratch workflow manager that holds
// copies of the workflows concerned, so that the replica changes only from the master's
// notifications.
#include <algorithm>
#include <utility>

#include "zelbase/exceptions.h"
#include "zelcapi/work_client.h"
#include "zelcapi/workflow_manager.h"

namespace zelcapi {

namespace {

constexpr const char* source_file = "code\\app\\common\\shared\\zelcapi\\src\\workflow_actions";

// The name under which the manager writes a task's max attempts, and the one the master applies.
constexpr const char* written_max_attempts = "set-task-max_attempts";
constexpr const char* applied_max_attempts = "set-task-max-attempts";

// A workflow manager of its own, over a map of copies, keeping the last action it wrote.
class scratch final : public workflow_manager_event_receiver {
 public:
  scratch() : manager(this, workflows, sequence_number) {}
  void wm_cb_workflow_will_be_updated(const std::string&, const zelcore::properties&) override {}
  void wm_cb_workflow_was_updated(const std::string&, const zelcore::properties& update) override {
    written = update;
  }

  // Puts a copy of the replica's workflow `id` into the map; without one, an empty workflow of
  // that id stands in (enough for the actions on the workflow as a whole) unless `needed`.
  void copy(const state* replica, const std::string& id, bool needed) {
    if (replica && replica->has_workflow_in_state(id)) {
      workflows[id].reset(new zelworkflow::workflow_info(*replica->get_workflow_from_state(id)));
      return;
    }
    if (needed) {
      zelbase::es::arg::raise(source_file, __LINE__,
                              "workflow '" + id +
                                  "' is not in the replica: acting on its tasks needs a "
                                  "work_client over a state connection whose replica holds it");
    }
    workflows[id].reset(new zelworkflow::workflow_info());
  }

  workflow_manager::workflow_map workflows;
  std::uint64_t sequence_number = 0;
  workflow_manager manager;
  zelcore::properties written;
};

}  // namespace

workflow_actions::workflow_actions(const zelcore::plugin_db& plugins, const state* replica)
    : plugins_(&plugins), replica_(replica) {}

zelcore::properties workflow_actions::add_workflow(const zelcore::properties& workflow,
                                                   const std::string& state_id) const {
  scratch s;
  std::string id;
  // Without an id the master makes one: the check runs under a stand-in (the scratch manager
  // holds nothing else), which saves drawing a random id only to throw it away.
  s.manager.add_workflow(workflow, *plugins_, id, state_id.empty() ? "scratch" : state_id);
  if (state_id.empty()) s.written.set_string_value("state-id", "");
  return std::move(s.written);
}

zelcore::properties workflow_actions::add_workflow(const zelworkflow::workflow_info& workflow,
                                                   const std::string& state_id) const {
  zelcore::properties encoded(false);
  workflow.encode_workflow_info(encoded);
  return add_workflow(encoded, state_id);
}

zelcore::properties workflow_actions::remove_workflow(const std::string& state_id) const {
  scratch s;
  s.copy(replica_, state_id, false);
  s.manager.remove_workflow(state_id);
  return std::move(s.written);
}

zelcore::properties workflow_actions::cancel_workflow(const std::string& state_id) const {
  scratch s;
  s.copy(replica_, state_id, false);
  zelcore::properties kill;
  kill.set_bool_value("kill-requested", true);
  s.manager.add_workflow_meta_data(state_id, kill);
  return std::move(s.written);
}

zelcore::properties workflow_actions::set_priority(
    const std::string& state_id, std::int64_t priority,
    zelworkflow::workflow_info::priority_whence whence, std::int64_t min, std::int64_t max) const {
  scratch s;
  s.copy(replica_, state_id, false);
  s.manager.set_priority(state_id, priority, whence, min, max);
  return std::move(s.written);
}

zelcore::properties workflow_actions::set_task_priority(
    const std::string& state_id, const std::string& task, std::int64_t priority,
    zelworkflow::workflow_info::priority_whence whence, std::int64_t min, std::int64_t max) const {
  scratch s;
  s.copy(replica_, state_id, true);
  s.manager.set_task_priority(workflow_manager::create_wpath(state_id, task), priority, whence, min,
                              max);
  return std::move(s.written);
}

zelcore::properties workflow_actions::set_in_values(
    const std::string& state_id, const zelcore::properties& values, const std::string& spawn_id,
    const zelcore::properties& workflow_meta) const {
  scratch s;
  s.copy(replica_, state_id, true);
  std::string taken;
  s.manager.set_in_values(state_id,
                          workflow_manager::properties_ptr(new zelcore::properties(values)), taken,
                          spawn_id, workflow_meta, false, "");
  if (s.written.empty()) {
    zelbase::es::arg::raise(source_file, __LINE__,
                            "workflow '" + state_id + "' takes none of the values");
  }
  // A spawn got an id of the scratch manager's for the check: the master makes the real one.
  if (spawn_id.empty() && taken != state_id) s.written.set_string_value("force-state-id", "");
  return std::move(s.written);
}

zelcore::properties workflow_actions::add_dependant(const std::string& state_id,
                                                    const std::string& dependant) const {
  scratch s;
  s.copy(replica_, state_id, false);
  s.manager.add_dependant(state_id, dependant);
  return std::move(s.written);
}

zelcore::properties workflow_actions::retry_task(const std::string& state_id,
                                                 const std::string& task) const {
  scratch s;
  s.copy(replica_, state_id, true);
  const std::string wpath = workflow_manager::create_wpath(state_id, task);
  // One attempt beyond those made; a task that has attempts left keeps its limit.
  const unsigned attempts =
      std::max(s.manager.get_task_max_attempts(wpath), s.manager.get_task_num_attempts(wpath) + 1);
  s.manager.set_task_max_attempts(wpath, attempts);
  // The manager writes the name that older readers expect; the master applies the other one.
  if (s.written.get_string_value("action", "") == written_max_attempts) {
    s.written.set_string_value("action", applied_max_attempts);
  }
  return std::move(s.written);
}

}  // namespace zelcapi
