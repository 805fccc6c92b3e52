// A task of a workflow: its in-nodes and in-values, out-values and their destinations,
// prerequisites, attempts, priority, progress, kill trigger and job information.
// Held by zelbase::ptr_refcount<task_info>.
#pragma once

#include <string>

#include "zelbase/refcount.h"
#include "zelcore/plugin_db.h"
#include "zelcore/properties.h"
#include "zelcore/task.h"
#include "zelworkflow/export.h"

namespace zelworkflow {

class workflow_info;

class ZELWORKFLOW_EXPORT task_info : public zelcore::task {
 public:
  // Builds a task from its encoding; raises es::arg for a malformed one.
  static zelbase::ptr_refcount<task_info> create_task_info(const zelcore::properties& encoded,
                                                           const zelcore::plugin_db& db);
  ~task_info() override;

  // Prepares the task's job information from its workflow.
  void create_job_info(const workflow_info& workflow) const;
  // The licence capabilities that the cluster allocated to the task's job.
  zelbase::ptr_refcount<const zelcore::properties> get_job_allocated_license_capabilities() const;

  task_type get_type() const override;
  status get_status() const override;
  const status_info& get_status_info() const override;
  void encode_task_info(zelcore::properties& out) const override;
  void decode_out_values(const zelcore::properties& out_values) override;

 private:
  task_info();
  // The model's data; its layout is the workflow library's own (see docs/workflow-model.md).
  struct model;
  model* model_;
};

}  // namespace zelworkflow
