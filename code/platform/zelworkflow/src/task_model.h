// The data of a task_info, shared by the task and its workflow (private to the library).
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "zelcore/properties.h"
#include "zelworkflow/task_info.h"

namespace zelworkflow {

struct in_node {
  std::string accepts = "any";  // "any" or a property kind name
  zelcore::property_ptr value;  // null while unset
  std::string originator;       // who set the value
};

struct out_value {
  std::vector<std::string> destinations;  // in-node paths within the workflow
  zelcore::property_ptr value;            // null until produced
};

// A number drawn for each change of a workflow or a task, never drawn twice in the process and
// larger than every number drawn before it.
std::uint64_t next_change_stamp() noexcept;

struct task_info::model {
  std::uint64_t stamp = next_change_stamp();  // of the last change (a copy keeps it)
  std::string id;
  std::string kind;
  task_type type = task_type_ordinary;
  status_info info;
  scheduling_state scheduling = scheduling_none;
  unsigned int max_attempts = 1;
  unsigned int num_attempts = 0;
  std::int64_t priority = 0;
  bool kill_triggered = false;
  zelcore::properties progress;
  zelcore::properties parameters;
  std::map<std::string, in_node> in_nodes;
  std::map<std::string, out_value> out_values;
  zelbase::ptr_refcount<const zelcore::properties> license_capabilities;
  mutable zelbase::ptr_refcount<const zelcore::properties> job_info;

  // The task has started or ended: it takes no more in-values unless forced.
  bool has_started() const { return info.task_status >= status_running; }
  // The task ended and will not run again: finished, killed, or failed with no attempt left.
  bool has_ended() const {
    return info.task_status == status_finished || info.task_status == status_killed ||
           (info.task_status == status_failed && num_attempts >= max_attempts);
  }
};

}  // namespace zelworkflow
