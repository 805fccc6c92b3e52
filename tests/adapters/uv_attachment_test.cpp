// A connection and a state connection inside a libuv loop, beside a timer of the application's
// own.
#include "zelcapi/uv_attachment.h"

#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>

#include "support/loop_convergence.h"
#include "support/two_notifications.h"
#include "zelcapi/connection_test_support.h"

namespace {

using namespace std::chrono_literals;

// A loop of the test's own, closed with every handle once the test ends.
struct loop_fixture {
  loop_fixture() { uv_loop_init(&loop); }
  ~loop_fixture() {
    uv_walk(
        &loop,
        [](uv_handle_t* h, void*) {
          if (!uv_is_closing(h)) uv_close(h, nullptr);
        },
        nullptr);
    uv_run(&loop, UV_RUN_DEFAULT);
    uv_loop_close(&loop);
  }
  // Runs the loop until `done()` or `limit`; a failure kept by `attached` is counted in `raised`.
  bool run_until(zelcapi::uv_attachment& attached, const std::function<bool()>& done,
                 std::chrono::milliseconds limit, int* raised = nullptr) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
      if (std::chrono::steady_clock::now() >= end) return false;
      uv_run(&loop, UV_RUN_ONCE);
      try {
        attached.rethrow_if_failed();
      } catch (const std::exception&) {
        if (raised == nullptr) throw;
        ++*raised;
      }
    }
    return true;
  }
  uv_loop_t loop;
};

// The application's own timer: ticks every 5 ms.
struct ticker {
  explicit ticker(uv_loop_t* loop) {
    uv_timer_init(loop, &timer);
    timer.data = this;
    uv_timer_start(
        &timer, [](uv_timer_t* t) { ++static_cast<ticker*>(t->data)->ticks; }, 5, 5);
  }
  uv_timer_t timer;
  int ticks = 0;
};

TEST(UvAttachment, TenThousandChangesEndEqualToTheMasterBesideTheApplicationsTimer) {
  zeltest::still_clock clock;
  zelsim::cluster sim(zeltest::seeded_workload(13, 300));
  sim.start();
  loop_fixture l;
  ticker own(&l.loop);
  zeltest::loop_follower f;
  zelcapi::uv_attachment attached(&l.loop, f.c);
  zeltest::expect_convergence_in_loop(
      sim, f,
      [&](const std::function<bool()>& done, std::chrono::milliseconds limit) {
        return l.run_until(attached, done, limit);
      },
      10000);
  EXPECT_GT(own.ticks, 0);
}

TEST(UvAttachment, AConnectTimesOutWhileOnlyTheDeadlineCanWakeTheLoop) {
  zeltest::test_cluster sim(1, 1);
  sim.set_stalled(1, true);
  loop_fixture l;
  zelcapi::connection c;
  zelcapi::uv_attachment attached(&l.loop, c);
  std::optional<zelcapi::result_code> result;
  c.connect_async("127.0.0.1", sim.port_text(1), 1, [&](zelcapi::result_code r) { result = r; });
  ASSERT_TRUE(l.run_until(
      attached, [&] { return result.has_value(); }, 10s));
  EXPECT_EQ(result, zelcapi::connection_timeout);
}

TEST(UvAttachment, ARaisingCallbackIsKeptAndTheRestOfTheBufferComesNextRun) {
  zeltest::test_cluster sim(1, 1);
  zeltest::recording_handler h;
  h.on_packet = [](const zelnet::zelp::packet& in, zelnet::zelp::packet&) {
    if (in.get_name() == "test.first") throw std::runtime_error("application error");
  };
  loop_fixture l;
  zelcapi::connection c(&h);
  zelcapi::uv_attachment attached(&l.loop, c);
  std::optional<zelcapi::result_code> result;
  c.connect_async("127.0.0.1", sim.port_text(1), 5, [&](zelcapi::result_code r) { result = r; });
  ASSERT_TRUE(l.run_until(
      attached, [&] { return result.has_value(); }, 10s));
  ASSERT_EQ(result, zelcapi::connection_ok);
  sim.send_raw(1, zeltest::two_notifications(), false);
  int raised = 0;
  ASSERT_TRUE(l.run_until(
      attached, [&] { return h.received.size() == 2; }, 10s, &raised));
  EXPECT_EQ(raised, 1);
  EXPECT_EQ(h.received[1].get_name(), "test.second");
}

}  // namespace
