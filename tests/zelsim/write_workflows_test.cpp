// Workflows through raw "cluster.api.workflow.update" requests: the master runs their tasks as
// jobs to the workflow's result, and a state connection's replica follows it to the same state;
// forced failures, cancelling and removal; owners; spawning from templates; client-chosen ids,
// keys and dry runs; and the outcome of every refused action.
#include <gtest/gtest.h>

#include <chrono>

#include "support/tree_difference.h"
#include "write_test_support.h"
#include "zelcapi/state_connection.h"
#include "zelcore/plugin_db.h"

namespace {

using namespace zeltest;
using namespace std::chrono_literals;

// a feeds b and c, which both feed d: a's out-value "out" is the int 7.
properties diamond(std::int64_t run_ms) {
  properties a_params = run_params(run_ms);
  a_params.set_properties_value("out-values", properties{{"out", number(7)}});
  properties int_node;
  int_node.set_string_value("accepts", "int");
  properties b = task_of(run_params(run_ms), {}, {{"out", {"d>from-b"}}});
  b.set_properties_value("in-nodes", properties{{"in", tree(int_node)}});
  return workflow_of({{"a", task_of(a_params, {}, {{"out", {"b>in", "c>in"}}})},
                      {"b", b},
                      {"c", task_of(run_params(run_ms), {"in"}, {{"out", {"d>from-c"}}})},
                      {"d", task_of(run_params(run_ms), {"from-b", "from-c"})}});
}

// The outcome of the one action of a reply, with its text.
std::string outcome_of(const properties& reply) {
  const properties item = only_item(reply);
  const std::string text = item.get_string_value("text", "");
  return item.get_string_value("outcome", "") + (text.empty() ? "" : ": " + text);
}

// The outcome of adding `meta` to the meta data of workflow `id`, sent by `client`.
std::string add_meta(write_client& client, const std::string& id, const properties& meta) {
  return outcome_of(
      client.request(update_request, updating({meta_action("add-workflow-meta-data", id, meta)})));
}

properties workflow_record(zelsim::cluster& sim, const std::string& id) {
  return master_record(sim, "workflows", id);
}

std::string task_status(zelsim::cluster& sim, const std::string& id, const std::string& task) {
  const properties w = workflow_record(sim, id);
  if (w.empty()) return "gone";
  return std::to_string(
      w.get_properties_value("tasks").get_properties_value(task).get_int_value("status"));
}

// The result the master keeps for a workflow: "st,ht", or "" when it has none.
std::string result_of(zelsim::cluster& sim, const std::string& id) {
  const properties r = master_record(sim, "workflow-results", id);
  if (r.empty()) return "";
  return std::to_string(r.get_int_value("st")) + "," + std::to_string(r.get_int_value("ht"));
}

// The jobs of a workflow's tasks, by task.
std::map<std::string, std::vector<properties>> jobs_of(zelsim::cluster& sim,
                                                       const std::string& id) {
  std::map<std::string, std::vector<properties>> out;
  for (const auto& [job_id, record] : master_records(sim, "jobs")) {
    const properties& job = static_cast<const properties&>(*record);
    if (job.get_string_value("workflow-state-id", "") != id) continue;
    out[job.get_properties_value("task-info").get_string_value("id")].push_back(job);
  }
  return out;
}

// Notices the results that reach a state connection.
class result_watch : public zelcapi::state_handler {
 public:
  bool state_workflow_result_added(const std::string& id, zelcapi::workflow_result_info) override {
    results.push_back(id);
    return true;
  }
  std::vector<std::string> results;
};

TEST(RunWorkflows, ADiamondRunsToItsResultAndTheReplicaFollowsTheMaster) {
  write_cluster sim;
  result_watch watch;
  zelcore::plugin_db plugins;
  zelcapi::state_connection c(&watch, 0, &plugins);
  ASSERT_EQ(c.connect("127.0.0.1", std::to_string(sim.port(1)), 5), zelcapi::connection_ok);
  ASSERT_FALSE(
      c.login_sync("alice", "secret", "", "", 5, true).get_properties().is_present("error"));
  c.request_new_state_sync();

  const properties reply =
      c.send_sync(packet(2, update_request, updating({add_workflow("WOFL-diamond", diamond(100))})),
                  5)
          .get_properties();
  EXPECT_EQ(outcome_of(reply), "done");
  EXPECT_EQ(only_item(reply).get_string_value("state-id"), "WOFL-diamond");
  EXPECT_EQ(only_item(reply).get_string_value("action"), "add-workflow");
  EXPECT_EQ(workflow_record(sim, "WOFL-diamond")
                .get_properties_value("meta-data")
                .get_string_value("user"),
            "alice");
  EXPECT_EQ(task_status(sim, "WOFL-diamond", "a"), "2");
  EXPECT_EQ(task_status(sim, "WOFL-diamond", "b"), "0");

  sim.advance_time(100ms);
  EXPECT_EQ(task_status(sim, "WOFL-diamond", "a"), "3");
  // a's out-value reached b (as the int it is) and c.
  const properties tasks = workflow_record(sim, "WOFL-diamond").get_properties_value("tasks");
  EXPECT_EQ(tasks.get_properties_value("b")
                .get_properties_value("in-nodes")
                .get_properties_value("in")
                .get_int_value("value"),
            7);
  EXPECT_EQ(task_status(sim, "WOFL-diamond", "b"), "2");
  EXPECT_EQ(task_status(sim, "WOFL-diamond", "c"), "2");
  // Each job carries the job info of its task.
  const auto jobs = jobs_of(sim, "WOFL-diamond");
  ASSERT_EQ(jobs.at("b").size(), 1u);
  const properties& b_job = jobs.at("b")[0];
  EXPECT_EQ(b_job.get_string_value("user"), "alice");
  EXPECT_EQ(b_job.get_string_value("state"), "running");
  EXPECT_EQ(b_job.get_properties_value("meta-data").get_string_value("user"), "alice");
  EXPECT_TRUE(b_job.is_present("workflow-configuration"));
  EXPECT_EQ(b_job.get_properties_value("task-info")
                .get_properties_value("job-info")
                .get_properties_value("in-values")
                .get_int_value("in"),
            7);

  sim.advance_time(100ms);
  EXPECT_EQ(task_status(sim, "WOFL-diamond", "d"), "2");
  sim.advance_time(100ms);
  EXPECT_EQ(result_of(sim, "WOFL-diamond"), "2,4");
  EXPECT_TRUE(workflow_record(sim, "WOFL-diamond").empty());
  EXPECT_EQ(sim.submitted_work().workflows, 0u);

  const auto deadline = std::chrono::steady_clock::now() + 10s;
  while (watch.results.empty() && std::chrono::steady_clock::now() < deadline) c.wait(10);
  ASSERT_EQ(watch.results, std::vector<std::string>{"WOFL-diamond"});
  // A marker request answered after every notification: the replica has them all.
  c.send_sync(packet(2, "echo"), 5);
  properties mine, master = sim.master_snapshot();
  c.get_state()->get_state(mine);
  EXPECT_TRUE(mine == master) << first_difference(mine, master);
}

TEST(RunWorkflows, AForcedFailureEndsTheWorkflowFailedAfterItsAttempts) {
  write_cluster sim;
  write_client alice(sim, "alice", "secret");
  const properties w = workflow_of({{"t1", task_of(run_params(100, 5), {}, {{"out", {"t2"}}}, 2)},
                                    {"t2", task_of(run_params(100), {"in"})}});
  EXPECT_EQ(outcome_of(alice.request(update_request, updating({add_workflow("WOFL-f", w)}))),
            "done");
  sim.advance_time(100ms);
  // The first attempt failed; the task is runnable again and runs as a new job.
  EXPECT_EQ(task_status(sim, "WOFL-f", "t1"), "2");
  sim.advance_time(100ms);
  EXPECT_EQ(result_of(sim, "WOFL-f"), "3,2");
  const auto jobs = jobs_of(sim, "WOFL-f");
  ASSERT_EQ(jobs.at("t1").size(), 2u);
  for (const properties& job : jobs.at("t1")) {
    EXPECT_EQ(job.get_string_value("state"), "failed");
    EXPECT_EQ(job.get_int_value("exit-code"), 1);
  }
  EXPECT_EQ(jobs.count("t2"), 0u);
}

TEST(RunWorkflows, CancellingEndsTheRunningJobsAndTheWorkflowEndsKilled) {
  write_cluster sim;
  write_client alice(sim, "alice", "secret");
  const properties w = workflow_of({{"a", task_of(run_params(10000), {})},
                                    {"b", task_of(run_params(10000), {})},
                                    {"c", task_of(run_params(100), {"in"})}});
  alice.request(update_request, updating({add_workflow("WOFL-k", w)}));
  const auto running = jobs_of(sim, "WOFL-k");
  ASSERT_EQ(running.size(), 2u);
  const std::string slot = running.at("a")[0].get_string_value("slot-id");
  const properties kill{{"kill-requested", zelcore::make_bool(true)}};
  EXPECT_EQ(add_meta(alice, "WOFL-k", kill), "done");
  for (const auto& [task, jobs] : jobs_of(sim, "WOFL-k")) {
    EXPECT_EQ(jobs[0].get_string_value("state"), "cancelled") << task;
  }
  EXPECT_TRUE(master_record(sim, "slots", slot).empty());
  EXPECT_EQ(result_of(sim, "WOFL-k"), "4,2");
  EXPECT_TRUE(workflow_record(sim, "WOFL-k").empty());
  EXPECT_EQ(sim.submitted_work().running, 0u);
  // The workflow has ended: cancelling it again changes nothing.
  EXPECT_EQ(add_meta(alice, "WOFL-k", kill), "not-allowed: workflow 'WOFL-k' has ended");
}

TEST(RunWorkflows, RemovingAWorkflowCancelsItsJobs) {
  write_cluster sim;
  write_client alice(sim, "alice", "secret");
  alice.request(
      update_request,
      updating({add_workflow("WOFL-r", workflow_of({{"a", task_of(run_params(10000), {})}}))}));
  properties remove{{"action", text("remove-workflow")}, {"state-id", text("WOFL-r")}};
  EXPECT_EQ(outcome_of(alice.request(update_request, updating({remove}))), "done");
  EXPECT_EQ(jobs_of(sim, "WOFL-r").at("a")[0].get_string_value("state"), "cancelled");
  EXPECT_TRUE(workflow_record(sim, "WOFL-r").empty());
  EXPECT_EQ(result_of(sim, "WOFL-r"), "");
  EXPECT_EQ(outcome_of(alice.request(update_request, updating({remove}))),
            "already-done: workflow 'WOFL-r' has ended");
  properties unknown{{"action", text("remove-workflow")}, {"state-id", text("WOFL-none")}};
  EXPECT_EQ(outcome_of(alice.request(update_request, updating({unknown}))),
            "not-found: 'WOFL-none' isn't a valid workflow state id");
}

TEST(RunWorkflows, AFailedTaskRunsAgainWhenItsAttemptsAreRaisedWhileItsWorkflowLives) {
  write_cluster sim;
  write_client alice(sim, "alice", "secret");
  const properties w = workflow_of(
      {{"flaky", task_of(run_params(100, 1), {})}, {"long", task_of(run_params(10000), {})}});
  alice.request(update_request, updating({add_workflow("WOFL-retry", w)}));
  sim.advance_time(100ms);
  EXPECT_EQ(task_status(sim, "WOFL-retry", "flaky"), "4");
  properties retry{{"action", text("set-task-max-attempts")},
                   {"wf-state-id", text("WOFL-retry")},
                   {"task-wtid", text("flaky")},
                   {"max-attempts", number(2)}};
  EXPECT_EQ(outcome_of(alice.request(update_request, updating({retry}))), "done");
  EXPECT_EQ(task_status(sim, "WOFL-retry", "flaky"), "2");
  sim.advance_time(100ms);
  EXPECT_EQ(task_status(sim, "WOFL-retry", "flaky"), "3");
  sim.advance_time(10000ms);
  EXPECT_EQ(result_of(sim, "WOFL-retry"), "2,3");
}

TEST(RunWorkflows, AnInitWorkflowRunsItsInitTaskAndItsChildRunsOnTheValuesItPassed) {
  write_cluster sim;
  write_client alice(sim, "alice", "secret");
  properties init = task_of(run_params(100), {"cfg"}, {{"config", {"work>config"}}});
  init.set_int_value("type", 1);
  const properties w =
      workflow_of({{"init", init}, {"work", task_of(run_params(100), {"config", "in"})}}, 1);
  EXPECT_EQ(outcome_of(alice.request(update_request, updating({add_workflow("WOFL-init", w)}))),
            "done");
  // A value for an ordinary task spawns a child, which waits on its init workflow.
  EXPECT_EQ(
      outcome_of(alice.request(
          update_request, updating({set_in_value("WOFL-init>work>in", text("x"), "WOFL-child")}))),
      "done");
  EXPECT_EQ(workflow_record(sim, "WOFL-child").get_int_value("type"), 2);
  EXPECT_TRUE(jobs_of(sim, "WOFL-child").empty());
  // The init value goes to the init workflow, whose init task then runs there.
  EXPECT_EQ(outcome_of(alice.request(
                update_request, updating({set_in_value("WOFL-init>init>cfg", text("c"), "")}))),
            "done");
  EXPECT_EQ(jobs_of(sim, "WOFL-init").at("init").size(), 1u);
  sim.advance_time(100ms);
  EXPECT_EQ(task_status(sim, "WOFL-child", "init"), "3");
  EXPECT_EQ(workflow_record(sim, "WOFL-child")
                .get_properties_value("tasks")
                .get_properties_value("work")
                .get_properties_value("in-nodes")
                .get_properties_value("config")
                .get_string_value("value"),
            "init");
  EXPECT_EQ(task_status(sim, "WOFL-child", "work"), "2");
  sim.advance_time(100ms);
  EXPECT_EQ(result_of(sim, "WOFL-child"), "2,1");
  // An init workflow never ends by itself.
  EXPECT_FALSE(workflow_record(sim, "WOFL-init").empty());
}

TEST(WorkflowOwners, OthersAreRefusedPerActionWithTheOwnerNamedAndTheAdministratorMay) {
  write_cluster sim;
  write_client alice(sim, "alice", "secret");
  write_client bob(sim, "bob", "hunter2");
  write_client root(sim, "root", "toor", true);
  alice.request(
      update_request,
      updating({add_workflow("WOFL-a", workflow_of({{"t", task_of(run_params(9000), {})}}))}));
  properties priority{{"action", text("set-priority")},
                      {"state-id", text("WOFL-a")},
                      {"priority", number(5)},
                      {"whence", number(0)},
                      {"min", number(-10)},
                      {"max", number(10)}};
  const properties kill{{"kill-requested", zelcore::make_bool(true)}};
  const std::vector<properties> items = items_of(bob.request(
      update_request, updating({priority, meta_action("add-workflow-meta-data", "WOFL-a", kill),
                                add_workflow("WOFL-a", workflow_of({}))})));
  ASSERT_EQ(items.size(), 3u);
  EXPECT_EQ(items[0].get_string_value("outcome"), "access-denied");
  EXPECT_EQ(items[0].get_string_value("owner"), "alice");
  EXPECT_EQ(items[0].get_string_value("text"), "workflow 'WOFL-a' belongs to 'alice'");
  EXPECT_EQ(items[1].get_string_value("outcome"), "access-denied");
  EXPECT_EQ(items[2].get_string_value("text"),
            "state id 'WOFL-a' belongs to a workflow of 'alice'");
  EXPECT_EQ(task_status(sim, "WOFL-a", "t"), "2");
  EXPECT_EQ(workflow_record(sim, "WOFL-a").get_int_value("priority"), 0);

  EXPECT_EQ(outcome_of(root.request(update_request, updating({priority}))), "done");
  EXPECT_EQ(workflow_record(sim, "WOFL-a").get_int_value("priority"), 5);
  // The owner's name is the master's to set.
  const properties claim{{"user", text("bob")}};
  EXPECT_EQ(add_meta(root, "WOFL-a", claim),
            "invalid: meta data \"user\" names the workflow's owner, 'alice', and is the master's "
            "to set");
  properties claimed = workflow_of({});
  claimed.set_properties_value("meta-data", properties{{"user", text("alice")}});
  EXPECT_EQ(outcome_of(bob.request(update_request, updating({add_workflow("WOFL-b", claimed)}))),
            "invalid: meta data \"user\" names the workflow's owner, 'bob', and is the master's to "
            "set");
  // Replacing the meta data keeps the owner.
  EXPECT_EQ(outcome_of(alice.request(update_request,
                                     updating({meta_action("set-workflow-meta-data", "WOFL-a",
                                                           properties{{"x", number(1)}})}))),
            "done");
  EXPECT_EQ(
      workflow_record(sim, "WOFL-a").get_properties_value("meta-data").get_string_value("user"),
      "alice");
}

TEST(WorkflowTemplates, ASpawnTakesItsValuesAndPassesOutValuesToTheDependants) {
  zelsim::options o = write_options();
  o.run_ms = 50;
  write_cluster sim(o);
  write_client alice(sim, "alice", "secret");
  std::string build;
  for (const auto& [id, w] : master_records(sim, "workflows")) {
    const properties& workflow = static_cast<const properties&>(*w);
    if (workflow.get_properties_value("meta-data").get_string_value("name", "") == "build")
      build = id;
  }
  ASSERT_FALSE(build.empty());
  // No key and no state id: the master would make an id that a retry could not know.
  EXPECT_EQ(
      alice.request(update_request, updating({set_in_value(build + ">fetch>in", text("v1"), "")}))
          .get_string_value("error"),
      "a request that creates workflows without naming their state ids carries a \"key\"");
  const properties reply = alice.request(
      update_request, updating({set_in_value(build + ">fetch>in", text("v1"), "")}, "spawn-1"));
  const std::string spawned = only_item(reply).get_string_value("state-id");
  EXPECT_EQ(outcome_of(reply), "done");
  EXPECT_EQ(spawned.rfind("WOFL-", 0), 0u);
  const properties record = workflow_record(sim, spawned);
  EXPECT_EQ(record.get_properties_value("meta-data").get_string_value("user"), "alice");
  EXPECT_EQ(record.get_properties_value("meta-data").get_string_value("parent-id"), build);
  const auto jobs = jobs_of(sim, spawned);
  EXPECT_EQ(jobs.at("fetch")[0]
                .get_properties_value("task-info")
                .get_properties_value("job-info")
                .get_properties_value("in-values")
                .get_string_value("in"),
            "v1");
  sim.advance_time(50ms);
  EXPECT_EQ(workflow_record(sim, spawned)
                .get_properties_value("tasks")
                .get_properties_value("compile")
                .get_properties_value("in-nodes")
                .get_properties_value("in")
                .get_string_value("value"),
            "fetch");
  sim.advance_time(150ms);
  EXPECT_EQ(result_of(sim, spawned), "2,4");
  // The template itself is never changed, and is the workload's: no one steers it.
  properties priority{{"action", text("set-priority")},
                      {"state-id", text(build)},
                      {"priority", number(5)},
                      {"whence", number(0)},
                      {"min", number(-10)},
                      {"max", number(10)}};
  EXPECT_EQ(outcome_of(alice.request(update_request, updating({priority}))),
            "not-allowed: workflow '" + build +
                "' is run by the simulated workload, which takes no actions");
}

TEST(WorkflowKeys, AClientChosenStateIdMakesOneWorkflowAndAKeyRepeatsTheAnswer) {
  write_cluster sim;
  write_client alice(sim, "alice", "secret");
  const properties w = workflow_of({{"t", task_of(run_params(9000), {})}});
  EXPECT_EQ(outcome_of(alice.request(update_request, updating({add_workflow("WOFL-once", w)}))),
            "done");
  EXPECT_EQ(outcome_of(alice.request(update_request, updating({add_workflow("WOFL-once", w)}))),
            "already-done: workflow 'WOFL-once' was made before");
  EXPECT_EQ(jobs_of(sim, "WOFL-once").at("t").size(), 1u);

  EXPECT_EQ(
      alice.request(update_request, updating({add_workflow("", w)})).get_string_value("error"),
      "a request that creates workflows without naming their state ids carries a \"key\"");
  const properties first = alice.request(update_request, updating({add_workflow("", w)}, "k"));
  const properties again = alice.request(update_request, updating({add_workflow("", w)}, "k"));
  EXPECT_TRUE(again.get_bool_value("repeated"));
  const std::string id = only_item(first).get_string_value("state-id");
  EXPECT_EQ(only_item(again).get_string_value("state-id"), id);
  EXPECT_EQ(sim.submitted_work().workflows, 2u);
}

TEST(WorkflowActions, RefusedActionsSayWhy) {
  write_cluster sim;
  write_client alice(sim, "alice", "secret");
  alice.request(
      update_request,
      updating({add_workflow("WOFL-x", workflow_of({{"t", task_of(run_params(9000), {})}}))}));
  properties bad_param = workflow_of({{"t", task_of(properties{{"run-ms", text("soon")}}, {})}});
  properties undeclared = workflow_of(
      {{"t", task_of(properties{{"out-values", tree(properties{{"o", number(1)}})}}, {})}});
  properties bad_key = workflow_of({});
  bad_key.set_int_value("colour", 1);
  properties status{{"action", text("set-task-status")},
                    {"wf-state-id", text("WOFL-x")},
                    {"task-wtid", text("t")}};
  properties spelt{{"action", text("set-task-max_attempts")},
                   {"wf-state-id", text("WOFL-x")},
                   {"task-wtid", text("t")},
                   {"max-attempts", number(3)}};
  properties no_task{{"action", text("set-task-max-attempts")},
                     {"wf-state-id", text("WOFL-x")},
                     {"task-wtid", text("nine")},
                     {"max-attempts", number(3)}};
  properties missing{{"action", text("add-workflow")}, {"state-id", text("WOFL-m")}};
  properties fields =
      updating({add_workflow("WOFL-p", bad_param), add_workflow("WOFL-o", undeclared),
                add_workflow("WOFL-k", bad_key), status, spelt, no_task, missing});
  auto list = fields.get_list_value("actions");
  list.push_back(number(4));
  fields["actions"] = list_of(std::vector<zelcore::property_ptr>(list.begin(), list.end()));
  const std::vector<properties> items = items_of(alice.request(update_request, fields));
  ASSERT_EQ(items.size(), 8u);
  const std::vector<std::string> expected = {
      "invalid: task 't': parameter 'run-ms' is a string, not a int",
      "invalid: task 't': parameter 'out-values' names 'o', which the task does not declare",
      "invalid: cannot decode workflow: unknown key 'colour'",
      "invalid: 'set-task-status' is the master's own: task statuses, scheduling and progress "
      "follow the jobs that run the tasks",
      "invalid: unknown workflow-update action requested",
      "not-found: workflow 'WOFL-x' has no task 'nine'",
      "invalid: property 'workflow' is missing",
      "invalid: an action is a properties, not a int",
  };
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const std::string text = items[i].get_string_value("text", "");
    EXPECT_EQ(items[i].get_string_value("outcome") + (text.empty() ? "" : ": " + text),
              expected[i]);
  }
  EXPECT_EQ(sim.submitted_work().workflows, 1u);
  const properties meta{{"stage", number(1)}};
  EXPECT_EQ(add_meta(alice, "WOFL-x", meta), "done");
  EXPECT_EQ(add_meta(alice, "WOFL-x", meta),
            "already-done: 'add-workflow-meta-data' changes nothing in workflow 'WOFL-x'");
}

TEST(WorkflowActions, ADryRunChecksAndAppliesNothing) {
  write_cluster sim;
  write_client alice(sim, "alice", "secret");
  properties fields =
      updating({add_workflow("WOFL-d", workflow_of({{"t", task_of(run_params(9000), {})}})),
                add_workflow("WOFL-e",
                             workflow_of({{"t", task_of(properties{{"cores", number(0)}}, {})}}))});
  fields.set_bool_value("dry-run", true);
  const std::vector<properties> items = items_of(alice.request(update_request, fields));
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items[0].get_string_value("outcome"), "done");
  EXPECT_EQ(items[1].get_string_value("text"),
            "task 't': parameter 'cores' is 0, outside 1 to 1024");
  EXPECT_TRUE(workflow_record(sim, "WOFL-d").empty());
  EXPECT_EQ(sim.submitted_work().workflows, 0u);
}

}  // namespace
