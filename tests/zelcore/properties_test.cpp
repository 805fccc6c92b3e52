// The property tree: kinds, sharing on copy, accessors and their errors, comparison and text.
#include <gtest/gtest.h>

#include <list>
#include <map>
#include <type_traits>
#include <utility>

#include "zelbase/exceptions.h"
#include "zelcore/properties.h"

using zelcore::make_bool;
using zelcore::make_int;
using zelcore::make_string;
using zelcore::properties;
using zelcore::property;
using zelcore::property_int;
using zelcore::property_list;
using zelcore::property_ptr;
using zelcore::property_string;

namespace {

std::string error_text(const std::function<void()>& f) {
  try {
    f();
  } catch (const zelbase::es::base& e) {
    return e.what();
  }
  return "no error";
}

properties sample() {
  properties p(false);
  p.set_int_value("int", -5);
  p.set_bool_value("bool", true);
  p.set_string_value("string", "text");
  zelbase::ptr_refcount<property_list> list(new property_list);
  list->push_back(make_int(1));
  list->push_back(make_string("two"));
  p["list"] = list;
  properties nested(false);
  nested.set_int_value("x", 2);
  p.set_properties_value("nested", nested);
  return p;
}

}  // namespace

TEST(Properties, EveryKindReportsItsKind) {
  const properties p = sample();
  EXPECT_EQ(p.get_property("int")->kind(), property::kind_int);
  EXPECT_EQ(p.get_property("bool")->kind(), property::kind_bool);
  EXPECT_EQ(p.get_property("string")->kind(), property::kind_string);
  EXPECT_EQ(p.get_property("list")->kind(), property::kind_list);
  EXPECT_EQ(p.get_property("nested")->kind(), property::kind_properties);
  EXPECT_EQ(p.kind(), property::kind_properties);
}

TEST(Properties, IterationIsInAscendingKeyOrder) {
  properties p(false);
  for (const char* key : {"delta", "alpha", "charlie", "bravo", "Zulu", "alpha2"})
    p.set_string_value(key, key);
  std::vector<std::string> keys;
  for (const auto& [key, value] : p) keys.push_back(key);
  EXPECT_EQ(keys,
            (std::vector<std::string>{"Zulu", "alpha", "alpha2", "bravo", "charlie", "delta"}));
}

TEST(Properties, OperatorBracketCreatesANullSlotThatIsNotPresent) {
  properties p(false);
  property_ptr& slot = p["k"];
  EXPECT_FALSE(slot);
  EXPECT_EQ(p.size(), 1u);
  EXPECT_FALSE(p.is_present("k"));
  p["k"] = make_int(3);
  EXPECT_TRUE(p.is_present("k"));
  EXPECT_EQ(p.get_int_value("k"), 3);
}

TEST(Properties, AssigningIntoASlotReplacesTheChild) {
  properties p(false);
  p["k"] = make_string("a");
  p["k"] = make_int(7);
  EXPECT_EQ(p.size(), 1u);
  EXPECT_EQ(p.get_int_value("k"), 7);
}

TEST(Properties, MapConstructorMakesOneStringPerPair) {
  const properties p(std::map<std::string, std::string>{{"b", "2"}, {"a", "1"}});
  EXPECT_EQ(p.size(), 2u);
  EXPECT_EQ(p.get_string_value("a"), "1");
  EXPECT_EQ(p.get_string_value("b"), "2");
}

TEST(Properties, AStringListKeepsItsOrder) {
  const zelcore::property_ptr list = zelcore::make_string_list({"b", "", "a long string"});
  ASSERT_EQ(list->kind(), zelcore::property::kind_list);
  std::vector<std::string> texts;
  for (const zelcore::property_ptr& e : static_cast<const zelcore::property_list&>(*list).value())
    texts.push_back(static_cast<const zelcore::property_string&>(*e).value());
  EXPECT_EQ(texts, (std::vector<std::string>{"b", "", "a long string"}));
  EXPECT_TRUE(
      static_cast<const zelcore::property_list&>(*zelcore::make_string_list({})).value().empty());
}

