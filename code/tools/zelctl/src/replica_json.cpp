// The replica's snapshot, kinds and history as JSON, through the property trees' conversion.
#include "replica_json.h"

#include "json_output.h"
#include "kinds.h"

namespace zelctl {
namespace {

nlohmann::json records_json(const zelcapi::state::item_map& items) {
  nlohmann::json out = nlohmann::json::object();
  for (const auto& [id, record] : items) out[id] = to_json(record);
  return out;
}

}  // namespace

nlohmann::json state_json(const zelcapi::state& replica) {
  zelcore::properties snapshot;
  replica.get_state(snapshot);
  return to_json(snapshot);
}

nlohmann::json kind_json(const zelcapi::state& replica, const std::string& key) {
  zelcapi::state_item_type type{};
  if (item_type_of(key, type)) return records_json(replica.get_items(type));
  zelcore::properties out;
  if (key == "workflows") {
    replica.get_workflows(out);
  } else if (key == "workflow-results") {
    replica.get_workflow_results(out);
  } else {
    return nullptr;
  }
  return to_json(out);
}

nlohmann::json history_json(const zelcapi::state& replica, zelcapi::state_item_type type) {
  if (!replica.has_history()) return nullptr;
  return records_json(replica.get_history_items(type));
}

}  // namespace zelctl
