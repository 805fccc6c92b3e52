// The state's workflows: construction with or without history, lookups in state and history,
// and the workflow manager callbacks that move a removed workflow into history.
#include <gtest/gtest.h>

#include "support/raised_message.h"
#include "zelbase/exceptions.h"
#include "zelcapi/recording_receiver.h"
#include "zelcapi/state.h"
#include "zelcapi/state_test_support.h"

using zelcapi::state;
using zelcore::make_string;
using zelcore::properties;
using zeltest::raised_message;
using zelworkflow::workflow_info;
using strings = std::vector<std::string>;

namespace {

const properties remove_action{{"action", make_string("remove-workflow")},
                               {"state-id", make_string("W")}};

// A state keeping history in memory for a minute, at a clock that stands at 500, holding one
// template "W".
class StateWorkflows : public testing::Test, protected zeltest::state_with_history {
 protected:
  StateWorkflows() : state_with_history(500, 60) {}

  void SetUp() override {
    st.add_workflow("W", zeltest::sample_workflow(workflow_info::workflow_type_template, 2));
    receiver.calls.clear();
  }
};

}  // namespace

TEST_F(StateWorkflows, AddingThroughTheStateEntersTheOwnMapAndDescribesTheAdd) {
  st.add_workflow("X", zeltest::sample_workflow(workflow_info::workflow_type_init, 1));
  EXPECT_TRUE(st.has_workflow_in_state("X"));
  const zelcapi::workflow_manager& manager = st.get_workflow_manager();
  EXPECT_NE(manager.get_workflow_info("X"), nullptr);
  ASSERT_EQ(receiver.calls.size(), 1u);
  EXPECT_EQ(receiver.calls[0].rfind("on_workflow_was_updated(X,{\"action\":\"add-workflow\"", 0),
            0u)
      << receiver.calls[0];
}

TEST_F(StateWorkflows, SpawnsDrawFromTheStatesOwnCounter) {
  st.add_workflow("S", zeltest::sample_workflow(workflow_info::workflow_type_spawned, 1));
  EXPECT_EQ(st.get_workflow_sequence_number(), 1u);
  EXPECT_EQ(st.get_workflow_from_state("S")->get_sequence_number(), 1u);
}

TEST_F(StateWorkflows, RemovedWorkflowGoesToHistoryAsTheSameObject) {
  const workflow_info* live = st.get_workflow_from_state("W").get();
  st.remove_workflow("W");
  EXPECT_FALSE(st.has_workflow_in_state("W"));
  ASSERT_TRUE(st.has_workflow_in_history("W"));
  EXPECT_EQ(st.get_workflow_from_history("W").get(), live);
  EXPECT_EQ(st.get_workflow_from_state_or_history("W").get(), live);
  EXPECT_EQ(live->get_workflow_meta_data().get_int_value("remove-time"), 500);
  ASSERT_EQ(receiver.calls.size(), 2u);
  EXPECT_EQ(receiver.calls[0].rfind("on_workflow_will_be_updated(W,", 0), 0u);
  EXPECT_EQ(receiver.calls[1].rfind("on_workflow_was_updated(W,", 0), 0u);
}

TEST_F(StateWorkflows, HistorizedWorkflowIsDroppedByCleaningAtItsRemoveTime) {
  st.remove_workflow("W");
  st.clean_history(499);
  EXPECT_TRUE(st.has_workflow_in_history("W"));
  st.clean_history(500);
  EXPECT_FALSE(st.has_workflow_in_history("W"));
}

TEST_F(StateWorkflows, InStateOrHistoryAnswersOneTwoOrZero) {
  EXPECT_EQ(st.has_workflow_in_state_or_history("W"), 1);
  st.remove_workflow("W");
  EXPECT_EQ(st.has_workflow_in_state_or_history("W"), 2);
  st.add_workflow("W", zeltest::sample_workflow(workflow_info::workflow_type_template, 1));
  EXPECT_TRUE(st.has_workflow_in_history("W"));
  EXPECT_EQ(st.has_workflow_in_state_or_history("W"), 1);
  EXPECT_EQ(st.has_workflow_in_state_or_history("absent"), 0);
}

TEST(StateWorkflowsWithoutHistory, InStateOrHistoryIsZeroForAnIdThatIsNotLive) {
  zelcore::plugin_db plugins;
  state st{plugins, nullptr};
  st.add_workflow("W", zeltest::sample_workflow(workflow_info::workflow_type_template, 1));
  st.remove_workflow("W");
  EXPECT_EQ(st.has_workflow_in_state_or_history("W"), 0);
  EXPECT_FALSE(st.has_history());
}

