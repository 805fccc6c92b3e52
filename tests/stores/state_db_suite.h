// The typed suite of what every state_db guarantees: a test binary
// instantiates it with INSTANTIATE_TYPED_TEST_SUITE_P for each store it links, a store being a
// type with `static std::unique_ptr<state_db> open(const std::string& path)` (a path in a
// scratch directory of the test, which a store of files may use).
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "stores/store_test_support.h"
#include "support/raised_message.h"
#include "zelbase/exceptions.h"
#include "zelcapi/state.h"

template <class Store>
class StateDbTest : public testing::Test {
 protected:
  zeltest::scratch_dir dir;
  std::unique_ptr<zelcapi::state_db> db = Store::open(dir.file("state.db"));
};

TYPED_TEST_SUITE_P(StateDbTest);

using zelcapi::db_item_job;
using zelcapi::db_item_node;
using zelcapi::db_item_type;
using zelcapi::db_item_workflow;
using zelcapi::state_db;
using zelcapi::workflow_result_info;
using zelcore::make_int;
using zelcore::properties;
using zeltest::job;

namespace state_db_suite {

// A whole save of the given jobs, results and sequence number.
inline void save(state_db& db, const properties& jobs, const zelcapi::workflow_result_map& results,
                 std::uint64_t sequence_number) {
  db.begin_save();
  for (const auto& [id, record] : jobs)
    db.store_item(db_item_job, id, static_cast<const properties&>(*record));
  db.store_workflow_results(results);
  db.store_workflow_sequence_number(sequence_number);
}

inline void expect_same(const properties& got, const properties& expected) {
  EXPECT_TRUE(got == expected) << "got " << got.describe() << "\nexpected " << expected.describe();
}

inline properties jobs_named(std::initializer_list<std::string> ids, std::int64_t status) {
  properties out(false);
  for (const std::string& id : ids) out.set_properties_value(id, job("job " + id, status));
  return out;
}

inline properties one(const std::string& id, const properties& record) {
  properties out(false);
  out.set_properties_value(id, record);
  return out;
}

}  // namespace state_db_suite

using namespace state_db_suite;

TYPED_TEST_P(StateDbTest, EmptyStoreLoadsEmptyTreesAndZero) {
  for (int kind = 0; kind < 8; ++kind)
    EXPECT_TRUE(this->db->load_items(static_cast<db_item_type>(kind))->empty());
  EXPECT_TRUE(this->db->load_workflow_results()->empty());
  EXPECT_EQ(this->db->load_workflow_sequence_number(), 0u);
  EXPECT_FALSE(this->db->has_saved_state());
  properties out(false);
  EXPECT_FALSE(this->db->load_item(db_item_job, "j1", out));
}

TYPED_TEST_P(StateDbTest, SaveReplacesThePreviousSaveWhole) {
  save(*this->db, jobs_named({"j1", "j2", "j3"}, 1), {{"WOFL-1", workflow_result_info(3u, 7u)}}, 5);
  this->db->begin_save();
  this->db->store_item(db_item_node, "n1", job("node", 0));
  this->db->store_item(db_item_job, "j2", job("again", 2));
  this->db->store_workflow_results({});
  this->db->store_workflow_sequence_number(6);

  expect_same(*this->db->load_items(db_item_job), one("j2", job("again", 2)));
  EXPECT_EQ(this->db->load_items(db_item_node)->size(), 1u);
  EXPECT_TRUE(this->db->load_workflow_results()->empty());
  EXPECT_EQ(this->db->load_workflow_sequence_number(), 6u);
}

TYPED_TEST_P(StateDbTest, WorkflowResultsAndSequenceNumberComeBackAsEncoded) {
  save(*this->db, properties(false),
       {{"WOFL-a", workflow_result_info(3u, 7u)}, {"WOFL-b", workflow_result_info(0xFFFFFFFFu)}},
       UINT64_MAX);
  properties expected(false);
  for (const auto& [id, result] :
       zelcapi::workflow_result_map{{"WOFL-a", workflow_result_info(3u, 7u)},
                                    {"WOFL-b", workflow_result_info(0xFFFFFFFFu)}}) {
    properties encoded(false);
    result.encode(encoded);
    expected.set_properties_value(id, encoded);
  }
  expect_same(*this->db->load_workflow_results(), expected);
  EXPECT_EQ(this->db->load_workflow_sequence_number(), UINT64_MAX);
  EXPECT_TRUE(this->db->has_saved_state());
}

TYPED_TEST_P(StateDbTest, SaveAbandonedPartWayLeavesThePreviousSave) {
  const properties first = jobs_named({"j1", "j2"}, 1);
  save(*this->db, first, {}, 3);
  this->db->begin_save();
  this->db->store_item(db_item_job, "j9", job("partial", 9));
  // The saver stopped here (an error); loads still see the previous save.
  expect_same(*this->db->load_items(db_item_job), first);
  EXPECT_EQ(this->db->load_workflow_sequence_number(), 3u);

  // The next save starts afresh: nothing of the abandoned one remains.
  save(*this->db, jobs_named({"j5"}, 5), {}, 4);
  expect_same(*this->db->load_items(db_item_job), jobs_named({"j5"}, 5));
}

