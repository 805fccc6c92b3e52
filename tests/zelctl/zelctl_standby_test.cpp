// Two zelctl mirrors on one PostgreSQL database: one leads, the other stands by and takes over
// when the leader is killed in the middle of a save, with a first save that is whole and no row
// of the killed one; a standby stopped while it waits ends at once.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "metrics_support.h"
#include "support/postgres_server.h"
#include "zelctl_test_support.h"

using namespace zelctl_test;

namespace {

using steady = std::chrono::steady_clock;

zeltest::postgres_server& server() { return zeltest::postgres_environment::server(); }

// The state's writer lock, as pg_locks shows a lock of a bigint key below 2^32.
constexpr const char* state_lock_holder =
    "SELECT coalesce(max(pid), 0) FROM pg_locks WHERE locktype = 'advisory' AND granted"
    " AND objsubid = 1 AND objid = 2053467252";

// How many transactions wrote the jobs: the cluster is paused, so every save after the first
// writes none, and one whole save is 1.
constexpr const char* one_transaction = "SELECT count(DISTINCT xmin::text) FROM jobs";

// A paused cluster holding a few thousand jobs and tasks, so that a first save takes a while,
// and the flags that point a mirror at it.
class ZelctlStandby : public testing::Test {
 protected:
  void SetUp() override {
    std::ofstream(dir_.file("pw")) << "demo\n";
    sim_.start();
  }
  static zelsim::options busy_cluster() {
    zelsim::options o = cluster_options();
    o.jobs = 6000;
    o.warm_up = 30000;
    return o;
  }
  std::vector<std::string> mirror_args(const std::string& db) {
    return at(sim_, dir_.file("pw")) +
           std::vector<std::string>{"mirror", "--db", db, "--save-interval", "0.3"};
  }
  std::uint64_t master_jobs() {
    return static_cast<std::uint64_t>(zelctl::to_json(sim_.master_snapshot())["jobs"].size());
  }

  temp_dir dir_;
  zelsim::cluster sim_{busy_cluster()};
};

// Waits until `process` printed `text` or ended; whether it printed it.
bool said(const process& p, const std::string& text,
          std::chrono::milliseconds limit = std::chrono::seconds(30)) {
  return p.wait_for_output(text, limit);
}

}  // namespace

TEST_F(ZelctlStandby, AStandbyTakesOverFromALeaderKilledInASaveAndSavesTheWholeState) {
  const std::string db = server().fresh_database();
  zeltest::postgres_session watch(db);
  process leader(mirror_args(db));
  ASSERT_TRUE(said(leader, "connected to ")) << leader.out() << leader.err();
  process standby(mirror_args(db));
  ASSERT_TRUE(said(standby, "standing by: another mirror leads "))
      << standby.out() << standby.err();
  const std::int64_t leader_session = watch.query_int(state_lock_holder);
  ASSERT_NE(leader_session, 0);

  // The leader's first save writes every record: killed while its transaction is open.
  const std::string in_save =
      "SELECT count(*) FROM pg_stat_activity WHERE pid = " + std::to_string(leader_session) +
      " AND xact_start IS NOT NULL";
  const auto give_up = steady::now() + std::chrono::seconds(30);
  while (watch.query_int(in_save) == 0 && steady::now() < give_up) {
  }
  ASSERT_EQ(watch.query_int(in_save), 1) << leader.out() << leader.err();
  leader.signal(SIGKILL);
  const auto killed = steady::now();
  EXPECT_EQ(leader.wait(), 128 + SIGKILL);

  // The standby leads within 5 s; until its first save the database holds nothing of the
  // killed one, or (had it committed in the instant before the kill) one save whole.
  ASSERT_TRUE(said(standby, "took over ", std::chrono::seconds(5)))
      << standby.out() << standby.err();
  const double takeover = std::chrono::duration<double>(steady::now() - killed).count();
  const std::int64_t jobs_at_takeover = watch.query_int("SELECT count(*) FROM jobs");
  EXPECT_TRUE(jobs_at_takeover == 0 || watch.query_int(one_transaction) == 1);
  ASSERT_TRUE(said(standby, "saved ")) << standby.out() << standby.err();
  std::cout << "takeover seen " << takeover << " s after the kill; jobs at takeover "
            << jobs_at_takeover << "\n";

  // Its first save is the whole state, written by one transaction on the lock's session.
  EXPECT_NE(watch.query_int(state_lock_holder), leader_session);
  EXPECT_EQ(static_cast<std::uint64_t>(watch.query_int("SELECT count(*) FROM jobs")),
            master_jobs());
  EXPECT_EQ(watch.query_int("SELECT count(*) FROM workflow_sequence"), 1);
  EXPECT_EQ(watch.query_int(one_transaction), 1);

  standby.signal(SIGTERM);
  EXPECT_EQ(standby.wait(), 0) << standby.err();
  // Nothing failed (a save slower than the interval is said, and is no failure).
  for (const std::string& line : lines_of(standby.err()))
    EXPECT_NE(line.find(" skipped while the one before was still writing"), std::string::npos)
        << line;
}

