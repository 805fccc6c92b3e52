// Item kinds by name: snapshot keys, singular names and item types.
#include "kinds.h"

namespace zelctl {
namespace {

struct kind_name {
  const char* key;
  const char* singular;
  int type;  // the state_item_type, or -1
};

const kind_name kinds[] = {
    {"clients", "client", zelcapi::state_item_client},
    {"nodes", "node", zelcapi::state_item_node},
    {"submissions", "submission", zelcapi::state_item_submission},
    {"sources", "source", zelcapi::state_item_source},
    {"slots", "slot", zelcapi::state_item_slot},
    {"jobs", "job", zelcapi::state_item_job},
    {"tasks", "task", zelcapi::state_item_task},
    {"workflow-results", "workflow-result", -1},
    {"workflows", "workflow", -1},
};

const kind_name* find(const std::string& name) {
  for (const auto& k : kinds) {
    if (name == k.key || name == k.singular) return &k;
  }
  return nullptr;
}

}  // namespace

const std::vector<std::string>& snapshot_keys() {
  static const std::vector<std::string> keys = [] {
    std::vector<std::string> all;
    for (const auto& k : kinds) all.emplace_back(k.key);
    return all;
  }();
  return keys;
}

std::vector<std::string> kind_names() {
  std::vector<std::string> names = snapshot_keys();
  for (const auto& k : kinds) names.emplace_back(k.singular);
  return names;
}

std::string snapshot_key_of(const std::string& name) {
  const kind_name* k = find(name);
  return k != nullptr ? k->key : "";
}

bool item_type_of(const std::string& name, zelcapi::state_item_type& type) {
  const kind_name* k = find(name);
  if (k == nullptr || k->type < 0) return false;
  type = static_cast<zelcapi::state_item_type>(k->type);
  return true;
}

std::string snapshot_key_of(zelcapi::state_item_type type) {
  for (const auto& k : kinds) {
    if (k.type == static_cast<int>(type)) return k.key;
  }
  return "";
}

}  // namespace zelctl
