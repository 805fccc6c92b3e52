#include "record_digests.h"

#include <xxhash.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "json_record.h"
#include "prefetch_children.h"
#include "zelbase/encoder_network.h"
#include "zelbase/exceptions.h"

namespace zelcapi::store_detail {

namespace {

// The ids' hashes and the contents' digests are drawn with different seeds, so that two ids
// sharing a hash do not share digests of equal content.
constexpr XXH64_hash_t id_seed = 0x7a656c6964ULL;
constexpr XXH64_hash_t content_seed = 0x7a656c636fULL;

constexpr const char* source_file = "code\\stores\\common\\src\\record_digests";

// The bytes that a record's digest is taken over: each value as its kind and its content, each
// string with its length first, each container closed by a byte that no value begins with, so
// that two different trees never give the same bytes. Absent children are left out, as the JSON
// text leaves them out.
class tree_bytes {
 public:
  explicit tree_bytes(zelbase::encoder_network& out) : out_(out) {}

  void tree(const zelcore::properties& p, std::size_t depth) {
    check_depth(depth);
    prefetch_children(p);
    put_kind('{');
    for (const auto& [key, child] : p) {
      if (!child) continue;
      put_kind('k');
      put_text(key);
      value(*child, depth);
    }
    put_kind('}');
  }

 private:
  void value(const zelcore::property& v, std::size_t depth) {
    switch (v.kind()) {
      case zelcore::property::kind_int: {
        put_kind('i');
        const std::int64_t n = static_cast<const zelcore::property_int&>(v).value();
        put_raw(&n, sizeof n);
        return;
      }
      case zelcore::property::kind_bool:
        put_kind(static_cast<const zelcore::property_bool&>(v).value() ? 't' : 'f');
        return;
      case zelcore::property::kind_string:
        put_kind('s');
        put_text(static_cast<const zelcore::property_string&>(v).value());
        return;
      case zelcore::property::kind_list: {
        check_depth(depth + 1);
        const auto& elements = static_cast<const zelcore::property_list&>(v).value();
        put_kind('[');
        for (const zelcore::property_ptr& element : elements) {
          if (element) value(*element, depth + 1);
        }
        put_kind(']');
        return;
      }
      case zelcore::property::kind_properties:
        tree(static_cast<const zelcore::properties&>(v), depth + 1);
        return;
    }
  }

  static void check_depth(std::size_t depth) {
    if (depth > json_max_depth)
      zelbase::es::arg::raise(
          source_file, __LINE__,
          "record nested deeper than " + std::to_string(json_max_depth) + " levels");
  }
  void put_kind(char kind) { out_.write(&kind, 1); }
  void put_size(std::size_t n) {
    const std::uint64_t size = n;
    put_raw(&size, sizeof size);
  }
  void put_text(const std::string& text) {
    put_size(text.size());
    out_.write(text.data(), text.size());
  }
  void put_raw(const void* p, std::size_t n) { out_.write(static_cast<const char*>(p), n); }

