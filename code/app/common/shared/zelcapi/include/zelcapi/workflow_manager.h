// The workflow manager: adds, removes, looks up and changes the workflows of a state, spawns
// workflows from templates and init workflows, and describes every local change as an
// "update-workflow" action that another replica can apply with update_workflow.
//
// Threading: the manager takes no lock. It is used by one thread at a time (the thread that
// changes the owning state); receiver callbacks run on that thread, inside the call.
//
// Failures: every operation that takes a workflow state id raises zelbase::es::api_code with
// code -3414000 and "'<id>' isn't a valid workflow state id" for an id that is not in the map,
// after writing the same text to the report log (category "workflow_manager"). Errors of the
// workflow model (unknown task ids, refused encodings) travel out unchanged. A public setter that
// raises delivers no update message.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <set>
#include <string>

#include <boost/shared_ptr.hpp>

#include "zelbase/refcount.h"
#include "zelcapi/export.h"
#include "zelcore/plugin_db.h"
#include "zelcore/properties.h"
#include "zelcore/task.h"
#include "zelworkflow/task_info.h"
#include "zelworkflow/workflow_info.h"

namespace zelcapi {

// Hears of every workflow change made through a workflow_manager. `update` is the change as an
// "update-workflow" action; it and `workflow_id` are valid only during the call (copy to keep).
class ZELCAPI_EXPORT workflow_manager_event_receiver {
 public:
  workflow_manager_event_receiver() = default;
  workflow_manager_event_receiver(const workflow_manager_event_receiver&) = default;
  workflow_manager_event_receiver& operator=(const workflow_manager_event_receiver&) = default;
  virtual ~workflow_manager_event_receiver();

  // Before an update received through update_workflow is applied, and before a removal.
  virtual void wm_cb_workflow_will_be_updated(const std::string& workflow_id,
                                              const zelcore::properties& update) = 0;
  // After an update was applied, or after a local change was made.
  virtual void wm_cb_workflow_was_updated(const std::string& workflow_id,
                                          const zelcore::properties& update) = 0;
};

class ZELCAPI_EXPORT workflow_manager {
 public:
  using workflow_map = std::map<std::string, boost::shared_ptr<zelworkflow::workflow_info>>;
  using attempts_config = std::map<std::string, unsigned int>;
  using property_ptr = zelbase::ptr_refcount<const zelcore::property>;
  using properties_ptr = zelbase::ptr_refcount<const zelcore::properties>;

  // The receiver (may be null: no callbacks), the workflow map and the sequence counter are
  // borrowed and must outlive the manager; the manager adds to and removes from that map and
  // draws sequence numbers from that counter.
  workflow_manager(workflow_manager_event_receiver* receiver, workflow_map& workflows,
                   std::uint64_t& sequence_number);
  ~workflow_manager();
  workflow_manager(const workflow_manager&) = delete;
  workflow_manager& operator=(const workflow_manager&) = delete;

  // Replaces the attempts configuration handed to every spawn. No update message.
  void set_attempts_config(const attempts_config& config);

  // --- Identifiers and numbering ---

  // The address of task `wtid` of workflow `wfid`: "workflow:" + wfid + ">" + wtid.
  static std::string create_wpath(const std::string& wfid, const std::string& wtid);
  // The workflow state id of the wpath's first element and the task id of its last element.
  static void extract_wfid_and_wtid(const std::string& wpath, std::string& wfid, std::string& wtid);
  // The last sequence number handed out (or set).
  std::uint64_t get_current_sequence_number() const { return sequence_number_; }
  // Overwrites the counter without any check (used when a snapshot is loaded).
  void set_current_sequence_number(std::uint64_t sequence_number) {
    sequence_number_ = sequence_number;
  }

  // --- Lookup, adding, removing ---