TEST(StateWorkflowsWithoutHistory, NoHistoryDbAndNoKeepTimeMeansNoHistory) {
  zelcore::plugin_db plugins;
  state st{plugins, nullptr, nullptr, nullptr, 0};
  EXPECT_FALSE(st.has_history());
  EXPECT_EQ(raised_message<zelbase::es::uspec>([&] {
              properties out;
              st.get_history(out);
            }),
            "can't get history without history");
}

TEST_F(StateWorkflows, LookupsOfUnknownIdsRaiseArgumentErrors) {
  EXPECT_EQ(raised_message<zelbase::es::arg>([&] { st.get_workflow_from_state("absent"); }),
            "Workflow ID not found in state");
  EXPECT_EQ(
      raised_message<zelbase::es::arg>([&] { st.get_workflow_from_state_or_history("absent"); }),
      "Workflow ID not found in state or history");
  EXPECT_EQ(raised_message<zelbase::es::arg>([&] { st.get_workflow_from_history("W"); }),
            "Workflow ID not found in history");
  st.remove_workflow("W");
  EXPECT_EQ(raised_message<zelbase::es::arg>([&] { st.get_workflow_from_state("W"); }),
            "Workflow ID not found in state");
}

TEST(StateWorkflowsWithoutHistory, LookupInStateOrHistoryRaisesTheSameText) {
  zelcore::plugin_db plugins;
  state st{plugins, nullptr};
  EXPECT_EQ(raised_message<zelbase::es::arg>([&] { st.get_workflow_from_state_or_history("W"); }),
            "Workflow ID not found in state or history");
}

TEST_F(StateWorkflows, RemoveActionForAnIdThatIsNotLiveChangesNoHistory) {
  st.set_history_db(&history_db);
  st.wm_cb_workflow_will_be_updated("absent", remove_action);
  EXPECT_FALSE(st.has_workflow_in_history("absent"));
  EXPECT_TRUE(st.get_historized_workflows().empty());
  EXPECT_TRUE(history_db.calls.empty());
  EXPECT_EQ(receiver.calls.size(), 1u);
  st.clean_history(500);  // no time entry either
  EXPECT_TRUE(st.has_workflow_in_state("W"));
}

TEST_F(StateWorkflows, OtherActionsChangeNoHistory) {
  st.wm_cb_workflow_will_be_updated(
      "W", properties{{"action", make_string("set-priority")}, {"state-id", make_string("W")}});
  EXPECT_TRUE(st.get_historized_workflows().empty());
  EXPECT_TRUE(st.has_workflow_in_state("W"));
}

TEST_F(StateWorkflows, WithHistoryStateAndHistoryDbARemovedWorkflowGoesToBoth) {
  st.set_history_db(&history_db);
  properties encoded(false);
  st.get_workflow_from_state("W")->encode_workflow_info(encoded);
  st.remove_workflow("W");
  EXPECT_TRUE(st.has_workflow_in_history("W"));
  EXPECT_EQ(history_db.calls, strings{"store_item(7,W)"});
  // The history_db gets the workflow as it was before the removal stamped it.
  EXPECT_EQ(history_db.stored.at("7/W"), encoded);
}

TEST(StateWorkflowsHistoryDb, RemovedWorkflowGoesToTheHistoryDbOnly) {
  zelcore::plugin_db plugins;
  zeltest::recording_history_db history_db;
  state st{plugins, nullptr, nullptr, &history_db, 60};
  st.add_workflow("W", zeltest::sample_workflow(workflow_info::workflow_type_spawned, 1));
  st.remove_workflow("W");
  EXPECT_EQ(history_db.calls, strings{"store_item(7,W)"});
  EXPECT_EQ(st.has_workflow_in_state_or_history("W"), 0);
}

TEST_F(StateWorkflows, UpdateWithoutActionRaisesAfterTheReceiverWhenHistoryIsKept) {
  EXPECT_EQ(raised_message<zelbase::es::arg>(
                [&] { st.wm_cb_workflow_will_be_updated("W", properties{}); }),
            "property 'action' is missing");
  EXPECT_EQ(receiver.calls, strings{"on_workflow_will_be_updated(W,{})"});
}

TEST(StateWorkflowsWithoutHistory, UpdateWithoutActionOnlyReachesTheReceiver) {
  zelcore::plugin_db plugins;
  zeltest::recording_receiver receiver;
  state st{plugins, &receiver};
  st.wm_cb_workflow_will_be_updated("W", properties{});
  st.wm_cb_workflow_was_updated("W", properties{});
  EXPECT_EQ(receiver.calls,
            (strings{"on_workflow_will_be_updated(W,{})", "on_workflow_was_updated(W,{})"}));
}

TEST_F(StateWorkflows, UpdatesThroughTheStateReachTheManager) {
  st.update_workflow(remove_action);
  EXPECT_FALSE(st.has_workflow_in_state("W"));
  EXPECT_TRUE(st.has_workflow_in_history("W"));
}
