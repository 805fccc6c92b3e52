// Internal: the arena in which a decoder builds a whole tree. Objects are laid out one after
// the other in 64 KiB chunks, so that building costs a pointer bump and walking the tree later
// touches memory in order; a chunk is freed when its last object is.
//
// Every tree object carries, just before it, the chunk of the arena it was built in, or null
// for a pool block; freeing reads that word to know where the memory goes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zelcore/properties.h"

namespace zelcore::detail {

struct arena_chunk;

constexpr std::size_t block_prefix_bytes = sizeof(arena_chunk*);

// Gives back one object's share of its chunk (any thread).
void arena_release(arena_chunk* chunk) noexcept;

class arena;
// Tree objects come from a pool block (thread-local free lists) or from an arena; either way
// any thread may free them.
void* block_allocate(std::size_t size);
void* block_allocate(std::size_t size, arena& in);
void block_free(void* p, std::size_t size) noexcept;

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
  void close_chunk() noexcept;

  arena_chunk* chunk_ = nullptr;
  std::uint32_t objects_ = 0;  // given out from the current chunk
  char* next_ = nullptr;
  char* end_ = nullptr;
};

// While it lives, the entries of trees built on this thread (slots_allocate) come from `in`:
// a decoder builds every tree of a large input in its arena.
class entries_in_arena {
 public:
  explicit entries_in_arena(arena& in) noexcept;
  ~entries_in_arena();
  entries_in_arena(const entries_in_arena&) = delete;
  entries_in_arena& operator=(const entries_in_arena&) = delete;

 private:
  arena* outer_;
};

}  // namespace zelcore::detail
