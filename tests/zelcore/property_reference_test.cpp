// Property references, leaves, set/create/remove at a reference, and the leaf-wise merge.
#include <gtest/gtest.h>

#include "zelbase/exceptions.h"
#include "zelcore/properties.h"

using zelcore::make_int;
using zelcore::make_string;
using zelcore::properties;
using zelcore::property_list;
using zelcore::property_ptr;

namespace {

properties tree(std::initializer_list<properties::entry> children) { return properties(children); }
property_ptr sub(std::initializer_list<properties::entry> children) {
  return property_ptr(new properties(children));
}
std::list<std::string> leaves(const properties& p) {
  std::list<std::string> out;
  p.get_leaf_references(out);
  return out;
}

}  // namespace

TEST(PropertyReference, LeavesOfANestedTreeInKeyOrder) {
  const properties p = tree(
      {{"b", make_int(1)}, {"a", sub({{"y", make_int(2)}, {"x", sub({{"z", make_int(3)}})}})}});
  EXPECT_EQ(leaves(p), (std::list<std::string>{"/a/x/z", "/a/y", "/b"}));
}

TEST(PropertyReference, ListIsOneLeafAndEmptyTreeHasNone) {
  zelbase::ptr_refcount<property_list> list(new property_list);
  list->push_back(make_int(1));
  list->push_back(make_int(2));
  const properties p = tree({{"l", list}, {"e", sub({})}, {"n", sub({{"e2", sub({})}})}});
  EXPECT_EQ(leaves(p), (std::list<std::string>{"/l"}));
  EXPECT_TRUE(leaves(properties(false)).empty());
}

TEST(PropertyReference, KeysWithSlashAndTildeAreEscaped) {
  const properties p = tree({{"a/b", sub({{"c~d", make_int(1)}})}, {"~", make_int(2)}});
  EXPECT_EQ(leaves(p), (std::list<std::string>{"/a~1b/c~0d", "/~0"}));
  for (const std::string& ref : leaves(p)) EXPECT_TRUE(p.get_referenced_property(ref)) << ref;
  EXPECT_EQ(zelcore::property_reference_escape("~1/"), "~01~1");
  EXPECT_EQ(zelcore::property_reference_split("/a~1b/c~0d"),
            (std::vector<std::string>{"a/b", "c~d"}));
  EXPECT_EQ(zelcore::property_reference_split("/"), (std::vector<std::string>{""}));
}

TEST(PropertyReference, MalformedReferencesRaise) {
  const properties p(false);
  try {
    p.get_referenced_property("a/b");
    FAIL() << "no error";
  } catch (const zelbase::es::arg& e) {
    EXPECT_STREQ(e.what(), "property reference 'a/b' does not start with '/'");
  }
  try {
    p.get_referenced_property("/a~2");
    FAIL() << "no error";
  } catch (const zelbase::es::arg& e) {
    EXPECT_STREQ(e.what(), "property reference '/a~2' has a '~' not followed by 0 or 1");
  }
  EXPECT_THROW(p.get_referenced_property("/a~"), zelbase::es::arg);
}

TEST(PropertyReference, GetFollowsKeysAndGivesNullWhereNothingIs) {
  const properties p = tree({{"a", sub({{"b", make_int(4)}})}, {"i", make_int(1)}});
  EXPECT_EQ(static_cast<const zelcore::property_int&>(*p.get_referenced_property("/a/b")).value(),
            4);
  EXPECT_EQ(p.get_referenced_property("/a")->kind(), zelcore::property::kind_properties);
  EXPECT_FALSE(p.get_referenced_property("/a/c"));
  EXPECT_FALSE(p.get_referenced_property("/i/x"));  // through a non-tree
  EXPECT_FALSE(p.get_referenced_property(""));
}

TEST(PropertyReference, SetReplacesExistingAndAddsInExistingParent) {
  properties p = tree({{"a", sub({{"b", make_int(4)}})}});
  p.set_referenced_property("/a/b", make_int(5));
  p.set_referenced_property("/a/c", make_string("x"));
  EXPECT_EQ(p.get_properties_value("a").get_int_value("b"), 5);
  EXPECT_EQ(p.get_properties_value("a").get_string_value("c"), "x");
}

TEST(PropertyReference, SetWithMissingParentRaisesAndChangesNothing) {
  properties p = tree({{"a", make_int(1)}});
  const properties before = p;
  try {
    p.set_referenced_property("/x/y", make_int(1));
    FAIL() << "no error";
  } catch (const zelbase::es::arg& e) {
    EXPECT_STREQ(e.what(), "property reference '/x/y' has no properties at 'x'");
  }
  EXPECT_THROW(p.set_referenced_property("/a/y", make_int(1)), zelbase::es::arg);
  EXPECT_TRUE(p == before);
}

