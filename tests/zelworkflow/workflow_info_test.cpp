// Tests of the workflow: spawning, in-values, statuses, attempts, priorities, kill triggers,
// meta data, dependants, the waiting list and copies.
#include "zelworkflow/workflow_info.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <vector>

#include "support/sample_workflows.h"
#include "workflow_test_util.h"
#include "zelbase/exceptions.h"

namespace {

using zelcore::make_int;
using zelcore::make_string;
using zelcore::properties;
using zelcore::task;
using zeltest::decoded;
using zeltest::encoded;
using zeltest::expect_arg_unchanged;
using zelworkflow::workflow_info;

workflow_info spawned_sample(std::size_t n = 3, std::uint64_t seq = 7) {
  workflow_info wf = decoded(zeltest::sample_workflow(2, n));
  wf.spawn(seq, make_string("go"), {});
  return wf;
}

TEST(WorkflowInfo, DecodesSampleTemplateWithItsTasks) {
  workflow_info wf = decoded(zeltest::sample_workflow(0, 20));
  EXPECT_EQ(wf.get_type(), workflow_info::workflow_type_template);
  std::list<std::string> ids;
  wf.get_task_uris(ids);
  EXPECT_EQ(ids.size(), 20u);
  EXPECT_EQ(ids.front(), "t1");
  EXPECT_EQ(wf.get_sequence_number(), 0u);
  EXPECT_TRUE(wf.is_inited());
  EXPECT_EQ(wf.get_status(), workflow_info::status_created);
}

TEST(WorkflowInfo, DefaultWorkflowIsAnUnspawnedSpawnedWorkflowWithoutTasks) {
  workflow_info wf;
  EXPECT_EQ(wf.get_type(), workflow_info::workflow_type_spawned);
  EXPECT_EQ(wf.get_sequence_number(), 0u);
  EXPECT_EQ(wf.get_priority(), 0);
  EXPECT_TRUE(wf.get_spawn_value().is_null());
  EXPECT_EQ(wf.get_status(), workflow_info::status_created);
}

TEST(WorkflowInfo, SpawnSetsSequenceNumberSpawnValueAndAttemptsByKind) {
  workflow_info wf = decoded(zeltest::sample_workflow(2, 2, true));
  wf.spawn(42, make_string("No in-value needed"), {{"command", 3}, {"default", 5}});
  EXPECT_EQ(wf.get_sequence_number(), 42u);
  EXPECT_EQ(wf.get_spawn_value()->to_string(), "No in-value needed");
  EXPECT_EQ(wf.get_task_max_attempts("t1"), 3u);
  EXPECT_EQ(wf.get_task_max_attempts("init"), 5u);  // kind "setup" falls to "default"
}

TEST(WorkflowInfo, SpawnWithoutMatchingAttemptsEntryKeepsMaxAttempts) {
  workflow_info wf = decoded(zeltest::sample_workflow(2, 1));
  wf.spawn(1, nullptr, {{"other", 9}});
  EXPECT_EQ(wf.get_task_max_attempts("t1"), 1u);
}

TEST(WorkflowInfo, SpawnOfTemplateOrWithZeroSequenceNumberRaises) {
  workflow_info tpl = decoded(zeltest::sample_workflow(0, 2));
  expect_arg_unchanged(
      tpl, [&] { tpl.spawn(1, make_int(1), {}); },
      "a template is never spawned itself; spawn a copy of it");
  workflow_info wf = decoded(zeltest::sample_workflow(2, 2));
  expect_arg_unchanged(
      wf, [&] { wf.spawn(0, make_int(1), {}); },
      "a workflow is spawned with a sequence number above 0");
}

TEST(WorkflowInfo, CopyIsDeepAndIndependent) {
  workflow_info tpl = decoded(zeltest::sample_workflow(0, 3));
  tpl.add_dependant("WOFL-a");
  tpl.add_waiting_wf("WOFL-b", "me");
  workflow_info copy(tpl);
  EXPECT_TRUE(copy == tpl);
  copy.set_type(workflow_info::workflow_type_spawned);
  copy.clear_dependants();
  copy.clear_waiting_wfs();
  copy.spawn(1, make_int(1), {});
  EXPECT_TRUE(copy.set_in_value("t1>in", make_int(5), false, "o"));
  copy.set_task_status("t1", task::status_running, 10, "n1", "");
  EXPECT_EQ(tpl.get_type(), workflow_info::workflow_type_template);
  EXPECT_EQ(tpl.get_dependants().size(), 1u);
  EXPECT_EQ(tpl.get_waiting_wfs().size(), 1u);
  EXPECT_TRUE(tpl.get_task_info("t1")->get_in_value("in").is_null());
  EXPECT_EQ(tpl.get_task_info("t1")->get_status(), task::status_waiting);
  EXPECT_NE(copy.get_task_info("t1").get(), tpl.get_task_info("t1").get());

  workflow_info assigned;
  assigned = copy;
  EXPECT_TRUE(assigned == copy);
  assigned.set_priority(3, workflow_info::priority_absolute, 0, 10);
  EXPECT_FALSE(assigned == copy);
}

TEST(WorkflowInfo, SetTypeRefusesUnknownType) {
  workflow_info wf;
  expect_arg_unchanged(
      wf, [&] { wf.set_type(static_cast<workflow_info::workflow_type>(3)); },
      "unknown workflow type 3");
}

TEST(WorkflowInfo, InValueIsStoredWithOriginator) {
  workflow_info wf = spawned_sample();
  EXPECT_TRUE(wf.set_in_value("t1>in", make_string("x"), false, "client-1"));
  EXPECT_EQ(wf.get_task_info("t1")->get_in_value("in")->to_string(), "x");
  properties enc = encoded(wf);
  EXPECT_EQ(enc.get_properties_value("tasks")
                .get_properties_value("t1")
                .get_properties_value("in-nodes")
                .get_properties_value("in")
                .get_string_value("originator"),
            "client-1");
}

TEST(WorkflowInfo, InValueByTaskIdAloneGoesToTheOnlyInNode) {
  workflow_info wf = spawned_sample();
  EXPECT_TRUE(wf.set_in_value("t2", make_int(1), false, ""));
  EXPECT_EQ(wf.get_task_info("t2")->get_in_value("in")->to_string(), "1");
}

TEST(WorkflowInfo, InValueByTaskIdAloneRaisesForSeveralInNodes) {
  workflow_info wf = spawned_sample();
  expect_arg_unchanged(
      wf, [&] { wf.set_in_value("t3", make_int(1), false, ""); },
      "cannot set in-value 't3': task 't3' has 2 in-nodes; name one of them");
}

TEST(WorkflowInfo, SecondInValueIsRefusedUnlessForced) {
  workflow_info wf = spawned_sample();
  EXPECT_TRUE(wf.set_in_value("t1>in", make_int(1), false, ""));
  EXPECT_FALSE(wf.set_in_value("t1>in", make_int(2), false, ""));
  EXPECT_EQ(wf.get_task_info("t1")->get_in_value("in")->to_string(), "1");
  EXPECT_TRUE(wf.set_in_value("t1>in", make_int(2), true, ""));
  EXPECT_EQ(wf.get_task_info("t1")->get_in_value("in")->to_string(), "2");
}

TEST(WorkflowInfo, InValueForStartedTaskIsRefusedUnlessForced) {
  workflow_info wf = spawned_sample();
  wf.set_task_status("t2", task::status_running, 1, "n", "");
  EXPECT_FALSE(wf.set_in_value("t2>in", make_int(1), false, ""));
  EXPECT_TRUE(wf.set_in_value("t2>in", make_int(1), true, ""));
}

TEST(WorkflowInfo, TemplateRefusesInValues) {
  workflow_info tpl = decoded(zeltest::sample_workflow(0, 2));
  const properties before = encoded(tpl);
  EXPECT_FALSE(tpl.set_in_value("t1>in", make_int(1), true, ""));
  EXPECT_TRUE(encoded(tpl) == before);
}

TEST(WorkflowInfo, BadInValuesRaiseAndChangeNothing) {
  workflow_info wf = spawned_sample();
  expect_arg_unchanged(
      wf, [&] { wf.set_in_value("t9>in", make_int(1), false, ""); },
      "cannot set in-value 't9>in': the workflow has no task 't9'");
  expect_arg_unchanged(
      wf, [&] { wf.set_in_value("t1>nope", make_int(1), false, ""); },
      "cannot set in-value 't1>nope': task 't1' has no in-node 'nope'");
  expect_arg_unchanged(
      wf, [&] { wf.set_in_value("t1>in", nullptr, false, ""); },
      "cannot set in-value 't1>in': the value is null");
  for (const char* path : {"", ">in", "t1>", "t1>in>x"}) {
    expect_arg_unchanged(
        wf, [&] { wf.set_in_value(path, make_int(1), false, ""); },
        std::string("cannot set in-value '") + path + "': '" + path +
            "' is not an in-node path (\"<task id>\" or "
            "\"<task id>><in-node>\")");
  }
}

TEST(WorkflowInfo, InValueOfKindTheInNodeDoesNotAcceptRaises) {
  properties enc;
  enc.set_int_value("type", 2);
  properties tasks;
  tasks.set_properties_value("a", zeltest::sample_task("command", 0, {{"n", "int"}}, {}));
  enc.set_properties_value("tasks", tasks);
  workflow_info wf = decoded(enc);
  expect_arg_unchanged(
      wf, [&] { wf.set_in_value("a>n", make_string("x"), false, ""); },
      "cannot set in-value 'a>n': the in-node accepts int values, not string");
  EXPECT_TRUE(wf.set_in_value("a>n", make_int(4), false, ""));
}

TEST(WorkflowInfo, InitWorkflowIsInitedOnceEveryInitInNodeHoldsAValue) {
  workflow_info wf = decoded(zeltest::sample_workflow(1, 2, true));
  EXPECT_FALSE(wf.is_inited());
  EXPECT_TRUE(wf.set_in_value("init>setup", make_string("cfg"), false, "o"));
  EXPECT_TRUE(wf.is_inited());
}

TEST(WorkflowInfo, WaitingListMapsStateIdToOriginator) {
  workflow_info wf;
  wf.add_waiting_wf("WOFL-1", "a");
  wf.add_waiting_wf("WOFL-2", "b");
  wf.add_waiting_wf("WOFL-1", "c");
  const std::map<std::string, std::string> expected{{"WOFL-1", "c"}, {"WOFL-2", "b"}};
  EXPECT_EQ(wf.get_waiting_wfs(), expected);
  expect_arg_unchanged(
      wf, [&] { wf.add_waiting_wf("", "x"); }, "a workflow state id is not empty");
  wf.clear_waiting_wfs();
  EXPECT_TRUE(wf.get_waiting_wfs().empty());
}

TEST(WorkflowInfo, DependantsAddRemoveAndClear) {
  workflow_info wf;
  EXPECT_TRUE(wf.add_dependant("WOFL-1"));
  EXPECT_FALSE(wf.add_dependant("WOFL-1"));
  EXPECT_TRUE(wf.add_dependant("WOFL-2"));
  EXPECT_TRUE(wf.remove_dependant("WOFL-1"));
  EXPECT_FALSE(wf.remove_dependant("WOFL-1"));
  EXPECT_EQ(wf.get_dependants(), std::set<std::string>{"WOFL-2"});
  expect_arg_unchanged(
      wf, [&] { wf.add_dependant(""); }, "a workflow state id is not empty");
  wf.clear_dependants();
  EXPECT_TRUE(wf.get_dependants().empty());
}

TEST(WorkflowInfo, AddTaskKeepsItsIdOrAssignsTheSmallestFreeOne) {
  workflow_info wf;
  zelcore::plugin_db db;
  auto a = zelworkflow::task_info::create_task_info(zeltest::sample_task("c", 0, {}, {}), db);
  auto b = zelworkflow::task_info::create_task_info(zeltest::sample_task("c", 0, {}, {}), db);
  properties named = zeltest::sample_task("c", 0, {}, {});
  named.set_string_value("id", "task-2");
  auto c = zelworkflow::task_info::create_task_info(named, db);
  EXPECT_EQ(wf.add_task_info(c), "task-2");
  EXPECT_EQ(wf.add_task_info(a), "task-1");
  EXPECT_EQ(wf.add_task_info(b), "task-3");
  EXPECT_EQ(b->get_id(), "task-3");
  EXPECT_EQ(wf.get_task_info("task-3").get(), b.get());
  auto dup = zelworkflow::task_info::create_task_info(named, db);
  expect_arg_unchanged(
      wf, [&] { wf.add_task_info(dup); },
      "cannot add task 'task-2': the workflow already has a task of that id");
  zelbase::ptr_refcount<zelworkflow::task_info> null_task;
  expect_arg_unchanged(
      wf, [&] { wf.add_task_info(null_task); }, "cannot add a null task");
}

TEST(WorkflowInfo, UnknownTaskIdRaisesFromEveryTaskOperation) {
  workflow_info wf = spawned_sample();
  const std::string text = "the workflow has no task 'zz'";
  const workflow_info& cwf = wf;
  expect_arg_unchanged(
      wf, [&] { cwf.get_task_info("zz"); }, text);
  expect_arg_unchanged(
      wf, [&] { wf.get_task_info("zz"); }, text);
  expect_arg_unchanged(
      wf, [&] { wf.is_task_kill_triggered("zz"); }, text);
  expect_arg_unchanged(
      wf, [&] { wf.set_task_kill_triggered("zz", true); }, text);
  expect_arg_unchanged(
      wf, [&] { wf.get_task_num_attempts("zz"); }, text);
  expect_arg_unchanged(
      wf, [&] { wf.get_task_max_attempts("zz"); }, text);
  expect_arg_unchanged(
      wf, [&] { wf.set_task_max_attempts("zz", 3); }, text);
  expect_arg_unchanged(
      wf, [&] { wf.get_task_priority("zz"); }, text);
  expect_arg_unchanged(
      wf, [&] { wf.set_task_priority("zz", 1, workflow_info::priority_absolute, 0, 9); }, text);
  expect_arg_unchanged(
      wf, [&] { wf.set_task_status("zz", task::status_running, 1, "n", "m"); }, text);
  expect_arg_unchanged(
      wf, [&] { wf.set_task_scheduling_state("zz", task::scheduling_queued); }, text);
  expect_arg_unchanged(
      wf, [&] { wf.update_task_progress("zz", properties()); }, text);
  std::set<std::string> pre;
  expect_arg_unchanged(
      wf, [&] { wf.get_task_pre_reqs("zz", pre); }, text);
  EXPECT_FALSE(wf.has_task_info("zz"));
  EXPECT_TRUE(wf.has_task_info("t1"));
}

TEST(WorkflowInfo, TaskStatusChangeRecordsInfoAndCountsAttempts) {
  workflow_info wf = spawned_sample();
  EXPECT_TRUE(wf.set_task_status("t1", task::status_running, 100, "node-a", "started"));
  EXPECT_FALSE(wf.set_task_status("t1", task::status_running, 101, "node-b", "again"));
  const task::status_info& info = wf.get_task_info("t1")->get_status_info();
  EXPECT_EQ(info.task_status, task::status_running);
  EXPECT_EQ(info.time, 100u);
  EXPECT_EQ(info.node_id, "node-a");
  EXPECT_EQ(info.message, "started");
  EXPECT_EQ(wf.get_task_num_attempts("t1"), 1u);
  EXPECT_TRUE(wf.set_task_status("t1", task::status_failed, 102, "node-a", "exit 1"));
  EXPECT_TRUE(wf.set_task_status("t1", task::status_running, 103, "node-a", ""));
  EXPECT_EQ(wf.get_task_num_attempts("t1"), 2u);
}

TEST(WorkflowInfo, TaskEndClearsSchedulingState) {
  workflow_info wf = spawned_sample();
  wf.set_task_scheduling_state("t1", task::scheduling_dispatched);
  wf.set_task_status("t1", task::status_running, 1, "n", "");
  EXPECT_EQ(wf.get_task_info("t1")->get_scheduling_state(), task::scheduling_dispatched);
  wf.set_task_status("t1", task::status_finished, 2, "n", "");
  EXPECT_EQ(wf.get_task_info("t1")->get_scheduling_state(), task::scheduling_none);
}

TEST(WorkflowInfo, TemplateTasksKeepTheirStatusAndAreNotScheduled) {
  workflow_info tpl = decoded(zeltest::sample_workflow(0, 2));
  EXPECT_FALSE(tpl.set_task_status("t1", task::status_running, 1, "n", ""));
  EXPECT_EQ(tpl.get_task_info("t1")->get_status(), task::status_waiting);
  expect_arg_unchanged(
      tpl, [&] { tpl.set_task_scheduling_state("t1", task::scheduling_queued); },
      "tasks of a template are never scheduled");
  expect_arg_unchanged(
      tpl, [&] { tpl.update_task_progress("t1", properties()); },
      "tasks of a template make no progress");
}

TEST(WorkflowInfo, UnknownStatusAndSchedulingStateRaise) {
  workflow_info wf = spawned_sample();
  expect_arg_unchanged(
      wf, [&] { wf.set_task_status("t1", static_cast<task::status>(6), 1, "", ""); },
      "unknown task status 6");
  expect_arg_unchanged(
      wf, [&] { wf.set_task_scheduling_state("t1", static_cast<task::scheduling_state>(3)); },
      "unknown task scheduling state 3");
}

TEST(WorkflowInfo, WorkflowStatusFollowsTheTasks) {
  workflow_info wf = spawned_sample(2);
  EXPECT_EQ(wf.get_status(), workflow_info::status_created);
  wf.set_task_status("t1", task::status_running, 1, "n", "");
  EXPECT_EQ(wf.get_status(), workflow_info::status_running);
  wf.set_task_status("t1", task::status_finished, 2, "n", "");
  EXPECT_EQ(wf.get_status(), workflow_info::status_running);
  wf.set_task_status("t2", task::status_finished, 3, "n", "");
  EXPECT_EQ(wf.get_status(), workflow_info::status_finished);
  wf.set_task_max_attempts("t2", 2);
  wf.set_task_status("t2", task::status_failed, 4, "n", "");
  // t2 failed with no attempt counted yet: it may run again, so the workflow still runs.
  EXPECT_EQ(wf.get_status(), workflow_info::status_running);
  wf.set_task_max_attempts("t2", 0);
  EXPECT_EQ(wf.get_status(), workflow_info::status_failed);
  wf.set_task_status("t1", task::status_killed, 5, "n", "");
  EXPECT_EQ(wf.get_status(), workflow_info::status_killed);
}

TEST(WorkflowInfo, PriorityAbsoluteAndRelativeAreClamped) {
  workflow_info wf = spawned_sample();
  wf.set_priority(50, workflow_info::priority_absolute, 0, 100);
  EXPECT_EQ(wf.get_priority(), 50);
  wf.set_priority(-20, workflow_info::priority_relative, 0, 100);
  EXPECT_EQ(wf.get_priority(), 30);
  wf.set_priority(500, workflow_info::priority_relative, 0, 100);
  EXPECT_EQ(wf.get_priority(), 100);
  wf.set_priority(-5, workflow_info::priority_absolute, 0, 100);
  EXPECT_EQ(wf.get_priority(), 0);
  wf.set_task_priority("t1", 7, workflow_info::priority_absolute, -10, 10);
  wf.set_task_priority("t1", 7, workflow_info::priority_relative, -10, 10);
  EXPECT_EQ(wf.get_task_priority("t1"), 10);
}

TEST(WorkflowInfo, RelativePrioritySaturatesInsteadOfOverflowing) {
  constexpr std::int64_t max = std::numeric_limits<std::int64_t>::max();
  constexpr std::int64_t min = std::numeric_limits<std::int64_t>::min();
  workflow_info wf;
  wf.set_priority(max - 1, workflow_info::priority_absolute, min, max);
  wf.set_priority(10, workflow_info::priority_relative, min, max);
  EXPECT_EQ(wf.get_priority(), max);
  wf.set_priority(min + 1, workflow_info::priority_absolute, min, max);
  wf.set_priority(-10, workflow_info::priority_relative, min, max);
  EXPECT_EQ(wf.get_priority(), min);
}

TEST(WorkflowInfo, BadPriorityArgumentsRaiseAndChangeNothing) {
  workflow_info wf = spawned_sample();
  expect_arg_unchanged(
      wf, [&] { wf.set_priority(1, workflow_info::priority_absolute, 5, 4); },
      "min priority 5 is greater than max priority 4");
  expect_arg_unchanged(
      wf,
      [&] { wf.set_task_priority("t1", 1, static_cast<workflow_info::priority_whence>(2), 0, 9); },
      "unknown priority whence 2");
}

TEST(WorkflowInfo, MaxAttemptsAreSetPerTask) {
  workflow_info wf = spawned_sample();
  EXPECT_EQ(wf.get_task_max_attempts("t1"), 1u);
  wf.set_task_max_attempts("t1", 4);
  EXPECT_EQ(wf.get_task_max_attempts("t1"), 4u);
  EXPECT_EQ(wf.get_task_max_attempts("t2"), 1u);
}

TEST(WorkflowInfo, ProgressIsMergedLeafWise) {
  workflow_info wf = spawned_sample();
  properties p1;
  p1.set_int_value("done", 1);
  p1.set_string_value("phase", "copy");
  wf.update_task_progress("t1", p1);
  properties p2;
  p2.set_int_value("done", 5);
  wf.update_task_progress("t1", p2);
  const properties& progress = wf.get_task_info("t1")->get_progress();
  EXPECT_EQ(progress.get_int_value("done"), 5);
  EXPECT_EQ(progress.get_string_value("phase"), "copy");
}

TEST(WorkflowInfo, KillTriggeredByTaskOrWorkflowWhileTaskHasNotEnded) {
  workflow_info wf = spawned_sample();
  EXPECT_FALSE(wf.is_task_kill_triggered("t1"));
  wf.set_task_kill_triggered("t1", true);
  EXPECT_TRUE(wf.is_task_kill_triggered("t1"));
  EXPECT_FALSE(wf.is_task_kill_triggered("t2"));
  wf.add_workflow_meta_data("kill-requested", zelcore::make_bool(true));
  EXPECT_TRUE(wf.is_task_kill_triggered("t2"));
  wf.set_task_status("t2", task::status_killed, 1, "n", "");
  EXPECT_FALSE(wf.is_task_kill_triggered("t2"));
}

TEST(WorkflowInfo, MetaDataSetReplacesAddMergesKeyFormReplacesOrRemoves) {
  workflow_info wf;
  properties a;
  a.set_int_value("x", 1);
  properties nested;
  nested.set_int_value("k", 1);
  a.set_properties_value("n", nested);
  wf.set_workflow_meta_data(a);
  properties b;
  properties nested2;
  nested2.set_int_value("j", 2);
  b.set_properties_value("n", nested2);
  wf.add_workflow_meta_data(b);
  EXPECT_EQ(wf.get_workflow_meta_data().get_properties_value("n").get_int_value("k"), 1);
  EXPECT_EQ(wf.get_workflow_meta_data().get_properties_value("n").get_int_value("j"), 2);
  EXPECT_EQ(wf.get_workflow_meta_data().get_int_value("x"), 1);
  wf.add_workflow_meta_data("x", make_string("s"));
  EXPECT_EQ(wf.get_workflow_meta_data().get_string_value("x"), "s");
  wf.add_workflow_meta_data("x", nullptr);
  EXPECT_FALSE(wf.get_workflow_meta_data().is_present("x"));
  wf.set_workflow_meta_data(b);
  EXPECT_FALSE(wf.get_workflow_meta_data().is_present("n") &&
               wf.get_workflow_meta_data().get_properties_value("n").is_present("k"));
  expect_arg_unchanged(
      wf, [&] { wf.add_workflow_meta_data("", make_int(1)); }, "a meta data key is not empty");
}

TEST(WorkflowInfo, ExtMetaDataSetReplacesAddMerges) {
  workflow_info wf;
  wf.set_ext_meta_data("origin{template}", make_string("WOFL-t"));
  properties more;
  more.set_int_value("y", 2);
  wf.add_ext_meta_data(more);
  EXPECT_EQ(wf.get_ext_meta_data().get_string_value("origin{template}"), "WOFL-t");
  EXPECT_EQ(wf.get_ext_meta_data().get_int_value("y"), 2);
  wf.set_ext_meta_data(more);
  EXPECT_FALSE(wf.get_ext_meta_data().is_present("origin{template}"));
  expect_arg_unchanged(
      wf, [&] { wf.set_ext_meta_data("", make_int(1)); }, "a meta data key is not empty");
  EXPECT_TRUE(wf.get_workflow_meta_data().empty());
}

TEST(WorkflowInfo, ConfigurationIsKept) {
  properties enc = zeltest::sample_workflow(2, 1);
  properties config;
  config.set_string_value("queue", "fast");
  enc.set_properties_value("configuration", config);
  workflow_info wf = decoded(enc);
  EXPECT_EQ(wf.get_configuration().get_string_value("queue"), "fast");
  properties other;
  other.set_int_value("slots", 4);
  wf.set_configuration(other);
  EXPECT_EQ(wf.get_configuration().get_int_value("slots"), 4);
  EXPECT_FALSE(wf.get_configuration().is_present("queue"));
}

// The steps that the workflow manager takes to spawn from a template and route out-values.
TEST(WorkflowInfo, TemplateSpawnsACopyThatRunsAndRoutesOutValues) {
  const workflow_info tpl = decoded(zeltest::sample_workflow(0, 3));
  const properties tpl_before = encoded(tpl);
  workflow_info copy(tpl);
  ASSERT_TRUE(copy.is_inited());
  copy.set_type(workflow_info::workflow_type_spawned);
  copy.clear_dependants();
  copy.spawn(1, make_string("v"), {});
  ASSERT_TRUE(copy.set_in_value("t1>in", make_string("v"), false, "client"));
  std::list<std::string> runnable;
  std::map<std::string, std::string> reasons;
  copy.get_tasks_runnability(runnable, reasons);
  EXPECT_EQ(runnable, std::list<std::string>{"t1"});
  copy.set_task_status("t1", task::status_running, 1, "n", "");
  copy.set_task_status("t1", task::status_finished, 2, "n", "");
  properties produced;
  produced.set_string_value("out", "r1");
  properties routed;
  copy.get_task_info("t1")->make_out_values(produced, routed);
  copy.get_task_info("t1")->decode_out_values(routed);
  for (const auto& [name, entry] : routed) {
    const properties& e = static_cast<const properties&>(*entry);
    for (const auto& d : e.get_list_value("destinations")) {
      EXPECT_TRUE(copy.set_in_value(d->to_string(), e.get_property("value"), false, "t1"));
    }
  }
  runnable.clear();
  copy.get_tasks_runnability(runnable, reasons);
  EXPECT_EQ(runnable, std::list<std::string>{"t2"});
  EXPECT_EQ(copy.get_task_info("t3")->get_in_value("side")->to_string(), "r1");
  EXPECT_TRUE(encoded(tpl) == tpl_before);
}

// The steps that the workflow manager takes for an init workflow and a child waiting on it.
TEST(WorkflowInfo, InitWorkflowFeedsItsWaitingChild) {
  const workflow_info tpl = decoded(zeltest::sample_workflow(0, 2, true));
  workflow_info init(tpl);
  ASSERT_FALSE(init.is_inited());
  init.set_type(workflow_info::workflow_type_init);
  ASSERT_EQ(init.get_task_info("init")->get_type(), task::task_type_init);
  init.spawn(1, make_string("s"), {});
  ASSERT_TRUE(init.set_in_value("init>setup", make_string("s"), false, "o"));
  EXPECT_TRUE(init.is_inited());

  workflow_info child(init);
  child.set_type(workflow_info::workflow_type_spawned);
  child.clear_waiting_wfs();
  child.clear_dependants();
  child.spawn(2, make_int(1), {});
  ASSERT_TRUE(child.set_in_value("t1>in", make_int(1), false, "o"));
  init.add_waiting_wf("WOFL-child", "o");
  init.add_dependant("WOFL-child");

  for (workflow_info* wf : {&init, &child}) {
    EXPECT_TRUE(wf->set_task_status("init", task::status_running, 1, "n", ""));
    EXPECT_TRUE(wf->set_task_status("init", task::status_finished, 2, "n", ""));
    // The init task's out-value goes to t1>config as an init in-value, in place and in the child.
    EXPECT_TRUE(wf->set_in_value("t1>config", make_string("cfg"), false, "o"));
  }
  std::list<std::string> runnable;
  std::map<std::string, std::string> reasons;
  child.get_tasks_runnability(runnable, reasons);
  EXPECT_EQ(runnable, std::list<std::string>{"t1"});
  runnable.clear();
  init.get_tasks_runnability(runnable, reasons);
  EXPECT_TRUE(runnable.empty());
  EXPECT_EQ(init.get_status(), workflow_info::status_running);
}

// Random operations with random, often bad, arguments: each one either applies or raises
// es::arg and leaves the workflow exactly as it was; the result always round-trips.
TEST(WorkflowInfo, RandomOperationsApplyOrRaiseWithoutChangingAnything) {
  std::mt19937 rng(4242);
  auto pick = [&](const std::vector<std::string>& pool) { return pool[rng() % pool.size()]; };
  const std::vector<std::string> ids{"t1", "t2", "t3", "init", "zz", ""};
  const std::vector<std::string> paths{"t1>in", "t1", "t3", "t3>side", "init>setup", "t9>in",
                                       "t1>x",  "",   ">",  "t1>in>x", "init"};
  auto value = [&]() -> zelcore::property_ptr {
    switch (rng() % 4) {
      case 0: return nullptr;
      case 1: return make_int(static_cast<int>(rng() % 100));
      case 2: return make_string("v");
      default: return zelcore::property_ptr(new properties());
    }
  };
  auto some_int = [&]() { return static_cast<std::int64_t>(rng() % 41) - 20; };
  workflow_info wf = decoded(zeltest::sample_workflow(rng() % 3, 3, true));
  int raised = 0;
  for (int i = 0; i < 4000; ++i) {
    const properties before = encoded(wf);
    try {
      switch (rng() % 14) {
        case 0: wf.set_in_value(pick(paths), value(), rng() % 2, "o"); break;
        case 1:
          wf.set_task_status(pick(ids), static_cast<task::status>(rng() % 8), rng(), "n", "m");
          break;
        case 2:
          wf.set_task_scheduling_state(pick(ids), static_cast<task::scheduling_state>(rng() % 4));
          break;
        case 3:
          wf.set_task_priority(pick(ids), some_int(),
                               static_cast<workflow_info::priority_whence>(rng() % 3), some_int(),
                               some_int());
          break;
        case 4:
          wf.set_priority(some_int(), static_cast<workflow_info::priority_whence>(rng() % 3),
                          some_int(), some_int());
          break;
        case 5: wf.set_task_max_attempts(pick(ids), rng() % 4); break;
        case 6: {
          properties progress;
          progress["p"] = value();
          wf.update_task_progress(pick(ids), progress);
          break;
        }
        case 7: wf.add_waiting_wf(pick({"WOFL-1", "WOFL-2", ""}), "o"); break;
        case 8:
          if (rng() % 2) {
            wf.add_dependant(pick({"WOFL-1", ""}));
          } else {
            wf.remove_dependant(pick({"WOFL-1", ""}));
          }
          break;
        case 9: wf.add_workflow_meta_data(pick({"k", "kill-requested", ""}), value()); break;
        case 10: wf.set_type(static_cast<workflow_info::workflow_type>(rng() % 4)); break;
        case 11: wf.spawn(rng() % 3, value(), {{"command", rng() % 3}}); break;
        case 12: {
          properties entry;
          entry["value"] = value();
          properties out_values;
          out_values.set_properties_value(pick({"out", "config", "nope"}), entry);
          wf.get_task_info(pick(ids))->decode_out_values(out_values);
          break;
        }
        default: wf.set_task_kill_triggered(pick(ids), rng() % 2); break;
      }
    } catch (const zelbase::es::arg&) {
      ++raised;
      ASSERT_TRUE(encoded(wf) == before) << "operation " << i << " raised and changed the workflow";
    }
    if (i % 50 == 0) {
      ASSERT_TRUE(decoded(encoded(wf)) == wf);
    }
  }
  EXPECT_GT(raised, 500);
  EXPECT_LT(raised, 3500);
}

}  // namespace
