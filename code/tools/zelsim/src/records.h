// Pieces of the records that both the workload and the runner write.
#pragma once

#include <cstdint>
#include <string>

#include "zelcore/properties.h"

namespace zelsim {

// {"percent": percent, "step": step}
zelcore::properties progress_of(std::int64_t percent, std::int64_t step);

// The record of a new task of a job, queued: "id", "name", "job-id", "submission-id",
// "client-id", "state", "node", "progress", "start-time", "end-time", "exit-code".
zelcore::properties queued_task_record(const std::string& id, const std::string& name,
                                       const std::string& job_id, const std::string& submission,
                                       const std::string& client_id);

}  // namespace zelsim
