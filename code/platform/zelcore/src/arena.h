// Internal: the arena in which a decoder builds a whole tree. Objects are laid out one after
// the other in 64 KiB chunks, so that building costs a pointer bump and walking the tree later
// touches memory in order; a chunk is freed when its last object is.
#pragma once

#include <cstddef>

#include "zelcore/properties.h"

namespace zelcore::detail {

struct arena_chunk;

// Used by one thread while it builds; the objects it gave out may be freed on any thread.
class arena {
 public:
  arena() = default;
  ~arena();
  arena(const arena&) = delete;
  arena& operator=(const arena&) = delete;

  void* allocate(std::size_t size);

 private:
  void start_chunk(std::size_t need);

  arena_chunk* chunk_ = nullptr;
  char* next_ = nullptr;
  char* end_ = nullptr;
};

}  // namespace zelcore::detail
