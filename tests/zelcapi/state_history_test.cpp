// The state's history: historizing items and workflows, cleaning by time, the keep time, and
// the removal operations with what each tells the receiver and the history_db.
#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "support/raised_message.h"
#include "zelbase/exceptions.h"
#include "zelcapi/recording_receiver.h"
#include "zelcapi/state.h"
#include "zelcapi/state_test_support.h"

using zelcapi::state;
using zelcapi::state_item_job;
using zelcapi::state_item_node;
using zelcapi::state_item_type;
using zelcore::make_int;
using zelcore::properties;
using zeltest::raised_message;
using zelworkflow::workflow_info;
using strings = std::vector<std::string>;

namespace {

// A state keeping history in memory for an hour, at a clock that starts at 1000.
class StateHistory : public testing::Test, protected zeltest::state_with_history {
 protected:
  StateHistory() : state_with_history(1000, 3600) {}

  void historize_job(const std::string& id, const properties& record) {
    st.item_set(state_item_job, id, record);
    st.item_historize(state_item_job, id);
  }
  // Adds a workflow of `type` under `id` and removes it again, into history.
  void historize_workflow(const std::string& id, workflow_info::workflow_type type) {
    st.add_workflow(id, zeltest::sample_workflow(type, 1));
    st.remove_workflow(id);
  }
  const state::item_map& history_jobs() const { return st.get_history_items(state_item_job); }
};

const auto bad_type = static_cast<state_item_type>(7);

}  // namespace

TEST_F(StateHistory, HistorizeMovesTheItemAndNotifiesAroundIt) {
  historize_job("j1", properties{{"a", make_int(1)}});
  EXPECT_FALSE(st.has_item(state_item_job, "j1"));
  ASSERT_EQ(history_jobs().size(), 1u);
  EXPECT_EQ(history_jobs().at("j1"), (properties{{"a", make_int(1)}}));
  EXPECT_EQ(receiver.calls, (strings{"on_item_set(5,j1,{\"a\":1})", "on_item_historizing(5,j1)",
                                     "on_item_historized(5,j1)"}));
}

TEST_F(StateHistory, CleanHistoryRemovesAnEntryAtTheBoundAndKeepsOneAfterIt) {
  historize_job("j1", properties());
  st.clean_history(999);
  EXPECT_EQ(history_jobs().count("j1"), 1u);
  st.clean_history(1000);
  EXPECT_TRUE(history_jobs().empty());
}

TEST_F(StateHistory, CleanHistoryWithoutBoundUsesTheKeepTime) {
  historize_job("j1", properties());
  clock.now = 1000 + 3599;
  st.clean_history();
  EXPECT_EQ(history_jobs().count("j1"), 1u);
  clock.now = 1000 + 3600;
  st.clean_history();
  EXPECT_TRUE(history_jobs().empty());
}

TEST_F(StateHistory, HistorizingTwiceMergesAndTheOlderEntryAlreadyRemovesTheItem) {
  historize_job("j1", properties{{"a", make_int(1)}});
  clock.now = 2000;
  historize_job("j1", properties{{"b", make_int(2)}});
  EXPECT_EQ(history_jobs().at("j1"), (properties{{"a", make_int(1)}, {"b", make_int(2)}}));

  st.clean_history(1500);
  EXPECT_TRUE(history_jobs().empty());
  st.clean_history(2000);  // the second entry finds nothing left to remove
  EXPECT_TRUE(history_jobs().empty());
}

TEST_F(StateHistory, HistorizingAnIdThatIsNotLiveRaisesAfterOnlyTheFirstNotification) {
  historize_job("j1", properties());
  receiver.calls.clear();
  EXPECT_EQ(raised_message<zelbase::es::arg>([&] { st.item_historize(state_item_job, "nope"); }),
            "state does not have item id nope");
  EXPECT_EQ(receiver.calls, strings{"on_item_historizing(5,nope)"});
  EXPECT_EQ(history_jobs().size(), 1u);
  st.clean_history(1000);  // no time entry was added for "nope"
  EXPECT_TRUE(history_jobs().empty());
}

TEST(StateHistoryDb, HistorizingAnIdThatIsNotLiveRaisesBeforeTheHistoryDbIsTold) {
  zelcore::plugin_db plugins;
  zeltest::recording_history_db history_db;
  state st{plugins, nullptr, nullptr, &history_db, 3600};
  EXPECT_EQ(raised_message<zelbase::es::arg>([&] { st.item_historize(state_item_job, "nope"); }),
            "state does not have item id nope");
  EXPECT_TRUE(history_db.calls.empty());
}

