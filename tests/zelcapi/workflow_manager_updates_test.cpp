// Tests of the "update-workflow" actions: what each local change writes, how the workflow id of
// an action is found, and how update_workflow applies actions.
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
using zeltest::empty_workflow;
using zeltest::managed_workflows;
using zeltest::manager_source;
using zeltest::recorded_call;
using zeltest::tree_of;
using zelworkflow::workflow_info;

// A manager with two templates "A" and "B" and a two-task spawned workflow "S".
struct WorkflowManagerUpdates : ::testing::Test {
  void SetUp() override {
    m.add("A", empty_workflow(workflow_info::workflow_type_template));
    m.add("B", empty_workflow(workflow_info::workflow_type_template));
    m.add("S", zeltest::sample_workflow(workflow_info::workflow_type_spawned, 2));
  }
  void expect_was(std::size_t index, const std::string& id, const properties& update) {
    ASSERT_GT(m.receiver.calls.size(), index);
    const recorded_call& call = m.receiver.calls[index];
    EXPECT_FALSE(call.will);
    EXPECT_EQ(call.workflow_id, id);
    EXPECT_EQ(call.update, update) << call.update.describe();
  }
  managed_workflows m;
};

TEST_F(WorkflowManagerUpdates, AddDependantWritesStateIdAndDependant) {
  m.manager.add_dependant("A", "B");
  EXPECT_TRUE(m.workflow("A").remove_dependant("B"));
  ASSERT_EQ(m.receiver.calls.size(), 1u);
  expect_was(0, "A",
             properties{{"action", make_string("add-dependant")},
                        {"state-id", make_string("A")},
                        {"dependant", make_string("B")}});
}

TEST_F(WorkflowManagerUpdates, RemoveDependantOfOneWorkflowNamesIt) {
  m.manager.add_dependant("A", "x");
  m.manager.add_dependant("B", "x");
  m.receiver.calls.clear();
  m.manager.remove_dependant("A", "x");
  EXPECT_FALSE(m.workflow("A").remove_dependant("x"));
  EXPECT_TRUE(m.workflow("B").remove_dependant("x"));
  ASSERT_EQ(m.receiver.calls.size(), 1u);
  expect_was(0, "A",
             properties{{"action", make_string("remove-dependant")},
                        {"state-id", make_string("A")},
                        {"dependant", make_string("x")}});
}

TEST_F(WorkflowManagerUpdates, RemoveDependantEverywhereCarriesNoWorkflowId) {
  m.manager.add_dependant("A", "x");
  m.manager.add_dependant("B", "x");
  m.receiver.calls.clear();
  m.manager.remove_dependant("x");
  EXPECT_FALSE(m.workflow("A").remove_dependant("x"));
  EXPECT_FALSE(m.workflow("B").remove_dependant("x"));
  ASSERT_EQ(m.receiver.calls.size(), 1u);
  expect_was(
      0, "",
      properties{{"action", make_string("remove-dependant")}, {"dependant", make_string("x")}});
}

TEST_F(WorkflowManagerUpdates, SetPriorityWritesTheNumbers) {
  m.manager.set_priority("A", 40, workflow_info::priority_absolute, 0, 100);
  EXPECT_EQ(m.manager.get_priority("A"), 40);
  expect_was(0, "A",
             properties{{"action", make_string("set-priority")},
                        {"state-id", make_string("A")},
                        {"priority", make_int(40)},
                        {"whence", make_int(workflow_info::priority_absolute)},
                        {"min", make_int(0)},
                        {"max", make_int(100)}});
}

