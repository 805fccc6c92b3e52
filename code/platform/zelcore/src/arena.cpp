// Tree object memory: every object carries, just before it, the chunk of the arena it was
// built in, or null for a pool block; freeing reads that word to know where the memory goes.
#include "arena.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

namespace zelcore::detail {

namespace {
constexpr std::size_t prefix_bytes = sizeof(arena_chunk*);
constexpr std::size_t chunk_bytes = std::size_t{64} << 10;
constexpr std::size_t chunk_header_bytes = 16;

std::size_t rounded(std::size_t size) { return (size + 7) & ~std::size_t{7}; }
}  // namespace

struct arena_chunk {
  // One count per object in the chunk, and one for the arena while it builds in it.
  std::atomic<std::uint32_t> live{1};
};

namespace {
void release(arena_chunk* chunk) noexcept {
  if (chunk->live.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    chunk->~arena_chunk();
    std::free(chunk);
  }
}
}  // namespace

arena::~arena() {
  if (chunk_) release(chunk_);
}

void arena::start_chunk(std::size_t need) {
  const std::size_t size =
      need + chunk_header_bytes > chunk_bytes ? need + chunk_header_bytes : chunk_bytes;
  void* raw = std::malloc(size);
  if (!raw) throw std::bad_alloc();
  if (chunk_) release(chunk_);
  chunk_ = new (raw) arena_chunk;
  next_ = static_cast<char*>(raw) + chunk_header_bytes;
  end_ = static_cast<char*>(raw) + size;
}

void* arena::allocate(std::size_t size) {
  const std::size_t need = rounded(prefix_bytes + size);
  if (!chunk_ || static_cast<std::size_t>(end_ - next_) < need) start_chunk(need);
  std::memcpy(next_, &chunk_, prefix_bytes);
  chunk_->live.fetch_add(1, std::memory_order_relaxed);
  void* object = next_ + prefix_bytes;
  next_ += need;
  return object;
}

void* block_allocate(std::size_t size) {
  char* block = static_cast<char*>(pool_allocate(prefix_bytes + size));
  std::memset(block, 0, prefix_bytes);
  return block + prefix_bytes;
}

void* block_allocate(std::size_t size, arena& in) { return in.allocate(size); }

void block_free(void* p, std::size_t size) noexcept {
  if (!p) return;
  char* block = static_cast<char*>(p) - prefix_bytes;
  arena_chunk* chunk;
  std::memcpy(&chunk, block, prefix_bytes);
  if (chunk)
    release(chunk);
  else
    pool_free(block, prefix_bytes + size);
}

}  // namespace zelcore::detail
