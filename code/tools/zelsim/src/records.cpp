// Pieces of the records that both the workload and the runner write.
#include "records.h"

namespace zelsim {

zelcore::properties progress_of(std::int64_t percent, std::int64_t step) {
  zelcore::properties progress;
  progress.set_int_value("percent", percent);
  progress.set_int_value("step", step);
  return progress;
}

zelcore::properties queued_task_record(const std::string& id, const std::string& name,
                                       const std::string& job_id, const std::string& submission,
                                       const std::string& client_id) {
  zelcore::properties task;
  task.set_string_value("id", id);
  task.set_string_value("name", name);
  task.set_string_value("job-id", job_id);
  task.set_string_value("submission-id", submission);
  task.set_string_value("client-id", client_id);
  task.set_string_value("state", "queued");
  task.set_string_value("node", "");
  task.set_properties_value("progress", progress_of(0, 0));
  task.set_int_value("start-time", 0);
  task.set_int_value("end-time", 0);
  task.set_int_value("exit-code", -1);
  return task;
}

}  // namespace zelsim
