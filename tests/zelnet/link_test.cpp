// Links and the I/O controller over real loopback sockets, against a raw peer that writes and
// reads bytes exactly as the test says.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <utility>

#include "support/raw_peer.h"
#include "zelnet/link.h"

namespace {

using namespace zelnet::zelp;
using zeltest::raw_peer;
using zeltest::read_exactly;
using zeltest::write_all;

// The server half of the handshake on a raw socket.
void accept_hello(int fd) {
  read_exactly(fd, encode_hello_frame(protocol_version).size());
  write_all(fd, encode_hello_frame(protocol_version));
}

// A client link that keeps what it receives and ends the wait after `expected` packets.
class collecting_link : public client_link {
 public:
  collecting_link(zelnet::ioctrl& c, std::size_t expected) : client_link(c), expected_(expected) {}
  std::vector<packet> packets;
  bool established_seen = false;

 protected:
  bool packet_received(const packet& in, packet&) override {
    packets.push_back(in);
    if (packets.size() == expected_) get_controller().abort();
    return true;
  }
  void link_established() override {
    established_seen = true;
    get_controller().abort();
  }

 private:
  std::size_t expected_;
};

// Connects `link` to the peer and completes the handshake.
void connect_link(zelnet::ioctrl& c, collecting_link& link, const raw_peer& peer) {
  zelnet::socket_connector connector;
  ASSERT_TRUE(connector.create_connect("127.0.0.1", peer.port(), zelnet::socket_kind_tcp));
  link.set_file(connector.get_file());
  ASSERT_TRUE(c.watch(connector.get_file(), link, 0, true, true));
  ASSERT_TRUE(c.wait(5000));
  ASSERT_TRUE(link.established_seen);
}

packet numbered(int i, std::size_t text_size = 10) {
  packet p(3, "n");
  p.get_properties().set_int_value("i", i);
  p.get_properties().set_string_value("t", std::string(text_size, 'a' + i % 26));
  return p;
}

TEST(Link, PacketsWrittenOneByteAtATimeArriveWhole) {
  raw_peer peer([](int fd) {
    accept_hello(fd);
    std::string stream;
    for (int i = 0; i < 5; ++i) stream += encode_packet_frame(numbered(i));
    for (char byte : stream) {
      write_all(fd, std::string(1, byte));
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    read_exactly(fd, 1);
  });
  zelnet::ioctrl c(16000);
  collecting_link link(c, 5);
  connect_link(c, link, peer);
  EXPECT_TRUE(c.wait(10000));
  ASSERT_EQ(link.packets.size(), 5u);
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(link.packets[i].get_properties().get_int_value("i"), i);
  }
  c.clear();
}

TEST(Link, ManyPacketsInOneWriteAndOnePacketOverManyReads) {
  raw_peer peer([](int fd) {
    accept_hello(fd);
    std::string stream;
    for (int i = 0; i < 300; ++i) stream += encode_packet_frame(numbered(i));
    // Larger than the controller's read buffer: one packet spans many reads.
    stream += encode_packet_frame(numbered(300, 100000));
    write_all(fd, stream);
    read_exactly(fd, 1);
  });
  zelnet::ioctrl c(16000);
  collecting_link link(c, 301);
  connect_link(c, link, peer);
  EXPECT_TRUE(c.wait(10000));
  ASSERT_EQ(link.packets.size(), 301u);
  EXPECT_EQ(link.packets[299].get_properties().get_int_value("i"), 299);
  EXPECT_EQ(link.packets[300].get_properties().get_string_value("t").size(), 100000u);
  c.clear();
}

TEST(Link, PacketsAfterTheOneThatEndsTheWaitWaitForTheNextWait) {
  raw_peer peer([](int fd) {
    accept_hello(fd);
    // After the client's go (so that none of them comes with the hello), in one write, so that
    // all three arrive in the same read.
    read_exactly(fd, encode_packet_frame(numbered(99)).size());
    write_all(fd, encode_packet_frame(numbered(0)) + encode_packet_frame(numbered(1)) +
                      encode_packet_frame(numbered(2)));
    read_exactly(fd, 1);
  });
  zelnet::ioctrl c(16000);
  collecting_link link(c, 1);
  connect_link(c, link, peer);
  link.send(numbered(99));
  ASSERT_TRUE(c.wait(5000));
  // The waiter sees its packet before anything that the peer sent after it.
  ASSERT_EQ(link.packets.size(), 1u);
  EXPECT_TRUE(link.has_pending_input());
  EXPECT_FALSE(c.wait(200));
  ASSERT_EQ(link.packets.size(), 3u);
  EXPECT_EQ(link.packets[2].get_properties().get_int_value("i"), 2);
  EXPECT_FALSE(link.has_pending_input());
  c.clear();
}

TEST(Link, LargeSendIsWrittenAcrossPartialWrites) {
  // Far larger than what the kernel's socket buffers on both ends of a loopback connection can
  // hold (they grow to a few MiB each), so that the first write can only be partial.
  const packet big = numbered(1, 32 << 20);
  const std::string expected = encode_packet_frame(big);
  std::string received;
  std::atomic<bool> sent{false};
  {
    raw_peer peer([&received, &sent, size = expected.size()](int fd) {
      accept_hello(fd);
      // Nothing is read until send() has returned (or a failed test gave up): the sender must
      // meet a full socket buffer.
      const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(30);
      while (!sent && std::chrono::steady_clock::now() < give_up)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      received = read_exactly(fd, size);
    });
    zelnet::ioctrl c(16000);
    collecting_link link(c, 1);
    connect_link(c, link, peer);
    link.send(big);
    EXPECT_TRUE(link.wants_write());
    sent = true;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (link.wants_write() && std::chrono::steady_clock::now() < deadline) c.wait(10);
    EXPECT_FALSE(link.wants_write());
    c.clear();
  }
  EXPECT_TRUE(received == expected);
}

TEST(Ioctrl, WaitRunsOutWithoutAbortAndAbortEndsIt) {
  zelnet::ioctrl c(16);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(c.wait(100));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
  // An abort outside a wait does not end the next one early.
  c.abort();
  EXPECT_FALSE(c.wait(1));
}

TEST(Ioctrl, WatchRefusesClosedAndDuplicateFiles) {
  zelnet::ioctrl c(16);
  collecting_link link(c, 1);
  zelbase::file closed;
  EXPECT_FALSE(c.watch(closed, link, 0, false, false));
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  zelbase::file read_end(fds[0]);
  EXPECT_TRUE(c.watch(read_end, link, 0, false, true));
  EXPECT_TRUE(c.watches(read_end, link));
  EXPECT_FALSE(c.watch(read_end, link, 0, false, true));
  c.forget(read_end);
  EXPECT_FALSE(c.watches(read_end, link));
  ::close(fds[1]);
}

TEST(Ioctrl, ALongWaitPollsInSlicesBetweenTheHooks) {
  zelnet::ioctrl c(16);
  int before = 0;
  int after = 0;
  // The third slice ends the wait: without slices the wait would block for its full minute.
  c.set_blocking_hooks([&before] { ++before; },
                       [&after] {
                         if (++after == 3) throw std::runtime_error("enough");
                       },
                       10);
  EXPECT_THROW(c.wait(60000), std::runtime_error);
  EXPECT_EQ(before, 3);
  EXPECT_EQ(after, 3);
  // A wait until an event (serve_until) is sliced as well.
  after = 0;
  zelnet::ioctrl::timer_id never =
      c.add_timer(zelnet::ioctrl::clock::now() + std::chrono::hours(1), [] {});
  bool done = false;
  EXPECT_THROW(c.serve_until(done), std::runtime_error);
  EXPECT_EQ(after, 3);
  EXPECT_TRUE(c.cancel_timer(never));
}

TEST(Ioctrl, WhatTheAfterHookRaisesLeavesTheWaitAndTheInputWaitsForTheNextOne) {
  // The peer answers the client's packet: nothing is read before the hooks are set.
  raw_peer peer([](int fd) {
    accept_hello(fd);
    read_exactly(fd, encode_packet_frame(numbered(0)).size());
    write_all(fd, encode_packet_frame(numbered(1)));
    char byte;
    ::recv(fd, &byte, 1, 0);
  });
  zelnet::ioctrl c(16000);
  collecting_link link(c, 1);
  connect_link(c, link, peer);
  bool raise = true;
  c.set_blocking_hooks(
      {},
      [&raise] {
        if (std::exchange(raise, false)) throw std::runtime_error("interrupted");
      },
      10);
  link.send(numbered(0));
  EXPECT_THROW(c.wait(5000), std::runtime_error);
  EXPECT_TRUE(link.packets.empty());
  EXPECT_TRUE(c.wait(5000));
  ASSERT_EQ(link.packets.size(), 1u);
  EXPECT_EQ(link.packets[0].get_properties().get_int_value("i"), 1);
  c.clear();
}

}  // namespace

