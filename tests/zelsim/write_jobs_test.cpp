// Plain jobs through raw write requests: submission, validation, the run with its retries,
// steering with an outcome per job, owners and the administrator, dry runs, client keys, and a
// submission of 10,000 jobs.
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <map>
#include <set>

#include "write_test_support.h"
#include "zelbase/exceptions.h"

namespace {

using namespace zeltest;
using namespace std::chrono_literals;

properties job(const std::string& command, std::int64_t run_ms = 100) {
  properties j;
  j.set_string_value("command", command);
  j.set_int_value("run-ms", run_ms);
  return j;
}

// The ids of the done items of a reply.
std::vector<std::string> ids_of(const properties& reply) {
  std::vector<std::string> ids;
  for (const properties& item : items_of(reply)) {
    EXPECT_EQ(item.get_string_value("outcome"), "done") << item.describe();
    ids.push_back(item.get_string_value("id", ""));
  }
  return ids;
}

// Takes every core of every node for `run_ms` (one job per node, the largest first, so that each
// lands on the node of its size); later jobs wait in the queue.
std::vector<std::string> fill_cores(write_client& client, zelsim::cluster& sim,
                                    std::int64_t run_ms) {
  std::vector<std::int64_t> cores;
  for (const auto& [id, node] : master_records(sim, "nodes")) {
    cores.push_back(static_cast<const properties&>(*node).get_int_value("cores"));
  }
  std::sort(cores.rbegin(), cores.rend());
  std::vector<properties> jobs;
  for (std::int64_t c : cores) {
    properties j = job("fill", run_ms);
    j.set_int_value("cores", c);
    jobs.push_back(j);
  }
  return ids_of(client.request(submit_request, submission(jobs, "fill")));
}

std::int64_t largest_node(zelsim::cluster& sim) {
  std::int64_t largest = 0;
  for (const auto& [id, node] : master_records(sim, "nodes")) {
    largest = std::max(largest, static_cast<const properties&>(*node).get_int_value("cores"));
  }
  return largest;
}

std::string state_of(zelsim::cluster& sim, const std::string& id) {
  return master_record(sim, "jobs", id).get_string_value("state", "");
}

TEST(SubmitJobs, JobsAreEnteredWithTheirFieldsAndStartOnFreeCores) {
  write_cluster sim;
  write_client alice(sim, "alice", "secret");
  properties j = job("/bin/render frame-1");
  j.set_string_value("name", "frame-1");
  j.set_int_value("cores", 2);
  j.set_int_value("memory-mb", 2048);
  j.set_string_value("queue", "gpu");
  j.set_int_value("priority", 7);
  j["tags"] = list_of({text("render")});
  j.set_properties_value("env", properties{{"FRAME", text("1")}});
  j.set_int_value("max-attempts", 3);
  j.set_int_value("tasks", 2);
  const properties reply = alice.request(submit_request, submission({j, job("/bin/true")}, "k1"));
  const std::vector<std::string> ids = ids_of(reply);
  ASSERT_EQ(ids.size(), 2u);
  EXPECT_EQ(ids[0], "job-s0000001");
  EXPECT_FALSE(reply.get_bool_value("dry-run"));
  const std::string submission_id = reply.get_string_value("submission-id");

  const properties record = master_record(sim, "jobs", ids[0]);
  EXPECT_EQ(record.get_string_value("state"), "running");
  EXPECT_EQ(record.get_string_value("name"), "frame-1");
  EXPECT_EQ(record.get_string_value("user"), "alice");
  EXPECT_EQ(record.get_string_value("command"), "/bin/render frame-1");
  EXPECT_EQ(record.get_string_value("queue"), "gpu");
  EXPECT_EQ(record.get_string_value("submission-id"), submission_id);
  EXPECT_EQ(record.get_int_value("cores"), 2);
  EXPECT_EQ(record.get_int_value("memory-mb"), 2048);
  EXPECT_EQ(record.get_int_value("priority"), 7);
  EXPECT_EQ(record.get_int_value("max-attempts"), 3);
  EXPECT_EQ(record.get_int_value("attempts"), 1);
  EXPECT_EQ(record.get_int_value("task-count"), 2);
  EXPECT_EQ(record.get_properties_value("env").get_string_value("FRAME"), "1");
  EXPECT_EQ(record.get_list_value("tags").size(), 1u);
  EXPECT_FALSE(record.get_string_value("slot-id").empty());
  EXPECT_EQ(master_record(sim, "tasks", ids[0] + ".t2").get_string_value("state"), "running");
  EXPECT_EQ(master_record(sim, "submissions", submission_id).get_int_value("job-count"), 2);
  EXPECT_EQ(master_record(sim, "jobs", ids[1]).get_string_value("name"), ids[1]);
  EXPECT_EQ(sim.submitted_work().running, 2u);
}

TEST(SubmitJobs, JobsEndAsTheyAskAndFailuresRetryUpToTheirAttempts) {
  write_cluster sim;
  write_client alice(sim, "alice", "secret");
  properties twice = job("flaky");
  twice.set_int_value("fail-attempts", 1);
  twice.set_int_value("max-attempts", 3);
  properties never = job("broken");
  never.set_int_value("fail-attempts", 9);
  never.set_int_value("max-attempts", 2);
  never.set_int_value("exit-code", 3);
  const std::vector<std::string> ids =
      ids_of(alice.request(submit_request, submission({job("fine"), twice, never}, "k")));
  ASSERT_EQ(ids.size(), 3u);
  sim.advance_time(100ms);
  EXPECT_EQ(state_of(sim, ids[0]), "finished");
  EXPECT_EQ(master_record(sim, "jobs", ids[0]).get_int_value("exit-code"), 0);
  // A failed attempt with attempts left queues again, and cores being free, runs again.
  EXPECT_EQ(state_of(sim, ids[1]), "running");
  EXPECT_EQ(master_record(sim, "jobs", ids[1]).get_int_value("attempts"), 2);
  sim.advance_time(100ms);
  EXPECT_EQ(state_of(sim, ids[1]), "finished");
  const properties failed = master_record(sim, "jobs", ids[2]);
  EXPECT_EQ(failed.get_string_value("state"), "failed");
  EXPECT_EQ(failed.get_int_value("attempts"), 2);
  EXPECT_EQ(failed.get_int_value("exit-code"), 3);
  EXPECT_FALSE(failed.is_present("slot-id"));
  EXPECT_EQ(master_record(sim, "tasks", ids[2] + ".t1").get_string_value("state"), "failed");
  EXPECT_EQ(sim.submitted_work().running, 0u);
}

TEST(SubmitJobs, WithARealClockJobsRunAndEndOnTheirOwn) {
  zelsim::options o = write_options();
  o.manual_time = false;
  write_cluster sim(o);
  write_client alice(sim, "alice", "secret");
  properties flaky = job("flaky", 20);
  flaky.set_int_value("fail-attempts", 1);
  flaky.set_int_value("max-attempts", 2);
  const std::string id = ids_of(alice.request(submit_request, submission({flaky}, "k")))[0];
  const auto deadline = std::chrono::steady_clock::now() + 20s;
  while (state_of(sim, id) != "finished" && std::chrono::steady_clock::now() < deadline) {
    alice.c.wait(10);
  }
  EXPECT_EQ(state_of(sim, id), "finished");
  EXPECT_EQ(master_record(sim, "jobs", id).get_int_value("attempts"), 2);
  EXPECT_THROW(sim.advance_time(1ms), zelbase::es::arg);
}

TEST(SubmitJobs, EndedJobsGoToHistoryAfterTheKeepTime) {
  zelsim::options o = write_options();
  o.job_keep_time = 5;
  write_cluster sim(o);
  write_client alice(sim, "alice", "secret");
  const properties reply = alice.request(submit_request, submission({job("a")}, "k"));
  const std::string id = ids_of(reply)[0];
  sim.advance_time(100ms);
  EXPECT_EQ(state_of(sim, id), "finished");
  sim.advance_time(5000ms);
  EXPECT_TRUE(master_record(sim, "jobs", id).empty());
  const properties history = sim.master_history();
  EXPECT_TRUE(history.get_properties_value("jobs").is_present(id));
  EXPECT_TRUE(history.get_properties_value("tasks").is_present(id + ".t1"));
  EXPECT_TRUE(history.get_properties_value("submissions")
                  .is_present(reply.get_string_value("submission-id")));
}

TEST(SubmitJobs, InvalidJobsAreRefusedWithTheirTextsAndTheOthersRun) {
  write_cluster sim;
  write_client alice(sim, "alice", "secret");
  properties no_command;
  no_command.set_int_value("cores", 1);
  properties bad_kind = job("a");
  bad_kind.set_string_value("cores", "two");
  properties unknown = job("a");
  unknown.set_int_value("cpus", 1);
  properties too_many = job("a");
  too_many.set_int_value("cores", 1024);
  properties out_of_range = job("a");
  out_of_range.set_int_value("max-attempts", 0);
  properties bad_env = job("a");
  bad_env.set_properties_value("env", properties{{"N", number(1)}});
  const std::vector<properties> items = items_of(alice.request(
      submit_request,
      submission({no_command, bad_kind, unknown, too_many, out_of_range, bad_env, job("fine")},
                 "k")));
  ASSERT_EQ(items.size(), 7u);
  const std::vector<std::string> texts = {
      "'command' is missing",
      "'cores' is a string, not a int",
      "unknown key 'cpus'",
      "'cores' is 1024, more than the largest node has (" + std::to_string(largest_node(sim)) + ")",
      "'max-attempts' is 0, outside 1 to 1000",
      "'env' entry 'N' is a int, not a string",
  };
  for (std::size_t i = 0; i < texts.size(); ++i) {
    EXPECT_EQ(items[i].get_string_value("outcome"), "invalid");
    EXPECT_EQ(items[i].get_string_value("text"), texts[i]);
    EXPECT_FALSE(items[i].is_present("id"));
  }
  EXPECT_EQ(items[6].get_string_value("outcome"), "done");
  EXPECT_EQ(state_of(sim, items[6].get_string_value("id")), "running");
}

TEST(SubmitJobs, RequestsRefusedWholeGetAnErrorAndChangeNothing) {
  write_cluster sim;
  write_client alice(sim, "alice", "secret");
  const auto error = [&](const properties& fields) {
    return alice.request(submit_request, fields).get_string_value("error", "");
  };
  EXPECT_EQ(error(submission({job("a")}, "")), "a request that creates work carries a \"key\"");
  EXPECT_EQ(error(properties{{"key", text("k")}}), "property 'jobs' is missing");
  EXPECT_EQ(error(submission({}, "k")), "\"jobs\" is empty");
  properties not_a_job = submission({}, "k");
  not_a_job["jobs"] = list_of({number(3)});
  EXPECT_EQ(items_of(alice.request(submit_request, not_a_job))[0].get_string_value("text"),
            "a job is a properties, not a int");
  EXPECT_EQ(alice.request(steer_request, properties{{"action", text("stop")}, {"ids", list_of({})}})
                .get_string_value("error", ""),
            "\"action\" 'stop' is not cancel, hold, release, retry or priority");
  EXPECT_TRUE(master_records(sim, "jobs").empty());

  zelcapi::connection anonymous;
  ASSERT_EQ(anonymous.connect("127.0.0.1", std::to_string(sim.port(1)), 5), zelcapi::connection_ok);
  EXPECT_EQ(anonymous.send_sync(packet(2, submit_request, submission({job("a")}, "k")), 5)
                .get_properties()
                .get_string_value("error", ""),
            "Not logged in");
  zelcapi::connection elsewhere;
  ASSERT_EQ(elsewhere.connect("127.0.0.1", std::to_string(sim.port(2)), 5), zelcapi::connection_ok);
  ASSERT_FALSE(elsewhere.admin_login_sync("root", "toor", 5).get_properties().is_present("error"));
  EXPECT_EQ(elsewhere.send_sync(packet(2, submit_request, submission({job("a")}, "k")), 5)
                .get_properties()
                .get_string_value("error", ""),
            "'node-2' is not the cluster master ('node-1' is)");
  EXPECT_TRUE(master_records(sim, "jobs").empty());
}

TEST(SubmitJobs, ADryRunChecksEveryJobAndEntersNone) {
  write_cluster sim;
  write_client alice(sim, "alice", "secret");
  properties fields = submission({job("a"), properties()}, "");
  fields.set_bool_value("dry-run", true);
  const properties reply = alice.request(submit_request, fields);
  EXPECT_TRUE(reply.get_bool_value("dry-run"));
  const std::vector<properties> items = items_of(reply);
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items[0].get_string_value("outcome"), "done");
  EXPECT_FALSE(items[0].is_present("id"));
  EXPECT_EQ(items[1].get_string_value("text"), "'command' is missing");
  EXPECT_FALSE(reply.is_present("submission-id"));
  EXPECT_TRUE(master_records(sim, "jobs").empty());
}

