// A connection and a state connection inside a Boost.Asio io_context, beside a timer of the
// application's own.
#include "zelcapi/asio_attachment.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <optional>
#include <stdexcept>

#include "support/attachment_checks.h"
#include "support/loop_convergence.h"
#include "support/two_notifications.h"
#include "zelcapi/connection_test_support.h"

namespace {

using namespace std::chrono_literals;

// The application's own timer: ticks every 5 ms while the io_context runs.
struct ticker {
  explicit ticker(boost::asio::io_context& io) : timer(io) { arm(); }
  void arm() {
    timer.expires_after(5ms);
    timer.async_wait([this](const boost::system::error_code& ec) {
      if (ec) return;
      ++ticks;
      arm();
    });
  }
  boost::asio::steady_timer timer;
  int ticks = 0;
};

// Runs handlers of `io` until `done()` or `limit`; what a handler raises goes to `on_raise`.
bool run_until(boost::asio::io_context& io, const std::function<bool()>& done,
               std::chrono::milliseconds limit,
               const std::function<void(std::exception_ptr)>& on_raise = {}) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    try {
      io.run_one_for(20ms);
    } catch (...) {
      if (!on_raise) throw;
      on_raise(std::current_exception());
    }
  }
  return true;
}

TEST(AsioAttachment, TenThousandChangesEndEqualToTheMasterBesideTheApplicationsTimer) {
  zeltest::still_clock clock;
  zelsim::cluster sim(zeltest::seeded_workload(12, 300));
  sim.start();
  boost::asio::io_context io;
  ticker own(io);
  zeltest::loop_follower f;
  zelcapi::asio_attachment attached(io, f.c);
  zeltest::expect_convergence_in_loop(
      sim, f,
      [&io](const std::function<bool()>& done, std::chrono::milliseconds limit) {
        return run_until(io, done, limit);
      },
      10000);
  EXPECT_GT(own.ticks, 0);
}

TEST(AsioAttachment, AConnectTimesOutWhileOnlyTheDeadlineCanWakeTheLoop) {
  zeltest::test_cluster sim(1, 1);
  sim.set_stalled(1, true);
  boost::asio::io_context io;
  zelcapi::connection c;
  zelcapi::asio_attachment attached(io, c);
  std::optional<zelcapi::result_code> result;
  c.connect_async("127.0.0.1", sim.port_text(1), 1, [&](zelcapi::result_code r) { result = r; });
  // Nothing but the attachment's timer is pending: run() returns once the connect has ended.
  io.run_for(10s);
  EXPECT_EQ(result, zelcapi::connection_timeout);
}

TEST(AsioAttachment, ARaisingCallbackLeavesTheRestOfTheBufferToTheNextRun) {
  zeltest::test_cluster sim(1, 1);
  zeltest::recording_handler h;
  h.on_packet = [](const zelnet::zelp::packet& in, zelnet::zelp::packet&) {
    if (in.get_name() == "test.first") throw std::runtime_error("application error");
  };
  boost::asio::io_context io;
  zelcapi::connection c(&h);
  zelcapi::asio_attachment attached(io, c);
  std::optional<zelcapi::result_code> result;
  c.connect_async("127.0.0.1", sim.port_text(1), 5, [&](zelcapi::result_code r) { result = r; });
  ASSERT_TRUE(run_until(
      io, [&] { return result.has_value(); }, 10s));
  ASSERT_EQ(result, zelcapi::connection_ok);
  sim.send_raw(1, zeltest::two_notifications(), false);
  int raised = 0;
  ASSERT_TRUE(run_until(
      io, [&] { return h.received.size() == 2; }, 10s, [&](std::exception_ptr) { ++raised; }));
  EXPECT_EQ(raised, 1);
  EXPECT_EQ(h.received[1].get_name(), "test.second");
}

TEST(AsioAttachment, ASecondAttachmentToTheSameConnectionIsRefused) {
  boost::asio::io_context io;
  zeltest::expect_one_attachment_at_a_time<zelcapi::asio_attachment>(
      [&io](std::optional<zelcapi::asio_attachment>& slot, zelnet::ioctrl& c) {
        slot.emplace(io, c);
      },
      [&io](zelcapi::asio_attachment&, const std::function<bool()>& done,
            std::chrono::milliseconds limit) { return run_until(io, done, limit); });
}

TEST(AsioAttachment, AFileTheIoContextCannotWatchIsReportedAsTheLibrarysError) {
  boost::asio::io_context io;
  zelnet::ioctrl controller(4096);
  zelcapi::asio_attachment attached(io, controller);
  int fds[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
  // The application's io_context watches the descriptor already, for a purpose of its own.
  boost::asio::posix::stream_descriptor own(io, fds[0]);
  zeltest::idle_file_handler h;
  zeltest::expect_watch_refused(
      controller, zelbase::file(fds[0]), h,
      "cannot watch descriptor " + std::to_string(fds[0]) + " in the io_context: File exists");
  own.release();
  controller.clear();
  ::close(fds[1]);
}

}  // namespace
