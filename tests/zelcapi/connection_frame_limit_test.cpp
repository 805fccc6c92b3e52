// Frame limits of a connection: a small limit until the login has succeeded, the configured
// one afterwards, and the clear error of a frame above the limit in force.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <string>

#include "support/capture_sink.h"
#include "zelcapi/connection_test_support.h"
#include "zelnet/codec.h"

namespace {

using zelnet::zelp::packet;
using zeltest::recording_handler;
using zeltest::test_cluster;

// The 4-byte big-endian length that starts a frame announcing `length` bytes.
std::string frame_header(std::uint32_t length) {
  std::string h(4, '\0');
  for (int i = 0; i < 4; ++i) h[i] = static_cast<char>((length >> (24 - 8 * i)) & 0xff);
  return h;
}

// A notification whose encoding is a little more than `bytes` long.
packet notification_of_size(std::size_t bytes) {
  packet p(packet::type_notification, "bulk");
  p.get_properties().set_string_value("data", std::string(bytes, 'x'));
  return p;
}

std::size_t payload_size(const packet& p) {
  return zelnet::zelp::encode_packet_frame(p).size() - zelnet::zelp::frame_header_size;
}

// Runs the connection until the handler has recorded a packet or a disconnection (at most 10 s).
void run_until_event(zelcapi::connection& c, recording_handler& h) {
  const std::size_t before = h.events.size();
  for (int i = 0; i < 1000 && h.events.size() == before; ++i) c.wait(10);
}

bool dropped_for_limit(const zeltest::capture_sink& sink, std::size_t length, std::size_t limit) {
  const std::string text = "link dropped: frame of " + std::to_string(length) +
                           " bytes exceeds the limit of " + std::to_string(limit) + " bytes";
  const auto prints = sink.prints();
  return std::any_of(prints.begin(), prints.end(), [&](const zeltest::captured_print& p) {
    return p.category == "zelcapi::connection:error" && p.text == text;
  });
}

class FrameLimit : public testing::Test {
 protected:
  // The cluster sends a notification of about `bytes`; the connection must drop the link for
  // the limit `limit`.
  void expect_dropped(std::size_t bytes, std::size_t limit) {
    zeltest::capture_sink sink;
    h.events.clear();
    sim.broadcast(notification_of_size(bytes));
    run_until_event(c, h);
    EXPECT_FALSE(c.is_connected());
    EXPECT_EQ(h.events,
              (std::vector<std::string>{"status 16 '' 0", "disconnected 'Connection Closed' 0"}));
    EXPECT_TRUE(dropped_for_limit(sink, payload_size(notification_of_size(bytes)), limit));
  }

  void connect() {
    ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
    h.events.clear();
  }
  void login() {
    ASSERT_FALSE(
        c.login_sync("alice", "secret", "", "", 5, true).get_properties().is_present("error"));
    h.events.clear();
  }