TEST_F(WorkflowManagerUpdates, MetaDataActionsCarryTheTree) {
  const properties meta{{"k", make_string("v")}};
  m.manager.set_workflow_meta_data("A", meta);
  m.manager.add_workflow_meta_data("A", properties{{"j", make_int(2)}});
  m.manager.add_ext_meta_data("A", meta);
  EXPECT_EQ(m.manager.get_workflow_meta_data("A").get_string_value("k"), "v");
  EXPECT_EQ(m.manager.get_workflow_meta_data("A").get_int_value("j"), 2);
  EXPECT_EQ(m.manager.get_ext_meta_data("A").get_string_value("k"), "v");
  ASSERT_EQ(m.receiver.calls.size(), 3u);
  expect_was(0, "A",
             properties{{"action", make_string("set-workflow-meta-data")},
                        {"wf-state-id", make_string("A")},
                        {"meta-data", tree_of(meta)}});
  expect_was(1, "A",
             properties{{"action", make_string("add-workflow-meta-data")},
                        {"wf-state-id", make_string("A")},
                        {"meta-data", tree_of(properties{{"j", make_int(2)}})}});
  expect_was(2, "A",
             properties{{"action", make_string("add-ext-meta-data")},
                        {"wf-state-id", make_string("A")},
                        {"meta-data", tree_of(meta)}});
}

TEST_F(WorkflowManagerUpdates, SetMetaDataReplacesWhileAddMerges) {
  m.manager.add_workflow_meta_data("A", properties{{"old", make_int(1)}});
  m.manager.add_workflow_meta_data("A", properties{{"added", make_int(2)}});
  EXPECT_EQ(m.manager.get_workflow_meta_data("A"),
            (properties{{"old", make_int(1)}, {"added", make_int(2)}}));
  m.manager.set_workflow_meta_data("A", properties{{"new", make_int(3)}});
  EXPECT_EQ(m.manager.get_workflow_meta_data("A"), (properties{{"new", make_int(3)}}));
  m.manager.add_ext_meta_data("A", properties{{"old", make_int(1)}});
  m.manager.add_ext_meta_data("A", properties{{"added", make_int(2)}});
  EXPECT_EQ(m.manager.get_ext_meta_data("A"),
            (properties{{"old", make_int(1)}, {"added", make_int(2)}}));
}

TEST_F(WorkflowManagerUpdates, ReceivedMetaDataActionsReplaceOrMergeAsTheirNamesSay) {
  m.manager.add_workflow_meta_data("A", properties{{"old", make_int(1)}});
  m.manager.add_ext_meta_data("A", properties{{"old", make_int(1)}});
  const auto meta_update = [](const char* action) {
    return properties{{"action", make_string(action)},
                      {"wf-state-id", make_string("A")},
                      {"meta-data", tree_of(properties{{"new", make_int(2)}})}};
  };
  m.manager.update_workflow(meta_update("add-workflow-meta-data"), m.db);
  EXPECT_EQ(m.manager.get_workflow_meta_data("A"),
            (properties{{"old", make_int(1)}, {"new", make_int(2)}}));
  m.manager.update_workflow(meta_update("add-ext-meta-data"), m.db);
  EXPECT_EQ(m.manager.get_ext_meta_data("A"),
            (properties{{"old", make_int(1)}, {"new", make_int(2)}}));
  m.manager.update_workflow(meta_update("set-workflow-meta-data"), m.db);
  EXPECT_EQ(m.manager.get_workflow_meta_data("A"), (properties{{"new", make_int(2)}}));
}

TEST_F(WorkflowManagerUpdates, SetExtMetaDataReplacesTheTreeSilently) {
  m.manager.add_ext_meta_data("A", properties{{"old", make_int(1)}});
  m.receiver.calls.clear();
  m.manager.set_ext_meta_data("A", properties{{"e", make_int(1)}});
  EXPECT_EQ(m.manager.get_ext_meta_data("A"), (properties{{"e", make_int(1)}}));
  EXPECT_TRUE(m.receiver.calls.empty());
}

