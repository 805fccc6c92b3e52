// Randomised checks of the property tree against simple models: the leaf-wise merge against
// storing every leaf at its reference, key operations against a std::map, and references with
// awkward keys ("/", "~", NUL bytes, long shared prefixes) against a map of key pairs.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <utility>
#include <vector>

#include "support/merge_by_reference.h"
#include "zelcore/properties.h"

using zelcore::make_bool;
using zelcore::make_int;
using zelcore::make_string;
using zelcore::properties;
using zelcore::property;
using zelcore::property_list;
using zelcore::property_ptr;
using zeltest::merged_by_reference;

namespace {

// Keys that stress escaping and the ordering shortcuts (equal first eight bytes, NUL bytes,
// one key the prefix of another).
const std::vector<std::string>& awkward_keys() {
  static const std::vector<std::string> keys = {"a",
                                                "b",
                                                "",
                                                "/",
                                                "~",
                                                "~1",
                                                "~0/",
                                                "a/b",
                                                "a~b",
                                                std::string("x\0y", 3),
                                                std::string("x\0", 2),
                                                "x",
                                                "prefix12",
                                                "prefix123",
                                                "prefix12345678a",
                                                "prefix12345678b",
                                                "prefix12345678",
                                                std::string("prefix12\0", 9),
                                                "\xff\xfe",
                                                "Z"};
  return keys;
}

class random_trees {
 public:
  explicit random_trees(unsigned seed) : random_(seed) {}

  std::size_t below(std::size_t n) {
    return std::uniform_int_distribution<std::size_t>(0, n - 1)(random_);
  }
  const std::string& key() { return awkward_keys()[below(awkward_keys().size())]; }

  property_ptr leaf() {
    switch (below(4)) {
      case 0: return make_int(static_cast<std::int64_t>(below(5)) - 2);
      case 1: return make_bool(below(2) == 1);
      case 2: return make_string(key());
      default: {
        zelbase::ptr_refcount<property_list> list(new property_list);
        for (std::size_t i = below(3); i > 0; --i) list->push_back(make_int(i));
        return list;
      }
    }
  }

  // A tree with empty subtrees, null slots and subtrees without leaves among its children.
  properties tree(int depth) {
    properties out(false);
    for (std::size_t n = below(5); n > 0; --n) {
      const std::string& k = key();
      const std::size_t pick = below(10);
      if (pick == 0)
        out[k];  // a null slot: an absent key
      else if (pick < 4 && depth > 0)
        out[k] = property_ptr(new properties(tree(depth - 1)));
      else
        out[k] = leaf();
    }
    return out;
  }

 private:
  std::mt19937 random_;
};

}  // namespace

TEST(PropertyTreeRandom, MergeEqualsStoringEveryLeafAtItsReference) {
  random_trees random(2024);
  for (int round = 0; round < 3000; ++round) {
    const properties record = random.tree(3);
    const properties update = random.tree(3);
    const std::string record_before = record.describe();
    const std::string update_before = update.describe();

    properties merged = record;
    merged.merge_leaves(update);
    const properties expected = merged_by_reference(record, update);

    ASSERT_TRUE(merged == expected)
        << "record " << record_before << "\nupdate " << update_before << "\nmerged "
        << merged.describe() << "\nexpected " << expected.describe();
    ASSERT_EQ(merged.describe(), expected.describe());
    // Neither the record's other copy nor the update is touched.
    ASSERT_EQ(record.describe(), record_before);
    ASSERT_EQ(update.describe(), update_before);

    // A record that owns all of its subtrees alone is merged in place: same result.
    const std::string bytes = zelcore::encode_property(record);
    properties owned = zelcore::decode_properties(bytes.data(), bytes.size());
    owned.merge_leaves(update);
    ASSERT_EQ(owned.describe(), expected.describe())
        << "record " << record_before << "\nupdate " << update_before;
  }
}

// Wide records, whose update keys lie far apart: the search goes past the nearby entries and
// halves the rest.
TEST(PropertyTreeRandom, MergeIntoWideRecordsEqualsStoringEveryLeafAtItsReference) {
  random_trees random(31);
  for (int round = 0; round < 300; ++round) {
    properties record(false);
    properties update(false);
    for (int i = 0; i < 200; ++i) {
      const std::string key = "field-" + std::to_string(i * 7 % 200);
      record[key] = random.leaf();
      if (random.below(20) == 0) update[key] = random.leaf();
      if (random.below(50) == 0)
        update[key + "-new"] = property_ptr(new properties(random.tree(2)));
      if (random.below(60) == 0) update[key] = property_ptr(new properties(random.tree(2)));
    }
    const properties expected = merged_by_reference(record, update);
    record.merge_leaves(update);
    ASSERT_TRUE(record == expected) << "round " << round;
  }
}

