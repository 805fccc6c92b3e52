// Test support: a quiet simulated cluster whose workload is fixed by its seed.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zelsim/cluster.h"

namespace zeltest {

// Three nodes with node 1 the master, user alice/secret, no log; the workload keeps `jobs` live
// jobs and runs as fast as it can from a fixed start time, so the same seed gives the same
// changes.
inline zelsim::options seeded_workload(std::uint64_t seed, std::size_t jobs) {
  zelsim::options o;
  o.nodes = 3;
  o.master = 1;
  o.log = false;
  o.users = {{"alice", "secret"}};
  o.rate = 0;
  o.jobs = jobs;
  o.seed = seed;
  o.start_time = 1700000000;
  return o;
}

}  // namespace zeltest
