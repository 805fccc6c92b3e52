// zelctl state, watch and history against a simulated cluster: the printed JSON equals the
// master's own state, watch prints each change as it happens and filters them, history returns
// the master's historized records, and --simulate needs no cluster at all.
#include <gtest/gtest.h>

#include <set>

#include "json_output.h"
#include "zelctl_test_support.h"

using namespace zelctl_test;

namespace {

class ZelctlState : public cluster_test {
 protected:
  std::vector<std::string> args(const std::vector<std::string>& command) {
    return at(sim_, dir_.file("pw"), 2) + command;
  }
};

TEST_F(ZelctlState, StatePrintsTheMastersSnapshot) {
  const result r = run(args({"state", "--json"}));
  ASSERT_EQ(r.code, 0) << r.err;
  const auto printed = nlohmann::json::parse(r.out);
  EXPECT_FALSE(printed["jobs"].empty());
  EXPECT_EQ(printed, master());
}

TEST_F(ZelctlState, StatePrintsTheTextOfTheSnapshotsJsonDocument) {
  sim_.run_workload(500);
  ASSERT_TRUE(sim_.wait_workload_paused(std::chrono::seconds(10)));
  const result r = run(args({"state"}));
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(r.out == zelctl::json_text(master(), true) + "\n") << "sizes " << r.out.size();
  const result workflows = run(args({"state", "--kind", "workflows"}));
  ASSERT_EQ(workflows.code, 0) << workflows.err;
  ASSERT_FALSE(master()["workflows"].empty());
  EXPECT_EQ(workflows.out, zelctl::json_text(master()["workflows"], true) + "\n");
  const std::string id = master()["workflows"].begin().key();
  const result one = run(args({"state", "--kind", "workflow", "--id", id}));
  ASSERT_EQ(one.code, 0) << one.err;
  EXPECT_EQ(one.out, zelctl::json_text(master()["workflows"][id], true) + "\n");
}

TEST_F(ZelctlState, StatePrintsOneKindOrOneRecord) {
  const nlohmann::json jobs = master()["jobs"];
  ASSERT_FALSE(jobs.empty());
  const result kind = run(args({"state", "--kind", "jobs"}));
  ASSERT_EQ(kind.code, 0) << kind.err;
  EXPECT_EQ(nlohmann::json::parse(kind.out), jobs);
  const std::string id = jobs.begin().key();
  const result one = run(args({"state", "--kind", "job", "--id", id}));
  ASSERT_EQ(one.code, 0) << one.err;
  EXPECT_EQ(nlohmann::json::parse(one.out), jobs[id]);
  EXPECT_EQ(nlohmann::json::parse(one.out)["id"], id);
}

TEST_F(ZelctlState, StateCountsRecordsPerKind) {
  const result r = run(args({"state", "--count"}));
  ASSERT_EQ(r.code, 0) << r.err;
  const auto counts = nlohmann::json::parse(r.out);
  const auto snapshot = master();
  for (const char* key : {"clients", "nodes", "submissions", "sources", "slots", "jobs", "tasks",
                          "workflow-results", "workflows"}) {
    EXPECT_EQ(counts[key], snapshot[key].size()) << key;
  }
}

TEST_F(ZelctlState, AnUnknownRecordExitsThreeWithOneLine) {
  const result r = run(args({"state", "--kind", "jobs", "--id", "no-such-job"}));
  EXPECT_EQ(r.code, 3);
  expect_one_line(r.err);
  EXPECT_NE(r.err.find("no-such-job"), std::string::npos);
}

TEST_F(ZelctlState, WatchPrintsEachChangeAsAJsonLine) {
  sim_.run_workload();
  const result r = run(args({"watch", "--json", "--count", "20"}));
  ASSERT_EQ(r.code, 0) << r.err;
  const auto lines = lines_of(r.out);
  ASSERT_EQ(lines.size(), 20u);
  for (const auto& line : lines) {
    const auto change = nlohmann::json::parse(line);
    EXPECT_TRUE(change["time"].is_string());
    EXPECT_FALSE(change["kind"].get<std::string>().empty()) << line;
    EXPECT_TRUE(change["change"].is_string()) << line;
  }
  EXPECT_NE(r.err.find("20 changes shown"), std::string::npos) << r.err;
}

TEST_F(ZelctlState, WatchFiltersByKindAndStopsAfterItsDuration) {
  sim_.run_workload();
  const auto start = std::chrono::steady_clock::now();
  const result r = run(args({"watch", "--kind", "jobs", "--duration", "1.5"}));
  const double took =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_GE(took, 1.5);
  EXPECT_LT(took, 8);
  const auto lines = lines_of(r.out);
  ASSERT_FALSE(lines.empty());
  for (const auto& line : lines) EXPECT_NE(line.find(" job "), std::string::npos) << line;
}

TEST_F(ZelctlState, WatchStopsOnSigintWithASummary) {
  sim_.run_workload();
  process p(args({"watch", "--json"}));
  ASSERT_TRUE(p.wait_for_output("\n"));
  p.signal(SIGINT);
  EXPECT_EQ(p.wait(std::chrono::seconds(5)), 0);
  EXPECT_NE(p.err().find("changes shown"), std::string::npos) << p.err();
}

TEST_F(ZelctlState, HistoryReturnsTheMastersHistorizedJobs) {
  const auto history = zelctl::to_json(sim_.master_history())["jobs"];
  ASSERT_FALSE(history.empty());
  const result all = run(args({"history", "--kind", "jobs"}));
  ASSERT_EQ(all.code, 0) << all.err;
  std::set<std::string> printed, expected;
  for (const auto& record : nlohmann::json::parse(all.out)) printed.insert(record["id"]);
  for (const auto& [id, record] : history.items()) expected.insert(id);
  EXPECT_EQ(printed, expected);

  const std::string id = history.begin().key();
  const result one = run(args({"history", "--kind", "job", "--state-id", id}));
  ASSERT_EQ(one.code, 0) << one.err;
  EXPECT_EQ(nlohmann::json::parse(one.out), nlohmann::json::array({history[id]}));
}

TEST(ZelctlSimulate, StateAndLoginWorkWithNoCluster) {
  const result state = run({"--simulate", "--rate", "500", "state", "--count"});
  ASSERT_EQ(state.code, 0) << state.err;
  EXPECT_GE(nlohmann::json::parse(state.out)["nodes"].get<int>(), 3);
  const result login = run({"--simulate", "login", "--json"});
  ASSERT_EQ(login.code, 0) << login.err;
  EXPECT_EQ(nlohmann::json::parse(login.out)["redirected"], true);
}

}  // namespace
