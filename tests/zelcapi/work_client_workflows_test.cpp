// The work client's workflows against a write cluster: a submitted workflow runs to its result,
// which the replica and the master hold alike; forced failures, retries with one key, another
// user's work, cancelling, removing and retrying a task, each with the outcome of every item.
#include <gtest/gtest.h>

#include <chrono>

#include "support/tree_difference.h"
#include "work_client_test_support.h"
#include "zelcapi/connection_test_support.h"

namespace {

using namespace zeltest;
using namespace std::chrono_literals;
using zelcapi::write_outcome;

// a feeds b, which feeds c; a produces the int 7.
properties chain(std::int64_t run_ms) {
  properties a_params = run_params(run_ms);
  a_params.set_properties_value("out-values", properties{{"out", number(7)}});
  return workflow_of({{"a", task_of(a_params, {}, {{"out", {"b>in"}}})},
                      {"b", task_of(run_params(run_ms), {"in"}, {{"out", {"c>in"}}})},
                      {"c", task_of(run_params(run_ms), {"in"})}});
}

// The master's records of a workflow's jobs.
std::vector<properties> jobs_of(zelsim::cluster& sim, const std::string& id) {
  std::vector<properties> out;
  for (const auto& [job_id, record] : master_records(sim, "jobs")) {
    const properties& job = static_cast<const properties&>(*record);
    if (job.get_string_value("workflow-state-id", "") == id) out.push_back(job);
  }
  return out;
}

TEST(WorkClientWorkflows, ASubmittedWorkflowEndsWithTheSameResultOnReplicaAndMaster) {
  write_cluster sim;
  work_session alice(sim, "alice", "secret");
  const zelcapi::write_result submitted = alice.client.submit_workflow(chain(100));
  ASSERT_EQ(outcomes(submitted), std::vector<std::string>{"done"});
  EXPECT_FALSE(submitted.repeated);
  EXPECT_EQ(submitted.key.rfind("key-", 0), 0u) << submitted.key;
  const std::string id = submitted.items[0].id;
  EXPECT_EQ(id.rfind("WOFL-", 0), 0u) << id;
  EXPECT_EQ(submitted.items[0].action, "add-workflow");
  // Accepted and already visible: the notifications came before the reply.
  EXPECT_TRUE(alice.link.get_state()->has_workflow_in_state(id));

  sim.advance_time(300ms);
  const zelcapi::work_record end = alice.client.wait_for_workflow(id, 10000);
  ASSERT_TRUE(end.has_result);
  EXPECT_EQ(end.result.status, zelworkflow::workflow_info::status_finished);
  EXPECT_EQ(end.describe(), "workflow '" + id + "' ended finished");
  properties mine;
  alice.link.get_state()->get_workflow_results(mine);
  const properties master = master_records(sim, "workflow-results");
  EXPECT_TRUE(mine.get_properties_value(id) == master.get_properties_value(id))
      << first_difference(mine, master);
  EXPECT_EQ(master.get_properties_value(id).get_int_value("st"), 2);
  EXPECT_EQ(jobs_of(sim, id).size(), 3u);
}

TEST(WorkClientWorkflows, AForcedFailureEndsFailedAfterItsAttempts) {
  write_cluster sim;
  work_session alice(sim, "alice", "secret");
  const properties w = workflow_of({{"t", task_of(run_params(100, 5), {}, {}, 3)}});
  const std::string id = alice.client.submit_workflow(w, "WOFL-fails").items.at(0).id;
  EXPECT_EQ(id, "WOFL-fails");
  sim.advance_time(1000ms);
  const zelcapi::work_record end = alice.client.wait_for_workflow(id, 10000);
  EXPECT_EQ(end.result.status, zelworkflow::workflow_info::status_failed);
  const std::vector<properties> jobs = jobs_of(sim, id);
  ASSERT_EQ(jobs.size(), 3u);
  for (const properties& job : jobs) EXPECT_EQ(job.get_string_value("state"), "failed");
}

TEST(WorkClientWorkflows, ADroppedReplyIsSentAgainWithItsKeyAndMakesOneWorkflow) {
  write_cluster sim;
  work_session alice(sim, "alice", "secret");
  alice.client.set_timeout(1);
  sim.drop_replies(1);
  const zelcapi::write_result r = alice.client.submit_workflow(chain(100000));
  // The library's second send got the master's first answer.
  EXPECT_TRUE(r.repeated);
  ASSERT_EQ(outcomes(r), std::vector<std::string>{"done"});
  EXPECT_EQ(sim.submitted_work().workflows, 1u);
  EXPECT_TRUE(master_records(sim, "workflows").is_present(r.items[0].id));
}

TEST(WorkClientWorkflows, AfterATimeOutTheCallerSendsAgainWithTheKeyOfTheErrorAndGetsOneWorkflow) {
  write_cluster sim;
  work_session alice(sim, "alice", "secret");
  alice.client.set_timeout(1);
  alice.client.set_retries(0);
  sim.drop_replies(1);
  std::string key;
  try {
    alice.client.submit_workflow(chain(100000));
    ADD_FAILURE() << "the dropped reply did not time out";
  } catch (const zelcapi::write_error& e) {
    EXPECT_EQ(e.why(), zelcapi::write_error::timed_out);
    EXPECT_EQ(e.request(), "cluster.api.workflow.update");
    key = e.key();
    EXPECT_EQ(e.message(), "'cluster.api.workflow.update' (key '" + key +
                               "'): no reply within 1 s, sent 1 time; the master may have "
                               "applied it: send it again with key '" +
                               key + "'");
  }
  EXPECT_EQ(sim.submitted_work().workflows, 1u);
  zelcapi::write_options again;
  again.key = key;
  const zelcapi::write_result r = alice.client.submit_workflow(chain(100000), "", again);
  EXPECT_TRUE(r.repeated);
  EXPECT_EQ(r.key, key);
  ASSERT_EQ(outcomes(r), std::vector<std::string>{"done"});
  EXPECT_EQ(sim.submitted_work().workflows, 1u);
  EXPECT_TRUE(master_records(sim, "workflows").is_present(r.items[0].id));
}

TEST(WorkClientWorkflows,
     AnotherUsersWorkflowIsRefusedPerItemNamingTheOwnerAndTheAdministratorMay) {
  write_cluster sim;
  work_session alice(sim, "alice", "secret");
  const std::string id = alice.client.submit_workflow(chain(100000), "WOFL-alices").items[0].id;
  plain_work_session bob(sim, "bob", "hunter2");
  const zelcapi::write_result refused = bob.client.cancel_workflows({id, "WOFL-nowhere"});
  ASSERT_EQ(refused.items.size(), 2u);
  EXPECT_EQ(refused.items[0].outcome, write_outcome::access_denied);
  EXPECT_EQ(refused.items[0].owner, "alice");
  EXPECT_NE(refused.items[0].text.find("'WOFL-alices'"), std::string::npos)
      << refused.items[0].text;
  EXPECT_EQ(refused.items[1].outcome, write_outcome::not_found);
  EXPECT_FALSE(refused.all_ok());
  EXPECT_EQ(sim.submitted_work().workflows, 1u);

  plain_work_session root(sim, "root", "toor", true);
  EXPECT_EQ(outcomes(root.client.set_workflow_priority({id}, 5)), std::vector<std::string>{"done"});
  EXPECT_EQ(outcomes(root.client.cancel_workflows({id})), std::vector<std::string>{"done"});
  const zelcapi::work_record end = alice.client.wait_for_workflow(id, 10000);
  EXPECT_EQ(end.result.status, zelworkflow::workflow_info::status_killed);
}

TEST(WorkClientWorkflows, CancellingWhileRunningEndsTheJobsAndTheWaitReturnsTheKilledWorkflow) {
  write_cluster sim;
  work_session alice(sim, "alice", "secret");
  const std::string id = alice.client.submit_workflow(chain(100000)).items[0].id;
  sim.advance_time(10ms);
  ASSERT_EQ(jobs_of(sim, id).size(), 1u);
  EXPECT_EQ(jobs_of(sim, id)[0].get_string_value("state"), "running");

  bool told = false;
  zelcapi::write_result cancelled;
  alice.client.cancel_workflows_async(
      {id}, {}, [&](const zelcapi::write_result& r, std::exception_ptr error) {
        EXPECT_FALSE(error);
        told = true;
        cancelled = r;
      });
  // The callback runs inside the connection's I/O, here the wait's.
  EXPECT_FALSE(told);
  const zelcapi::work_record end = alice.client.wait_for_workflow(id, 10000);
  EXPECT_TRUE(told);
  EXPECT_EQ(outcomes(cancelled), std::vector<std::string>{"done"});
  EXPECT_EQ(end.result.status, zelworkflow::workflow_info::status_killed);
  // The replica shows the workflow's one job cancelled.
  std::size_t jobs = 0;
  for (const auto& [job_id, record] : alice.link.get_state()->get_items(zelcapi::state_item_job)) {
    if (record.get_string_value("workflow-state-id", "") != id) continue;
    ++jobs;
    EXPECT_EQ(record.get_string_value("state"), "cancelled") << job_id;
  }
  EXPECT_EQ(jobs, 1u);
  EXPECT_EQ(sim.submitted_work().running, 0u);
  // Cancelling it again: the workflow has ended.
  EXPECT_EQ(outcomes(alice.client.cancel_workflows({id})),
            std::vector<std::string>{"not-allowed: workflow '" + id + "' has ended"});
}

TEST(WorkClientWorkflows, ARemovedWorkflowEndsTheWaitAsRemoved) {
  write_cluster sim;
  work_session alice(sim, "alice", "secret");
  const std::string id = alice.client.submit_workflow(chain(100000)).items[0].id;
  bool removed = false;
  alice.client.remove_workflows_async(
      {id}, {}, [&](const zelcapi::write_result& r, std::exception_ptr error) {
        EXPECT_FALSE(error);
        EXPECT_EQ(outcomes(r), std::vector<std::string>{"done"});
        removed = true;
      });
  try {
    alice.client.wait_for_workflow(id, 10000);
    ADD_FAILURE() << "the wait ended without an error";
  } catch (const zelcapi::wait_error& e) {
    EXPECT_EQ(e.why(), zelcapi::wait_error::removed);
    EXPECT_FALSE(e.last().live);
    EXPECT_FALSE(e.last().has_result);
    EXPECT_EQ(e.message(), "workflow '" + id +
                               "' has left the live state (last seen running) before the wait's "
                               "condition held");
  }
  EXPECT_TRUE(removed);
}

TEST(WorkClientWorkflows, AFailedTaskRetriedRunsAgainWhileItsWorkflowLives) {
  write_cluster sim;
  work_session alice(sim, "alice", "secret");
  // a fails its first attempt and has one; b runs on meanwhile, so the workflow lives.
  const properties w =
      workflow_of({{"a", task_of(run_params(100, 1), {})}, {"b", task_of(run_params(10000), {})}});
  const std::string id = alice.client.submit_workflow(w, "WOFL-retry").items[0].id;
  sim.advance_time(100ms);
  const auto a_failed = [](const zelcapi::work_record& r) {
    return r.record.get_properties_value("tasks").get_properties_value("a").get_int_value(
               "status") == zelcore::task::status_failed;
  };
  alice.client.wait_for_workflow(id, 10000, a_failed);

  const zelcapi::write_result retried = alice.client.retry_task(id, "a");
  ASSERT_EQ(outcomes(retried), std::vector<std::string>{"done"});
  EXPECT_EQ(retried.items[0].action, "set-task-max-attempts");
  sim.advance_time(10000ms);
  const zelcapi::work_record end = alice.client.wait_for_workflow(id, 10000);
  EXPECT_EQ(end.result.status, zelworkflow::workflow_info::status_finished);
  EXPECT_EQ(jobs_of(sim, id).size(), 3u);
}

TEST(WorkClientWorkflows, AWorkflowInfoIsSubmittedAndActionsOfTwoKindsGoInOneRequest) {
  write_cluster sim;
  work_session alice(sim, "alice", "secret");
  zelworkflow::workflow_info w;
  w.decode_workflow_info(chain(100000), alice.plugins);
  ASSERT_EQ(outcomes(alice.client.submit_workflow(w, "WOFL-info")),
            std::vector<std::string>{"done"});
  // The same id again makes nothing.
  EXPECT_EQ(outcomes(alice.client.submit_workflow(w, "WOFL-info")),
            std::vector<std::string>{"already-done: workflow 'WOFL-info' was made before"});
  EXPECT_EQ(sim.submitted_work().workflows, 1u);

  const zelcapi::workflow_actions& build = alice.client.actions();
  const zelcapi::write_result r = alice.client.update_workflows(
      {build.set_priority("WOFL-info", 4), build.set_task_priority("WOFL-info", "c", 2),
       build.set_task_priority("WOFL-info", "c", 2)});
  EXPECT_EQ(outcomes(r),
            (std::vector<std::string>{
                "done", "done",
                "already-done: 'set-task-priority' changes nothing in workflow 'WOFL-info'"}));
  const properties record = master_record(sim, "workflows", "WOFL-info");
  EXPECT_EQ(record.get_int_value("priority"), 4);
  EXPECT_EQ(
      record.get_properties_value("tasks").get_properties_value("c").get_int_value("priority"), 2);
  // The replica changed only when the master's notifications came: it holds the same values.
  properties mine;
  alice.link.get_state()->get_workflow_manager().encode_workflow("WOFL-info", mine);
  EXPECT_TRUE(mine == record) << first_difference(mine, record);
}

TEST(WorkClientWorkflows, AsynchronousRequestsInFlightTogetherEachGetTheirOwnAnswer) {
  write_cluster sim;
  work_session alice(sim, "alice", "secret");
  std::vector<std::string> ids(3);
  std::size_t ended = 0;
  for (std::size_t i = 0; i < ids.size(); ++i) {
    alice.client.submit_workflow_async(
        chain(100000), "WOFL-async-" + std::to_string(i), {},
        [&, i](const zelcapi::write_result& r, std::exception_ptr error) {
          EXPECT_FALSE(error);
          ASSERT_EQ(r.items.size(), 1u);
          ids[i] = r.items[0].id;
          ++ended;
        });
  }
  ASSERT_TRUE(serve_until({&alice.link}, [&] { return ended == 3; }));
  EXPECT_EQ(ids, (std::vector<std::string>{"WOFL-async-0", "WOFL-async-1", "WOFL-async-2"}));

  zelcapi::write_result priority, unknown;
  alice.client.set_workflow_priority_async(
      {ids[0], ids[1]}, 7, {},
      [&](const zelcapi::write_result& r, std::exception_ptr) { priority = r; });
  alice.client.update_workflows_async(
      {alice.client.actions().remove_workflow("WOFL-none")}, {},
      [&](const zelcapi::write_result& r, std::exception_ptr) { unknown = r; });
  ASSERT_TRUE(serve_until({&alice.link},
                          [&] { return !priority.items.empty() && !unknown.items.empty(); }));
  EXPECT_EQ(outcomes(priority), (std::vector<std::string>{"done", "done"}));
  EXPECT_EQ(outcomes(unknown),
            std::vector<std::string>{"not-found: 'WOFL-none' isn't a valid workflow state id"});
  EXPECT_EQ(master_record(sim, "workflows", ids[1]).get_int_value("priority"), 7);
  EXPECT_EQ(master_record(sim, "workflows", ids[2]).get_int_value("priority"), 0);
}

// The id of the workload's template named `name`, as the replica holds it.
std::string template_named(const zelcapi::state& replica, const std::string& name) {
  for (const auto& [id, w] : replica.get_workflows()) {
    if (w->get_workflow_meta_data().get_string_value("name", "") == name) return id;
  }
  return "";
}

TEST(WorkClientWorkflows, ASpawnFromATemplateTakesItsValuesAndPassesOutValuesToTheDependants) {
  write_cluster sim;
  // History kept: the wait returns the workflow's final form although it is removed at its end.
  work_session alice(sim, "alice", "secret", 3600);
  const std::string build = template_named(*alice.link.get_state(), "build");
  ASSERT_FALSE(build.empty());
  const zelcapi::write_result spawned =
      alice.client.spawn_workflow(build, properties{{"fetch>in", text("v1")}});
  ASSERT_EQ(outcomes(spawned), std::vector<std::string>{"done"});
  const std::string id = spawned.items[0].id;
  EXPECT_EQ(id.rfind("WOFL-", 0), 0u) << id;
  EXPECT_NE(id, build);
  EXPECT_EQ(spawned.items[0].action, "set-in-values");

  sim.advance_time(10000ms);
  const zelcapi::work_record end = alice.client.wait_for_workflow(id, 10000);
  EXPECT_EQ(end.result.status, zelworkflow::workflow_info::status_finished);
  EXPECT_FALSE(end.live);
  EXPECT_EQ(end.status, zelworkflow::workflow_info::status_finished);
  const properties tasks = end.record.get_properties_value("tasks");
  EXPECT_EQ(tasks.get_properties_value("fetch")
                .get_properties_value("in-nodes")
                .get_properties_value("in")
                .get_string_value("value"),
            "v1");
  // fetch's out-value (its id, as the runner produces it) reached compile.
  EXPECT_EQ(tasks.get_properties_value("compile")
                .get_properties_value("in-nodes")
                .get_properties_value("in")
                .get_string_value("value"),
            "fetch");
  // A value for a task the template lacks is refused before anything is sent.
  EXPECT_THROW(alice.client.spawn_workflow(build, properties{{"nowhere>in", text("v")}}),
               zelbase::es::arg);
}

TEST(WorkClientWorkflows, ADependantAddedTwiceIsAlreadyThereTheSecondTime) {
  write_cluster sim;
  work_session alice(sim, "alice", "secret");
  const zelcapi::write_result two = alice.client.submit_workflows({chain(100000), chain(100000)});
  const std::string first = two.items.at(0).id, second = two.items.at(1).id;
  const properties add = alice.client.actions().add_dependant(first, second);
  EXPECT_EQ(outcomes(alice.client.update_workflows({add})), std::vector<std::string>{"done"});
  EXPECT_EQ(outcomes(alice.client.update_workflows({add})),
            std::vector<std::string>{"already-done: 'add-dependant' changes nothing in workflow '" +
                                     first + "'"});
  const properties record = master_record(sim, "workflows", first);
  const auto& dependants = record.get_list_value("dependants");
  ASSERT_EQ(dependants.size(), 1u);
  EXPECT_EQ(static_cast<const zelcore::property_string&>(*dependants.front()).value(), second);
}

TEST(WorkClientWorkflows, BuildingActionsLeavesTheReplicaAsItWas) {
  write_cluster sim;
  work_session alice(sim, "alice", "secret");
  const zelcapi::state& replica = *alice.link.get_state();
  const std::string id = alice.client.submit_workflow(chain(100000), "WOFL-kept").items[0].id;
  const std::string build = template_named(replica, "build");
  properties before;
  replica.get_workflows(before);

  const zelcapi::workflow_actions& build_action = alice.client.actions();
  EXPECT_EQ(build_action.set_task_priority(id, "a", 9).get_int_value("priority"), 9);
  EXPECT_EQ(build_action.retry_task(id, "a").get_int_value("max-attempts"), 2);
  EXPECT_EQ(build_action.set_priority(id, 3).get_string_value("action"), "set-priority");
  EXPECT_EQ(build_action.remove_workflow(id).get_string_value("state-id"), id);
  EXPECT_TRUE(build_action.cancel_workflow(id)
                  .get_properties_value("meta-data")
                  .get_bool_value("kill-requested"));
  EXPECT_EQ(build_action.set_in_values(build, properties{{"fetch>in", text("v1")}}, "WOFL-spawn")
                .get_string_value("force-state-id"),
            "WOFL-spawn");

  properties after;
  replica.get_workflows(after);
  EXPECT_TRUE(after == before) << first_difference(after, before);
  EXPECT_FALSE(replica.has_workflow_in_state("WOFL-spawn"));
}

TEST(WorkClientWorkflows, ADescriptionThatDoesNotDecodeIsRefusedBeforeAnythingIsSent) {
  write_cluster sim;
  work_session alice(sim, "alice", "secret");
  properties w = chain(100);
  w.set_string_value("colour", "red");
  EXPECT_THROW(alice.client.submit_workflow(w), zelbase::es::arg);
  EXPECT_EQ(sim.submitted_work().workflows, 0u);
  // Acting on the tasks of a workflow the replica does not hold needs it there.
  EXPECT_THROW(alice.client.retry_task("WOFL-unknown", "a"), zelbase::es::arg);
}

TEST(WorkClientWorkflows, ManyWorkflowsGoInOneRequestAndADryRunChangesNothing) {
  write_cluster sim;
  work_session alice(sim, "alice", "secret");
  zelcapi::write_options dry;
  dry.dry_run = true;
  const zelcapi::write_result checked =
      alice.client.submit_workflows({chain(100), chain(100)}, dry);
  EXPECT_TRUE(checked.dry_run);
  EXPECT_EQ(outcomes(checked), (std::vector<std::string>{"done", "done"}));
  EXPECT_EQ(sim.submitted_work().workflows, 0u);

  const zelcapi::write_result r =
      alice.client.submit_workflows({chain(100), chain(100), chain(100)});
  EXPECT_EQ(outcomes(r), (std::vector<std::string>{"done", "done", "done"}));
  EXPECT_EQ(sim.submitted_work().workflows, 3u);
  sim.advance_time(300ms);
  for (const zelcapi::item_result& item : r.items) {
    EXPECT_EQ(alice.client.wait_for_workflow(item.id, 10000).result.status,
              zelworkflow::workflow_info::status_finished);
  }
}

}  // namespace
