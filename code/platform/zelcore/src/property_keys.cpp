// The process-wide key table. A key lives while a tree holds it: a client that mirrors a
// cluster meets the ids of every job that ever ran as keys, and must not keep them all.
#include "property_keys.h"

#include <cstring>
#include <mutex>
#include <new>
#include <string_view>
#include <unordered_map>

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
  auto* node = new key_node{{1}, std::string(data, size)};
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

namespace {

// Holds a count on each key it remembers, so that a remembered key stays valid; at most
// `lines` keys per thread stay alive this way, until the thread ends.
class key_cache {
 public:
  key_ref get(const char* data, std::size_t size, std::uint64_t order) {
    key_ref& line = lines_[(order ^ size) * 0x9e3779b97f4a7c15ull >> (64 - line_bits)];
    const key_node* node = line.node();
    if (!node || node->text.size() != size || std::memcmp(node->text.data(), data, size) != 0)
      line = key_intern(data, size);
    return line;
  }

 private:
  static constexpr unsigned line_bits = 8;
  key_ref lines_[std::size_t{1} << line_bits];
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
  // At most this many keys are kept for the life of the process.
  static std::atomic<int> budget{4096};
  if (budget.load(std::memory_order_relaxed) > 0 &&
      budget.fetch_sub(1, std::memory_order_relaxed) > 0)
    const_cast<key_node*>(node)->count.store(key_permanent, std::memory_order_relaxed);
}

void key_table_drop(const key_node* node) noexcept {
  key_table& t = table();
  {
    std::lock_guard<std::mutex> hold(t.lock);
    const auto found = t.nodes.find(std::string_view(node->text));
    if (found != t.nodes.end() && found->second == node) t.nodes.erase(found);
  }
  delete node;
}

}  // namespace zelcore::detail