  // The workflow of a state id, borrowed from the map; raises for an unknown id (see above).
  // The non-const overload is private: call this through a const manager reference.
  const zelworkflow::workflow_info* get_workflow_info(const std::string& state_id) const;
  // Decodes `workflow` and adds it under `requested` (a new "WOFL-" id when empty); `state_id`
  // receives the id used, also when the add then fails. A spawned-type workflow without a
  // sequence number is spawned with the next one. Raises es::arg for an id already present.
  // Writes "add-workflow".
  void add_workflow(const zelcore::properties& workflow, const zelcore::plugin_db& db,
                    std::string& state_id, const std::string& requested);
  // Stamps "remove-time" into the workflow's meta data, erases it and removes it from every
  // other workflow's dependants. Announces "remove-workflow" before and after (only before when
  // the id is unknown and the call raises).
  void remove_workflow(const std::string& state_id);

  // --- Encoders and whole-map queries ---

  void encode_workflow(const std::string& state_id, zelcore::properties& out) const;
  // One child per workflow, under its state id (replacing what `out` held under that key).
  void encode_all_workflows(zelcore::properties& out) const;
  void encode_task(const std::string& state_id, const std::string& wtid,
                   zelcore::properties& out) const;
  // Sets out[id] for every workflow; other entries of `out` stay.
  void get_all_workflow_statuses(
      std::map<std::string, zelworkflow::workflow_info::status>& out) const;
  // Inserts the wpath of every task of every workflow.
  void get_all_wpaths(std::set<std::string>& out) const;

  // --- Updates ---

  // Applies an "update-workflow" action received from another replica, between
  // wm_cb_workflow_will_be_updated and wm_cb_workflow_was_updated (with `update` itself). Raises
  // es::arg "unknown workflow-update action requested" for an action it does not apply, and the
  // property tree's es::arg for a missing or mistyped field, in both cases before any workflow
  // changed; the receiver then has had "will be updated" without "was updated". Failures of the
  // applied change itself (unknown workflow or task, a value the model refuses) raise as well.
  void update_workflow(const zelcore::properties& update, const zelcore::plugin_db& db);

  // --- Local changes: each applies the change, then writes its action to the receiver ---

  void add_dependant(const std::string& wf, const std::string& dependant);
  void remove_dependant(const std::string& wf, const std::string& dependant);
  // Removes the dependant from every workflow; the action carries no workflow id.
  void remove_dependant(const std::string& dependant);
  // Merges `meta` into the ext meta data.
  void add_ext_meta_data(const std::string& wf, const zelcore::properties& meta);
  // Merges `meta` into the workflow meta data.
  void add_workflow_meta_data(const std::string& wf, const zelcore::properties& meta);
  // Replaces the workflow meta data.
  void set_workflow_meta_data(const std::string& wf, const zelcore::properties& meta);
  // Replaces the ext meta data. Writes no action: other replicas do not hear of it.
  void set_ext_meta_data(const std::string& wf, const zelcore::properties& meta);
  // Builds a task from its encoding and adds it; `wtid` receives the id the workflow gave it.
  void add_task(const std::string& wf, const zelcore::properties& task,
                const zelcore::plugin_db& db, std::string& wtid);
  void set_priority(const std::string& wf, std::int64_t priority,
                    zelworkflow::workflow_info::priority_whence whence, std::int64_t min_priority,
                    std::int64_t max_priority);
  void set_task_priority(const std::string& task_path, std::int64_t priority,
                         zelworkflow::workflow_info::priority_whence whence,
                         std::int64_t min_priority, std::int64_t max_priority);
  // Writes "set-task-max_attempts", an action that update_workflow does not apply.
  void set_task_max_attempts(const std::string& task_path, unsigned int max_attempts);
  void set_task_scheduling_state(const std::string& wf, const std::string& wtid,
                                 zelcore::task::scheduling_state state);
  void set_task_scheduling_state(const std::string& task_path,
                                 zelcore::task::scheduling_state state);
  void update_task_progress(const std::string& wf, const std::string& wtid,
                            const zelcore::properties& progress);
  void update_task_progress(const std::string& task_path, const zelcore::properties& progress);
  // Sets the status; on an init task of an init workflow it is copied to every waiting
  // workflow, recursively. Writes "set-task-status" only when the status changed.
  void set_task_status(const std::string& wf, const std::string& wtid, zelcore::task::status status,
                       unsigned int tm, const std::string& nid, const std::string& msg);
  void set_task_status(const std::string& task_path, zelcore::task::status status, unsigned int tm,
                       const std::string& nid, const std::string& msg);

