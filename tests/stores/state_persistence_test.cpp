// A state saved through its saver into the stores and loaded back: whole round trips across a
// reopened file, a failing store, and saves that overlap.
#include <gtest/gtest.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <boost/make_shared.hpp>

#include "stores/store_test_support.h"
#include "support/capture_sink.h"
#include "support/sample_workflows.h"
#include "zelcapi/memory_db.h"
#include "zelcapi/sqlite_db.h"
#include "zelcapi/state.h"

using zelcapi::db_item_job;
using zelcapi::state;
using zelcapi::state_db;
using zelcapi::state_item_type;
using zelcore::properties;
using zeltest::job;

namespace {

const std::string still_active =
    "Previous save of state still active, consider raising the interval for state saving "
    "and/or lowering the time to keep history";

// A state with records of every kind, results, workflows and a sequence number.
void fill(state& st) {
  zeltest::random_bytes_trees random(3);
  for (int kind = 0; kind < 7; ++kind)
    for (int n = 0; n < 5; ++n)
      st.item_set(static_cast<state_item_type>(kind), "id-" + std::to_string(n),
                  n == 4 ? random.tree(3) : job("item " + std::to_string(n), kind));
  st.workflow_result_add("WOFL-done", zelcapi::workflow_result_info(3u, 5u));
  for (int n = 0; n < 3; ++n)
    st.add_workflow("",
                    zeltest::sample_workflow(zelworkflow::workflow_info::workflow_type_spawned, 4));
}

properties snapshot_of(const state& st) {
  properties out(false);
  st.get_state(out);
  return out;
}

void expect_same(const properties& got, const properties& expected) {
  EXPECT_TRUE(got == expected) << "got " << got.describe() << "\nexpected " << expected.describe();
}

// A new state loaded from `db` holds what `st` holds.
void expect_loads_as(state_db& db, const state& st) {
  state loaded(st.get_plugin_db(), nullptr);
  loaded.set_and_update_from_state_db(&db);
  expect_same(snapshot_of(loaded), snapshot_of(st));
}

// A memory_state_db behind hooks: store_item raises while `failing` is set, begin_save waits
// while `held` is set; the calls of each kind are counted.
class hooked_store final : public zelcapi::forwarding_state_db {
 public:
  hooked_store() : forwarding_state_db(memory_) {}

  void store_item(zelcapi::db_item_type type, const std::string& id,
                  const properties& record) override {
    if (failing) throw std::runtime_error("disk on fire");
    forwarding_state_db::store_item(type, id, record);
  }
  void store_workflow_results(const zelcapi::workflow_result_map& results) override {
    ++results_stored;
    forwarding_state_db::store_workflow_results(results);
  }
  void store_workflow_sequence_number(std::uint64_t sequence_number) override {
    ++saves_completed;
    forwarding_state_db::store_workflow_sequence_number(sequence_number);
  }
  void begin_save() override {
    std::unique_lock<std::mutex> hold(lock_);
    ++saves_begun;
    changed_.notify_all();
    changed_.wait(hold, [this] { return !held; });
    forwarding_state_db::begin_save();
  }

  // Lets a held begin_save go on.
  void release() {
    std::lock_guard<std::mutex> hold(lock_);
    held = false;
    changed_.notify_all();
  }
  void wait_for_saves_begun(int count) {
    std::unique_lock<std::mutex> hold(lock_);
    changed_.wait(hold, [&] { return saves_begun >= count; });
  }

  bool failing = false;
  bool held = false;
  int saves_begun = 0;
  int results_stored = 0;
  int saves_completed = 0;

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  zelcapi::memory_state_db memory_;  // bound by the base before it is built: used only after
};

}  // namespace

TEST(StatePersistence, SqliteSaveLoadsIntoANewStateAcrossAReopen) {
  zeltest::scratch_dir dir;
  const std::string path = dir.file("mirror.db");
  zelcore::plugin_db plugins;
  properties saved(false);
  {
    zelcapi::sqlite_state_db db(path);
    state st(plugins, nullptr, &db);
    fill(st);
    st.save_state_to_db(true);
    saved = snapshot_of(st);
  }
  zelcapi::sqlite_state_db db(path);
  state loaded(plugins, nullptr);
  loaded.set_and_update_from_state_db(&db);
  EXPECT_EQ(loaded.get_state_db(), &db);
  expect_same(snapshot_of(loaded), saved);
  EXPECT_EQ(loaded.get_workflows().size(), 3u);
}

