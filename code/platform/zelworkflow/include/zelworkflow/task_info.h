// A task of a workflow: its in-nodes and in-values, out-values and their destinations,
// prerequisites, attempts, priority, progress, kill trigger and job information.
// Held by zelbase::ptr_refcount<task_info>. See docs/workflow-model.md for the encoding.
#pragma once

#include <string>

#include "zelbase/refcount.h"
#include "zelcore/plugin_db.h"
#include "zelcore/properties.h"
#include "zelcore/task.h"
#include "zelworkflow/export.h"

namespace zelworkflow {

class workflow_info;

// "waiting", "runnable", "running", "finished", "failed", "killed"; "unknown" for other values.
ZELWORKFLOW_EXPORT const char* task_status_c_str(zelcore::task::status status);
// "none", "queued", "dispatched"; "unknown" for other values.
ZELWORKFLOW_EXPORT const char* task_scheduling_state_c_str(zelcore::task::scheduling_state state);

class ZELWORKFLOW_EXPORT task_info : public zelcore::task {
 public:
  // Builds a task from its encoding; raises es::arg for a malformed one. When `db` is a
  // task_kind_db, the task's kind must be registered there and gives the default max attempts.
  static zelbase::ptr_refcount<task_info> create_task_info(const zelcore::properties& encoded,
                                                           const zelcore::plugin_db& db);
  ~task_info() override;

  // A copy that shares nothing changeable with this task.
  zelbase::ptr_refcount<task_info> clone() const;

  // The task id within its workflow (empty until the task is added to one) and its kind.
  const std::string& get_id() const;
  const std::string& get_kind() const;
  zelcore::task::scheduling_state get_scheduling_state() const;
  const zelcore::properties& get_progress() const;
  const zelcore::properties& get_parameters() const;
  // The value held by an in-node (null while unset); raises es::arg for an unknown in-node.
  zelcore::property_ptr get_in_value(const std::string& in_node) const;
  // The last value produced for an out-value (null while none); raises es::arg for an unknown
  // out-value.
  zelcore::property_ptr get_out_value(const std::string& name) const;
  // Turns produced values (name -> value) into the routed form that decode_out_values and the
  // workflow manager take: name -> {"value", "destinations"}. Raises es::arg for an unknown name.
  void make_out_values(const zelcore::properties& values, zelcore::properties& out) const;

  // Prepares the task's job information from its workflow (see get_job_info); raises es::arg
  // when the task is not one of the workflow's tasks.
  void create_job_info(const workflow_info& workflow) const;
  // The job information last prepared by create_job_info; null before.
  zelbase::ptr_refcount<const zelcore::properties> get_job_info() const;
  // The licence capabilities that the cluster allocated to the task's job; null when none.
  zelbase::ptr_refcount<const zelcore::properties> get_job_allocated_license_capabilities() const;
  void set_job_allocated_license_capabilities(
      zelbase::ptr_refcount<const zelcore::properties> capabilities);

  task_type get_type() const override;
  status get_status() const override;
  const status_info& get_status_info() const override;
  void encode_task_info(zelcore::properties& out) const override;
  // Stores produced out-values: one child per out-value name, each a properties holding
  // "value" (and, ignored here, "destinations"). Raises es::arg for an unknown name or a
  // malformed entry, storing nothing.
  void decode_out_values(const zelcore::properties& out_values) override;

 private:
  friend class workflow_info;
  task_info();
  // create_task_info, with the id that a task without "id" takes (its key in a workflow).
  static zelbase::ptr_refcount<task_info> decode(const zelcore::properties& encoded,
                                                 const zelcore::plugin_db& db,
                                                 const std::string& default_id);
  // The model's data; its layout is the workflow library's own (see docs/workflow-model.md).
  struct model;
  model* model_;
};

}  // namespace zelworkflow
