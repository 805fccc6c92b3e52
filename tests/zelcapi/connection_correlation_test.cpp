// Replies to send_async are found by the request id that travels in the bounce tree: a late
// reply never ends another request of the same name, replies end their own requests in any
// order, and the caller's bounce tree comes back as sent. The synchronous exchange keeps
// matching by name, and never takes a reply that answers an asynchronous request.
#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <vector>

#include "support/raised_message.h"
#include "zelbase/exceptions.h"
#include "zelcapi/connection_test_support.h"

namespace {

using zelnet::zelp::packet;
using zeltest::async_exchange;
using zeltest::recording_handler;
using zeltest::test_cluster;
using namespace std::chrono_literals;

// Requests named "test.held" get no answer; the node keeps their bounce trees so that the test
// can answer each one later, in any order, with a reply that carries it.
class held_requests {
 public:
  explicit held_requests(zelsim::cluster& sim) {
    sim.on("test.held", [this](zelsim::request_context&, const packet& in, packet&) {
      keep(in);
      return false;
    });
  }
  void keep(const packet& request) {
    std::lock_guard<std::mutex> hold(lock_);
    bounces_.push_back(request.get_properties().get_property(packet::bounce_property_id()));
  }
  std::size_t count() {
    std::lock_guard<std::mutex> hold(lock_);
    return bounces_.size();
  }
  // The reply to the n-th held request (from 0), carrying "answer" = `answer`.
  packet reply(std::size_t n, std::int64_t answer) {
    std::lock_guard<std::mutex> hold(lock_);
    packet p(packet::type_reply, "test.held");
    p.set_property(packet::bounce_property_id(), bounces_.at(n));
    p.get_properties().set_int_value("answer", answer);
    return p;
  }

