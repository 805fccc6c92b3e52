// What the last save of a store wrote: the stores that keep digests of what they committed write
// only the records that changed.
#pragma once

#include <cstdint>

namespace zelcapi {

struct save_counts {
  std::uint64_t written = 0;    // records new or changed since the previous save
  std::uint64_t unchanged = 0;  // records the save held that were already stored as they are
  std::uint64_t removed = 0;    // stored records that the save no longer held
};

}  // namespace zelcapi
