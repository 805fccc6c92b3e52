// The replica's snapshot and kinds as JSON text, written record by record from its trees.
#include "replica_json.h"

#include <algorithm>

#include "json_output.h"
#include "kinds.h"

namespace zelctl {
namespace {

void write_records(json_writer& out, const zelcapi::state::item_map& items,
                   const after_record& written) {
  out.begin_object();
  for (const auto& [id, record] : items) {
    out.key(id);
    out.value(record);
    written();
  }
  out.end_object();
}

void write_tree(json_writer& out, const zelcore::properties& tree, const after_record& written) {
  out.begin_object();
  for (const auto& [id, record] : tree) {
    if (!record) continue;
    out.key(id);
    out.value(*record);
    written();
  }
  out.end_object();
}

}  // namespace

const std::vector<std::string>& snapshot_json_keys() {
  static const std::vector<std::string> keys = [] {
    std::vector<std::string> all = snapshot_keys();
    all.emplace_back("workflow-seq-nr");
    std::sort(all.begin(), all.end());
    return all;
  }();
  return keys;
}

bool workflow_tree(const zelcapi::state& replica, const std::string& key,
                   zelcore::properties& out) {
  if (key == "workflows") {
    replica.get_workflows(out);
  } else if (key == "workflow-results") {
    replica.get_workflow_results(out);
  } else {
    return false;
  }
  return true;
}

std::int64_t workflow_seq_nr(const zelcapi::state& replica) {
  // As the snapshot holds it: a signed integer.
  return static_cast<std::int64_t>(replica.get_workflow_manager().get_current_sequence_number());
}

std::size_t record_count(const zelcapi::state& replica, const std::string& key) {
  zelcapi::state_item_type type{};
  if (item_type_of(key, type)) return replica.get_items(type).size();
  if (key == "workflows") return replica.get_workflows().size();
  if (key == "workflow-results") return replica.get_workflow_results().size();
  return 0;
}

void write_kind(json_writer& out, const zelcapi::state& replica, const std::string& key,
                const after_record& written) {
  zelcapi::state_item_type type{};
  if (item_type_of(key, type)) {
    write_records(out, replica.get_items(type), written);
    return;
  }
  zelcore::properties tree;
  workflow_tree(replica, key, tree);
  write_tree(out, tree, written);
}

void write_state(json_writer& out, const zelcapi::state& replica, const after_record& written) {
  out.begin_object();
  for (const std::string& key : snapshot_json_keys()) {
    out.key(key);
    if (key == "workflow-seq-nr") {
      out.value(workflow_seq_nr(replica));
    } else {
      write_kind(out, replica, key, written);
    }
  }
  out.end_object();
}

nlohmann::json kind_json(const zelcapi::state& replica, const std::string& key) {
  zelcapi::state_item_type type{};
  if (item_type_of(key, type)) {
    nlohmann::json out = nlohmann::json::object();
    for (const auto& [id, record] : replica.get_items(type)) out[id] = to_json(record);
    return out;
  }
  zelcore::properties tree;
  if (!workflow_tree(replica, key, tree)) return nullptr;
  return to_json(tree);
}

}  // namespace zelctl
