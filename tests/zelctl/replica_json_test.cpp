// The replica written straight from its trees against the JSON document of its snapshot: the
// whole state and each kind are byte for byte the document's text, indented and on one line,
// for a simulated cluster's replica with records added that hold every kind of value and text
// that needs escapes or is not valid UTF-8; the counts of records are the document's.
#include <gtest/gtest.h>

#include <limits>

#include "json_writer.h"
#include "kinds.h"
#include "replica_json.h"
#include "simulated_replica.h"

namespace {

class ReplicaJson : public zelctl_test::simulated_replica {
 protected:
  void SetUp() override {
    simulated_replica::SetUp();
    // In every kind, a record that needs escapes in its id and its values.
    for (const std::string& key : zelctl::snapshot_keys()) {
      zelcapi::state_item_type type{};
      if (!zelctl::item_type_of(key, type)) continue;
      zelcore::properties nested;
      nested.set_int_value("huge", std::numeric_limits<std::int64_t>::max());
      nested.set_int_value("least", std::numeric_limits<std::int64_t>::min());
      nested.set_properties_value("empty", zelcore::properties());
      zelcore::properties record;
      record.set_properties_value("nested", nested);
      record.set_string_value("name", "tab\there \"quoted\" \x01 bad \xC3\x28 cut \xE2\x82");
      record["args"] = zelcore::make_string_list({"-x", "\\path", "\xF0\x9F\x98\x80"});
      record.set_bool_value("flag", true);
      replica_.item_set(type, "odd \"id\" \xFF " + key, record);
    }
  }

  static zelctl::after_record no_op() {
    return [] {};
  }

  nlohmann::json document() const {
    zelcore::properties snapshot;
    replica_.get_state(snapshot);
    return zelctl::to_json(snapshot);
  }
};

TEST_F(ReplicaJson, TheWholeStateIsTheDocumentsText) {
  for (const bool pretty : {true, false}) {
    std::string text;
    zelctl::json_writer out(text, pretty);
    std::size_t records = 0;
    zelctl::write_state(out, replica_, [&records] { ++records; });
    EXPECT_TRUE(zelctl_test::same_text(text, document_text(pretty))) << "pretty " << pretty;
    std::size_t expected = 0;
    for (const std::string& key : zelctl::snapshot_keys()) {
      expected += zelctl::record_count(replica_, key);
    }
    EXPECT_EQ(records, expected);
  }
}

TEST_F(ReplicaJson, EachKindIsTheDocumentsTextOfItsKey) {
  const nlohmann::json whole = document();
  for (const std::string& key : zelctl::snapshot_keys()) {
    ASSERT_FALSE(whole[key].empty()) << key;
    for (const bool pretty : {true, false}) {
      std::string text;
      zelctl::json_writer out(text, pretty);
      zelctl::write_kind(out, replica_, key, no_op());
      EXPECT_TRUE(zelctl_test::same_text(text, zelctl::json_text(whole[key], pretty)))
          << key << " pretty " << pretty;
    }
  }
}

TEST_F(ReplicaJson, CountsAreTheDocumentsSizes) {
  const nlohmann::json whole = document();
  for (const std::string& key : zelctl::snapshot_keys()) {
    EXPECT_EQ(zelctl::record_count(replica_, key), whole[key].size()) << key;
  }
  EXPECT_EQ(zelctl::record_count(replica_, "no-such-kind"), 0u);
}

TEST_F(ReplicaJson, TextTakenAwayAfterEachRecordAddsUpToTheWhole) {
  std::string text, taken;
  zelctl::json_writer out(text, true);
  zelctl::write_state(out, replica_, [&] {
    taken += text;
    text.clear();
  });
  taken += text;
  EXPECT_TRUE(zelctl_test::same_text(taken, document_text(true)));
}

}  // namespace
