// The digests of what a store committed: which records a save writes, which it deletes, and how
// ids that share a hash are kept from being skipped.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "record_digests.h"
#include "zelbase/exceptions.h"

using zelcapi::store_detail::digest_of;
using zelcapi::store_detail::id_hash_of;
using zelcapi::store_detail::kind_digests;
using zelcapi::store_detail::record_digest;

namespace {

zelcore::properties text(const std::string& value) {
  return zelcore::properties{{"v", zelcore::make_string(value)}};
}

// Digests of records "r0".."r<n-1>" whose content is `content` followed by the record's number.
std::vector<record_digest> records(int n, const std::string& content = "v") {
  std::vector<record_digest> out;
  for (int i = 0; i < n; ++i)
    out.push_back(digest_of("r" + std::to_string(i), text(content + std::to_string(i))));
  return out;
}

int writes_of(kind_digests& digests, const std::vector<record_digest>& save) {
  int written = 0;
  for (const record_digest& r : save) written += digests.needs_write(r, zelcore::properties());
  return written;
}

}  // namespace

TEST(RecordDigests, DigestDependsOnIdAndContentAndIsNeverZero) {
  EXPECT_NE(digest_of("a", text("x")).digest, digest_of("b", text("x")).digest);
  EXPECT_NE(digest_of("a", text("x")).digest, digest_of("a", text("y")).digest);
  EXPECT_EQ(digest_of("a", text("x")).digest, digest_of("a", text("x")).digest);
  EXPECT_EQ(digest_of("a", text("x")).id_hash, id_hash_of("a"));
  EXPECT_NE(digest_of("", zelcore::properties()).digest, 0u);
}

TEST(RecordDigests, TreesThatDifferOnlyInShapeHaveDifferentDigests) {
  using zelcore::make_int;
  using zelcore::make_string;
  using zelcore::properties;
  auto list_of = [](std::initializer_list<zelcore::property_ptr> elements) {
    zelbase::ptr_refcount<zelcore::property_list> list(new zelcore::property_list);
    for (const auto& e : elements) list->push_back(e);
    return zelcore::property_ptr(list);
  };
  const std::vector<properties> trees{
      properties{{"a", make_string("bc")}},
      properties{{"ab", make_string("c")}},
      properties{{"a", make_int(1)}},
      properties{{"a", make_string("1")}},
      properties{{"a", zelcore::make_bool(true)}},
      properties{{"a", list_of({make_int(1), make_int(2)})}},
      properties{{"a", list_of({list_of({make_int(1)}), make_int(2)})}},
      properties{{"a", list_of({list_of({make_int(1), make_int(2)})})}},
      properties{{"a", zelcore::property_ptr(new properties{{"b", make_int(1)}})},
                 {"c", make_int(2)}},
      properties{
          {"a", zelcore::property_ptr(new properties{{"b", make_int(1)}, {"c", make_int(2)}})}},
      properties{{"a", make_string(std::string("x\0", 2))}},
      properties{{"a", make_string("x")}},
  };
  for (std::size_t i = 0; i < trees.size(); ++i) {
    for (std::size_t j = i + 1; j < trees.size(); ++j)
      EXPECT_NE(digest_of("id", trees[i]).digest, digest_of("id", trees[j]).digest)
          << trees[i].describe() << " and " << trees[j].describe();
  }
}

TEST(RecordDigests, TreeTooDeepToStoreIsRefused) {
  zelcore::properties deep{{"leaf", zelcore::make_int(1)}};
  for (int level = 0; level < 1100; ++level)
    deep = zelcore::properties{{"n", zelcore::property_ptr(new zelcore::properties(deep))}};
  EXPECT_THROW(digest_of("id", deep), zelbase::es::arg);
}

TEST(RecordDigests, UnknownUntilRebuiltAndAfterForget) {
  kind_digests digests;
  EXPECT_FALSE(digests.known());
  digests.rebuild(records(3));
  EXPECT_TRUE(digests.known());
  EXPECT_EQ(digests.size(), 3u);
  digests.forget();
  EXPECT_FALSE(digests.known());
  EXPECT_EQ(digests.size(), 0u);
}