TEST(Properties, CopySharesChildrenAndDetachesOnChange) {
  properties a = sample();
  properties b = a;
  EXPECT_EQ(a.get_property("nested").get(), b.get_property("nested").get());
  b.set_int_value("int", 99);
  EXPECT_EQ(a.get_int_value("int"), -5);
  EXPECT_EQ(b.get_int_value("int"), 99);
  // The untouched children are still the same objects.
  EXPECT_EQ(a.get_property("nested").get(), b.get_property("nested").get());
}

TEST(Properties, CopyAssignmentReplacesTheWholeContent) {
  properties a = sample();
  properties b(false);
  b.set_int_value("only", 1);
  b = a;
  EXPECT_FALSE(b.is_present("only"));
  EXPECT_TRUE(b == a);
}

TEST(Properties, ChildrenOutliveTheTreeThatHeldThem) {
  property_ptr kept;
  {
    properties p = sample();
    kept = p.get_property("nested");
  }
  EXPECT_EQ(static_cast<const properties&>(*kept).get_int_value("x"), 2);
}

TEST(Properties, CloneIsADeepCopyThatSharesNothing) {
  const properties p = sample();
  const auto copy = p.clone();
  const auto& tree = static_cast<const properties&>(*copy);
  EXPECT_TRUE(tree == p);
  EXPECT_NE(tree.get_property("nested").get(), p.get_property("nested").get());
  EXPECT_NE(tree.get_property("string").get(), p.get_property("string").get());
}

TEST(Properties, GetListValueGivesAStdListOfSharedConstantProperties) {
  static_assert(std::is_same_v<decltype(std::declval<const properties&>().get_list_value("")),
                               const std::list<zelbase::ptr_refcount<const zelcore::property>>&>);
  properties p;
  const zelcore::property_ptr first = zelcore::make_int(1);
  zelcore::property_list::list_type elements{first, zelcore::make_string("two")};
  p["list"] = zelcore::property_ptr(new zelcore::property_list(std::move(elements)));
  const std::list<zelbase::ptr_refcount<const zelcore::property>>& list = p.get_list_value("list");
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list.front().get(), first.get());  // shared, not copied
  EXPECT_EQ(list.back()->to_string(), "two");
}

TEST(Properties, AccessorsReturnStoredValues) {
  const properties p = sample();
  EXPECT_EQ(p.get_int_value("int"), -5);
  EXPECT_TRUE(p.get_bool_value("bool"));
  EXPECT_EQ(p.get_string_value("string"), "text");
  EXPECT_EQ(p.get_list_value("list").size(), 2u);
  EXPECT_EQ(p.get_properties_value("nested").get_int_value("x"), 2);
  ASSERT_NE(p.get_properties_value_ptr("nested"), nullptr);
  EXPECT_EQ(p.get_properties_value_ptr("nested")->get_int_value("x"), 2);
}

TEST(Properties, AccessorsWithDefaultGiveTheDefaultForMissingKeys) {
  const properties p = sample();
  const std::string fallback = "fallback";
  const properties empty(false);
  EXPECT_EQ(p.get_int_value("none", 1), 1);
  EXPECT_EQ(p.get_bool_value("none", true), true);
  EXPECT_EQ(&p.get_string_value("none", fallback), &fallback);
  EXPECT_EQ(&p.get_properties_value("none", empty), &empty);
  EXPECT_EQ(p.get_properties_value_ptr("none"), nullptr);
  EXPECT_EQ(p.get_property("none").get(), nullptr);
}

TEST(Properties, AccessorsWithDefaultGiveTheValueWhenPresent) {
  const properties p = sample();
  EXPECT_EQ(p.get_int_value("int", 1), -5);
  EXPECT_EQ(p.get_string_value("string", "x"), "text");
  EXPECT_FALSE(p.get_bool_value("bool", false) == false);
}

