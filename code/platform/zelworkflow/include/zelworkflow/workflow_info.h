// A workflow: a graph of tasks with their in-values, out-values, statuses, priorities and meta
// data. Templates (type 0) spawn copies; init workflows (type 1) collect init values until they
// are inited; spawned workflows (type 2) carry a sequence number. See docs/workflow-model.md.
//
// A workflow_info is a value: copies are deep and independent. It takes no lock; use one
// thread at a time. Operations raise zelbase::es::arg for unknown task ids, bad in-node paths
// and bad values, and then leave the workflow as it was.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <set>
#include <string>

#include "zelbase/refcount.h"
#include "zelcore/plugin_db.h"
#include "zelcore/properties.h"
#include "zelcore/task.h"
#include "zelworkflow/export.h"
#include "zelworkflow/task_info.h"

namespace zelworkflow {

class ZELWORKFLOW_EXPORT workflow_info {
 public:
  enum workflow_type : std::uint32_t {
    workflow_type_template = 0,
    workflow_type_init = 1,
    workflow_type_spawned = 2,
  };

  enum status : std::uint32_t {
    status_created = 0,
    status_running = 1,
    status_finished = 2,
    status_failed = 3,
    status_killed = 4,
  };

  enum priority_whence : std::uint32_t {
    priority_absolute = 0,
    priority_relative = 1,
  };

  workflow_info();
  workflow_info(const workflow_info& other);
  workflow_info& operator=(const workflow_info& other);
  ~workflow_info();

  // Replaces this workflow's whole content by the decoded one; raises es::arg for a malformed
  // encoding (then nothing changed). Tasks are made with task_info::create_task_info(.., db).
  void decode_workflow_info(const zelcore::properties& encoded, const zelcore::plugin_db& db);
  // Writes the whole workflow into `out` (keys of other names stay); decode_workflow_info of
  // the result gives an equal workflow.
  void encode_workflow_info(zelcore::properties& out) const;
  // A number that changes with every change to the workflow or to one of its tasks (through their
  // non-const operations and create_job_info): while one workflow object gives the same number,
  // its encoding stays the same, so that a saver may reuse the encoding it made.
  std::uint64_t get_change_stamp() const;
  // Equal when the encodings are equal.
  bool operator==(const workflow_info& other) const;
  bool operator!=(const workflow_info& other) const { return !(*this == other); }

  workflow_type get_type() const;
  // Raises es::arg for a value that is not a workflow_type.
  void set_type(workflow_type type);
  // Derived from the task statuses (see docs/workflow-model.md).
  status get_status() const;
  // 0 for a workflow never spawned.
  std::uint64_t get_sequence_number() const;
  // Instantiates the workflow with a sequence number, an in-value and the attempts
  // configuration (task kind -> max attempts, "default" for the other kinds). Raises es::arg
  // for a template or a sequence number of 0.
  void spawn(std::uint64_t sequence_number, zelbase::ptr_refcount<const zelcore::property> in_value,
             std::map<std::string, unsigned int> attempts_config);
  // The in-value given to the last spawn; null for a workflow never spawned.
  zelbase::ptr_refcount<const zelcore::property> get_spawn_value() const;
  // True when every in-node of every init task holds a value.
  bool is_inited() const;
  // Sets an in-value at an in-node path ("<task id>" or "<task id>><in-node>"). False when the
  // workflow refuses it: a template, or an in-node that holds a value or a task that started,
  // unless `force_spawn_value`. Raises es::arg for a bad path, a null value or a value of a kind
  // the in-node does not accept.
  bool set_in_value(const std::string& in_node_path,
                    const zelbase::ptr_refcount<const zelcore::property>& value,
                    bool force_spawn_value, const std::string& originator);

  const std::map<std::string, std::string>& get_waiting_wfs() const;
  void add_waiting_wf(const std::string& state_id, const std::string& originator);
  void clear_waiting_wfs();

