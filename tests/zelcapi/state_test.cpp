// The state's item stores and workflow results, and what their receiver is told.
#include <gtest/gtest.h>

#include "zelbase/exceptions.h"
#include "zelcapi/recording_receiver.h"
#include "zelcapi/state.h"

using zelcapi::state;
using zelcapi::state_item_job;
using zelcapi::state_item_type;
using zelcapi::workflow_result_info;
using zelcore::make_int;
using zelcore::properties;
using zelcore::property_ptr;

namespace {

class StateTest : public testing::Test {
 protected:
  zelcore::plugin_db plugins;
  zeltest::recording_receiver receiver;
  state st{plugins, &receiver};
};

const auto bad_type = static_cast<state_item_type>(7);

std::string error_of(const std::function<void()>& f) {
  try {
    f();
  } catch (const zelbase::es::arg& e) {
    return e.what();
  }
  return "no error";
}

properties tree(std::initializer_list<properties::entry> children) { return properties(children); }

}  // namespace

TEST(StateItemTypeText, NamesEveryKind) {
  const char* expected[] = {"client", "node", "submission", "source", "slot", "job", "task"};
  for (int t = 0; t < 7; ++t) EXPECT_STREQ(zelcapi::state_item_type_c_str(t), expected[t]);
  EXPECT_STREQ(zelcapi::state_item_type_c_str(6), "task");
  for (int t = 0; t < 7; ++t) EXPECT_STREQ(zelcapi::db_item_type_c_str(t), expected[t]);
  EXPECT_STREQ(zelcapi::db_item_type_c_str(7), "workflow");
  EXPECT_STREQ(zelcapi::state_item_type_c_str(7), "");
  EXPECT_STREQ(zelcapi::db_item_type_c_str(-1), "");
}

TEST_F(StateTest, EveryStoreIsSeparate) {
  for (int t = 0; t < 7; ++t)
    st.item_set(static_cast<state_item_type>(t), "id" + std::to_string(t),
                tree({{"t", make_int(t)}}));
  for (int t = 0; t < 7; ++t) {
    const auto& items = st.get_items(static_cast<state_item_type>(t));
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items.begin()->first, "id" + std::to_string(t));
    EXPECT_EQ(items.begin()->second.get_int_value("t"), t);
  }
}

TEST_F(StateTest, UnknownItemTypeRaisesFromEveryOperationBeforeAnyChange) {
  const std::string text = "state does not have item type 7";
  EXPECT_EQ(error_of([&] { st.get_items(bad_type); }), text);
  EXPECT_EQ(error_of([&] { st.has_item(bad_type, "x"); }), text);
  EXPECT_EQ(error_of([&] { st.get_item(bad_type, "x"); }), text);
  EXPECT_EQ(error_of([&] { st.item_set(bad_type, "x", properties(false)); }), text);
  EXPECT_EQ(error_of([&] { st.item_update(bad_type, "x", properties(false)); }), text);
  EXPECT_EQ(error_of([&] { st.item_remove(bad_type, "x"); }), text);
  EXPECT_EQ(error_of([&] { st.item_erase_property_ref(bad_type, "x", "/a"); }), text);
  EXPECT_EQ(error_of([&] { st.clear_state(bad_type); }), text);
  EXPECT_EQ(error_of([&] { st.get_items(static_cast<state_item_type>(-1)); }),
            "state does not have item type -1");
  EXPECT_TRUE(receiver.calls.empty());
}

TEST_F(StateTest, ErrorsCarryTheStateSourcePath) {
  try {
    st.get_items(bad_type);
  } catch (const zelbase::es::arg& e) {
    EXPECT_EQ(e.file(), "code\\app\\common\\shared\\zelcapi\\src\\state");
  }
}

TEST_F(StateTest, GetItemOfAnAbsentIdRaisesAndHasItemIsFalse) {
  EXPECT_EQ(error_of([&] { st.get_item(state_item_job, "j9"); }), "state does not have item id j9");
  EXPECT_FALSE(st.has_item(state_item_job, "j9"));
  st.item_set(state_item_job, "j9", properties(false));
  EXPECT_TRUE(st.has_item(state_item_job, "j9"));
}