TEST(Properties, TemporaryStringDefaultOutlivesTheCall) {
  const properties p = sample();
  // Bound to a reference, the way a caller naturally writes it: the default must still be
  // there after the full expression (AddressSanitizer reports the read otherwise).
  const std::string& missing = p.get_string_value("none", std::string(40, 'd'));
  const std::string& present = p.get_string_value("string", "");
  EXPECT_EQ(missing, std::string(40, 'd'));
  EXPECT_EQ(present, "text");
  const std::string named = "named";
  EXPECT_EQ(&p.get_string_value("none", named), &named);
}

TEST(Properties, MissingKeyRaisesAnErrorNamingTheKey) {
  const properties p = sample();
  EXPECT_EQ(error_text([&] { p.get_int_value("absent"); }), "property 'absent' is missing");
  EXPECT_EQ(error_text([&] { p.get_string_value("absent"); }), "property 'absent' is missing");
  EXPECT_EQ(error_text([&] { p.get_bool_value("absent"); }), "property 'absent' is missing");
  EXPECT_EQ(error_text([&] { p.get_properties_value("absent"); }), "property 'absent' is missing");
  EXPECT_EQ(error_text([&] { p.get_list_value("absent"); }), "property 'absent' is missing");
  EXPECT_THROW(p.get_int_value("absent"), zelbase::es::arg);
}

TEST(Properties, WrongKindRaisesAnErrorNamingKeyAndKinds) {
  const properties p = sample();
  EXPECT_EQ(error_text([&] { p.get_int_value("string"); }),
            "property 'string' is a string, not a int");
  EXPECT_EQ(error_text([&] { p.get_string_value("int"); }),
            "property 'int' is a int, not a string");
  EXPECT_EQ(error_text([&] { p.get_bool_value("list"); }), "property 'list' is a list, not a bool");
  EXPECT_EQ(error_text([&] { p.get_properties_value("bool"); }),
            "property 'bool' is a bool, not a properties");
  EXPECT_EQ(error_text([&] { p.get_list_value("nested"); }),
            "property 'nested' is a properties, not a list");
  // The default does not hide a wrong kind.
  EXPECT_EQ(error_text([&] { p.get_int_value("string", 0); }),
            "property 'string' is a string, not a int");
  EXPECT_EQ(error_text([&] { p.get_properties_value_ptr("int"); }),
            "property 'int' is a int, not a properties");
}

TEST(Properties, EraseRemovesOnlyThatKey) {
  properties p = sample();
  EXPECT_TRUE(p.erase("int"));
  EXPECT_FALSE(p.erase("int"));
  EXPECT_FALSE(p.is_present("int"));
  EXPECT_TRUE(p.is_present("bool"));
}

TEST(Properties, EqualityComparesKeysAndValuesDeeply) {
  properties a = sample();
  properties b = sample();
  EXPECT_TRUE(a == b);
  b.set_properties_value("nested", properties{{"x", make_int(3)}});
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(a != b);
  // Null slots count as absent keys.
  properties c = sample();
  c["ghost"];
  EXPECT_TRUE(a == c);
  EXPECT_FALSE(a == property_int(1));
}

TEST(Properties, OrderIsByKindThenValue) {
  EXPECT_TRUE(property_int(5) < property_int(6));
  EXPECT_FALSE(property_int(6) < property_int(5));
  EXPECT_TRUE(property_int(100) < *make_bool(false));  // int kind before bool kind
  EXPECT_TRUE(*make_bool(false) < *make_bool(true));
  EXPECT_TRUE(property_string("a") < property_string("b"));
  const properties small{{"a", make_int(1)}};
  const properties large{{"a", make_int(2)}};
  const properties longer{{"a", make_int(1)}, {"b", make_int(0)}};
  EXPECT_TRUE(small < large);
  EXPECT_TRUE(small < longer);
  EXPECT_FALSE(longer < small);
  EXPECT_FALSE(small < small);
}

TEST(Properties, ListsCompareElementWise) {
  property_list a, b;
  a.push_back(make_int(1));
  b.push_back(make_int(1));
  EXPECT_TRUE(a == b);
  b.push_back(make_int(0));
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(a < b);
}

