// A connection inside an application's own poll(2) loop: connect, login with a redirect and a
// not-ready retry, requests and their time-outs, all driven by the watched files, the deadline
// and step() alone; and input left in the library's buffers reaching the application with no
// further byte on the socket.
#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <stdexcept>

#include "support/poll_loop.h"
#include "support/two_notifications.h"
#include "zelbase/exceptions.h"
#include "zelcapi/connection_test_support.h"

namespace {

using zelnet::zelp::packet;
using zeltest::async_exchange;
using zeltest::poll_loop;
using zeltest::recording_handler;
using zeltest::test_cluster;
using events = std::vector<std::string>;
using namespace std::chrono_literals;

// Connects `c` to the node asynchronously inside `loop`; the connect's result.
zelcapi::result_code connect_in(poll_loop& loop, zelcapi::connection& c, const std::string& port,
                                unsigned timeout) {
  std::optional<zelcapi::result_code> result;
  c.connect_async("127.0.0.1", port, timeout, [&result](zelcapi::result_code r) { result = r; });
  EXPECT_TRUE(loop.run_until([&] { return result.has_value(); }, 10s));
  return result.value_or(zelcapi::connection_failed);
}

// Logs `c` in as alice inside `loop`: a master serves requests other than logins and the
// cluster status only to a link whose login succeeded.
void log_in(poll_loop& loop, zelcapi::connection& c) {
  async_exchange login;
  c.login_async(zelcapi::connection::login_request("alice", "secret", {}, "", "", false), 5,
                login.callback());
  ASSERT_TRUE(loop.run_until([&] { return login.ended; }, 10s));
  ASSERT_EQ(login.error, "");
  ASSERT_FALSE(login.reply.get_properties().is_present("error"));
}

TEST(EventLoop, ConnectAndLoginWithRedirectAndNotReadyRetryNeverBlockTheLoop) {
  test_cluster sim(3, 2);
  sim.set_not_ready(2, 500ms);
  recording_handler h;
  zelcapi::connection c(&h);
  poll_loop loop(c);
  ASSERT_EQ(connect_in(loop, c, sim.port_text(1), 5), zelcapi::connection_ok);
  EXPECT_GE(loop.watch_changes, 1);

  async_exchange login;
  c.login_async(zelcapi::connection::login_request("alice", "secret", {}, "", "", false), 5,
                login.callback());
  EXPECT_FALSE(login.ended);
  ASSERT_TRUE(loop.run_until([&] { return login.ended; }, 20s));
  EXPECT_EQ(login.error, "");
  EXPECT_FALSE(login.reply.get_properties().is_present("error"));
  EXPECT_EQ(login.reply.get_properties().get_string_value("node-id"), "node-2");
  EXPECT_EQ(c.get_port(), sim.port_text(2));
  EXPECT_EQ(h.events, (events{"status 1 '' 0", "status 15 '' 0",
                              "disconnected 'Host was not master. Reconnecting to master' 1",
                              "status 13 '127.0.0.1' 0", "status 1 '' 0", "status 15 '' 0",
                              "disconnected 'Host was not ready, retrying in 2 seconds' 1",
                              "status 12 '127.0.0.1' 1", "status 1 '' 0", "status 5 'node-2' 1"}));
  // The two seconds before the retry passed in the application's loop, not in a step.
  EXPECT_LT(loop.longest_step, 1s);
  EXPECT_GE(loop.watch_changes, 3);
}

TEST(EventLoop, ConnectTimesOutFromTheDeadlineAlone) {
  test_cluster sim(1, 1);
  sim.set_stalled(1, true);
  recording_handler h;
  zelcapi::connection c(&h);
  poll_loop loop(c);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(connect_in(loop, c, sim.port_text(1), 1), zelcapi::connection_timeout);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 1s);
  EXPECT_FALSE(c.is_connected());
  EXPECT_TRUE(c.watched_files().empty());
  EXPECT_EQ(h.events.back(), "status 4 '' 0");
}

TEST(EventLoop, AConnectThatFailsAtOnceEndsInTheCall) {
  recording_handler h;
  zelcapi::connection c(&h);
  std::optional<zelcapi::result_code> result;
  c.connect_async("no-such-host.invalid", "1", 5,
                  [&result](zelcapi::result_code r) { result = r; });
  EXPECT_EQ(result, zelcapi::connection_failed);
}

