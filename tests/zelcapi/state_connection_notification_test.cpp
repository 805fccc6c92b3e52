// The "cluster.api.state." notifications from the cluster: each one's replica operation and
// handler call in their order, the veto of workflow updates, and bad input from the cluster
// (missing or wrong-kind fields, unknown item types, failing updates), which is reported,
// counted as handled and leaves the replica usable.
#include <gtest/gtest.h>

#include "support/capture_sink.h"
#include "zelcapi/state_connection_test_support.h"

namespace {

using zelcapi::state_item_job;
using zelcapi::state_item_node;
using zelnet::zelp::packet;
using zeltest::add_workflow_command;
using zeltest::item_fields;
using zeltest::notification;
using zeltest::one_field;
using zeltest::small_snapshot;
using zeltest::state_connection_failures;
using zeltest::StateConnectionTest;
using zeltest::update_workflow;
using lines = std::vector<std::string>;

packet set_item(std::int64_t type, const std::string& id, const zelcore::properties& state) {
  return notification("cluster.api.state.set-item", item_fields(type, id, state));
}

packet update_item(std::int64_t type, const std::string& id, const zelcore::properties& state) {
  return notification("cluster.api.state.update-item", item_fields(type, id, state));
}

packet item_notification(const std::string& what, std::int64_t type, const std::string& id) {
  return notification("cluster.api.state." + what, item_fields(type, id));
}

packet erase_property_ref(std::int64_t type, const std::string& id, const std::string& ref) {
  zelcore::properties fields = item_fields(type, id);
  fields.set_string_value("property-ref", ref);
  return notification("cluster.api.state.erase-property-ref", fields);
}

packet workflow_result(const std::string& what, const std::string& id,
                       const zelcore::properties* result) {
  zelcore::properties fields;
  fields.set_string_value("state-id", id);
  if (result != nullptr) fields.set_properties_value("result", *result);
  return notification("cluster.api.state." + what, fields);
}

zelcore::properties remove_workflow_command(const std::string& id) {
  zelcore::properties command;
  command.set_string_value("action", "remove-workflow");
  command.set_string_value("state-id", id);
  return command;
}

std::string failed(const std::string& message) {
  return "failed to update state ('" + message + "')";
}

TEST_F(StateConnectionTest, SetItemReplacesTheItemThenTellsTheHandler) {
  deliver(set_item(5, "j1", one_field("a", 1)));
  deliver(set_item(5, "j1", one_field("b", 2)));
  EXPECT_EQ(handler.calls, (lines{"set 5 j1 live {\"a\":1}", "set 5 j1 live {\"b\":2}"}));
  EXPECT_EQ(replica().get_item(state_item_job, "j1"), one_field("b", 2));
}

TEST_F(StateConnectionTest, UpdateItemMergesIntoTheItemThenTellsTheHandler) {
  deliver({set_item(1, "n1", one_field("a", 1)), update_item(1, "n1", one_field("b", 2)),
           update_item(1, "n2", one_field("c", 3))});
  EXPECT_EQ(handler.calls, (lines{"set 1 n1 live {\"a\":1}", "updated 1 n1 live {\"b\":2}",
                                  "updated 1 n2 live {\"c\":3}"}));
  zelcore::properties merged = one_field("a", 1);
  merged.set_int_value("b", 2);
  EXPECT_EQ(replica().get_item(state_item_node, "n1"), merged);
  EXPECT_EQ(replica().get_item(state_item_node, "n2"), one_field("c", 3));
}

TEST_F(StateConnectionTest, RemoveItemTellsTheHandlerThenRemovesTheItem) {
  deliver({set_item(5, "j1", one_field("a", 1)), item_notification("remove-item", 5, "j1"),
           item_notification("remove-item", 5, "j2")});
  EXPECT_EQ(handler.calls,
            (lines{"set 5 j1 live {\"a\":1}", "removed 5 j1 live", "removed 5 j2 absent"}));
  EXPECT_FALSE(replica().has_item(state_item_job, "j1"));
}

TEST_F(StateConnectionTest, EraseKeyTellsTheHandlerThenErasesTheProperty) {
  zelcore::properties record = one_field("a", 1);
  record.set_properties_value("b", one_field("c", 2));
  deliver({set_item(5, "j1", record), erase_property_ref(5, "j1", "/b/c")});
  EXPECT_EQ(handler.calls.back(), "erased 5 j1 live /b/c");
  zelcore::properties expected = one_field("a", 1);
  expected.set_properties_value("b", zelcore::properties());
  EXPECT_EQ(replica().get_item(state_item_job, "j1"), expected);
}

TEST_F(StateConnectionTest, WorkflowResultsAreStoredAndRemovedInTheirOrder) {
  zelcore::properties result = one_field("st", 4);
  result.set_int_value("ht", 7);
  deliver({workflow_result("update-workflow-result", "WOFL-1", &result),
           workflow_result("remove-workflow-result", "WOFL-1", nullptr)});
  EXPECT_EQ(handler.calls, (lines{"result-added WOFL-1 live 4,7", "result-removed WOFL-1 live"}));
  EXPECT_FALSE(replica().has_workflow_result("WOFL-1"));
}

TEST_F(StateConnectionTest, AddAndRemoveWorkflowOnlyTellTheHandler) {
  zelcore::properties fields;
  fields.set_string_value("state-id", "WOFL-1");
  fields.set_properties_value("workflow", one_field("w", 1));
  deliver({notification("cluster.api.state.add-workflow", fields),
           notification("cluster.api.state.remove-workflow", fields)});
  EXPECT_EQ(handler.calls, (lines{"workflow-added WOFL-1 {\"w\":1}", "workflow-removed WOFL-1"}));
  EXPECT_TRUE(replica().get_workflows().empty());
}

TEST_F(StateConnectionTest, UpdateWorkflowAsksFirstThenAppliesThenTellsTheHandler) {
  deliver(update_workflow(add_workflow_command("WOFL-1")));
  EXPECT_EQ(handler.calls,
            (lines{"pre-update add-workflow (0)", "workflow-updated add-workflow (1)"}));
  EXPECT_TRUE(replica().has_workflow_in_state("WOFL-1"));
  handler.calls.clear();
  deliver(update_workflow(remove_workflow_command("WOFL-1")));
  EXPECT_EQ(handler.calls,
            (lines{"pre-update remove-workflow (1)", "workflow-updated remove-workflow (0)"}));
}

TEST_F(StateConnectionTest, AVetoedWorkflowUpdateLeavesTheReplicaAndReturnsFalse) {
  deliver(update_workflow(add_workflow_command("WOFL-1")));
  handler.calls.clear();
  handler.pre_update_answer = false;
  const packet remove = update_workflow(remove_workflow_command("WOFL-1"));
  deliver(remove);
  EXPECT_EQ(handler.calls, lines{"pre-update remove-workflow (1)"});
  EXPECT_TRUE(replica().has_workflow_in_state("WOFL-1"));
  EXPECT_FALSE(handled(remove));
  EXPECT_TRUE(replica().has_workflow_in_state("WOFL-1"));
}

TEST_F(StateConnectionTest, TheResultIsTheHandlerCallsResult) {
  handler.answer = false;
  zelcore::properties result = one_field("st", 4);
  EXPECT_FALSE(handled(set_item(5, "j1", one_field("a", 1))));
  EXPECT_FALSE(handled(update_item(5, "j1", one_field("a", 2))));
  EXPECT_FALSE(handled(item_notification("remove-item", 5, "j1")));
  EXPECT_FALSE(handled(erase_property_ref(5, "j1", "/a")));
  EXPECT_FALSE(handled(workflow_result("update-workflow-result", "W", &result)));
  EXPECT_FALSE(handled(workflow_result("remove-workflow-result", "W", nullptr)));
  EXPECT_FALSE(handled(update_workflow(add_workflow_command("WOFL-1"))));
  // A false answer of a handler called first does not hold the replica back.
  EXPECT_FALSE(replica().has_item(state_item_job, "j1"));
  EXPECT_FALSE(replica().has_workflow_result("W"));
  EXPECT_TRUE(replica().has_workflow_in_state("WOFL-1"));
}

TEST_F(StateConnectionTest, SetItemWithoutStateIdReportsAndCountsAsHandled) {
  zeltest::capture_sink sink;
  zelcore::properties fields;
  fields.set_int_value("item-type", 5);
  fields.set_properties_value("state", one_field("a", 1));
  const packet p = notification("cluster.api.state.set-item", fields);
  deliver(p);
  handler.answer = false;
  EXPECT_TRUE(handled(p));
  EXPECT_EQ(state_connection_failures(sink), (lines{failed("property 'state-id' is missing"),
                                                    failed("property 'state-id' is missing")}));
  EXPECT_EQ(handler.calls, lines{});
  EXPECT_TRUE(replica().get_items(state_item_job).empty());
}

TEST_F(StateConnectionTest, MissingFieldsAreReportedAndTheNextNotificationsApply) {
  zeltest::capture_sink sink;
  zelcore::properties no_type = item_fields(5, "j1", one_field("a", 9));
  no_type.erase("item-type");
  zelcore::properties no_result;
  no_result.set_string_value("state-id", "W");
  zelcore::properties result_without_status = one_field("ht", 2);
  deliver({set_item(5, "j1", one_field("a", 1)),
           notification("cluster.api.state.update-item", no_type),
           notification("cluster.api.state.update-item", item_fields(5, "j1")),
           item_notification("erase-property-ref", 5, "j1"),
           notification("cluster.api.state.update-workflow-result", no_result),
           workflow_result("update-workflow-result", "W", &result_without_status),
           notification("cluster.api.state.remove-workflow-result", zelcore::properties()),
           notification("cluster.api.state.add-workflow", no_result),
           notification("cluster.api.state.update-workflow", zelcore::properties()),
           update_item(5, "j1", one_field("b", 2))});
  EXPECT_EQ(
      state_connection_failures(sink),
      (lines{failed("property 'item-type' is missing"), failed("property 'state' is missing"),
             failed("property 'property-ref' is missing"), failed("property 'result' is missing"),
             failed("property 'st' is missing"), failed("property 'state-id' is missing"),
             failed("property 'workflow' is missing"), failed("property 'command' is missing")}));
  EXPECT_EQ(handler.calls, (lines{"set 5 j1 live {\"a\":1}", "updated 5 j1 live {\"b\":2}"}));
  zelcore::properties merged = one_field("a", 1);
  merged.set_int_value("b", 2);
  EXPECT_EQ(replica().get_item(state_item_job, "j1"), merged);
  EXPECT_TRUE(replica().get_workflow_results().empty());
}

TEST_F(StateConnectionTest, WrongKindFieldsAreReportedAndCountAsHandled) {
  zeltest::capture_sink sink;
  zelcore::properties type_as_text = item_fields(5, "j1", one_field("a", 1));
  type_as_text.set_string_value("item-type", "5");
  zelcore::properties id_as_int = item_fields(5, "j1", one_field("a", 1));
  id_as_int.set_int_value("state-id", 1);
  zelcore::properties state_as_list = item_fields(5, "j1");
  state_as_list["state"] = zelcore::property_ptr(new zelcore::property_list());
  zelcore::properties command_as_bool;
  command_as_bool.set_bool_value("command", true);
  const std::vector<packet> bad = {
      notification("cluster.api.state.set-item", type_as_text),
      notification("cluster.api.state.update-item", id_as_int),
      notification("cluster.api.state.set-item", state_as_list),
      notification("cluster.api.state.update-workflow", command_as_bool)};
  deliver(bad);
  handler.answer = false;
  for (const auto& p : bad) EXPECT_TRUE(handled(p)) << p.get_name();
  const lines expected = {failed("property 'item-type' is a string, not a int"),
                          failed("property 'state-id' is a int, not a string"),
                          failed("property 'state' is a list, not a properties"),
                          failed("property 'command' is a bool, not a properties")};
  lines twice = expected;
  twice.insert(twice.end(), expected.begin(), expected.end());
  EXPECT_EQ(state_connection_failures(sink), twice);
  EXPECT_EQ(handler.calls, lines{});
  EXPECT_TRUE(replica().get_items(state_item_job).empty());
}

TEST_F(StateConnectionTest, AnItemTypeTheStateDoesNotHaveIsRefusedByTheStateInTheRowsOrder) {
  zeltest::capture_sink sink;
  zelcore::properties erase = item_fields(9, "x");
  erase.set_string_value("property-ref", "/a");
  deliver({set_item(7, "x", one_field("a", 1)), update_item(-1, "x", one_field("a", 1)),
           item_notification("remove-item", 99, "x"),
           notification("cluster.api.state.erase-property-ref", erase)});
  // Rows that apply first never reach the handler; rows that tell first do, then the state
  // refuses the kind.
  EXPECT_EQ(handler.calls, (lines{"removed 99 x", "erased 9 x /a"}));
  EXPECT_EQ(state_connection_failures(sink), (lines{failed("state does not have item type 7"),
                                                    failed("state does not have item type -1"),
                                                    failed("state does not have item type 99"),
                                                    failed("state does not have item type 9")}));
  for (int t = 0; t < 7; ++t) {
    EXPECT_TRUE(replica().get_items(static_cast<zelcapi::state_item_type>(t)).empty());
  }
}

TEST_F(StateConnectionTest, AnItemTypeBeyond32BitsIsRefusedWithoutBeingCut) {
  zeltest::capture_sink sink;
  // 2^32 + 5 would name a job if it were cut to 32 bits.
  const std::int64_t wide = (std::int64_t{1} << 32) + 5;
  deliver({set_item(wide, "x", one_field("a", 1)), item_notification("remove-item", wide, "x"),
           set_item(-(std::int64_t{1} << 31) - 1, "x", one_field("a", 1))});
  EXPECT_EQ(state_connection_failures(sink),
            (lines{failed("item type 4294967301 is out of range"),
                   failed("item type 4294967301 is out of range"),
                   failed("item type -2147483649 is out of range")}));
  EXPECT_EQ(handler.calls, lines{});
  EXPECT_TRUE(replica().get_items(zelcapi::state_item_job).empty());
}

TEST_F(StateConnectionTest, AFailingWorkflowUpdateIsReportedAndTheReplicaStaysUsable) {
  deliver(update_workflow(add_workflow_command("WOFL-1")));
  handler.calls.clear();
  zeltest::capture_sink sink;
  zelcore::properties unknown_action;
  unknown_action.set_string_value("action", "fold-workflow");
  unknown_action.set_string_value("state-id", "WOFL-1");
  zelcore::properties no_action;
  no_action.set_string_value("state-id", "WOFL-1");
  deliver({update_workflow(unknown_action), update_workflow(add_workflow_command("WOFL-1")),
           update_workflow(no_action), update_workflow(remove_workflow_command("WOFL-1"))});
  const lines reported = state_connection_failures(sink);
  ASSERT_EQ(reported.size(), 3u);
  for (const auto& r : reported) EXPECT_EQ(r.rfind("failed to update state ('", 0), 0u) << r;
  EXPECT_NE(reported[0].find("unknown workflow-update action requested"), std::string::npos);
  // The three that failed were asked about but not told as updated; the removal went through.
  EXPECT_EQ(handler.calls, (lines{"pre-update fold-workflow (1)", "pre-update add-workflow (1)",
                                  "pre-update ? (1)", "pre-update remove-workflow (1)",
                                  "workflow-updated remove-workflow (0)"}));
  EXPECT_FALSE(replica().has_workflow_in_state("WOFL-1"));
}

TEST_F(StateConnectionTest, AMalformedPropertyReferenceIsReportedAfterTheHandlerHeardOfIt) {
  deliver(set_item(5, "j1", one_field("a", 1)));
  handler.calls.clear();
  zeltest::capture_sink sink;
  deliver(erase_property_ref(5, "j1", "a"));
  EXPECT_EQ(handler.calls, lines{"erased 5 j1 live a"});
  ASSERT_EQ(state_connection_failures(sink).size(), 1u);
  EXPECT_EQ(replica().get_item(state_item_job, "j1"), one_field("a", 1));
}

}  // namespace

