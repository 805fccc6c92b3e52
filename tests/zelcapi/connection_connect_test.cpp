// Connecting and disconnecting: statuses, reasons, version mismatch, lost links, and hostile
// peers, against a simulated cluster on loopback.
#include <gtest/gtest.h>

#include <fcntl.h>

#include <chrono>
#include <stdexcept>

#include "support/capture_sink.h"
#include "support/raw_peer.h"
#include "zelbase/exceptions.h"
#include "zelcapi/connection_test_support.h"
#include "zelnet/codec.h"
#include "zelnet/socket.h"

namespace {

using zeltest::recording_handler;
using zeltest::test_cluster;
using events = std::vector<std::string>;

// A port on which nothing listens: bound once, then closed.
std::string dead_port() {
  zelnet::socket_listener l;
  l.listen("127.0.0.1", "0");
  return std::to_string(l.port());
}

TEST(Connection, NewConnectionDefaults) {
  zelcapi::connection c;
  EXPECT_EQ(c.get_timeout(), 15u);
  EXPECT_EQ(c.this_version(), 2u);
  EXPECT_EQ(c.server_version(), 0u);
  EXPECT_FALSE(c.is_connected());
  EXPECT_EQ(c.get_host(), "");
  c.set_timeout(3);
  EXPECT_EQ(c.get_timeout(), 3u);
}

TEST(Connection, ConnectReportsConnectionOk) {
  test_cluster sim;
  recording_handler h;
  zelcapi::connection c(&h);
  EXPECT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  EXPECT_TRUE(c.is_connected());
  EXPECT_EQ(c.get_host(), "127.0.0.1");
  EXPECT_EQ(c.get_port(), sim.port_text(1));
  EXPECT_EQ(c.this_version(), 2u);
  EXPECT_EQ(h.events, (events{"status 1 '' 0"}));
}

TEST(Connection, ConnectWhileConnectedDisconnectsFirst) {
  test_cluster sim;
  recording_handler h;
  zelcapi::connection c(&h);
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  zeltest::capture_sink sink;
  EXPECT_EQ(c.connect("127.0.0.1", sim.port_text(2), 5), zelcapi::connection_ok);
  EXPECT_EQ(h.events, (events{"status 1 '' 0", "status 15 '' 0",
                              "disconnected 'Already connected' 1", "status 1 '' 0"}));
  const auto reports = sink.reports();
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].message, "Disconnect. Reason: Already connected. Reconnecting: TRUE");
  EXPECT_EQ(reports[0].file, "code\\app\\common\\shared\\zelcapi\\src\\api");
  EXPECT_EQ(reports[0].category, "connection");
  EXPECT_EQ(reports[0].record_kind, 8u);
  EXPECT_EQ(reports[0].record_severity, 6u);
  EXPECT_EQ(c.get_port(), sim.port_text(2));
}

TEST(Connection, DisconnectTellsTheHandlerThroughErase) {
  test_cluster sim;
  recording_handler h;
  zelcapi::connection c(&h);
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  zeltest::capture_sink sink;
  c.disconnect("done", false);
  EXPECT_FALSE(c.is_connected());
  EXPECT_EQ(h.events, (events{"status 1 '' 0", "status 15 '' 0", "disconnected 'done' 0"}));
  EXPECT_EQ(sink.messages(), (std::vector<std::string>{"Disconnect. Reason: done. "
                                                       "Reconnecting: FALSE"}));
}

TEST(Connection, DisconnectWithoutLinkOnlyLogs) {
  recording_handler h;
  zelcapi::connection c(&h);
  zeltest::capture_sink sink;
  c.disconnect("nothing", true);
  EXPECT_TRUE(h.events.empty());
  EXPECT_EQ(sink.messages(),
            (std::vector<std::string>{"Disconnect. Reason: nothing. Reconnecting: TRUE"}));
}

