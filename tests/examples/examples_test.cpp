// The example programs as a user runs them: each started as a process against an in-process
// simulated cluster on free loopback ports (master node 2, reached through node 1), its exit
// status and output checked against what the cluster holds; bad arguments and refusals end
// with a message and a non-zero status.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/child_process.h"
#include "zelsim/cluster.h"

namespace {

using zeltest::lines_of;
using zeltest::run_program;
using zeltest::run_result;
using zeltest::temp_dir;

// Runs on each test's own cluster: users demo/demo, admin root/rootpw, master node 2, the
// workload paused (rate 0: as fast as possible once let run).
class Examples : public ::testing::Test {
 protected:
  Examples() : sim_(options()) { sim_.start(); }

  static zelsim::options options() {
    zelsim::options o;
    o.users = {{"demo", "demo"}};
    o.admins = {{"root", "rootpw"}};
    o.master = 2;
    o.log = false;
    o.rate = 0;
    return o;
  }

  // HOST PORT of node 1, which is not the master: every example must follow the redirect.
  std::vector<std::string> node1() const { return {"127.0.0.1", std::to_string(sim_.port(1))}; }
  std::vector<std::string> as(const std::string& user, const std::string& password,
                              std::vector<std::string> more = {}) const {
    std::vector<std::string> args = node1();
    args.push_back(user);
    args.push_back(password);
    args.insert(args.end(), more.begin(), more.end());
    return args;
  }

  // Lets the workload make `changes` changes and waits for them.
  void make_changes(std::uint64_t changes) {
    sim_.run_workload(changes);
    ASSERT_TRUE(sim_.wait_workload_paused(std::chrono::seconds(20)));
  }

  // Keeps changes coming while `p` runs: some reach it however long its login takes.
  void make_changes_while_running(zeltest::child_process& p) {
    while (!p.has_exited()) {
      make_changes(20);
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }

  // Filled on the nodes' thread by the observer of the monitor's test; declared before the
  // cluster so that they outlive its thread.
  std::mutex notified_lock_;
  std::set<std::string> notified_;
  zelsim::cluster sim_;
};

// The one integer that `sql` selects from the SQLite file, read as a user's tool reads it.
std::int64_t select_int(const std::string& path, const std::string& sql) {
  sqlite3* db = nullptr;
  std::int64_t value = -1;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK &&
        sqlite3_step(statement) == SQLITE_ROW) {
      value = sqlite3_column_int64(statement, 0);
    }
    sqlite3_finalize(statement);
  }
  sqlite3_close(db);
  return value;
}

std::string first_line(const std::string& text) { return text.substr(0, text.find('\n')); }

// The figures of the mirror's last line, "saved FILE: JOBS jobs, HISTORIZED historized jobs";
// false when it printed no such line.
bool saved_figures(const std::string& out, const std::string& file, long& jobs, long& historized) {
  const std::string prefix = "saved " + file + ": ";
  const std::size_t at = out.find(prefix);
  return at != std::string::npos &&
         std::sscanf(out.c_str() + at + prefix.size(), "%ld jobs, %ld historized jobs", &jobs,
                     &historized) == 2;
}

// The workflow id that the submitter printed ("workflow ID"); empty when it printed none.
std::string submitted_workflow(const std::string& out) {
  for (const std::string& line : lines_of(out)) {
    if (line.rfind("workflow ", 0) == 0 && line.find(' ', 9) == std::string::npos) {
      return line.substr(9);
    }
  }
  return "";
}

TEST_F(Examples, SubmitterRunsItsWorkflowToTheEndAndExitsZero) {
  const run_result r =
      run_program(EXAMPLE_SUBMITTER, as("demo", "demo", {"input=shots/sh020", "quality=4"}));
  ASSERT_EQ(r.code, 0) << r.out << r.err;
  const std::string id = submitted_workflow(r.out);
  ASSERT_FALSE(id.empty()) << r.out;
  const std::vector<std::string> lines = lines_of(r.out);
  ASSERT_EQ(lines.size(), 3u) << r.out;
  EXPECT_EQ(lines[0].rfind("submitted 'example-pipeline' with key key-", 0), 0u) << lines[0];
  EXPECT_EQ(lines[0].substr(lines[0].size() - 6), ": done") << lines[0];
  EXPECT_EQ(lines[2], "workflow '" + id + "' ended finished");
  // The master ran its three tasks, one job each, and kept the result.
  const zelcore::properties result = sim_.master_snapshot()
                                         .get_properties_value("workflow-results")
                                         .get_properties_value(id, zelcore::properties());
  EXPECT_EQ(result.get_int_value("st", -1), 2) << result.describe();
  EXPECT_EQ(result.get_int_value("ht", -1), 3) << result.describe();
}

