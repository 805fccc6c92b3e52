#include "record_digests.h"

#include <xxhash.h>

#include <algorithm>

namespace zelcapi::store_detail {

namespace {

// The ids' hashes and the contents' digests are drawn with different seeds, so that two ids
// sharing a hash do not share digests of equal content.
constexpr XXH64_hash_t id_seed = 0x7a656c6964ULL;
constexpr XXH64_hash_t content_seed = 0x7a656c636fULL;

bool by_id_hash(const record_digest& a, const record_digest& b) noexcept {
  return a.id_hash < b.id_hash;
}

}  // namespace

std::uint64_t id_hash_of(std::string_view id) {
  return XXH3_64bits_withSeed(id.data(), id.size(), id_seed);
}

record_digest digest_of(std::string_view id, std::string_view content) {
  const XXH64_hash_t of_id = XXH3_64bits_withSeed(id.data(), id.size(), content_seed);
  std::uint64_t digest = XXH3_64bits_withSeed(content.data(), content.size(), of_id);
  if (digest == 0) digest = 1;  // 0 marks an entry to write always
  return {id_hash_of(id), digest};
}

void kind_digests::sort_and_merge_twins(std::vector<record_digest>& entries) {
  std::sort(entries.begin(), entries.end(), by_id_hash);
  auto out = entries.begin();
  for (auto in = entries.begin(); in != entries.end(); ++in) {
    if (out != entries.begin() && (out - 1)->id_hash == in->id_hash)
      (out - 1)->digest = 0;
    else
      *out++ = *in;
  }
  entries.erase(out, entries.end());
}

void kind_digests::rebuild(std::vector<record_digest> entries) {
  sort_and_merge_twins(entries);
  entries.shrink_to_fit();
  entries_ = std::move(entries);
  seen_.assign(entries_.size(), false);
  fresh_.clear();
  known_ = true;
  stale_after_save_ = false;
}

void kind_digests::forget() noexcept {
  known_ = false;
  stale_after_save_ = false;
  entries_ = {};
  seen_ = {};
  fresh_ = {};
}

std::vector<record_digest>::iterator kind_digests::find(std::uint64_t id_hash) {
  const auto at =
      std::lower_bound(entries_.begin(), entries_.end(), record_digest{id_hash, 0}, by_id_hash);
  return at != entries_.end() && at->id_hash == id_hash ? at : entries_.end();
}

bool kind_digests::needs_write(const record_digest& record) {
  const auto at = find(record.id_hash);
  if (at == entries_.end()) {
    fresh_.push_back(record);
    return true;
  }
  const auto mark = seen_.begin() + (at - entries_.begin());
  if (*mark) {  // a second id with this hash in the same save
    at->digest = 0;
    return true;
  }
  *mark = true;
  if (at->digest != 0 && at->digest == record.digest) return false;
  if (at->digest != 0) at->digest = record.digest;
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
  std::size_t kept = 0;
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    if (seen_[i]) entries_[kept++] = entries_[i];
  }
  entries_.resize(kept);
  if (!fresh_.empty()) {
    sort_and_merge_twins(fresh_);
    const auto middle = entries_.insert(entries_.end(), fresh_.begin(), fresh_.end());
    std::inplace_merge(entries_.begin(), middle, entries_.end(), by_id_hash);
    fresh_ = {};
  }
  // Between saves the entries hold no more than an eighth beyond what they need.
  if (entries_.capacity() > entries_.size() + entries_.size() / 8) entries_.shrink_to_fit();
  seen_.assign(entries_.size(), false);
  known_ = true;
  if (stale_after_save_) forget();
}

std::size_t kind_digests::memory_bytes() const noexcept {
  return entries_.capacity() * sizeof(record_digest) + seen_.capacity() / 8;
}

}  // namespace zelcapi::store_detail
