// The cores of the cluster's nodes, shared by the workload and the runner of submitted work: how
// many each node has and uses, and the node records' "cores-used" and "load" that follow them.
//
// Threads: used by the nodes' thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "master_state.h"

namespace zelsim {

class node_pool {
 public:
  struct node {
    std::string id;
    std::int64_t cores = 0;
    std::int64_t used = 0;
    // A worker that joined while the cluster ran; the cluster's own nodes never leave.
    bool removable = false;
    // Held for a submitted job that waits for more cores than any node has free: the workload
    // starts nothing here, so that a large job is not starved by a stream of small ones.
    bool held = false;
  };

  // `master` must outlive the pool.
  explicit node_pool(master_state& master) : master_(master) {}

  std::vector<node>& nodes() { return nodes_; }
  const std::vector<node>& nodes() const { return nodes_; }
  // Adds a node to the ledger (its record is the caller's to write).
  void add(const std::string& id, std::int64_t cores, bool removable);
  // Drops the last node from the ledger; nothing may run on it.
  void remove_last() { nodes_.pop_back(); }
  // The first node, from `start` on and wrapping around, with `cores` free cores (leaving out
  // held nodes when `skip_held`).
  std::optional<std::size_t> free_node(std::int64_t cores, std::size_t start = 0,
                                       bool skip_held = false) const;
  // Holds the node, among those with at least `cores` cores and not held yet, that has the most
  // free cores; false when there is none.
  bool hold_for(std::int64_t cores);
  void release_holds();
  // The largest free cores of any node.
  std::int64_t most_free() const;
  // The most cores of any node.
  std::int64_t largest() const;
  // Uses (or gives back) cores of node `i`; the record is told with update_record.
  void take(std::size_t i, std::int64_t cores) { nodes_[i].used += cores; }
  void give(std::size_t i, std::int64_t cores) { nodes_[i].used -= cores; }
  // The share of the node's cores in use, in percent.
  std::int64_t load(std::size_t i) const;
  // Sends the node's "cores-used" and "load" as an update of its record.
  void update_record(std::size_t i);

 private:
  master_state& master_;
  std::vector<node> nodes_;
};

}  // namespace zelsim