TEST(PropertyReference, SettingNullRemovesTheKeyAndKeepsEmptyParents) {
  properties p = tree({{"a", sub({{"b", make_int(4)}})}, {"c", make_int(1)}});
  p.set_referenced_property("/a/b", property_ptr());
  EXPECT_TRUE(p.is_present("a"));
  EXPECT_TRUE(p.get_properties_value("a").empty());
  p.set_referenced_property("/c", property_ptr());
  EXPECT_FALSE(p.is_present("c"));
}

TEST(PropertyReference, RemovingUnderAMissingParentChangesNothing) {
  properties p = tree({{"a", make_int(1)}});
  const properties before = p;
  p.set_referenced_property("/x/y/z", property_ptr());
  p.set_referenced_property("/a/b", property_ptr());
  p.set_referenced_property("/absent", property_ptr());
  EXPECT_TRUE(p == before);
  EXPECT_FALSE(p.is_present("x"));
}

TEST(PropertyReference, CreateMakesMissingParentsAndReplacesNonTreeParents) {
  properties p = tree({{"i", make_int(1)}});
  p.set_create_referenced_property("/a/b/c", make_int(1));
  p.set_create_referenced_property("/i/x", make_int(2));
  EXPECT_EQ(p.get_properties_value("a").get_properties_value("b").get_int_value("c"), 1);
  EXPECT_EQ(p.get_properties_value("i").get_int_value("x"), 2);
}

TEST(PropertyReference, SettingThroughASharedChildDoesNotChangeOtherHolders) {
  properties original = tree({{"a", sub({{"b", make_int(1)}})}});
  const properties copy = original;
  const property_ptr child = original.get_property("a");
  original.set_referenced_property("/a/b", make_int(2));
  EXPECT_EQ(copy.get_properties_value("a").get_int_value("b"), 1);
  EXPECT_EQ(static_cast<const properties&>(*child).get_int_value("b"), 1);
  EXPECT_EQ(original.get_properties_value("a").get_int_value("b"), 2);
}

TEST(PropertyReference, SetOfTheRootRaises) {
  properties p(false);
  EXPECT_THROW(p.set_referenced_property("", make_int(1)), zelbase::es::arg);
}

// The merge must give exactly what storing every leaf of the update at its reference gives.
TEST(PropertyMerge, EqualsStoringEveryLeafAtItsReference) {
  const properties record = tree({{"a", make_int(1)},
                                  {"b", sub({{"x", make_int(1)}, {"y", make_int(2)}})},
                                  {"c", make_int(3)},
                                  {"d", sub({{"deep", sub({{"k", make_int(0)}})}})}});
  const properties update = tree({{"b", sub({{"y", make_int(20)}, {"z", make_int(30)}})},
                                  {"c", sub({{"now", make_string("tree")}})},
                                  {"d", sub({{"deep", sub({})}})},
                                  {"e", sub({{"f", sub({})}})},
                                  {"g", make_string("new")}});
  properties by_reference = record;
  std::list<std::string> refs;
  update.get_leaf_references(refs);
  for (const auto& ref : refs)
    by_reference.set_create_referenced_property(ref, update.get_referenced_property(ref));
  properties merged = record;
  merged.merge_leaves(update);
  EXPECT_TRUE(merged == by_reference) << merged.describe() << " vs " << by_reference.describe();
  EXPECT_FALSE(merged.is_present("e"));  // a subtree without leaves creates nothing
  EXPECT_EQ(merged.get_properties_value("b").get_int_value("x"), 1);
}

TEST(PropertyMerge, LeafReplacesAWholeSubtree) {
  properties record = tree({{"a", sub({{"x", make_int(1)}})}});
  record.merge_leaves(tree({{"a", make_int(7)}}));
  EXPECT_EQ(record.get_int_value("a"), 7);
}

TEST(PropertyMerge, SharesTheUpdatesChildren) {
  properties record(false);
  const properties update = tree({{"s", make_string("shared")}});
  record.merge_leaves(update);
  EXPECT_EQ(record.get_property("s").get(), update.get_property("s").get());
}

TEST(PropertyMerge, DoesNotChangeCopiesOfTheRecord) {
  properties record = tree({{"b", sub({{"x", make_int(1)}})}});
  const properties copy = record;
  record.merge_leaves(tree({{"b", sub({{"x", make_int(2)}})}}));
  EXPECT_EQ(copy.get_properties_value("b").get_int_value("x"), 1);
  EXPECT_EQ(record.get_properties_value("b").get_int_value("x"), 2);
}

TEST(PropertyMerge, ANewSubtreeTakesOnlyTheUpdatesLeaves) {
  properties record(false);
  const properties update =
      tree({{"b", sub({{"x", make_int(1)}, {"e", sub({})}, {"f", sub({{"g", sub({})}})}})}});
  record.merge_leaves(update);
  EXPECT_EQ(record.describe(), "{\"b\":{\"x\":1}}");
  EXPECT_EQ(record.get_properties_value("b").size(), 1u);
  EXPECT_EQ(update.get_properties_value("b").size(), 3u);
}
