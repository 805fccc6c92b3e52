// The nodes' cores, shared by the workload and the runner.
#include "node_pool.h"

#include <algorithm>

namespace zelsim {

void node_pool::add(const std::string& id, std::int64_t cores, bool removable) {
  nodes_.push_back(node{id, cores, 0, removable});
}

std::optional<std::size_t> node_pool::free_node(std::int64_t cores, std::size_t start,
                                                bool skip_held) const {
  for (std::size_t k = 0; k < nodes_.size(); ++k) {
    const std::size_t i = (start + k) % nodes_.size();
    if (skip_held && nodes_[i].held) continue;
    if (nodes_[i].cores - nodes_[i].used >= cores) return i;
  }
  return std::nullopt;
}

bool node_pool::hold_for(std::int64_t cores) {
  node* best = nullptr;
  for (node& n : nodes_) {
    if (n.held || n.cores < cores) continue;
    if (best == nullptr || n.cores - n.used > best->cores - best->used) best = &n;
  }
  if (best == nullptr) return false;
  best->held = true;
  return true;
}

void node_pool::release_holds() {
  for (node& n : nodes_) n.held = false;
}

std::int64_t node_pool::most_free() const {
  std::int64_t most = 0;
  for (const node& n : nodes_) most = std::max(most, n.cores - n.used);
  return most;
}

std::int64_t node_pool::largest() const {
  std::int64_t most = 0;
  for (const node& n : nodes_) most = std::max(most, n.cores);
  return most;
}

std::int64_t node_pool::load(std::size_t i) const {
  const node& n = nodes_[i];
  return n.cores == 0 ? 0 : 100 * n.used / n.cores;
}

void node_pool::update_record(std::size_t i) {
  zelcore::properties update;
  update.set_int_value("cores-used", nodes_[i].used);
  update.set_int_value("load", load(i));
  master_.update_item(zelcapi::state_item_node, nodes_[i].id, update);
}

}  // namespace zelsim