TEST_F(Examples, SubmitterExitsSixWhenItsWorkflowFailed) {
  const run_result r = run_program(EXAMPLE_SUBMITTER, as("demo", "demo", {"--fail"}));
  EXPECT_EQ(r.code, 6) << r.out << r.err;
  const std::string id = submitted_workflow(r.out);
  ASSERT_FALSE(id.empty()) << r.out;
  EXPECT_EQ(lines_of(r.out).back(), "workflow '" + id + "' ended failed");
}

TEST_F(Examples, SubmitterExitsTwoOnARefusedLoginOrAnUnreachableCluster) {
  const run_result refused = run_program(EXAMPLE_SUBMITTER, as("demo", "wrong"));
  EXPECT_EQ(refused.code, 2);
  EXPECT_NE(refused.err.find("login as 'demo' failed: Access denied"), std::string::npos)
      << refused.err;
  EXPECT_EQ(refused.out, "");

  const std::string port = std::to_string(sim_.port(3));
  sim_.stop_node(3);
  const run_result unreachable =
      run_program(EXAMPLE_SUBMITTER, {"127.0.0.1", port, "demo", "demo"});
  EXPECT_EQ(unreachable.code, 2);
  EXPECT_NE(unreachable.err.find("cannot connect to 127.0.0.1:" + port + ": Connection Failed"),
            std::string::npos)
      << unreachable.err;
}

TEST_F(Examples, SubmitterRefusesBadArgumentsAndValuesBeforeSendingAnything) {
  const run_result none = run_program(EXAMPLE_SUBMITTER, {"127.0.0.1"});
  EXPECT_EQ(none.code, 1);
  EXPECT_NE(none.err.find("usage:"), std::string::npos) << none.err;
  const run_result field = run_program(EXAMPLE_SUBMITTER, as("demo", "demo", {"=5"}));
  EXPECT_EQ(field.code, 1);
  EXPECT_NE(field.err.find("'=5' is not NAME=VALUE"), std::string::npos) << field.err;
  const run_result values =
      run_program(EXAMPLE_SUBMITTER, as("demo", "demo", {"--fail", "quality=high", "colour=red"}));
  EXPECT_EQ(values.code, 4);
  const std::vector<std::string> errors = lines_of(values.err);
  ASSERT_EQ(errors.size(), 2u) << values.err;
  EXPECT_EQ(errors[0].rfind("submitter: quality=high: ", 0), 0u) << errors[0];
  EXPECT_EQ(errors[1].rfind("submitter: colour=red: ", 0), 0u) << errors[1];
  EXPECT_EQ(values.out, "");
  EXPECT_EQ(sim_.submitted_work().workflows, 0u);
}

TEST_F(Examples, MonitorPrintsOneLinePerChangeTheMasterSent) {
  make_changes(500);
  const char* const kinds[] = {"client", "node", "submission", "source", "slot", "job", "task"};
  sim_.on_notification([this, &kinds](const zelnet::zelp::packet& p) {
    const zelcore::properties& fields = p.get_properties();
    if (!fields.is_present("item-type")) return;
    std::lock_guard<std::mutex> hold(notified_lock_);
    notified_.insert(std::string(kinds[fields.get_int_value("item-type")]) + " " +
                     fields.get_string_value("state-id"));
  });
  zeltest::child_process monitor(EXAMPLE_MONITOR, as("demo", "demo", {"1.5"}));
  make_changes_while_running(monitor);
  sim_.on_notification({});
  ASSERT_EQ(monitor.wait(), 0) << monitor.err();
  const std::vector<std::string> lines = lines_of(monitor.out());
  std::size_t item_lines = 0;
  for (const std::string& line : lines) {
    std::istringstream words(line);
    std::string kind, id, change;
    ASSERT_TRUE(words >> kind >> id >> change) << line;
    if (kind == "workflow" || kind == "workflow-result") continue;
    ++item_lines;
    EXPECT_EQ(notified_.count(kind + " " + id), 1u) << line;
  }
  EXPECT_GT(item_lines, 0u) << monitor.out();
}

TEST_F(Examples, MonitorRefusesBadSecondsAndUnknownUsers) {
  for (const char* seconds : {"abc", "-1", "", "1e9"}) {
    const run_result r = run_program(EXAMPLE_MONITOR, as("demo", "demo", {seconds}));
    EXPECT_EQ(r.code, 2) << seconds;
    EXPECT_NE(r.err.find("usage:"), std::string::npos) << r.err;
  }
  const run_result unknown = run_program(EXAMPLE_MONITOR, as("mallory", "x", {"1"}));
  EXPECT_EQ(unknown.code, 1);
  EXPECT_NE(unknown.err.find("login as 'mallory' failed: No such user"), std::string::npos)
      << unknown.err;
}

