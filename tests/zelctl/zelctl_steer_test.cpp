// zelctl cancel, hold, release, retry and priority against a quiet simulated cluster whose clock
// moves only when a test moves it: the outcome of every id as the master gave it, the master's
// state afterwards, another user's work refused with its owner named, workflows, dry runs, the
// exit codes and the usage errors.
#include <gtest/gtest.h>

#include <fstream>

#include "zelcapi/work_client_test_support.h"
#include "zelctl_test_support.h"

using namespace zelctl_test;

namespace {

using strings = std::vector<std::string>;

class ZelctlSteer : public ::testing::Test {
 protected:
  ZelctlSteer() {
    std::ofstream(dir_.file("alice")) << "secret\n";
    std::ofstream(dir_.file("bob")) << "hunter2\n";
    std::ofstream(dir_.file("root")) << "toor\n";
  }

  // zelctl's flags for `user` (the password in the file of that name) at node 2, which sends
  // zelctl on to the master, then `command`.
  strings as(const std::string& user, const strings& command) {
    return strings{"--host",    "127.0.0.1", "--port",          std::to_string(sim_.port(2)),
                   "--user",    user,        "--password-file", dir_.file(user),
                   "--timeout", "5"} +
           command;
  }

  // `count` jobs of alice's that run long: the nodes' cores take the first ones, the last ones
  // stay queued.
  strings submit(std::size_t count) {
    zeltest::properties job;
    job.set_string_value("command", "/bin/true");
    job.set_int_value("run-ms", 1000000);
    const zelcapi::write_result r =
        alice_.client.submit_jobs(std::vector<zeltest::properties>(count, job));
    strings ids;
    for (const zelcapi::item_result& item : r.items) ids.push_back(item.id);
    EXPECT_EQ(ids.size(), count);
    return ids;
  }

  zeltest::properties job(const std::string& id) {
    return zeltest::master_record(sim_, "jobs", id);
  }
  std::string state_of(const std::string& id) { return job(id).get_string_value("state", ""); }