TEST_F(StateTest, UpdatesMergeAndSetReplaces) {
  st.item_update(state_item_job, "j1", tree({{"a", make_int(1)}}));
  EXPECT_TRUE(st.get_item(state_item_job, "j1") == tree({{"a", make_int(1)}}));
  const properties x{{"x", make_int(2)}};
  st.item_update(state_item_job, "j1", tree({{"b", property_ptr(new properties(x))}}));
  EXPECT_TRUE(st.get_item(state_item_job, "j1") ==
              tree({{"a", make_int(1)}, {"b", property_ptr(new properties(x))}}));
  st.item_set(state_item_job, "j1", tree({{"d", make_int(3)}}));
  EXPECT_TRUE(st.get_item(state_item_job, "j1") == tree({{"d", make_int(3)}}));
  EXPECT_EQ(receiver.calls, (std::vector<std::string>{"on_item_updated(5,j1,{\"a\":1})",
                                                      "on_item_updated(5,j1,{\"b\":{\"x\":2}})",
                                                      "on_item_set(5,j1,{\"d\":3})"}));
}

TEST_F(StateTest, UpdateNotifiesTheUpdateNotTheMergedRecord) {
  st.item_set(state_item_job, "j1", tree({{"keep", make_int(1)}}));
  receiver.calls.clear();
  st.item_update(state_item_job, "j1", tree({{"new", make_int(2)}}));
  EXPECT_EQ(receiver.calls, std::vector<std::string>{"on_item_updated(5,j1,{\"new\":2})"});
}

TEST_F(StateTest, UpdateWithAnEmptyTreeCreatesAnEmptyRecord) {
  st.item_update(state_item_job, "j2", properties(false));
  EXPECT_TRUE(st.has_item(state_item_job, "j2"));
  EXPECT_TRUE(st.get_item(state_item_job, "j2").empty());
}

TEST_F(StateTest, SetStoresACopyIndependentOfTheCaller) {
  properties props{{"a", make_int(1)}};
  st.item_set(state_item_job, "j1", props);
  props.set_int_value("a", 2);
  EXPECT_EQ(st.get_item(state_item_job, "j1").get_int_value("a"), 1);
}

TEST_F(StateTest, RemoveNotifiesAroundTheErase) {
  st.item_set(state_item_job, "j1", properties(false));
  receiver.calls.clear();
  st.item_remove(state_item_job, "j1");
  EXPECT_FALSE(st.has_item(state_item_job, "j1"));
  EXPECT_EQ(receiver.calls,
            (std::vector<std::string>{"on_item_removing(5,j1)", "on_item_removed(5,j1)"}));
}

TEST_F(StateTest, RemoveOfAnAbsentIdStillNotifiesOnceEach) {
  st.item_remove(state_item_job, "nope");
  EXPECT_EQ(receiver.calls,
            (std::vector<std::string>{"on_item_removing(5,nope)", "on_item_removed(5,nope)"}));
}

TEST_F(StateTest, EraseOfAPropertyReference) {
  st.item_set(state_item_job, "j1",
              tree({{"a", property_ptr(new properties{{"b", make_int(1)}, {"c", make_int(2)}})}}));
  receiver.calls.clear();
  st.item_erase_property_ref(state_item_job, "j1", "/a/b");
  EXPECT_TRUE(st.get_item(state_item_job, "j1") ==
              tree({{"a", property_ptr(new properties{{"c", make_int(2)}})}}));
  EXPECT_EQ(receiver.calls, std::vector<std::string>{"on_item_erased_property_ref(5,j1,/a/b)"});
}

TEST_F(StateTest, EraseOnAnAbsentIdNotifiesButCreatesNothing) {
  st.item_erase_property_ref(state_item_job, "ghost", "/a");
  EXPECT_FALSE(st.has_item(state_item_job, "ghost"));
  EXPECT_EQ(receiver.calls, std::vector<std::string>{"on_item_erased_property_ref(5,ghost,/a)"});
}

