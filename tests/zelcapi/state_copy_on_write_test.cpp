// The state's records against a copy taken by a save: every kind of change the state applies
// gives the changed record content of its own and leaves the copy's content as it was, so that a
// store may take a record whose content is the one it last wrote as unchanged without reading it.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>

#include "zelcapi/state.h"

using zelcapi::state;
using zelcapi::state_item_job;
using zelcore::make_int;
using zelcore::make_string;
using zelcore::properties;
using zelcore::property_ptr;

namespace {

properties job(int n) {
  return properties{
      {"id", make_string("job-" + std::to_string(n))},
      {"name", make_string("name of job " + std::to_string(n))},
      {"status", make_int(n)},
      {"resources", property_ptr(new properties{
                        {"cpu", make_int(2)},
                        {"limits", property_ptr(new properties{{"memory", make_int(1024)}})}})},
  };
}

class StateCopyOnWriteTest : public testing::Test {
 protected:
  StateCopyOnWriteTest() {
    for (int n = 0; n < 10; ++n) st.item_set(state_item_job, "job-" + std::to_string(n), job(n));
  }

  // Takes the copy that a save takes, with each record's encoding at that time, applies
  // `change`, and checks that the copy's content is unchanged and that exactly the records in
  // `changed` hold content other than the copy's.
  void expect_after(const std::function<void()>& change,
                    const std::map<std::string, bool>& changed) {
    const state::item_map copy = st.get_items(state_item_job);
    std::map<std::string, std::string> encoded;
    for (const auto& [id, record] : copy) encoded[id] = zelcore::encode_property(record);
    change();
    const state::item_map& now = st.get_items(state_item_job);
    for (const auto& [id, record] : copy) {
      EXPECT_EQ(zelcore::encode_property(record), encoded[id]) << id << ": the copy changed";
      const auto it = now.find(id);
      if (it == now.end()) continue;
      const bool is_changed = changed.count(id) != 0;
      // Content shared by two trees is at one address (what the stores compare).
      EXPECT_EQ(it->second.begin() != record.begin(), is_changed) << id;
      if (is_changed) {
        EXPECT_NE(zelcore::encode_property(it->second), encoded[id]) << id;
      }
    }
  }

  zelcore::plugin_db plugins;
  state st{plugins, nullptr};
};

}  // namespace

TEST_F(StateCopyOnWriteTest, ItemSetReplacesTheRecordWithoutTouchingTheCopy) {
  expect_after([&] { st.item_set(state_item_job, "job-2", job(20)); }, {{"job-2", true}});
}

TEST_F(StateCopyOnWriteTest, ItemUpdateOfALeafDetachesTheRecord) {
  expect_after(
      [&] {
        st.item_update(state_item_job, "job-3", properties{{"status", make_int(77)}});
      },
      {{"job-3", true}});
}

TEST_F(StateCopyOnWriteTest, ItemUpdateOfANewKeyDetachesTheRecord) {
  expect_after(
      [&] {
        st.item_update(state_item_job, "job-4", properties{{"added", make_int(1)}});
      },
      {{"job-4", true}});
}

TEST_F(StateCopyOnWriteTest, ItemUpdateOfANestedLeafLeavesTheCopysNestedTreesAsTheyWere) {
  expect_after(
      [&] {
        st.item_update(
            state_item_job, "job-5",
            properties{{"resources",
                        property_ptr(new properties{
                            {"limits", property_ptr(new properties{{"memory", make_int(9)}})}})}});
      },
      {{"job-5", true}});
}

TEST_F(StateCopyOnWriteTest, TwoChangesBetweenCopiesLeaveTheCopyAsItWas) {
  expect_after(
      [&] {
        st.item_update(state_item_job, "job-6", properties{{"status", make_int(1)}});
        st.item_update(state_item_job, "job-6", properties{{"status", make_int(2)}});
        st.item_erase_property_ref(state_item_job, "job-6", "/resources/cpu");
      },
      {{"job-6", true}});
}

TEST_F(StateCopyOnWriteTest, ErasingAPropertyDetachesTheRecord) {
  expect_after([&] { st.item_erase_property_ref(state_item_job, "job-7", "/name"); },
               {{"job-7", true}});
  expect_after(
      [&] { st.item_erase_property_ref(state_item_job, "job-8", "/resources/limits/memory"); },
      {{"job-8", true}});
}

TEST_F(StateCopyOnWriteTest, RemovingAndAddingRecordsLeavesTheOthersShared) {
  expect_after(
      [&] {
        st.item_remove(state_item_job, "job-1");
        st.item_set(state_item_job, "job-new", job(30));
      },
      {});
  EXPECT_FALSE(st.has_item(state_item_job, "job-1"));
}

TEST_F(StateCopyOnWriteTest, UpdateWithoutALeafLeavesTheRecordShared) {
  expect_after([&] { st.item_update(state_item_job, "job-0", properties()); }, {});
}

TEST_F(StateCopyOnWriteTest, SetStateAndClearLeaveTheCopyAsItWas) {
  expect_after(
      [&] {
        properties records(false);
        records.set_properties_value("job-0", job(40));
        properties snapshot(false);
        snapshot.set_properties_value("jobs", records);
        st.set_state(snapshot);
      },
      {{"job-0", true}});
  expect_after([&] { st.clear_state(state_item_job); }, {});
  EXPECT_TRUE(st.get_items(state_item_job).empty());
}