TEST(EventLoop, RequestsInFlightEndInTheOrderOfTheirReplies) {
  test_cluster sim(1, 1);
  sim.on("test.echo", [](zelsim::request_context&, const packet& in, packet& out) {
    out.get_properties().set_int_value("n", in.get_properties().get_int_value("n"));
    return true;
  });
  zelcapi::connection c;
  poll_loop loop(c);
  ASSERT_EQ(connect_in(loop, c, sim.port_text(1), 5), zelcapi::connection_ok);
  ASSERT_NO_FATAL_FAILURE(log_in(loop, c));
  std::vector<async_exchange> replies(3);
  for (int n = 0; n < 3; ++n) {
    packet request(packet::type_request, "test.echo");
    request.get_properties().set_int_value("n", n);
    c.send_async(request, 5, replies[n].callback());
  }
  ASSERT_TRUE(loop.run_until([&] { return replies[2].ended; }, 10s));
  for (int n = 0; n < 3; ++n) {
    EXPECT_TRUE(replies[n].ended);
    EXPECT_EQ(replies[n].error, "");
    EXPECT_EQ(replies[n].reply.get_properties().get_int_value("n"), n);
  }
}

TEST(EventLoop, ARequestTimesOutFromTheDeadlineAndItsLateReplyGoesToTheHandler) {
  test_cluster sim(1, 1);
  sim.on("test.silent", [](zelsim::request_context&, const packet&, packet&) { return false; });
  recording_handler h;
  zelcapi::connection c(&h);
  poll_loop loop(c);
  ASSERT_EQ(connect_in(loop, c, sim.port_text(1), 5), zelcapi::connection_ok);
  ASSERT_NO_FATAL_FAILURE(log_in(loop, c));
  async_exchange silent;
  c.send_async(packet(packet::type_request, "test.silent"), 1, silent.callback());
  const auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(loop.run_until([&] { return silent.ended; }, 10s));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 1s);
  EXPECT_EQ(silent.error, "Connection timeout");
  EXPECT_TRUE(c.is_connected());
  sim.broadcast(packet(packet::type_reply, "test.silent"));
  ASSERT_TRUE(loop.run_until([&] { return !h.received.empty(); }, 10s));
  EXPECT_EQ(h.events.back(), "handle 4 test.silent");
}

TEST(EventLoop, ALostLinkEndsEveryRequestWithAConnectionError) {
  test_cluster sim(1, 1);
  sim.drop_links_on("test.drop");
  sim.on("test.silent", [](zelsim::request_context&, const packet&, packet&) { return false; });
  zelcapi::connection c;
  poll_loop loop(c);
  ASSERT_EQ(connect_in(loop, c, sim.port_text(1), 5), zelcapi::connection_ok);
  ASSERT_NO_FATAL_FAILURE(log_in(loop, c));
  async_exchange first, second;
  c.send_async(packet(packet::type_request, "test.silent"), 5, first.callback());
  c.send_async(packet(packet::type_request, "test.drop"), 5, second.callback());
  ASSERT_TRUE(loop.run_until([&] { return first.ended && second.ended; }, 10s));
  EXPECT_EQ(first.error, "Connection error");
  EXPECT_EQ(second.error, "Connection error");
  EXPECT_FALSE(c.is_connected());

  async_exchange none;
  c.send_async(packet(packet::type_request, "test.other"), 5, none.callback());
  EXPECT_TRUE(none.ended);
  EXPECT_EQ(none.error, "No connection");
}

TEST(EventLoop, ALoginWithAWrongPasswordEndsWithTheNodesReply) {
  test_cluster sim(1, 1);
  zelcapi::connection c;
  poll_loop loop(c);
  ASSERT_EQ(connect_in(loop, c, sim.port_text(1), 5), zelcapi::connection_ok);
  async_exchange login;
  c.login_async(zelcapi::connection::login_request("alice", "wrong", {}, "", "", false), 5,
                login.callback());
  ASSERT_TRUE(loop.run_until([&] { return login.ended; }, 10s));
  EXPECT_EQ(login.error, "");
  EXPECT_TRUE(login.reply.get_properties().is_present("error"));

  async_exchange again, meanwhile;
  c.login_async(zelcapi::connection::login_request("alice", "secret", {}, "", "", false), 5,
                again.callback());
  c.login_async(zelcapi::connection::login_request("alice", "secret", {}, "", "", false), 5,
                meanwhile.callback());
  EXPECT_EQ(meanwhile.error, "login in progress");
  ASSERT_TRUE(loop.run_until([&] { return again.ended; }, 10s));
  EXPECT_FALSE(again.reply.get_properties().is_present("error"));
}

