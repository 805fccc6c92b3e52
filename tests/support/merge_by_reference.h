// Test support: the leaf-wise merge written out reference by reference, the form that
// properties::merge_leaves and state::item_update must give the same result as.
#pragma once

#include <list>
#include <string>

#include "zelcore/properties.h"

namespace zeltest {

// The record after storing every leaf of the update at its reference, creating parents.
inline zelcore::properties merged_by_reference(zelcore::properties record,
                                               const zelcore::properties& update) {
  std::list<std::string> refs;
  update.get_leaf_references(refs);
  for (const std::string& ref : refs)
    record.set_create_referenced_property(ref, update.get_referenced_property(ref));
  return record;
}

}  // namespace zeltest