TEST_F(WorkflowManagerUpdates, TaskActionsNameWorkflowAndTask) {
  const std::string path = workflow_manager::create_wpath("S", "t1");
  const properties progress{{"done", make_int(50)}};
  m.manager.set_task_scheduling_state(path, zelcore::task::scheduling_queued);
  m.manager.update_task_progress("S", "t1", progress);
  m.manager.set_task_priority(path, 7, workflow_info::priority_relative, -5, 5);
  m.manager.set_task_max_attempts(path, 9);
  EXPECT_EQ(m.manager.get_task_max_attempts(path), 9u);
  ASSERT_EQ(m.receiver.calls.size(), 4u);
  expect_was(0, "S",
             properties{{"action", make_string("set-task-scheduling-state")},
                        {"wf-state-id", make_string("S")},
                        {"task-wtid", make_string("t1")},
                        {"task-scheduling-state", make_int(zelcore::task::scheduling_queued)}});
  expect_was(1, "S",
             properties{{"action", make_string("update-task-progress")},
                        {"wf-state-id", make_string("S")},
                        {"task-wtid", make_string("t1")},
                        {"progress", tree_of(progress)}});
  expect_was(2, "S",
             properties{{"action", make_string("set-task-priority")},
                        {"wf-state-id", make_string("S")},
                        {"task-wtid", make_string("t1")},
                        {"priority", make_int(7)},
                        {"whence", make_int(workflow_info::priority_relative)},
                        {"min", make_int(-5)},
                        {"max", make_int(5)}});
  expect_was(3, "S",
             properties{{"action", make_string("set-task-max_attempts")},
                        {"wf-state-id", make_string("S")},
                        {"task-wtid", make_string("t1")},
                        {"max-attempts", make_int(9)}});
}

TEST_F(WorkflowManagerUpdates, SetTaskStatusWritesOnlyAChange) {
  m.manager.set_task_status("S", "t1", zelcore::task::status_running, 100, "node-1", "started");
  m.manager.set_task_status(workflow_manager::create_wpath("S", "t1"),
                            zelcore::task::status_running, 100, "node-1", "started");
  EXPECT_EQ(m.manager.get_task_status("S", "t1"), zelcore::task::status_running);
  ASSERT_EQ(m.receiver.calls.size(), 1u);
  expect_was(0, "S",
             properties{{"action", make_string("set-task-status")},
                        {"wf-state-id", make_string("S")},
                        {"task-wtid", make_string("t1")},
                        {"task-status", make_int(zelcore::task::status_running)},
                        {"tm", make_int(100)},
                        {"nid", make_string("node-1")},
                        {"msg", make_string("started")}});
}

TEST_F(WorkflowManagerUpdates, AddTaskWritesTheTaskAsTheWorkflowHoldsIt) {
  std::string wtid;
  m.manager.add_task("S", zeltest::sample_task("command", 0, {}, {}), m.db, wtid);
  EXPECT_TRUE(m.manager.has_task(workflow_manager::create_wpath("S", wtid)));
  properties stored;
  m.manager.encode_task("S", wtid, stored);
  ASSERT_EQ(m.receiver.calls.size(), 1u);
  expect_was(0, "S",
             properties{{"action", make_string("add-task")},
                        {"wf-state-id", make_string("S")},
                        {"task-info", tree_of(stored)}});
}

// Every public change, once with a receiver and once without: the workflows end the same, and
// only the manager with a receiver wrote anything.
TEST_F(WorkflowManagerUpdates, AddTaskBuildsTheTaskBeforeLookingUpTheWorkflow) {
  capture_sink sink;
  properties bad_task = zeltest::sample_task("command", 0, {}, {});
  bad_task.set_int_value("type", 7);
  std::string wtid;
  try {
    m.manager.add_task("nope", bad_task, m.db, wtid);
    FAIL() << "no exception";
  } catch (const zelbase::es::arg& e) {
    EXPECT_STREQ(e.what(), "cannot decode task: 'type' is 7, outside 0 to 1");
  }
  EXPECT_TRUE(sink.messages().empty());  // the unknown id was never looked up
  EXPECT_TRUE(m.receiver.calls.empty());
}