// A controller that keeps the files it is told it dropped, and ends the wait on each.
class counting_ioctrl : public zelnet::ioctrl {
 public:
  explicit counting_ioctrl(std::size_t read_buffer = 16) : ioctrl(read_buffer) {}
  std::vector<int> erased;

 protected:
  void erase(zelbase::file& f, hdlr&, unsigned) override {
    erased.push_back(f.descriptor());
    f.close();
    abort();
  }
};

TEST(Ioctrl, ClearCallsEraseForEveryWatchedFile) {
  counting_ioctrl c;
  collecting_link first(c, 1), second(c, 1);
  int a[2], b[2];
  ASSERT_EQ(::pipe(a), 0);
  ASSERT_EQ(::pipe(b), 0);
  zelbase::file fa(a[0]), fb(b[0]);
  ASSERT_TRUE(c.watch(fa, first, 0, false, true));
  ASSERT_TRUE(c.watch(fb, second, 0, false, true));
  c.clear();
  std::sort(c.erased.begin(), c.erased.end());
  EXPECT_EQ(c.erased, (std::vector<int>{std::min(a[0], b[0]), std::max(a[0], b[0])}));
  EXPECT_FALSE(c.watches(fa, first));
  EXPECT_FALSE(c.watches(fb, second));
  c.clear();
  EXPECT_EQ(c.erased.size(), 2u);
  ::close(a[1]);
  ::close(b[1]);
}

