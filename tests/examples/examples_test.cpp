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

// The ids of one kind in a tree of "kind" -> id -> record.
std::set<std::string> ids_of(const zelcore::properties& tree, const std::string& kind) {
  std::set<std::string> ids;
  if (const zelcore::properties* items = tree.get_properties_value_ptr(kind)) {
    for (const auto& [id, record] : *items) {
      if (record) ids.insert(id);
    }
  }
  return ids;
}

// The reply the submitter printed ("NAME {json}") as JSON; null when it printed none.
nlohmann::json printed_reply(const std::string& out, const std::string& name) {
  const std::string prefix = name + " ";
  if (out.rfind(prefix, 0) != 0) return nullptr;
  return nlohmann::json::parse(out.substr(prefix.size()), nullptr, false);
}

std::set<std::string> history_ids(const nlohmann::json& reply) {
  std::set<std::string> ids;
  for (const auto& record : reply.at("history")) ids.insert(record.at("id").get<std::string>());
  return ids;
}

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

TEST_F(Examples, SubmitterPrintsTheHistoryOfJobsThatTheMasterKept) {
  make_changes(3000);
  const std::set<std::string> kept = ids_of(sim_.master_history(), "jobs");
  ASSERT_FALSE(kept.empty());
  const run_result r = run_program(EXAMPLE_SUBMITTER, as("demo", "demo"));
  ASSERT_EQ(r.code, 0) << r.err;
  const nlohmann::json reply = printed_reply(r.out, "cluster.api.history.request");
  ASSERT_TRUE(reply.is_object()) << r.out;
  EXPECT_EQ(history_ids(reply), kept);
}

TEST_F(Examples, SubmitterSendsTheRequestAndFieldsOfItsCommandLine) {
  make_changes(3000);
  const std::set<std::string> kept = ids_of(sim_.master_history(), "jobs");
  ASSERT_FALSE(kept.empty());
  const std::string id = *kept.rbegin();
  const run_result r = run_program(
      EXAMPLE_SUBMITTER,
      as("demo", "demo", {"cluster.api.history.request", "item-type=5", "state-id=" + id}));
  ASSERT_EQ(r.code, 0) << r.err;
  const nlohmann::json reply = printed_reply(r.out, "cluster.api.history.request");
  ASSERT_TRUE(reply.is_object()) << r.out;
  EXPECT_EQ(history_ids(reply), std::set<std::string>{id});
}

TEST_F(Examples, SubmitterExitsNonZeroWithTheReasonWhenTheRequestIsRefused) {
  const run_result r = run_program(
      EXAMPLE_SUBMITTER, as("demo", "demo", {"cluster.api.history.request", "item-type=9"}));
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("\"item-type\" 9 is not an item type (0 to 6)"), std::string::npos) << r.err;
  EXPECT_NE(r.out.find("\"error\""), std::string::npos) << r.out;  // the reply is still shown
}

TEST_F(Examples, SubmitterExitsNonZeroOnARefusedLoginOrAnUnreachableCluster) {
  const run_result refused = run_program(EXAMPLE_SUBMITTER, as("demo", "wrong"));
  EXPECT_EQ(refused.code, 1);
  EXPECT_NE(refused.err.find("login as 'demo' failed: Access denied"), std::string::npos)
      << refused.err;
  EXPECT_EQ(refused.out, "");

  const std::string port = std::to_string(sim_.port(3));
  sim_.stop_node(3);
  const run_result unreachable =
      run_program(EXAMPLE_SUBMITTER, {"127.0.0.1", port, "demo", "demo"});
  EXPECT_EQ(unreachable.code, 1);
  EXPECT_NE(unreachable.err.find("cannot connect to 127.0.0.1:" + port + ": Connection Failed"),
            std::string::npos)
      << unreachable.err;
}

TEST_F(Examples, SubmitterRefusesBadArgumentsWithUsage) {
  const run_result none = run_program(EXAMPLE_SUBMITTER, {"127.0.0.1"});
  EXPECT_EQ(none.code, 2);
  EXPECT_NE(none.err.find("usage:"), std::string::npos) << none.err;
  const run_result field = run_program(EXAMPLE_SUBMITTER, as("demo", "demo", {"req", "=5"}));
  EXPECT_EQ(field.code, 2);
  EXPECT_NE(field.err.find("'=5' is not KEY=VALUE"), std::string::npos) << field.err;
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