TEST_F(WorkflowManagerUpdates, TaskWhoseIdHoldsTheSeparatorIsRefused) {
  const properties before = m.encoded();
  properties task = zeltest::sample_task("command", 0, {}, {});
  task.set_string_value("id", "a>b");
  std::string wtid;
  EXPECT_THROW(m.manager.add_task("S", task, m.db, wtid), zelbase::es::arg);
  EXPECT_EQ(m.encoded(), before);
  // What stays in the manager can be decoded from its own encoding.
  workflow_info copy;
  EXPECT_NO_THROW(copy.decode_workflow_info(m.encoded().get_properties_value("S"), m.db));
  EXPECT_TRUE(m.receiver.calls.empty());
}

TEST_F(WorkflowManagerUpdates, ReceivedTaskStatusTakesTheLow32BitsOfItsTime) {
  m.manager.update_workflow(properties{{"action", make_string("set-task-status")},
                                       {"wf-state-id", make_string("S")},
                                       {"task-wtid", make_string("t1")},
                                       {"task-status", make_int(zelcore::task::status_failed)},
                                       {"tm", make_int((std::int64_t{1} << 32) + 5)},
                                       {"nid", make_string("node")},
                                       {"msg", make_string("text")}},
                            m.db);
  const auto& info = m.manager.get_task_status_info(workflow_manager::create_wpath("S", "t1"));
  EXPECT_EQ(info.task_status, zelcore::task::status_failed);
  EXPECT_EQ(info.time, 5u);
  EXPECT_EQ(info.node_id, "node");
  EXPECT_EQ(info.message, "text");
}

TEST_F(WorkflowManagerUpdates, ReceivedPrioritiesPassTheirWhenceAndLimits) {
  const auto priority_update = [](const char* action, std::int64_t priority) {
    return properties{{"action", make_string(action)},
                      {"state-id", make_string("S")},
                      {"wf-state-id", make_string("S")},
                      {"task-wtid", make_string("t2")},
                      {"priority", make_int(priority)},
                      {"whence", make_int(workflow_info::priority_relative)},
                      {"min", make_int(-3)},
                      {"max", make_int(8)}};
  };
  m.manager.update_workflow(priority_update("set-priority", 5), m.db);
  m.manager.update_workflow(priority_update("set-priority", 5), m.db);
  EXPECT_EQ(m.manager.get_priority("S"), 8);  // 5, then 10 clamped to the max
  m.manager.update_workflow(priority_update("set-task-priority", -2), m.db);
  m.manager.update_workflow(priority_update("set-task-priority", -2), m.db);
  EXPECT_EQ(m.manager.get_task_priority(workflow_manager::create_wpath("S", "t2")), -3);
  EXPECT_EQ(m.manager.get_task_priority(workflow_manager::create_wpath("S", "t1")), 0);
}

