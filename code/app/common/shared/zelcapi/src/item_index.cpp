// The item stores' hash index: open addressing with linear probing and backward-shift erasure.
#include "item_index.h"

#include <functional>
#include <string_view>
#include <utility>

namespace zelcapi::detail {

std::uint64_t item_index::hash_of(const std::string& id) noexcept {
  const std::uint64_t h = std::hash<std::string_view>()(id);
  return h ? h : 1;
}

std::size_t item_index::probe(const std::string& id, std::uint64_t hash) const noexcept {
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t at = hash & mask;; at = (at + 1) & mask) {
    const slot& s = slots_[at];
    if (s.hash == 0 || (s.hash == hash && s.node->first == id)) return at;
  }
}

void item_index::reserve_one() {
  if ((used_ + 1) * 4 > slots_.size() * 3) rehash(slots_.empty() ? 16 : slots_.size() * 2);
}

void item_index::insert_new(std::uint64_t hash, iterator node) noexcept {
  const std::size_t mask = slots_.size() - 1;
  std::size_t at = hash & mask;
  while (slots_[at].hash != 0) at = (at + 1) & mask;
  slots_[at] = slot{hash, node};
  ++used_;
}

// Moves back the slots after the erased one that probing would otherwise no longer reach.
void item_index::erase_slot(std::size_t at) noexcept {
  const std::size_t mask = slots_.size() - 1;
  std::size_t hole = at;
  for (std::size_t next = (hole + 1) & mask; slots_[next].hash != 0; next = (next + 1) & mask) {
    const std::size_t home = slots_[next].hash & mask;
    // The entry at `next` may fill the hole unless its home lies cyclically in (hole, next].
    const bool home_after_hole =
        hole <= next ? (home > hole && home <= next) : (home > hole || home <= next);
    if (home_after_hole) continue;
    slots_[hole] = slots_[next];
    hole = next;
  }
  slots_[hole] = slot{};
  --used_;
}

void item_index::rehash(std::size_t capacity) {
  std::vector<slot> old(capacity);
  old.swap(slots_);
  used_ = 0;
  for (const slot& s : old)
    if (s.hash != 0) insert_new(s.hash, s.node);
}

bool item_index::usable() {
  if (!stale_) return true;
  // A rebuild costs a pass over the store: it waits until the map lookups made in the meantime
  // have cost about as much.
  if (++lookups_while_stale_ < store_.size() / 8 + 64) return false;
  std::size_t capacity = 16;
  while (capacity * 3 < store_.size() * 4 + 4) capacity *= 2;
  slots_.assign(capacity, slot{});
  used_ = 0;
  for (auto it = store_.begin(); it != store_.end(); ++it) insert_new(hash_of(it->first), it);
  stale_ = false;
  lookups_while_stale_ = 0;
  return true;
}

zelcore::properties* item_index::find(const std::string& id) {
  if (!usable()) {
    const auto it = store_.find(id);
    return it != store_.end() ? &it->second : nullptr;
  }
  if (slots_.empty()) return nullptr;
  const slot& s = slots_[probe(id, hash_of(id))];
  return s.hash != 0 ? &s.node->second : nullptr;
}

item_index::iterator item_index::find_or_insert(const std::string& id) {
  if (!usable()) {
    const auto [node, inserted] = store_.try_emplace(id);
    if (inserted) order_known_ = false;
    return node;
  }
  const std::uint64_t hash = hash_of(id);
  if (!slots_.empty()) {
    const slot& s = slots_[probe(id, hash)];
    if (s.hash != 0) return s.node;
  }
  // Room first: once the item is in the store, nothing may fail before it is in the index.
  reserve_one();
  const iterator node = store_.try_emplace(id).first;
  insert_new(hash, node);
  order_known_ = false;
  return node;
}

bool item_index::erase(const std::string& id) {
  if (!usable()) {
    if (store_.erase(id) == 0) return false;
    order_known_ = false;
    return true;
  }
  if (slots_.empty()) return false;
  const std::size_t at = probe(id, hash_of(id));
  if (slots_[at].hash == 0) return false;
  const iterator node = slots_[at].node;
  erase_slot(at);
  store_.erase(node);
  order_known_ = false;
  return true;
}

void item_index::clear() noexcept {
  store_.clear();
  slots_.clear();
  slots_.shrink_to_fit();
  used_ = 0;
  stale_ = false;
  lookups_while_stale_ = 0;
  order_.clear();
  order_.shrink_to_fit();
  order_known_ = false;
}

const std::vector<item_index::iterator>& item_index::in_order() {
  // The count also catches an item that came or went through a reference to the store kept
  // from before its last mark_stale.
  if (order_known_ && order_.size() == store_.size()) return order_;
  order_.clear();
  order_.reserve(store_.size());
  for (auto it = store_.begin(); it != store_.end(); ++it) order_.push_back(it);
  order_known_ = true;
  return order_;
}

}  // namespace zelcapi::detail