TEST(StatePersistence, WorkflowChangedInPlaceIsSavedAgainAndUnchangedOnesAreNotReadAgain) {
  zeltest::scratch_dir dir;
  zelcore::plugin_db plugins;
  zelcapi::sqlite_state_db db(dir.file("mirror.db"));
  state st(plugins, nullptr, &db);
  fill(st);
  st.save_state_to_db(true);
  // Nothing changed: every record and workflow is the tree that the store committed.
  st.save_state_to_db(true);
  EXPECT_EQ(db.last_save_counts().written, 0u);
  EXPECT_EQ(db.last_save_counts().digested, 0u);
  EXPECT_EQ(db.last_save_counts().unchanged, 7u * 5u + 3u);

  // One workflow changed through itself, another through one of its tasks; neither tells the
  // state.
  auto it = st.get_workflows_non_const().begin();
  it->second->set_priority(7, zelworkflow::workflow_info::priority_absolute, 0, 10);
  ++it;
  it->second->get_task_info("t1")->set_job_allocated_license_capabilities(
      zelbase::ptr_refcount<const properties>(
          new properties(std::map<std::string, std::string>{{"solver", "2"}})));
  st.save_state_to_db(true);
  EXPECT_EQ(db.last_save_counts().written, 2u);
  EXPECT_EQ(db.last_save_counts().digested, 2u);
  expect_loads_as(db, st);

  // A workflow replaced by another object of equal content is read for its digest, not written.
  auto& first = st.get_workflows_non_const().begin()->second;
  first = boost::make_shared<zelworkflow::workflow_info>(*first);
  st.save_state_to_db(true);
  EXPECT_EQ(db.last_save_counts().written, 0u);
  EXPECT_EQ(db.last_save_counts().digested, 1u);
}

TEST(StatePersistence, MemorySaveLoadsIntoANewState) {
  zelcore::plugin_db plugins;
  zelcapi::memory_state_db db;
  state st(plugins, nullptr, &db);
  fill(st);
  st.save_state_to_db(true);
  expect_loads_as(db, st);
}

TEST(StatePersistence, FailingStoreIsReportedAndTheNextSaveSucceeds) {
  zeltest::capture_sink sink;
  zelcore::plugin_db plugins;
  hooked_store db;
  state st(plugins, nullptr, &db);
  fill(st);
  db.failing = true;
  st.save_state_to_db(true);
  EXPECT_EQ(db.results_stored, 0);
  EXPECT_EQ(db.saves_completed, 0);
  EXPECT_FALSE(db.has_saved_state());
  bool reported = false;
  for (const zelcore::report_record& r : sink.reports())
    reported |= r.message == "Failed to update state: disk on fire" && r.category == "State";
  EXPECT_TRUE(reported);

  db.failing = false;
  st.save_state_to_db(true);
  EXPECT_EQ(db.saves_completed, 1);
  expect_loads_as(db, st);
}

TEST(StatePersistence, OverlappingSaveIsSkippedWithoutWaitAndRunsAfterWithWait) {
  zeltest::capture_sink sink;
  zelcore::plugin_db plugins;
  hooked_store db;
  state st(plugins, nullptr, &db);
  st.item_set(zelcapi::state_item_job, "j1", job("first", 1));
  db.held = true;
  st.save_state_to_db(false);
  db.wait_for_saves_begun(1);

  st.item_set(zelcapi::state_item_job, "j2", job("second", 2));
  sink.clear();
  st.save_state_to_db(false);
  EXPECT_EQ(sink.messages(), std::vector<std::string>{still_active});
  EXPECT_EQ(db.saves_begun, 1);

  std::thread releaser([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    db.release();
  });
  sink.clear();
  st.save_state_to_db(true);
  releaser.join();
  ASSERT_FALSE(sink.messages().empty());
  EXPECT_EQ(sink.messages().front(), still_active);
  EXPECT_EQ(db.saves_begun, 2);
  EXPECT_EQ(db.saves_completed, 2);
  EXPECT_EQ(db.load_items(db_item_job)->size(), 2u);
}