TEST(ClientKeys, ARepeatedKeyGetsTheFirstAnswerAndMakesNothing) {
  write_cluster sim;
  write_client alice(sim, "alice", "secret");
  const properties first = alice.request(submit_request, submission({job("a"), job("b")}, "k"));
  const properties again = alice.request(submit_request, submission({job("a"), job("b")}, "k"));
  EXPECT_TRUE(again.get_bool_value("repeated"));
  EXPECT_FALSE(first.is_present("repeated"));
  EXPECT_TRUE(*again.get_property("items") == *first.get_property("items"));
  EXPECT_EQ(again.get_string_value("submission-id"), first.get_string_value("submission-id"));
  EXPECT_EQ(master_records(sim, "jobs").size(), 2u);

  EXPECT_EQ(alice.request(submit_request, submission({job("c")}, "k")).get_string_value("error"),
            "\"key\" 'k' was used for another request");
  // Another user's key of the same text is that user's own.
  write_client bob(sim, "bob", "hunter2");
  EXPECT_FALSE(
      bob.request(submit_request, submission({job("a"), job("b")}, "k")).is_present("repeated"));
  EXPECT_EQ(master_records(sim, "jobs").size(), 4u);
}

TEST(ClientKeys, AKeyIsForgottenAfterTheKeepTime) {
  zelsim::options o = write_options();
  o.key_keep_time = 2;
  write_cluster sim(o);
  write_client alice(sim, "alice", "secret");
  alice.request(submit_request, submission({job("a")}, "k"));
  sim.advance_time(1999ms);
  EXPECT_TRUE(
      alice.request(submit_request, submission({job("a")}, "k")).get_bool_value("repeated", false));
  sim.advance_time(1ms);
  EXPECT_FALSE(
      alice.request(submit_request, submission({job("a")}, "k")).get_bool_value("repeated", false));
  EXPECT_EQ(master_records(sim, "jobs").size(), 2u);
}