TEST(Connection, DisconnectWithoutLinkStoresTheReasonForTheNextLinkEnd) {
  test_cluster sim;
  recording_handler h;
  zelcapi::connection c(&h);
  c.disconnect("nothing", true);
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  sim.close_links(1);
  EXPECT_TRUE(c.wait(5000));
  EXPECT_EQ(h.events, (events{"status 1 '' 0", "status 15 '' 0", "disconnected 'nothing' 1"}));
  // The erase reset them: the next link's end is the peer's again.
  h.events.clear();
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  sim.close_links(1);
  EXPECT_TRUE(c.wait(5000));
  EXPECT_EQ(h.events,
            (events{"status 1 '' 0", "status 16 '' 0", "disconnected 'Connection Closed' 0"}));
}

TEST(Connection, PeerCloseReportsConnectionClosed) {
  test_cluster sim;
  recording_handler h;
  zelcapi::connection c(&h);
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  zeltest::capture_sink sink;
  sim.close_links(1);
  EXPECT_TRUE(c.wait(5000));
  EXPECT_FALSE(c.is_connected());
  EXPECT_EQ(h.events,
            (events{"status 1 '' 0", "status 16 '' 0", "disconnected 'Connection Closed' 0"}));
  // A clean close between frames is no failure of the link: no debug line.
  EXPECT_TRUE(sink.prints().empty());
}

TEST(Connection, AHandlerThatRaisesWhenTheLinkEndsLeavesTheLinkClosed) {
  test_cluster sim;
  recording_handler h;
  h.on_disconnected = [] { throw std::runtime_error("application error"); };
  zelcapi::connection c(&h);
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  const int descriptor = c.watched_files().at(0).descriptor;
  sim.close_links(1);
  EXPECT_THROW(c.wait(5000), std::runtime_error);
  EXPECT_FALSE(c.is_connected());
  EXPECT_EQ(::fcntl(descriptor, F_GETFD), -1);
  EXPECT_EQ(h.events,
            (events{"status 1 '' 0", "status 16 '' 0", "disconnected 'Connection Closed' 0"}));
  h.on_disconnected = nullptr;
  EXPECT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
}

TEST(Connection, RefusedProtocolVersionGivesServerVersion) {
  test_cluster sim;
  sim.set_protocol_version(1, 3);
  recording_handler h;
  zelcapi::connection c(&h);
  zeltest::capture_sink sink;
  EXPECT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::wrong_protocol_version);
  EXPECT_EQ(c.server_version(), 3u);
  EXPECT_FALSE(c.is_connected());
  EXPECT_EQ(h.events,
            (events{"status 16 '' 0", "disconnected 'Connection Closed' 0", "status 2 '' 0"}));
  const auto prints = sink.prints();
  ASSERT_EQ(prints.size(), 1u);
  EXPECT_EQ(prints[0].category, "zelcapi::connection:error");
  EXPECT_EQ(prints[0].text,
            "link dropped: protocol version mismatch: the server speaks version 3, this client "
            "version 2");
  EXPECT_EQ(sink.messages(),
            (std::vector<std::string>{
                "Disconnect. Reason: connection closed while connecting. Reconnecting: FALSE"}));
  EXPECT_EQ(c.this_version(), 2u);
  // The next link starts afresh.
  sim.set_protocol_version(1, 2);
  EXPECT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  EXPECT_EQ(c.server_version(), 0u);
}

TEST(Connection, NobodyListeningFails) {
  recording_handler h;
  zelcapi::connection c(&h);
  EXPECT_EQ(c.connect("127.0.0.1", dead_port(), 5), zelcapi::connection_failed);
  EXPECT_FALSE(c.is_connected());
  ASSERT_FALSE(h.events.empty());
  EXPECT_EQ(h.events.back(), "status 3 '' 0");
}

TEST(Connection, UnresolvableHostFailsToConnect) {
  recording_handler h;
  zelcapi::connection c(&h);
  zeltest::capture_sink sink;
  EXPECT_EQ(c.connect("no-such-host.invalid", "7000", 5), zelcapi::connection_failed);
  EXPECT_EQ(h.events, (events{"status 3 '' 0"}));
  EXPECT_EQ(sink.messages(),
            (std::vector<std::string>{"Disconnect. Reason: Failed to connect. Reconnecting: "
                                      "FALSE"}));
}

