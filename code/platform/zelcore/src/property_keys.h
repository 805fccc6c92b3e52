// Internal: the process-wide table of keys that trees share, and the per-thread cache in front
// of it.
#pragma once

#include <cstring>

#include "zelcore/properties.h"

namespace zelcore::detail {

// The table's node for `key` with one count for the caller, made when the key is new. Any
// thread; takes the table's lock.
key_ref key_intern(const char* data, std::size_t size);
inline key_ref key_intern(const std::string& key) { return key_intern(key.data(), key.size()); }

// As key_intern, through a small per-thread cache of the keys it last met: a record's keys
// repeat in every record of a snapshot and in every record a thread builds, and are mostly
// found there without the table's lock. `order` is property_entry::order_of the key.
key_ref key_lookup(const char* data, std::size_t size, std::uint64_t order);
inline key_ref key_lookup(const std::string& key, std::uint64_t order) {
  return key_lookup(key.data(), key.size(), order);
}

class arena;
// A node of its own for `key`, built in `in` and out of the table, with one count for the
// caller: for keys met once each (the ids of a large map), which the table would only have to
// find room for.
key_ref key_own(const char* data, std::size_t size, arena& in);

}  // namespace zelcore::detail