TEST(SteerJobs, EachActionAnswersPerJob) {
  write_cluster sim;
  write_client alice(sim, "alice", "secret");
  fill_cores(alice, sim, 10000);
  const std::vector<std::string> ids = ids_of(
      alice.request(submit_request, submission({job("a"), job("b"), job("c"), job("d")}, "k")));
  ASSERT_EQ(ids.size(), 4u);
  const auto outcomes = [&](const properties& request) {
    std::vector<std::string> out;
    for (const properties& item : items_of(alice.request(steer_request, request))) {
      out.push_back(item.get_string_value("outcome") + " " + item.get_string_value("id", "") + " " +
                    item.get_string_value("text", ""));
    }
    return out;
  };
  using lines = std::vector<std::string>;
  EXPECT_EQ(
      outcomes(steering("hold", {ids[0], ids[0], "job-x"})),
      (lines{"done " + ids[0] + " ", "already-done " + ids[0] + " job '" + ids[0] + "' is held",
             "not-found job-x job 'job-x' is not in the cluster's live state"}));
  EXPECT_EQ(state_of(sim, ids[0]), "held");
  EXPECT_EQ(outcomes(steering("release", {ids[0], ids[1]})),
            (lines{"done " + ids[0] + " ",
                   "already-done " + ids[1] + " job '" + ids[1] + "' is queued"}));
  EXPECT_EQ(outcomes(steering("cancel", {ids[2], ids[2]})),
            (lines{"done " + ids[2] + " ",
                   "already-done " + ids[2] + " job '" + ids[2] + "' is cancelled"}));
  EXPECT_EQ(state_of(sim, ids[2]), "cancelled");
  EXPECT_EQ(
      outcomes(steering("retry", {ids[2], ids[3]})),
      (lines{"done " + ids[2] + " ", "not-allowed " + ids[3] + " job '" + ids[3] + "' is queued"}));
  EXPECT_EQ(state_of(sim, ids[2]), "queued");
  properties priority = steering("priority", {ids[3], ids[3]});
  priority.set_int_value("priority", 50);
  EXPECT_EQ(outcomes(priority), (lines{"done " + ids[3] + " ", "already-done " + ids[3] + " job '" +
                                                                   ids[3] + "' has priority 50"}));
  EXPECT_EQ(master_record(sim, "jobs", ids[3]).get_int_value("priority"), 50);
  EXPECT_EQ(alice.request(steer_request, steering("priority", {ids[3]})).get_string_value("error"),
            "property 'priority' is missing");
  properties not_an_id = steering("cancel", {});
  not_an_id["ids"] = list_of({number(1)});
  EXPECT_EQ(outcomes(not_an_id), (lines{"invalid  an id is a string, not a int"}));
}

