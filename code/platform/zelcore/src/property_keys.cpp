// The process-wide key table. A key lives while a tree holds it: a client that mirrors a
// cluster meets the ids of every job that ever ran as keys, and must not keep them all.
#include "property_keys.h"

#include <cstring>
#include <mutex>
#include <new>
#include <string_view>
#include <unordered_map>

#include "arena.h"

namespace zelcore::detail {

namespace {

struct key_table {
  std::mutex lock;
  // Viewed through the node's own text, which does not move while the node lives.
  std::unordered_map<std::string_view, key_node*> nodes;
};

// Never destroyed: trees released while the process exits still drop their keys into it.
key_table& table() {
  static key_table* const t = new key_table;
  return *t;
}

// One more count on a node unless it has already lost its last one (a dying node is never
// revived: the thread that took its last count frees it).
bool retain_live(key_node& node) noexcept {
  std::uint32_t count = node.count.load(std::memory_order_relaxed);
  while (count != 0)
    if (node.count.compare_exchange_weak(count, count + 1, std::memory_order_relaxed)) return true;
  return false;
}

}  // namespace

key_ref key_intern(const char* data, std::size_t size) {
  key_table& t = table();
  const std::string_view key(data, size);
  std::lock_guard<std::mutex> hold(t.lock);
  const auto found = t.nodes.find(key);
  if (found != t.nodes.end() && retain_live(*found->second)) return key_ref::adopt(found->second);
  auto* node = new key_node{{1}, true, std::string(data, size)};
  try {
    // A dying node with the same text stays out of the table; its last holder frees it.
    if (found != t.nodes.end()) t.nodes.erase(found);
    t.nodes.emplace(std::string_view(node->text), node);
  } catch (...) {
    delete node;
    throw;
  }
  return key_ref::adopt(node);
}

key_ref key_own(const char* data, std::size_t size, arena& in) {
  void* block = block_allocate(sizeof(key_node), in);
  try {
    return key_ref::adopt(new (block) key_node{{1}, false, std::string(data, size)});
  } catch (...) {
    block_free(block, sizeof(key_node));
    throw;
  }
}

namespace {

// Holds a count on each key it remembers, so that a remembered key stays valid; at most
// `lines` keys per thread stay alive this way, until the thread ends.
class key_cache {
 public:
  key_ref get(const char* data, std::size_t size, std::uint64_t order) {
    line& l = lines_[(order ^ size) * 0x9e3779b97f4a7c15ull >> (64 - line_bits)];
    const key_node* node = l.key.node();
    if (!node || l.order != order || !same_after_first_eight(node->text, data, size)) {
      l.key = key_intern(data, size);
      l.order = order;
    }
    return l.key;
  }

 private:
  // Whether `text`, whose first eight bytes are known to be those of `data`, is the `size`
  // bytes at `data`. A key of up to 16 bytes (most field names) compares in one load a side.
  static bool same_after_first_eight(const std::string& text, const char* data, std::size_t size) {
    if (text.size() != size) return false;
    if (size <= 8) return true;
    if (size <= 16) {
      std::uint64_t mine, theirs;
      std::memcpy(&mine, text.data() + size - 8, 8);
      std::memcpy(&theirs, data + size - 8, 8);
      return mine == theirs;
    }
    return std::memcmp(text.data() + 8, data + 8, size - 8) == 0;
  }

  struct line {
    key_ref key;
    std::uint64_t order = 0;  // property_entry::order_of the key
  };
  static constexpr unsigned line_bits = 8;
  line lines_[std::size_t{1} << line_bits];
};

// Initial-exec: reached without a call into the dynamic loader on every key. Only a pointer:
// the cache itself would not fit in the static TLS that the loader keeps for a library opened
// with dlopen (a Python extension module links this one).
thread_local key_cache* local_keys __attribute__((tls_model("initial-exec"))) = nullptr;

// Frees the thread's cache when the thread ends.
struct key_cache_owner {
  ~key_cache_owner() {
    delete local_keys;
    local_keys = nullptr;
  }
};
thread_local key_cache_owner local_keys_owner;

key_cache& thread_keys() {
  if (local_keys == nullptr) {
    (void)&local_keys_owner;  // registers the owner for this thread
    local_keys = new key_cache();
  }
  return *local_keys;
}

}  // namespace

key_ref key_lookup(const char* data, std::size_t size, std::uint64_t order) {
  return thread_keys().get(data, size, order);
}

void key_make_permanent(const key_node* node) noexcept {
  // A decode's own key stays counted: made permanent, it would keep its arena's chunk for good.
  if (!node->in_table) return;
  // At most this many keys are kept for the life of the process.
  static std::atomic<int> budget{4096};
  if (budget.load(std::memory_order_relaxed) > 0 &&
      budget.fetch_sub(1, std::memory_order_relaxed) > 0)
    const_cast<key_node*>(node)->count.store(key_permanent, std::memory_order_relaxed);
}

void key_table_drop(const key_node* node) noexcept {
  if (!node->in_table) {
    node->~key_node();
    block_free(const_cast<key_node*>(node), sizeof(key_node));
    return;
  }
  key_table& t = table();
  {
    std::lock_guard<std::mutex> hold(t.lock);
    const auto found = t.nodes.find(std::string_view(node->text));
    if (found != t.nodes.end() && found->second == node) t.nodes.erase(found);
  }
  delete node;
}

}  // namespace zelcore::detail
