// The typed suite of what every history_db guarantees: a test binary
// instantiates it with INSTANTIATE_TYPED_TEST_SUITE_P for each store it links, a store being a
// type with `static std::unique_ptr<history_db> open(const std::string& path)` (a path in a
// scratch directory of the test, which a store of files may use).
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "stores/store_test_support.h"
#include "support/raised_message.h"
#include "zelbase/exceptions.h"
#include "zelbase/time.h"
#include "zelcapi/state.h"

template <class Store>
class HistoryDbTest : public testing::Test {
 protected:
  HistoryDbTest() {
    previous_clock = zelbase::set_time_clock([this] { return now; });
  }
  ~HistoryDbTest() override { zelbase::set_time_clock(previous_clock); }

  void store_at(std::uint32_t time, zelcapi::db_item_type type, const std::string& id,
                const zelcore::properties& record) {
    now = time;
    db->store_item(type, id, record);
  }
  std::vector<std::string> ids(const zelcapi::properties_cptr& records) {
    std::vector<std::string> out;
    for (const auto& [id, record] : *records) out.push_back(id);
    return out;
  }

  std::uint32_t now = 1000;
  zelbase::clock_function previous_clock;
  zeltest::scratch_dir dir;
  std::unique_ptr<zelcapi::history_db> db = Store::open(dir.file("history.db"));
};

TYPED_TEST_SUITE_P(HistoryDbTest);

using zelcapi::db_item_job;
using zelcapi::db_item_task;
using zelcapi::db_item_workflow;
using zelcapi::history_db;
using zelcore::make_string;
using zelcore::properties;
using zeltest::job;

namespace history_db_suite {

inline properties owned_by(const std::string& client) {
  properties p = job("job of " + client, 4);
  p.set_string_value("client-id", client);
  return p;
}

}  // namespace history_db_suite

using namespace history_db_suite;

TYPED_TEST_P(HistoryDbTest, StoredRecordKeepsItsHistorizeTime) {
  this->store_at(1000, db_item_job, "j1", job("one", 4));
  this->store_at(1500, db_item_task, "j1", job("task", 4));
  EXPECT_EQ(this->db->get_historize_time(db_item_job, "j1"), 1000u);
  EXPECT_EQ(this->db->get_historize_time(db_item_task, "j1"), 1500u);
  EXPECT_EQ(this->db->get_historize_time(db_item_job, "absent"), 0u);
  properties out(false);
  ASSERT_TRUE(this->db->load_item(db_item_job, "j1", out));
  EXPECT_TRUE(out == job("one", 4));
  EXPECT_FALSE(this->db->load_item(db_item_job, "absent", out));
}

TYPED_TEST_P(HistoryDbTest, StoringAgainReplacesTheRecordAndItsTime) {
  this->store_at(1000, db_item_job, "j1", job("one", 4));
  this->store_at(2000, db_item_job, "j1", job("one again", 5));
  EXPECT_EQ(this->db->count_items(db_item_job), 1u);
  EXPECT_EQ(this->db->get_historize_time(db_item_job, "j1"), 2000u);
  EXPECT_TRUE(this->db->load_items(db_item_job)->get_properties_value("j1") == job("one again", 5));
}

TYPED_TEST_P(HistoryDbTest, CleanUpRemovesRecordsHistorizedAtOrBeforeTheBound) {
  this->store_at(999, db_item_job, "early", job("a", 4));
  this->store_at(1000, db_item_job, "at-bound", job("b", 4));
  this->store_at(1000, db_item_workflow, "WOFL-1", job("w", 4));
  this->store_at(1001, db_item_job, "late", job("c", 4));
  this->db->remove_items_historized_until(999);
  EXPECT_EQ(this->ids(this->db->load_items(db_item_job)),
            (std::vector<std::string>{"at-bound", "late"}));
  this->db->remove_items_historized_until(1000);
  EXPECT_EQ(this->ids(this->db->load_items(db_item_job)), (std::vector<std::string>{"late"}));
  EXPECT_EQ(this->db->count_items(db_item_workflow), 0u);
}

