// Snapshot and history requests of the state connection and the handling of their replies, and
// the frame limit that lets a large cluster's snapshot in once logged in.
#include <gtest/gtest.h>

#include "support/capture_sink.h"
#include "support/raised_message.h"
#include "support/raw_peer.h"
#include "zelbase/exceptions.h"
#include "zelcapi/state_connection_test_support.h"
#include "zelnet/codec.h"

namespace {

using zelcapi::state_item_job;
using zelcapi::state_item_task;
using zelnet::zelp::packet;
using zeltest::item_fields;
using zeltest::notification;
using zeltest::one_field;
using zeltest::probe_state_connection;
using zeltest::recording_state_handler;
using zeltest::small_snapshot;
using zeltest::state_connection_failures;
using zeltest::StateConnectionTest;
using zeltest::test_cluster;
using lines = std::vector<std::string>;

// The cluster answers "cluster.api.state.request" with `snapshot` under "state".
void serve_snapshot(zelsim::cluster& sim, const zelcore::properties& snapshot) {
  sim.on("cluster.api.state.request",
         [snapshot](zelsim::request_context&, const packet&, packet& reply) {
           reply.get_properties().set_properties_value("state", snapshot);
           return true;
         });
}

zelcore::property_ptr history_list() {
  auto* list = new zelcore::property_list();
  list->push_back(zelcore::property_ptr(new zelcore::properties(one_field("a", 1))));
  list->push_back(zelcore::make_string("two"));
  return zelcore::property_ptr(list);
}

// The cluster keeps the fields of each history request and answers with history_list().
void serve_history(zelsim::cluster& sim, std::vector<zelcore::properties>& requests) {
  sim.on("cluster.api.history.request",
         [&requests](zelsim::request_context&, const packet& request, packet& reply) {
           requests.push_back(request.get_properties());
           reply.get_properties()["history"] = history_list();
           return true;
         });
}

zelcore::properties bounce_of(std::int64_t id) {
  zelcore::properties bounce;
  bounce.set_int_value("history-request-id", id);
  return bounce;
}

TEST_F(StateConnectionTest, RequestNewStateSyncLoadsTheSnapshotBeforeReturning) {
  deliver(notification("cluster.api.state.set-item", item_fields(6, "t1", one_field("a", 1))));
  handler.calls.clear();
  serve_snapshot(sim, small_snapshot());
  conn.request_new_state_sync();
  EXPECT_EQ(handler.calls, lines{"new-state " + small_snapshot().describe()});
  EXPECT_EQ(replica().get_item(state_item_job, "j2"), one_field("a", 2));
  EXPECT_EQ(replica().get_item(zelcapi::state_item_node, "n1"), one_field("cores", 8));
  EXPECT_TRUE(replica().has_workflow_result("WOFL-2"));
  EXPECT_TRUE(replica().has_workflow_in_state("WOFL-1"));
  // Kinds the snapshot does not hold keep their content.
  EXPECT_TRUE(replica().has_item(state_item_task, "t1"));
}

TEST(StateConnectionSnapshotOrder, AChangeSentRightAfterTheSnapshotIsAppliedAfterIt) {
  // A master that sends the snapshot and, in the same write, a change made after it: the change
  // must not be applied first and then be wiped out by the older snapshot.
  zeltest::raw_peer master([](int fd) {
    zeltest::read_exactly(fd, zelnet::zelp::encode_hello_frame(2).size());
    zeltest::write_all(fd, zelnet::zelp::encode_hello_frame(2));
    zelnet::zelp::frame_decoder request;
    std::string_view payload;
    while (!request.next(payload)) {
      const std::string bytes = zeltest::read_exactly(fd, 1);
      if (bytes.empty()) return;
      request.feed(bytes.data(), bytes.size());
    }
    packet reply(packet::type_reply,
                 zelnet::zelp::decode_packet(payload.data(), payload.size()).get_name());
    reply.get_properties().set_properties_value("state", small_snapshot());
    zeltest::write_all(
        fd, zelnet::zelp::encode_packet_frame(reply) +
                zelnet::zelp::encode_packet_frame(notification(
                    "cluster.api.state.set-item", item_fields(5, "j9", one_field("a", 9)))));
    zeltest::read_exactly(fd, 1);
  });
  zelcore::plugin_db plugins;
  recording_state_handler handler;
  probe_state_connection conn(&handler, 0, &plugins);
  handler.replica = conn.get_state();
  ASSERT_EQ(conn.connect("127.0.0.1", master.port(), 5), zelcapi::connection_ok);
  handler.calls.clear();
  conn.request_new_state_sync();
  EXPECT_EQ(handler.calls, lines{"new-state " + small_snapshot().describe()});
  for (int i = 0; i < 100 && handler.calls.size() < 2; ++i) conn.wait(10);
  ASSERT_EQ(handler.calls.size(), 2u);
  EXPECT_EQ(handler.calls[1], "set 5 j9 live " + one_field("a", 9).describe());
  EXPECT_TRUE(conn.get_state()->has_item(state_item_job, "j9"));
  EXPECT_TRUE(conn.get_state()->has_item(state_item_job, "j2"));
  conn.disconnect("done", false);
}

TEST_F(StateConnectionTest, RequestNewStateDeliversTheSnapshotInsideTheNextWaits) {
  serve_snapshot(sim, small_snapshot());
  conn.request_new_state();
  for (int i = 0; i < 500 && handler.calls.empty(); ++i) conn.wait(10);
  EXPECT_EQ(handler.calls, lines{"new-state " + small_snapshot().describe()});
  EXPECT_EQ(replica().get_items(state_item_job).size(), 2u);
}

TEST_F(StateConnectionTest, AStateReplyWithoutStateChangesNothingAndCountsAsHandled) {
  sim.on("cluster.api.state.request",
         [](zelsim::request_context&, const packet&, packet&) { return true; });
  zeltest::capture_sink sink;
  conn.request_new_state_sync();
  handler.answer = false;
  EXPECT_TRUE(handled(packet(packet::type_reply, "cluster.api.state.request")));
  EXPECT_EQ(handler.calls, lines{});
  EXPECT_TRUE(replica().get_items(state_item_job).empty());
  EXPECT_EQ(state_connection_failures(sink), lines{});
}

TEST_F(StateConnectionTest, ASnapshotTheReplicaRefusesIsReportedAndCountsAsHandled) {
  zelcore::properties jobs;
  jobs.set_int_value("j1", 5);  // a record that is not a tree
  zelcore::properties snapshot;
  snapshot.set_properties_value("jobs", jobs);
  serve_snapshot(sim, snapshot);
  zeltest::capture_sink sink;
  conn.request_new_state_sync();
  // The state refuses the record with the standard bad-cast error, which must not escape either.
  EXPECT_EQ(state_connection_failures(sink),
            lines{"failed to update state ('state snapshot: item 'j1' is a int')"});
  EXPECT_EQ(handler.calls, lines{});
  handler.answer = false;
  zelcore::properties reply;
  reply.set_properties_value("state", snapshot);
  EXPECT_TRUE(handled(packet(packet::type_reply, "cluster.api.state.request", reply)));
}

TEST(StateConnectionWithoutReplica, ASnapshotReplyOnlyCallsStateNewState) {
  test_cluster sim(1, 1);
  serve_snapshot(sim, small_snapshot());
  recording_state_handler h;
  zelcapi::state_connection c(&h);
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  ASSERT_FALSE(
      c.login_sync("alice", "secret", "", "", 5, true).get_properties().is_present("error"));
  h.calls.clear();
  c.request_new_state_sync();
  EXPECT_EQ(h.calls, lines{"new-state " + small_snapshot().describe()});
  EXPECT_EQ(c.get_state(), nullptr);
}

TEST(StateConnectionRequests, WithoutConnectionRaiseNoConnection) {
  recording_state_handler h;
  zelcapi::state_connection c(&h);
  zeltest::capture_sink sink;
  const auto no_connection = [](const std::function<void()>& f) {
    return zeltest::raised_message<zelbase::es::uspec>(f);
  };
  EXPECT_EQ(no_connection([&] { c.request_new_state_sync(); }), "No connection");
  EXPECT_EQ(no_connection([&] { c.request_new_state(); }), "No connection");
  EXPECT_EQ(no_connection([&] { c.request_history_items_by_type(state_item_job, 1); }),
            "No connection");
  EXPECT_EQ(h.calls, lines{});
}

// A master serves no snapshot to a link without a successful login: the synchronous request
// raises the cluster's text, the asynchronous one reports it, and the replica stays as it was.
TEST(StateConnectionRequests, ASnapshotRefusedForWantOfALoginRaisesTheClustersText) {
  test_cluster sim(1, 1);
  recording_state_handler h;
  zelcore::plugin_db plugins;
  zelcapi::state_connection c(&h, 0, &plugins);
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  EXPECT_TRUE(c.login_sync("alice", "wrong", "", "", 5, true).get_properties().is_present("error"));
  h.calls.clear();
  zeltest::capture_sink sink;
  const std::string refused = "cluster.api.state.request failed ('Not logged in')";
  EXPECT_EQ(zeltest::raised_message<zelbase::es::uspec>([&] { c.request_new_state_sync(); }),
            refused);
  EXPECT_EQ(state_connection_failures(sink), lines{refused});
  c.request_new_state();
  for (int i = 0; i < 500 && state_connection_failures(sink).size() < 2; ++i) c.wait(10);
  EXPECT_EQ(state_connection_failures(sink), (lines{refused, refused}));
  EXPECT_EQ(h.calls, lines{});
  EXPECT_TRUE(c.get_state()->get_items(state_item_job).empty());
  EXPECT_TRUE(c.is_connected());
}

TEST_F(StateConnectionTest, RequestNewStateSyncRaisesTheTimeOut) {
  sim.on("cluster.api.state.request",
         [](zelsim::request_context&, const packet&, packet&) { return false; });
  conn.set_timeout(1);
  zeltest::capture_sink sink;
  EXPECT_EQ(zeltest::raised_message<zelbase::es::uspec>([&] { conn.request_new_state_sync(); }),
            "Connection timeout");
  EXPECT_EQ(handler.calls, lines{});
}

TEST_F(StateConnectionTest, HistoryByTypeSendsOnlyTheTypeAndTheBouncedRequestId) {
  std::vector<zelcore::properties> requests;
  serve_history(sim, requests);
  conn.request_history_items_by_type(state_item_task, 7);
  for (int i = 0; i < 500 && handler.calls.empty(); ++i) conn.wait(10);
  ASSERT_EQ(requests.size(), 1u);
  zelcore::properties expected;
  expected.set_int_value("item-type", 6);
  expected.set_properties_value(packet::bounce_property_id(), bounce_of(7));
  EXPECT_EQ(requests[0], expected);
  EXPECT_EQ(handler.calls, lines{"history 7 " + history_list()->describe()});
  deliver(std::vector<packet>{});
  EXPECT_EQ(handler.calls.size(), 1u);
}

TEST_F(StateConnectionTest, HistoryByIdSendsTheIdOfItsForm) {
  std::vector<zelcore::properties> requests;
  serve_history(sim, requests);
  conn.request_history_items_by_state_id(state_item_job, "j1", 1);
  conn.request_history_items_by_client_id(zelcapi::state_item_submission, "c1", 2);
  conn.request_history_items_by_submission_id(state_item_job, "s1", 4294967295u);
  for (int i = 0; i < 500 && handler.calls.size() < 3; ++i) conn.wait(10);
  ASSERT_EQ(requests.size(), 3u);
  const auto form = [](const char* key, const char* id, std::int64_t type, std::int64_t request) {
    zelcore::properties p;
    p.set_string_value(key, id);
    p.set_int_value("item-type", type);
    p.set_properties_value(packet::bounce_property_id(), bounce_of(request));
    return p;
  };
  EXPECT_EQ(requests[0], form("state-id", "j1", 5, 1));
  EXPECT_EQ(requests[1], form("client-id", "c1", 2, 2));
  EXPECT_EQ(requests[2], form("submission-id", "s1", 5, 4294967295));
  const std::string list = history_list()->describe();
  EXPECT_EQ(handler.calls,
            (lines{"history 1 " + list, "history 2 " + list, "history 4294967295 " + list}));
}

TEST_F(StateConnectionTest, AHistoryReplyWithoutHistoryIsReportedAndCountsAsHandled) {
  sim.on("cluster.api.history.request",
         [](zelsim::request_context&, const packet&, packet&) { return true; });
  zeltest::capture_sink sink;
  conn.request_history_items_by_type(state_item_job, 3);
  deliver(std::vector<packet>{});
  packet reply(packet::type_reply, "cluster.api.history.request");
  reply.get_properties().set_properties_value(packet::bounce_property_id(), bounce_of(3));
  handler.answer = false;
  EXPECT_TRUE(handled(reply));
  EXPECT_EQ(state_connection_failures(sink),
            (lines{"cluster.api.history.request failed", "cluster.api.history.request failed"}));
  EXPECT_EQ(handler.calls, lines{});
}

TEST_F(StateConnectionTest, MalformedHistoryRepliesAreReportedAndCountAsHandled) {
  zeltest::capture_sink sink;
  packet not_a_list(packet::type_reply, "cluster.api.history.request");
  not_a_list.get_properties().set_string_value("history", "none");
  not_a_list.get_properties().set_properties_value(packet::bounce_property_id(), bounce_of(3));
  packet no_bounce(packet::type_reply, "cluster.api.history.request");
  no_bounce.get_properties()["history"] = history_list();
  packet no_id = no_bounce;
  no_id.get_properties().set_properties_value(packet::bounce_property_id(), one_field("x", 1));
  deliver({not_a_list, no_bounce, no_id});
  EXPECT_EQ(state_connection_failures(sink),
            (lines{"failed to update state ('property 'history' is a string, not a list')",
                   "failed to update state ('property 'bounce' is missing')",
                   "failed to update state ('property 'history-request-id' is missing')"}));
  EXPECT_EQ(handler.calls, lines{});
  for (const auto& p : {not_a_list, no_bounce, no_id}) EXPECT_TRUE(handled(p));
}

// A job record of twenty fields, as a cluster describes its jobs.
zelcore::properties job_record(int n) {
  zelcore::properties job;
  for (int f = 0; f < 10; ++f) job.set_int_value("int-field-" + std::to_string(f), 1000000 + n);
  for (int f = 0; f < 10; ++f) {
    job.set_string_value("text-field-" + std::to_string(f), "value-" + std::to_string(n));
  }
  return job;
}

TEST(StateConnectionFrameLimit, AdmitsTheSnapshotOfAMillionJobsOfTwentyFields) {
  recording_state_handler h;
  zelcapi::state_connection c(&h);
  // A thousand jobs encoded, scaled to a million (with ids of seven digits).
  zelcore::properties jobs;
  for (int n = 0; n < 1000; ++n)
    jobs.set_properties_value("job-" + std::to_string(1000000 + n), job_record(n));
  const std::size_t per_thousand = zelcore::encode_property(jobs).size();
  const std::size_t million = per_thousand * 1000;
  EXPECT_GT(million, zelnet::zelp::default_frame_limit);
  EXPECT_LT(million, c.get_frame_limit());
}

TEST_F(StateConnectionTest, AfterLoginAFrameAboveTheConnectionDefaultArrives) {
  packet big(packet::type_notification, "cluster.api.job.bulk");
  const std::size_t size = zelnet::zelp::default_frame_limit + (1u << 20);
  big.get_properties().set_string_value("data", std::string(size, 'x'));
  deliver(big);
  ASSERT_EQ(handler.calls, lines{"handle 3 cluster.api.job.bulk"});
  EXPECT_EQ(handler.handled.back().get_properties().get_string_value("data").size(), size);
  EXPECT_TRUE(conn.is_connected());
}

}  // namespace