  zelbase::encoder_network& out_;
};

template <class Entry>
bool by_id_hash(const Entry& a, const Entry& b) noexcept {
  return a.id_hash < b.id_hash;
}

}  // namespace

std::uint64_t id_hash_of(std::string_view id) {
  return XXH3_64bits_withSeed(id.data(), id.size(), id_seed);
}

record_digest digest_of(std::string_view id, const zelcore::properties& record) {
  thread_local zelbase::encoder_network bytes;
  bytes.clear();
  tree_bytes(bytes).tree(record, 1);
  const XXH64_hash_t of_id = XXH3_64bits_withSeed(id.data(), id.size(), content_seed);
  std::uint64_t digest = XXH3_64bits_withSeed(bytes.data(), bytes.size(), of_id);
  if (digest == 0) digest = 1;  // 0 marks an entry to write always
  return {id_hash_of(id), digest};
}

void kind_digests::sort_and_merge_twins(std::vector<entry>& entries) {
  std::sort(entries.begin(), entries.end(), by_id_hash<entry>);
  auto out = entries.begin();
  for (auto in = entries.begin(); in != entries.end(); ++in) {
    if (out != entries.begin() && (out - 1)->id_hash == in->id_hash) {
      (out - 1)->digest = 0;
      (out - 1)->tree = zelcore::properties();
    } else {
      *out++ = std::move(*in);
    }
  }
  entries.erase(out, entries.end());
}

void kind_digests::rebuild(std::vector<record_digest> records) {
  std::vector<entry> entries;
  entries.reserve(records.size());
  for (const record_digest& record : records)
    entries.push_back({record.id_hash, record.digest, zelcore::properties()});
  sort_and_merge_twins(entries);
  entries.shrink_to_fit();
  entries_ = std::move(entries);
  seen_.assign(entries_.size(), false);
  fresh_.clear();
  order_ = {};
  restart_order();
  known_ = true;
  stale_after_save_ = false;
}

void kind_digests::forget() noexcept {
  known_ = false;
  stale_after_save_ = false;
  entries_ = {};
  seen_ = {};
  fresh_ = {};
  order_ = {};
  restart_order();
}

void kind_digests::restart_order() noexcept {
  next_ = 0;
  in_order_ = true;
  calls_ = {};
  located_known_ = false;
}

void kind_digests::leave_order() {
  if (!in_order_) return;
  in_order_ = false;
  calls_.reserve(order_.size());
  for (std::size_t k = 0; k < next_; ++k) calls_.push_back(entries_[order_[k]].id_hash);
}

std::vector<kind_digests::entry>::iterator kind_digests::locate(std::uint64_t id_hash) {
  if (located_known_ && located_hash_ == id_hash)
    return entries_.begin() + static_cast<std::ptrdiff_t>(located_);
  std::size_t at;
  if (next_ < order_.size() && entries_[order_[next_]].id_hash == id_hash) {
    at = order_[next_++];
  } else {
    leave_order();
    at = static_cast<std::size_t>(find(id_hash) - entries_.begin());
    // A record removed since the last save leaves its place in the order: the next ones follow.
    const std::size_t last = std::min(order_.size(), next_ + 4);
    for (std::size_t k = next_; k < last && at != entries_.size(); ++k) {
      if (order_[k] == at) {
        next_ = k + 1;
        break;
      }
    }
  }
  if (!in_order_) calls_.push_back(id_hash);
  constexpr std::size_t ahead = 16;
  if (next_ + ahead < order_.size()) __builtin_prefetch(&entries_[order_[next_ + ahead]]);
  located_hash_ = id_hash;
  located_ = at;
  located_known_ = true;
  return entries_.begin() + static_cast<std::ptrdiff_t>(at);
}

void kind_digests::remember_order() {
  order_.clear();
  order_.reserve(calls_.size());
  constexpr std::size_t ahead = 16;
  const std::size_t n = entries_.size();
  for (std::size_t i = 0; i < calls_.size(); ++i) {
    if (i + ahead < calls_.size() && n != 0) {
      // Where find starts its search for that hash.
      const auto guess =
          static_cast<std::size_t>((static_cast<unsigned __int128>(calls_[i + ahead]) * n) >> 64);
      __builtin_prefetch(&entries_[guess]);
    }
    const auto at = find(calls_[i]);
    if (at != entries_.end()) order_.push_back(static_cast<std::uint32_t>(at - entries_.begin()));
  }
}

std::vector<kind_digests::entry>::iterator kind_digests::find(std::uint64_t id_hash) {
  // The hashes are spread evenly over their range: an entry lies close to where its hash's share
  // of the range puts it, and a search outwards from there, by doubling steps, touches a few
  // cache lines where halving the whole array misses the cache at most of its steps.
  const std::size_t n = entries_.size();
  if (n == 0) return entries_.end();
  const auto guess = static_cast<std::size_t>((static_cast<unsigned __int128>(id_hash) * n) >> 64);
  std::size_t lo = 0, hi = n;  // the first entry not below id_hash is in [lo, hi]
  if (entries_[guess].id_hash < id_hash) {
    lo = guess + 1;
    for (std::size_t step = 1;; step *= 2) {
      const std::size_t probe = lo + step - 1;
      if (probe >= n) break;
      if (entries_[probe].id_hash >= id_hash) {
        hi = probe;
        break;
      }
      lo = probe + 1;
    }
  } else {
    hi = guess;
    for (std::size_t step = 1;; step *= 2) {
      if (hi < step) break;
      const std::size_t probe = hi - step;
      if (entries_[probe].id_hash < id_hash) {
        lo = probe + 1;
        break;
      }
      hi = probe;
    }
  }
  const auto first = entries_.begin() + static_cast<std::ptrdiff_t>(lo);
  const auto last = entries_.begin() + static_cast<std::ptrdiff_t>(std::min(hi + 1, n));
  const auto at = std::lower_bound(first, last, id_hash,
                                   [](const entry& e, std::uint64_t h) { return e.id_hash < h; });
  return at != entries_.end() && at->id_hash == id_hash ? at : entries_.end();
}

bool kind_digests::holds(std::uint64_t id_hash, const zelcore::properties& record) {
  const auto at = locate(id_hash);
  // The entry's copy keeps its content alive, and content that two trees share is never changed.
  if (at == entries_.end() || at->digest == 0 || !at->tree.shares_content_with(record))
    return false;
  const auto mark = seen_.begin() + (at - entries_.begin());
  if (*mark) return false;  // a second id with this hash: needs_write makes it "always write"
  *mark = true;
  return true;
}

bool kind_digests::needs_write(const record_digest& record, const zelcore::properties& tree) {
  const auto at = locate(record.id_hash);
  if (at == entries_.end()) {
    fresh_.push_back({record.id_hash, record.digest, tree});
    return true;
  }
  const auto mark = seen_.begin() + (at - entries_.begin());
  if (*mark) {  // a second id with this hash in the same save
    at->digest = 0;
    at->tree = zelcore::properties();
    return true;
  }
  *mark = true;
  if (at->digest == 0) return true;
  // Equal or not, the record's content is now what the store holds under the id.
  at->tree = tree;
  if (at->digest == record.digest) return false;
  at->digest = record.digest;
  return true;
}

std::vector<std::uint64_t> kind_digests::unseen() const {
  std::vector<std::uint64_t> out;
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    if (!seen_[i]) out.push_back(entries_[i].id_hash);
  }
  return out;
}