namespace {

class StateConnectionWithHistoryTest : public StateConnectionTest {
 protected:
  StateConnectionWithHistoryTest() : StateConnectionTest(3600) {}
};

TEST_F(StateConnectionWithHistoryTest, HistorizeItemTellsTheHandlerThenMovesTheItemToHistory) {
  deliver({set_item(5, "j1", one_field("a", 1)), item_notification("historize-item", 5, "j1")});
  EXPECT_EQ(handler.calls, (lines{"set 5 j1 live {\"a\":1}", "historized 5 j1 live"}));
  EXPECT_FALSE(replica().has_item(state_item_job, "j1"));
  EXPECT_EQ(replica().get_history_items(state_item_job).at("j1"), one_field("a", 1));
}

TEST_F(StateConnectionWithHistoryTest, HistorizingAnItemThatIsNotLiveIsReported) {
  zeltest::capture_sink sink;
  deliver({item_notification("historize-item", 5, "j9"), set_item(5, "j1", one_field("a", 1))});
  EXPECT_EQ(state_connection_failures(sink), lines{failed("state does not have item id j9")});
  EXPECT_EQ(handler.calls, (lines{"historized 5 j9 absent", "set 5 j1 live {\"a\":1}"}));
  EXPECT_TRUE(replica().get_history_items(state_item_job).empty());
}

}  // namespace
