// Tests of in-value propagation: spawning from templates and init workflows, feeding waiting
// workflows, several values at once, init values and out-value routing.
#include <gtest/gtest.h>

#include "support/capture_sink.h"
#include "support/sample_workflows.h"
#include "zelbase/exceptions.h"
#include "zelcapi/workflow_manager_support.h"

namespace {

using zelcapi::workflow_manager;
using zelcore::make_bool;
using zelcore::make_int;
using zelcore::make_string;
using zelcore::properties;
using zelcore::property_ptr;
using zeltest::capture_sink;
using zeltest::managed_workflows;
using zeltest::tree_of;
using zelworkflow::workflow_info;

bool contains_text(const properties& tree, const std::string& text) {
  return tree.describe().find(text) != std::string::npos;
}

bool has_dependant(const workflow_info& wi, const std::string& id) {
  workflow_info copy(wi);
  return copy.remove_dependant(id);
}

// The text of a value, "(none)" for null.
std::string text_of(const property_ptr& value) { return value ? value->to_string() : "(none)"; }

// The value held by an in-node of a task, and the originator text stored with it.
property_ptr in_value_of(const managed_workflows& m, const std::string& wf, const std::string& wtid,
                         const std::string& node) {
  return m.manager.get_task_info(wf, wtid)->get_in_value(node);
}
std::string originator_of(const managed_workflows& m, const std::string& wf,
                          const std::string& wtid, const std::string& node) {
  properties task;
  m.manager.encode_task(wf, wtid, task);
  return task.get_properties_value("in-nodes")
      .get_properties_value(node)
      .get_string_value("originator", "");
}

// The "set-in-value" action with its fields in the order the writer inserts them.
properties set_in_value_action(const std::string& input_node_id, const property_ptr& value,
                               const properties& workflow_meta, const std::string& force_state_id,
                               bool force_spawn_value, const std::string& originator) {
  return properties{{"action", make_string("set-in-value")},
                    {"input-node-id", make_string(input_node_id)},
                    {"value", value},
                    {"workflow-meta", tree_of(workflow_meta)},
                    {"force-state-id", make_string(force_state_id)},
                    {"force-spawn-value", make_bool(force_spawn_value)},
                    {"originator", make_string(originator)}};
}

struct WorkflowManagerInValues : ::testing::Test {
  managed_workflows m;
  const properties no_meta;
};

TEST_F(WorkflowManagerInValues, ValueToTemplateSpawnsANewWorkflowAndLeavesTheTemplate) {
  m.add("T", zeltest::sample_workflow(workflow_info::workflow_type_template, 2));
  const properties template_before = m.encoded().get_properties_value("T");
  const properties meta{{"submitted-by", make_string("me")}};
  std::string state_id;
  ASSERT_TRUE(m.manager.set_in_value("workflow:T>t1>in", make_string("v1"), state_id, "", meta,
                                     false, "orig"));
  EXPECT_EQ(state_id.rfind("WOFL-", 0), 0u);
  ASSERT_EQ(m.workflows.count(state_id), 1u);
  EXPECT_EQ(m.encoded().get_properties_value("T"), template_before);

  const workflow_info& spawned = m.workflow(state_id);
  EXPECT_EQ(spawned.get_type(), workflow_info::workflow_type_spawned);
  EXPECT_EQ(spawned.get_sequence_number(), 1u);
  EXPECT_EQ(spawned.get_workflow_meta_data().get_string_value("parent-id"), "T");
  EXPECT_EQ(spawned.get_ext_meta_data().get_string_value("origin{template}"), "T");
  EXPECT_EQ(spawned.get_workflow_meta_data().get_string_value("submitted-by"), "me");
  EXPECT_EQ(m.sequence_number, 1u);

  // The action goes out under the template's id, naming the spawned id to force.
  ASSERT_EQ(m.receiver.calls.size(), 1u);
  EXPECT_FALSE(m.receiver.calls[0].will);
  EXPECT_EQ(m.receiver.calls[0].workflow_id, "T");
  EXPECT_EQ(m.receiver.calls[0].update, set_in_value_action("workflow:T>t1>in", make_string("v1"),
                                                            meta, state_id, false, "orig"));
}

TEST_F(WorkflowManagerInValues, SpawnFromTemplateTakesTheValueAndDropsTheTemplatesDependants) {
  m.add("T", zeltest::sample_workflow(workflow_info::workflow_type_template, 2));
  m.workflow("T").add_dependant("WOFL-dependant");
  const property_ptr value = make_string("v1");
  std::string state_id;
  ASSERT_TRUE(m.manager.set_in_value("T>t1>in", value, state_id, "", no_meta, false, "orig"));
  const workflow_info& spawned = m.workflow(state_id);
  // Spawned with the value itself, which is also set at the in-node with the originator.
  EXPECT_EQ(spawned.get_spawn_value().get(), value.get());
  EXPECT_EQ(in_value_of(m, state_id, "t1", "in").get(), value.get());
  EXPECT_EQ(originator_of(m, state_id, "t1", "in"), "orig");
  EXPECT_TRUE(spawned.get_dependants().empty());
  EXPECT_EQ(m.workflow("T").get_dependants(), std::set<std::string>{"WOFL-dependant"});
}

TEST_F(WorkflowManagerInValues, ValueRefusedByTheFreshCopyAddsNothingButUsesASequenceNumber) {
  // The template's t1>in already holds a value, so every copy refuses a new one: a fresh copy
  // is always set without force, whatever the caller asked for.
  properties encoded = zeltest::sample_workflow(workflow_info::workflow_type_template, 2);
  encoded.set_create_referenced_property("/tasks/t1/in-nodes/in/value", make_string("old"));
  m.add("T", encoded);
  m.manager.set_current_sequence_number(10);
  const properties before = m.encoded();
  std::string state_id;
  EXPECT_FALSE(m.manager.set_in_value("T>t1>in", make_string("new"), state_id, "forced",
                                      properties{{"k", make_int(1)}}, true, "o"));
  EXPECT_EQ(state_id, "forced");
  EXPECT_EQ(m.workflows.size(), 1u);
  EXPECT_EQ(m.sequence_number, 11u);  // the spawn happened before the copy refused the value
  EXPECT_EQ(m.encoded(), before);
  EXPECT_TRUE(m.receiver.calls.empty());
}

TEST_F(WorkflowManagerInValues, StateIdOutMayBeTheCallersAddressOrForcedId) {
  m.add("T", zeltest::sample_workflow(workflow_info::workflow_type_template, 2));
  const workflow_manager::properties_ptr values(
      new properties{{"t1>in", make_string("one")}, {"t2>in", make_string("two")}});
  std::string path = "T>t1>in";
  ASSERT_TRUE(m.manager.set_in_value(path, make_string("v"), path, "", no_meta, false, ""));
  ASSERT_EQ(m.workflows.count(path), 1u);
  EXPECT_EQ(m.receiver.calls.at(0).update.get_string_value("input-node-id"), "T>t1>in");
  EXPECT_EQ(m.receiver.calls.at(0).update.get_string_value("force-state-id"), path);

  std::string wf = "T";
  ASSERT_TRUE(m.manager.set_in_values(wf, values, wf, "", no_meta, false, ""));
  ASSERT_EQ(m.workflows.count(wf), 1u);
  EXPECT_EQ(m.receiver.calls.at(1).workflow_id, "T");
  EXPECT_EQ(m.receiver.calls.at(1).update.get_string_value("workflow-id"), "T");
  EXPECT_EQ(m.receiver.calls.at(1).update.get_string_value("force-state-id"), wf);

  std::string id = "forced";
  ASSERT_TRUE(m.manager.set_in_values("T", values, id, id, no_meta, false, ""));
  EXPECT_EQ(id, "forced");
  EXPECT_EQ(text_of(in_value_of(m, "forced", "t1", "in")), "one");
  EXPECT_EQ(text_of(in_value_of(m, "forced", "t2", "in")), "two");
  EXPECT_EQ(m.workflows.size(), 4u);
}

TEST_F(WorkflowManagerInValues, ActionSharesTheCallersValue) {
  m.add("T", zeltest::sample_workflow(workflow_info::workflow_type_template, 2));
  const property_ptr value = make_string("shared");
  std::string state_id;
  ASSERT_TRUE(m.manager.set_in_value("T>t1>in", value, state_id, "", no_meta, false, ""));
  EXPECT_EQ(m.receiver.calls.at(0).update.get_property("value").get(), value.get());
}

TEST_F(WorkflowManagerInValues, SpawnsTakeTheAttemptsConfiguration) {
  m.add("T", zeltest::sample_workflow(workflow_info::workflow_type_template, 2));
  std::string first, second;
  m.manager.set_attempts_config({{"command", 7}});
  ASSERT_TRUE(m.manager.set_in_value("T>t1>in", make_int(1), first, "", no_meta, false, ""));
  // A new configuration replaces the old one whole.
  m.manager.set_attempts_config({{"default", 3}});
  ASSERT_TRUE(m.manager.set_in_value("T>t1>in", make_int(2), second, "", no_meta, false, ""));
  EXPECT_EQ(m.manager.get_task_max_attempts(workflow_manager::create_wpath(first, "t2")), 7u);
  EXPECT_EQ(m.manager.get_task_max_attempts(workflow_manager::create_wpath(second, "t2")), 3u);
  EXPECT_EQ(m.receiver.calls.size(), 2u);  // the configuration itself writes nothing
}

TEST_F(WorkflowManagerInValues, ValueToTemplateSpawnsUnderAForcedId) {
  m.add("T", zeltest::sample_workflow(workflow_info::workflow_type_template, 2));
  std::string state_id;
  ASSERT_TRUE(
      m.manager.set_in_value("T>t1>in", make_string("v"), state_id, "forced", no_meta, false, ""));
  EXPECT_EQ(state_id, "forced");
  EXPECT_EQ(m.workflow("forced").get_workflow_meta_data().get_string_value("parent-id"), "T");
}

TEST_F(WorkflowManagerInValues, EachValueToATemplateSpawnsAgain) {
  m.add("T", zeltest::sample_workflow(workflow_info::workflow_type_template, 2));
  std::string first, second;
  ASSERT_TRUE(m.manager.set_in_value("T>t1>in", make_string("a"), first, "", no_meta, false, ""));
  ASSERT_TRUE(m.manager.set_in_value("T>t1>in", make_string("b"), second, "", no_meta, false, ""));
  EXPECT_NE(first, second);
  EXPECT_EQ(m.workflow(first).get_sequence_number(), 1u);
  EXPECT_EQ(m.workflow(second).get_sequence_number(), 2u);
  EXPECT_EQ(m.workflows.size(), 3u);
}

TEST_F(WorkflowManagerInValues, OrdinaryValueToUninitedTemplateIsRefused) {
  m.add("T", zeltest::sample_workflow(workflow_info::workflow_type_template, 2, true));
  const properties before = m.encoded();
  std::string state_id;
  EXPECT_FALSE(
      m.manager.set_in_value("T>t1>in", make_string("v"), state_id, "", no_meta, false, ""));
  EXPECT_EQ(state_id.rfind("WOFL-", 0), 0u);  // the id chosen for the spawn that did not happen
  EXPECT_EQ(m.workflows.size(), 1u);
  EXPECT_EQ(m.sequence_number, 0u);
  EXPECT_EQ(m.encoded(), before);
  EXPECT_TRUE(m.receiver.calls.empty());
}

TEST_F(WorkflowManagerInValues, InitValueToUninitedTemplateSpawnsAnInitWorkflow) {
  m.add("T", zeltest::sample_workflow(workflow_info::workflow_type_template, 2, true));
  std::string state_id;
  ASSERT_TRUE(
      m.manager.set_in_value("T>init>setup", make_string("v"), state_id, "I", no_meta, false, ""));
  EXPECT_EQ(state_id, "I");
  EXPECT_EQ(m.workflow("I").get_type(), workflow_info::workflow_type_init);
  EXPECT_EQ(m.workflow("T").get_type(), workflow_info::workflow_type_template);
  EXPECT_EQ(m.workflow("I").get_sequence_number(), 1u);
  EXPECT_EQ(m.workflow("I").get_workflow_meta_data().get_string_value("parent-id"), "T");
  EXPECT_EQ(m.workflow("I").get_ext_meta_data().get_string_value("origin{template}"), "T");
}

TEST_F(WorkflowManagerInValues, InitWorkflowSpawnedFromATemplateKeepsTheTemplatesDependants) {
  // Only a copy that is inited already (and so becomes a spawned workflow) drops them.
  m.add("T", zeltest::sample_workflow(workflow_info::workflow_type_template, 2, true));
  m.workflow("T").add_dependant("WOFL-dependant");
  std::string state_id;
  ASSERT_TRUE(
      m.manager.set_in_value("T>init>setup", make_string("v"), state_id, "I", no_meta, false, ""));
  EXPECT_EQ(m.workflow("I").get_dependants(), std::set<std::string>{"WOFL-dependant"});
}

TEST_F(WorkflowManagerInValues, ValueRefusedByASpawnedWorkflowIsNotWrittenAndAddsNoMetaData) {
  m.add("S", zeltest::sample_workflow(workflow_info::workflow_type_spawned, 2));
  std::string state_id;
  ASSERT_TRUE(
      m.manager.set_in_value("S>t1>in", make_string("first"), state_id, "", no_meta, false, "a"));
  m.receiver.calls.clear();
  const properties meta{{"k", make_int(1)}};
  state_id.clear();
  EXPECT_FALSE(
      m.manager.set_in_value("S>t1>in", make_string("second"), state_id, "", meta, false, "b"));
  EXPECT_EQ(state_id, "S");
  EXPECT_EQ(text_of(in_value_of(m, "S", "t1", "in")), "first");
  EXPECT_FALSE(m.manager.get_workflow_meta_data("S").is_present("k"));
  EXPECT_TRUE(m.receiver.calls.empty());
  // Forced, the value replaces the old one.
  ASSERT_TRUE(
      m.manager.set_in_value("S>t1>in", make_string("second"), state_id, "", meta, true, "b"));
  EXPECT_EQ(text_of(in_value_of(m, "S", "t1", "in")), "second");
  EXPECT_EQ(originator_of(m, "S", "t1", "in"), "b");
  EXPECT_EQ(m.manager.get_workflow_meta_data("S").get_int_value("k"), 1);
  ASSERT_EQ(m.receiver.calls.size(), 1u);
  EXPECT_TRUE(m.receiver.calls[0].update.get_bool_value("force-spawn-value"));
}

TEST_F(WorkflowManagerInValues, ValueToSpawnedWorkflowIsSetWithItsMetaData) {
  m.add("S", zeltest::sample_workflow(workflow_info::workflow_type_spawned, 2));
  std::string state_id;
  ASSERT_TRUE(m.manager.set_in_value("workflow:S>t2>in", make_string("seen-value"), state_id, "",
                                     properties{{"k", make_int(1)}}, false, ""));
  EXPECT_EQ(state_id, "S");
  EXPECT_EQ(m.workflows.size(), 1u);
  EXPECT_EQ(m.manager.get_workflow_meta_data("S").get_int_value("k"), 1);
  EXPECT_TRUE(contains_text(m.encoded(), "seen-value"));
  EXPECT_EQ(m.receiver.calls.at(0).update.get_string_value("force-state-id"), "S");
}

// An init workflow "I" not yet inited, with children spawned from its ordinary task.
struct WorkflowManagerInitWorkflow : WorkflowManagerInValues {
  void SetUp() override {
    m.add("I", zeltest::sample_workflow(workflow_info::workflow_type_init, 2, true));
    ASSERT_FALSE(m.workflow("I").is_inited());
  }
  std::string spawn_child(const std::string& originator) {
    std::string child;
    EXPECT_TRUE(m.manager.set_in_value("I>t1>in", make_string("child-in"), child, "",
                                       properties{{"meta", make_int(1)}}, false, originator));
    return child;
  }
};

TEST_F(WorkflowManagerInitWorkflow, OrdinaryValueSpawnsAWaitingDependantChild) {
  const std::string child = spawn_child("from-test");
  ASSERT_EQ(m.workflows.count(child), 1u);
  const workflow_info& c = m.workflow(child);
  EXPECT_EQ(c.get_type(), workflow_info::workflow_type_spawned);
  EXPECT_TRUE(c.get_waiting_wfs().empty());
  EXPECT_EQ(c.get_workflow_meta_data().get_string_value("parent-id"), "I");
  EXPECT_EQ(c.get_ext_meta_data().get_string_value("origin{template}"), "I");
  EXPECT_FALSE(c.get_workflow_meta_data().is_present("meta"));  // not added on this path
  EXPECT_EQ(c.get_sequence_number(), 1u);
  const workflow_info& init = m.workflow("I");
  EXPECT_EQ(init.get_waiting_wfs().at(child), "from-test");
  EXPECT_TRUE(has_dependant(init, child));
  EXPECT_EQ(init.get_type(), workflow_info::workflow_type_init);
}

TEST_F(WorkflowManagerInitWorkflow, LaterChildrenStartWithoutWaitersOrDependantsAndTakeTheValue) {
  const std::string first = spawn_child("a");
  m.receiver.calls.clear();
  const std::string second = spawn_child("b");
  // The init workflow now has `first` waiting and as a dependant; its copy must not.
  const workflow_info& c = m.workflow(second);
  EXPECT_TRUE(c.get_waiting_wfs().empty());
  EXPECT_TRUE(c.get_dependants().empty());
  EXPECT_EQ(c.get_sequence_number(), 2u);
  EXPECT_EQ(text_of(in_value_of(m, second, "t1", "in")), "child-in");
  EXPECT_EQ(originator_of(m, second, "t1", "in"), "b");
  // The init workflow itself does not take the ordinary value.
  EXPECT_FALSE(in_value_of(m, "I", "t1", "in"));
  EXPECT_EQ(m.workflow("I").get_waiting_wfs(),
            (std::map<std::string, std::string>{{first, "a"}, {second, "b"}}));
  EXPECT_EQ(m.workflow("I").get_dependants(), (std::set<std::string>{first, second}));
  ASSERT_EQ(m.receiver.calls.size(), 1u);
  EXPECT_FALSE(m.receiver.calls[0].will);
  EXPECT_EQ(m.receiver.calls[0].workflow_id, "I");
  EXPECT_EQ(m.receiver.calls[0].update,
            set_in_value_action("I>t1>in", make_string("child-in"),
                                properties{{"meta", make_int(1)}}, second, false, "b"));
}

TEST_F(WorkflowManagerInitWorkflow, InitValueGoesToWaitersWithTheirOwnOriginatorsAndTheForceFlag) {
  const std::string child = spawn_child("child-originator");
  m.receiver.calls.clear();
  std::string state_id;
  ASSERT_TRUE(m.manager.set_in_value("I>init>setup", make_string("first"), state_id, "",
                                     properties{{"m", make_int(1)}}, false, "caller"));
  EXPECT_EQ(state_id, "I");
  EXPECT_EQ(text_of(in_value_of(m, "I", "init", "setup")), "first");
  EXPECT_EQ(originator_of(m, "I", "init", "setup"), "caller");
  EXPECT_EQ(text_of(in_value_of(m, child, "init", "setup")), "first");
  EXPECT_EQ(originator_of(m, child, "init", "setup"), "child-originator");
  // The workflow meta data is not used for an init value.
  EXPECT_FALSE(m.manager.get_workflow_meta_data("I").is_present("m"));
  EXPECT_FALSE(m.manager.get_workflow_meta_data(child).is_present("m"));
  ASSERT_EQ(m.receiver.calls.size(), 1u);

  // Refused by the init workflow: the waiting workflow is not asked, nothing is written.
  EXPECT_FALSE(m.manager.set_in_value("I>init>setup", make_string("second"), state_id, "", no_meta,
                                      false, "caller"));
  EXPECT_EQ(text_of(in_value_of(m, "I", "init", "setup")), "first");
  EXPECT_EQ(text_of(in_value_of(m, child, "init", "setup")), "first");
  EXPECT_EQ(m.receiver.calls.size(), 1u);

  // Forced: both take it.
  ASSERT_TRUE(m.manager.set_in_value("I>init>setup", make_string("second"), state_id, "", no_meta,
                                     true, "caller"));
  EXPECT_EQ(text_of(in_value_of(m, "I", "init", "setup")), "second");
  EXPECT_EQ(text_of(in_value_of(m, child, "init", "setup")), "second");
}

TEST_F(WorkflowManagerInitWorkflow, ChildOfAnInitedWorkflowIsOnlyADependant) {
  std::string ignored;
  ASSERT_TRUE(m.manager.set_in_value("I>init>setup", make_string("init-value"), ignored, "",
                                     no_meta, false, ""));
  ASSERT_TRUE(m.workflow("I").is_inited());
  const std::string child = spawn_child("x");
  EXPECT_EQ(m.workflow("I").get_waiting_wfs().count(child), 0u);
  EXPECT_TRUE(has_dependant(m.workflow("I"), child));
}

TEST_F(WorkflowManagerInitWorkflow, InitValueReachesLivingWaitersAndReportsRemovedOnes) {
  const std::string alive = spawn_child("a");
  const std::string removed = spawn_child("b");
  m.manager.remove_workflow(removed);
  m.receiver.calls.clear();
  capture_sink sink;
  std::string state_id;
  ASSERT_TRUE(m.manager.set_in_value("I>init>setup", make_string("late-init-value"), state_id, "",
                                     no_meta, false, ""));
  EXPECT_EQ(state_id, "I");
  EXPECT_TRUE(contains_text(m.encoded().get_properties_value(alive), "late-init-value"));
  EXPECT_EQ(sink.messages(),
            (std::vector<std::string>{
                "'" + removed + "' isn't a valid workflow state id",
                "Failed to set in-value init>setup on waiting workflow " + removed}));
  for (const auto& r : sink.reports()) {
    EXPECT_EQ(r.category, "workflow_manager");
    EXPECT_EQ(r.record_kind, 8u);
    EXPECT_EQ(r.record_severity, 3u);
  }
  ASSERT_EQ(m.receiver.calls.size(), 1u);
  EXPECT_EQ(m.receiver.calls[0].workflow_id, "I");
}

TEST_F(WorkflowManagerInitWorkflow, InitInValueGoesToTheInitWorkflowAndItsWaiters) {
  const std::string child = spawn_child("a");
  m.receiver.calls.clear();
  ASSERT_TRUE(
      m.manager.set_init_in_value("workflow:I>init>setup", make_string("direct-init"), "o"));
  EXPECT_TRUE(m.workflow("I").is_inited());
  EXPECT_TRUE(contains_text(m.encoded().get_properties_value(child), "direct-init"));
  ASSERT_EQ(m.receiver.calls.size(), 1u);
  EXPECT_EQ(m.receiver.calls[0].workflow_id, "I");
  EXPECT_EQ(m.receiver.calls[0].update,
            (properties{{"action", make_string("set-init-in-value")},
                        {"input-node-id", make_string("workflow:I>init>setup")},
                        {"value", make_string("direct-init")},
                        {"originator", make_string("o")}}));
}

TEST_F(WorkflowManagerInitWorkflow, InitStatusIsCopiedToWaitingWorkflows) {
  const std::string first = spawn_child("a");
  const std::string second = spawn_child("b");
  m.receiver.calls.clear();
  m.manager.set_task_status("I", "init", zelcore::task::status_finished, 5, "n", "m");
  EXPECT_EQ(m.manager.get_task_status(first, "init"), zelcore::task::status_finished);
  EXPECT_EQ(m.manager.get_task_status(second, "init"), zelcore::task::status_finished);
  ASSERT_EQ(m.receiver.calls.size(), 1u);  // one action; replicas repeat the copying
  EXPECT_EQ(m.receiver.calls[0].workflow_id, "I");
}

TEST_F(WorkflowManagerInitWorkflow, InitStatusIsCopiedOnThroughWaitingInitWorkflows) {
  m.add("I2", zeltest::sample_workflow(workflow_info::workflow_type_init, 2, true));
  m.add("S3", zeltest::sample_workflow(workflow_info::workflow_type_spawned, 2, true));
  m.workflow("I").add_waiting_wf("I2", "x");
  m.workflow("I2").add_waiting_wf("S3", "y");
  m.manager.set_task_status("I", "init", zelcore::task::status_finished, 5, "n", "m");
  EXPECT_EQ(m.manager.get_task_status("I2", "init"), zelcore::task::status_finished);
  EXPECT_EQ(m.manager.get_task_status("S3", "init"), zelcore::task::status_finished);
  EXPECT_EQ(m.manager.get_task_status_info(workflow_manager::create_wpath("S3", "init")).time, 5u);
  ASSERT_EQ(m.receiver.calls.size(), 1u);
  EXPECT_EQ(m.receiver.calls[0].workflow_id, "I");
}

TEST_F(WorkflowManagerInitWorkflow, InitStatusCopyFollowsALongChainOfWaitingInitWorkflows) {
  // Each init workflow waits on the next; a copy must not need stack in proportion to the chain.
  constexpr int chain = 100000;
  properties tasks;
  tasks.set_properties_value("init", zeltest::sample_task("setup", 1, {}, {}));
  workflow_info init;
  init.decode_workflow_info(
      properties{{"type", make_int(workflow_info::workflow_type_init)}, {"tasks", tree_of(tasks)}},
      m.db);
  std::string previous = "I";
  for (int i = 0; i < chain; ++i) {
    const std::string id = "I" + std::to_string(i);
    m.workflows[id] = boost::shared_ptr<workflow_info>(new workflow_info(init));
    m.workflow(previous).add_waiting_wf(id, "");
    previous = id;
  }
  m.manager.set_task_status("I", "init", zelcore::task::status_finished, 5, "n", "m");
  EXPECT_EQ(m.manager.get_task_status(previous, "init"), zelcore::task::status_finished);
  EXPECT_EQ(m.receiver.calls.size(), 1u);
}

TEST_F(WorkflowManagerInitWorkflow, InitStatusCopyStopsAtAMissingWaitingWorkflowInKeyOrder) {
  // Waiting workflows are visited by ascending state id; the missing "W0" comes before "W1".
  m.add("W1", zeltest::sample_workflow(workflow_info::workflow_type_spawned, 2, true));
  m.workflow("I").add_waiting_wf("W1", "");
  m.workflow("I").add_waiting_wf("W0", "");
  capture_sink sink;
  try {
    m.manager.set_task_status("I", "init", zelcore::task::status_finished, 5, "n", "m");
    FAIL() << "no exception";
  } catch (const zelbase::es::api_code& e) {
    EXPECT_EQ(e.code(), -3414000);
    EXPECT_STREQ(e.what(), "'W0' isn't a valid workflow state id");
  }
  EXPECT_EQ(sink.messages(), std::vector<std::string>{"'W0' isn't a valid workflow state id"});
  EXPECT_EQ(m.manager.get_task_status("I", "init"), zelcore::task::status_finished);
  EXPECT_EQ(m.manager.get_task_status("W1", "init"), zelcore::task::status_waiting);
  EXPECT_TRUE(m.receiver.calls.empty());
}

TEST_F(WorkflowManagerInitWorkflow, UnchangedInitStatusIsNeitherCopiedNorWritten) {
  const std::string child = spawn_child("a");
  m.manager.set_task_status(child, "init", zelcore::task::status_running, 5, "n", "m");
  m.receiver.calls.clear();
  // The init workflow's init task is already waiting: nothing changes, nothing is copied.
  ASSERT_EQ(m.manager.get_task_status("I", "init"), zelcore::task::status_waiting);
  m.manager.set_task_status("I", "init", zelcore::task::status_waiting, 6, "n", "m");
  EXPECT_EQ(m.manager.get_task_status(child, "init"), zelcore::task::status_running);
  EXPECT_TRUE(m.receiver.calls.empty());
}

TEST_F(WorkflowManagerInitWorkflow, OrdinaryStatusIsNotCopied) {
  const std::string child = spawn_child("a");
  const auto before = m.manager.get_task_status(child, "t2");
  m.manager.set_task_status("I", "t2", zelcore::task::status_failed, 5, "n", "m");
  EXPECT_EQ(m.manager.get_task_status("I", "t2"), zelcore::task::status_failed);
  EXPECT_EQ(m.manager.get_task_status(child, "t2"), before);
}

TEST_F(WorkflowManagerInValues, InitInValueOnASpawnedWorkflowRaises) {
  m.add("S", zeltest::sample_workflow(workflow_info::workflow_type_spawned, 1));
  const properties before = m.encoded();
  capture_sink sink;
  try {
    m.manager.set_init_in_value("S>t1>in", make_string("v"), "");
    FAIL() << "no exception";
  } catch (const zelbase::es::arg& e) {
    EXPECT_STREQ(e.what(), "Can't set init in-value on a non-init workflow");
  }
  EXPECT_EQ(sink.messages(),
            std::vector<std::string>{"Can't set init in-value on a non-init workflow"});
  EXPECT_EQ(m.encoded(), before);
  EXPECT_TRUE(m.receiver.calls.empty());
}

TEST_F(WorkflowManagerInValues, SourceUrlEntriesGoFirstThenTheRestInKeyOrder) {
  // Task "b" does not exist: its entry raises, so what came before it was set and what came
  // after it was not.
  properties tasks;
  for (const char* id : {"a", "my-source-url", "z"})
    tasks.set_properties_value(id, zeltest::sample_task("command", 0, {{"in", "any"}}, {}));
  m.add("T", properties{{"type", make_int(workflow_info::workflow_type_template)},
                        {"tasks", tree_of(tasks)}});
  const workflow_manager::properties_ptr values(
      new properties{{"a>in", make_string("value-of-a")},
                     {"b>in", make_string("value-of-b")},
                     {"my-source-url>in", make_string("value-of-source")},
                     {"z>in", make_string("value-of-z")}});
  std::string state_id;
  EXPECT_THROW(m.manager.set_in_values("workflow:T", values, state_id, "", no_meta, false, ""),
               zelbase::es::base);
  ASSERT_EQ(m.workflows.size(), 2u);
  ASSERT_EQ(m.workflows.count(state_id), 1u);
  const properties spawned = m.encoded().get_properties_value(state_id);
  EXPECT_TRUE(contains_text(spawned, "value-of-source"));
  EXPECT_TRUE(contains_text(spawned, "value-of-a"));
  EXPECT_FALSE(contains_text(spawned, "value-of-z"));
  EXPECT_TRUE(m.receiver.calls.empty());
}

TEST_F(WorkflowManagerInValues, SetInValuesSpawnsOnceAndWritesTheIdUsed) {
  m.add("T", zeltest::sample_workflow(workflow_info::workflow_type_template, 2));
  const workflow_manager::properties_ptr values(
      new properties{{"t1>in", make_string("one")}, {"t2>in", make_string("two")}});
  std::string state_id;
  ASSERT_TRUE(m.manager.set_in_values("T", values, state_id, "", no_meta, true, "o"));
  EXPECT_EQ(m.workflows.size(), 2u);
  EXPECT_TRUE(contains_text(m.encoded().get_properties_value(state_id), "two"));
  ASSERT_EQ(m.receiver.calls.size(), 1u);
  EXPECT_EQ(m.receiver.calls[0].workflow_id, "T");
  EXPECT_EQ(m.receiver.calls[0].update, (properties{{"action", make_string("set-in-values")},
                                                    {"workflow-id", make_string("T")},
                                                    {"workflow-meta", tree_of(no_meta)},
                                                    {"force-state-id", make_string(state_id)},
                                                    {"force-spawn-value", make_bool(true)},
                                                    {"values", values},
                                                    {"originator", make_string("o")}}));
  EXPECT_EQ(m.receiver.calls[0].update.get_property("values").get(), values.get());
}

properties out_value(const std::string& value, const std::vector<std::string>& destinations) {
  zelcore::property_list::list_type list;
  for (const auto& d : destinations) list.push_back(make_string(d));
  return properties{{"value", make_string(value)},
                    {"destinations", property_ptr(new zelcore::property_list(list))}};
}

TEST_F(WorkflowManagerInValues, OutValuesOfAnOrdinaryTaskBecomeInValues) {
  m.add("S", zeltest::sample_workflow(workflow_info::workflow_type_spawned, 2));
  const properties outs{{"out", tree_of(out_value("routed-value", {"t2>in"}))}};
  const properties meta{{"k", make_int(1)}};
  ASSERT_TRUE(m.manager.set_in_out_values("workflow:S>t1", outs, meta, "o"));
  // Stored as the task's out-value, and set at its destination with the meta data and the
  // originator.
  EXPECT_EQ(text_of(m.manager.get_task_info("S", "t1")->get_out_value("out")), "routed-value");
  EXPECT_EQ(text_of(in_value_of(m, "S", "t2", "in")), "routed-value");
  EXPECT_EQ(originator_of(m, "S", "t2", "in"), "o");
  EXPECT_EQ(m.manager.get_workflow_meta_data("S").get_int_value("k"), 1);
  ASSERT_EQ(m.receiver.calls.size(), 1u);
  EXPECT_FALSE(m.receiver.calls[0].will);
  EXPECT_EQ(m.receiver.calls[0].workflow_id, "S");
  EXPECT_EQ(m.receiver.calls[0].update, (properties{{"action", make_string("set-in-out-values")},
                                                    {"wf-state-id", make_string("S")},
                                                    {"task-wtid", make_string("t1")},
                                                    {"values", tree_of(outs)},
                                                    {"workflow-meta", tree_of(meta)},
                                                    {"originator", make_string("o")}}));
}

TEST_F(WorkflowManagerInValues,
       OutValuesOfAnInitTaskAreRoutedAsInitValuesEvenOutsideInitWorkflows) {
  // An init task of a spawned workflow: its out-values go to set_init_in_value, which refuses a
  // workflow that is not an init workflow.
  m.add("S", zeltest::sample_workflow(workflow_info::workflow_type_spawned, 2, true));
  capture_sink sink;
  const properties outs{{"config", tree_of(out_value("cfg", {"t1>config"}))}};
  try {
    m.manager.set_in_out_values("S", "init", outs, no_meta, "");
    FAIL() << "no exception";
  } catch (const zelbase::es::arg& e) {
    EXPECT_STREQ(e.what(), "Can't set init in-value on a non-init workflow");
  }
  EXPECT_EQ(sink.messages(),
            std::vector<std::string>{"Can't set init in-value on a non-init workflow"});
  EXPECT_FALSE(in_value_of(m, "S", "t1", "config"));
  EXPECT_TRUE(m.receiver.calls.empty());
}

TEST_F(WorkflowManagerInitWorkflow, OutValuesOfAnOrdinaryTaskOfAnInitWorkflowSpawn) {
  const properties outs{{"out", tree_of(out_value("v", {"t1>in"}))}};
  ASSERT_TRUE(m.manager.set_in_out_values("I", "t2", outs, no_meta, ""));
  EXPECT_EQ(m.workflows.size(), 2u);  // routed as a plain in-value: a child was spawned
}

TEST_F(WorkflowManagerInitWorkflow, OutValuesOfAnInitTaskAreInitValues) {
  const std::string child = spawn_child("a");
  const std::size_t count = m.workflows.size();
  const properties outs{{"config", tree_of(out_value("init-routed", {"init>setup"}))}};
  ASSERT_TRUE(m.manager.set_in_out_values("I", "init", outs, no_meta, ""));
  EXPECT_EQ(m.workflows.size(), count);  // nothing spawned
  EXPECT_TRUE(m.workflow("I").is_inited());
  // The out-value is stored on the task of the init workflow and of its waiting child, and the
  // routed init value reaches both.
  EXPECT_EQ(text_of(m.manager.get_task_info("I", "init")->get_out_value("config")), "init-routed");
  EXPECT_EQ(text_of(m.manager.get_task_info(child, "init")->get_out_value("config")),
            "init-routed");
  EXPECT_EQ(text_of(in_value_of(m, child, "init", "setup")), "init-routed");
  EXPECT_EQ(originator_of(m, child, "init", "setup"), "a");
}

TEST_F(WorkflowManagerInValues, MalformedOutValuesChangeNothing) {
  m.add("S", zeltest::sample_workflow(workflow_info::workflow_type_spawned, 2));
  const properties before = m.encoded();
  const std::vector<properties> bad = {
      properties{{"out", make_string("not a tree")}},
      properties{{"out", tree_of(properties{{"value", make_int(1)}})}},
      properties{{"out", tree_of(properties{{"destinations", tree_of(properties())}})}},
      properties{{"out", tree_of(properties{
                             {"destinations", out_value("v", {}).get_property("destinations")}})}},
      properties{{"another", tree_of(out_value("v", {"t2>in"}))},
                 {"out", tree_of(properties{{"destinations", make_int(3)}})}}};
  for (const auto& outs : bad) {
    EXPECT_THROW(m.manager.set_in_out_values("S", "t1", outs, no_meta, ""), zelbase::es::arg)
        << outs.describe();
    EXPECT_EQ(m.encoded(), before);
  }
  EXPECT_TRUE(m.receiver.calls.empty());
}

TEST_F(WorkflowManagerInValues, UnknownWorkflowInTheAddressChangesNothing) {
  m.add("T", zeltest::sample_workflow(workflow_info::workflow_type_template, 1));
  capture_sink sink;
  std::string state_id;
  EXPECT_THROW(m.manager.set_in_value("workflow:Q>t1>in", make_string("v"), state_id, "", no_meta,
                                      false, ""),
               zelbase::es::api_code);
  EXPECT_EQ(sink.messages(), std::vector<std::string>{"'Q' isn't a valid workflow state id"});
  EXPECT_EQ(m.workflows.size(), 1u);
  EXPECT_EQ(m.sequence_number, 0u);
}

TEST_F(WorkflowManagerInValues, DuplicateForcedIdPropagatesAsArgumentError) {
  m.add("T", zeltest::sample_workflow(workflow_info::workflow_type_template, 1));
  capture_sink sink;
  std::string state_id;
  EXPECT_THROW(
      m.manager.set_in_value("T>t1>in", make_string("v"), state_id, "T", no_meta, false, ""),
      zelbase::es::arg);
  EXPECT_EQ(sink.messages(),
            std::vector<std::string>{
                "Can't add workflow with same state-id ('T') as an already present workflow."});
  EXPECT_EQ(m.workflows.size(), 1u);
  EXPECT_EQ(m.workflow("T").get_type(), workflow_info::workflow_type_template);
  EXPECT_TRUE(m.receiver.calls.empty());
}

}  // namespace
