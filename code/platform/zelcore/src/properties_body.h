// Internal: the shared content of a `properties` and the builder that fills one in bulk.
#pragma once

#include <cstring>

#include "arena.h"
#include "zelcore/properties.h"

namespace zelcore::detail {

// Byte-wise order (as std::string's operator<) of two keys of the same order: their first
// eight bytes are known to be equal.
inline bool key_less_same_order(const std::string& a, const std::string& b) noexcept {
  const std::size_t n = a.size() < b.size() ? a.size() : b.size();
  if (n > 8) {
    const int c = std::memcmp(a.data() + 8, b.data() + 8, n - 8);
    if (c != 0) return c < 0;
  }
  return a.size() < b.size();
}

// Whether entry e comes before `key` (whose order is `order`); the bytes are only compared
// when the first eight are the same.
inline bool entry_before(const slot& e, const std::string& key, std::uint64_t order) noexcept {
  return e.order != order ? e.order < order : key_less_same_order(e.first(), key);
}
inline bool entry_less(const slot& a, const slot& b) noexcept {
  return entry_before(a, b.first(), b.order);
}

// From `first`, whose order is not below `order`: past the entries of that same order whose keys
// come before `key` (the few that share its first eight bytes).
inline const slot* entry_past_same_order_before(const slot* first, const slot* last,
                                                const std::string& key,
                                                std::uint64_t order) noexcept {
  while (first != last && first->order == order && key_less_same_order(first->first(), key))
    ++first;
  return first;
}

// The first entry of [first, last) that is not before `key`, whose order is `order`. The halving
// compares orders only, so that it selects instead of jumping (the comparisons of a lookup
// cannot be predicted); the few entries that share the first eight bytes are walked after.
inline const slot* entry_lower_bound(const slot* first, const slot* last, const std::string& key,
                                     std::uint64_t order) noexcept {
  std::size_t n = static_cast<std::size_t>(last - first);
  if (n == 0) return first;
  while (n > 1) {
    const std::size_t half = n / 2;
    // A multiply rather than a conditional, which compilers may turn back into a jump.
    first += half * static_cast<std::size_t>(first[half - 1].order < order);
    n -= half;
  }
  if (first->order < order) ++first;
  return entry_past_same_order_before(first, last, key, order);
}

// Whether the entry holds exactly `key`, whose order is `order`.
inline bool entry_is(const slot& e, const std::string& key, std::uint64_t order) noexcept {
  // Equal orders and sizes leave only the bytes after the eighth to compare.
  const std::string& mine = e.first();
  return e.order == order && mine.size() == key.size() &&
         (key.size() <= 8 || std::memcmp(mine.data() + 8, key.data() + 8, key.size() - 8) == 0);
}

// Whether two entries have the same key: mostly the same node, but a decode's own keys are
// nodes of their own (key_node).
inline bool same_key(const slot& a, const slot& b) noexcept {
  return a.key.node() == b.key.node() || entry_is(a, b.first(), b.order);
}

// The process-wide constant for a small integer, or null outside their range.
const property* shared_int(std::int64_t value);
// The process-wide constant for a string of at most two bytes, or null for a longer one.
const property* shared_string(const char* data, std::size_t size);
// The process-wide empty list and empty tree: a received container without elements costs
// its holder a pointer, not an object.
const property* shared_empty_list();
const property* shared_empty_properties();

// Writes a property and everything below it with one packer (no virtual call per value).
void pack_property(const property& value, zelbase::encoder_network& encoder);

// Entries sorted by key, unique keys. Shared by copies of a tree until one of them changes.
struct properties_body : zelbase::object_refcount {
  static void* operator new(std::size_t size) { return block_allocate(size); }
  static void* operator new(std::size_t size, arena& in) { return block_allocate(size, in); }
  static void operator delete(void* p, std::size_t size) noexcept { block_free(p, size); }
  static void operator delete(void* p, arena&) noexcept { block_free(p, 0); }

  std::vector<slot, slots_allocator<slot>> entries;
};

// Fills a tree from entries in any order without a lookup per entry (used by the decoder).
struct properties_builder {
  using slots = std::vector<slot, slots_allocator<slot>>;
  // The entries of a tree, or null for a tree that has never held one.
  static const slots* entries_of(const properties& tree) {
    return tree.body_ ? &tree.body_->entries : nullptr;
  }
  static slots& entries(properties& tree) { return tree.mutable_entries(); }
  // The entries of a new, empty tree, their holder allocated in `in`.
  static slots& entries(properties& tree, arena& in) {
    tree.body_ = zelbase::ptr_refcount<properties_body>::adopt_new(new (in) properties_body);
    return tree.body_->entries;
  }
  // Sorts and removes duplicate keys (the last one wins) after appending out of order; entries
  // already in strict key order are left as they are.
  static void normalise(slots& entries);
};

}  // namespace zelcore::detail
