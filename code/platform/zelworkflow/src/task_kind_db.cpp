// The plugin database of task kinds.
#include "zelworkflow/task_kind_db.h"

#include "zelbase/exceptions.h"

namespace zelworkflow {

task_kind_db::task_kind_db() = default;
task_kind_db::~task_kind_db() = default;

void task_kind_db::add_kind(const std::string& kind, unsigned int default_max_attempts) {
  kinds_[kind] = default_max_attempts;
}

bool task_kind_db::has_kind(const std::string& kind) const { return kinds_.count(kind) != 0; }

unsigned int task_kind_db::get_default_max_attempts(const std::string& kind) const {
  auto it = kinds_.find(kind);
  if (it == kinds_.end()) {
    zelbase::es::arg::raise(__FILE__, __LINE__, "unknown task kind '" + kind + "'");
  }
  return it->second;
}

}  // namespace zelworkflow
