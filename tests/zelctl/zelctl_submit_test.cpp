// zelctl submit against a quiet simulated cluster whose clock moves only when a test moves it:
// the master's outcome per item, the exit code that follows how the work ended with --wait
// (finished, failed, cancelled, a wait that timed out), a template's --set values reaching its
// tasks and its out-values the dependants, a file with errors that sends nothing, a dry run that
// changes nothing, a key that makes the work once, the JSON output, and the usage errors. The
// sample descriptions of examples/ run to their end on the embedded cluster of --simulate.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fstream>
#include <sstream>
#include <thread>

#include "description_samples.h"
#include "zelcapi/work_client_test_support.h"
#include "zelctl_test_support.h"

using namespace zelctl_test;

namespace {

using strings = std::vector<std::string>;

// Two tasks, the second after the first, each running `run_ms`; the first fails its first
// `fail_attempts` attempts.
std::string two_tasks(int run_ms, int fail_attempts = 0) {
  std::ostringstream text;
  text << "name: pipeline\ntasks:\n"
       << "  - name: fetch\n    command: fetch.sh\n    run-ms: " << run_ms
       << "\n    fail-attempts: " << fail_attempts << "\n"
       << "  - name: publish\n    command: publish.sh\n    after: fetch\n    run-ms: " << run_ms
       << "\n";
  return text.str();
}

class ZelctlSubmit : public ::testing::Test {
 protected:
  ZelctlSubmit() { std::ofstream(dir_.file("alice")) << "secret\n"; }

  strings as_alice(const strings& command) {
    return strings{"--host",    "127.0.0.1", "--port",          std::to_string(sim_.port(2)),
                   "--user",    "alice",     "--password-file", dir_.file("alice"),
                   "--timeout", "5"} +
           command;
  }
  // Writes `text` into the file `name` and returns its path.
  std::string file(const std::string& name, const std::string& text) {
    std::ofstream(dir_.file(name), std::ios::binary) << text;
    return dir_.file(name);
  }
  // What the master holds of submitted work: its live workflows and jobs, and the runner's
  // counts.
  std::string work_on_master() {
    const zelcore::properties snapshot = sim_.master_snapshot();
    const zelsim::cluster::work_counts counts = sim_.submitted_work();
    return zelctl::to_json(snapshot.get_properties_value("workflows")).dump() +
           zelctl::to_json(snapshot.get_properties_value("jobs")).dump() +
           std::to_string(counts.queued) + "/" + std::to_string(counts.running) + "/" +
           std::to_string(counts.workflows);
  }