  // True when the dependant was added (removed).
  bool add_dependant(const std::string& state_id);
  bool remove_dependant(const std::string& state_id);
  void clear_dependants();
  const std::set<std::string>& get_dependants() const;

  // Adds a task and returns its task id: the task's own id, or "task-<n>" (the smallest free n)
  // when it has none. Raises es::arg for a null task or an id the workflow already has.
  const std::string& add_task_info(zelbase::ptr_refcount<task_info>& task);
  // The task; raises es::arg for an unknown task id.
  zelbase::ptr_refcount<const task_info> get_task_info(const std::string& wtid) const;
  zelbase::ptr_refcount<task_info> get_task_info(const std::string& wtid);
  bool has_task_info(const std::string& wtid) const;
  // True while the task has not ended and a kill was triggered for it, or for the whole
  // workflow by the meta data "kill-requested" = true.
  bool is_task_kill_triggered(const std::string& wtid) const;
  void set_task_kill_triggered(const std::string& wtid, bool triggered);
  // The task's prerequisites: the tasks whose out-values name one of its in-nodes.
  void get_task_pre_reqs(const std::string& wtid, std::set<std::string>& wtids) const;

  unsigned int get_task_num_attempts(const std::string& wtid) const;
  unsigned int get_task_max_attempts(const std::string& wtid) const;
  void set_task_max_attempts(const std::string& wtid, unsigned int max_attempts);

  // Priorities: absolute sets, relative adds (saturating); the result is clamped to
  // [min_priority, max_priority]. Raises es::arg when min > max or for an unknown whence.
  std::int64_t get_task_priority(const std::string& wtid) const;
  void set_task_priority(const std::string& wtid, std::int64_t priority, priority_whence whence,
                         std::int64_t min_priority, std::int64_t max_priority);
  std::int64_t get_priority() const;
  void set_priority(std::int64_t priority, priority_whence whence, std::int64_t min_priority,
                    std::int64_t max_priority);

  // True when the status changed; false (and nothing changed) for the same status or a task
  // of a template. A change to running counts an attempt; an end clears the scheduling state.
  bool set_task_status(const std::string& wtid, zelcore::task::status status, unsigned int time,
                       const std::string& node_id, const std::string& message);
  void set_task_scheduling_state(const std::string& wtid, zelcore::task::scheduling_state state);
  // Merges the progress leaf-wise into the task's progress.
  void update_task_progress(const std::string& wtid, const zelcore::properties& progress);

  // Task ids whose prerequisites can no longer complete.
  void get_invalid_pre_reqs_tasks(std::set<std::string>& wtids) const;
  // Runnable task ids, and for every other task a reason text.
  void get_tasks_runnability(std::list<std::string>& runnable,
                             std::map<std::string, std::string>& not_runnable) const;
  // One task id per task.
  void get_task_uris(std::list<std::string>& wtids) const;
  // The task graph in the dot language.
  void make_dot_graph(std::string& out);

  const zelcore::properties& get_configuration() const;
  void set_configuration(const zelcore::properties& configuration);
  // Meta data: "set" replaces the tree, "add" merges leaf-wise; the key forms replace one key
  // (a null value removes it; an empty key raises es::arg).
  const zelcore::properties& get_workflow_meta_data() const;
  void set_workflow_meta_data(const zelcore::properties& meta);
  void add_workflow_meta_data(const zelcore::properties& meta);
  void add_workflow_meta_data(const std::string& key,
                              zelbase::ptr_refcount<const zelcore::property> value);
  const zelcore::properties& get_ext_meta_data() const;
  void set_ext_meta_data(const zelcore::properties& meta);
  void set_ext_meta_data(const std::string& key,
                         zelbase::ptr_refcount<const zelcore::property> value);
  void add_ext_meta_data(const zelcore::properties& meta);

 private:
  // The model's data; its layout is the workflow library's own (see docs/workflow-model.md).
  struct model;
  model* model_;
};

}  // namespace zelworkflow