  // --- In-values: each returns false when the value was refused, and writes its action only
  // when it returned true ---

  // Sets `value` at the in-node `wpath` ("<workflow>>task>node..."). A template spawns a new
  // workflow (id `force_state_id`, or a new one when empty); an init workflow takes an init
  // task's value in place and forwards it to its waiting workflows, and spawns a child for any
  // other task; a spawned workflow takes the value and `workflow_meta`. `state_id` receives the
  // id of the workflow that took the value; it may be the same string as `wpath` or
  // `force_state_id`, here and in set_in_values.
  bool set_in_value(const std::string& wpath, const property_ptr& value, std::string& state_id,
                    const std::string& force_state_id, const zelcore::properties& workflow_meta,
                    bool force_spawn_value, const std::string& originator);
  // set_in_value for every entry of `values` under `wpath` (entries whose names contain
  // "source-url" first); after the first entry, the rest go to the workflow that took it.
  // A null `values` sets nothing.
  bool set_in_values(const std::string& wpath, const properties_ptr& values, std::string& state_id,
                     const std::string& force_state_id, const zelcore::properties& workflow_meta,
                     bool force_spawn_value, const std::string& originator);
  // Sets an init value on an init workflow and on every workflow waiting on it. Raises es::arg
  // "Can't set init in-value on a non-init workflow" for another type.
  bool set_init_in_value(const std::string& wpath, const property_ptr& value,
                         const std::string& originator);
  // Stores the out-values of task `wtid` (also in every waiting workflow) and routes each to
  // its "destinations" in the same workflow. Every entry of `out_values` is a tree with a
  // "value" and a list "destinations"; a malformed entry raises es::arg before anything changed.
  bool set_in_out_values(const std::string& wfid, const std::string& wtid,
                         const zelcore::properties& out_values,
                         const zelcore::properties& workflow_meta, const std::string& originator);
  bool set_in_out_values(const std::string& wpath, const zelcore::properties& out_values,
                         const zelcore::properties& workflow_meta, const std::string& originator);

  // --- Task queries: tasks by (workflow state id, task id) or by wpath ---

  zelbase::ptr_refcount<const zelworkflow::task_info> get_task_info(const std::string& wfid,
                                                                    const std::string& wtid) const;
  zelbase::ptr_refcount<const zelworkflow::task_info> get_task_info(const std::string& wpath) const;
  zelcore::task::status get_task_status(const std::string& wfid, const std::string& wtid) const;
  zelcore::task::status get_task_status(const std::string& wpath) const;
  zelcore::task::task_type get_task_type(const std::string& wfid, const std::string& wtid) const;
  zelcore::task::task_type get_task_type(const std::string& wpath) const;
  // Valid as long as the task lives.
  const zelcore::task::status_info& get_task_status_info(const std::string& wpath) const;
  unsigned int get_task_max_attempts(const std::string& wpath) const;
  unsigned int get_task_num_attempts(const std::string& wpath) const;
  std::int64_t get_task_priority(const std::string& wpath) const;
  bool is_task_kill_triggered(const std::string& wfid, const std::string& wtid) const;
  bool is_task_kill_triggered(const std::string& wpath) const;
  // False (never raising) when the workflow or the task is unknown.
  bool has_task(const std::string& wpath) const;

  // --- Workflow queries ---

  zelworkflow::workflow_info::status get_workflow_status(const std::string& wf) const;
  std::int64_t get_priority(const std::string& wf) const;
  const zelcore::properties& get_workflow_configuration(const std::string& wf) const;
  const zelcore::properties& get_workflow_meta_data(const std::string& wf) const;
  const zelcore::properties& get_ext_meta_data(const std::string& wf) const;
  // Appends the workflow's task ids.
  void get_task_uris(const std::string& wf, std::list<std::string>& out) const;
  // The task graph in the dot language.
  void get_workflow_dot(const std::string& wf, std::string& out);