TEST(SteerJobs, EndedJobsTakeOnlyARetry) {
  write_cluster sim;
  write_client alice(sim, "alice", "secret");
  const std::vector<std::string> ids =
      ids_of(alice.request(submit_request, submission({job("a")}, "k")));
  sim.advance_time(100ms);
  for (const char* action : {"cancel", "hold", "release", "retry", "priority"}) {
    properties request = steering(action, ids);
    request.set_int_value("priority", 1);
    const properties item = only_item(alice.request(steer_request, request));
    EXPECT_EQ(item.get_string_value("outcome"), "not-allowed") << action;
    EXPECT_EQ(item.get_string_value("text"), "job '" + ids[0] + "' is finished") << action;
  }
}

TEST(SteerJobs, CancelEndsARunningJobAndTheQueueTakesItsCores) {
  write_cluster sim;
  write_client alice(sim, "alice", "secret");
  const std::vector<std::string> fill = fill_cores(alice, sim, 10000);
  const std::string waiting = ids_of(alice.request(submit_request, submission({job("w")}, "k")))[0];
  EXPECT_EQ(state_of(sim, waiting), "queued");
  const std::string slot = master_record(sim, "jobs", fill[0]).get_string_value("slot-id");
  EXPECT_EQ(only_item(alice.request(steer_request, steering("cancel", {fill[0]})))
                .get_string_value("outcome"),
            "done");
  const properties cancelled = master_record(sim, "jobs", fill[0]);
  EXPECT_EQ(cancelled.get_string_value("state"), "cancelled");
  EXPECT_FALSE(cancelled.is_present("slot-id"));
  EXPECT_TRUE(master_record(sim, "slots", slot).empty());
  EXPECT_EQ(state_of(sim, waiting), "running");
}

