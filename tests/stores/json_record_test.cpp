// The JSON text of a record in the two forms the stores hold: keys in the tree's order for SQLite,
// in jsonb's order (length, then bytes) for PostgreSQL; both read back to the same tree.
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "json_record.h"

using zelcapi::store_detail::json_form;
using zelcapi::store_detail::read_json;
using zelcapi::store_detail::write_json;
using zelcore::make_int;
using zelcore::make_string;
using zelcore::properties;

namespace {

std::string text_of(const properties& tree, json_form form) {
  zelbase::encoder_network out;
  write_json(tree, out, form);
  return std::string(out.view());
}

zelcore::property_ptr tree(properties p) {
  return zelcore::property_ptr(new properties(std::move(p)));
}

const properties record{{"status", make_int(2)},
                        {"id", make_string("job-1")},
                        {"end-time", make_int(0)},
                        {"progress", tree({{"total", make_int(100)}, {"done", make_int(7)}})},
                        {"ab", make_int(1)},
                        {"b", make_int(3)}};

}  // namespace

TEST(JsonRecord, TextFormKeepsTheTreesOrderOfKeys) {
  EXPECT_EQ(text_of(record, json_form::text),
            "{\"ab\":1,\"b\":3,\"end-time\":0,\"id\":\"job-1\","
            "\"progress\":{\"done\":7,\"total\":100},\"status\":2}");
}

TEST(JsonRecord, JsonbFormGivesKeysShorterFirstThenByTheirBytesAtEveryLevel) {
  EXPECT_EQ(text_of(record, json_form::jsonb),
            "{\"b\":3,\"ab\":1,\"id\":\"job-1\",\"status\":2,\"end-time\":0,"
            "\"progress\":{\"done\":7,\"total\":100}}");
}

TEST(JsonRecord, BothFormsReadBackToTheSameTree) {
  EXPECT_EQ(read_json(text_of(record, json_form::text)), record);
  EXPECT_EQ(read_json(text_of(record, json_form::jsonb)), record);
}

TEST(JsonRecord, JsonbFormWritesAStringWithANulAsBytes) {
  const properties with_nul{{"k", make_string(std::string("a\0b", 3))}, {"j", make_int(1)}};
  EXPECT_EQ(text_of(with_nul, json_form::text), "{\"j\":1,\"k\":\"a\\u0000b\"}");
  EXPECT_EQ(text_of(with_nul, json_form::jsonb), "{\"j\":1,\"k\":{\"~x\":\"610062\"}}");
  EXPECT_EQ(read_json(text_of(with_nul, json_form::jsonb)), with_nul);
}