TEST(Connection, SilentPeerTimesOut) {
  test_cluster sim;
  sim.set_stalled(1, true);
  recording_handler h;
  zelcapi::connection c(&h);
  EXPECT_EQ(c.connect("127.0.0.1", sim.port_text(1), 1), zelcapi::connection_timeout);
  EXPECT_FALSE(c.is_connected());
  EXPECT_EQ(h.events, (events{"status 15 '' 0", "disconnected 'timed out' 0", "status 4 '' 0"}));
  sim.set_stalled(1, false);
  EXPECT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
}

TEST(Connection, SetHandlerReachesTheLiveLink) {
  test_cluster sim;
  recording_handler first, second;
  zelcapi::connection c(&first);
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  c.set_handler(&second);
  sim.broadcast(zelnet::zelp::packet(3, "note"));
  second.on_packet = [&c](const zelnet::zelp::packet&, zelnet::zelp::packet&) { c.abort(); };
  EXPECT_TRUE(c.wait(5000));
  EXPECT_EQ(second.events, (events{"handle 3 note"}));
  EXPECT_EQ(first.events, (events{"status 1 '' 0"}));
}

TEST(Connection, DestructionDisconnectsWithRemovingConnection) {
  test_cluster sim;
  recording_handler h;
  {
    zelcapi::connection c(&h);
    ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  }
  EXPECT_EQ(h.events,
            (events{"status 1 '' 0", "status 15 '' 0", "disconnected 'removing connection' 0"}));
}

TEST(Connection, HandlerExceptionDuringConnectFailsTheConnect) {
  // The server's hello and a notification arrive in one read inside connect's wait.
  zeltest::raw_peer peer([](int fd) {
    zeltest::read_exactly(fd, zelnet::zelp::encode_hello_frame(2).size());
    zeltest::write_all(fd, zelnet::zelp::encode_hello_frame(2) +
                               zelnet::zelp::encode_packet_frame(zelnet::zelp::packet(3, "n")));
    zeltest::read_exactly(fd, 1);
  });
  recording_handler h;
  h.on_packet = [](const zelnet::zelp::packet&, zelnet::zelp::packet&) {
    zelbase::es::arg::raise("test", 1, "bad packet");
  };
  zelcapi::connection c(&h);
  zeltest::capture_sink sink;
  EXPECT_EQ(c.connect("127.0.0.1", peer.port(), 5), zelcapi::connection_failed);
  EXPECT_FALSE(c.is_connected());
  EXPECT_EQ(h.events,
            (events{"handle 3 n", "status 15 '' 0", "disconnected 'exception: bad packet' 0",
                    "status 3 'bad packet' 0"}));
  const auto prints = sink.prints();
  ASSERT_EQ(prints.size(), 1u);
  EXPECT_EQ(prints[0].category, "zelcapi::connect:error");
  EXPECT_EQ(prints[0].text, "bad packet");
}

// A hostile peer sends `bytes` on an established link (and closes when asked); the link must
// drop, saying `reason` in a debug line, and the connection must connect again.
void expect_dropped_with(const std::string& bytes, bool then_close, const std::string& reason) {
  test_cluster sim;
  recording_handler h;
  zelcapi::connection c(&h);
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  zeltest::capture_sink sink;
  sim.send_raw(1, bytes, then_close);
  EXPECT_TRUE(c.wait(5000));
  EXPECT_FALSE(c.is_connected());
  EXPECT_EQ(h.events,
            (events{"status 1 '' 0", "status 16 '' 0", "disconnected 'Connection Closed' 0"}));
  const auto prints = sink.prints();
  ASSERT_EQ(prints.size(), 1u);
  EXPECT_EQ(prints[0].category, "zelcapi::connection:error");
  EXPECT_EQ(prints[0].text, "link dropped: " + reason);
  ASSERT_NO_FATAL_FAILURE(zeltest::connect_and_log_in(c, sim));
  zelnet::zelp::packet ping(2, "echo");
  ping.get_properties().set_int_value("n", 7);
  EXPECT_EQ(c.send_sync(ping, 5).get_properties().get_int_value("n"), 7);
}

