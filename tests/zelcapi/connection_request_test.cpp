// The request/reply exchange: send, send_no_wait, send_sync, the sync slot, late replies,
// replies of other names, and receiving through run.
#include <gtest/gtest.h>

#include "support/capture_sink.h"
#include "support/raised_message.h"
#include "zelbase/exceptions.h"
#include "zelcapi/connection_test_support.h"

namespace {

using zelnet::zelp::packet;
using zeltest::recording_handler;
using zeltest::test_cluster;
using events = std::vector<std::string>;

template <class F>
std::string uspec_message(F f) {
  return zeltest::raised_message<zelbase::es::uspec>(f);
}

// Requests named "hold" get no answer; the test sends the reply later with broadcast.
void install_hold(zelsim::cluster& sim) {
  sim.on("hold", [](zelsim::request_context&, const packet&, packet&) { return false; });
}

packet request(const std::string& name, std::int64_t n) {
  packet p(2, name);
  p.get_properties().set_int_value("n", n);
  return p;
}

TEST(SendSync, ReturnsTheReplyOfTheSameName) {
  test_cluster sim(1, 1);
  recording_handler h;
  zelcapi::connection c(&h);
  ASSERT_NO_FATAL_FAILURE(zeltest::connect_and_log_in(c, sim));
  const packet& reply = c.send_sync(request("echo", 42), 5);
  EXPECT_EQ(reply.get_type(), 4);
  EXPECT_EQ(reply.get_name(), "echo");
  EXPECT_EQ(reply.get_properties().get_int_value("n"), 42);
  EXPECT_EQ(&reply, &c.get_sync_packet());
  c.set_timeout(5);
  EXPECT_EQ(c.send_sync(request("echo", 43)).get_properties().get_int_value("n"), 43);
  EXPECT_EQ(h.events, (events{"status 1 '' 0", "status 5 'node-1' 1"}));
}

TEST(SendSync, BounceTreeComesBackInTheReply) {
  test_cluster sim(1, 1);
  zelcapi::connection c;
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  packet p(2, "cluster.client.cluster-status");
  zelcore::properties bounce;
  bounce.set_int_value("request-id", 17);
  p.get_properties().set_properties_value(packet::bounce_property_id(), bounce);
  const packet& reply = c.send_sync(p, 5);
  EXPECT_EQ(reply.get_properties()
                .get_properties_value(packet::bounce_property_id())
                .get_int_value("request-id"),
            17);
}

TEST(SendSync, WithoutConnectionRaisesNoConnection) {
  zelcapi::connection c;
  zeltest::capture_sink sink;
  EXPECT_EQ(uspec_message([&] { c.send_sync(request("echo", 1), 1); }), "No connection");
  EXPECT_EQ(uspec_message([&] { c.send(request("echo", 1)); }), "No connection");
  EXPECT_EQ(uspec_message([&] { c.send_no_wait(request("echo", 1)); }), "No connection");
  const auto reports = sink.reports();
  ASSERT_EQ(reports.size(), 3u);
  for (const auto& r : reports) {
    EXPECT_EQ(r.message, "No connection");
    EXPECT_EQ(r.category, "zelcapi");
    EXPECT_EQ(r.record_kind, 3u);
    EXPECT_EQ(r.record_severity, 3u);
  }
}

TEST(SendSync, TimeOutRaisesAndKeepsTheConnection) {
  test_cluster sim(1, 1);
  install_hold(sim);
  zelcapi::connection c;
  ASSERT_NO_FATAL_FAILURE(zeltest::connect_and_log_in(c, sim));
  zeltest::capture_sink sink;
  EXPECT_EQ(uspec_message([&] { c.send_sync(request("hold", 1), 1); }), "Connection timeout");
  const auto reports = sink.reports();
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].message, "Connection timeout");
  EXPECT_EQ(reports[0].file, "code\\app\\common\\shared\\zelcapi\\src\\api");
  EXPECT_EQ(reports[0].category, "zelcapi");
  EXPECT_EQ(reports[0].record_kind, 3u);
  EXPECT_EQ(reports[0].record_severity, 4u);
  EXPECT_TRUE(c.is_connected());
  EXPECT_EQ(c.get_sync_packet().get_type(), 2);
}