TEST(Properties, ListCopyConstructorSharesElementsAndAcceptsNull) {
  zelbase::ptr_refcount<property_list> original(new property_list);
  original->push_back(make_string("x"));
  const property_list copy{zelbase::ptr_refcount<const property_list>(original)};
  ASSERT_EQ(copy.value().size(), 1u);
  EXPECT_EQ(copy.value().front().get(), original->value().front().get());
  const property_list empty{zelbase::ptr_refcount<const property_list>()};
  EXPECT_TRUE(empty.value().empty());
}

TEST(Properties, TextForms) {
  EXPECT_EQ(property_int(-3).to_string(), "-3");
  EXPECT_EQ(make_bool(true)->to_string(), "true");
  EXPECT_EQ(property_string("a\"b").to_string(), "a\"b");
  EXPECT_EQ(property_string("a\"b\n").describe(), "\"a\\\"b\\n\"");
  EXPECT_EQ(sample().describe(),
            "{\"bool\":true,\"int\":-5,\"list\":[1,\"two\"],\"nested\":{\"x\":2},"
            "\"string\":\"text\"}");
}

TEST(Properties, SharedConstantsAreReusedForCommonValues) {
  EXPECT_EQ(make_bool(true).get(), make_bool(true).get());
  EXPECT_EQ(make_int(7).get(), make_int(7).get());
  EXPECT_NE(make_int(1 << 20).get(), make_int(1 << 20).get());
  EXPECT_EQ(static_cast<const property_int&>(*make_int(1 << 20)).value(), 1 << 20);
}

TEST(Properties, InitializerListKeepsTheLastOfEqualKeys) {
  const properties p{{"b", make_int(1)}, {"a", make_int(2)}, {"b", make_int(3)}};
  EXPECT_EQ(p.size(), 2u);
  EXPECT_EQ(p.get_int_value("b"), 3);
  EXPECT_EQ(p.begin()->first, "a");
}

TEST(Properties, AccessorsWithDefaultGiveTheStoredTreeAndBoolWhenPresent) {
  const properties p = sample();
  const properties fallback{{"fallback", make_int(1)}};
  EXPECT_EQ(&p.get_properties_value("nested", fallback), &p.get_properties_value("nested"));
  EXPECT_EQ(p.get_properties_value("nested", fallback).get_int_value("x"), 2);
  EXPECT_FALSE(p.get_bool_value("bool", false) == false);
  properties f(false);
  f.set_bool_value("off", false);
  EXPECT_FALSE(f.get_bool_value("off", true));
  EXPECT_FALSE(f.get_bool_value("off"));
}

TEST(Properties, ANullSlotIsMissingForEveryAccessor) {
  properties p(false);
  p["ghost"];
  const std::string fallback = "fallback";
  const properties empty(false);
  EXPECT_EQ(error_text([&] { p.get_int_value("ghost"); }), "property 'ghost' is missing");
  EXPECT_EQ(error_text([&] { p.get_list_value("ghost"); }), "property 'ghost' is missing");
  EXPECT_EQ(p.get_int_value("ghost", 4), 4);
  EXPECT_EQ(&p.get_string_value("ghost", fallback), &fallback);
  EXPECT_EQ(&p.get_properties_value("ghost", empty), &empty);
  EXPECT_EQ(p.get_properties_value_ptr("ghost"), nullptr);
  EXPECT_FALSE(p.is_present("ghost"));
  EXPECT_EQ(p.describe(), "{}");
}

TEST(Properties, ConstructorsOfAnEmptyTree) {
  EXPECT_TRUE(properties(false).empty());
  EXPECT_TRUE(properties(true).empty());
  EXPECT_TRUE(properties(std::map<std::string, std::string>{}).empty());
  EXPECT_EQ(properties(false).describe(), "{}");
}