  // --- Whole-map task reports, naming tasks "workflow:<state id>><task id>"; outputs are not
  // cleared first ---

  void get_invalid_pre_reqs_tasks(std::set<std::string>& out) const;
  // Appends runnable tasks in workflow order; sets reasons[task] for every other task.
  void get_tasks_runnability(std::list<std::string>& runnable,
                             std::map<std::string, std::string>& reasons) const;

  // --- Job info ---

  // Lets the task at `wpath` prepare its job information from its workflow.
  void create_job_info_for_task(const std::string& wpath);
  // Sets "workflow-state-id", "task-info", "meta-data", "workflow-configuration" and
  // "allocated-license-capabilities" (null when none) of the task `job_id` (a wpath) in `out`.
  void insert_job_info_for_job_id(const std::string& job_id, zelcore::properties& out) const;

 private:
  zelworkflow::workflow_info* get_workflow_info(const std::string& state_id);
  void create_unique_state_id(std::string& out) const;
  std::uint64_t get_next_sequence_number();

  void _add_workflow(boost::shared_ptr<zelworkflow::workflow_info>& wi,
                     const std::string& state_id);
  void _add_workflow(const zelcore::properties& props, const zelcore::plugin_db& db,
                     std::string& state_id_out, const std::string& state_id_in);
  void _remove_workflow(const std::string& state_id);

  // Update messages.
  std::string _get_workflow_id_from_update_props(const zelcore::properties& update) const;
  void _update_workflow(const zelcore::properties& update, const zelcore::plugin_db& db);
  void _notify_pre_update_workflow(const std::string& wf, const zelcore::properties& update);
  void _notify_post_update_workflow(const std::string& wf, const zelcore::properties& update);
  void _notify_add_workflow(const std::string& state_id, const zelcore::properties& workflow);
  void _notify_add_dependant(const std::string& wf, const std::string& dependant);
  void _notify_remove_dependant(const std::string& wf, const std::string& dependant);
  void _notify_remove_dependant(const std::string& dependant);
  void _notify_set_priority(const std::string& wf, std::int64_t priority,
                            zelworkflow::workflow_info::priority_whence whence,
                            std::int64_t min_priority, std::int64_t max_priority);
  void _notify_add_task(const std::string& wf, const std::string& wtid);
  void _notify_set_task_status(const std::string& wf, const std::string& wtid,
                               zelcore::task::status status, unsigned int tm,
                               const std::string& nid, const std::string& msg);
  void _notify_set_task_scheduling_state(const std::string& wf, const std::string& wtid,
                                         zelcore::task::scheduling_state state);
  void _notify_update_task_progress(const std::string& wf, const std::string& wtid,
                                    const zelcore::properties& progress);
  void _notify_set_task_max_attempts(const std::string& wf, const std::string& wtid,
                                     std::int64_t max_attempts);
  void _notify_set_task_priority(const std::string& wf, const std::string& wtid,
                                 std::int64_t priority,
                                 zelworkflow::workflow_info::priority_whence whence,
                                 std::int64_t min_priority, std::int64_t max_priority);
  void _notify_set_workflow_meta_data(const std::string& wf, const zelcore::properties& meta);
  void _notify_add_workflow_meta_data(const std::string& wf, const zelcore::properties& meta);
  void _notify_add_ext_meta_data(const std::string& wf, const zelcore::properties& meta);
  void _notify_set_in_value(const std::string& input_node_id, const property_ptr& value,
                            const std::string& force_state_id,
                            const zelcore::properties& workflow_meta, bool force_spawn_value,
                            const std::string& originator);
  void _notify_set_in_values(const std::string& wf, const properties_ptr& values,
                             const std::string& force_state_id,
                             const zelcore::properties& workflow_meta, bool force_spawn_value,
                             const std::string& originator);
  void _notify_set_init_in_value(const std::string& input_node_id, const property_ptr& value,
                                 const std::string& originator);
  void _notify_set_in_out_values(const std::string& wf, const std::string& wtid,
                                 const zelcore::properties& values,
                                 const zelcore::properties& workflow_meta,
                                 const std::string& originator);