TEST(SteerJobs, AHigherPriorityStartsFirst) {
  write_cluster sim;
  write_client alice(sim, "alice", "secret");
  // The largest node frees first: one job of its size can start then.
  const std::vector<std::string> fill = fill_cores(alice, sim, 10000);
  const std::int64_t largest = master_record(sim, "jobs", fill[0]).get_int_value("cores");
  // The priorities at both ends of their range.
  properties low = job("low"), high = job("high");
  for (properties* j : {&low, &high}) {
    j->set_int_value("cores", largest);
    j->set_int_value("priority", std::numeric_limits<std::int64_t>::min());
  }
  const std::vector<std::string> ids =
      ids_of(alice.request(submit_request, submission({low, high}, "k")));
  properties raise = steering("priority", {ids[1]});
  raise.set_int_value("priority", std::numeric_limits<std::int64_t>::max());
  alice.request(steer_request, raise);
  alice.request(steer_request, steering("cancel", {fill[0]}));
  EXPECT_EQ(state_of(sim, ids[1]), "running");
  EXPECT_EQ(state_of(sim, ids[0]), "queued");
}

TEST(SteerJobs, UsersSteerTheirOwnJobsAndTheAdministratorAll) {
  write_cluster sim;
  write_client alice(sim, "alice", "secret");
  write_client bob(sim, "bob", "hunter2");
  write_client root(sim, "root", "toor", true);
  const std::string id = ids_of(alice.request(submit_request, submission({job("a")}, "k")))[0];
  const properties refused = only_item(bob.request(steer_request, steering("cancel", {id})));
  EXPECT_EQ(refused.get_string_value("outcome"), "access-denied");
  EXPECT_EQ(refused.get_string_value("owner"), "alice");
  EXPECT_EQ(refused.get_string_value("text"), "job '" + id + "' belongs to 'alice'");
  EXPECT_EQ(state_of(sim, id), "running");
  EXPECT_EQ(
      only_item(root.request(steer_request, steering("cancel", {id}))).get_string_value("outcome"),
      "done");
  EXPECT_EQ(state_of(sim, id), "cancelled");
  // An administrator's submission is the administrator's.
  const std::string own = ids_of(root.request(submit_request, submission({job("r")}, "k")))[0];
  EXPECT_EQ(master_record(sim, "jobs", own).get_string_value("user"), "root");
}