TEST(RecordDigests, SaveWritesOnlyNewAndChangedRecords) {
  kind_digests digests;
  digests.rebuild(records(100));
  std::vector<record_digest> next = records(102);
  next[7] = digest_of("r7", text("changed"));
  next[50] = digest_of("r50", text("changed"));
  EXPECT_EQ(writes_of(digests, next), 4);  // two changed, two new
  EXPECT_TRUE(digests.unseen().empty());
  digests.commit_save();
  EXPECT_EQ(digests.size(), 102u);
  EXPECT_EQ(writes_of(digests, next), 0);
}

TEST(RecordDigests, RecordsMissingFromASaveAreTheUnseenOnes) {
  kind_digests digests;
  digests.rebuild(records(10));
  std::vector<record_digest> next = records(10);
  next.erase(next.begin() + 3);
  next.erase(next.begin() + 7);  // r8
  EXPECT_EQ(writes_of(digests, next), 0);
  std::vector<std::uint64_t> expected{id_hash_of("r3"), id_hash_of("r8")};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(digests.unseen(), expected);
  digests.commit_save();
  EXPECT_EQ(digests.size(), 8u);
  EXPECT_TRUE(digests.unseen().size() == 8u);  // a new save has seen nothing yet
}

TEST(RecordDigests, TwoIdsSharingAHashAreWrittenOnEverySave) {
  // Hashes of ids are 64 bits: a shared one is forced here by building the entries by hand.
  const record_digest a{42, 1001}, b{42, 2002};
  kind_digests digests;
  digests.rebuild({a});
  EXPECT_FALSE(digests.needs_write(a, zelcore::properties()));  // unchanged, skipped
  EXPECT_TRUE(
      digests.needs_write(b, zelcore::properties()));  // same hash seen twice in one save: written
  digests.commit_save();
  for (int save = 0; save < 3; ++save) {
    EXPECT_TRUE(digests.needs_write(a, zelcore::properties()));
    EXPECT_TRUE(digests.needs_write(b, zelcore::properties()));
    EXPECT_TRUE(digests.unseen().empty());
    digests.commit_save();
  }
  EXPECT_EQ(digests.size(), 1u);
}

TEST(RecordDigests, TwinsInTheFirstSaveAreWrittenAlwaysAfterIt) {
  kind_digests digests;
  digests.rebuild({});
  EXPECT_TRUE(digests.needs_write({7, 1}, zelcore::properties()));
  EXPECT_TRUE(digests.needs_write({7, 2}, zelcore::properties()));
  digests.commit_save();
  EXPECT_TRUE(digests.needs_write({7, 1}, zelcore::properties()));
  EXPECT_TRUE(digests.needs_write({7, 2}, zelcore::properties()));
}

TEST(RecordDigests, RebuildFromRowsSharingAHashWritesThemAlways) {
  kind_digests digests;
  digests.rebuild({{9, 5}, {9, 6}, {3, 4}});
  EXPECT_EQ(digests.size(), 2u);
  EXPECT_TRUE(digests.needs_write({9, 5}, zelcore::properties()));
  EXPECT_FALSE(digests.needs_write({3, 4}, zelcore::properties()));
}

TEST(RecordDigests, RemovalInASaveMakesTheDigestsUnknownAfterIt) {
  kind_digests digests;
  digests.rebuild(records(5));
  writes_of(digests, records(5));
  digests.removed();
  digests.commit_save();
  EXPECT_FALSE(digests.known());
}

TEST(RecordDigests, RecordHoldingTheCommittedContentIsSkippedUnread) {
  const zelcore::properties committed = text("a"), other = text("a");
  const record_digest d = digest_of("r", committed);
  kind_digests digests;
  digests.rebuild({});
  EXPECT_TRUE(digests.needs_write(d, committed));
  digests.commit_save();
  EXPECT_TRUE(digests.holds(d.id_hash, committed));
  digests.commit_save();
  // Equal content in another tree is not known unchanged without its digest, which then finds
  // it equal and takes its content for the next save.
  EXPECT_FALSE(digests.holds(d.id_hash, other));
  EXPECT_FALSE(digests.needs_write(d, other));
  digests.commit_save();
  EXPECT_FALSE(digests.holds(d.id_hash, committed));
  EXPECT_TRUE(digests.holds(d.id_hash, other));
  // A tree without content, and a record read back from the store, are never known by content.
  EXPECT_FALSE(digests.holds(d.id_hash, zelcore::properties()));
  digests.rebuild({d});
  EXPECT_FALSE(digests.holds(d.id_hash, other));
}