  temp_dir dir_;
  zeltest::write_cluster sim_;
};

// The id of the first item line ("ACTION  ID  OUTCOME") that names `action`.
std::string id_of(const std::string& out, const std::string& action) {
  for (const std::string& line : lines_of(out)) {
    std::istringstream words(line);
    std::string first, id;
    words >> first >> id;
    if (first == action) return id;
  }
  return "";
}

std::string last_line(const std::string& out) {
  const strings lines = lines_of(out);
  return lines.empty() ? "" : lines.back();
}

TEST_F(ZelctlSubmit, WaitExitsZeroWhenTheWorkflowFinished) {
  process p(as_alice({"submit", file("wf.yaml", two_tasks(100)), "--wait"}));
  // The items are printed once the master has taken the workflow, and zelctl waits after them.
  ASSERT_TRUE(p.wait_for_output("done\n")) << p.err();
  const std::string id = id_of(p.out(), "add-workflow");
  ASSERT_FALSE(id.empty()) << p.out();
  sim_.advance_time(std::chrono::milliseconds(1000));
  ASSERT_EQ(p.wait(), 0) << p.err();
  EXPECT_EQ(last_line(p.out()), id + "  ended finished (2 jobs run)");
  EXPECT_EQ(zeltest::master_record(sim_, "workflow-results", id).get_int_value("st"),
            zelworkflow::workflow_info::status_finished);
}

TEST_F(ZelctlSubmit, WaitExitsSixWhenTheWorkflowFailed) {
  process p(as_alice({"submit", file("wf.yaml", two_tasks(100, 1)), "--wait"}));
  ASSERT_TRUE(p.wait_for_output("done\n")) << p.err();
  const std::string id = id_of(p.out(), "add-workflow");
  sim_.advance_time(std::chrono::milliseconds(1000));
  EXPECT_EQ(p.wait(), 6) << p.err();
  EXPECT_EQ(last_line(p.out()), id + "  ended failed (1 job run)");
  EXPECT_EQ(p.err(), "");
}

TEST_F(ZelctlSubmit, WaitExitsSevenWhenTheWorkflowIsCancelledMeanwhile) {
  process p(as_alice({"submit", file("wf.yaml", two_tasks(1000000)), "--wait"}));
  ASSERT_TRUE(p.wait_for_output("done\n")) << p.err();
  const std::string id = id_of(p.out(), "add-workflow");
  ASSERT_EQ(sim_.submitted_work().running, 1u);
  zeltest::plain_work_session alice(sim_, "alice", "secret");
  ASSERT_TRUE(alice.client.cancel_workflows({id}).all_ok());
  EXPECT_EQ(p.wait(), 7) << p.err();
  EXPECT_EQ(last_line(p.out()), id + "  ended killed (1 job run)");
  EXPECT_EQ(sim_.submitted_work().running, 0u);
}

TEST_F(ZelctlSubmit, WaitExitsEightWhenItsTimeOutPassesWithTheLastStateSaid) {
  process p(
      as_alice({"submit", file("wf.yaml", two_tasks(1000000)), "--wait", "--wait-timeout", "1"}));
  EXPECT_EQ(p.wait(), 8) << p.err();
  const std::string id = id_of(p.out(), "add-workflow");
  ASSERT_FALSE(id.empty()) << p.out();
  const std::string said = "workflow '" + id + "' is running";
  EXPECT_NE(last_line(p.out()).find(said), std::string::npos) << p.out();
  expect_one_line(p.err());
  EXPECT_NE(p.err().find(said), std::string::npos) << p.err();
  // The work goes on: only the wait ended.
  EXPECT_EQ(sim_.submitted_work().running, 1u);
}

TEST_F(ZelctlSubmit, CtrlCEndsTheWaitWithTheLastStateAndTheWorkGoesOn) {
  process p(as_alice({"submit", file("wf.yaml", two_tasks(1000000)), "--wait"}));
  ASSERT_TRUE(p.wait_for_output("done\n")) << p.err();
  const std::string id = id_of(p.out(), "add-workflow");
  ASSERT_FALSE(id.empty()) << p.out();
  p.signal(SIGINT);
  EXPECT_EQ(p.wait(), 130) << p.err();
  EXPECT_EQ(last_line(p.out()), id + "  stopped waiting at running: the work goes on");
  EXPECT_EQ(p.err(), "zelctl: stopped waiting at running: the work goes on\n");
  EXPECT_EQ(sim_.submitted_work().running, 1u);
}

TEST_F(ZelctlSubmit, WaitExitsNineWhenTheWorkflowIsRemovedAndTwoWhenTheLinkIsLost) {
  const std::string path = file("wf.yaml", two_tasks(1000000));
  process removed(as_alice({"submit", path, "--wait"}));
  ASSERT_TRUE(removed.wait_for_output("done\n")) << removed.err();
  const std::string id = id_of(removed.out(), "add-workflow");
  zeltest::plain_work_session alice(sim_, "alice", "secret");
  ASSERT_TRUE(alice.client.remove_workflows({id}).all_ok());
  EXPECT_EQ(removed.wait(), 9) << removed.err();
  expect_one_line(removed.err());
  EXPECT_NE(removed.err().find("workflow '" + id + "' has left the live state"), std::string::npos)
      << removed.err();

  process lost(as_alice({"submit", path, "--wait"}));
  ASSERT_TRUE(lost.wait_for_output("done\n")) << lost.err();
  sim_.stop();
  EXPECT_EQ(lost.wait(), 2) << lost.err();
  expect_one_line(lost.err());
  EXPECT_NE(lost.err().find("lost its link"), std::string::npos) << lost.err();
}

TEST_F(ZelctlSubmit, WatchPrintsTheStatusLineAtEachChange) {
  process p(as_alice({"submit", file("wf.yaml", two_tasks(100)), "--watch"}));
  ASSERT_TRUE(p.wait_for_output("tasks 1 running, 1 waiting\n")) << p.out();
  sim_.advance_time(std::chrono::milliseconds(100));
  ASSERT_TRUE(p.wait_for_output("tasks 1 finished, 1 running\n")) << p.out();
  sim_.advance_time(std::chrono::milliseconds(100));
  ASSERT_EQ(p.wait(), 0) << p.err();
  const std::string id = id_of(p.out(), "add-workflow");
  // A line at each change that zelctl saw: these in this order, and between them only the
  // workflow's status lines (a change may reach the replica in more than one piece).
  const strings expected{"add-workflow  " + id + "  done",
                         "workflow '" + id + "' is running: tasks 1 running, 1 waiting",
                         "workflow '" + id + "' is running: tasks 1 finished, 1 running",
                         "workflow '" + id + "' ended finished",
                         id + "  ended finished (2 jobs run)"};
  const strings lines = lines_of(p.out());
  ASSERT_GE(lines.size(), expected.size()) << p.out();
  EXPECT_EQ(lines.front(), expected.front());
  EXPECT_EQ(lines.back(), expected.back());
  std::size_t next = 1;
  for (std::size_t i = 1; i + 1 < lines.size(); ++i) {
    if (next + 1 < expected.size() && lines[i] == expected[next]) ++next;
    EXPECT_EQ(lines[i].rfind("workflow '" + id + "' ", 0), 0u) << lines[i];
    if (i > 1) {
      EXPECT_NE(lines[i], lines[i - 1]) << "a line repeats without a change";
    }
  }
  EXPECT_EQ(next + 1, expected.size()) << p.out();
}

TEST_F(ZelctlSubmit, OnATerminalTheWatchLineIsRewrittenInPlace) {
  // script(1) gives zelctl a terminal as its stdout and copies what it writes there.
  std::string command = "'" + std::string(ZELCTL_PROGRAM) + "'";
  for (const std::string& a : as_alice({"submit", file("wf.yaml", two_tasks(100)), "--watch"})) {
    command += " '" + a + "'";
  }
  zeltest::child_process p("/usr/bin/script", {"-qec", command, "/dev/null"});
  ASSERT_TRUE(p.wait_for_output("tasks 1 running, 1 waiting")) << p.out();
  sim_.advance_time(std::chrono::milliseconds(1000));
  ASSERT_EQ(p.wait(), 0) << p.out();
  const std::string out = p.out();
  const std::string id = id_of(out, "add-workflow");
  ASSERT_FALSE(id.empty()) << out;
  // Each status goes over the one before it on the same line; only the last one ends the line.
  const std::string first = "\r\033[Kworkflow '" + id + "' is running: tasks 1 running, 1 waiting";
  const std::size_t at = out.find(first);
  ASSERT_NE(at, std::string::npos) << out;
  EXPECT_EQ(out.compare(at + first.size(), 4, "\r\033[K"), 0) << out;
  EXPECT_NE(out.find("\r\033[Kworkflow '" + id + "' ended finished\r\n"), std::string::npos) << out;
  EXPECT_EQ(out.substr(out.size() - std::string("  ended finished (2 jobs run)\r\n").size()),
            "  ended finished (2 jobs run)\r\n");
}

TEST_F(ZelctlSubmit, ATemplatesSetValuesReachItsTasksAndItsOutValuesTheDependants) {
  zeltest::work_session watcher(sim_, "alice", "secret", 600);
  process p(as_alice({"submit", file("shot.yaml", zeltest::render_template), "--set", "frames=1-5",
                      "--set", "quality=3", "--wait"}));
  ASSERT_TRUE(p.wait_for_output("done\n")) << p.err();
  sim_.advance_time(std::chrono::milliseconds(1000));
  ASSERT_EQ(p.wait(), 0) << p.err();
  const strings lines = lines_of(p.out());
  ASSERT_EQ(lines.size(), 4u) << p.out();
  const std::string spawned = id_of(p.out(), "set-in-values");
  const std::string template_id = id_of(p.out(), "add-workflow");
  EXPECT_NE(spawned, template_id);
  EXPECT_EQ(id_of(p.out(), "remove-workflow"), template_id);
  EXPECT_EQ(lines[3], spawned + "  ended finished (2 jobs run)");

  // The replica (its history: the workflow has ended and gone) shows the values where they went.
  const zelcapi::work_record r = watcher.client.wait_for_workflow(spawned, 5000);
  const nlohmann::json tasks = zelctl::to_json(r.record)["tasks"];
  EXPECT_EQ(tasks["render"]["in-nodes"]["frames"]["value"], "1-5") << tasks.dump();
  EXPECT_EQ(tasks["render"]["in-nodes"]["quality"]["value"], 3) << tasks.dump();
  EXPECT_EQ(tasks["encode"]["in-nodes"]["render.images"]["value"], "/renders/sh010")
      << tasks.dump();
  // The template itself is gone from the master again; the spawned workflow left its result.
  const nlohmann::json snapshot = zelctl::to_json(sim_.master_snapshot());
  EXPECT_FALSE(snapshot["workflows"].contains(template_id));
  EXPECT_EQ(snapshot["workflow-results"][spawned]["st"], 2) << snapshot["workflow-results"];
}

TEST_F(ZelctlSubmit, AFileWithFiveErrorsReportsAllOfThemAndSendsNothing) {
  const std::string before = work_on_master();
  const std::string path = file("render.yaml", zeltest::five_errors);
  const result r = run(as_alice({"submit", path, "--wait"}));
  zeltest::expect_five_errors(r, path, {"5:5", "6:5", "7:5", "8:5", "11:13"});
  EXPECT_EQ(work_on_master(), before);
  EXPECT_EQ(sim_.submitted_work().workflows, 0u);
}

TEST_F(ZelctlSubmit, ADryRunChangesNothing) {
  const std::string before = work_on_master();
  for (const auto& [name, text] : {std::pair<std::string, std::string>{"wf.yaml", two_tasks(100)},
                                   {"shot.yaml", zeltest::render_template}}) {
    const result r = run(as_alice({"submit", file(name, text), "--dry-run", "--set", "frames=1"}));
    // A workflow takes no --set for an in-value it does not have: the template only.
    if (name == "wf.yaml") {
      EXPECT_EQ(r.code, 4) << r.out;
      continue;
    }
    ASSERT_EQ(r.code, 0) << r.err;
    const strings lines = lines_of(r.out);
    ASSERT_EQ(lines.size(), 2u) << r.out;
    EXPECT_EQ(lines[0].rfind("add-workflow  render-template-", 0), 0u) << lines[0];
    EXPECT_EQ(lines[0].substr(lines[0].size() - 6), "  done") << lines[0];
    EXPECT_EQ(lines[1], "(dry run: the master checked these and changed nothing)");
  }
  const result wf = run(as_alice({"submit", file("wf.yaml", two_tasks(100)), "--dry-run"}));
  ASSERT_EQ(wf.code, 0) << wf.err;
  EXPECT_EQ(lines_of(wf.out), (strings{"add-workflow  -  done",
                                       "(dry run: the master checked these and changed nothing)"}));
  EXPECT_EQ(work_on_master(), before);
}

TEST_F(ZelctlSubmit, TheSameKeyTwiceMakesOneWorkflow) {
  const std::string path = file("wf.yaml", two_tasks(1000000));
  const result first = run(as_alice({"submit", path, "--key", "nightly-42"}));
  ASSERT_EQ(first.code, 0) << first.err;
  const std::string id = id_of(first.out, "add-workflow");
  const result second = run(as_alice({"submit", path, "--key", "nightly-42"}));
  ASSERT_EQ(second.code, 0) << second.err;
  EXPECT_EQ(lines_of(second.out),
            (strings{"add-workflow  " + id + "  done",
                     "(key nightly-42 was sent before: this is the master's first answer, nothing "
                     "was made again)"}));
  EXPECT_EQ(sim_.submitted_work().workflows, 1u);
  EXPECT_EQ(sim_.submitted_work().running, 1u);

  // A template's request is the same again too: the same key spawns once.
  const std::string shot = file("shot.yaml", zeltest::render_template);
  const result spawn = run(as_alice({"submit", shot, "--set", "frames=1-5", "--key", "shot-1"}));
  ASSERT_EQ(spawn.code, 0) << spawn.err;
  const result again = run(as_alice({"submit", shot, "--set", "frames=1-5", "--key", "shot-1"}));
  ASSERT_EQ(again.code, 0) << again.err;
  EXPECT_EQ(id_of(again.out, "set-in-values"), id_of(spawn.out, "set-in-values"));
  EXPECT_EQ(sim_.submitted_work().workflows, 2u);
}

TEST_F(ZelctlSubmit, JsonOutputHoldsTheItemsAndHowTheWorkEnded) {
  process p(as_alice({"submit", file("wf.yaml", two_tasks(100)), "--wait", "-o", "json"}));
  // The JSON comes at the end: wait for the master to hold the workflow instead.
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (sim_.submitted_work().workflows == 0 && !p.has_exited()) {
    ASSERT_LT(std::chrono::steady_clock::now(), limit) << p.err();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  sim_.advance_time(std::chrono::milliseconds(1000));
  ASSERT_EQ(p.wait(), 0) << p.err();
  const nlohmann::json out = nlohmann::json::parse(p.out());
  EXPECT_EQ(out["kind"], "workflow");
  EXPECT_EQ(out["name"], "pipeline");
  EXPECT_EQ(out["dry-run"], false);
  EXPECT_EQ(out["repeated"], false);
  EXPECT_EQ(out["key"].get<std::string>().rfind("key-", 0), 0u) << out;
  ASSERT_EQ(out["items"].size(), 1u) << out;
  const std::string id = out["items"][0]["id"];
  EXPECT_EQ(out["items"][0],
            (nlohmann::json{{"action", "add-workflow"}, {"id", id}, {"outcome", "done"}}));
  EXPECT_EQ(out["ended"],
            (nlohmann::json::array(
                {{{"id", id}, {"status", "finished"}, {"text", "ended finished (2 jobs run)"}}})));
  EXPECT_EQ(out["exit-code"], 0);

  const result jobs = run(as_alice(
      {"submit", file("jobs.yaml", "name: batch\njobs:\n  - command: a.sh\n  - command: b.sh\n"),
       "--json", "--key", "batch-1"}));
  ASSERT_EQ(jobs.code, 0) << jobs.err;
  const nlohmann::json printed = nlohmann::json::parse(jobs.out);
  EXPECT_EQ(printed["kind"], "jobs");
  EXPECT_EQ(printed["key"], "batch-1");
  EXPECT_EQ(printed["submission-id"], "sub-s000001");
  ASSERT_EQ(printed["items"].size(), 2u) << printed;
  for (std::size_t i = 0; i < 2; ++i) {
    const nlohmann::json& item = printed["items"][i];
    const std::string job = item["id"];
    EXPECT_EQ(item,
              (nlohmann::json{
                  {"place", "/jobs/" + std::to_string(i)}, {"id", job}, {"outcome", "done"}}));
    // The master holds each job as alice's, in that submission.
    const zelcore::properties record = zeltest::master_record(sim_, "jobs", job);
    EXPECT_EQ(record.get_string_value("user", ""), "alice") << job;
    EXPECT_EQ(record.get_string_value("submission-id", ""), "sub-s000001") << job;
  }
  EXPECT_FALSE(printed.contains("ended"));
}

TEST_F(ZelctlSubmit, AnItemTheMasterRefusesExitsFive) {
  const result r = run(as_alice(
      {"submit", file("big.yaml", "jobs:\n  - command: a.sh\n  - command: b.sh\n    cores: 1024\n"),
       "--wait"}));
  EXPECT_EQ(r.code, 5) << r.err;
  const strings lines = lines_of(r.out);
  ASSERT_EQ(lines.size(), 3u) << r.out;
  EXPECT_EQ(lines[0], "/jobs/0  job-s0000001  done");
  EXPECT_EQ(lines[1].rfind("/jobs/1  -             invalid: ", 0), 0u) << lines[1];
}

TEST_F(ZelctlSubmit, AMissingFileAndAWrongFlagSendNothing) {
  const std::string before = work_on_master();
  const result missing = run(as_alice({"submit", dir_.file("nothing.yaml")}));
  EXPECT_EQ(missing.code, 3) << missing.err;
  expect_one_line(missing.err);
  EXPECT_NE(missing.err.find("nothing.yaml"), std::string::npos) << missing.err;
  EXPECT_TRUE(missing.out.empty()) << missing.out;

  const std::string path = file("wf.yaml", two_tasks(100));
  for (const strings& args :
       {strings{"submit", path, "--bogus"}, strings{"submit"},
        strings{"submit", path, "--dry-run", "--wait"}, strings{"submit", path, "--key", ""},
        strings{"submit", path, "-o", "yaml"}, strings{"submit", path, "--wait-timeout", "-1"},
        strings{"submit", path, "--set", "frames"}}) {
    const result r = run(as_alice(args));
    EXPECT_EQ(r.code, 1) << args.back() << ": " << r.err;
    expect_one_line(r.err);
    EXPECT_TRUE(r.out.empty()) << r.out;
  }
  EXPECT_EQ(work_on_master(), before);
}

// The sample descriptions of examples/ on the embedded cluster, its workload running beside them.
class ZelctlSubmitSamples : public ::testing::TestWithParam<strings> {};

TEST_P(ZelctlSubmitSamples, RunToTheirEndOnTheSimulatedCluster) {
  strings args{"--simulate", "submit",         std::string(EXAMPLES_DIR) + "/" + GetParam()[0],
               "--wait",     "--wait-timeout", "240"};
  args.insert(args.end(), GetParam().begin() + 1, GetParam().end());
  process p(args);
  ASSERT_EQ(p.wait(std::chrono::seconds(260)), 0) << p.out() << p.err();
  const std::string last = last_line(p.out());
  EXPECT_NE(last.find("  ended finished"), std::string::npos) << p.out();
}

INSTANTIATE_TEST_SUITE_P(Examples, ZelctlSubmitSamples,
                         ::testing::Values(strings{"render.yaml", "--set", "frames=1-100"},
                                           strings{"build.json"}, strings{"nightly-jobs.yaml"}),
                         [](const auto& info) {
                           std::string name = info.param[0];
                           name = name.substr(0, name.find('.'));
                           name.erase(std::remove(name.begin(), name.end(), '-'), name.end());
                           return name;
                         });

}  // namespace
