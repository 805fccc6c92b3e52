// Tests of the task: its accessors, out-values in the routed form, job information and the
// texts of its enumerations.
#include "zelworkflow/task_info.h"

#include <gtest/gtest.h>

#include "support/sample_workflows.h"
#include "workflow_test_util.h"
#include "zelbase/exceptions.h"
#include "zelworkflow/workflow_info.h"

namespace {

using zelcore::make_int;
using zelcore::make_string;
using zelcore::properties;
using zelcore::task;
using zeltest::encoded;
using zeltest::expect_arg;
using zelworkflow::task_info;
using zelworkflow::workflow_info;

workflow_info spawned_sample() {
  workflow_info wf;
  wf.decode_workflow_info(zeltest::sample_workflow(2, 3), zelcore::plugin_db());
  wf.spawn(9, make_int(0), {});
  return wf;
}

TEST(TaskInfo, EnumerationTexts) {
  EXPECT_STREQ(zelworkflow::task_status_c_str(task::status_waiting), "waiting");
  EXPECT_STREQ(zelworkflow::task_status_c_str(task::status_killed), "killed");
  EXPECT_STREQ(zelworkflow::task_status_c_str(static_cast<task::status>(9)), "unknown");
  EXPECT_STREQ(zelworkflow::task_scheduling_state_c_str(task::scheduling_queued), "queued");
  EXPECT_STREQ(zelworkflow::task_scheduling_state_c_str(static_cast<task::scheduling_state>(7)),
               "unknown");
}

TEST(TaskInfo, AccessorsGiveTheDecodedFields) {
  properties enc = zeltest::sample_task("command", 1, {{"in", "string"}}, {{"out", {"b>in"}}});
  properties params;
  params.set_string_value("cmd", "echo hi");
  enc.set_properties_value("parameters", params);
  auto t = task_info::create_task_info(enc, zelcore::plugin_db());
  EXPECT_EQ(t->get_kind(), "command");
  EXPECT_EQ(t->get_type(), task::task_type_init);
  EXPECT_EQ(t->get_parameters().get_string_value("cmd"), "echo hi");
  EXPECT_TRUE(t->get_in_value("in").is_null());
  EXPECT_TRUE(t->get_out_value("out").is_null());
  EXPECT_TRUE(t->get_job_info().is_null());
  EXPECT_TRUE(t->get_job_allocated_license_capabilities().is_null());
  expect_arg([&] { t->get_in_value("x"); }, "task '' has no in-node 'x'");
  expect_arg([&] { t->get_out_value("x"); }, "task '' has no out-value 'x'");
}

TEST(TaskInfo, CloneSharesNothingChangeable) {
  workflow_info wf = spawned_sample();
  auto original = wf.get_task_info("t1");
  auto copy = original->clone();
  properties produced;
  produced.set_int_value("out", 5);
  properties routed;
  copy->make_out_values(produced, routed);
  copy->decode_out_values(routed);
  EXPECT_EQ(copy->get_out_value("out")->to_string(), "5");
  EXPECT_TRUE(original->get_out_value("out").is_null());
}

TEST(TaskInfo, MakeOutValuesAddsTheDeclaredDestinations) {
  workflow_info wf = spawned_sample();
  properties produced;
  produced.set_string_value("out", "result");
  properties routed;
  routed.set_int_value("kept", 1);
  wf.get_task_info("t1")->make_out_values(produced, routed);
  EXPECT_EQ(routed.get_int_value("kept"), 1);
  const properties& entry = routed.get_properties_value("out");
  EXPECT_EQ(entry.get_string_value("value"), "result");
  std::vector<std::string> destinations;
  for (const auto& d : entry.get_list_value("destinations")) destinations.push_back(d->to_string());
  EXPECT_EQ(destinations, (std::vector<std::string>{"t2>in", "t3>side"}));
}

TEST(TaskInfo, MakeOutValuesRefusesUnknownNamesAndWritesNothing) {
  workflow_info wf = spawned_sample();
  properties produced;
  produced.set_string_value("out", "result");
  produced.set_string_value("zzz", "x");
  properties routed;
  expect_arg([&] { wf.get_task_info("t1")->make_out_values(produced, routed); },
             "task 't1' has no out-value 'zzz'");
  EXPECT_TRUE(routed.empty());
}

TEST(TaskInfo, DecodeOutValuesStoresEachValue) {
  workflow_info wf = spawned_sample();
  properties entry;
  entry.set_int_value("value", 42);
  properties out_values;
  out_values.set_properties_value("out", entry);
  wf.get_task_info("t2")->decode_out_values(out_values);
  EXPECT_EQ(wf.get_task_info("t2")->get_out_value("out")->to_string(), "42");
}

TEST(TaskInfo, DecodeOutValuesRefusesBadEntriesAndStoresNothing) {
  workflow_info wf = spawned_sample();
  auto t = wf.get_task_info("t2");
  const properties before = encoded(*t);
  properties good;
  good.set_int_value("value", 1);
  properties unknown;
  unknown.set_properties_value("out", good);
  unknown.set_properties_value("nope", good);
  expect_arg([&] { t->decode_out_values(unknown); }, "task 't2' has no out-value 'nope'");
  properties not_tree;
  not_tree.set_int_value("out", 1);
  expect_arg([&] { t->decode_out_values(not_tree); },
             "out-value 'out' of task 't2' is not a properties holding \"value\"");
  properties no_value;
  no_value.set_properties_value("out", properties());
  expect_arg([&] { t->decode_out_values(no_value); },
             "out-value 'out' of task 't2' is not a properties holding \"value\"");
  EXPECT_TRUE(encoded(*t) == before);
}

TEST(TaskInfo, JobInfoHoldsWhatTheJobNeeds) {
  properties enc = zeltest::sample_workflow(2, 2);
  properties config;
  config.set_string_value("queue", "fast");
  enc.set_properties_value("configuration", config);
  workflow_info wf;
  wf.decode_workflow_info(enc, zelcore::plugin_db());
  wf.spawn(12, make_int(0), {});
  wf.set_priority(5, workflow_info::priority_absolute, 0, 10);
  wf.set_task_priority("t1", -3, workflow_info::priority_absolute, -10, 10);
  wf.set_task_max_attempts("t1", 2);
  wf.set_in_value("t1>in", make_string("input"), false, "");
  wf.set_task_status("t1", task::status_running, 1, "n", "");
  auto t = wf.get_task_info("t1");
  t->create_job_info(wf);
  auto info = t->get_job_info();
  ASSERT_FALSE(info.is_null());
  EXPECT_EQ(info->get_string_value("task-id"), "t1");
  EXPECT_EQ(info->get_string_value("kind"), "command");
  EXPECT_EQ(info->get_int_value("task-type"), 0);
  EXPECT_EQ(info->get_properties_value("in-values").get_string_value("in"), "input");
  EXPECT_EQ(info->get_int_value("attempt"), 2);
  EXPECT_EQ(info->get_int_value("max-attempts"), 2);
  EXPECT_EQ(info->get_int_value("priority"), -3);
  EXPECT_EQ(info->get_int_value("workflow-priority"), 5);
  EXPECT_EQ(info->get_int_value("sequence-number"), 12);
  EXPECT_EQ(info->get_properties_value("configuration").get_string_value("queue"), "fast");
  EXPECT_TRUE(info->get_properties_value("parameters").empty());
  EXPECT_TRUE(encoded(*t).is_present("job-info"));
}

TEST(TaskInfo, JobInfoOfATaskOfAnotherWorkflowRaises) {
  workflow_info wf = spawned_sample();
  workflow_info other(wf);
  auto t = wf.get_task_info("t1");
  expect_arg([&] { t->create_job_info(other); }, "task 't1' is not a task of the workflow");
  EXPECT_TRUE(t->get_job_info().is_null());
}

TEST(TaskInfo, AllocatedLicenceCapabilitiesAreKept) {
  workflow_info wf = spawned_sample();
  auto t = wf.get_task_info("t1");
  properties caps;
  caps.set_int_value("solver", 4);
  t->set_job_allocated_license_capabilities(
      zelbase::ptr_refcount<const properties>(new properties(caps)));
  EXPECT_EQ(
      wf.get_task_info("t1")->get_job_allocated_license_capabilities()->get_int_value("solver"), 4);
  t->set_job_allocated_license_capabilities(nullptr);
  EXPECT_TRUE(t->get_job_allocated_license_capabilities().is_null());
}

TEST(TaskInfo, ChangeStampMovesWithEveryChangeOfTheWorkflowOrOfOneOfItsTasks) {
  workflow_info wf = spawned_sample();
  std::uint64_t last = wf.get_change_stamp();
  // Reads leave it.
  properties out;
  wf.encode_workflow_info(out);
  wf.get_status();
  const workflow_info copy = wf;
  EXPECT_EQ(wf.get_change_stamp(), last);
  EXPECT_NE(copy.get_change_stamp(), last);  // a copy is another object: it draws its own

  const auto expect_moved = [&](const char* change) {
    const std::uint64_t now = wf.get_change_stamp();
    EXPECT_GT(now, last) << change;
    last = now;
  };
  wf.set_priority(3, workflow_info::priority_absolute, 0, 10);
  expect_moved("set_priority");
  wf.set_task_status("t1", task::status_running, 5, "node-1", "");
  expect_moved("set_task_status");
  wf.add_workflow_meta_data("owner", make_string("ann"));
  expect_moved("add_workflow_meta_data");
  // Changes made through a task of the workflow, which the workflow does not see.
  properties entry;
  entry.set_int_value("value", 42);
  properties out_values;
  out_values.set_properties_value("out", entry);
  wf.get_task_info("t2")->decode_out_values(out_values);
  expect_moved("decode_out_values");
  wf.get_task_info("t1")->set_job_allocated_license_capabilities(
      zelbase::ptr_refcount<const properties>(new properties()));
  expect_moved("set_job_allocated_license_capabilities");
  wf.get_task_info("t1")->create_job_info(wf);
  expect_moved("create_job_info");
  wf.decode_workflow_info(zeltest::sample_workflow(2, 3), zelcore::plugin_db());
  expect_moved("decode_workflow_info");
}

}  // namespace