  temp_dir dir_;
  zeltest::write_cluster sim_;
  zeltest::plain_work_session alice_{sim_, "alice", "secret"};
};

bool starts_with(const std::string& s, const std::string& prefix) {
  return s.rfind(prefix, 0) == 0;
}

TEST_F(ZelctlSteer, CancelOfOwnJobsIsDoneThenAlreadyDone) {
  const strings ids = submit(2);
  ASSERT_EQ(state_of(ids[0]), "running");
  const result r = run(as("alice", {"cancel", ids[0], ids[1]}));
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(lines_of(r.out), (strings{ids[0] + "  done", ids[1] + "  done"}));
  EXPECT_EQ(state_of(ids[0]), "cancelled");
  EXPECT_EQ(state_of(ids[1]), "cancelled");

  const result again = run(as("alice", {"cancel", ids[0]}));
  EXPECT_EQ(again.code, 0) << again.err;
  const strings lines = lines_of(again.out);
  ASSERT_EQ(lines.size(), 1u) << again.out;
  EXPECT_TRUE(starts_with(lines[0], ids[0] + "  already done")) << lines[0];
}

TEST_F(ZelctlSteer, AnotherUsersJobIsRefusedNamingItsOwnerAndAnAdministratorCancelsIt) {
  const strings ids = submit(1);
  const result refused = run(as("bob", {"cancel", ids[0]}));
  EXPECT_EQ(refused.code, 5) << refused.err;
  EXPECT_EQ(lines_of(refused.out), strings{ids[0] + "  access denied (owner alice): job '" +
                                           ids[0] + "' belongs to 'alice'"});
  EXPECT_EQ(state_of(ids[0]), "running");

  const result admin = run(as("root", {"cancel", "--admin", ids[0]}));
  ASSERT_EQ(admin.code, 0) << admin.err;
  EXPECT_EQ(lines_of(admin.out), strings{ids[0] + "  done"});
  EXPECT_EQ(state_of(ids[0]), "cancelled");
}

TEST_F(ZelctlSteer, AnUnknownIdIsNotFoundAndTheOtherIdsAreStillApplied) {
  const strings ids = submit(1);
  const result r = run(as("alice", {"cancel", "--json", "job-s9999999", ids[0]}));
  EXPECT_EQ(r.code, 5) << r.err;
  const nlohmann::json printed = nlohmann::json::parse(r.out);
  EXPECT_EQ(printed["dry-run"], false);
  ASSERT_EQ(printed["items"].size(), 2u) << r.out;
  EXPECT_EQ(printed["items"][0],
            (nlohmann::json{
                {"id", "job-s9999999"},
                {"kind", "job"},
                {"outcome", "not-found"},
                {"text", "job 'job-s9999999' is not in the cluster's live state"},
            }));
  EXPECT_EQ(printed["items"][1],
            (nlohmann::json{{"id", ids[0]}, {"kind", "job"}, {"outcome", "done"}}));
  EXPECT_EQ(state_of(ids[0]), "cancelled");
}

TEST_F(ZelctlSteer, HoldThenReleaseAQueuedJobAndARunningOneIsNotHeld) {
  const strings ids = submit(40);
  const std::string& first = ids.front();
  const std::string& last = ids.back();
  ASSERT_EQ(state_of(last), "queued");

  const result held = run(as("alice", {"hold", last}));
  ASSERT_EQ(held.code, 0) << held.err;
  EXPECT_EQ(lines_of(held.out), strings{last + "  done"});
  EXPECT_EQ(state_of(last), "held");

  const result running = run(as("alice", {"hold", first}));
  EXPECT_EQ(running.code, 5) << running.err;
  EXPECT_EQ(lines_of(running.out),
            strings{first + "  not allowed: job '" + first + "' is running"});
  EXPECT_EQ(state_of(first), "running");

  const result released = run(as("alice", {"release", last}));
  ASSERT_EQ(released.code, 0) << released.err;
  EXPECT_EQ(lines_of(released.out), strings{last + "  done"});
  EXPECT_EQ(state_of(last), "queued");
}

TEST_F(ZelctlSteer, RetryQueuesACancelledJobAgain) {
  const strings ids = submit(1);
  ASSERT_EQ(run(as("alice", {"cancel", ids[0]})).code, 0);
  const result r = run(as("alice", {"retry", ids[0]}));
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(lines_of(r.out), strings{ids[0] + "  done"});
  // Queued again, and started at once on the cores it had.
  EXPECT_EQ(state_of(ids[0]), "running");
  EXPECT_EQ(job(ids[0]).get_int_value("attempts"), 1);
}

TEST_F(ZelctlSteer, PriorityIsSetAndADryRunChangesNothing) {
  const strings ids = submit(40);
  const std::string& last = ids.back();
  const result set = run(as("alice", {"priority", "--to", "9", last}));
  ASSERT_EQ(set.code, 0) << set.err;
  EXPECT_EQ(lines_of(set.out), strings{last + "  done"});
  EXPECT_EQ(job(last).get_int_value("priority"), 9);

  const result dry = run(as("alice", {"priority", "--to", "-3", "--dry-run", last}));
  ASSERT_EQ(dry.code, 0) << dry.err;
  EXPECT_EQ(lines_of(dry.out),
            (strings{last + "  done", "(dry run: the master checked these and changed nothing)"}));
  EXPECT_EQ(job(last).get_int_value("priority"), 9);

  const result same = run(as("alice", {"priority", "--to", "9", "--json", last}));
  EXPECT_EQ(same.code, 0) << same.err;
  EXPECT_EQ(nlohmann::json::parse(same.out)["items"][0]["outcome"], "already-done") << same.out;
}

TEST_F(ZelctlSteer, AWorkflowIsReprioritisedAndCancelledBesideAJob) {
  const zelcapi::write_result submitted = alice_.client.submit_workflow(
      zeltest::workflow_of({{"t1", zeltest::task_of(zeltest::run_params(1000000), {})}}),
      "wf-steer");
  ASSERT_TRUE(submitted.all_ok()) << zeltest::outcomes(submitted)[0];
  const strings ids = submit(1);

  const result priority = run(as("alice", {"priority", "--to", "7", "wf-steer"}));
  ASSERT_EQ(priority.code, 0) << priority.err;
  EXPECT_EQ(lines_of(priority.out), strings{"wf-steer  done"});

  const result cancel = run(as("alice", {"cancel", "wf-steer", ids[0]}));
  ASSERT_EQ(cancel.code, 0) << cancel.err;
  EXPECT_EQ(lines_of(cancel.out), (strings{"wf-steer      done", ids[0] + "  done"}));
  EXPECT_EQ(state_of(ids[0]), "cancelled");
  const auto snapshot = zelctl::to_json(sim_.master_snapshot());
  EXPECT_FALSE(snapshot["workflows"].contains("wf-steer")) << snapshot["workflows"].dump();
  EXPECT_EQ(snapshot["workflow-results"]["wf-steer"]["st"], 4)
      << snapshot["workflow-results"].dump();

  const result bob = run(as("bob", {"cancel", "--json", "wf-steer"}));
  EXPECT_EQ(bob.code, 5) << bob.err;
  EXPECT_EQ(nlohmann::json::parse(bob.out)["items"][0]["kind"], "workflow") << bob.out;
}

TEST_F(ZelctlSteer, TheJobsAnswerIsPrintedWhenTheWorkflowsRequestIsRefusedWhole) {
  const strings ids = submit(1);
  sim_.on(zeltest::update_request,
          [](zelsim::request_context&, const zeltest::packet&, zeltest::packet& reply) {
            reply.get_properties().set_string_value("error", "workflow updates are closed");
            return true;
          });
  const result r = run(as("alice", {"cancel", "wf-steer", ids[0]}));
  EXPECT_EQ(r.code, 3) << r.err;
  EXPECT_EQ(lines_of(r.out), strings{ids[0] + "  done"});
  EXPECT_EQ(r.err,
            "zelctl: 'cluster.api.workflow.update' refused by the master: workflow updates are "
            "closed\n");
  EXPECT_EQ(state_of(ids[0]), "cancelled");

  // Nothing answered: nothing on stdout.
  const result json = run(as("alice", {"cancel", "--json", "wf-steer"}));
  EXPECT_EQ(json.code, 3) << json.err;
  EXPECT_TRUE(json.out.empty()) << json.out;
  expect_one_line(json.err);
}

TEST_F(ZelctlSteer, BadArgumentsAreUsageErrorsAndChangeNothing) {
  const strings ids = submit(40);
  for (const strings& args : {strings{"cancel"}, strings{"priority", ids.back()},
                              strings{"priority", "--to", "high", ids.back()},
                              strings{"priority", "--to", "99999999999999999999", ids.back()},
                              strings{"hold", "wf-steer"}, strings{"cancel", ""},
                              strings{"cancel", "--now", ids.back()}}) {
    const result r = run(as("alice", args));
    EXPECT_EQ(r.code, 1) << args[0] << " " << (args.size() > 1 ? args[1] : "") << ": " << r.err;
    expect_one_line(r.err);
    EXPECT_TRUE(r.out.empty()) << r.out;
  }
  EXPECT_EQ(state_of(ids.back()), "queued");
  EXPECT_EQ(job(ids.back()).get_int_value("priority"), 0);
}

TEST_F(ZelctlSteer, AClusterThatIsNotThereExitsTwo) {
  const std::string port = std::to_string(sim_.port(2));
  sim_.stop();
  const result r = run(strings{"--host", "127.0.0.1", "--port", port, "--user", "alice",
                               "--password-file", dir_.file("alice"), "cancel", "job-s0000001"});
  EXPECT_EQ(r.code, 2) << r.err;
  expect_one_line(r.err);
}

TEST(ZelctlSteerHelp, EachCommandHasHelp) {
  const result top = run({"--help"});
  ASSERT_EQ(top.code, 0) << top.err;
  for (const char* name : {"cancel", "hold", "release", "retry", "priority"}) {
    EXPECT_NE(top.out.find(name), std::string::npos) << name;
    const result r = run({name, "--help"});
    EXPECT_EQ(r.code, 0) << name << ": " << r.err;
    EXPECT_NE(r.out.find("--dry-run"), std::string::npos) << r.out;
  }
  EXPECT_NE(run({"priority", "--help"}).out.find("--to"), std::string::npos);
}

TEST(ZelctlSteerSimulate, TheEmbeddedClusterAnswersPerId) {
  const result r = run({"--simulate", "--warm-up", "0", "cancel", "job-s0000001"});
  EXPECT_EQ(r.code, 5) << r.err;
  EXPECT_EQ(lines_of(r.out),
            strings{"job-s0000001  not found: job 'job-s0000001' is not in the cluster's live "
                    "state"});
}

}  // namespace
