// Test support: where two property trees differ, for the message of a failed comparison.
#pragma once

#include <string>

#include "zelcore/properties.h"

namespace zeltest {

// The first key path at which `a` and `b` differ ("/jobs/job-1/state: ..." with both values).
inline std::string first_difference(const zelcore::properties& a, const zelcore::properties& b,
                                    const std::string& at = "") {
  for (const auto& [key, value] : a) {
    const zelcore::property_ptr other = b.get_property(key);
    if (!other) return at + "/" + key + " (missing on the right)";
    if (*value == *other) continue;
    if (value->kind() == zelcore::property::kind_properties &&
        other->kind() == zelcore::property::kind_properties) {
      return first_difference(static_cast<const zelcore::properties&>(*value),
                              static_cast<const zelcore::properties&>(*other), at + "/" + key);
    }
    return at + "/" + key + ": " + value->describe() + " vs " + other->describe();
  }
  return at + " (keys missing on the left)";
}

}  // namespace zeltest