TEST(StateWithoutHistory, HistorizingAnIdThatIsNotLiveOnlyNotifies) {
  zelcore::plugin_db plugins;
  zeltest::recording_receiver receiver;
  state st{plugins, &receiver};
  st.item_historize(state_item_job, "nope");
  EXPECT_EQ(receiver.calls, (strings{"on_item_historizing(5,nope)", "on_item_historized(5,nope)"}));
}

TEST_F(StateHistory, AddToHistoryOfAnIdThatIsNotLiveStoresItWithoutError) {
  const properties record{{"a", make_int(1)}};
  st.item_add_to_history(state_item_job, "j9", record);
  EXPECT_EQ(history_jobs().at("j9"), record);
  EXPECT_EQ(receiver.calls, (strings{"on_item_adding_to_history(5,j9,{\"a\":1})",
                                     "on_item_added_to_history(5,j9,{\"a\":1})"}));
  st.clean_history(1000);
  EXPECT_TRUE(history_jobs().empty());
}

TEST_F(StateHistory, AddToHistoryStoresTheGivenRecordAndDropsTheLiveOne) {
  st.item_set(state_item_job, "j1", properties{{"live", make_int(1)}});
  st.item_add_to_history(state_item_job, "j1", properties{{"given", make_int(2)}});
  EXPECT_FALSE(st.has_item(state_item_job, "j1"));
  EXPECT_EQ(history_jobs().at("j1"), (properties{{"given", make_int(2)}}));
}

TEST_F(StateHistory, ZeroKeepTimeDiscardsTheHistoryAndALaterOneStartsEmpty) {
  historize_job("j1", properties());
  historize_workflow("S", workflow_info::workflow_type_spawned);
  st.set_history_keep_time(0);
  EXPECT_FALSE(st.has_history());
  EXPECT_EQ(raised_message<zelbase::es::uspec>([&] {
              properties out;
              st.get_history(out);
            }),
            "can't get history without history");
  st.set_history_keep_time(60);
  EXPECT_TRUE(st.has_history());
  EXPECT_EQ(st.get_history_keep_time(), 60u);
  EXPECT_TRUE(history_jobs().empty());
  EXPECT_TRUE(st.get_historized_workflows().empty());
}

TEST(StateHistoryDb, HistoryDbAtConstructionMeansNoHistoryState) {
  zelcore::plugin_db plugins;
  zeltest::recording_history_db history_db;
  state st{plugins, nullptr, nullptr, &history_db, 3600};
  EXPECT_FALSE(st.has_history());
  EXPECT_EQ(st.get_history_db(), &history_db);
  EXPECT_EQ(raised_message<zelbase::es::uspec>([&] {
              properties out;
              st.get_history(out);
            }),
            "can't get history without history");
  EXPECT_EQ(raised_message<zelbase::es::uspec>([&] { st.get_history_items(state_item_job); }),
            "can't get history items without history");
  EXPECT_EQ(raised_message<zelbase::es::uspec>([&] { st.get_historized_workflows(); }),
            "can't get historized workflows without history");
  EXPECT_FALSE(st.has_workflow_in_history("W"));
  EXPECT_EQ(raised_message<zelbase::es::arg>([&] { st.get_workflow_from_history("W"); }),
            "Workflow ID not found in history");
  properties out{{"untouched", make_int(1)}};
  EXPECT_FALSE(st.get_state_or_history_item(state_item_job, "j1", out));
  EXPECT_EQ(out, (properties{{"untouched", make_int(1)}}));
  // A keep time set later does not create one either while the history_db is set.
  st.set_history_keep_time(10);
  EXPECT_FALSE(st.has_history());
}

