// The saver thread writing copies of a state while the owning thread keeps changing it (built on
// its own so that the ThreadSanitizer preset can run just this binary).
#include <gtest/gtest.h>

#include "stores/store_test_support.h"
#include "support/capture_sink.h"
#include "support/sample_workflows.h"
#include "zelcapi/memory_db.h"
#include "zelcapi/sqlite_db.h"
#include "zelcapi/state.h"

using zelcapi::state;
using zelcore::make_int;
using zelcore::properties;

namespace {

// A state loaded from `db` equals `st`.
void expect_loaded_equal(const state& st, zelcapi::state_db& db) {
  zelcore::plugin_db plugins;
  state loaded(plugins, nullptr);
  loaded.set_and_update_from_state_db(&db);
  properties expected(false), got(false);
  st.get_state(expected);
  loaded.get_state(got);
  EXPECT_TRUE(got == expected);
}

void change_while_saving(state& st, zelcapi::state_db& db) {
  for (int round = 0; round < 200; ++round) {
    for (int n = 0; n < 20; ++n)
      st.item_update(zelcapi::state_item_job, "j" + std::to_string(n),
                     properties{{"round", make_int(round)}, {"n", make_int(n)}});
    st.item_remove(zelcapi::state_item_task, "t" + std::to_string(round - 1));
    st.item_set(zelcapi::state_item_task, "t" + std::to_string(round), zeltest::job("t", round));
    st.workflow_result_add("WOFL-" + std::to_string(round % 7),
                           zelcapi::workflow_result_info(static_cast<std::uint32_t>(round)));
    if (round % 25 == 0)
      st.add_workflow(
          "", zeltest::sample_workflow(zelworkflow::workflow_info::workflow_type_spawned, 3));
    st.save_state_to_db(false);
  }
  st.save_state_to_db(true);
  expect_loaded_equal(st, db);
}

}  // namespace

TEST(StateSaverThreads, OwnerChangesTheStateWhileTheSaverWritesToMemory) {
  zeltest::capture_sink sink;
  zelcore::plugin_db plugins;
  zelcapi::memory_state_db db;
  state st(plugins, nullptr, &db);
  change_while_saving(st, db);
}

TEST(StateSaverThreads, OwnerChangesTheStateWhileTheSaverWritesToSqlite) {
  zeltest::capture_sink sink;
  zeltest::scratch_dir dir;
  zelcore::plugin_db plugins;
  zelcapi::sqlite_state_db db(dir.file("mirror.db"));
  state st(plugins, nullptr, &db);
  change_while_saving(st, db);
}

namespace {

// A snapshot large enough to be decoded in one piece, whose jobs all name the same user and
// node: decoded at once, the records share those string values.
properties decoded_snapshot_of_jobs(int jobs) {
  properties records(false);
  for (int n = 0; n < jobs; ++n)
    records.set_properties_value("j" + std::to_string(n),
                                 properties{{"user", zelcore::make_string("operator-alice")},
                                            {"node", zelcore::make_string("node-0042")},
                                            {"n", make_int(n)}});
  properties snapshot(false);
  snapshot.set_properties_value("jobs", records);
  const std::string bytes = zelcore::encode_property(snapshot);
  return zelcore::decode_properties(bytes.data(), bytes.size());
}

const zelcore::property* user_of(const state& st, const std::string& id) {
  return st.get_item(zelcapi::state_item_job, id).get_property("user").get();
}

}  // namespace

TEST(StateSaverThreads, RecordsSharingADecodedValueChangeAloneWhileTheSaverWrites) {
  zeltest::capture_sink sink;
  zelcore::plugin_db plugins;
  zelcapi::memory_state_db db;
  state st(plugins, nullptr, &db);
  st.set_state(decoded_snapshot_of_jobs(2000));
  ASSERT_EQ(user_of(st, "j1"), user_of(st, "j2"));  // one property for the equal values
  st.save_state_to_db(false);
  for (int n = 0; n < 2000; n += 2)
    st.item_update(zelcapi::state_item_job, "j" + std::to_string(n),
                   properties{{"user", zelcore::make_string("operator-bob")}});
  st.save_state_to_db(true);
  for (int n = 0; n < 2000; ++n) {
    const std::string id = "j" + std::to_string(n);
    EXPECT_EQ(st.get_item(zelcapi::state_item_job, id).get_string_value("user"),
              n % 2 == 0 ? "operator-bob" : "operator-alice")
        << id;
    EXPECT_EQ(st.get_item(zelcapi::state_item_job, id).get_string_value("node"), "node-0042");
  }
  expect_loaded_equal(st, db);
}

TEST(StateSaverThreads, EqualValuesOfTwoSnapshotsAreNotShared) {
  const properties first = decoded_snapshot_of_jobs(1000);
  const properties second = decoded_snapshot_of_jobs(1000);
  const auto user = [](const properties& s, const char* id) {
    return s.get_properties_value("jobs").get_properties_value(id).get_property("user").get();
  };
  EXPECT_EQ(user(first, "j1"), user(first, "j999"));
  EXPECT_NE(user(first, "j1"), user(second, "j1"));
}
