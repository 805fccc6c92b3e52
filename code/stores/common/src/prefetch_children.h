// Internal: asks for a tree's children ahead of a walk over them.
#pragma once

#include "zelcore/properties.h"

namespace zelcapi::store_detail {

// A record's children are objects across the heap, and a string's text may be a block of its
// own: asking for all of them, then for their texts, before reading any lets their cache misses
// overlap instead of following one another.
inline void prefetch_children(const zelcore::properties& p) {
  for (const auto& entry : p) __builtin_prefetch(entry.second.get());
  for (const auto& entry : p) {
    const zelcore::property* child = entry.second.get();
    if (child && child->kind() == zelcore::property::kind_string)
      __builtin_prefetch(static_cast<const zelcore::property_string&>(*child).value().data());
  }
}

}  // namespace zelcapi::store_detail