TEST(Ioctrl, PeerCloseBetweenFramesDropsTheLinkWithoutAFailure) {
  raw_peer peer([](int fd) { accept_hello(fd); });
  counting_ioctrl c;
  collecting_link link(c, 1);
  connect_link(c, link, peer);
  EXPECT_TRUE(c.wait(5000));
  EXPECT_EQ(c.erased.size(), 1u);
  EXPECT_EQ(link.failure(), "");
}

TEST(SocketConnector, OnlyTheTcpKindIsAccepted) {
  zelnet::socket_listener listener;
  listener.listen("127.0.0.1", "0");
  zelnet::socket_connector connector;
  EXPECT_FALSE(connector.create_connect("127.0.0.1", std::to_string(listener.port()), 17));
  EXPECT_FALSE(connector.get_file().is_open());
  EXPECT_EQ(connector.last_error(), "unsupported socket kind 17");
}

// A link whose callback raises on the first packet it gets.
class raising_link : public collecting_link {
 public:
  using collecting_link::collecting_link;
  bool raised = false;

 protected:
  bool packet_received(const packet& in, packet& out) override {
    if (!raised && is_established()) {
      raised = true;
      throw std::runtime_error("handler failed");
    }
    return collecting_link::packet_received(in, out);
  }
};

// The packets that came in the same read as the one whose callback raised are handled by the
// next wait, without the peer sending anything more.
TEST(Link, PacketsAfterACallbackThatRaisedAreHandledByTheNextWait) {
  raw_peer peer([](int fd) {
    accept_hello(fd);
    read_exactly(fd, 1);  // the client is connected: the packets come in a read of their own
    write_all(fd, encode_packet_frame(numbered(1)) + encode_packet_frame(numbered(2)) +
                      encode_packet_frame(numbered(3)));
    read_exactly(fd, 1);
  });
  zelnet::ioctrl c(16000);
  raising_link link(c, 2);
  connect_link(c, link, peer);
  write_all(link.get_file().descriptor(), "x");
  EXPECT_THROW(c.wait(5000), std::runtime_error);
  EXPECT_TRUE(link.raised);
  EXPECT_TRUE(link.packets.empty());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(c.wait(5000));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  ASSERT_EQ(link.packets.size(), 2u);
  EXPECT_EQ(link.packets[0].get_properties().get_int_value("i"), 2);
  EXPECT_EQ(link.packets[1].get_properties().get_int_value("i"), 3);
  c.clear();
}

namespace {

// A frame around any payload: its 4-byte big-endian length, then the bytes.
std::string raw_frame(const std::string& payload) {
  const auto n = static_cast<std::uint32_t>(payload.size());
  const char length[4] = {static_cast<char>(n >> 24), static_cast<char>(n >> 16),
                          static_cast<char>(n >> 8), static_cast<char>(n)};
  return std::string(length, 4) + payload;
}

// A link that writes down, in order, each packet announced ahead and each packet handled; the
// packet numbered `limit_on` sets the frame limit to `new_limit` while it is handled.
class ahead_recording_link : public collecting_link {
 public:
  using collecting_link::collecting_link;
  std::vector<std::string> events;
  int limit_on = -1;
  std::size_t new_limit = 0;