TEST_F(WorkflowManagerUpdates, WithoutReceiverEveryChangeIsMadeAndNothingIsWritten) {
  managed_workflows loud;
  managed_workflows quiet(false);
  for (managed_workflows* w : {&loud, &quiet}) {
    workflow_manager& wm = w->manager;
    w->add("T", zeltest::sample_workflow(workflow_info::workflow_type_template, 2));
    w->add("I", zeltest::sample_workflow(workflow_info::workflow_type_init, 2, true));
    w->add("S", zeltest::sample_workflow(workflow_info::workflow_type_spawned, 2, true));
    const std::string t1 = workflow_manager::create_wpath("S", "t1");
    std::string out;
    wm.add_workflow(empty_workflow(workflow_info::workflow_type_spawned), w->db, out, "N");
    wm.add_dependant("S", "x");
    wm.add_dependant("T", "x");
    wm.remove_dependant("S", "x");
    wm.remove_dependant("x");
    wm.add_ext_meta_data("S", properties{{"e", make_int(1)}});
    wm.set_ext_meta_data("T", properties{{"x", make_int(1)}});
    wm.set_attempts_config({{"command", 4}});
    wm.add_workflow_meta_data("S", properties{{"w", make_int(1)}});
    wm.set_workflow_meta_data("T", properties{{"s", make_int(1)}});
    wm.add_task("S", zeltest::sample_task("command", 0, {}, {}), w->db, out);
    wm.set_priority("S", 3, workflow_info::priority_absolute, 0, 10);
    wm.set_task_priority(t1, 4, workflow_info::priority_absolute, 0, 10);
    wm.set_task_max_attempts(t1, 5);
    wm.set_task_scheduling_state("S", "t2", zelcore::task::scheduling_queued);
    wm.set_task_scheduling_state(t1, zelcore::task::scheduling_dispatched);
    wm.update_task_progress("S", "t2", properties{{"p", make_int(1)}});
    wm.update_task_progress(t1, properties{{"q", make_int(2)}});
    wm.set_task_status("S", "t2", zelcore::task::status_running, 1, "n", "m");
    wm.set_task_status(t1, zelcore::task::status_failed, 2, "n", "m");
    ASSERT_TRUE(
        wm.set_in_value("T>t1>in", make_string("v"), out, "spawned", properties(), false, "o"));
    const workflow_manager::properties_ptr values(new properties{{"t2>in", make_int(1)}});
    ASSERT_TRUE(wm.set_in_values("S", values, out, "", properties(), false, "o"));
    ASSERT_TRUE(wm.set_init_in_value("I>init>setup", make_string("i"), "o"));
    const property_ptr destinations(
        new zelcore::property_list(zelcore::property_list::list_type{make_string("t2>in")}));
    const properties outs{
        {"out", tree_of(properties{{"value", make_int(7)}, {"destinations", destinations}})}};
    ASSERT_TRUE(wm.set_in_out_values("workflow:spawned>t1", outs, properties(), "o"));
    wm.remove_workflow("N");
  }
  EXPECT_EQ(quiet.encoded(), loud.encoded());
  EXPECT_EQ(quiet.sequence_number, loud.sequence_number);
  EXPECT_TRUE(quiet.receiver.calls.empty());
  EXPECT_EQ(loud.receiver.calls.size(), 24u);  // removal: before and after
}

TEST_F(WorkflowManagerUpdates, FailedChangeWritesNothing) {
  capture_sink sink;
  EXPECT_THROW(m.manager.set_priority("nope", 1, workflow_info::priority_absolute, 0, 9),
               zelbase::es::api_code);
  EXPECT_THROW(
      m.manager.set_task_status("S", "no-such-task", zelcore::task::status_running, 1, "n", "m"),
      zelbase::es::base);
  EXPECT_TRUE(m.receiver.calls.empty());
}

// --- Reading the workflow id of an action, seen through update_workflow ---

TEST_F(WorkflowManagerUpdates, RemoveDependantWithoutIdIsAnnouncedUnderTheEmptyId) {
  m.manager.add_dependant("A", "d");
  m.manager.add_dependant("B", "d");
  m.receiver.calls.clear();
  const properties update{{"action", make_string("remove-dependant")},
                          {"dependant", make_string("d")}};
  m.manager.update_workflow(update, m.db);
  EXPECT_FALSE(m.workflow("A").remove_dependant("d"));
  EXPECT_FALSE(m.workflow("B").remove_dependant("d"));
  ASSERT_EQ(m.receiver.calls.size(), 2u);
  EXPECT_TRUE(m.receiver.calls[0].will);
  EXPECT_EQ(m.receiver.calls[0].workflow_id, "");
  EXPECT_EQ(m.receiver.calls[0].update, update);
  expect_was(1, "", update);
}