TEST(RecordDigests, EveryEntryOfALargeKindIsFoundAndNoOther) {
  kind_digests digests;
  digests.rebuild(records(50000));
  EXPECT_EQ(writes_of(digests, records(50000)), 0);
  EXPECT_TRUE(digests.unseen().empty());
  EXPECT_EQ(writes_of(digests, {digest_of("absent", text("x"))}), 1);
  for (const std::uint64_t edge : {std::uint64_t{0}, ~std::uint64_t{0}})
    EXPECT_TRUE(digests.needs_write({edge, 5}, zelcore::properties()));
}

TEST(RecordDigests, ContentIsNotTrustedForIdsSharingAHash) {
  const zelcore::properties a = text("a"), b = text("b");
  kind_digests digests;
  digests.rebuild({});
  EXPECT_TRUE(digests.needs_write({42, 1}, a));
  digests.commit_save();
  EXPECT_TRUE(digests.holds(42, a));
  EXPECT_TRUE(digests.needs_write({42, 2}, b));  // a second id with the same hash
  digests.commit_save();
  EXPECT_FALSE(digests.holds(42, a));
  EXPECT_TRUE(digests.needs_write({42, 1}, a));
}

TEST(RecordDigests, MemoryIsFortyFourBytesARecordBetweenSaves) {
  kind_digests digests;
  digests.rebuild({});
  const int n = 100000;
  writes_of(digests, records(n));
  digests.commit_save();
  const double per_record = static_cast<double>(digests.memory_bytes()) / n;
  EXPECT_LE(per_record, 44.2) << per_record << " bytes a record";
  std::printf("committed entries: %.1f bytes a record\n", per_record);
  RecordProperty("bytes_per_record", std::to_string(per_record));
}

// A save finds its entries first in the order of the last save's calls: records removed,
// added, changed or stored in another order are still found as their ids say.
TEST(RecordDigests, SavesInTheLastOrderOrInAnotherFindTheirEntries) {
  std::vector<zelcore::properties> trees;
  for (int i = 0; i < 40; ++i) trees.push_back(text("t" + std::to_string(i)));
  const auto id = [](int i) { return "r" + std::to_string(i); };
  kind_digests digests;
  digests.rebuild({});
  for (int i = 0; i < 40; ++i)
    EXPECT_TRUE(digests.needs_write(digest_of(id(i), trees[i]), trees[i]));
  digests.commit_save();

  // The same order, without r3, with a new r40 after r5 and r7 changed.
  const zelcore::properties changed = text("changed");
  for (int i = 0; i < 40; ++i) {
    if (i == 3) continue;
    if (i == 7) {
      EXPECT_FALSE(digests.holds(id_hash_of(id(i)), changed));
      EXPECT_TRUE(digests.needs_write(digest_of(id(i), changed), changed));
      continue;
    }
    EXPECT_TRUE(digests.holds(id_hash_of(id(i)), trees[i])) << id(i);
    if (i == 5) {
      EXPECT_FALSE(digests.holds(id_hash_of(id(40)), trees[0]));
      EXPECT_TRUE(digests.needs_write(digest_of(id(40), trees[0]), trees[0]));
    }
  }
  EXPECT_EQ(digests.unseen(), std::vector<std::uint64_t>{id_hash_of(id(3))});
  digests.commit_save();
  trees[7] = changed;
  trees[3] = trees[0];  // r40's content, stored under r40 below

  // The order of that save, then the reverse order: every record is known by its content.
  for (int round = 0; round < 2; ++round) {
    std::vector<int> order;
    for (int i = 0; i < 40; ++i) {
      if (i != 3) order.push_back(i);
      if (i == 5) order.push_back(40);
    }
    if (round == 1) std::reverse(order.begin(), order.end());
    for (const int i : order)
      EXPECT_TRUE(digests.holds(id_hash_of(id(i)), i == 40 ? trees[3] : trees[i])) << id(i);
    EXPECT_TRUE(digests.unseen().empty());
    digests.commit_save();
  }
}