TYPED_TEST_P(HistoryDbTest, RemovesByIdByKindAndBySet) {
  for (const char* id : {"a", "b", "c", "d"}) this->store_at(1000, db_item_job, id, job(id, 4));
  this->store_at(1000, db_item_task, "t", job("t", 4));
  this->db->remove_item(db_item_job, "a");
  this->db->remove_items(db_item_job, {"b", "d", "not-there"});
  EXPECT_EQ(this->ids(this->db->load_items(db_item_job)), (std::vector<std::string>{"c"}));
  this->db->remove_items(db_item_job);
  EXPECT_EQ(this->db->count_items(db_item_job), 0u);
  EXPECT_EQ(this->db->count_items(db_item_task), 1u);
  this->db->clear();
  EXPECT_EQ(this->db->count_items(db_item_task), 0u);
}

TYPED_TEST_P(HistoryDbTest, LoadItemsWhereSelectsByAStringField) {
  this->store_at(1000, db_item_job, "j1", owned_by("alice"));
  this->store_at(1000, db_item_job, "j2", owned_by("bob"));
  this->store_at(1000, db_item_job, "j3", owned_by("alice"));
  this->store_at(1000, db_item_task, "t1", owned_by("alice"));
  properties numeric = owned_by("carol");
  numeric.set_int_value("client-id", 7);
  this->store_at(1000, db_item_job, "j4", numeric);
  // A record in the escaped form (a key beginning with "~") and values that are not UTF-8.
  properties escaped = owned_by("alice");
  escaped.set_string_value("~note", "x");
  this->store_at(1000, db_item_job, "j5", escaped);
  this->store_at(1000, db_item_job, "j6", owned_by("\xff\xfe"));

  EXPECT_EQ(this->ids(this->db->load_items_where(db_item_job, "client-id", "alice")),
            (std::vector<std::string>{"j1", "j3", "j5"}));
  EXPECT_EQ(this->ids(this->db->load_items_where(db_item_job, "client-id", "7")),
            std::vector<std::string>{});
  EXPECT_EQ(this->ids(this->db->load_items_where(db_item_job, "client-id", "\xff\xfe")),
            (std::vector<std::string>{"j6"}));
  EXPECT_EQ(this->ids(this->db->load_items_where(db_item_job, "~note", "x")),
            (std::vector<std::string>{"j5"}));
  EXPECT_TRUE(
      this->db->load_items_where(db_item_job, "client-id", "alice")->get_properties_value("j1") ==
      owned_by("alice"));
}

TYPED_TEST_P(HistoryDbTest, BatchedWritesAllLand) {
  this->db->begin_batch();
  for (int n = 0; n < 50; ++n)
    this->store_at(1000, db_item_job, "j" + std::to_string(n), job("b", n));
  this->db->remove_items(db_item_job, {"j0", "j1"});
  this->db->end_batch();
  EXPECT_EQ(this->db->count_items(db_item_job), 48u);
}

TYPED_TEST_P(HistoryDbTest, ArbitraryBytesComeBackExactly) {
  zeltest::random_bytes_trees random(29);
  properties stored(false);
  for (int n = 0; n < 100; ++n) {
    const std::string id = random.bytes();
    const properties record = random.tree(3);
    this->store_at(1000, db_item_job, id, record);
    stored.set_properties_value(id, record);
  }
  EXPECT_TRUE(*this->db->load_items(db_item_job) == stored);
}

TYPED_TEST_P(HistoryDbTest, KindOutsideTheEightIsRefused) {
  EXPECT_EQ(zeltest::raised_message<zelbase::es::arg>(
                [&] { this->db->count_items(static_cast<zelcapi::db_item_type>(9)); }),
            "history_db does not have item type 9");
}

REGISTER_TYPED_TEST_SUITE_P(HistoryDbTest, StoredRecordKeepsItsHistorizeTime,
                            StoringAgainReplacesTheRecordAndItsTime,
                            CleanUpRemovesRecordsHistorizedAtOrBeforeTheBound,
                            RemovesByIdByKindAndBySet, LoadItemsWhereSelectsByAStringField,
                            BatchedWritesAllLand, ArbitraryBytesComeBackExactly,
                            KindOutsideTheEightIsRefused);