TEST(StateHistoryDb, HistorizeWritesTheLiveRecordAndCleaningPassesTheBound) {
  zelcore::plugin_db plugins;
  zeltest::recording_history_db history_db;
  state st{plugins, nullptr, nullptr, &history_db, 3600};
  st.item_set(state_item_node, "n1", properties{{"a", make_int(1)}});
  st.item_historize(state_item_node, "n1");
  st.item_add_to_history(state_item_job, "j1", properties{{"b", make_int(2)}});
  st.clean_history(1234);
  EXPECT_EQ(history_db.calls, (strings{"store_item(1,n1)", "store_item(5,j1)",
                                       "remove_items_historized_until(1234)"}));
  EXPECT_EQ(history_db.stored.at("1/n1"), (properties{{"a", make_int(1)}}));
  EXPECT_EQ(history_db.stored.at("5/j1"), (properties{{"b", make_int(2)}}));
  EXPECT_FALSE(st.has_item(state_item_node, "n1"));
}

TEST_F(StateHistory, WithBothHistoriesEachHistorizeAndCleanReachesBoth) {
  st.set_history_db(&history_db);
  historize_job("j1", properties{{"a", make_int(1)}});
  st.clean_history(1000);
  EXPECT_TRUE(history_jobs().empty());
  EXPECT_EQ(history_db.calls, (strings{"store_item(5,j1)", "remove_items_historized_until(1000)"}));
}

TEST_F(StateHistory, LookupFindsTheLiveRecordFirstThenTheHistorizedOne) {
  historize_job("j1", properties{{"old", make_int(1)}});
  properties out;
  ASSERT_TRUE(st.get_state_or_history_item(state_item_job, "j1", out));
  EXPECT_EQ(out, (properties{{"old", make_int(1)}}));
  st.item_set(state_item_job, "j1", properties{{"new", make_int(2)}});
  ASSERT_TRUE(st.get_state_or_history_item(state_item_job, "j1", out));
  EXPECT_EQ(out, (properties{{"new", make_int(2)}}));
  properties untouched{{"u", make_int(3)}};
  EXPECT_FALSE(st.get_state_or_history_item(state_item_job, "j2", untouched));
  EXPECT_EQ(untouched, (properties{{"u", make_int(3)}}));
}

TEST_F(StateHistory, GetHistoryGivesTheHistoryAsASnapshot) {
  historize_job("j1", properties{{"a", make_int(1)}});
  historize_workflow("T", workflow_info::workflow_type_template);
  properties history;
  st.get_history(history);
  EXPECT_EQ(history.size(), 10u);
  EXPECT_EQ(history.get_properties_value("jobs").size(), 1u);
  EXPECT_EQ(history.get_properties_value("workflows").size(), 1u);
  EXPECT_TRUE(history.get_properties_value("workflows").is_present("T"));
}

TEST_F(StateHistory, BadTypeRaisesFromEveryHistoryOperationThatTakesAType) {
  const std::string text = "state does not have item type 7";
  properties out;
  const std::vector<std::function<void()>> calls = {
      [&] { st.item_historize(bad_type, "x"); },
      [&] { st.item_add_to_history(bad_type, "x", out); },
      [&] { st.remove_historized_item(bad_type, "x"); },
      [&] { st.remove_historized_items(bad_type); },
      [&] { st.remove_historized_items(bad_type, {"x"}); },
      [&] { st.get_history_items(bad_type); },
      [&] { st.get_state_or_history_item(bad_type, "x", out); }};
  for (const auto& call : calls) EXPECT_EQ(raised_message<zelbase::es::arg>(call), text);
  EXPECT_TRUE(receiver.calls.empty());
}

TEST_F(StateHistory, CleaningAWorkflowTellsTheReceiverOnlyOfSpawnedOnes) {
  historize_workflow("T", workflow_info::workflow_type_template);
  historize_workflow("S", workflow_info::workflow_type_spawned);
  clock.now = 2000;
  historize_workflow("L", workflow_info::workflow_type_spawned);
  receiver.calls.clear();

  st.clean_history(1999);
  EXPECT_EQ(receiver.calls, strings{"on_historized_workflow_removed(S)"});
  EXPECT_FALSE(st.has_workflow_in_history("T"));
  EXPECT_FALSE(st.has_workflow_in_history("S"));
  EXPECT_TRUE(st.has_workflow_in_history("L"));
}

TEST_F(StateHistory, CleaningSkipsAWorkflowAlreadyRemovedFromHistory) {
  historize_workflow("S", workflow_info::workflow_type_spawned);
  st.remove_historized_workflow("S");
  receiver.calls.clear();
  st.clean_history(1000);
  EXPECT_TRUE(receiver.calls.empty());
}