TEST_F(ZelctlStandby, ALeaderWhoseSessionEndedWritesNoMoreAndEndsForTheStandby) {
  const std::string db = server().fresh_database();
  process leader(mirror_args(db));
  ASSERT_TRUE(said(leader, "saved ")) << leader.out() << leader.err();
  process standby(mirror_args(db));
  ASSERT_TRUE(said(standby, "standing by: another mirror leads "))
      << standby.out() << standby.err();

  // The leader's state session ends (an administrator, a network failure), and another session
  // takes the lock before the leader's next save can.
  zeltest::postgres_session watch(db), thief(db);
  const std::int64_t leader_session = watch.query_int(state_lock_holder);
  ASSERT_NE(leader_session, 0);
  watch.execute("SELECT pg_terminate_backend(" + std::to_string(leader_session) + ")");
  const auto give_up = steady::now() + std::chrono::seconds(30);
  while (thief.query("SELECT pg_try_advisory_lock(2053467252)") != "t" && steady::now() < give_up)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  ASSERT_EQ(watch.query_int(state_lock_holder), thief.query_int("SELECT pg_backend_pid()"));

  // The leader's next save may not take the lock again: it ends, and writes nothing more.
  EXPECT_EQ(leader.wait(std::chrono::seconds(30)), 3) << leader.out() << leader.err();
  const std::vector<std::string> said_at_end = lines_of(leader.err());
  ASSERT_FALSE(said_at_end.empty());
  EXPECT_EQ(said_at_end.back().rfind("zelctl: mirror: lost the lead of host=", 0), 0u)
      << leader.err();
  EXPECT_NE(said_at_end.back().find(": its session ended and another mirror holds the writer "
                                    "lock now; ending without a final save"),
            std::string::npos)
      << leader.err();

  // Once the lock is free again, the standby takes over.
  thief.execute("SELECT pg_advisory_unlock_all()");
  ASSERT_TRUE(said(standby, "took over ")) << standby.out() << standby.err();
  ASSERT_TRUE(said(standby, "saved ")) << standby.out() << standby.err();
  EXPECT_EQ(static_cast<std::uint64_t>(watch.query_int("SELECT count(*) FROM jobs")),
            master_jobs());
  standby.signal(SIGTERM);
  EXPECT_EQ(standby.wait(), 0) << standby.err();
}

TEST_F(ZelctlStandby, AStandbyStoppedWhileItWaitsEndsAtOnceAndTheLeaderGoesOn) {
  const std::string db = server().fresh_database();
  const std::vector<std::string> metrics{"--metrics-listen", "127.0.0.1:0"};
  process leader(mirror_args(db) + metrics);
  ASSERT_TRUE(said(leader, "saved ")) << leader.out() << leader.err();
  process standby(mirror_args(db) + metrics);
  ASSERT_TRUE(said(standby, "standing by: another mirror leads "))
      << standby.out() << standby.err();
  // Which of the two leads, for Prometheus.
  for (const auto& [mirror, leads] : {std::pair<const process*, double>{&leader, 1},
                                      std::pair<const process*, double>{&standby, 0}}) {
    const std::uint16_t port = zeltest::loopback_port_in(mirror->out());
    ASSERT_NE(port, 0) << mirror->out();
    const zeltest::http_answer scraped = zeltest::http_get(port, "/metrics");
    ASSERT_EQ(scraped.status, 200) << scraped.body;
    EXPECT_EQ(metric_samples(scraped.body).at("zelcapi_mirror_leader"), leads) << scraped.body;
  }
  standby.signal(SIGTERM);
  EXPECT_EQ(standby.wait(), 0) << standby.err();
  EXPECT_NE(standby.out().find("zelctl mirror: stopped standing by"), std::string::npos)
      << standby.out();
  EXPECT_EQ(standby.out().find("saved "), std::string::npos) << standby.out();

  const std::size_t saved_before = lines_of(leader.out()).size();
  ASSERT_TRUE(said(leader, "saved ")) << leader.err();
  leader.signal(SIGTERM);
  EXPECT_EQ(leader.wait(), 0) << leader.err();
  EXPECT_GE(lines_of(leader.out()).size(), saved_before);
}
