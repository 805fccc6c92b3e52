// The mirror's held history and the health of its store, on their own: history writes that a
// failing store refused stay held for the next try, the oldest beyond the limit are dropped, and
// an outage begins at the first failure and ends only once a save committed and the held history
// was written.
#include <gtest/gtest.h>

#include <stdexcept>

#include "mirror_store.h"
#include "store_health.h"
#include "stores/store_test_support.h"
#include "zelcapi/memory_db.h"

using zelcapi::db_item_job;
using zelctl::queued_history_db;
using zelctl::store_health;

namespace {

// A history store that refuses every write while `down` is set, as a server that is gone.
class failing_history final : public zelcapi::history_db {
 public:
  bool down = false;
  zelcapi::memory_history_db kept;

  zelcapi::properties_cptr load_items(zelcapi::db_item_type type) override {
    return kept.load_items(type);
  }
  bool load_item(zelcapi::db_item_type type, const std::string& id,
                 zelcore::properties& out) override {
    return kept.load_item(type, id, out);
  }
  void store_item(zelcapi::db_item_type type, const std::string& id,
                  const zelcore::properties& record) override {
    refuse();
    kept.store_item(type, id, record);
  }
  void remove_item(zelcapi::db_item_type type, const std::string& id) override {
    refuse();
    kept.remove_item(type, id);
  }
  void remove_items(zelcapi::db_item_type type) override {
    refuse();
    kept.remove_items(type);
  }
  void remove_items(zelcapi::db_item_type type, const std::set<std::string>& ids) override {
    refuse();
    kept.remove_items(type, ids);
  }
  std::uint64_t count_items(zelcapi::db_item_type type) override { return kept.count_items(type); }
  std::uint32_t get_historize_time(zelcapi::db_item_type type, const std::string& id) override {
    return kept.get_historize_time(type, id);
  }
  void remove_items_historized_until(std::uint32_t time) override {
    refuse();
    kept.remove_items_historized_until(time);
  }
  zelcapi::properties_cptr load_items_where(zelcapi::db_item_type type, const std::string& key,
                                            const std::string& value) override {
    return kept.load_items_where(type, key, value);
  }
  void clear() override { kept.clear(); }
  void begin_batch() override {}
  void end_batch() override {}

 private:
  void refuse() const {
    if (down) throw std::runtime_error("the server is gone");
  }
};

}  // namespace

TEST(QueuedHistoryDb, WritesThatTheStoreRefusedAreHeldForTheNextFlush) {
  failing_history store;
  queued_history_db queued(store, 100);
  queued.store_item(db_item_job, "j1", zeltest::job("one", 4));
  queued.store_item(db_item_job, "j2", zeltest::job("two", 4));
  store.down = true;
  EXPECT_THROW(queued.flush(), std::runtime_error);
  EXPECT_EQ(queued.held(), 2u);
  queued.remove_item(db_item_job, "j1");
  store.down = false;
  queued.flush();
  EXPECT_EQ(queued.held(), 0u);
  EXPECT_EQ(store.count_items(db_item_job), 1u);
  zelcore::properties out(false);
  EXPECT_TRUE(store.load_item(db_item_job, "j2", out));
}

TEST(QueuedHistoryDb, OldestWritesBeyondTheLimitAreDroppedAndCounted) {
  failing_history store;
  queued_history_db queued(store, 3);
  for (int n = 0; n < 5; ++n)
    queued.store_item(db_item_job, "j" + std::to_string(n), zeltest::job("job", 4));
  EXPECT_EQ(queued.held(), 3u);
  EXPECT_EQ(queued.dropped(), 2u);
  queued.flush();
  zelcore::properties out(false);
  EXPECT_FALSE(store.load_item(db_item_job, "j1", out));
  EXPECT_TRUE(store.load_item(db_item_job, "j2", out));
  EXPECT_TRUE(store.load_item(db_item_job, "j4", out));
}