TEST_F(WorkflowManagerUpdates, RemoveDependantWithEmptyIdRemovesEverywhere) {
  m.manager.add_dependant("A", "d");
  m.manager.add_dependant("B", "d");
  m.manager.update_workflow(properties{{"action", make_string("remove-dependant")},
                                       {"state-id", make_string("")},
                                       {"dependant", make_string("d")}},
                            m.db);
  EXPECT_FALSE(m.workflow("A").remove_dependant("d"));
  EXPECT_FALSE(m.workflow("B").remove_dependant("d"));
}

TEST_F(WorkflowManagerUpdates, RemoveDependantWithIdRemovesOnlyThere) {
  m.manager.add_dependant("A", "d");
  m.manager.add_dependant("B", "d");
  m.manager.update_workflow(properties{{"action", make_string("remove-dependant")},
                                       {"state-id", make_string("A")},
                                       {"dependant", make_string("d")}},
                            m.db);
  EXPECT_FALSE(m.workflow("A").remove_dependant("d"));
  EXPECT_TRUE(m.workflow("B").remove_dependant("d"));
}

TEST_F(WorkflowManagerUpdates, RemoveDependantWithUnknownIdRaises) {
  capture_sink sink;
  try {
    m.manager.update_workflow(properties{{"action", make_string("remove-dependant")},
                                         {"state-id", make_string("Q")},
                                         {"dependant", make_string("d")}},
                              m.db);
    FAIL() << "no exception";
  } catch (const zelbase::es::api_code& e) {
    EXPECT_EQ(e.code(), -3414000);
    EXPECT_STREQ(e.what(), "'Q' isn't a valid workflow state id");
  }
  ASSERT_EQ(m.receiver.calls.size(), 1u);
  EXPECT_TRUE(m.receiver.calls[0].will);
  EXPECT_EQ(m.receiver.calls[0].workflow_id, "Q");
}

properties max_attempts_update(const char* action, std::int64_t max_attempts) {
  return properties{{"action", make_string(action)},
                    {"wf-state-id", make_string("S")},
                    {"task-wtid", make_string("t1")},
                    {"max-attempts", make_int(max_attempts)}};
}

// Checks that `action` is refused as unknown after a "will be updated" under `announced_id`.
void expect_unknown_action(managed_workflows& m, const properties& update,
                           const std::string& announced_id) {
  const properties before = m.encoded();
  capture_sink sink;
  try {
    m.manager.update_workflow(update, m.db);
    FAIL() << "no exception";
  } catch (const zelbase::es::arg& e) {
    EXPECT_STREQ(e.what(), "unknown workflow-update action requested");
    EXPECT_EQ(e.file(), manager_source);
    EXPECT_EQ(e.line(), 479u);
  }
  const auto reports = sink.reports();
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].file, manager_source);
  EXPECT_EQ(reports[0].line, 478u);
  EXPECT_EQ(reports[0].category, "workflow_manager");
  EXPECT_EQ(reports[0].record_kind, 8u);
  EXPECT_EQ(reports[0].record_severity, 3u);
  EXPECT_EQ(reports[0].message, "unknown workflow-update action requested");
  ASSERT_EQ(m.receiver.calls.size(), 1u);
  EXPECT_TRUE(m.receiver.calls[0].will);
  EXPECT_EQ(m.receiver.calls[0].workflow_id, announced_id);
  EXPECT_EQ(m.encoded(), before);
  m.receiver.calls.clear();
}

TEST_F(WorkflowManagerUpdates, OwnMaxAttemptsSpellingIsNotApplicable) {
  m.manager.set_task_max_attempts(workflow_manager::create_wpath("S", "t1"), 4);
  const properties written = m.receiver.calls.at(0).update;
  m.receiver.calls.clear();
  EXPECT_EQ(written.get_string_value("action"), "set-task-max_attempts");
  expect_unknown_action(m, written, "");
}

