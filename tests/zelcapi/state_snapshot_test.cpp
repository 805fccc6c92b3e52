// The state snapshot: what get_state writes, how set_state applies a snapshot key by key, and
// what a malformed snapshot leaves behind.
#include <gtest/gtest.h>

#include <typeinfo>

#include "support/raised_message.h"
#include "zelbase/exceptions.h"
#include "zelcapi/recording_receiver.h"
#include "zelcapi/state.h"
#include "zelcapi/state_test_support.h"

using zelcapi::state;
using zelcapi::state_item_client;
using zelcapi::state_item_job;
using zelcapi::state_item_node;
using zelcore::make_int;
using zelcore::make_string;
using zelcore::properties;
using zelworkflow::workflow_info;

namespace {

class StateSnapshot : public testing::Test {
 protected:
  zelcore::plugin_db plugins;
  zeltest::recording_receiver receiver;
  state st{plugins, &receiver};

  // A state with a client, a job, a result, a workflow and sequence number 4.
  void fill_a_little() {
    st.item_set(state_item_client, "c1", properties{{"x", make_int(1)}});
    st.item_set(state_item_job, "j1", properties{{"y", make_int(2)}});
    st.workflow_result_add("WOFL-r", zelcapi::workflow_result_info(2u, 5u));
    st.add_workflow("W", zeltest::sample_workflow(workflow_info::workflow_type_template, 2));
    st.get_workflow_manager().set_current_sequence_number(4);
    receiver.calls.clear();
  }
};

properties with(const char* key, const properties& child) {
  properties out(false);
  out.set_properties_value(key, child);
  return out;
}

}  // namespace

TEST_F(StateSnapshot, FreshStateHasEmptyPartsAndSequenceNumberZero) {
  const properties snapshot = zeltest::snapshot_of(st);
  EXPECT_EQ(snapshot.size(), 10u);
  for (const char* key : zeltest::item_keys)
    EXPECT_EQ(snapshot.get_properties_value(key), properties());
  EXPECT_EQ(snapshot.get_properties_value("workflow-results"), properties());
  EXPECT_EQ(snapshot.get_properties_value("workflows"), properties());
  EXPECT_EQ(snapshot.get_int_value("workflow-seq-nr"), 0);
}

TEST_F(StateSnapshot, WritersKeepOtherKeysOfTheOutput) {
  st.item_set(state_item_job, "j1", properties{{"a", make_int(1)}});
  properties items{{"x", make_string("kept")}};
  st.get_items(state_item_job, items);
  EXPECT_EQ(items, (properties{{"j1", zeltest::child_of(properties{{"a", make_int(1)}})},
                               {"x", make_string("kept")}}));

  properties whole{{"extra", make_int(9)}};
  st.get_state(whole);
  EXPECT_EQ(whole.size(), 11u);
  EXPECT_EQ(whole.get_int_value("extra"), 9);
}

TEST_F(StateSnapshot, RecordsAreCopiedNotShared) {
  st.item_set(state_item_job, "j1", properties{{"a", make_int(1)}});
  properties snapshot = zeltest::snapshot_of(st);
  st.item_update(state_item_job, "j1", properties{{"a", make_int(2)}});
  EXPECT_EQ(snapshot.get_properties_value("jobs").get_properties_value("j1").get_int_value("a"), 1);
}

TEST_F(StateSnapshot, SnapshotWithOnlyJobsReplacesTheJobsAndKeepsEverythingElse) {
  fill_a_little();
  properties before = zeltest::snapshot_of(st);
  st.set_state(with("jobs", properties{{"j2", zeltest::child_of(properties{{"z", make_int(3)}})}}));

  ASSERT_EQ(st.get_items(state_item_job).size(), 1u);
  EXPECT_EQ(st.get_item(state_item_job, "j2"), (properties{{"z", make_int(3)}}));
  properties after = zeltest::snapshot_of(st);
  after.erase("jobs");
  before.erase("jobs");
  EXPECT_EQ(after, before);
  EXPECT_EQ(st.get_workflow_sequence_number(), 4u);
  EXPECT_TRUE(receiver.calls.empty());
}

TEST_F(StateSnapshot, KeysInAnotherCaseOrSingularAreIgnored) {
  fill_a_little();
  const properties before = zeltest::snapshot_of(st);
  const properties stray{{"j9", zeltest::child_of(properties())}};
  properties snapshot(false);
  for (const char* key : {"Jobs", "JOBS", "job", "workflow", "Workflow-Results"})
    snapshot.set_properties_value(key, stray);
  snapshot["Workflow-Seq-Nr"] = make_int(77);
  st.set_state(snapshot);
  EXPECT_EQ(zeltest::snapshot_of(st), before);
}

TEST_F(StateSnapshot, StringChildOfWorkflowsIsSkippedAndTheOthersAreAdded) {
  fill_a_little();
  properties workflows(false);
  workflows.set_properties_value(
      "A", zeltest::sample_workflow(workflow_info::workflow_type_template, 1));
  workflows["B"] = make_string("not a workflow");
  workflows.set_properties_value("C",
                                 zeltest::sample_workflow(workflow_info::workflow_type_init, 1));
  st.set_state(with("workflows", workflows));

  ASSERT_EQ(st.get_workflows().size(), 2u);  // "W" is replaced with the snapshot's workflows
  EXPECT_EQ(st.get_workflow_from_state("A")->get_type(), workflow_info::workflow_type_template);
  EXPECT_EQ(st.get_workflow_from_state("C")->get_type(), workflow_info::workflow_type_init);
  EXPECT_FALSE(st.has_workflow_in_state("B"));
}