TEST(StoreHealth, OutageIsToldOnceAndEndsWhenASaveAndTheHeldHistoryWentIn) {
  store_health health;
  EXPECT_TRUE(health.may_write_history());
  health.save_skipped();  // a slow save, then a failed one: the skip joins the outage
  health.save_failed("server gone");
  health.save_failed("server gone again");
  health.history_failed("history refused");
  health.save_skipped();
  EXPECT_TRUE(health.failing());
  EXPECT_FALSE(health.may_write_history());
  const auto began = health.take_began();
  ASSERT_TRUE(began);
  EXPECT_EQ(began->error, "server gone");
  EXPECT_FALSE(health.take_began());  // told once

  health.history_held(7);
  health.save_committed();
  EXPECT_TRUE(health.may_write_history());
  health.history_failed("history refused once more");  // still out: nothing new to tell
  EXPECT_FALSE(health.take_began());
  EXPECT_FALSE(health.take_ended());
  EXPECT_FALSE(health.may_write_history());

  health.save_committed();
  health.history_held(9);
  health.history_written();
  EXPECT_FALSE(health.failing());
  const auto ended = health.take_ended();
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended->saves_not_written, 4u);
  EXPECT_EQ(ended->history_writes_held, 9u);
  EXPECT_FALSE(health.take_ended());
  EXPECT_FALSE(health.take_skipped());
}

TEST(StoreHealth, SavesSkippedWhileASlowSaveRanAreToldWhenItCommits) {
  store_health health;
  health.save_skipped();
  health.save_skipped();
  EXPECT_FALSE(health.take_skipped());  // not yet: the slow save may still fail
  health.save_committed();
  EXPECT_EQ(health.take_skipped(), 2u);
  EXPECT_FALSE(health.failing());
  EXPECT_FALSE(health.take_began());
}

namespace {

// A state store that refuses records while `down` is set, as a server that is gone.
class refusing_state_db final : public zelcapi::forwarding_state_db {
 public:
  explicit refusing_state_db(zelcapi::state_db& inner) : forwarding_state_db(inner) {}
  void store_item(zelcapi::db_item_type type, const std::string& id,
                  const zelcore::properties& record) override {
    if (down) throw std::runtime_error("server gone");
    forwarding_state_db::store_item(type, id, record);
  }
  bool down = false;
};

void save_two_jobs(zelctl::timed_state_db& db) {
  zelcore::properties record;
  record.set_string_value("state", "queued");
  db.begin_save();
  db.store_item(db_item_job, "j1", record);
  db.store_item(db_item_job, "j2", record);
  db.store_workflow_results({});
  db.store_workflow_sequence_number(1);
}

TEST(TimedStateDb, CommittedSavesGoIntoTheHistogramsAndRefusedOnesAreCounted) {
  zelcapi::memory_state_db memory;
  refusing_state_db store(memory);
  store_health health;
  std::uint64_t written = 2;
  zelctl::timed_state_db timed(
      store, [&written] { return written; }, health);
  save_two_jobs(timed);
  written = 0;
  save_two_jobs(timed);
  store.down = true;
  EXPECT_THROW(save_two_jobs(timed), std::runtime_error);
  const zelctl::save_figures f = timed.figures();
  EXPECT_EQ(f.saves, 2u);
  EXPECT_EQ(f.failed, 1u);
  EXPECT_EQ(f.last_records, 2u);
  EXPECT_EQ(f.seconds.count, 2u);
  EXPECT_GE(f.seconds.sum, 0.0);
  EXPECT_EQ(f.written.count, 2u);
  EXPECT_EQ(f.written.sum, 2.0);
  EXPECT_EQ(f.written.buckets[0], 1u);  // the save that wrote nothing: le="0"
  EXPECT_EQ(f.written.buckets[1], 1u);  // the one that wrote 2: le="10"
  // The families as a scrape gets them.
  zelctl::metrics_text out;
  zelctl::write_save_metrics(out, f);
  const std::string& text = out.text();
  EXPECT_NE(text.find("zelcapi_saves_total 2\n"), std::string::npos) << text;
  EXPECT_NE(text.find("zelcapi_save_failures_total 1\n"), std::string::npos) << text;
  EXPECT_NE(text.find("zelcapi_save_records_written_bucket{le=\"10\"} 2\n"), std::string::npos)
      << text;
  EXPECT_NE(text.find("zelcapi_save_duration_seconds_count 2\n"), std::string::npos) << text;
  EXPECT_NE(text.find("zelcapi_last_save_records 2\n"), std::string::npos) << text;
}

}  // namespace