// The removal operations differ on purpose in whom they tell; a state with both an in-memory
// history and a history_db shows each half.
class StateHistoryRemoval : public StateHistory {
 protected:
  void SetUp() override {
    st.set_history_db(&history_db);
    historize_job("j1", properties());
    historize_job("j2", properties());
    historize_job("j3", properties());
    historize_workflow("T", workflow_info::workflow_type_template);
    historize_workflow("S1", workflow_info::workflow_type_spawned);
    historize_workflow("S2", workflow_info::workflow_type_spawned);
    receiver.calls.clear();
    history_db.calls.clear();
  }
};

TEST_F(StateHistoryRemoval, OneItemIsRemovedFromBothWithoutTellingThisReceiver) {
  st.remove_historized_item(state_item_job, "j2");
  EXPECT_EQ(history_jobs().count("j2"), 0u);
  EXPECT_EQ(history_jobs().size(), 2u);
  EXPECT_EQ(history_db.calls, strings{"remove_item(5,j2)"});
  EXPECT_TRUE(receiver.calls.empty());
}

TEST_F(StateHistoryRemoval, AllItemsOfATypeAreRemovedNotifyingNobody) {
  st.remove_historized_items(state_item_job);
  EXPECT_TRUE(history_jobs().empty());
  EXPECT_EQ(history_db.calls, strings{"remove_items(5)"});
  EXPECT_TRUE(receiver.calls.empty());
}

TEST_F(StateHistoryRemoval, ItemsBySetAreRemovedPerIdAndTheWholeSetGoesToTheHistoryDb) {
  st.remove_historized_items(state_item_job, {"j1", "j3", "absent"});
  ASSERT_EQ(history_jobs().size(), 1u);
  EXPECT_EQ(history_jobs().count("j2"), 1u);
  EXPECT_EQ(history_db.calls, strings{"remove_items(5,{absent,j1,j3})"});
  // The per-id notifications go to the history state's own receiver, which it never has.
  EXPECT_TRUE(receiver.calls.empty());
}

TEST_F(StateHistoryRemoval, OneWorkflowIsRemovedWithoutTellingTheHistoryDb) {
  st.remove_historized_workflow("T");
  st.remove_historized_workflow("absent");
  EXPECT_FALSE(st.has_workflow_in_history("T"));
  EXPECT_EQ(receiver.calls, strings{"on_historized_workflow_removed(T)"});
  EXPECT_TRUE(history_db.calls.empty());
}

TEST_F(StateHistoryRemoval, AllWorkflowsAreRemovedReportingOnlyTheSpawnedOnes) {
  st.remove_historized_workflows();
  EXPECT_TRUE(st.get_historized_workflows().empty());
  EXPECT_EQ(receiver.calls,
            (strings{"on_historized_workflow_removed(S1)", "on_historized_workflow_removed(S2)"}));
  EXPECT_EQ(history_db.calls, strings{"remove_items(7)"});
}

TEST_F(StateHistoryRemoval, WorkflowsBySetReportEveryErasedIdAndTheHistoryDbGetsTheSet) {
  st.remove_historized_workflows({"T", "S2", "absent"});
  EXPECT_EQ(st.get_historized_workflows().size(), 1u);
  EXPECT_TRUE(st.has_workflow_in_history("S1"));
  EXPECT_EQ(receiver.calls,
            (strings{"on_historized_workflow_removed(S2)", "on_historized_workflow_removed(T)"}));
  EXPECT_EQ(history_db.calls, strings{"remove_items(7,{S2,T,absent})"});
}

TEST(StateHistoryRemovalWithoutHistory, RemovalsReachOnlyTheHistoryDbAndNeverRaise) {
  zelcore::plugin_db plugins;
  zeltest::recording_receiver receiver;
  zeltest::recording_history_db history_db;
  state st{plugins, &receiver, nullptr, &history_db, 0};
  st.remove_historized_item(state_item_job, "j1");
  st.remove_historized_items(state_item_job);
  st.remove_historized_items(state_item_job, {"j1"});
  st.remove_historized_workflow("W");
  st.remove_historized_workflows();
  st.remove_historized_workflows({"W"});
  EXPECT_EQ(history_db.calls,
            (strings{"remove_item(5,j1)", "remove_items(5)", "remove_items(5,{j1})",
                     "remove_items(7)", "remove_items(7,{W})"}));
  EXPECT_TRUE(receiver.calls.empty());
}