TEST(SendSync, LateReplyIsTakenAtTheNextWait) {
  test_cluster sim(1, 1);
  install_hold(sim);
  recording_handler h;
  zelcapi::connection c(&h);
  ASSERT_NO_FATAL_FAILURE(zeltest::connect_and_log_in(c, sim));
  EXPECT_EQ(uspec_message([&] { c.send_sync(request("hold", 1), 1); }), "Connection timeout");
  packet late(4, "hold");
  late.get_properties().set_string_value("late", "yes");
  sim.broadcast(late);
  EXPECT_TRUE(c.wait(5000));
  EXPECT_EQ(c.get_sync_packet().get_type(), 4);
  EXPECT_EQ(c.get_sync_packet().get_properties().get_string_value("late"), "yes");
  EXPECT_EQ(h.events, (events{"status 1 '' 0", "status 5 'node-1' 1"}));
}

TEST(SendSync, ReplyWithAnotherNameGoesToTheHandler) {
  test_cluster sim(1, 1);
  sim.on("ask", [](zelsim::request_context& r, const packet&, packet& reply) {
    r.sim.broadcast(packet(4, "other"));
    reply.get_properties().set_string_value("answer", "yes");
    return true;
  });
  recording_handler h;
  zelcapi::connection c(&h);
  ASSERT_NO_FATAL_FAILURE(zeltest::connect_and_log_in(c, sim));
  const packet& reply = c.send_sync(request("ask", 1), 5);
  EXPECT_EQ(reply.get_name(), "ask");
  EXPECT_EQ(reply.get_properties().get_string_value("answer"), "yes");
  EXPECT_EQ(h.events, (events{"status 1 '' 0", "status 5 'node-1' 1", "handle 4 other"}));
}

TEST(SendSync, NotificationOfTheSameNameIsNotTheReply) {
  test_cluster sim(1, 1);
  sim.on("ask", [](zelsim::request_context& r, const packet&, packet&) {
    r.sim.broadcast(packet(3, "ask"));
    r.sim.broadcast(packet(4, "ask"));
    return false;
  });
  recording_handler h;
  zelcapi::connection c(&h);
  ASSERT_NO_FATAL_FAILURE(zeltest::connect_and_log_in(c, sim));
  EXPECT_EQ(c.send_sync(request("ask", 1), 5).get_type(), 4);
  EXPECT_EQ(h.events, (events{"status 1 '' 0", "status 5 'node-1' 1", "handle 3 ask"}));
}

TEST(SendSync, LinkLostRaisesConnectionError) {
  test_cluster sim(1, 1);
  sim.drop_links_on("drop");
  recording_handler h;
  zelcapi::connection c(&h);
  ASSERT_NO_FATAL_FAILURE(zeltest::connect_and_log_in(c, sim));
  zeltest::capture_sink sink;
  EXPECT_EQ(uspec_message([&] { c.send_sync(request("drop", 1), 5); }), "Connection error");
  EXPECT_FALSE(c.is_connected());
  EXPECT_EQ(h.events, (events{"status 1 '' 0", "status 5 'node-1' 1", "status 16 '' 0",
                              "disconnected 'Connection Closed' 0"}));
  ASSERT_FALSE(sink.reports().empty());
  EXPECT_EQ(sink.reports().back().message, "Connection error");
  EXPECT_EQ(sink.reports().back().record_severity, 4u);
}

TEST(Send, WhileASyncReplyIsOutstandingTheReplyGoesToTheHandler) {
  test_cluster sim(1, 1);
  install_hold(sim);
  recording_handler h;
  zelcapi::connection c(&h);
  ASSERT_NO_FATAL_FAILURE(zeltest::connect_and_log_in(c, sim));
  EXPECT_EQ(uspec_message([&] { c.send_sync(request("hold", 1), 1); }), "Connection timeout");
  c.send(packet(3, "note"));
  h.on_packet = [&c](const packet&, packet&) { c.abort(); };
  sim.broadcast(packet(4, "hold"));
  EXPECT_TRUE(c.wait(5000));
  EXPECT_EQ(h.events, (events{"status 1 '' 0", "status 5 'node-1' 1", "handle 4 hold"}));
  EXPECT_EQ(c.get_sync_packet().get_type(), 2);
}

