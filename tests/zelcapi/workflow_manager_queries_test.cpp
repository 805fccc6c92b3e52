// Tests of the task queries, whole-map task reports and job info of the workflow manager.
#include <gtest/gtest.h>

#include "support/capture_sink.h"
#include "support/sample_workflows.h"
#include "zelbase/exceptions.h"
#include "zelcapi/workflow_manager_support.h"

namespace {

using zelcapi::workflow_manager;
using zelcore::properties;
using zeltest::capture_sink;
using zeltest::managed_workflows;
using zelworkflow::workflow_info;

struct WorkflowManagerTaskQueries : ::testing::Test {
  void SetUp() override {
    // Spawned through the manager, with their first task fed, so that t1 can run.
    std::string id;
    m.manager.add_workflow(zeltest::sample_workflow(workflow_info::workflow_type_spawned, 3), m.db,
                           id, "A");
    m.manager.add_workflow(zeltest::sample_workflow(workflow_info::workflow_type_spawned, 2), m.db,
                           id, "B");
    for (const char* wf : {"A", "B"})
      m.manager.set_in_value(std::string(wf) + ">t1>in", zelcore::make_string("x"), id, "",
                             properties(), false, "");
    m.receiver.calls.clear();
  }
  managed_workflows m;
};

TEST_F(WorkflowManagerTaskQueries, HasTaskOfAnUnknownWorkflowIsFalseWhileStatusRaises) {
  const std::string path = workflow_manager::create_wpath("Q", "t1");
  capture_sink sink;
  EXPECT_FALSE(m.manager.has_task(path));
  EXPECT_THROW(m.manager.get_task_status(path), zelbase::es::api_code);
  EXPECT_TRUE(m.manager.has_task(workflow_manager::create_wpath("A", "t1")));
  EXPECT_FALSE(m.manager.has_task(workflow_manager::create_wpath("A", "t9")));
}

TEST_F(WorkflowManagerTaskQueries, PairAndWpathFormsAgree) {
  m.manager.set_task_status("A", "t2", zelcore::task::status_running, 3, "n", "m");
  const std::string path = workflow_manager::create_wpath("A", "t2");
  EXPECT_EQ(m.manager.get_task_status(path), m.manager.get_task_status("A", "t2"));
  EXPECT_EQ(m.manager.get_task_status(path), zelcore::task::status_running);
  EXPECT_EQ(m.manager.get_task_type(path), m.manager.get_task_type("A", "t2"));
  EXPECT_EQ(m.manager.get_task_info(path).get(), m.manager.get_task_info("A", "t2").get());
  EXPECT_EQ(m.manager.is_task_kill_triggered(path), m.manager.is_task_kill_triggered("A", "t2"));
  EXPECT_EQ(m.manager.get_task_status_info(path).node_id, "n");
  EXPECT_EQ(m.manager.get_task_status_info(path).time, 3u);
}

TEST_F(WorkflowManagerTaskQueries, AttemptAndPriorityGettersReadTheTask) {
  const std::string path = workflow_manager::create_wpath("A", "t1");
  m.manager.set_task_max_attempts(path, 6);
  m.manager.set_task_priority(path, 12, workflow_info::priority_absolute, 0, 100);
  EXPECT_EQ(m.manager.get_task_max_attempts(path), 6u);
  EXPECT_EQ(m.manager.get_task_num_attempts(path), m.workflow("A").get_task_num_attempts("t1"));
  EXPECT_EQ(m.manager.get_task_priority(path), 12);
}

TEST_F(WorkflowManagerTaskQueries, WorkflowGettersReadTheWorkflow) {
  EXPECT_EQ(m.manager.get_workflow_status("A"), m.workflow("A").get_status());
  EXPECT_EQ(&m.manager.get_workflow_configuration("A"), &m.workflow("A").get_configuration());
  std::list<std::string> uris{"kept"};
  m.manager.get_task_uris("A", uris);
  EXPECT_EQ(uris, (std::list<std::string>{"kept", "t1", "t2", "t3"}));
  std::string dot;
  m.manager.get_workflow_dot("A", dot);
  EXPECT_NE(dot.find("digraph"), std::string::npos);
  EXPECT_NE(dot.find("t3"), std::string::npos);
}

TEST_F(WorkflowManagerTaskQueries, AllWpathsNameEveryTask) {
  std::set<std::string> wpaths;
  m.manager.get_all_wpaths(wpaths);
  EXPECT_EQ(wpaths, (std::set<std::string>{"workflow:A>t1", "workflow:A>t2", "workflow:A>t3",
                                           "workflow:B>t1", "workflow:B>t2"}));
}

TEST_F(WorkflowManagerTaskQueries, RunnabilityNamesSameTaskIdsOfTwoWorkflowsApart) {
  std::list<std::string> runnable{"kept"};
  std::map<std::string, std::string> reasons{{"other", "kept"}};
  m.manager.get_tasks_runnability(runnable, reasons);
  // Only the first task of each chain can run; the others wait for the one before.
  EXPECT_EQ(runnable, (std::list<std::string>{"kept", "workflow:A>t1", "workflow:B>t1"}));
  EXPECT_EQ(reasons.size(), 4u);
  EXPECT_EQ(reasons.count("workflow:A>t2"), 1u);
  EXPECT_EQ(reasons.count("workflow:A>t3"), 1u);
  EXPECT_EQ(reasons.count("workflow:B>t2"), 1u);
  EXPECT_FALSE(reasons.at("workflow:A>t2").empty());
  EXPECT_EQ(reasons.at("other"), "kept");
}

TEST_F(WorkflowManagerTaskQueries, InvalidPrerequisitesAreNamedByTaskPath) {
  // One run that failed uses B's t1's only attempt: t2 of B can never get its input.
  m.manager.set_task_status("B", "t1", zelcore::task::status_running, 1, "n", "started");
  m.manager.set_task_status("B", "t1", zelcore::task::status_failed, 2, "n", "failed");
  std::set<std::string> invalid{"kept"};
  m.manager.get_invalid_pre_reqs_tasks(invalid);
  EXPECT_EQ(invalid, (std::set<std::string>{"kept", "workflow:B>t2"}));
}

TEST_F(WorkflowManagerTaskQueries, JobInfoCarriesTaskWorkflowAndNullCapabilities) {
  m.manager.add_workflow_meta_data("A", properties{{"owner", zelcore::make_string("me")}});
  ASSERT_FALSE(m.manager.get_task_info("A", "t2")->get_job_info());
  m.manager.create_job_info_for_task(workflow_manager::create_wpath("A", "t2"));
  // The task prepared its job information from its own workflow.
  const auto job_info = m.manager.get_task_info("A", "t2")->get_job_info();
  ASSERT_TRUE(job_info);
  EXPECT_EQ(job_info->get_string_value("task-id"), "t2");
  EXPECT_EQ(job_info->get_int_value("sequence-number"),
            static_cast<std::int64_t>(m.workflow("A").get_sequence_number()));
  EXPECT_FALSE(m.manager.get_task_info("A", "t1")->get_job_info());
  properties out{{"workflow-state-id", zelcore::make_string("old")},
                 {"other", zelcore::make_int(1)}};
  m.manager.insert_job_info_for_job_id(workflow_manager::create_wpath("A", "t2"), out);
  properties task;
  m.manager.encode_task("A", "t2", task);
  EXPECT_EQ(out.get_string_value("workflow-state-id"), "A");
  EXPECT_EQ(out.get_properties_value("task-info"), task);
  EXPECT_EQ(out.get_properties_value("meta-data"), m.manager.get_workflow_meta_data("A"));
  EXPECT_EQ(out.get_properties_value("workflow-configuration"),
            m.manager.get_workflow_configuration("A"));
  // No licence capabilities were allocated: the key holds null.
  const auto slot = out.find("allocated-license-capabilities");
  ASSERT_NE(slot, out.end());
  EXPECT_TRUE(slot->second.is_null());
  EXPECT_EQ(out.get_int_value("other"), 1);
}

TEST_F(WorkflowManagerTaskQueries, JobInfoSharesTheAllocatedLicenceCapabilities) {
  const zelbase::ptr_refcount<const properties> capabilities(
      new properties{{"licence-a", zelcore::make_int(2)}});
  m.workflow("B").get_task_info("t1")->set_job_allocated_license_capabilities(capabilities);
  properties out;
  m.manager.insert_job_info_for_job_id("workflow:B>t1", out);
  EXPECT_EQ(out.get_property("allocated-license-capabilities").get(), capabilities.get());
  EXPECT_EQ(out.get_string_value("workflow-state-id"), "B");
  EXPECT_EQ(out.size(), 5u);
}

TEST_F(WorkflowManagerTaskQueries, EveryQueryButHasTaskRaisesForAnUnknownWorkflow) {
  capture_sink sink;
  const std::string path = workflow_manager::create_wpath("Q", "t1");
  properties out;
  std::list<std::string> uris;
  std::string dot;
  EXPECT_THROW(m.manager.get_task_info(path), zelbase::es::api_code);
  EXPECT_THROW(m.manager.get_task_type("Q", "t1"), zelbase::es::api_code);
  EXPECT_THROW(m.manager.get_task_status_info(path), zelbase::es::api_code);
  EXPECT_THROW(m.manager.get_task_max_attempts(path), zelbase::es::api_code);
  EXPECT_THROW(m.manager.get_task_num_attempts(path), zelbase::es::api_code);
  EXPECT_THROW(m.manager.get_task_priority(path), zelbase::es::api_code);
  EXPECT_THROW(m.manager.is_task_kill_triggered(path), zelbase::es::api_code);
  EXPECT_THROW(m.manager.get_workflow_status("Q"), zelbase::es::api_code);
  EXPECT_THROW(m.manager.get_workflow_meta_data("Q"), zelbase::es::api_code);
  EXPECT_THROW(m.manager.get_ext_meta_data("Q"), zelbase::es::api_code);
  EXPECT_THROW(m.manager.get_task_uris("Q", uris), zelbase::es::api_code);
  EXPECT_THROW(m.manager.get_workflow_dot("Q", dot), zelbase::es::api_code);
  EXPECT_THROW(m.manager.create_job_info_for_task(path), zelbase::es::api_code);
  EXPECT_THROW(m.manager.insert_job_info_for_job_id(path, out), zelbase::es::api_code);
  EXPECT_THROW(m.manager.get_task_info("Q", "t1"), zelbase::es::api_code);
  EXPECT_THROW(m.manager.get_task_status("Q", "t1"), zelbase::es::api_code);
  EXPECT_THROW(m.manager.get_task_type(path), zelbase::es::api_code);
  EXPECT_THROW(m.manager.is_task_kill_triggered("Q", "t1"), zelbase::es::api_code);
  EXPECT_THROW(m.manager.get_priority("Q"), zelbase::es::api_code);
  EXPECT_THROW(m.manager.get_workflow_configuration("Q"), zelbase::es::api_code);
  EXPECT_THROW(m.manager.encode_task("Q", "t1", out), zelbase::es::api_code);
  EXPECT_EQ(sink.messages(), std::vector<std::string>(21, "'Q' isn't a valid workflow state id"));
  EXPECT_TRUE(out.empty());
}

TEST_F(WorkflowManagerTaskQueries, UnknownTaskFailsAsTheModelDecides) {
  EXPECT_THROW(m.manager.get_task_status("A", "t9"), zelbase::es::base);
  properties out;
  EXPECT_THROW(m.manager.insert_job_info_for_job_id("workflow:A>t9", out), zelbase::es::base);
  EXPECT_TRUE(out.empty());
}

}  // namespace
