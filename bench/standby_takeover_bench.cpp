// How fast a standby mirror takes over, a plain program (not in the test run): a simulated cluster
// of a few thousand jobs, a private PostgreSQL server (started as the tests start theirs) and two
// zelctl mirrors on one database. Each round kills the leader with SIGKILL at a random moment
// and times, from the kill: the server giving up the leader's writer lock (its session ends when
// the process's socket closes; polled on a connection of this program's own), the standby's
// "took over" line, and the standby's first save. Then a new standby is started beside the new
// leader for the next round. Prints each round, then the fastest and the median of each.
//
//   standby_takeover_bench [rounds]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "child_timing.h"
#include "support/postgres_server.h"
#include "zelsim/cluster.h"

using zelbench::clock_type;
using zelbench::ms_since;
using zelbench::summary;
using zelbench::wait_for;

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 7;
  if (rounds < 1) {
    std::fprintf(stderr, "usage: standby_takeover_bench [rounds]\n");
    return 1;
  }
  zeltest::postgres_server server;
  const std::string db = server.fresh_database();

  zelsim::options o;
  o.users = {{"demo", "demo"}};
  o.log = false;
  o.rate = 200;
  o.jobs = 6000;
  o.warm_up = 30000;
  o.workload = true;
  zelsim::cluster sim(o);
  sim.start();
  zeltest::temp_dir dir;
  std::ofstream(dir.file("pw")) << "demo\n";
  const std::vector<std::string> mirror{"--host",
                                        "127.0.0.1",
                                        "--port",
                                        std::to_string(sim.port(1)),
                                        "--user",
                                        "demo",
                                        "--password-file",
                                        dir.file("pw"),
                                        "mirror",
                                        "--db",
                                        db,
                                        "--save-interval",
                                        "0.5"};
  zeltest::postgres_session watch(db);
  // The state's writer lock (a bigint key below 2^32) and the session that holds it.
  const std::string lock_holder =
      "SELECT coalesce(max(pid), 0) FROM pg_locks WHERE locktype = 'advisory' AND granted"
      " AND objsubid = 1 AND objid = 2053467252";
  const std::string lock_held_by = lock_holder + " AND pid = ";

  auto leader = std::make_unique<zeltest::child_process>(ZELCTL_PROGRAM, mirror);
  if (!wait_for(*leader, "saved ")) {
    std::fprintf(stderr, "the first mirror never saved:\n%s", leader->err().c_str());
    return 1;
  }
  std::mt19937 pick(std::random_device{}());
  std::vector<double> lock_free, took_over, first_save;
  for (int round = 1; round <= rounds; ++round) {
    auto standby = std::make_unique<zeltest::child_process>(ZELCTL_PROGRAM, mirror);
    if (!wait_for(*standby, "standing by: ")) {
      std::fprintf(stderr, "the standby never stood by:\n%s", standby->err().c_str());
      return 1;
    }
    const std::int64_t session = watch.query_int(lock_holder);
    // A random moment in the leader's save cycle.
    std::this_thread::sleep_for(std::chrono::milliseconds(pick() % 500));
    const auto killed = clock_type::now();
    leader->signal(SIGKILL);
    while (watch.query_int(lock_held_by + std::to_string(session)) != 0) {
    }  // a round trip a poll
    lock_free.push_back(ms_since(killed));
    if (!wait_for(*standby, "took over ")) {
      std::fprintf(stderr, "the standby never took over:\n%s", standby->err().c_str());
      return 1;
    }
    took_over.push_back(ms_since(killed));
    if (!wait_for(*standby, "saved ")) {
      std::fprintf(stderr, "the new leader never saved:\n%s", standby->err().c_str());
      return 1;
    }
    first_save.push_back(ms_since(killed));
    std::printf(
        "round %d: lock free %.1f ms, took over %.1f ms, first save %.1f ms after the "
        "kill\n",
        round, lock_free.back(), took_over.back(), first_save.back());
    std::fflush(stdout);
    leader = std::move(standby);
  }
  std::printf("after kill -9 of the leader (%d rounds):\n", rounds);
  summary("  the server gives up the leader's lock", lock_free);
  summary("  the standby takes over (\"took over\")", took_over);
  summary("  the new leader's first save committed", first_save);
  return 0;
}