TEST(SteerJobs, ADryRunAnswersAndChangesNothing) {
  write_cluster sim;
  write_client alice(sim, "alice", "secret");
  const std::string id = ids_of(alice.request(submit_request, submission({job("a")}, "k")))[0];
  properties request = steering("cancel", {id});
  request.set_bool_value("dry-run", true);
  EXPECT_EQ(only_item(alice.request(steer_request, request)).get_string_value("outcome"), "done");
  EXPECT_EQ(state_of(sim, id), "running");
}

TEST(SteerJobs, TheWorkloadsJobsAreNotSteered) {
  zelsim::options o = write_options();
  o.users["erin"] = "pw";
  o.rate = 0;
  write_cluster sim(o);
  sim.run_workload(400);
  ASSERT_TRUE(sim.wait_workload_paused(20s));
  const properties jobs = sim.master_snapshot().get_properties_value("jobs");
  ASSERT_FALSE(jobs.empty());
  const std::string id = jobs.begin()->first;
  const std::string owner =
      static_cast<const properties&>(*jobs.begin()->second).get_string_value("user");
  write_client root(sim, "root", "toor", true);
  const properties item = only_item(root.request(steer_request, steering("cancel", {id})));
  EXPECT_EQ(item.get_string_value("outcome"), "not-allowed");
  EXPECT_EQ(item.get_string_value("text"),
            "job '" + id + "' is run by the simulated workload, which takes no steering");
  write_client erin(sim, "erin", "pw");
  const properties denied = only_item(erin.request(steer_request, steering("cancel", {id})));
  EXPECT_EQ(denied.get_string_value("outcome"), owner == "erin" ? "not-allowed" : "access-denied");
}