TEST_F(StateSnapshot, SequenceNumberIsSetBeforeTheWorkflowsAreAdded) {
  properties snapshot(false);
  snapshot["workflow-seq-nr"] = make_int(7);
  properties workflows(false);
  workflows.set_properties_value("S",
                                 zeltest::sample_workflow(workflow_info::workflow_type_spawned, 1));
  snapshot.set_properties_value("workflows", workflows);
  st.set_state(snapshot);
  // A spawned workflow that was never spawned is spawned on adding, with the snapshot's number + 1.
  EXPECT_EQ(st.get_workflow_from_state("S")->get_sequence_number(), 8u);
  EXPECT_EQ(st.get_workflow_sequence_number(), 8u);
}

TEST_F(StateSnapshot, SequenceNumberKeepsAllSixtyFourBits) {
  properties snapshot(false);
  snapshot["workflow-seq-nr"] = make_int(-2);
  st.set_state(snapshot);
  EXPECT_EQ(st.get_workflow_sequence_number(), 0xFFFFFFFFFFFFFFFEu);
  EXPECT_EQ(zeltest::snapshot_of(st).get_int_value("workflow-seq-nr"), -2);
}

TEST_F(StateSnapshot, ItemsAndResultsAreAppliedWithoutNotifying) {
  fill_a_little();
  properties snapshot = zeltest::snapshot_of(st);
  snapshot.erase("workflows");
  state fresh{plugins, &receiver};
  fresh.set_state(snapshot);
  EXPECT_TRUE(receiver.calls.empty());
  EXPECT_EQ(fresh.get_item(state_item_client, "c1"), st.get_item(state_item_client, "c1"));
}

TEST_F(StateSnapshot, EveryPartGoesThroughASnapshotIntoAFreshStateAndBack) {
  zeltest::fill_every_part(st);
  const properties snapshot = zeltest::snapshot_of(st);
  EXPECT_EQ(snapshot.get_properties_value("workflows").size(), 4u);
  EXPECT_EQ(snapshot.get_int_value("workflow-seq-nr"), 2);

  state copy{plugins, nullptr};
  copy.set_state(snapshot);
  EXPECT_EQ(zeltest::snapshot_of(copy), snapshot);
  EXPECT_EQ(copy.get_workflow_sequence_number(), 2u);
  EXPECT_EQ(copy.get_workflow_result("WOFL-r1").ht, 7u);
}

TEST_F(StateSnapshot, JobsHoldingAStringRecordRaiseBadCastAndStopThere) {
  st.item_set(state_item_job, "old", properties());
  st.item_set(state_item_node, "n-old", properties());
  properties jobs(false);
  jobs.set_properties_value("j1", properties{{"a", make_int(1)}});
  jobs["j2"] = make_string("not a record");
  jobs.set_properties_value("j3", properties{{"a", make_int(3)}});
  properties snapshot(false);
  snapshot.set_properties_value("clients", properties{{"c1", zeltest::child_of(properties())}});
  snapshot.set_properties_value("jobs", jobs);
  snapshot.set_properties_value("nodes", properties{{"n1", zeltest::child_of(properties())}});

  EXPECT_THROW(st.set_state(snapshot), std::bad_cast);
  // "clients" comes before "jobs": applied. "j1" was copied before the failure. "nodes" after.
  EXPECT_EQ(st.get_items(state_item_client).size(), 1u);
  EXPECT_TRUE(st.has_item(state_item_client, "c1"));
  ASSERT_EQ(st.get_items(state_item_job).size(), 1u);
  EXPECT_EQ(st.get_item(state_item_job, "j1"), (properties{{"a", make_int(1)}}));
  ASSERT_EQ(st.get_items(state_item_node).size(), 1u);
  EXPECT_TRUE(st.has_item(state_item_node, "n-old"));
}

TEST_F(StateSnapshot, SequenceNumberThatIsNotAnIntegerRaisesBadCastAndKeepsTheCounter) {
  fill_a_little();
  properties snapshot(false);
  snapshot.set_properties_value("jobs", properties());
  snapshot["workflow-seq-nr"] = make_string("7");
  snapshot.set_properties_value("workflows", properties());
  EXPECT_THROW(st.set_state(snapshot), std::bad_cast);
  EXPECT_TRUE(st.get_items(state_item_job).empty());  // before the sequence number: applied
  EXPECT_EQ(st.get_workflow_sequence_number(), 4u);
  EXPECT_TRUE(st.has_workflow_in_state("W"));  // after it: not applied
}

TEST_F(StateSnapshot, ErrorOfAddingAWorkflowPropagatesAfterTheWorkflowsBeforeIt) {
  properties workflows(false);
  workflows.set_properties_value(
      "A", zeltest::sample_workflow(workflow_info::workflow_type_template, 1));
  workflows.set_properties_value("B", properties{{"type", make_int(9)}});
  workflows.set_properties_value(
      "C", zeltest::sample_workflow(workflow_info::workflow_type_template, 1));
  EXPECT_THROW(st.set_state(with("workflows", workflows)), zelbase::es::base);
  EXPECT_TRUE(st.has_workflow_in_state("A"));
  EXPECT_FALSE(st.has_workflow_in_state("B"));
  EXPECT_FALSE(st.has_workflow_in_state("C"));
}
