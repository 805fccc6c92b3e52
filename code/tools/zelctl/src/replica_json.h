// The replica as the JSON that zelctl prints: the whole snapshot, one kind, one record. The
// one conversion that `zelctl state` and `zelctl serve` share.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "zelcapi/state.h"

namespace zelctl {

// The whole snapshot ("clients" ... "tasks", "workflow-results", "workflows",
// "workflow-seq-nr").
nlohmann::json state_json(const zelcapi::state& replica);
// The records of one snapshot key (id -> record); an unknown key gives null.
nlohmann::json kind_json(const zelcapi::state& replica, const std::string& key);
// The historized records of one item kind (id -> record); null without history.
nlohmann::json history_json(const zelcapi::state& replica, zelcapi::state_item_type type);

}  // namespace zelctl