TEST(Send, SendNoWaitDeliversAndRepliesReachTheHandler) {
  test_cluster sim(1, 1);
  recording_handler h;
  zelcapi::connection c(&h);
  ASSERT_NO_FATAL_FAILURE(zeltest::connect_and_log_in(c, sim));
  h.on_packet = [&c](const packet&, packet&) { c.abort(); };
  c.send_no_wait(request("echo", 5));
  EXPECT_TRUE(c.wait(5000));
  ASSERT_EQ(h.received.size(), 1u);
  EXPECT_EQ(h.received[0].get_properties().get_int_value("n"), 5);
}

TEST(Send, SendRunsPendingWorkOnceAndSendNoWaitDoesNot) {
  test_cluster sim(1, 1);
  recording_handler h;
  zelcapi::connection c(&h);
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  // The node has written the tick when broadcast returns; over loopback it is then in the
  // client's socket buffer, unread until something waits on the connection.
  sim.broadcast(packet(3, "tick"));
  c.send_no_wait(packet(3, "note"));
  EXPECT_EQ(h.events, (events{"status 1 '' 0"}));
  c.send(packet(3, "note"));
  EXPECT_EQ(h.events, (events{"status 1 '' 0", "handle 3 tick"}));
}

TEST(Send, HandlerOutPacketIsSentBack) {
  test_cluster sim(1, 1);
  std::vector<std::int64_t> seen;
  sim.on("pong", [&seen](zelsim::request_context&, const packet& in, packet&) {
    seen.push_back(in.get_properties().get_int_value("n"));
    return false;
  });
  recording_handler h;
  h.on_packet = [](const packet&, packet& out) { out = request("pong", 9); };
  zelcapi::connection c(&h);
  ASSERT_NO_FATAL_FAILURE(zeltest::connect_and_log_in(c, sim));
  sim.broadcast(packet(3, "ping"));
  EXPECT_FALSE(c.wait(300));
  // The pong is answered with nothing, so an echo round trip proves it arrived first.
  c.send_sync(request("echo", 1), 5);
  EXPECT_EQ(seen, (std::vector<std::int64_t>{9}));
}

TEST(SyncPacket, SetAndGetCopyTheSlot) {
  zelcapi::connection c;
  c.set_sync_packet(request("x", 3));
  EXPECT_EQ(c.get_sync_packet().get_name(), "x");
  EXPECT_EQ(c.get_sync_packet().get_properties().get_int_value("n"), 3);
}

TEST(Run, DeliversNotificationsUntilStopped) {
  test_cluster sim(1, 1);
  recording_handler h;
  zelcapi::connection c(&h);
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  volatile bool stop = false;
  h.on_packet = [&stop, &h](const packet&, packet&) { stop = h.received.size() == 3; };
  for (int i = 0; i < 3; ++i) sim.broadcast(packet(3, "tick"));
  c.run(stop);
  EXPECT_EQ(h.received.size(), 3u);
}

TEST(Run, LateReplyTakenWhileRunningDoesNotStopDelivery) {
  test_cluster sim(1, 1);
  install_hold(sim);
  recording_handler h;
  zelcapi::connection c(&h);
  ASSERT_NO_FATAL_FAILURE(zeltest::connect_and_log_in(c, sim));
  EXPECT_EQ(uspec_message([&] { c.send_sync(request("hold", 1), 1); }), "Connection timeout");
  volatile bool stop = false;
  // "last" is sent only once "tick" is in, so it arrives in a later read of the run.
  h.on_packet = [&stop, &sim](const packet& in, packet&) {
    if (in.get_name() == "tick") sim.broadcast(packet(3, "last"));
    stop = in.get_name() == "last";
  };
  sim.broadcast(packet(4, "hold"));
  sim.broadcast(packet(3, "tick"));
  c.run(stop);
  EXPECT_EQ(c.get_sync_packet().get_type(), 4);
  EXPECT_EQ(h.events,
            (events{"status 1 '' 0", "status 5 'node-1' 1", "handle 3 tick", "handle 3 last"}));
}

}  // namespace
