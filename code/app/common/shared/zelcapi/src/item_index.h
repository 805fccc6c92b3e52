// A hash index over one item store, so that a notification reaches its record in one probe
// instead of a walk down the ordered map (tens of cache misses in a store of 100,000 items).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "zelcapi/state.h"

namespace zelcapi::detail {

// Maps an id to its node in the store. The nodes of a std::map never move, so a node found here
// stays valid while its item stays in the store. The state changes the store through the index
// where it can; a change that bypasses it calls mark_stale, after which lookups go to the map
// until enough of them have come to pay for a rebuild (so that a caller that bypasses the index
// on every change costs a map lookup per change, never a rebuild per change).
class item_index {
 public:
  using item_map = state::item_map;
  using iterator = item_map::iterator;

  explicit item_index(item_map& store) noexcept : store_(store) {}
  item_index(const item_index&) = delete;
  item_index& operator=(const item_index&) = delete;

  // The item's record, or null.
  zelcore::properties* find(const std::string& id);
  // The item's node, inserted with an empty record when absent.
  iterator find_or_insert(const std::string& id);
  // Erases the item from the store; false when it was absent.
  bool erase(const std::string& id);
  // Empties the store.
  void clear() noexcept;
  // Fetches into cache the entry where the lookup of `id` starts.
  void prefetch(const std::string& id) const noexcept {
    if (!stale_ && !slots_.empty()) __builtin_prefetch(&slots_[hash_of(id) & (slots_.size() - 1)]);
  }
  // The store changed without the index.
  void mark_stale() noexcept {
    stale_ = true;
    order_known_ = false;
  }
  // The store's nodes in id order, for a pass over the store that would otherwise walk the map
  // (a cache miss or more a node): walked again only after items came or went.
  const std::vector<iterator>& in_order();

 private:
  // A used slot holds the id's hash (never 0) and its node.
  struct slot {
    std::uint64_t hash = 0;
    iterator node;
  };

  static std::uint64_t hash_of(const std::string& id) noexcept;
  // The slot that holds `id` or the empty slot where it would go.
  std::size_t probe(const std::string& id, std::uint64_t hash) const noexcept;
  // Makes room for one more entry.
  void reserve_one();
  // Places an entry that is not there yet; needs the room reserve_one made.
  void insert_new(std::uint64_t hash, iterator node) noexcept;
  void erase_slot(std::size_t at) noexcept;
  void rehash(std::size_t capacity);
  // False when the index is stale and not yet worth rebuilding: the caller uses the map.
  bool usable();

  item_map& store_;
  std::vector<slot> slots_;  // power-of-two size, linear probing, at most 3/4 full
  std::size_t used_ = 0;
  bool stale_ = false;
  std::size_t lookups_while_stale_ = 0;
  std::vector<iterator> order_;  // valid while order_known_
  bool order_known_ = false;
};

}  // namespace zelcapi::detail
