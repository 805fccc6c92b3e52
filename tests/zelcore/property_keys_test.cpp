// The compact representation of trees: keys shared through the process-wide key table (used
// from many threads at once), shared constants for common values and empty containers, and
// trees that outlive the thread or the arena that built them. Run under the sanitizers too.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "support/raised_message.h"
#include "zelbase/exceptions.h"
#include "zelcore/properties.h"

using zelcore::make_int;
using zelcore::properties;
using zelcore::property_ptr;

namespace {

// A job record of a few fields of each kind.
properties record(int n) {
  properties out;
  out.set_string_value("id", "job-" + std::to_string(n));
  out.set_int_value("status", n % 6);
  out.set_int_value("submit-time", 1763700000 + n);
  out.set_string_value("user", "operator");
  out.set_properties_value("progress", properties{{"done", make_int(n % 100)}});
  return out;
}

bool holds_record(const properties& p, int n) {
  return p.get_string_value("id") == "job-" + std::to_string(n) &&
         p.get_int_value("status") == n % 6 && p.get_int_value("submit-time") == 1763700000 + n &&
         p.get_string_value("user") == "operator" &&
         p.get_properties_value("progress").get_int_value("done") == n % 100;
}

// `count` records keyed by id, built key by key.
properties built_snapshot(int count) {
  properties all(false);
  for (int n = 0; n < count; ++n) all.set_properties_value("job-" + std::to_string(n), record(n));
  return all;
}

// The same as a snapshot: large enough to be built in an arena.
std::string snapshot_bytes(int count) { return zelcore::encode_property(built_snapshot(count)); }

}  // namespace

TEST(PropertyKeys, KeysReadAsTheirTextInOrder) {
  const properties p{{"b", make_int(2)}, {"a", make_int(1)}, {"a/~", make_int(3)}};
  std::vector<std::string> keys;
  for (const auto& [key, value] : p) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<std::string>{"a", "a/~", "b"}));
  EXPECT_EQ(p.begin()->first, "a");
  EXPECT_EQ((p.begin() + 2)->first, "b");
  EXPECT_EQ(p.end() - p.begin(), 3);
}

TEST(PropertyKeys, ManyThreadsInternTheSameAndTheirOwnKeysAtOnce) {
  constexpr int threads = 8;
  constexpr int rounds = 300;
  std::vector<std::thread> workers;
  std::vector<int> failures(threads, 0);
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([t, &failures] {
      for (int i = 0; i < rounds; ++i) {
        // Shared keys ("id", "status", ...) and keys of this thread only, built, decoded,
        // copied, changed and dropped while the other threads do the same.
        properties mine = record(i);
        mine.set_int_value("thread-" + std::to_string(t) + "-" + std::to_string(i), i);
        const std::string bytes = zelcore::encode_property(mine);
        properties back = zelcore::decode_properties(bytes.data(), bytes.size());
        properties copy = back;
        copy.set_int_value("status", 99);
        if (!holds_record(back, i) || copy.get_int_value("status") != 99 ||
            back.get_int_value("thread-" + std::to_string(t) + "-" + std::to_string(i)) != i ||
            !(back == mine))
          ++failures[t];
      }
    });
  }
  for (std::thread& w : workers) w.join();
  for (int t = 0; t < threads; ++t) EXPECT_EQ(failures[t], 0) << "thread " << t;
}

TEST(PropertyKeys, AKeyDroppedByEveryTreeIsMadeAgainWhenUsed) {
  // Keys that no tree holds any more leave the table; a new tree with the same key reads it.
  for (int round = 0; round < 3; ++round) {
    std::vector<properties> trees;
    for (int i = 0; i < 1000; ++i) {
      properties p(false);
      p.set_int_value("transient-key-" + std::to_string(i), i);
      trees.push_back(p);
    }
    for (int i = 0; i < 1000; ++i)
      ASSERT_EQ(
          trees[static_cast<std::size_t>(i)].get_int_value("transient-key-" + std::to_string(i)),
          i);
  }
}

TEST(PropertyKeys, SharedEmptyTreeChangedOnOneSideOnly) {
  // Every empty map decodes to the same constant tree: a change through one record stores a
  // new child there and leaves the others (and later decodes) empty.
  const std::string bytes = zelcore::encode_property(
      properties{{"a", property_ptr(new properties())}, {"b", property_ptr(new properties())}});
  properties first = zelcore::decode_properties(bytes.data(), bytes.size());
  properties second = zelcore::decode_properties(bytes.data(), bytes.size());
  EXPECT_EQ(first.get_property("a").get(), second.get_property("b").get());
  first.set_create_referenced_property("/a/x", make_int(1));
  first.merge_leaves(properties{{"b", property_ptr(new properties{{"y", make_int(2)}})}});
  EXPECT_EQ(first.get_properties_value("a").get_int_value("x"), 1);
  EXPECT_EQ(first.get_properties_value("b").get_int_value("y"), 2);
  EXPECT_TRUE(second.get_properties_value("a").empty());
  EXPECT_TRUE(second.get_properties_value("b").empty());
  const properties third = zelcore::decode_properties(bytes.data(), bytes.size());
  EXPECT_TRUE(third.get_properties_value("a").empty());
}