TEST(SubmitJobs, SubmittedJobsAndTheWorkloadsShareTheNodesCores) {
  zelsim::options o = write_options();
  o.rate = 0;
  write_cluster sim(o);
  write_client alice(sim, "alice", "secret");
  std::vector<properties> jobs(60, job("shared", 50));
  ids_of(alice.request(submit_request, submission(jobs, "k")));
  for (int round = 0; round < 10; ++round) {
    sim.run_workload(300);
    ASSERT_TRUE(sim.wait_workload_paused(20s));
    sim.advance_time(50ms);
    std::map<std::string, std::int64_t> used;
    for (const auto& [id, record] : master_records(sim, "jobs")) {
      const properties& j = static_cast<const properties&>(*record);
      if (j.get_string_value("state") == "running") {
        used[j.get_string_value("node")] += j.get_int_value("cores");
      }
    }
    for (const auto& [id, record] : master_records(sim, "nodes")) {
      const properties& n = static_cast<const properties&>(*record);
      EXPECT_EQ(n.get_int_value("cores-used"), used[id]) << id << " in round " << round;
      EXPECT_LE(n.get_int_value("cores-used"), n.get_int_value("cores")) << id;
    }
  }
  EXPECT_EQ(sim.submitted_work().queued + sim.submitted_work().running, 0u);
}

TEST(SubmitJobs, AJobAsLargeAsTheLargestNodeStartsBesideABusyWorkload) {
  zelsim::options o = write_options();
  o.rate = 0;
  write_cluster sim(o);
  write_client alice(sim, "alice", "secret");
  sim.run_workload(3000);
  ASSERT_TRUE(sim.wait_workload_paused(20s));
  properties big = job("big", 50);
  big.set_int_value("cores", largest_node(sim));
  const std::string id = ids_of(alice.request(submit_request, submission({big}, "k")))[0];
  ASSERT_EQ(state_of(sim, id), "queued");
  // The workload keeps its queue full of small jobs, which would take every core that frees up;
  // the node held for the large job drains instead.
  for (int round = 0; round < 100 && state_of(sim, id) == "queued"; ++round) {
    sim.run_workload(500);
    ASSERT_TRUE(sim.wait_workload_paused(20s));
    sim.advance_time(1ms);
  }
  EXPECT_EQ(state_of(sim, id), "running");
  for (const auto& [node, record] : master_records(sim, "nodes")) {
    const properties& n = static_cast<const properties&>(*record);
    EXPECT_LE(n.get_int_value("cores-used"), n.get_int_value("cores")) << node;
  }
}

TEST(SubmitJobs, TenThousandJobsInOneSubmissionAndASubsetSteered) {
  write_cluster sim;
  write_client alice(sim, "alice", "secret");
  std::vector<properties> jobs(10000, job("bulk", 1000));
  const properties reply = alice.request(submit_request, submission(jobs, "bulk"), 120);
  const std::vector<std::string> ids = ids_of(reply);
  ASSERT_EQ(ids.size(), 10000u);
  EXPECT_EQ(std::set<std::string>(ids.begin(), ids.end()).size(), 10000u);
  EXPECT_EQ(master_records(sim, "jobs").size(), 10000u);
  const zelsim::cluster::work_counts counts = sim.submitted_work();
  EXPECT_EQ(counts.queued + counts.running, 10000u);
  EXPECT_GT(counts.running, 0u);

  // The first 100 run, the last 100 wait: cancel both, then retry them.
  std::vector<std::string> subset(ids.begin(), ids.begin() + 100);
  subset.insert(subset.end(), ids.end() - 100, ids.end());
  subset.push_back("job-s9999999");
  std::vector<properties> items =
      items_of(alice.request(steer_request, steering("cancel", subset)));
  ASSERT_EQ(items.size(), 201u);
  for (std::size_t i = 0; i < 200; ++i) {
    EXPECT_EQ(items[i].get_string_value("outcome"), "done");
    EXPECT_EQ(items[i].get_string_value("id"), subset[i]);
  }
  EXPECT_EQ(items[200].get_string_value("outcome"), "not-found");
  EXPECT_EQ(state_of(sim, ids.back()), "cancelled");
  items = items_of(alice.request(steer_request, steering("retry", subset)));
  for (std::size_t i = 0; i < 200; ++i) EXPECT_EQ(items[i].get_string_value("outcome"), "done");
  EXPECT_EQ(state_of(sim, ids.back()), "queued");
}

}  // namespace