TEST_F(StateTest, EraseOfAMissingReferenceChangesNothingAndNotifies) {
  st.item_set(state_item_job, "j1", tree({{"a", make_int(1)}}));
  receiver.calls.clear();
  st.item_erase_property_ref(state_item_job, "j1", "/x/y");
  EXPECT_TRUE(st.get_item(state_item_job, "j1") == tree({{"a", make_int(1)}}));
  EXPECT_EQ(receiver.calls.size(), 1u);
}

TEST_F(StateTest, ClearOneStoreLeavesTheOthers) {
  st.item_set(state_item_job, "j", properties(false));
  st.item_set(zelcapi::state_item_task, "t", properties(false));
  receiver.calls.clear();
  st.clear_state(state_item_job);
  EXPECT_TRUE(st.get_items(state_item_job).empty());
  EXPECT_EQ(st.get_items(zelcapi::state_item_task).size(), 1u);
  EXPECT_TRUE(receiver.calls.empty());
}

TEST_F(StateTest, ClearAllEmptiesStoresAndResultsAndResetsTheSequenceNumber) {
  for (int t = 0; t < 7; ++t) st.item_set(static_cast<state_item_type>(t), "x", properties(false));
  st.workflow_result_add("WOFL-1", workflow_result_info(2));
  receiver.calls.clear();
  st.clear_state();
  for (int t = 0; t < 7; ++t) EXPECT_TRUE(st.get_items(static_cast<state_item_type>(t)).empty());
  EXPECT_TRUE(st.get_workflow_results().empty());
  EXPECT_EQ(st.get_workflow_sequence_number(), 0u);
  EXPECT_TRUE(receiver.calls.empty());
}

TEST_F(StateTest, ReceiverExceptionPropagatesAfterTheStoreChanged) {
  receiver.raise_in = "on_item_set";
  EXPECT_THROW(st.item_set(state_item_job, "j1", tree({{"a", make_int(1)}})), std::runtime_error);
  EXPECT_TRUE(st.has_item(state_item_job, "j1"));
}

TEST_F(StateTest, ExceptionInRemovingLeavesTheRecordInPlace) {
  st.item_set(state_item_job, "j1", properties(false));
  receiver.raise_in = "on_item_removing";
  EXPECT_THROW(st.item_remove(state_item_job, "j1"), std::runtime_error);
  EXPECT_TRUE(st.has_item(state_item_job, "j1"));
}

TEST(StateWithoutReceiver, OperationsWorkWithoutNotifying) {
  zelcore::plugin_db plugins;
  state st(plugins, nullptr);
  st.item_update(state_item_job, "j", tree({{"a", make_int(1)}}));
  st.item_erase_property_ref(state_item_job, "j", "/a");
  st.item_remove(state_item_job, "j");
  st.workflow_result_add("w", workflow_result_info(1));
  EXPECT_TRUE(st.workflow_result_remove("w"));
  EXPECT_FALSE(st.has_item(state_item_job, "j"));
}

TEST(WorkflowResult, ConstructorsAndDefaults) {
  EXPECT_EQ(workflow_result_info().status, 0u);
  EXPECT_EQ(workflow_result_info().ht, 1u);
  EXPECT_EQ(workflow_result_info(4).ht, 1u);
  const workflow_result_info both(4u, 9u);
  EXPECT_EQ(both.status, 4u);
  EXPECT_EQ(both.ht, 9u);
}

TEST(WorkflowResult, EncodeAndDecodeKeepStatusAndHt) {
  properties out{{"other", make_int(5)}};
  workflow_result_info(3u, 7u).encode(out);
  EXPECT_EQ(out.get_int_value("st"), 3);
  EXPECT_EQ(out.get_int_value("ht"), 7);
  EXPECT_EQ(out.get_int_value("other"), 5);
  const workflow_result_info back(out);
  EXPECT_EQ(back.status, 3u);
  EXPECT_EQ(back.ht, 7u);
}