TEST(PropertyKeys, DecodedRecordsShareValuesUntilOneChanges) {
  const std::string bytes = zelcore::encode_property(record(7));
  const properties original = zelcore::decode_properties(bytes.data(), bytes.size());
  properties changed = original;
  changed.set_create_referenced_property("/progress/done", make_int(100));
  changed.set_string_value("user", "someone else");
  EXPECT_TRUE(holds_record(original, 7));
  EXPECT_EQ(changed.get_properties_value("progress").get_int_value("done"), 100);
  EXPECT_EQ(changed.get_string_value("user"), "someone else");
  EXPECT_EQ(changed.get_string_value("id"), "job-7");
}

TEST(PropertyKeys, TreesOutliveTheThreadAndTheArenaThatBuiltThem) {
  const std::string bytes = snapshot_bytes(2000);
  ASSERT_GT(bytes.size(), std::size_t{64} << 10);  // built in an arena of several chunks
  properties snapshot;
  properties one_record;
  std::thread([&] {
    snapshot = zelcore::decode_properties(bytes.data(), bytes.size());
    one_record = snapshot.get_properties_value("job-250");
  }).join();
  // The building thread and its key cache are gone; the snapshot is released record by record
  // here and one record outlives it.
  for (int n = 0; n < 2000; ++n)
    ASSERT_TRUE(holds_record(snapshot.get_properties_value("job-" + std::to_string(n)), n)) << n;
  snapshot.clear();
  EXPECT_TRUE(holds_record(one_record, 250));
  EXPECT_EQ(zelcore::encode_property(one_record), zelcore::encode_property(record(250)));
}

TEST(PropertyKeys, SharedIntegersEndAtTheirBoundaries) {
  // -128 and 1023 are the process's constants; the values just outside are objects of their
  // own. Both read back the same way.
  for (const std::int64_t v : {std::int64_t{-129}, std::int64_t{-128}, std::int64_t{1023},
                               std::int64_t{1024}, INT64_MIN, INT64_MAX}) {
    properties p(false);
    p.set_int_value("v", v);
    const std::string bytes = zelcore::encode_property(p);
    const properties back = zelcore::decode_properties(bytes.data(), bytes.size());
    EXPECT_EQ(back.get_int_value("v"), v);
  }
  EXPECT_EQ(make_int(-128).get(), make_int(-128).get());
  EXPECT_EQ(make_int(1023).get(), make_int(1023).get());
  EXPECT_NE(make_int(-129).get(), make_int(-129).get());
  EXPECT_NE(make_int(1024).get(), make_int(1024).get());
}

TEST(PropertyKeys, SharedStringsEndAtTwoBytes) {
  for (int b = 0; b < 256; ++b) {
    const std::string text(1, static_cast<char>(b));
    const std::string bytes = zelcore::encode_property(*zelcore::make_string(text));
    const property_ptr back = zelcore::decode_property(bytes.data(), bytes.size());
    ASSERT_EQ(back.get(), zelcore::make_string(text).get()) << b;
    ASSERT_EQ(static_cast<const zelcore::property_string&>(*back).value(), text) << b;
  }
  EXPECT_EQ(zelcore::make_string("").get(), zelcore::make_string(std::string()).get());
  EXPECT_EQ(static_cast<const zelcore::property_string&>(*zelcore::make_string("")).value(), "");
  // Two-byte strings are constants too, made at their first use; three bytes are not.
  const property_ptr two = zelcore::make_string("ab");
  EXPECT_EQ(two.get(), zelcore::make_string("ab").get());
  EXPECT_EQ(static_cast<const zelcore::property_string&>(*two).value(), "ab");
  const property_ptr three = zelcore::make_string("abc");
  EXPECT_NE(three.get(), zelcore::make_string("abc").get());
  EXPECT_EQ(static_cast<const zelcore::property_string&>(*three).value(), "abc");
}

TEST(PropertyKeys, ASnapshotCutAtEveryByteRaisesTheDecodersError) {
  const std::string bytes = snapshot_bytes(100);
  for (std::size_t cut = 0; cut < bytes.size(); ++cut) {
    const std::string message = zeltest::raised_message<zelbase::es::arg>(
        [&] { zelcore::decode_property(bytes.data(), cut); });
    const std::string expected = cut == 0 ? "cannot decode property: input is empty"
                                          : "cannot decode property: input truncated at byte ";
    ASSERT_EQ(message.rfind(expected, 0), 0u) << "cut at " << cut << ": " << message;
  }
}