void kind_digests::commit_save() {
  // The order stays when the save stored every entry, and nothing else, in that order.
  const bool same_order = in_order_ && next_ == order_.size() && fresh_.empty();
  if (!same_order) leave_order();
  std::size_t kept = 0;
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    if (seen_[i]) entries_[kept++] = std::move(entries_[i]);
  }
  entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(kept), entries_.end());
  if (!fresh_.empty()) {
    sort_and_merge_twins(fresh_);
    const auto middle = entries_.insert(entries_.end(), std::make_move_iterator(fresh_.begin()),
                                        std::make_move_iterator(fresh_.end()));
    std::inplace_merge(entries_.begin(), middle, entries_.end(), by_id_hash<entry>);
    fresh_ = {};
  }
  // Between saves the entries hold no more than an eighth beyond what they need.
  if (entries_.capacity() > entries_.size() + entries_.size() / 8) entries_.shrink_to_fit();
  seen_.assign(entries_.size(), false);
  if (!same_order) remember_order();
  restart_order();
  known_ = true;
  if (stale_after_save_) forget();
}

std::size_t kind_digests::memory_bytes() const noexcept {
  return entries_.capacity() * sizeof(entry) + seen_.capacity() / 8 +
         order_.capacity() * sizeof(std::uint32_t);
}

void store_digests::forget() noexcept {
  for (kind_digests& kind : kinds_) kind.forget();
}

void store_digests::rebuild_empty() {
  for (kind_digests& kind : kinds_) kind.rebuild({});
}

void store_digests::commit_save() {
  for (kind_digests& kind : kinds_) kind.commit_save();
}

std::size_t store_digests::memory_bytes() const noexcept {
  std::size_t bytes = 0;
  for (const kind_digests& kind : kinds_) bytes += kind.memory_bytes();
  return bytes;
}

}  // namespace zelcapi::store_detail