  test_cluster sim{1, 1};
  recording_handler h;
  zelcapi::connection c{&h};
};

TEST_F(FrameLimit, DefaultsTo64MiBBeforeAndAfterLogin) {
  EXPECT_EQ(c.get_frame_limit(), zelnet::zelp::default_frame_limit);
  EXPECT_EQ(c.get_login_frame_limit(), zelnet::zelp::default_frame_limit);
}

TEST_F(FrameLimit, BeforeLoginAFrameAbove64MiBDropsTheLinkEvenWithALargeLimit) {
  c.set_frame_limit(std::size_t{1} << 30);
  connect();
  zeltest::capture_sink sink;
  // The announcement alone is refused: no payload needs to follow.
  sim.send_raw(1, frame_header((64u << 20) + 1), false);
  run_until_event(c, h);
  EXPECT_FALSE(c.is_connected());
  EXPECT_EQ(h.events,
            (std::vector<std::string>{"status 16 '' 0", "disconnected 'Connection Closed' 0"}));
  EXPECT_TRUE(dropped_for_limit(sink, (64u << 20) + 1, 64u << 20));
}

TEST_F(FrameLimit, BeforeLoginTheSmallerOfTheTwoLimitsApplies) {
  c.set_login_frame_limit(std::size_t{1} << 30);
  c.set_frame_limit(4096);
  connect();
  expect_dropped(8192, 4096);
}

TEST_F(FrameLimit, AfterLoginTheConfiguredLimitApplies) {
  c.set_login_frame_limit(1024);
  c.set_frame_limit(std::size_t{1} << 20);
  connect();
  login();
  sim.broadcast(notification_of_size(512 << 10));
  run_until_event(c, h);
  ASSERT_EQ(h.events, std::vector<std::string>{"handle 3 bulk"});
  EXPECT_EQ(h.received.back().get_properties().get_string_value("data").size(), 512u << 10);
  expect_dropped(2 << 20, 1 << 20);
}

TEST_F(FrameLimit, ALoginLimitRefusesFramesThatTheFullLimitWouldTake) {
  c.set_login_frame_limit(1024);
  connect();
  expect_dropped(2048, 1024);
}

TEST_F(FrameLimit, AStatusRequestDoesNotLiftTheLoginLimit) {
  c.set_login_frame_limit(1024);
  connect();
  ASSERT_FALSE(c.get_cluster_status().get_properties().is_present("error"));
  expect_dropped(2048, 1024);
}

TEST_F(FrameLimit, ANewLinkStartsWithTheLoginLimitAgain) {
  c.set_login_frame_limit(1024);
  connect();
  login();
  connect();
  expect_dropped(2048, 1024);
}

TEST_F(FrameLimit, RaisingTheLimitAppliesToTheLoggedInLink) {
  c.set_frame_limit(1024);
  connect();
  login();
  c.set_frame_limit(std::size_t{1} << 20);
  sim.broadcast(notification_of_size(4096));
  run_until_event(c, h);
  EXPECT_EQ(h.events, std::vector<std::string>{"handle 3 bulk"});
}

}  // namespace

namespace {

// A notification whose "data" holds 100 nests of 200 one-element lists each: about 80 bytes of
// heap per payload byte once decoded, and more than any payload's small allowance.
packet nested_lists_notification() {
  zelcore::property_ptr nest = zelcore::make_int(1);
  for (int level = 0; level < 200; ++level)
    nest =
        zelcore::property_ptr(new zelcore::property_list(zelcore::property_list::list_type{nest}));
  packet p(packet::type_notification, "nested");
  p.get_properties()["data"] = zelcore::property_ptr(
      new zelcore::property_list(zelcore::property_list::list_type(100, nest)));
  return p;
}

bool dropped_for_cap(const zeltest::capture_sink& sink, std::size_t length, std::size_t cap) {
  const std::string text = "link dropped: invalid packet: cannot decode property: a " +
                           std::to_string(length) + "-byte payload takes more than " +
                           std::to_string(cap) + " bytes of memory per payload byte";
  const auto prints = sink.prints();
  return std::any_of(prints.begin(), prints.end(), [&](const zeltest::captured_print& p) {
    return p.category == "zelcapi::connection:error" && p.text == text;
  });
}

}  // namespace

TEST_F(FrameLimit, APacketAboveTheDecodeCapDropsTheLinkWithBothFigures) {
  EXPECT_EQ(c.get_decode_cap(), 32u);
  connect();
  login();
  zeltest::capture_sink sink;
  sim.broadcast(nested_lists_notification());
  run_until_event(c, h);
  EXPECT_FALSE(c.is_connected());
  EXPECT_EQ(h.events,
            (std::vector<std::string>{"status 16 '' 0", "disconnected 'Connection Closed' 0"}));
  EXPECT_TRUE(dropped_for_cap(sink, payload_size(nested_lists_notification()), 32));
}

TEST_F(FrameLimit, ARaisedDecodeCapAdmitsTheSamePacketOnTheLiveLink) {
  connect();
  login();
  c.set_decode_cap(1024);
  EXPECT_EQ(c.get_decode_cap(), 1024u);
  sim.broadcast(nested_lists_notification());
  run_until_event(c, h);
  EXPECT_TRUE(c.is_connected());
  EXPECT_EQ(h.events, std::vector<std::string>{"handle 3 nested"});
}
