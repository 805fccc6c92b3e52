// Test support: the cluster's state rebuilt from zelctl serve's event stream alone (a snapshot
// event, then every batch applied in order), as a client in any language would rebuild it.
#pragma once

#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

namespace zelctl_test {

// Merges an update into a record leaf by leaf: objects merge, null removes the key, anything
// else replaces it; an object without leaves changes nothing.
inline bool has_leaf(const nlohmann::json& update) {
  if (!update.is_object()) return true;
  for (const auto& [key, value] : update.items()) {
    if (has_leaf(value)) return true;
  }
  return false;
}

inline void merge_leaves(nlohmann::json& record, const nlohmann::json& update) {
  for (const auto& [key, value] : update.items()) {
    if (value.is_null()) {
      record.erase(key);
    } else if (value.is_object()) {
      if (!has_leaf(value)) continue;
      if (!record.contains(key) || !record[key].is_object()) record[key] = nlohmann::json::object();
      merge_leaves(record[key], value);
    } else {
      record[key] = value;
    }
  }
}

class stream_state {
 public:
  // Applies one event ("snapshot" or "batch"); false when a batch does not follow the last seq.
  bool apply(const std::string& name, const nlohmann::json& data) {
    if (name == "snapshot") {
      state_ = data["state"];
      seq_ = data["seq"].get<std::uint64_t>();
      return true;
    }
    if (name != "batch") return true;
    const std::uint64_t seq = data["seq"].get<std::uint64_t>();
    if (seq != seq_ + 1) return false;
    seq_ = seq;
    for (const auto& change : data["changes"]) apply_change(change);
    if (data.contains("workflow-seq-nr")) state_["workflow-seq-nr"] = data["workflow-seq-nr"];
    changes_ += data["changes"].size();
    ++batches_;
    return true;
  }

  const nlohmann::json& state() const { return state_; }
  std::uint64_t seq() const { return seq_; }
  std::uint64_t changes() const { return changes_; }
  std::uint64_t batches() const { return batches_; }

 private:
  void apply_change(const nlohmann::json& change) {
    nlohmann::json& kind = state_[change["kind"].get<std::string>()];
    const std::string id = change["id"];
    const std::string op = change["op"];
    if (op == "set") {
      kind[id] = change["data"];
    } else if (op == "update") {
      if (!kind.contains(id)) kind[id] = nlohmann::json::object();
      merge_leaves(kind[id], change["data"]);
    } else if (op == "remove" || op == "historize") {
      kind.erase(id);
    } else if (op == "erase") {
      if (!kind.contains(id)) return;
      const nlohmann::json::json_pointer ref(change["data"].get<std::string>());
      if (ref.empty() || !kind[id].contains(ref)) return;
      nlohmann::json& parent = kind[id].at(ref.parent_pointer());
      if (parent.is_object()) parent.erase(ref.back());
    }
  }

  nlohmann::json state_;
  std::uint64_t seq_ = 0;
  std::uint64_t changes_ = 0;
  std::uint64_t batches_ = 0;
};

}  // namespace zelctl_test
