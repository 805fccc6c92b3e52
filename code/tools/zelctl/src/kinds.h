// The names zelctl's --kind takes: the snapshot's keys ("jobs", "workflow-results") and the
// item kinds' own names ("job"), and their item types.
#pragma once

#include <string>
#include <vector>

#include "zelcapi/state.h"

namespace zelctl {

// Every snapshot key that holds records by id, in the snapshot's order.
const std::vector<std::string>& snapshot_keys();
// Every name --kind accepts: the snapshot keys and the singular names.
std::vector<std::string> kind_names();
// The snapshot key of an accepted name ("job" and "jobs" give "jobs").
std::string snapshot_key_of(const std::string& name);
// The item type of an accepted name; false for "workflows" and "workflow-results".
bool item_type_of(const std::string& name, zelcapi::state_item_type& type);
// The snapshot key of an item type ("jobs" for state_item_job).
std::string snapshot_key_of(zelcapi::state_item_type type);

}  // namespace zelctl
