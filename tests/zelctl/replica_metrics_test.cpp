// The jobs and nodes of a replica by state, kept as the notifications arrive, equal a walk over
// the replica at every reading: while a workload changes, historizes and removes records, after
// a second snapshot, and after a link that went and came back.
#include <gtest/gtest.h>

#include <chrono>

#include "replica_metrics.h"
#include "support/seeded_workload.h"
#include "zelcapi/state_connection.h"
#include "zelcore/plugin_db.h"
#include "zelsim/cluster.h"

namespace {

using namespace std::chrono_literals;

// A replica fed by a state connection through the counting handler, logged in to node 2.
struct counted_replica {
  explicit counted_replica(zelsim::cluster& sim) { connect(sim); }
  void connect(zelsim::cluster& sim) {
    ASSERT_EQ(c.connect("127.0.0.1", std::to_string(sim.port(2)), 5), zelcapi::connection_ok);
    ASSERT_FALSE(
        c.login_sync("alice", "secret", "", "", 5, false).get_properties().is_present("error"));
    c.request_new_state_sync();
  }
  // The tallies against a walk over the replica, both kinds.
  void expect_tallies_equal_a_walk() {
    const zelcapi::state& replica = *c.get_state();
    EXPECT_EQ(counts.jobs.counts(replica),
              zelctl::count_by_state(replica.get_items(zelcapi::state_item_job)));
    EXPECT_EQ(counts.nodes.counts(replica),
              zelctl::count_by_state(replica.get_items(zelcapi::state_item_node)));
  }

  zelcore::plugin_db plugins;
  zelcapi::state_handler program;  // the program's own handler, which does nothing
  zelctl::replica_counters counts;
  zelctl::counting_handler counted{program, counts};
  zelcapi::state_connection c{&counted, 3600, &plugins};
};

TEST(StateTally, CountsByStateEqualAWalkAtEveryReadingWhileTheWorkloadRuns) {
  zelsim::cluster sim(zeltest::seeded_workload(11, 300));
  sim.start();
  counted_replica r(sim);
  r.expect_tallies_equal_a_walk();
  sim.run_workload(20000);
  const auto deadline = std::chrono::steady_clock::now() + 120s;
  int readings = 0;
  while (!sim.wait_workload_paused(0ms) && std::chrono::steady_clock::now() < deadline) {
    r.c.wait(5);
    r.expect_tallies_equal_a_walk();
    ++readings;
    // A second snapshot in the middle replaces the replica.
    if (readings == 50) r.c.request_new_state_sync();
  }
  ASSERT_TRUE(sim.wait_workload_paused(0ms));
  EXPECT_GT(readings, 50);
  for (int n = 0; n < 20; ++n) r.c.wait(10);
  r.expect_tallies_equal_a_walk();
  EXPECT_GT(r.counts.notifications[zelctl::replica_counters::historize_item], 0u);
  EXPECT_GT(r.counts.notifications[zelctl::replica_counters::remove_item] +
                r.counts.notifications[zelctl::replica_counters::historize_item],
            0u);
  EXPECT_FALSE(r.counts.jobs.counts(*r.c.get_state()).empty());

  // The link goes while the workload goes on, and comes back with a new snapshot.
  r.c.disconnect("the test drops the link", false);
  r.expect_tallies_equal_a_walk();
  sim.run_workload(3000);
  ASSERT_TRUE(sim.wait_workload_paused(60s));
  r.connect(sim);
  r.expect_tallies_equal_a_walk();
}

}  // namespace
