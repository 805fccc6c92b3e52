// What a job of submitted work runs and how the runner simulates it: read, strictly, from a job
// of a "cluster.api.jobs.submit" request or from the parameters of a workflow task.
//
// Threads: plain functions and values.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "zelcore/properties.h"

namespace zelsim {

struct job_params {
  std::string name;
  std::string command;
  std::int64_t cores = 1;
  std::int64_t memory_mb = 512;
  std::string queue = "default";
  std::int64_t priority = 0;
  std::vector<std::string> tags;
  zelcore::properties env;
  std::int64_t max_attempts = 1;
  std::int64_t tasks = 1;
  // The simulated run: each attempt runs `run_ms` milliseconds of the runner's clock; the first
  // `fail_attempts` attempts fail with `exit_code`, the others finish with 0.
  std::int64_t run_ms = 0;
  std::int64_t fail_attempts = 0;
  std::int64_t exit_code = 1;
  // A task's out-values by name (the others get the task id as their value).
  zelcore::properties out_values;
};

// A job of a submission. Raises zelbase::es::arg with a text naming the field for a missing
// "command", an unknown key, a value of the wrong kind or out of its range.
job_params read_job(const zelcore::properties& job, std::int64_t default_run_ms);

// The runner's parameters of a workflow task ("command", "cores", "memory-mb", "queue", "tags",
// "env", "run-ms", "fail-attempts", "exit-code", "out-values"); other parameters are the task's
// own and are not looked at. Raises zelbase::es::arg like read_job, the text beginning
// "parameter ".
job_params read_task_parameters(const zelcore::properties& parameters, std::int64_t default_run_ms);

}  // namespace zelsim
