// Test support for the workflow manager: a receiver that records every callback in order, a
// manager with its own workflow map and counter, and builders of workflow encodings.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "zelcapi/workflow_manager.h"
#include "zelcore/plugin_db.h"
#include "zelcore/properties.h"

namespace zeltest {

struct recorded_call {
  bool will;  // wm_cb_workflow_will_be_updated (else wm_cb_workflow_was_updated)
  std::string workflow_id;
  zelcore::properties update;
};

class recording_receiver : public zelcapi::workflow_manager_event_receiver {
 public:
  void wm_cb_workflow_will_be_updated(const std::string& workflow_id,
                                      const zelcore::properties& update) override {
    calls.push_back({true, workflow_id, update});
  }
  void wm_cb_workflow_was_updated(const std::string& workflow_id,
                                  const zelcore::properties& update) override {
    calls.push_back({false, workflow_id, update});
  }
  std::vector<recorded_call> calls;
};

// A manager over its own map and counter, reporting to its own recording receiver.
struct managed_workflows {
  explicit managed_workflows(bool with_receiver = true)
      : manager(with_receiver ? &receiver : nullptr, workflows, sequence_number) {}
  zelcapi::workflow_manager::workflow_map workflows;
  std::uint64_t sequence_number = 0;
  recording_receiver receiver;
  zelcore::plugin_db db;
  zelcapi::workflow_manager manager;

  // Adds a workflow under `id` from its encoding.
  void add(const std::string& id, const zelcore::properties& encoded);
  zelworkflow::workflow_info& workflow(const std::string& id) { return *workflows.at(id); }
  // The whole map encoded, for comparisons.
  zelcore::properties encoded() const;
};

// The report source path of the workflow manager.
constexpr const char* manager_source = "code\\app\\common\\shared\\zelcapi\\src\\workflow_manager";

// A tree as a child property.
inline zelcore::property_ptr tree_of(const zelcore::properties& tree) {
  return zelcore::property_ptr(new zelcore::properties(tree));
}

// The encoding of an empty workflow of the given type (no tasks).
zelcore::properties empty_workflow(zelworkflow::workflow_info::workflow_type type);

}  // namespace zeltest
