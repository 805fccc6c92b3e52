// What a store last committed, 44 bytes a record: a save compares each record with it, writes
// only the records that changed or are new, and deletes the records that it no longer holds.
//
// An entry is a 64-bit hash of the record's id, a 64-bit digest of its id and content, and a
// copy of the tree that the store last committed (empty after the entries were read back from
// the database). The copy shares the record's content, so a change to the record gives the
// record content of its own (copy on write): a record whose tree still shares the copy's very
// content has not changed and is skipped without either being read. Any other record is read
// for its digest, which decides. A save expects its records in the order of the last save's
// (4 bytes a record), and finds each entry there without a search. Two ids
// of one kind that share a hash make their entry "always write" (digest 0): the records are then
// written on every save, never skipped. A record is skipped only when its digest equals the one
// committed for its id, which a change misses with a chance of 2^-64.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "zelcapi/save_counts.h"
#include "zelcore/properties.h"

namespace zelcapi::store_detail {

struct record_digest {
  std::uint64_t id_hash;
  std::uint64_t digest;  // never 0 for a record; 0 marks an entry to write always
};

std::uint64_t id_hash_of(std::string_view id);
// Hashes the record's tree itself (keys, kinds and values, length-prefixed), which costs a
// fraction of writing its text: a save computes it for every record and writes few. Raises
// zelbase::es::arg for a tree nested deeper than the stores write.
record_digest digest_of(std::string_view id, const zelcore::properties& record);

// The committed entries of one kind of record and the save in progress over them. A save marks
// the entries it sees and updates their digests in place; a save that does not commit leaves the
// entries unknown, and the store rebuilds them from what it holds before the next save. A write
// outside a save makes them unknown as well.
class kind_digests {
 public:
  // Whether the entries describe what the store holds.
  bool known() const noexcept { return known_; }
  // Replaces the entries with those of the records the store holds (any order, ids distinct or
  // not) and makes them known.
  void rebuild(std::vector<record_digest> entries);
  // Makes the entries unknown: after a failed save, or a save begun while another was open.
  void forget() noexcept;

  // In a save: whether `record` holds the very content of the tree that the last committed save
  // wrote under the id of `id_hash` (told without reading either); such a record counts as seen
  // and is skipped.
  bool holds(std::uint64_t id_hash, const zelcore::properties& record);
  // In a save: whether the record must be written (new, changed, or sharing its id's hash);
  // remembers it as seen either way, with a copy of its tree (which shares its content).
  bool needs_write(const record_digest& record, const zelcore::properties& tree);
  // In a save: a record was removed by its id. Another id may share its hash, so the entries are
  // rebuilt after the save rather than trusted.
  void removed() noexcept { stale_after_save_ = true; }
  // In a save: the sorted id hashes of the committed records that the save has not seen, which
  // the store deletes before it commits.
  std::vector<std::uint64_t> unseen() const;
  // The save committed: the seen and new records become the entries.
  void commit_save();

  std::size_t size() const noexcept { return entries_.size(); }
  // Heap bytes held between saves (the entries' and the seen marks' capacity).
  std::size_t memory_bytes() const noexcept;

 private:
  struct entry {
    std::uint64_t id_hash;
    std::uint64_t digest;      // 0: write always
    zelcore::properties tree;  // shares the committed record's content
  };

  std::vector<entry>::iterator find(std::uint64_t id_hash);
  // In a save: the entry of `id_hash`, expected first where the last committed save's order of
  // calls puts it, whose next entries it fetches into cache ahead of their calls; else found by
  // its hash. Asked twice in a row for one hash (holds, then needs_write), it answers once.
  std::vector<entry>::iterator locate(std::uint64_t id_hash);
  // The save's calls no longer follow order_: they are kept as hashes from here on.
  void leave_order();
  // At the commit: the order of the save's calls as positions of the committed entries.
  void remember_order();
  // Before a save: its calls are expected from the first of order_ on.
  void restart_order() noexcept;
  static void sort_and_merge_twins(std::vector<entry>& entries);

  bool known_ = false;
  bool stale_after_save_ = false;
  std::vector<entry> entries_;  // sorted by id hash, hashes distinct
  std::vector<bool> seen_;      // one mark per entry, for the save in progress
  std::vector<entry> fresh_;    // records of the save with no entry yet

  // The positions of the entries in the order in which the last committed save stored them: a
  // save that stores the same ids in the same order finds each entry without a search, and
  // the entries of its next calls are already on their way into the cache.
  std::vector<std::uint32_t> order_;
  std::size_t next_ = 0;              // the save's next expected call, in order_
  bool in_order_ = true;              // every call of the save so far came as order_ expects
  std::vector<std::uint64_t> calls_;  // once out of order: the id hashes of the save's calls
  std::uint64_t located_hash_ = 0;    // the hash last located, and where
  std::size_t located_ = 0;
  bool located_known_ = false;
};

// The digests of the eight kinds of a state store and the counts of its save: the part of a
// save that the stores share around their own writes. Called under the store's write lock.
class store_digests {
 public:
  kind_digests& operator[](std::size_t kind) noexcept { return kinds_[kind]; }

  // Stores one record through `write` (which writes it): in a save, only a record new or
  // changed, compared before writing when the kind has entries to compare with (first by its
  // content, unread, then by its digest), or with its digest taken after the write, while its
  // tree is still in the cache, when every record is new; outside a save always, and the kind's
  // digests become unknown.
  template <class Write>
  void store(std::size_t kind, std::string_view id, const zelcore::properties& record, bool saving,
             Write&& write) {
    kind_digests& digests = kinds_[kind];
    const bool compare_first = saving && digests.size() != 0;
    if (compare_first) {
      if (digests.holds(id_hash_of(id), record)) {
        ++counts.unchanged;
        return;
      }
      ++counts.digested;
      if (!digests.needs_write(digest_of(id, record), record)) {
        ++counts.unchanged;
        return;
      }
    }
    write();
    if (!saving) {
      digests.forget();
      return;
    }
    if (!compare_first) {
      ++counts.digested;
      digests.needs_write(digest_of(id, record), record);
    }
    ++counts.written;
  }
  // A record of the kind was removed by its id, in a save or outside one.
  void removed(std::size_t kind, bool saving) noexcept {
    if (saving)
      kinds_[kind].removed();
    else
      kinds_[kind].forget();
  }
  // Every kind: unknown (after a failure), known and empty (the tables were emptied), or the
  // save's entries committed.
  void forget() noexcept;
  void rebuild_empty();
  void commit_save();
  std::size_t memory_bytes() const noexcept;

  save_counts counts;  // of the save in progress, or the last one

 private:
  std::array<kind_digests, 8> kinds_;
};

}  // namespace zelcapi::store_detail