 private:
  std::mutex lock_;
  std::vector<zelcore::property_ptr> bounces_;
};

// Waits on the connection until `done` or ten seconds passed; false on the time.
template <class F>
bool serve(zelcapi::connection& c, F done) {
  return zeltest::serve_until({&c}, done);
}

struct correlation_fixture {
  test_cluster sim{1, 1};
  held_requests held{sim};
  recording_handler h;
  zelcapi::connection c{&h};
  correlation_fixture() {
    EXPECT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
    // A master serves requests other than logins and the cluster status only after a login.
    EXPECT_FALSE(
        c.login_sync("alice", "secret", "", "", 5, false).get_properties().is_present("error"));
  }
  // The nodes' thread, which calls the handlers that use `held`, ends before `held` does.
  ~correlation_fixture() { sim.stop(); }
};

TEST(Correlation, ALateReplyGoesToTheHandlerAndNotToTheNextRequestOfTheSameName) {
  correlation_fixture f;
  async_exchange first, second;
  f.c.send_async(packet(packet::type_request, "test.held"), 1, first.callback());
  ASSERT_TRUE(serve(f.c, [&] { return first.ended; }));
  EXPECT_EQ(first.error, "Connection timeout");

  f.c.send_async(packet(packet::type_request, "test.held"), 10, second.callback());
  ASSERT_TRUE(serve(f.c, [&] { return f.held.count() == 2; }));
  f.sim.broadcast(f.held.reply(0, 1));
  ASSERT_TRUE(serve(f.c, [&] { return !f.h.received.empty(); }));
  EXPECT_FALSE(second.ended);
  EXPECT_EQ(f.h.received[0].get_properties().get_int_value("answer"), 1);

  f.sim.broadcast(f.held.reply(1, 2));
  ASSERT_TRUE(serve(f.c, [&] { return second.ended; }));
  EXPECT_EQ(second.error, "");
  EXPECT_EQ(second.reply.get_properties().get_int_value("answer"), 2);
  EXPECT_EQ(f.h.received.size(), 1u);
}

TEST(Correlation, RepliesEndTheirOwnRequestsInWhateverOrderTheyCome) {
  correlation_fixture f;
  std::vector<async_exchange> requests(3);
  for (async_exchange& r : requests) {
    f.c.send_async(packet(packet::type_request, "test.held"), 10, r.callback());
  }
  ASSERT_TRUE(serve(f.c, [&] { return f.held.count() == 3; }));
  for (std::size_t n : {2u, 0u, 1u}) f.sim.broadcast(f.held.reply(n, static_cast<std::int64_t>(n)));
  ASSERT_TRUE(
      serve(f.c, [&] { return requests[0].ended && requests[1].ended && requests[2].ended; }));
  for (std::size_t n = 0; n < 3; ++n) {
    EXPECT_EQ(requests[n].error, "");
    EXPECT_EQ(requests[n].reply.get_properties().get_int_value("answer"),
              static_cast<std::int64_t>(n));
  }
  EXPECT_TRUE(f.h.received.empty());
}

TEST(Correlation, TheCallersBounceTreeComesBackAsItWasSent) {
  correlation_fixture f;
  packet with_bounce(packet::type_request, "echo");
  zelcore::properties bounce;
  bounce.set_int_value("n", 5);
  with_bounce.get_properties().set_properties_value(packet::bounce_property_id(), bounce);
  async_exchange own, none;
  f.c.send_async(with_bounce, 5, own.callback());
  f.c.send_async(packet(packet::type_request, "echo"), 5, none.callback());
  ASSERT_TRUE(serve(f.c, [&] { return own.ended && none.ended; }));
  EXPECT_EQ(own.reply.get_properties().get_properties_value(packet::bounce_property_id()), bounce);
  EXPECT_FALSE(none.reply.get_properties().is_present(packet::bounce_property_id()));
  // The caller's packet is left as it was.
  EXPECT_EQ(with_bounce.get_properties().get_properties_value(packet::bounce_property_id()),
            bounce);
}

TEST(Correlation, ARequestWhoseBounceIsNotATreeEndsAtOnce) {
  correlation_fixture f;
  packet bad(packet::type_request, "echo");
  bad.get_properties().set_int_value(packet::bounce_property_id(), 3);
  async_exchange r;
  f.c.send_async(bad, 5, r.callback());
  ASSERT_TRUE(r.ended);
  EXPECT_EQ(r.error,
            "request 'echo': \"bounce\" is a int, not a properties (the request id travels in it)");
  EXPECT_TRUE(f.c.is_connected());
}

TEST(Correlation, TheSyncExchangeDoesNotTakeTheReplyOfAnAsynchronousRequest) {
  correlation_fixture f;
  // The first "test.held" is held; the second, the synchronous one, makes the node send the
  // first one's reply before its own.
  f.sim.on("test.held", [&f](zelsim::request_context& r, const packet& in, packet& reply) {
    if (f.held.count() == 0) {
      f.held.keep(in);
      return false;
    }
    r.sim.broadcast(f.held.reply(0, 1));
    reply.get_properties().set_int_value("answer", 2);
    return true;
  });
  async_exchange early;
  f.c.send_async(packet(packet::type_request, "test.held"), 10, early.callback());
  ASSERT_TRUE(serve(f.c, [&] { return f.held.count() == 1; }));
  const packet& reply = f.c.send_sync(packet(packet::type_request, "test.held"), 5);
  EXPECT_EQ(reply.get_properties().get_int_value("answer"), 2);
  ASSERT_TRUE(serve(f.c, [&] { return early.ended; }));
  EXPECT_EQ(early.reply.get_properties().get_int_value("answer"), 1);
  EXPECT_TRUE(f.h.received.empty());
}

TEST(Correlation, ALateAsynchronousReplyDoesNotEndAWaitingSyncRequest) {
  correlation_fixture f;
  async_exchange first;
  f.c.send_async(packet(packet::type_request, "test.held"), 1, first.callback());
  ASSERT_TRUE(serve(f.c, [&] { return first.ended; }));
  ASSERT_TRUE(serve(f.c, [&] { return f.held.count() == 1; }));
  // The late reply and then the synchronous request's own, both named as that request.
  f.sim.on("test.held", [&f](zelsim::request_context& r, const packet&, packet& reply) {
    r.sim.broadcast(f.held.reply(0, 1));
    reply.get_properties().set_int_value("answer", 2);
    return true;
  });
  const packet& reply = f.c.send_sync(packet(packet::type_request, "test.held"), 5);
  EXPECT_EQ(reply.get_properties().get_int_value("answer"), 2);
  ASSERT_EQ(f.h.received.size(), 1u);
  EXPECT_EQ(f.h.received[0].get_properties().get_int_value("answer"), 1);
}

TEST(Correlation, ALostLinkStillEndsEveryRequestWithAConnectionError) {
  correlation_fixture f;
  f.sim.drop_links_on("test.drop");
  async_exchange held, dropping;
  f.c.send_async(packet(packet::type_request, "test.held"), 10, held.callback());
  f.c.send_async(packet(packet::type_request, "test.drop"), 10, dropping.callback());
  ASSERT_TRUE(serve(f.c, [&] { return held.ended && dropping.ended; }));
  EXPECT_EQ(held.error, "Connection error");
  EXPECT_EQ(dropping.error, "Connection error");
}

}  // namespace