TEST(Properties, CopyIsIndependentOfTheSourceInBothDirections) {
  properties a = sample();
  const properties b(a);
  a["string"] = make_string("changed");
  a.erase("bool");
  EXPECT_EQ(b.get_string_value("string"), "text");
  EXPECT_TRUE(b.get_bool_value("bool"));
  properties c(false);
  c = b;
  const properties& same = c;
  c = same;  // self-assignment keeps the content
  EXPECT_TRUE(c == b);
}

TEST(Properties, ChildrenInAnyOrderAreSortedOnceAndTheLastOfEqualKeysWins) {
  properties::container children;
  for (int i = 999; i >= 0; --i) children.emplace_back("k" + std::to_string(i), make_int(i));
  children.emplace_back("k5", make_int(-5));
  const properties p(std::move(children));
  EXPECT_EQ(p.size(), 1000u);
  EXPECT_EQ(p.get_int_value("k5"), -5);
  EXPECT_EQ(p.begin()->first, "k0");
  std::string previous;
  for (const auto& [key, value] : p) {
    EXPECT_LT(previous, key);
    previous = key;
  }
}

// Children that come in key order are taken as they are; a repeated key or one out of order
// among them, even among keys that share their first eight bytes, still gets sorted and merged.
TEST(Properties, ChildrenInOrderAreKeptAndAnyRepeatOrDisorderAmongThemIsStillHandled) {
  const std::vector<std::string> in_order = {"a",         std::string("a\0", 2), "abcdefgh",
                                             "abcdefgh1", "abcdefgh2",           "b"};
  const auto build = [](const std::vector<std::pair<std::string, int>>& children) {
    properties::container c;
    for (const auto& [key, value] : children) c.emplace_back(key, make_int(value));
    return properties(std::move(c));
  };
  const auto keys_of = [](const properties& p) {
    std::vector<std::string> keys;
    for (const auto& [key, value] : p) keys.push_back(key);
    return keys;
  };
  std::vector<std::pair<std::string, int>> children;
  for (std::size_t i = 0; i < in_order.size(); ++i)
    children.emplace_back(in_order[i], static_cast<int>(i));
  EXPECT_EQ(keys_of(build(children)), in_order);

  auto repeated = children;
  repeated.insert(repeated.begin() + 4, {"abcdefgh1", 40});  // next to its first occurrence
  const properties merged = build(repeated);
  EXPECT_EQ(keys_of(merged), in_order);
  EXPECT_EQ(merged.get_int_value("abcdefgh1"), 40);

  auto late = children;
  late.emplace_back("abcdefgh0", 50);  // belongs before "abcdefgh1"
  std::vector<std::string> expected = in_order;
  expected.insert(expected.begin() + 3, "abcdefgh0");
  EXPECT_EQ(keys_of(build(late)), expected);
}

TEST(Properties, InsertionsInAnyOrderKeepKeysSortedAndFindable) {
  properties p(false);
  std::vector<int> order(2000);
  for (int i = 0; i < 2000; ++i) order[i] = (i * 7919) % 2000;  // a permutation
  for (int i : order) p.set_int_value("key" + std::to_string(i), i);
  ASSERT_EQ(p.size(), 2000u);
  for (int i = 0; i < 2000; ++i) EXPECT_EQ(p.get_int_value("key" + std::to_string(i)), i);
  std::string previous;
  for (const auto& [key, value] : p) {
    EXPECT_LT(previous, key);
    previous = key;
  }
}

TEST(Properties, CopiesShareContentUntilOneOfThemChanges) {
  properties a;
  a.set_int_value("n", 1);
  properties b = a;
  EXPECT_TRUE(a.shares_content_with(b));
  EXPECT_TRUE(b.shares_content_with(a));
  const properties equal = properties{{"n", zelcore::make_int(1)}};
  EXPECT_TRUE(equal == a);
  EXPECT_FALSE(equal.shares_content_with(a));  // equal, but not shared
  b.set_int_value("n", 2);
  EXPECT_FALSE(a.shares_content_with(b));
  EXPECT_EQ(a.get_int_value("n"), 1);
  // Trees that never held an entry share nothing.
  EXPECT_FALSE(properties().shares_content_with(properties()));
}
