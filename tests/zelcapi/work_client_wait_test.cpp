// Waiting on the replica: a time-out names the last state seen, a lost link ends the wait
// differently, a client without a replica cannot wait, and the steps of a wait serve a caller
// that runs the I/O itself.
#include <gtest/gtest.h>

#include <chrono>

#include "work_client_test_support.h"

namespace {

using namespace zeltest;
using namespace std::chrono_literals;

properties long_workflow() { return workflow_of({{"t", task_of(run_params(100000), {})}}); }

TEST(WorkClientWait, ATimeOutRaisesWithTheLastStateSeen) {
  write_cluster sim;
  work_session alice(sim, "alice", "secret");
  const std::string id = alice.client.submit_workflow(long_workflow(), "WOFL-long").items[0].id;
  try {
    alice.client.wait_for_workflow(id, 200);
    ADD_FAILURE() << "the wait ended without an error";
  } catch (const zelcapi::wait_error& e) {
    EXPECT_EQ(e.why(), zelcapi::wait_error::timed_out);
    EXPECT_EQ(e.message(), "waited 200 ms: workflow 'WOFL-long' is running");
    EXPECT_TRUE(e.last().live);
    EXPECT_EQ(e.last().status, zelworkflow::workflow_info::status_running);
    EXPECT_EQ(e.last().record.get_properties_value("tasks").get_properties_value("t").get_int_value(
                  "status"),
              zelcore::task::status_running);
  }
}

TEST(WorkClientWait, AJobNotYetEndedTimesOutNamingItsState) {
  write_cluster sim;
  work_session alice(sim, "alice", "secret");
  const std::string id =
      alice.client.submit_jobs({properties{{"command", text("/bin/true")}}}).items.at(0).id;
  try {
    alice.client.wait_for_job(id, 100);
    ADD_FAILURE() << "the wait ended without an error";
  } catch (const zelcapi::wait_error& e) {
    EXPECT_EQ(e.why(), zelcapi::wait_error::timed_out);
    EXPECT_EQ(e.message(), "waited 100 ms: job '" + id + "' is running");
  }
  try {
    alice.client.wait_for_job("job-s7777777", 50);
    ADD_FAILURE() << "the wait ended without an error";
  } catch (const zelcapi::wait_error& e) {
    EXPECT_EQ(e.message(), "waited 50 ms: job 'job-s7777777' is not in the replica");
    EXPECT_FALSE(e.last().seen);
  }
}

TEST(WorkClientWait, ALostLinkEndsTheWaitAsSuch) {
  write_cluster sim;
  work_session alice(sim, "alice", "secret");
  const std::string id = alice.client.submit_workflow(long_workflow(), "WOFL-cut").items[0].id;
  sim.close_links(1);
  try {
    alice.client.wait_for_workflow(id, 10000);
    ADD_FAILURE() << "the wait ended without an error";
  } catch (const zelcapi::wait_error& e) {
    EXPECT_EQ(e.why(), zelcapi::wait_error::link_lost);
    EXPECT_EQ(e.message(),
              "the state connection lost its link while waiting: workflow 'WOFL-cut' is running");
  }
}

TEST(WorkClientWait, TheStepsOfAWaitLookAtTheReplicaWhenAsked) {
  write_cluster sim;
  work_session alice(sim, "alice", "secret");
  const std::string id = alice.client.submit_workflow(long_workflow(), "WOFL-steps").items[0].id;
  zelcapi::work_record r;
  r.type = zelcapi::work_record::workflow;
  r.id = id;
  EXPECT_FALSE(alice.client.check_wait(r));
  EXPECT_TRUE(r.seen && r.live);
  EXPECT_EQ(r.state_name(), "running");
  EXPECT_TRUE(alice.client.check_wait(r, [](const zelcapi::work_record& seen) {
    return seen.live && seen.state_name() == "running";
  }));
  EXPECT_EQ(zelcapi::work_client::wait_timed_out(r, 300).message(),
            "waited 300 ms: workflow 'WOFL-steps' is running");
  EXPECT_EQ(zelcapi::work_client::wait_timed_out(r, 300).why(), zelcapi::wait_error::timed_out);
  ASSERT_TRUE(alice.client.remove_workflows({id}).all_ok());
  try {
    // The caller's own loop: the I/O, then a look, until the look says how it ended.
    for (int looks = 0; looks < 1000; ++looks) {
      if (alice.client.check_wait(r)) break;
      alice.link.wait(10);
    }
    ADD_FAILURE() << "the looks ended without an error";
  } catch (const zelcapi::wait_error& e) {
    EXPECT_EQ(e.why(), zelcapi::wait_error::removed);
    EXPECT_FALSE(e.last().live);
    EXPECT_FALSE(r.live);
  }
}

TEST(WorkClientWait, AClientWithoutAReplicaCannotWait) {
  write_cluster sim;
  plain_work_session alice(sim, "alice", "secret");
  EXPECT_THROW(alice.client.wait_for_workflow("WOFL-any", 10), zelbase::es::arg);
  zelcapi::state_handler quiet;
  zelcapi::state_connection without_replica(&quiet);
  zelcore::plugin_db plugins;
  zelcapi::work_client client(without_replica, plugins);
  EXPECT_THROW(client.wait_for_job("job-s0000001", 10), zelbase::es::arg);
  zelcapi::work_record r;
  EXPECT_THROW(client.check_wait(r), zelbase::es::arg);
}

TEST(WorkClientWait, EveryWorkflowStatusHasItsName) {
  EXPECT_STREQ(zelcapi::workflow_status_c_str(zelworkflow::workflow_info::status_created),
               "created");
  EXPECT_STREQ(zelcapi::workflow_status_c_str(zelworkflow::workflow_info::status_running),
               "running");
  EXPECT_STREQ(zelcapi::workflow_status_c_str(zelworkflow::workflow_info::status_finished),
               "finished");
  EXPECT_STREQ(zelcapi::workflow_status_c_str(zelworkflow::workflow_info::status_failed), "failed");
  EXPECT_STREQ(zelcapi::workflow_status_c_str(zelworkflow::workflow_info::status_killed), "killed");
  EXPECT_STREQ(zelcapi::workflow_status_c_str(5), "of an unknown status");
  EXPECT_STREQ(zelcapi::workflow_status_c_str(4294967295u), "of an unknown status");
}

// The wait ends as soon as a workflow's status has ended, which may come a notification before
// its result: the line says the same either way, so that what a program prints last does not
// depend on where the wait stopped.
TEST(WorkClientWait, AWorkflowWhoseStatusEndedReadsEndedBeforeAndAfterItsResult) {
  zelcapi::work_record r;
  r.type = zelcapi::work_record::workflow;
  r.id = "W1";
  r.seen = r.live = true;
  r.status = zelworkflow::workflow_info::status_failed;
  ASSERT_TRUE(r.ended());
  EXPECT_EQ(r.describe(), "workflow 'W1' ended failed");
  r.has_result = true;
  r.result.status = zelworkflow::workflow_info::status_failed;
  EXPECT_EQ(r.describe(), "workflow 'W1' ended failed");

  r.has_result = false;
  r.status = zelworkflow::workflow_info::status_running;
  EXPECT_EQ(r.describe(), "workflow 'W1' is running");
  r.live = false;
  r.status = zelworkflow::workflow_info::status_finished;
  EXPECT_EQ(r.describe(), "workflow 'W1' has left the live state (last seen finished)");
}

}  // namespace