TEST_F(WorkflowManagerUpdates, MisspelledAttempsIsAnnouncedUnderItsWorkflowButNotApplied) {
  expect_unknown_action(m, max_attempts_update("set-task-max-attemps", 3), "S");
}

TEST_F(WorkflowManagerUpdates, HyphenatedMaxAttemptsIsAppliedWithLow32BitsUnderTheEmptyId) {
  const properties update = max_attempts_update("set-task-max-attempts", (1LL << 32) + 1);
  m.manager.update_workflow(update, m.db);
  EXPECT_EQ(m.manager.get_task_max_attempts(workflow_manager::create_wpath("S", "t1")), 1u);
  ASSERT_EQ(m.receiver.calls.size(), 2u);
  EXPECT_TRUE(m.receiver.calls[0].will);
  EXPECT_EQ(m.receiver.calls[0].workflow_id, "");
  expect_was(1, "", update);
}

TEST_F(WorkflowManagerUpdates, ActionsDifferingInCaseOrBlanksAreUnknown) {
  const properties base{{"state-id", make_string("A")}, {"dependant", make_string("B")}};
  for (const char* action : {"Add-Dependant", "add-dependant ", " add-dependant", "", "nothing"}) {
    properties update = base;
    update["action"] = make_string(action);
    expect_unknown_action(m, update, "");
  }
}

TEST_F(WorkflowManagerUpdates, ReceivedUpdateIsPassedOnAsReceived) {
  const properties update{{"action", make_string("set-priority")},
                          {"state-id", make_string("A")},
                          {"priority", make_int(5)},
                          {"whence", make_int(workflow_info::priority_absolute)},
                          {"min", make_int(0)},
                          {"max", make_int(10)},
                          {"extra", make_string("kept")}};
  m.manager.update_workflow(update, m.db);
  EXPECT_EQ(m.manager.get_priority("A"), 5);
  ASSERT_EQ(m.receiver.calls.size(), 2u);
  EXPECT_TRUE(m.receiver.calls[0].will);
  EXPECT_EQ(m.receiver.calls[0].workflow_id, "A");
  expect_was(1, "A", update);
}

TEST_F(WorkflowManagerUpdates, AddWorkflowFromAMessageKeepsTheWritersId) {
  managed_workflows writer;
  std::string id;
  writer.manager.add_workflow(empty_workflow(workflow_info::workflow_type_template), writer.db, id,
                              "");
  m.manager.update_workflow(writer.receiver.calls.at(0).update, m.db);
  EXPECT_EQ(m.workflows.count(id), 1u);
  expect_was(1, id, writer.receiver.calls.at(0).update);
}

TEST_F(WorkflowManagerUpdates, AddTaskFromAMessageDiscardsTheAssignedId) {
  managed_workflows writer;
  writer.add("S", zeltest::sample_workflow(workflow_info::workflow_type_spawned, 2));
  std::string wtid;
  writer.manager.add_task("S", zeltest::sample_task("command", 0, {}, {}), writer.db, wtid);
  m.manager.update_workflow(writer.receiver.calls.at(0).update, m.db);
  EXPECT_TRUE(m.manager.has_task(workflow_manager::create_wpath("S", wtid)));
  EXPECT_EQ(m.encoded().get_properties_value("S"), writer.encoded().get_properties_value("S"));
}

TEST_F(WorkflowManagerUpdates, StatusMessageReplaysOnAReplica) {
  managed_workflows writer;
  writer.add("S", zeltest::sample_workflow(workflow_info::workflow_type_spawned, 2));
  writer.manager.set_task_status("S", "t1", zelcore::task::status_finished, 9, "n", "done");
  m.manager.update_workflow(writer.receiver.calls.at(0).update, m.db);
  EXPECT_EQ(m.manager.get_task_status("S", "t1"), zelcore::task::status_finished);
  EXPECT_EQ(m.encoded().get_properties_value("S"), writer.encoded().get_properties_value("S"));
}

}  // namespace
