// The typed suite of what the database stores promise beyond the state_db and history_db
// interfaces (zelcapi/save_counts.h): a load reads one save whole even when another connection
// commits a save in its middle, and a history batch left open is rolled back when its store
// closes. A test binary instantiates it with INSTANTIATE_TYPED_TEST_SUITE_P; a store is a type
// with `using db` (the state store's class), `static std::string location(const
// zeltest::scratch_dir&)` (a new, empty place for one test), `static std::unique_ptr<db>
// open(const std::string& location)` and `static std::unique_ptr<zelcapi::history_db>
// open_history(const std::string& location)`; each open is a connection of its own.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "stores/store_test_support.h"
#include "zelcapi/state.h"
#include "zelcore/plugin_db.h"

namespace database_store_suite {

using zelcore::properties;

// `count` records "<prefix>0", "<prefix>1", ... of the given status.
inline properties records(const std::string& prefix, int count, int status) {
  properties out(false);
  for (int n = 0; n < count; ++n)
    out.set_properties_value(prefix + std::to_string(n), zeltest::job(prefix, status));
  return out;
}

// A whole save of nodes and jobs, all of the given status, with that sequence number.
inline void save_all(zelcapi::state_db& db, int status) {
  db.begin_save();
  for (const auto& [id, record] : records("node-", 5, status))
    db.store_item(zelcapi::db_item_node, id, static_cast<const properties&>(*record));
  for (const auto& [id, record] : records("job-", 50, status))
    db.store_item(zelcapi::db_item_job, id, static_cast<const properties&>(*record));
  db.store_workflow_results(
      {{"WOFL-" + std::to_string(status), zelcapi::workflow_result_info(2u, 3u)}});
  db.store_workflow_sequence_number(static_cast<std::uint64_t>(status));
}

// A state_db that does `action` once, right after the load has read the nodes and before it
// reads the jobs.
class acting_after_nodes final : public zelcapi::forwarding_state_db {
 public:
  acting_after_nodes(state_db& inner, std::function<void()> action)
      : forwarding_state_db(inner), action_(std::move(action)) {}
  zelcapi::properties_cptr load_items(zelcapi::db_item_type type) override {
    zelcapi::properties_cptr loaded = forwarding_state_db::load_items(type);
    if (type == zelcapi::db_item_node && action_) std::exchange(action_, nullptr)();
    return loaded;
  }

 private:
  std::function<void()> action_;
};

// That `st` holds the whole save of `status`, and nothing of another.
inline void expect_loaded(const zelcapi::state& st, int status) {
  properties nodes(false), jobs(false);
  st.get_items(zelcapi::state_item_node, nodes);
  st.get_items(zelcapi::state_item_job, jobs);
  EXPECT_TRUE(nodes == records("node-", 5, status)) << "nodes of another save";
  EXPECT_TRUE(jobs == records("job-", 50, status)) << "jobs of another save";
  EXPECT_EQ(st.get_workflow_results().count("WOFL-" + std::to_string(status)), 1u);
  EXPECT_EQ(st.get_workflow_results().size(), 1u);
}

}  // namespace database_store_suite

template <class Store>
class DatabaseStoreTest : public testing::Test {
 protected:
  zeltest::scratch_dir dir;
  std::string location = Store::location(dir);
  std::unique_ptr<typename Store::db> db = Store::open(location);
  zelcore::plugin_db plugins;
};

TYPED_TEST_SUITE_P(DatabaseStoreTest);

TYPED_TEST_P(DatabaseStoreTest, SaveCommittedInTheMiddleOfALoadIsNotSeenByIt) {
  using namespace database_store_suite;
  save_all(*this->db, 1);
  // A reader of its own, as another program's would be, loads while the writer's next save
  // commits between the load's read of the nodes and its read of the jobs.
  const auto reader = TypeParam::open_reader(this->location);
  acting_after_nodes loading(*reader, [&] { save_all(*this->db, 2); });
  zelcapi::state st(this->plugins, nullptr);
  st.set_and_update_from_state_db(&loading);
  expect_loaded(st, 1);
  EXPECT_EQ(reader->load_workflow_sequence_number(), 2u);

  // The next load sees the new save whole.
  zelcapi::state again(this->plugins, nullptr);
  again.set_and_update_from_state_db(reader.get());
  expect_loaded(again, 2);
}

TYPED_TEST_P(DatabaseStoreTest, LoadThatRaisesEndsItsSnapshot) {
  using namespace database_store_suite;
  save_all(*this->db, 1);
  const auto reader = TypeParam::open_reader(this->location);
  acting_after_nodes failing(*reader, [] { throw std::runtime_error("the load fails here"); });
  zelcapi::state st(this->plugins, nullptr);
  EXPECT_THROW(st.set_and_update_from_state_db(&failing), std::runtime_error);
  save_all(*this->db, 2);
  zelcapi::state again(this->plugins, nullptr);
  again.set_and_update_from_state_db(reader.get());
  expect_loaded(again, 2);
}

TYPED_TEST_P(DatabaseStoreTest, HistoryBatchLeftOpenIsRolledBackWhenTheStoreCloses) {
  {
    const auto history = TypeParam::open_history(this->location);
    history->store_item(zelcapi::db_item_job, "j1", zeltest::job("one", 4));
    history->begin_batch();
    history->store_item(zelcapi::db_item_job, "j2", zeltest::job("two", 4));
    history->remove_item(zelcapi::db_item_job, "j1");
  }
  const auto reopened = TypeParam::open_history(this->location);
  zelcore::properties out(false);
  EXPECT_TRUE(reopened->load_item(zelcapi::db_item_job, "j1", out));
  EXPECT_FALSE(reopened->load_item(zelcapi::db_item_job, "j2", out));
  EXPECT_EQ(reopened->count_items(zelcapi::db_item_job), 1u);
}

REGISTER_TYPED_TEST_SUITE_P(DatabaseStoreTest, SaveCommittedInTheMiddleOfALoadIsNotSeenByIt,
                            LoadThatRaisesEndsItsSnapshot,
                            HistoryBatchLeftOpenIsRolledBackWhenTheStoreCloses);