// The monitors that run inside an event loop of their own: one line a second from their own
// timer, the replica filled and the changes counted while the cluster works.
TEST_F(Examples, LoopMonitorsCountTheChangesFromTheirOwnTimer) {
  make_changes(300);
  std::vector<const char*> programs{EXAMPLE_ASIO_MONITOR};
#ifdef EXAMPLE_UV_MONITOR
  programs.push_back(EXAMPLE_UV_MONITOR);
#endif
  for (const char* program : programs) {
    zeltest::child_process monitor(program, as("demo", "demo", {"2"}));
    make_changes_while_running(monitor);
    ASSERT_EQ(monitor.wait(), 0) << program << ": " << monitor.err();
    const std::vector<std::string> lines = lines_of(monitor.out());
    ASSERT_EQ(lines.size(), 2u) << monitor.out();
    long second = 0, jobs = 0, tasks = 0, changes = 0;
    ASSERT_EQ(std::sscanf(lines[1].c_str(), "%ld jobs %ld tasks %ld changes %ld", &second, &jobs,
                          &tasks, &changes),
              4)
        << lines[1];
    EXPECT_EQ(second, 2);
    EXPECT_GT(jobs, 0) << program;
    EXPECT_GT(changes, 0) << program;

    const run_result unknown = run_program(program, as("mallory", "x", {"1"}));
    EXPECT_EQ(unknown.code, 1);
    EXPECT_NE(unknown.err.find("login as 'mallory' failed: No such user"), std::string::npos)
        << unknown.err;
    EXPECT_EQ(run_program(program, as("demo", "demo", {"soon"})).code, 2);
  }
}

TEST_F(Examples, AdminStatusNamesTheMasterAndEveryNode) {
  const run_result r = run_program(EXAMPLE_ADMIN_STATUS, as("root", "rootpw"));
  ASSERT_EQ(r.code, 0) << r.err;
  const auto node = [this](std::size_t n, const char* role) {
    return "node-" + std::to_string(n) + " 127.0.0.1:" + std::to_string(sim_.port(n)) + " " + role;
  };
  EXPECT_EQ(lines_of(r.out), (std::vector<std::string>{"master: node-2", node(1, "node"),
                                                       node(2, "master"), node(3, "node")}));
}

TEST_F(Examples, AdminStatusRefusesAUserWhoIsNoAdmin) {
  const run_result r = run_program(EXAMPLE_ADMIN_STATUS, as("demo", "demo"));
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("admin login as 'demo' failed"), std::string::npos) << r.err;
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(run_program(EXAMPLE_ADMIN_STATUS, {"127.0.0.1"}).code, 2);
}

TEST_F(Examples, StateMirrorSavesReplicaAndHistoryAndLoadsThemNextTime) {
  make_changes(2000);
  temp_dir dir;
  const std::string db = dir.file("mirror.sqlite");
  {
    zeltest::child_process mirror(EXAMPLE_STATE_MIRROR, as("demo", "demo", {db, "2"}));
    ASSERT_TRUE(mirror.wait_for_output("snapshot:")) << mirror.err();
    // Jobs end and go to history while the mirror watches: its history_db gets them.
    make_changes(2000);
    ASSERT_EQ(mirror.wait(), 0) << mirror.err();
    const std::string out = mirror.out();
    EXPECT_EQ(first_line(out), "loaded " + db + ": 0 jobs");
    long jobs = 0, historized = 0;
    ASSERT_TRUE(saved_figures(out, db, jobs, historized)) << out;
    EXPECT_GT(jobs, 0);
    EXPECT_EQ(select_int(db, "SELECT count(*) FROM jobs"), jobs);
    EXPECT_GT(historized, 0);
    EXPECT_EQ(select_int(db, "SELECT count(*) FROM history WHERE kind = 'job'"), historized);
  }
  const std::int64_t saved = select_int(db, "SELECT count(*) FROM jobs");
  const run_result again = run_program(EXAMPLE_STATE_MIRROR, as("demo", "demo", {db, "0"}));
  ASSERT_EQ(again.code, 0) << again.err;
  EXPECT_EQ(first_line(again.out), "loaded " + db + ": " + std::to_string(saved) + " jobs");
}

TEST_F(Examples, StateMirrorLeavesAFileThatIsNoDatabaseAsItWas) {
  temp_dir dir;
  const std::string path = dir.file("notes.txt");
  std::ofstream(path) << "not a database\n";
  const run_result r = run_program(EXAMPLE_STATE_MIRROR, as("demo", "demo", {path, "1"}));
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("not a database"), std::string::npos) << r.err;
  EXPECT_EQ(zeltest::read_file(path), "not a database\n");
  EXPECT_EQ(run_program(EXAMPLE_STATE_MIRROR, as("demo", "demo", {path})).code, 2);
}

}  // namespace
