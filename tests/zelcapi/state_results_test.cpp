// Workflow results in a state: adding from an encoded tree, and how results travel in the
// snapshot ("workflow-results") with their second value.
#include <gtest/gtest.h>

#include "support/raised_message.h"
#include "zelbase/exceptions.h"
#include "zelcapi/recording_receiver.h"
#include "zelcapi/state.h"
#include "zelcapi/state_test_support.h"

using zelcapi::state;
using zelcapi::workflow_result_info;
using zelcore::make_int;
using zelcore::properties;
using strings = std::vector<std::string>;

namespace {

class StateResults : public testing::Test {
 protected:
  zelcore::plugin_db plugins;
  zeltest::recording_receiver receiver;
  state st{plugins, &receiver};

  properties results_snapshot() const {
    properties out(false);
    st.get_workflow_results(out);
    return out;
  }
};

}  // namespace

TEST_F(StateResults, ResultFromATreeWithOnlyStatusHasHtOneAndIsNotified) {
  st.workflow_result_add("WOFL-a", properties{{"st", make_int(3)}});
  EXPECT_EQ(st.get_workflow_result("WOFL-a").status, 3u);
  EXPECT_EQ(st.get_workflow_result("WOFL-a").ht, 1u);
  EXPECT_EQ(receiver.calls, strings{"on_workflow_result_added(WOFL-a,3,1)"});
}

TEST_F(StateResults, ReplacingWithADifferentHtNotifiesAgainAndKeepsTheNewHt) {
  st.workflow_result_add("WOFL-a", workflow_result_info(3u, 1u));
  st.workflow_result_add("WOFL-a", properties{{"st", make_int(3)}, {"ht", make_int(9)}});
  // Equal by status, yet the stored result is the new one.
  EXPECT_EQ(st.get_workflow_result("WOFL-a"), workflow_result_info(3u, 1u));
  EXPECT_EQ(st.get_workflow_result("WOFL-a").ht, 9u);
  EXPECT_EQ(receiver.calls, (strings{"on_workflow_result_added(WOFL-a,3,1)",
                                     "on_workflow_result_added(WOFL-a,3,9)"}));
}

TEST_F(StateResults, ResultsGoThroughASnapshotWithTheirHt) {
  st.workflow_result_add("WOFL-a", workflow_result_info(4u, 12u));
  st.workflow_result_add("WOFL-b", workflow_result_info(5u));
  const properties encoded = results_snapshot();
  EXPECT_EQ(encoded.get_properties_value("WOFL-a"),
            (properties{{"st", make_int(4)}, {"ht", make_int(12)}}));
  EXPECT_EQ(zeltest::snapshot_of(st).get_properties_value("workflow-results"), encoded);

  state copy{plugins, nullptr};
  properties snapshot(false);
  snapshot.set_properties_value("workflow-results", encoded);
  copy.set_state(snapshot);
  ASSERT_EQ(copy.get_workflow_results().size(), 2u);
  EXPECT_EQ(copy.get_workflow_result("WOFL-a").status, 4u);
  EXPECT_EQ(copy.get_workflow_result("WOFL-a").ht, 12u);
  EXPECT_EQ(copy.get_workflow_result("WOFL-b").ht, 1u);
}

TEST_F(StateResults, SnapshotResultsReplaceTheWholeMapSilently) {
  st.workflow_result_add("WOFL-old", workflow_result_info(1u));
  receiver.calls.clear();
  properties snapshot(false);
  snapshot.set_properties_value(
      "workflow-results",
      properties{{"WOFL-new", zeltest::child_of(properties{{"st", make_int(2)}})}});
  st.set_state(snapshot);
  EXPECT_FALSE(st.has_workflow_result("WOFL-old"));
  EXPECT_EQ(st.get_workflow_result("WOFL-new").ht, 1u);
  EXPECT_TRUE(receiver.calls.empty());
}

TEST_F(StateResults,
       SnapshotResultWithoutStatusRaisesKeepingResultsReadBeforeItAndSkippingLaterKeys) {
  st.workflow_result_add("WOFL-old", workflow_result_info(1u));
  properties results(false);
  results.set_properties_value("WOFL-a", properties{{"st", make_int(1)}});
  results.set_properties_value("WOFL-b", properties{{"ht", make_int(4)}});
  results.set_properties_value("WOFL-c", properties{{"st", make_int(2)}});
  properties snapshot(false);
  snapshot.set_properties_value("workflow-results", results);
  snapshot["workflow-seq-nr"] = make_int(50);
  EXPECT_EQ(zeltest::raised_message<zelbase::es::arg>([&] { st.set_state(snapshot); }),
            "property 'st' is missing");
  EXPECT_EQ(st.get_workflow_results().size(), 1u);
  EXPECT_TRUE(st.has_workflow_result("WOFL-a"));
  EXPECT_EQ(st.get_workflow_sequence_number(), 0u);  // a later key of the snapshot
}

TEST_F(StateResults, RemovingTheLastResultEmptiesTheEncoding) {
  st.workflow_result_add("WOFL-a", workflow_result_info(1u));
  EXPECT_TRUE(st.workflow_result_remove("WOFL-a"));
  EXPECT_FALSE(st.workflow_result_remove("WOFL-a"));
  EXPECT_TRUE(results_snapshot().empty());
  EXPECT_EQ(receiver.calls,
            (strings{"on_workflow_result_added(WOFL-a,1,1)", "on_workflow_result_removing(WOFL-a)",
                     "on_workflow_result_removed(WOFL-a)", "on_workflow_result_removing(WOFL-a)"}));
}