 protected:
  void packet_ahead(const packet& next) override {
    events.push_back("ahead " + std::to_string(next.get_properties().get_int_value("i")));
  }
  bool packet_received(const packet& in, packet& out) override {
    const std::int64_t i = in.get_properties().get_int_value("i");
    events.push_back("handle " + std::to_string(i));
    if (i == limit_on) set_frame_limit(new_limit);
    return collecting_link::packet_received(in, out);
  }
};

// The peer's script for the tests below: the hello, then `bytes` in one write once the client
// has sent its go (one byte), so that they all arrive in one read.
raw_peer peer_writing_at_once(std::string bytes) {
  return raw_peer([bytes](int fd) {
    accept_hello(fd);
    read_exactly(fd, 1);
    write_all(fd, bytes);
    read_exactly(fd, 1);
  });
}

}  // namespace

TEST(Link, APacketReadWithTheOneBeforeItIsAnnouncedBeforeThatOneIsHandled) {
  raw_peer peer =
      peer_writing_at_once(encode_packet_frame(numbered(0)) + encode_packet_frame(numbered(1)) +
                           encode_packet_frame(numbered(2)));
  zelnet::ioctrl c(16000);
  ahead_recording_link link(c, 3);
  connect_link(c, link, peer);
  write_all(link.get_file().descriptor(), "x");
  ASSERT_TRUE(c.wait(5000));
  EXPECT_EQ(link.events,
            (std::vector<std::string>{"ahead 1", "handle 0", "ahead 2", "handle 1", "handle 2"}));
  c.clear();
}

TEST(Link, AFrameThatIsNoPacketDropsTheLinkOnlyAfterThePacketBeforeItIsHandled) {
  raw_peer peer = peer_writing_at_once(encode_packet_frame(numbered(0)) + raw_frame("\xc1"));
  counting_ioctrl c(16000);
  ahead_recording_link link(c, 5);
  connect_link(c, link, peer);
  write_all(link.get_file().descriptor(), "x");
  EXPECT_TRUE(c.wait(5000));
  EXPECT_EQ(link.events, std::vector<std::string>{"handle 0"});
  EXPECT_EQ(c.erased.size(), 1u);
  EXPECT_NE(link.failure(), "");
}

TEST(Link, ALimitLoweredWhileAPacketIsHandledRefusesTheLargerFrameDecodedAheadOfIt) {
  const std::string second = encode_packet_frame(numbered(1, 1000));
  raw_peer peer = peer_writing_at_once(encode_packet_frame(numbered(0)) + second);
  counting_ioctrl c(16000);
  ahead_recording_link link(c, 5);
  link.limit_on = 0;
  link.new_limit = 100;
  connect_link(c, link, peer);
  write_all(link.get_file().descriptor(), "x");
  EXPECT_TRUE(c.wait(5000));
  EXPECT_EQ(link.events, (std::vector<std::string>{"ahead 1", "handle 0"}));
  EXPECT_EQ(c.erased.size(), 1u);
  EXPECT_EQ(link.failure(), "frame of " + std::to_string(second.size() - 4) +
                                " bytes exceeds the limit of 100 bytes");
}

TEST(Link, ALimitRaisedWhileAPacketIsHandledAdmitsTheLargerFrameAfterIt) {
  raw_peer peer = peer_writing_at_once(encode_packet_frame(numbered(0)) +
                                       encode_packet_frame(numbered(1, 5000)) +
                                       encode_packet_frame(numbered(2)));
  zelnet::ioctrl c(16000);
  ahead_recording_link link(c, 3);
  link.set_frame_limit(1000);
  link.limit_on = 0;
  link.new_limit = 10000;
  connect_link(c, link, peer);
  write_all(link.get_file().descriptor(), "x");
  ASSERT_TRUE(c.wait(5000));
  // The large frame was above the limit when the first packet was handled: it is not decoded
  // ahead, and is admitted under the raised limit.
  EXPECT_EQ(link.events, (std::vector<std::string>{"handle 0", "ahead 2", "handle 1", "handle 2"}));
  EXPECT_EQ(link.failure(), "");
  c.clear();
}
