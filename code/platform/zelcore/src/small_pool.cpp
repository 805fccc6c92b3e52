// Thread-local free lists for the small objects of property trees. Trees are built and torn
// down by the thousand (a snapshot holds millions of children); recycling their blocks per
// thread avoids the allocator's slow paths when a whole tree is freed at once.
#include <cstring>
#include <new>

#include "arena.h"

namespace zelcore::detail {

namespace {

// Blocks of 24, 40, 56 and 72 bytes: the allocator adds an 8-byte header and rounds to 16, so
// these sizes fill its chunks exactly (a 64-byte block would take an 80-byte chunk).
constexpr std::size_t class_step = 16;
constexpr std::size_t allocator_header = 8;
constexpr std::size_t classes = 4;
constexpr std::size_t class_size(std::size_t index) {
  return (index + 2) * class_step - allocator_header;
}
constexpr std::size_t class_of(std::size_t size) {
  return size <= class_step - allocator_header
             ? 0
             : (size + allocator_header + class_step - 1) / class_step - 2;
}
// Per class and thread, at most this many bytes wait for reuse (a whole decoded snapshot's
// worth); beyond, blocks go back to the allocator.
constexpr std::size_t max_cached_bytes = std::size_t{16} << 20;
constexpr std::uint32_t max_cached_blocks[classes] = {
    max_cached_bytes / class_size(0), max_cached_bytes / class_size(1),
    max_cached_bytes / class_size(2), max_cached_bytes / class_size(3)};
static_assert(class_of(24) == 0 && class_of(25) == 1 && class_of(56) == 2 && class_of(72) == 3 &&
              class_of(73) == 4);

struct free_block {
  free_block* next;
};

// Plain data, so that it is usable at any point of a thread's life, even while other
// thread-local objects are being destroyed.
struct cache {
  free_block* heads[classes];
  std::uint32_t counts[classes];
  bool closed;
};

// Initial-exec: reached without a call into the dynamic loader on every allocation.
thread_local cache local_cache __attribute__((tls_model("initial-exec")));

// Returns the cached blocks when the thread ends; later frees bypass the cache.
struct cache_closer {
  ~cache_closer() {
    local_cache.closed = true;
    for (std::size_t i = 0; i < classes; ++i) {
      while (free_block* block = local_cache.heads[i]) {
        local_cache.heads[i] = block->next;
        ::operator delete(block);
      }
      local_cache.counts[i] = 0;
    }
  }
};

thread_local cache_closer closer __attribute__((tls_model("initial-exec")));

void* pool_allocate(std::size_t size) {
  const std::size_t index = class_of(size);
  if (index < classes) {
    cache& c = local_cache;
    if (free_block* block = c.heads[index]) {
      c.heads[index] = block->next;
      --c.counts[index];
      return block;
    }
    (void)&closer;  // registers the closer for this thread
    size = class_size(index);
  }
  // Through operator new, as any other allocation of the program: a program that replaces it
  // sees the trees' memory too.
  return ::operator new(size);
}

void pool_free(void* p, std::size_t size) noexcept {
  if (!p) return;
  const std::size_t index = class_of(size);
  cache& c = local_cache;
  if (index < classes && !c.closed && c.counts[index] < max_cached_blocks[index]) {
    // A thread may free blocks without ever allocating one: it too must return them at its end.
    if (!c.heads[index]) (void)&closer;
    auto* block = static_cast<free_block*>(p);
    block->next = c.heads[index];
    c.heads[index] = block;
    ++c.counts[index];
    return;
  }
  ::operator delete(p);
}

}  // namespace

void* block_allocate(std::size_t size) {
  char* block = static_cast<char*>(pool_allocate(block_prefix_bytes + size));
  std::memset(block, 0, block_prefix_bytes);
  return block + block_prefix_bytes;
}

void block_free(void* p, std::size_t size) noexcept {
  if (!p) return;
  char* block = static_cast<char*>(p) - block_prefix_bytes;
  arena_chunk* chunk;
  std::memcpy(&chunk, block, block_prefix_bytes);
  if (chunk)
    arena_release(chunk);
  else
    pool_free(block, block_prefix_bytes + size);
}

}  // namespace zelcore::detail

namespace zelcore {

void* property::operator new(std::size_t size) { return detail::block_allocate(size); }
void property::operator delete(void* p, std::size_t size) noexcept { detail::block_free(p, size); }
void property::operator delete(void* p, detail::arena&) noexcept { detail::block_free(p, 0); }

}  // namespace zelcore
