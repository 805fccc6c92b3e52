// The streaming JSON writer against the JSON document it replaces: for strings of every kind of
// byte (control characters, quotes, valid and broken UTF-8) and for trees of every kind of value,
// indented and on one line, its text is byte for byte the document's.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "json_output.h"
#include "json_writer.h"

namespace {

using zelctl::json_text;
using zelctl::to_json;

std::string document_string(const std::string& s) { return json_text(nlohmann::json(s), false); }

std::string written_string(const std::string& s) {
  std::string out;
  zelctl::append_json_string(out, s);
  return out;
}

std::string written(const zelcore::property& p, bool pretty) {
  std::string out;
  zelctl::json_writer(out, pretty).value(p);
  return out;
}

TEST(JsonWriter, EveryByteAloneAndBetweenText) {
  for (int b = 0; b < 256; ++b) {
    const std::string alone(1, static_cast<char>(b));
    EXPECT_EQ(written_string(alone), document_string(alone)) << "byte " << b;
    const std::string between = "a" + alone + "z";
    EXPECT_EQ(written_string(between), document_string(between)) << "byte " << b;
  }
}

TEST(JsonWriter, BrokenAndWholeUtf8SequencesAsTheDocumentWritesThem) {
  const std::vector<std::string> cases = {
      "caf\xC3\xA9",                      // two bytes
      "\xE2\x82\xAC euro",                // three bytes
      "\xF0\x9F\x98\x80 face",            // four bytes
      "\xC3",                             // cut at the end
      "\xE2\x82",                         // cut at the end after two of three
      "\xF0\x9F\x98",                     // cut at the end after three of four
      "\xE2\x82x",                        // cut by ASCII
      "\xE2\x82\xE2\x82\xAC",             // cut by the start of a whole one
      "\xC0\x80",                         // overlong NUL
      "\xE0\x80\xAF",                     // overlong slash
      "\xED\xA0\x80",                     // a surrogate
      "\xF4\x90\x80\x80",                 // past U+10FFFF
      "\xF5\x80\x80\x80",                 // a lead byte that never leads
      "\x80\xBF",                         // continuation bytes alone
      "\xFE\xFF",                         // never in UTF-8
      "\"quoted\" \\ back\x7F\x1F\x01/",  // escapes, DEL and the slash as they are
  };
  for (const std::string& s : cases) {
    EXPECT_EQ(written_string(s), document_string(s)) << "case " << document_string(s);
  }
}

TEST(JsonWriter, RandomBytesAsTheDocumentWritesThem) {
  std::mt19937 random(42);
  // Mostly bytes that start or continue sequences, so that most strings are broken somewhere.
  const std::vector<unsigned char> alphabet = {'a',  '"',  '\\', 0x01, 0x0A, 0x7F, 0x80, 0x8F,
                                               0x90, 0x9F, 0xA0, 0xBF, 0xC0, 0xC2, 0xDF, 0xE0,
                                               0xE1, 0xED, 0xEF, 0xF0, 0xF3, 0xF4, 0xF5, 0xFF};
  std::uniform_int_distribution<std::size_t> length(0, 12), pick(0, alphabet.size() - 1);
  for (int n = 0; n < 20000; ++n) {
    std::string s(length(random), ' ');
    for (char& c : s) c = static_cast<char>(alphabet[pick(random)]);
    ASSERT_EQ(written_string(s), document_string(s)) << "case " << document_string(s);
  }
}

// A tree with a value of each kind, nested, empty and null, and keys that need escapes or whose
// order depends on bytes past the eighth or past the end of the shorter key.
zelcore::properties varied_tree() {
  zelcore::properties inner;
  inner.set_int_value("min", std::numeric_limits<std::int64_t>::min());
  inner.set_int_value("max", std::numeric_limits<std::int64_t>::max());
  inner.set_int_value("zero", 0);
  inner.set_bool_value("no", false);
  inner.set_properties_value("empty", zelcore::properties());
  zelcore::properties tree;
  tree.set_properties_value("inner", inner);
  tree.set_string_value("text", "line\nnext\ttab \"q\" \xFF end");
  tree.set_bool_value("yes", true);
  tree["null slot"];  // left out, as the document leaves it out
  zelcore::property_list::list_type list;
  list.push_back(zelcore::make_int(-1));
  list.push_back(zelcore::property_ptr());  // null in a list
  list.push_back(zelcore::make_string("\xC3\xA9t\xC3\xA9"));
  zelcore::property_list nested_list;
  nested_list.push_back(zelcore::make_bool(true));
  list.push_back(zelcore::property_ptr(new zelcore::property_list(nested_list)));
  list.push_back(zelcore::property_ptr(new zelcore::property_list()));
  list.push_back(zelcore::property_ptr(new zelcore::properties(inner)));
  tree["list"] = zelcore::property_ptr(new zelcore::property_list(list));
  tree["empty list"] = zelcore::property_ptr(new zelcore::property_list());
  for (const char* key : {"", "a", "a\x7F", "abcdefgh", "abcdefgh\xC3\xA9", "abcdefghA", "B",
                          "\xC3\xA9", "\xFF", "key \"with\" \\ and \x01"}) {
    tree.set_string_value(key, key);
  }
  tree.set_string_value(std::string("a\0b", 3), "with a NUL");
  return tree;
}

TEST(JsonWriter, TreesOfEveryKindOfValueIndentedAndOnOneLine) {
  const zelcore::properties tree = varied_tree();
  for (const bool pretty : {true, false}) {
    EXPECT_EQ(written(tree, pretty), json_text(to_json(tree), pretty)) << "pretty " << pretty;
  }
  EXPECT_EQ(written(zelcore::properties(), true), "{}");
  EXPECT_EQ(written(zelcore::property_list(), true), "[]");
}

TEST(JsonWriter, MembersWrittenOneByOneAndTakenAwayBetween) {
  const zelcore::properties tree = varied_tree();
  for (const bool pretty : {true, false}) {
    std::string text, taken;
    zelctl::json_writer out(text, pretty);
    out.begin_object();
    out.key("first");
    out.value(tree);
    taken += text;
    text.clear();
    out.key("none");
    out.value(zelcore::property_ptr());
    out.key("number");
    out.value(std::int64_t{7});
    out.end_object();
    taken += text;
    nlohmann::json document = {{"first", to_json(tree)}, {"number", 7}, {"none", nullptr}};
    EXPECT_EQ(taken, json_text(document, pretty)) << "pretty " << pretty;
  }
}

}  // namespace