TYPED_TEST_P(StateDbTest, SaveCutByTheNextBeginSaveLeavesNothingOfItself) {
  save(*this->db, jobs_named({"j1"}, 1), {}, 1);
  this->db->begin_save();
  this->db->store_item(db_item_job, "j2", job("cut", 2));
  this->db->begin_save();
  this->db->store_item(db_item_job, "j3", job("whole", 3));
  this->db->store_workflow_results({});
  this->db->store_workflow_sequence_number(2);
  expect_same(*this->db->load_items(db_item_job), one("j3", job("whole", 3)));
}

TYPED_TEST_P(StateDbTest, WritesOutsideASaveChangeTheSavedRecords) {
  save(*this->db, jobs_named({"j1", "j2"}, 1), {}, 1);
  this->db->store_item(db_item_job, "j3", job("job j3", 1));
  this->db->remove_item(db_item_job, "j1");
  expect_same(*this->db->load_items(db_item_job), jobs_named({"j2", "j3"}, 1));
  properties out(false);
  ASSERT_TRUE(this->db->load_item(db_item_job, "j3", out));
  expect_same(out, job("job j3", 1));
}

TYPED_TEST_P(StateDbTest, ClearRemovesEverything) {
  save(*this->db, jobs_named({"j1"}, 1), {{"WOFL-1", workflow_result_info(1u)}}, 9);
  this->db->clear();
  EXPECT_TRUE(this->db->load_items(db_item_job)->empty());
  EXPECT_TRUE(this->db->load_workflow_results()->empty());
  EXPECT_EQ(this->db->load_workflow_sequence_number(), 0u);
  EXPECT_FALSE(this->db->has_saved_state());
}

TYPED_TEST_P(StateDbTest, KindOutsideTheEightIsRefused) {
  const auto bad = static_cast<db_item_type>(8);
  EXPECT_EQ(zeltest::raised_message<zelbase::es::arg>([&] { this->db->load_items(bad); }),
            "state_db does not have item type 8");
  EXPECT_EQ(zeltest::raised_message<zelbase::es::arg>(
                [&] { this->db->store_item(bad, "x", properties(false)); }),
            "state_db does not have item type 8");
}

TYPED_TEST_P(StateDbTest, EveryKindOfRecordHasItsOwnTable) {
  this->db->begin_save();
  for (int kind = 0; kind < 8; ++kind)
    this->db->store_item(static_cast<db_item_type>(kind), "same-id", job("kind", kind));
  this->db->store_workflow_results({});
  this->db->store_workflow_sequence_number(1);
  for (int kind = 0; kind < 8; ++kind) {
    const auto loaded = this->db->load_items(static_cast<db_item_type>(kind));
    ASSERT_EQ(loaded->size(), 1u);
    expect_same(loaded->get_properties_value("same-id"), job("kind", kind));
  }
}

TYPED_TEST_P(StateDbTest, ArbitraryBytesAndEveryPropertyKindComeBackExactly) {
  zeltest::random_bytes_trees random(17);
  properties all(false);
  for (int n = 0; n < 300; ++n) all.set_properties_value(random.bytes(), random.tree(4));
  // A deep chain of trees and lists.
  properties deep{{"leaf", make_int(1)}};
  for (int n = 0; n < 200; ++n) {
    zelbase::ptr_refcount<zelcore::property_list> list(new zelcore::property_list);
    list->push_back(zelcore::property_ptr(new properties(deep)));
    deep = properties{{"~o", list}, {std::string("\0k", 2), zelcore::make_string("\xfe")}};
  }
  all.set_properties_value("deep", deep);
  save(*this->db, all, {}, 1);
  expect_same(*this->db->load_items(db_item_job), all);
}

TYPED_TEST_P(StateDbTest, LoadsWhileASaverWritesSeeOnlyCompleteSaves) {
  constexpr int saves = 30;
  constexpr int records = 40;
  std::atomic<bool> done{false};
  std::thread saver([&] {
    for (int version = 1; version <= saves; ++version) {
      this->db->begin_save();
      for (int n = 0; n < records; ++n)
        this->db->store_item(db_item_workflow, "w" + std::to_string(n),
                             properties{{"version", make_int(version)}});
      this->db->store_workflow_results({});
      this->db->store_workflow_sequence_number(static_cast<std::uint64_t>(version));
    }
    done = true;
  });
  int checked = 0;
  while (!done || checked == 0) {
    const auto loaded = this->db->load_items(db_item_workflow);
    if (loaded->empty()) continue;
    ASSERT_EQ(loaded->size(), static_cast<std::size_t>(records));
    const std::int64_t version = loaded->get_properties_value("w0").get_int_value("version");
    for (const auto& [id, record] : *loaded)
      ASSERT_EQ(static_cast<const properties&>(*record).get_int_value("version"), version) << id;
    ++checked;
  }
  saver.join();
  EXPECT_EQ(this->db->load_workflow_sequence_number(), static_cast<std::uint64_t>(saves));
}

REGISTER_TYPED_TEST_SUITE_P(
    StateDbTest, EmptyStoreLoadsEmptyTreesAndZero, SaveReplacesThePreviousSaveWhole,
    WorkflowResultsAndSequenceNumberComeBackAsEncoded, SaveAbandonedPartWayLeavesThePreviousSave,
    SaveCutByTheNextBeginSaveLeavesNothingOfItself, WritesOutsideASaveChangeTheSavedRecords,
    ClearRemovesEverything, KindOutsideTheEightIsRefused, EveryKindOfRecordHasItsOwnTable,
    ArbitraryBytesAndEveryPropertyKindComeBackExactly, LoadsWhileASaverWritesSeeOnlyCompleteSaves);