TEST(HostilePeer, OversizedLengthDropsTheLink) {
  expect_dropped_with(std::string("\xff\xff\xff\xff", 4), false,
                      "frame of 4294967295 bytes exceeds the limit of 67108864 bytes");
}

TEST(HostilePeer, LengthJustAboveTheLimitDropsTheLink) {
  expect_dropped_with(std::string("\x04\x00\x00\x01", 4), false,
                      "frame of 67108865 bytes exceeds the limit of 67108864 bytes");
}

TEST(HostilePeer, TruncatedFrameThenCloseDropsTheLink) {
  expect_dropped_with(std::string("\x00\x00\x00\x10"
                                  "abc",
                                  7),
                      true,
                      "the peer closed the connection in the middle of a frame (7 of 20 bytes "
                      "received)");
}

TEST(HostilePeer, CloseInsideTheLengthDropsTheLink) {
  expect_dropped_with(std::string("\x00\x00", 2), true,
                      "the peer closed the connection in the middle of a frame (2 of 4 bytes "
                      "received)");
}

TEST(HostilePeer, InvalidMessagePackDropsTheLink) {
  expect_dropped_with(std::string("\x00\x00\x00\x01\xc1", 5), false,
                      "invalid packet: cannot decode property: malformed input at byte 0");
}

TEST(HostilePeer, MapInsteadOfPacketArrayDropsTheLink) {
  expect_dropped_with(std::string("\x00\x00\x00\x01\x80", 5), false,
                      "invalid packet: expected an array of 3 elements, got a properties");
}

TEST(HostilePeer, PacketWithNumericNameDropsTheLink) {
  expect_dropped_with(std::string("\x00\x00\x00\x04\x93\x02\x05\x80", 8), false,
                      "invalid packet: the name is a int, not a string");
}

TEST(HostilePeer, PacketWithListPropertiesDropsTheLink) {
  expect_dropped_with(std::string("\x00\x00\x00\x05\x93\x03\xa1n\x90", 9), false,
                      "invalid packet: the properties are a list, not a map");
}

// A peer that answers the client's hello with `answer` (and then closes) fails the connect
// quickly, without waiting for the time-out, and says why in a debug line.
void expect_connect_refused(const std::string& answer, const std::string& reason) {
  zeltest::raw_peer peer([&answer](int fd) {
    zeltest::read_exactly(fd, zelnet::zelp::encode_hello_frame(2).size());
    zeltest::write_all(fd, answer);
  });
  recording_handler h;
  zelcapi::connection c(&h);
  zeltest::capture_sink sink;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(c.connect("127.0.0.1", peer.port(), 5), zelcapi::connection_failed);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
  EXPECT_FALSE(c.is_connected());
  EXPECT_EQ(c.server_version(), 0u);
  EXPECT_EQ(h.events,
            (events{"status 16 '' 0", "disconnected 'Connection Closed' 0", "status 3 '' 0"}));
  const auto prints = sink.prints();
  ASSERT_EQ(prints.size(), 1u);
  EXPECT_EQ(prints[0].text, "link dropped: " + reason);
}

TEST(HostilePeer, PacketInsteadOfTheHelloFailsTheConnect) {
  expect_connect_refused(zelnet::zelp::encode_packet_frame(zelnet::zelp::packet(4, "x")),
                         "invalid hello: expected an array of 2 elements, got 3");
}

TEST(HostilePeer, CloseBeforeTheHelloFailsTheConnect) {
  expect_connect_refused("", "the peer closed the connection during the handshake");
}

}  // namespace
