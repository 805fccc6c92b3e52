#include "arena.h"

#include <atomic>
#include <cstring>
#include <new>

namespace zelcore::detail {

namespace {
constexpr std::size_t chunk_bytes = std::size_t{64} << 10;
constexpr std::size_t chunk_header_bytes = 16;
// While the arena fills a chunk, the chunk's count holds this much more than its live objects,
// so that objects freed during the build never bring it to zero; closing takes the excess back
// in one step instead of counting each object atomically.
constexpr std::uint32_t building_bias = std::uint32_t{1} << 31;

std::size_t rounded(std::size_t size) { return (size + 7) & ~std::size_t{7}; }
}  // namespace

struct arena_chunk {
  std::atomic<std::uint32_t> live{building_bias};
};

namespace {
void release_count(arena_chunk* chunk, std::uint32_t count) noexcept {
  if (chunk->live.fetch_sub(count, std::memory_order_acq_rel) == count) {
    chunk->~arena_chunk();
    ::operator delete(chunk);
  }
}
}  // namespace

void arena_release(arena_chunk* chunk) noexcept { release_count(chunk, 1); }

arena::~arena() { close_chunk(); }

void arena::close_chunk() noexcept {
  if (chunk_) release_count(chunk_, building_bias - objects_);
  chunk_ = nullptr;
}

void arena::start_chunk(std::size_t need) {
  const std::size_t size =
      need + chunk_header_bytes > chunk_bytes ? need + chunk_header_bytes : chunk_bytes;
  void* raw = ::operator new(size);
  close_chunk();
  chunk_ = new (raw) arena_chunk;
  objects_ = 0;
  next_ = static_cast<char*>(raw) + chunk_header_bytes;
  end_ = static_cast<char*>(raw) + size;
}

void* arena::allocate(std::size_t size) {
  const std::size_t need = rounded(block_prefix_bytes + size);
  if (!chunk_ || static_cast<std::size_t>(end_ - next_) < need) start_chunk(need);
  std::memcpy(next_, &chunk_, block_prefix_bytes);
  ++objects_;
  void* object = next_ + block_prefix_bytes;
  next_ += need;
  return object;
}

void* block_allocate(std::size_t size, arena& in) { return in.allocate(size); }

namespace {
// Initial-exec: reached without a call into the dynamic loader on every tree built.
thread_local arena* entries_arena __attribute__((tls_model("initial-exec"))) = nullptr;
}  // namespace

entries_in_arena::entries_in_arena(arena& in) noexcept : outer_(entries_arena) {
  entries_arena = &in;
}
entries_in_arena::~entries_in_arena() { entries_arena = outer_; }

void* slots_allocate(std::size_t bytes) {
  return entries_arena ? block_allocate(bytes, *entries_arena) : block_allocate(bytes);
}
void slots_free(void* p, std::size_t bytes) noexcept { block_free(p, bytes); }

}  // namespace zelcore::detail

namespace zelcore {

void* property::operator new(std::size_t size, detail::arena& in) { return in.allocate(size); }

}  // namespace zelcore