TEST(WorkflowResult, DecodedFromOnlyStHasHtOne) {
  const workflow_result_info r(tree({{"st", make_int(3)}}));
  EXPECT_EQ(r.status, 3u);
  EXPECT_EQ(r.ht, 1u);
}

TEST(WorkflowResult, StatusIsEncodedAsASigned32BitValue) {
  properties out(false);
  workflow_result_info(0xFFFFFFFFu).encode(out);
  EXPECT_EQ(out.get_int_value("st"), -1);
  EXPECT_EQ(out.get_int_value("ht"), 1);
  EXPECT_EQ(workflow_result_info(out).status, 0xFFFFFFFFu);
}

TEST(WorkflowResult, EqualityComparesTheStatusOnly) {
  EXPECT_TRUE(workflow_result_info(2u, 1u) == workflow_result_info(2u, 5u));
  EXPECT_TRUE(workflow_result_info(2u, 1u) != workflow_result_info(3u, 1u));
}

TEST(WorkflowResult, DecodeWithoutStRaises) {
  EXPECT_EQ(error_of([] {
              workflow_result_info r(tree({{"ht", make_int(2)}}));
            }),
            "property 'st' is missing");
}

TEST_F(StateTest, ResultAddReplacesAndNotifiesEachTime) {
  st.workflow_result_add("w", workflow_result_info(1));
  st.workflow_result_add("w", tree({{"st", make_int(2)}, {"ht", make_int(3)}}));
  EXPECT_EQ(st.get_workflow_result("w").status, 2u);
  EXPECT_EQ(st.get_workflow_result("w").ht, 3u);
  EXPECT_EQ(receiver.calls, (std::vector<std::string>{"on_workflow_result_added(w,1,1)",
                                                      "on_workflow_result_added(w,2,3)"}));
}

TEST_F(StateTest, ResultAddWithoutStStoresNothingAndDoesNotNotify) {
  EXPECT_THROW(st.workflow_result_add("w", properties(false)), zelbase::es::arg);
  EXPECT_FALSE(st.has_workflow_result("w"));
  EXPECT_TRUE(receiver.calls.empty());
}

TEST_F(StateTest, RemovingAnUnknownResultReturnsFalseAfterOnlyRemoving) {
  EXPECT_FALSE(st.workflow_result_remove("none"));
  EXPECT_EQ(receiver.calls, std::vector<std::string>{"on_workflow_result_removing(none)"});
}

TEST_F(StateTest, RemovingAResultNotifiesBothAndReturnsTrue) {
  st.workflow_result_add("w", workflow_result_info(1));
  receiver.calls.clear();
  EXPECT_TRUE(st.workflow_result_remove("w"));
  EXPECT_FALSE(st.has_workflow_result("w"));
  EXPECT_EQ(receiver.calls, (std::vector<std::string>{"on_workflow_result_removing(w)",
                                                      "on_workflow_result_removed(w)"}));
}

TEST_F(StateTest, ResultOfAnAbsentIdIsTheDefault) {
  EXPECT_EQ(st.get_workflow_result("none").status, 0u);
  EXPECT_EQ(st.get_workflow_result("none").ht, 1u);
}

TEST_F(StateTest, ResultsEncodeOneChildPerWorkflow) {
  st.workflow_result_add("a", workflow_result_info(1u, 2u));
  st.workflow_result_add("b", workflow_result_info(3u));
  properties out(false);
  st.get_workflow_results(out);
  EXPECT_EQ(out.describe(), "{\"a\":{\"ht\":2,\"st\":1},\"b\":{\"ht\":1,\"st\":3}}");
}

TEST_F(StateTest, UpdateCreatesNoEmptySubtreeForANewKey) {
  st.item_update(state_item_job, "j1",
                 tree({{"b", property_ptr(new properties{{"x", make_int(2)},
                                                         {"e", property_ptr(new properties)}})}}));
  EXPECT_EQ(st.get_item(state_item_job, "j1").describe(), "{\"b\":{\"x\":2}}");
  EXPECT_EQ(receiver.calls,
            std::vector<std::string>{"on_item_updated(5,j1,{\"b\":{\"e\":{},\"x\":2}})"});
}
