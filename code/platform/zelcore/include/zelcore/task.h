// The core task: the part of a workflow task that the cluster schedules (type, status, status
// details, encoding, out-values). zelworkflow::task_info derives from it.
#pragma once

#include <cstdint>
#include <string>

#include "zelbase/refcount.h"
#include "zelcore/export.h"
#include "zelcore/properties.h"

namespace zelcore {

class ZELCORE_EXPORT task : public zelbase::object_refcount {
 public:
  enum task_type : std::uint32_t {
    task_type_ordinary = 0,
    // An init task: its status is copied to every workflow that waits on its init workflow.
    task_type_init = 1,
  };

  enum status : std::uint32_t {
    status_waiting = 0,   // not yet run
    status_runnable = 1,  // found runnable by the scheduler
    status_running = 2,   // an attempt is running
    status_finished = 3,  // done; its out-values are final
    status_failed = 4,    // the last attempt failed; it may run again while attempts are left
    status_killed = 5,
  };

  // Where the task stands with the cluster's scheduler; cleared when the task ends.
  enum scheduling_state : std::uint32_t {
    scheduling_none = 0,
    scheduling_queued = 1,
    scheduling_dispatched = 2,
  };

  // The details of the last status change.
  struct status_info {
    status task_status = status_waiting;
    std::uint32_t time = 0;  // the "tm" of the change: seconds of the wall clock
    std::string node_id;     // the node that reported it
    std::string message;
  };

  ~task() override;

  virtual task_type get_type() const = 0;
  virtual status get_status() const = 0;
  virtual const status_info& get_status_info() const = 0;
  // Writes the task's whole encoding into `out`.
  virtual void encode_task_info(properties& out) const = 0;
  // Stores out-values produced by the task (one child per out-value name).
  virtual void decode_out_values(const properties& out_values) = 0;
};

}  // namespace zelcore