// A connected connection inside a poll loop, and the bytes its node sends.
struct trap_fixture {
  test_cluster sim{1, 1};
  recording_handler h;
  zelcapi::connection c{&h};
  poll_loop loop{c};

  trap_fixture() { EXPECT_EQ(connect_in(loop, c, sim.port_text(1), 5), zelcapi::connection_ok); }
};

TEST(EventLoop, TwoNotificationsInOneReadBothReachTheApplication) {
  trap_fixture f;
  f.sim.send_raw(1, zeltest::two_notifications(), false);
  ASSERT_TRUE(f.loop.run_until([&] { return f.h.received.size() == 2; }, 10s));
  EXPECT_EQ(f.h.events, (events{"status 1 '' 0", "handle 3 test.first", "handle 3 test.second"}));
}

TEST(EventLoop, ACallbackThatRaisesInTheMiddleOfABufferLeavesTheRestToTheNextStep) {
  trap_fixture f;
  int raised = 0;
  f.h.on_packet = [&](const packet& in, packet&) {
    if (in.get_name() == "test.first") throw std::runtime_error("application error");
  };
  f.sim.send_raw(1, zeltest::two_notifications(), false);
  ASSERT_TRUE(f.loop.run_until([&] { return f.h.received.size() == 2; }, 10s,
                               [&](std::exception_ptr) { ++raised; }));
  EXPECT_EQ(raised, 1);
  EXPECT_EQ(f.h.events, (events{"status 1 '' 0", "handle 3 test.first", "handle 3 test.second"}));
  EXPECT_FALSE(f.c.next_deadline().has_value());
}

TEST(EventLoop, TheDeadlineIsNowWhileInputWaitsInTheBuffer) {
  trap_fixture f;
  f.h.on_packet = [](const packet& in, packet&) {
    if (in.get_name() == "test.first") throw std::runtime_error("application error");
  };
  f.sim.send_raw(1, zeltest::two_notifications(), false);
  bool raised = false;
  ASSERT_TRUE(
      f.loop.run_until([&] { return raised; }, 10s, [&](std::exception_ptr) { raised = true; }));
  ASSERT_EQ(f.h.received.size(), 1u);
  const auto deadline = f.c.next_deadline();
  ASSERT_TRUE(deadline.has_value());
  EXPECT_LE(*deadline, std::chrono::steady_clock::now());
  f.c.step();
  EXPECT_EQ(f.h.received.size(), 2u);
}

TEST(EventLoop, OutputTheSocketDidNotTakeAskedForWritableAndTheLoopFlushesIt) {
  test_cluster sim(1, 1);
  sim.on("test.big", [](zelsim::request_context&, const packet& in, packet& out) {
    out.get_properties().set_int_value(
        "size", static_cast<std::int64_t>(in.get_properties().get_string_value("blob").size()));
    return true;
  });
  zelcapi::connection c;
  poll_loop loop(c);
  ASSERT_EQ(connect_in(loop, c, sim.port_text(1), 5), zelcapi::connection_ok);
  ASSERT_NO_FATAL_FAILURE(log_in(loop, c));
  const int changes_before = loop.watch_changes;
  packet request(packet::type_request, "test.big");
  request.get_properties().set_string_value("blob", std::string(32 << 20, 'x'));
  async_exchange big;
  c.send_async(request, 30, big.callback());
  // 32 MiB does not fit in the socket's buffers: the loop is told to wait for writable.
  ASSERT_FALSE(c.watched_files().empty());
  EXPECT_NE(c.watched_files()[0].events & zelnet::ioctrl::watch_writable, 0u);
  EXPECT_GT(loop.watch_changes, changes_before);
  ASSERT_TRUE(loop.run_until([&] { return big.ended; }, 60s));
  EXPECT_EQ(big.reply.get_properties().get_int_value("size"), 32 << 20);
  EXPECT_EQ(c.watched_files()[0].events, unsigned{zelnet::ioctrl::watch_readable});
}

}  // namespace
