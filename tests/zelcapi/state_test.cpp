// The state's item stores and workflow results, and what their receiver is told.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <list>
#include <map>
#include <random>
#include <vector>

#include "support/merge_by_reference.h"
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
using zeltest::merged_by_reference;

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
  for (const auto& raise : std::vector<std::function<void()>>{
           [&] { st.get_items(bad_type); }, [&] { st.get_item(state_item_job, "none"); }}) {
    try {
      raise();
      ADD_FAILURE() << "no error";
    } catch (const zelbase::es::arg& e) {
      EXPECT_EQ(e.file(), "code\\app\\common\\shared\\zelcapi\\src\\state");
    }
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

// The receiver's operations follow its destructor in this slot order (the Itanium C++ ABI
// encodes a pointer to a virtual member as one plus its byte offset in the table).
TEST(StateNotificationReceiver, OperationsAreInSlotOrder) {
#if defined(__x86_64__) && defined(__GXX_ABI_VERSION)
  using r = zelcapi::state_notification_receiver;
  const auto slot = [](auto member) {
    struct {
      std::uintptr_t ptr;
      std::ptrdiff_t adj;
    } rep;
    static_assert(sizeof(member) == sizeof(rep));
    std::memcpy(&rep, &member, sizeof rep);
    EXPECT_EQ(rep.ptr % 2, 1u) << "not a virtual operation";
    return static_cast<int>((rep.ptr - 1) / sizeof(void*));
  };
  // The destructor takes the first two entries (complete and deleting).
  const std::vector<int> slots = {slot(&r::on_item_updated),
                                  slot(&r::on_item_set),
                                  slot(&r::on_item_removing),
                                  slot(&r::on_item_removed),
                                  slot(&r::on_item_historizing),
                                  slot(&r::on_item_historized),
                                  slot(&r::on_item_adding_to_history),
                                  slot(&r::on_item_added_to_history),
                                  slot(&r::on_item_erased_property_ref),
                                  slot(&r::on_workflow_will_be_updated),
                                  slot(&r::on_workflow_was_updated),
                                  slot(&r::on_workflow_result_added),
                                  slot(&r::on_workflow_result_removing),
                                  slot(&r::on_workflow_result_removed),
                                  slot(&r::on_historized_workflow_removed)};
  for (int i = 0; i < 15; ++i) EXPECT_EQ(slots[i], 2 + i) << "operation " << i + 1;
#else
  GTEST_SKIP() << "slot numbers are read in the x86-64 Itanium ABI only";
#endif
}

namespace {
// Records where the props of on_item_set and on_item_updated live.
class address_receiver : public zeltest::recording_receiver {
 public:
  const properties* set_props = nullptr;
  const properties* updated_props = nullptr;
  void on_item_set(state_item_type t, const std::string& id, const properties& p) override {
    set_props = &p;
    recording_receiver::on_item_set(t, id, p);
  }
  void on_item_updated(state_item_type t, const std::string& id, const properties& p) override {
    updated_props = &p;
    recording_receiver::on_item_updated(t, id, p);
  }
};
}  // namespace

TEST(StateNotifications, SetAndUpdatePassTheCallersTreeItself) {
  zelcore::plugin_db plugins;
  address_receiver receiver;
  state st(plugins, &receiver);
  const properties set_props{{"a", make_int(1)}};
  const properties update{{"b", make_int(2)}};
  st.item_set(state_item_job, "j", set_props);
  st.item_update(state_item_job, "j", update);
  EXPECT_EQ(receiver.set_props, &set_props);
  EXPECT_EQ(receiver.updated_props, &update);
}

TEST_F(StateTest, UpdateSharesTheUpdatesLeavesWithTheRecord) {
  const properties update{{"s", zelcore::make_string("a leaf longer than any shared constant")},
                          {"t", property_ptr(new properties{{"u", make_int(1 << 20)}})}};
  st.item_update(state_item_job, "j1", update);
  const properties& stored = st.get_item(state_item_job, "j1");
  EXPECT_EQ(stored.get_property("s").get(), update.get_property("s").get());
  EXPECT_EQ(stored.get_properties_value("t").get_property("u").get(),
            update.get_properties_value("t").get_property("u").get());
}

TEST_F(StateTest, UpdateEqualsStoringEveryLeafOfTheUpdateAtItsReference) {
  const properties inner{{"x", make_int(1)}, {"y", make_int(2)}};
  const properties record{{"a", make_int(1)},
                          {"b", property_ptr(new properties(inner))},
                          {"c", make_int(3)},
                          {"a/b", make_int(4)}};
  const std::vector<properties> updates = {
      properties{{"b", property_ptr(new properties{{"y", make_int(20)}, {"z", make_int(30)}})}},
      properties{{"c", property_ptr(new properties{{"now", make_int(5)}})}, {"~", make_int(6)}},
      properties{{"b", make_int(7)}, {"a/b", property_ptr(new properties{{"~1", make_int(8)}})}},
      properties{{"d", property_ptr(new properties{{"e", property_ptr(new properties)}})}},
      properties{{"f", property_ptr(new properties{{"g", make_int(9)},
                                                   {"h", property_ptr(new properties)}})}},
      properties(false)};
  for (const properties& update : updates) {
    st.item_set(state_item_job, "j1", record);
    st.item_update(state_item_job, "j1", update);
    EXPECT_EQ(st.get_item(state_item_job, "j1").describe(),
              merged_by_reference(record, update).describe())
        << update.describe();
  }
}

TEST_F(StateTest, EraseLeavesTheEmptyParentBehind) {
  st.item_set(state_item_job, "j1",
              tree({{"a", property_ptr(new properties{{"b", make_int(1)}})}, {"c", make_int(2)}}));
  st.item_erase_property_ref(state_item_job, "j1", "/a/b");
  EXPECT_EQ(st.get_item(state_item_job, "j1").describe(), "{\"a\":{},\"c\":2}");
}

TEST_F(StateTest, EraseOfAKeyWithSlashAndTilde) {
  st.item_set(state_item_job, "j1", tree({{"a/b~c", make_int(1)}, {"a", make_int(2)}}));
  st.item_erase_property_ref(state_item_job, "j1", "/a~1b~0c");
  EXPECT_EQ(st.get_item(state_item_job, "j1").describe(), "{\"a\":2}");
}

TEST_F(StateTest, EraseWithAMalformedReferenceRaisesAndChangesNothing) {
  st.item_set(state_item_job, "j1", tree({{"a", make_int(1)}}));
  receiver.calls.clear();
  EXPECT_EQ(error_of([&] { st.item_erase_property_ref(state_item_job, "j1", "a"); }),
            "property reference 'a' does not start with '/'");
  EXPECT_EQ(error_of([&] { st.item_erase_property_ref(state_item_job, "j1", "/a~2"); }),
            "property reference '/a~2' has a '~' not followed by 0 or 1");
  EXPECT_EQ(st.get_item(state_item_job, "j1").describe(), "{\"a\":1}");
  EXPECT_TRUE(receiver.calls.empty());
}

TEST_F(StateTest, ReceiverExceptionInUpdatedPropagatesAfterTheMerge) {
  st.item_set(state_item_job, "j1", tree({{"a", make_int(1)}}));
  receiver.raise_in = "on_item_updated";
  EXPECT_THROW(st.item_update(state_item_job, "j1", tree({{"b", make_int(2)}})),
               std::runtime_error);
  EXPECT_EQ(st.get_item(state_item_job, "j1").describe(), "{\"a\":1,\"b\":2}");
}

TEST_F(StateTest, ReceiverExceptionInRemovedPropagatesAfterTheErase) {
  st.item_set(state_item_job, "j1", properties(false));
  receiver.raise_in = "on_item_removed";
  EXPECT_THROW(st.item_remove(state_item_job, "j1"), std::runtime_error);
  EXPECT_FALSE(st.has_item(state_item_job, "j1"));
}

TEST_F(StateTest, ReceiverExceptionInErasedPropertyRefPropagatesAfterTheErase) {
  st.item_set(state_item_job, "j1", tree({{"a", make_int(1)}, {"b", make_int(2)}}));
  receiver.raise_in = "on_item_erased_property_ref";
  EXPECT_THROW(st.item_erase_property_ref(state_item_job, "j1", "/a"), std::runtime_error);
  EXPECT_EQ(st.get_item(state_item_job, "j1").describe(), "{\"b\":2}");
}

namespace {
// A state as a later layer sees it: the mutable stores and an item_update of its own.
class layered_state : public state {
 public:
  using state::get_items_non_const;
  using state::state;
  std::vector<std::string> updates;
  void item_update(state_item_type type, const std::string& id, const properties& props) override {
    updates.push_back(id);
    state::item_update(type, id, props);
  }
};
}  // namespace

TEST(StateLayers, MutableStoresAreTheStoresThatReadersSee) {
  zelcore::plugin_db plugins;
  layered_state st(plugins, nullptr);
  st.get_items_non_const(zelcapi::state_item_node)["n1"] = properties{{"a", make_int(1)}};
  EXPECT_EQ(st.get_item(zelcapi::state_item_node, "n1").get_int_value("a"), 1);
  EXPECT_EQ(&st.get_items_non_const(zelcapi::state_item_node),
            &st.get_items(zelcapi::state_item_node));
  EXPECT_EQ(error_of([&] { st.get_items_non_const(bad_type); }), "state does not have item type 7");
}

TEST(StateLayers, ItemUpdateIsReachedThroughTheBaseClass) {
  zelcore::plugin_db plugins;
  layered_state derived(plugins, nullptr);
  state& base = derived;
  base.item_update(state_item_job, "j1", properties{{"a", make_int(1)}});
  EXPECT_EQ(derived.updates, std::vector<std::string>{"j1"});
  EXPECT_EQ(base.get_item(state_item_job, "j1").get_int_value("a"), 1);
}

// The stores are reached through an id index; these tests change the stores through every path,
// the direct one of a later layer included, and compare them with a plain map after each step.
namespace {

class IndexedStoreTest : public testing::Test {
 protected:
  zelcore::plugin_db plugins;
  layered_state st{plugins, nullptr, nullptr, nullptr, 3600};
  std::map<std::string, std::int64_t> expected;  // id -> the record's "v"
  std::mt19937 random{20261124};

  std::string some_id(int ids) {
    return "job-" + std::to_string(std::uniform_int_distribution<int>(0, ids - 1)(random));
  }
  void expect_store_as_expected() {
    const state::item_map& jobs = st.get_items(state_item_job);
    ASSERT_EQ(jobs.size(), expected.size());
    auto want = expected.begin();
    for (const auto& [id, record] : jobs) {
      ASSERT_EQ(id, want->first);
      ASSERT_EQ(record.get_int_value("v", -1), want->second) << id;
      ++want;
    }
  }
  // One change of a random kind to a random id among `ids`.
  void random_change(int ids, int n) {
    const std::string id = some_id(ids);
    switch (std::uniform_int_distribution<int>(0, 7)(random)) {
      case 0:
        st.item_set(state_item_job, id, tree({{"v", make_int(n)}}));
        expected[id] = n;
        break;
      case 1:
      case 2:
        st.item_update(state_item_job, id, tree({{"v", make_int(n)}}));
        expected[id] = n;
        break;
      case 3:
        st.item_remove(state_item_job, id);
        expected.erase(id);
        break;
      case 4:
        if (!expected.count(id)) break;
        st.item_historize(state_item_job, id);
        expected.erase(id);
        break;
      case 5:
        st.item_erase_property_ref(state_item_job, id, "/v");
        if (expected.count(id)) expected[id] = -1;
        break;
      case 6:
        st.get_items_non_const(state_item_job)[id] = tree({{"v", make_int(n)}});
        expected[id] = n;
        break;
      case 7:
        st.get_items_non_const(state_item_job).erase(id);
        expected.erase(id);
        break;
    }
  }
};

}  // namespace

TEST_F(IndexedStoreTest, EveryChangeLeavesTheStoreAsAPlainMapWouldBe) {
  for (int n = 0; n < 30000; ++n) {
    random_change(n < 15000 ? 2000 : 200, n);
    if (n % 1000 == 0) expect_store_as_expected();
  }
  expect_store_as_expected();
}

TEST_F(IndexedStoreTest, AnUpdateAfterADirectEraseCreatesTheRecordAgain) {
  for (int n = 0; n < 100; ++n) st.item_set(state_item_job, "job-" + std::to_string(n), tree({}));
  st.get_items_non_const(state_item_job).erase("job-7");
  st.item_update(state_item_job, "job-7", tree({{"v", make_int(1)}}));
  EXPECT_EQ(st.get_item(state_item_job, "job-7").describe(), "{\"v\":1}");
  EXPECT_EQ(st.get_items(state_item_job).size(), 100u);
}

TEST_F(IndexedStoreTest, AnUpdateAfterADirectInsertMergesIntoThatRecord) {
  st.item_set(state_item_job, "job-1", tree({}));
  st.get_items_non_const(state_item_job)["job-2"] = tree({{"a", make_int(1)}});
  st.item_update(state_item_job, "job-2", tree({{"b", make_int(2)}}));
  EXPECT_EQ(st.get_item(state_item_job, "job-2").describe(), "{\"a\":1,\"b\":2}");
  st.get_items_non_const(state_item_job).clear();
  st.item_remove(state_item_job, "job-1");
  st.item_update(state_item_job, "job-1", tree({{"c", make_int(3)}}));
  EXPECT_EQ(st.get_items(state_item_job).size(), 1u);
}

TEST_F(IndexedStoreTest, ManyDirectChangesBetweenUpdatesKeepEveryRecordReachable) {
  // Each round bypasses the index, then updates every item: the index is rebuilt between
  // rounds, and every update must land on the record that the store holds.
  for (int round = 0; round < 5; ++round) {
    auto& jobs = st.get_items_non_const(state_item_job);
    for (int n = 0; n < 500; ++n) {
      const std::string id = "job-" + std::to_string((n * 7 + round * 131) % 700);
      if (n % 3 == 0) {
        jobs.erase(id);
        expected.erase(id);
      } else {
        jobs[id] = tree({{"v", make_int(round)}});
        expected[id] = round;
      }
    }
    for (auto& [id, v] : expected) {
      st.item_update(state_item_job, id, tree({{"v", make_int(round * 1000 + v)}}));
      v = round * 1000 + v;
    }
    expect_store_as_expected();
  }
}

TEST_F(IndexedStoreTest, ClearingAndReloadingAStoreLeavesNoStaleRecord) {
  for (int n = 0; n < 300; ++n) st.item_set(state_item_job, "job-" + std::to_string(n), tree({}));
  st.clear_state(state_item_job);
  st.item_update(state_item_job, "job-5", tree({{"v", make_int(5)}}));
  EXPECT_EQ(st.get_items(state_item_job).size(), 1u);
  st.clear_state();
  EXPECT_TRUE(st.get_items(state_item_job).empty());
  properties snapshot(false);
  properties jobs(false);
  for (int n = 0; n < 300; ++n)
    jobs.set_properties_value("job-" + std::to_string(n), tree({{"v", make_int(n)}}));
  snapshot.set_properties_value("jobs", jobs);
  st.set_state(snapshot);
  for (int n = 0; n < 300; ++n) {
    st.item_update(state_item_job, "job-" + std::to_string(n), tree({{"w", make_int(1)}}));
    st.item_remove(state_item_job, "job-" + std::to_string(n + 1000));
  }
  const state::item_map& stored = st.get_items(state_item_job);
  ASSERT_EQ(stored.size(), 300u);
  for (const auto& [id, record] : stored) EXPECT_EQ(record.get_int_value("w"), 1) << id;
}