  // Appliers shared by update_workflow and the local setters.
  void _set_priority(const std::string& wf, std::int64_t priority,
                     zelworkflow::workflow_info::priority_whence whence, std::int64_t min_priority,
                     std::int64_t max_priority);
  void _set_task_priority(const std::string& wf, const std::string& wtid, std::int64_t priority,
                          zelworkflow::workflow_info::priority_whence whence,
                          std::int64_t min_priority, std::int64_t max_priority);
  void _set_task_max_attempts(const std::string& wf, const std::string& wtid,
                              std::int64_t max_attempts);
  void _set_task_scheduling_state(const std::string& wf, const std::string& wtid,
                                  zelcore::task::scheduling_state state);
  void _update_task_progress(const std::string& wf, const std::string& wtid,
                             const zelcore::properties& progress);
  void _set_workflow_meta_data(const std::string& wf, const zelcore::properties& meta);
  void _add_workflow_meta_data(const std::string& wf, const zelcore::properties& meta);
  void _add_ext_meta_data(const std::string& wf, const zelcore::properties& meta);
  void _add_dependant(const std::string& wf, const std::string& dependant);
  void _remove_dependant(const std::string& wf, const std::string& dependant);
  void _remove_dependant(const std::string& dependant);
  void _add_task(const std::string& wf, const zelcore::properties& task,
                 const zelcore::plugin_db& db, std::string& wtid);
  bool _set_task_status(const std::string& wf, const std::string& wtid,
                        zelcore::task::status status, unsigned int tm, const std::string& nid,
                        const std::string& msg);

  // In-value appliers.
  bool _set_in_value(const std::string& wpath, const property_ptr& value, std::string& state_id,
                     const std::string& force_state_id, const zelcore::properties& workflow_meta,
                     bool force_spawn_value, const std::string& originator);
  bool _set_in_values(const std::string& wpath, const properties_ptr& values, std::string& state_id,
                      const std::string& force_state_id, const zelcore::properties& workflow_meta,
                      bool force_spawn_value, const std::string& originator);
  bool _set_init_in_value(const std::string& wpath, const property_ptr& value,
                          const std::string& originator);
  bool _set_in_out_values(const std::string& wfid, const std::string& wtid,
                          const zelcore::properties& out_values,
                          const zelcore::properties& workflow_meta, const std::string& originator);
  bool _spawn_from_template(const zelworkflow::workflow_info& templ, const std::string& wfid,
                            const std::string& in_node_path, const property_ptr& value,
                            std::string& state_id, const std::string& force_state_id,
                            const zelcore::properties& workflow_meta,
                            const std::string& originator);
  bool _set_in_value_on_init_workflow(zelworkflow::workflow_info& init, const std::string& wfid,
                                      const std::string& in_node_path, const property_ptr& value,
                                      std::string& state_id, const std::string& force_state_id,
                                      bool force_spawn_value, const std::string& originator);
  void _choose_state_id(std::string& state_id, const std::string& force_state_id) const;
  // Marks the copy as a child of `parent_id`, spawns it and sets the value; adds it under
  // `state_id` unless it refuses the value.
  bool _spawn_copy(boost::shared_ptr<zelworkflow::workflow_info>& copy,
                   const std::string& parent_id, const zelcore::properties* workflow_meta,
                   const std::string& in_node_path, const property_ptr& value,
                   const std::string& state_id, const std::string& originator);
  void _set_in_value_on_waiting_wfs(const zelworkflow::workflow_info& wi,
                                    const std::string& in_node_path, const property_ptr& value,
                                    bool force_spawn_value);

  workflow_manager_event_receiver* receiver_;
  workflow_map& workflows_;
  std::uint64_t& sequence_number_;
  attempts_config attempts_config_;
};

}  // namespace zelcapi
