// A connection and a state connection inside a libuv loop, beside a timer of the application's
// own.
#include "zelcapi/uv_attachment.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <optional>
#include <stdexcept>

#include "support/attachment_checks.h"
#include "support/loop_convergence.h"
#include "support/raw_peer.h"
#include "support/two_notifications.h"
#include "zelcapi/connection_test_support.h"
#include "zelnet/codec.h"

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

// Makes the handler's callback of "test.first" raise an application's error.
void raise_on_first(zeltest::recording_handler& h) {
  h.on_packet = [](const zelnet::zelp::packet& in, zelnet::zelp::packet&) {
    if (in.get_name() == "test.first") throw std::runtime_error("application error");
  };
}

// Connects `c` inside the loop to `port`; the connect's result.
zelcapi::result_code connect_in(loop_fixture& l, zelcapi::uv_attachment& attached,
                                zelcapi::connection& c, const std::string& port) {
  std::optional<zelcapi::result_code> result;
  c.connect_async("127.0.0.1", port, 5, [&](zelcapi::result_code r) { result = r; });
  EXPECT_TRUE(l.run_until(
      attached, [&] { return result.has_value(); }, 10s));
  return result.value_or(zelcapi::connection_failed);
}

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
  raise_on_first(h);
  loop_fixture l;
  zelcapi::connection c(&h);
  zelcapi::uv_attachment attached(&l.loop, c);
  ASSERT_EQ(connect_in(l, attached, c, sim.port_text(1)), zelcapi::connection_ok);
  sim.send_raw(1, zeltest::two_notifications(), false);
  int raised = 0;
  ASSERT_TRUE(l.run_until(
      attached, [&] { return h.received.size() == 2; }, 10s, &raised));
  EXPECT_EQ(raised, 1);
  EXPECT_EQ(h.received[1].get_name(), "test.second");
}

TEST(UvAttachment, AHandlerRaisingEveryNthChangeLeavesTheReplicaEqualToTheMaster) {
  zeltest::still_clock clock;
  zelsim::cluster sim(zeltest::seeded_workload(19, 300));
  sim.start();
  loop_fixture l;
  zeltest::raising_follower f(97);
  zelcapi::uv_attachment attached(&l.loop, f.c);
  int raised = 0;
  zeltest::expect_convergence_in_loop(
      sim, f,
      [&](const std::function<bool()>& done, std::chrono::milliseconds limit) {
        return l.run_until(attached, done, limit, &raised);
      },
      10000);
  EXPECT_GT(f.raised, 10u);
  EXPECT_EQ(static_cast<std::uint64_t>(raised), f.raised);
}

TEST(UvAttachment, ASecondAttachmentToTheSameConnectionIsRefused) {
  loop_fixture l;
  zeltest::expect_one_attachment_at_a_time<zelcapi::uv_attachment>(
      [&l](std::optional<zelcapi::uv_attachment>& slot, zelnet::ioctrl& c) {
        slot.emplace(&l.loop, c);
      },
      [&l](zelcapi::uv_attachment& a, const std::function<bool()>& done,
           std::chrono::milliseconds limit) { return l.run_until(a, done, limit); });
}

TEST(UvAttachment, AFileLibuvCannotWatchIsReportedNotSkipped) {
  loop_fixture l;
  zelnet::ioctrl controller(4096);
  zelcapi::uv_attachment attached(&l.loop, controller);
  zelbase::file f(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  ASSERT_TRUE(f.is_open());
  zeltest::idle_file_handler h;
  zeltest::expect_watch_refused(controller, f, h,
                                "cannot watch descriptor " + std::to_string(f.descriptor()) +
                                    " in the libuv loop: operation not permitted");
  controller.clear();
}

// The peer sends two notifications and resets the link while the first one's callback raises:
// libuv reports the reset as a poll error and stops watching the socket, and the connection
// must still hear of it once the second notification is delivered.
TEST(UvAttachment, APeerThatResetsTheLinkIsNoticedAfterARaisingCallback) {
  std::promise<void> go;
  std::shared_future<void> going = go.get_future().share();
  zeltest::recording_handler h;
  raise_on_first(h);
  loop_fixture l;
  zelcapi::connection c(&h);
  zelcapi::uv_attachment attached(&l.loop, c);
  int descriptor = -1;
  {
    zeltest::raw_peer peer([going](int fd) {
      zeltest::read_exactly(
          fd, zelnet::zelp::encode_hello_frame(zelnet::zelp::protocol_version).size());
      zeltest::write_all(fd, zelnet::zelp::encode_hello_frame(zelnet::zelp::protocol_version));
      going.wait_for(std::chrono::seconds(10));
      zeltest::write_all(fd, zeltest::two_notifications());
      const linger reset{1, 0};
      setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    });
    ASSERT_EQ(connect_in(l, attached, c, peer.port()), zelcapi::connection_ok);
    descriptor = c.watched_files().at(0).descriptor;
    go.set_value();
  }
  // The peer's socket is closed with a reset; wait until the client's socket shows it.
  pollfd p{descriptor, POLLIN, 0};
  for (int i = 0; i < 100 && (p.revents & POLLERR) == 0; ++i) ::poll(&p, 1, 100);
  ASSERT_NE(p.revents & POLLERR, 0);
  int raised = 0;
  ASSERT_TRUE(l.run_until(
      attached, [&] { return !c.is_connected(); }, 10s, &raised));
  EXPECT_EQ(raised, 1);
  ASSERT_EQ(h.received.size(), 2u);
  EXPECT_EQ(h.received[1].get_name(), "test.second");
  EXPECT_EQ(h.events.back(), "disconnected 'Connection Closed' 0");
}

}  // namespace