TEST(PropertyTreeRandom, MergeIntoARecordWhoseSubtreesAreSharedElsewhere) {
  random_trees random(77);
  for (int round = 0; round < 1000; ++round) {
    const properties base = random.tree(3);
    // Another tree holds the record's subtrees too: merging must detach, never write through.
    properties record(false);
    for (const auto& [key, value] : base) record[key] = value;
    const properties update = random.tree(3);
    const std::string base_before = base.describe();

    properties expected = merged_by_reference(record, update);
    record.merge_leaves(update);
    ASSERT_EQ(record.describe(), expected.describe());
    ASSERT_EQ(base.describe(), base_before);
  }
}

TEST(PropertyTreeRandom, KeyOperationsAgreeWithAStdMap) {
  random_trees random(99);
  std::map<std::string, std::int64_t> model;
  properties tree(false);
  // Copies taken along the way must keep their content while the original changes.
  std::vector<std::pair<std::map<std::string, std::int64_t>, properties>> snapshots;
  for (int step = 0; step < 20000; ++step) {
    const std::string& key = random.key();
    const auto value = static_cast<std::int64_t>(random.below(1000));
    switch (random.below(6)) {
      case 0:
        tree.set_int_value(key, value);
        model[key] = value;
        break;
      case 1:
        tree[key] = make_int(value);
        model[key] = value;
        break;
      case 2: ASSERT_EQ(tree.erase(key), model.erase(key) == 1) << step; break;
      case 3:
        ASSERT_EQ(tree.is_present(key), model.count(key) == 1) << step;
        ASSERT_EQ(tree.get_int_value(key, -1), model.count(key) ? model[key] : -1) << step;
        ASSERT_EQ(tree.find(key) != tree.end(), model.count(key) == 1) << step;
        break;
      case 4:
        if (snapshots.size() < 50) snapshots.emplace_back(model, tree);
        break;
      default:
        if (random.below(50) == 0) {
          tree.clear();
          model.clear();
        }
    }
    ASSERT_EQ(tree.size(), model.size()) << step;
  }
  snapshots.emplace_back(model, tree);
  for (const auto& [expected, copy] : snapshots) {
    std::vector<std::pair<std::string, std::int64_t>> got;
    for (const auto& [key, value] : copy)
      got.emplace_back(key, static_cast<const zelcore::property_int&>(*value).value());
    EXPECT_EQ(
        got, (std::vector<std::pair<std::string, std::int64_t>>(expected.begin(), expected.end())));
  }
}

TEST(PropertyTreeRandom, ReferencesWithAwkwardKeysAgreeWithAMapOfKeyPairs) {
  random_trees random(7);
  std::map<std::pair<std::string, std::string>, std::int64_t> model;
  properties tree(false);
  for (int step = 0; step < 5000; ++step) {
    const std::string outer = random.key();
    const std::string inner = random.key();
    const std::string ref = "/" + zelcore::property_reference_escape(outer) + "/" +
                            zelcore::property_reference_escape(inner);
    ASSERT_EQ(zelcore::property_reference_split(ref), (std::vector<std::string>{outer, inner}));
    const auto value = static_cast<std::int64_t>(random.below(1000));
    switch (random.below(3)) {
      case 0:
        tree.set_create_referenced_property(ref, make_int(value));
        model[{outer, inner}] = value;
        break;
      case 1:
        tree.set_referenced_property(ref, property_ptr());
        model.erase({outer, inner});
        break;
      default: {
        const property_ptr found = tree.get_referenced_property(ref);
        const auto it = model.find({outer, inner});
        ASSERT_EQ(static_cast<bool>(found), it != model.end()) << step;
        if (found) {
          ASSERT_EQ(static_cast<const zelcore::property_int&>(*found).value(), it->second);
        }
      }
    }
  }
  // One leaf reference per pair, in key order, each naming its value.
  std::list<std::string> refs;
  tree.get_leaf_references(refs);
  ASSERT_EQ(refs.size(), model.size());
  auto ref = refs.begin();
  for (const auto& [keys, value] : model) {
    EXPECT_EQ(*ref, "/" + zelcore::property_reference_escape(keys.first) + "/" +
                        zelcore::property_reference_escape(keys.second));
    EXPECT_EQ(
        static_cast<const zelcore::property_int&>(*tree.get_referenced_property(*ref)).value(),
        value);
    ++ref;
  }
}
