// A plugin database that knows the task kinds of the cluster: tasks created through it must be
// of a registered kind, and take their kind's default max attempts.
#pragma once

#include <map>
#include <string>

#include "zelcore/plugin_db.h"
#include "zelworkflow/export.h"

namespace zelworkflow {

class ZELWORKFLOW_EXPORT task_kind_db : public zelcore::plugin_db {
 public:
  task_kind_db();
  ~task_kind_db() override;

  // Registers (or re-registers) a kind; tasks of it whose encoding names no "max-attempts" get
  // `default_max_attempts`.
  void add_kind(const std::string& kind, unsigned int default_max_attempts);
  bool has_kind(const std::string& kind) const;
  // The kind's default max attempts; raises es::arg for an unregistered kind.
  unsigned int get_default_max_attempts(const std::string& kind) const;

 private:
  std::map<std::string, unsigned int> kinds_;
};

}  // namespace zelworkflow