TEST(PropertyKeys, ThreadsMakingTheSameTwoByteStringsGetOneConstant) {
  constexpr int threads = 4;
  std::vector<std::vector<const zelcore::property*>> made(threads);
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([t, &made] {
      for (int b = 0; b < 256; ++b) {
        const std::string text{'\x7f', static_cast<char>(b)};
        made[static_cast<std::size_t>(t)].push_back(zelcore::make_string(text).get());
      }
    });
  }
  for (std::thread& w : workers) w.join();
  for (int t = 1; t < threads; ++t) EXPECT_EQ(made[0], made[static_cast<std::size_t>(t)]);
  for (int b = 0; b < 256; ++b)
    EXPECT_EQ(
        static_cast<const zelcore::property_string&>(*made[0][static_cast<std::size_t>(b)]).value(),
        (std::string{'\x7f', static_cast<char>(b)}));
}

// The keys of a large map in a large input (a snapshot's ids) are nodes of the decode's own,
// out of the table; the same keys made elsewhere are the table's. The two must meet as one key.
namespace {

// A map of the records `ids` (in that order, repeats kept) as the peer would write it.
std::string map_bytes(const std::vector<int>& ids, const std::vector<int>& values) {
  std::string out{'\xde', static_cast<char>(ids.size() >> 8), static_cast<char>(ids.size())};
  for (std::size_t i = 0; i < ids.size(); ++i) {
    const std::string key = "job-" + std::to_string(ids[i]);
    out += static_cast<char>(0xa0 | key.size());
    out += key;
    out += zelcore::encode_property(record(values[i]));
  }
  return out;
}

}  // namespace

TEST(PropertyKeys, ALargeDecodeEqualsTheSameTreeBuiltKeyByKey) {
  const std::string bytes = snapshot_bytes(2000);
  const properties decoded = zelcore::decode_properties(bytes.data(), bytes.size());
  const properties built = built_snapshot(2000);
  EXPECT_TRUE(decoded == built);
  EXPECT_TRUE(built == decoded);
  EXPECT_FALSE(decoded < built);
  EXPECT_FALSE(built < decoded);
  properties other = built_snapshot(2000);
  other.set_properties_value("job-1999", record(5));
  EXPECT_FALSE(decoded == other);
  EXPECT_TRUE(decoded < other || other < decoded);
}

TEST(PropertyKeys, ChangesByKeyReachTheRecordsOfALargeDecodeWithoutAddingKeys) {
  const std::string bytes = snapshot_bytes(2000);
  properties decoded = zelcore::decode_properties(bytes.data(), bytes.size());
  decoded.merge_leaves(
      properties{{"job-250", property_ptr(new properties{{"status", make_int(99)}})}});
  decoded.set_properties_value("job-7", record(8));
  EXPECT_TRUE(decoded.erase("job-9"));
  decoded.set_create_referenced_property("/job-11/progress/done", make_int(42));
  EXPECT_EQ(decoded.size(), 1999u);
  const properties& changed = decoded.get_properties_value("job-250");
  EXPECT_EQ(changed.get_int_value("status"), 99);
  EXPECT_EQ(changed.get_string_value("id"), "job-250");
  EXPECT_TRUE(holds_record(decoded.get_properties_value("job-7"), 8));
  EXPECT_FALSE(decoded.is_present("job-9"));
  EXPECT_EQ(
      decoded.get_properties_value("job-11").get_properties_value("progress").get_int_value("done"),
      42);
  properties expected = built_snapshot(2000);
  expected.merge_leaves(
      properties{{"job-250", property_ptr(new properties{{"status", make_int(99)}})}});
  expected.set_properties_value("job-7", record(8));
  expected.erase("job-9");
  expected.set_create_referenced_property("/job-11/progress/done", make_int(42));
  EXPECT_TRUE(decoded == expected);
}

TEST(PropertyKeys, ARepeatedIdInALargeUnorderedMapKeepsItsLastRecord) {
  std::vector<int> ids, values;
  for (int n = 399; n >= 0; --n) ids.push_back(n), values.push_back(n);
  ids.push_back(5), values.push_back(77);
  ids.push_back(300), values.push_back(78);
  const std::string bytes = map_bytes(ids, values);
  ASSERT_GE(bytes.size(), std::size_t{16} << 10);  // large enough to be built in an arena
  const properties decoded = zelcore::decode_properties(bytes.data(), bytes.size());
  EXPECT_EQ(decoded.size(), 400u);
  EXPECT_TRUE(holds_record(decoded.get_properties_value("job-5"), 77));
  EXPECT_TRUE(holds_record(decoded.get_properties_value("job-300"), 78));
  EXPECT_TRUE(holds_record(decoded.get_properties_value("job-6"), 6));
  std::vector<std::string> keys;
  for (const auto& [key, value] : decoded) keys.push_back(key);
  EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end()));
  EXPECT_EQ(std::adjacent_find(keys.begin(), keys.end()), keys.end());
}
