// A state connection that follows a busy cluster inside an application's own poll(2) loop ends
// with a replica equal to the master's state.
#include <gtest/gtest.h>

#include "support/loop_convergence.h"
#include "support/poll_loop.h"

namespace {

TEST(StateConnectionEventLoop, TenThousandChangesThroughAPollLoopEndEqualToTheMaster) {
  zeltest::still_clock clock;
  zelsim::cluster sim(zeltest::seeded_workload(11, 300));
  sim.start();
  zeltest::loop_follower f;
  zeltest::poll_loop loop(f.c);
  zeltest::expect_convergence_in_loop(
      sim, f,
      [&loop](const std::function<bool()>& done, std::chrono::milliseconds limit) {
        return loop.run_until(done, limit);
      },
      10000);
  EXPECT_GT(loop.ready_polls, 0);
}

}  // namespace
