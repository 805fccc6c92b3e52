// Internal: the shared content of a `properties` and the builder that fills one in bulk.
#pragma once

#include "zelcore/properties.h"

namespace zelcore::detail {

// Entries sorted by key, unique keys. Shared by copies of a tree until one of them changes.
struct properties_body : zelbase::object_refcount {
  properties::container entries;
};

// Fills a tree from entries in any order without a lookup per entry (used by the decoder).
struct properties_builder {
  static properties::container& entries(properties& tree) { return tree.mutable_entries(); }
  // Sorts and removes duplicate keys (the last one wins) after appending out of order.
  static void normalise(properties::container& entries);
};

}  // namespace zelcore::detail
