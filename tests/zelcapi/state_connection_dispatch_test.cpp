// The state connection as a connection: construction, the inner handler, dispatch by packet
// type, status and disconnection forwarding, and a connection without a replica.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>

#include <algorithm>

#include "support/capture_sink.h"
#include "zelbase/exceptions.h"
#include "zelcapi/recording_receiver.h"
#include "zelcapi/state_connection_test_support.h"

namespace {

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

TEST(StateConnectionConstruction, WithOnlyAHandlerHasNoReplica) {
  recording_state_handler h;
  zelcapi::state_connection c(&h);
  EXPECT_EQ(c.get_state(), nullptr);
  EXPECT_FALSE(c.is_connected());
}

TEST(StateConnectionConstruction, WithPluginsOwnsAnEmptyReplicaWithTheKeepTime) {
  recording_state_handler h;
  zelcore::plugin_db plugins;
  zelcapi::state_connection kept(&h, 60, &plugins);
  ASSERT_NE(kept.get_state(), nullptr);
  EXPECT_EQ(kept.get_state()->get_history_keep_time(), 60u);
  EXPECT_TRUE(kept.get_state()->has_history());
  EXPECT_TRUE(kept.get_state()->get_items(zelcapi::state_item_job).empty());
  EXPECT_EQ(&kept.get_state()->get_plugin_db(), &plugins);
  EXPECT_EQ(kept.get_state()->get_receiver(), nullptr);

  zelcapi::state_connection none(&h, 0, &plugins);
  EXPECT_FALSE(none.get_state()->has_history());
}

TEST(StateConnectionConstruction, PassesTheReceiverToTheReplica) {
  recording_state_handler h;
  zelcore::plugin_db plugins;
  zeltest::recording_receiver receiver;
  probe_state_connection c(&h, &receiver, 0, &plugins);
  EXPECT_EQ(c.get_state()->get_receiver(), &receiver);
  zelnet::zelp::packet out;
  c.sc_handle(notification("cluster.api.state.set-item", item_fields(5, "j1", one_field("a", 1))),
              out);
  EXPECT_EQ(receiver.calls.size(), 1u);
}

TEST(StateConnectionConstruction, RefusesANullHandlerOrPluginDatabase) {
  recording_state_handler h;
  zelcore::plugin_db plugins;
  EXPECT_THROW(zelcapi::state_connection c(nullptr), zelbase::es::arg);
  EXPECT_THROW(zelcapi::state_connection c(nullptr, 0, &plugins), zelbase::es::arg);
  EXPECT_THROW(zelcapi::state_connection c(&h, 0, nullptr), zelbase::es::arg);
}

TEST(StateConnectionConstruction, DestructionDisconnectsWithoutCallingTheHandler) {
  test_cluster sim(1, 1);
  recording_state_handler h;
  {
    zelcapi::state_connection c(&h);
    ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
    h.calls.clear();
  }
  EXPECT_EQ(h.calls, lines{});
}

TEST(StateConnectionConstruction, ReplacesTheDefaultFrameLimit) {
  recording_state_handler h;
  zelcapi::connection plain;
  zelcapi::state_connection c(&h);
  EXPECT_EQ(plain.get_frame_limit(), std::size_t{64} << 20);
  EXPECT_EQ(c.get_frame_limit(), std::size_t{1} << 30);
  EXPECT_EQ(c.get_login_frame_limit(), std::size_t{64} << 20);
}

TEST_F(StateConnectionTest, StatusAndDisconnectionReachTheStateHandler) {
  sim.close_links(1);
  for (int i = 0; i < 500 && conn.is_connected(); ++i) conn.wait(10);
  EXPECT_EQ(handler.calls, (lines{"status 16 '' 0", "disconnected 'Connection Closed' 0"}));
}

// Logs in at node 1 through a state connection whose handler refuses every status; returns the
// port the login ended on, or "error" when it gave up.
std::string login_refusing_every_status(test_cluster& sim, recording_state_handler& h) {
  h.status_answer = false;
  zelcapi::state_connection c(&h);
  if (c.connect("127.0.0.1", sim.port_text(1), 5) != zelcapi::connection_ok) return "no link";
  const packet& reply = c.login_sync("alice", "secret", "", "", 5, true);
  return reply.get_properties().is_present("error") ? "error" : c.get_port();
}

bool has_call(const recording_state_handler& h, const std::string& call) {
  return std::find(h.calls.begin(), h.calls.end(), call) != h.calls.end();
}

TEST(StateConnectionStatus, AFalseStatusDoesNotStopTheRedirectToTheMaster) {
  test_cluster sim(3, 2);
  recording_state_handler h;
  EXPECT_EQ(login_refusing_every_status(sim, h), sim.port_text(2));
  EXPECT_TRUE(has_call(h, "status 13 '127.0.0.1' 0"));
  EXPECT_EQ(h.calls.back(), "status 5 '" + sim.node_id(2) + "' 1");
}

TEST(StateConnectionStatus, AFalseStatusDoesNotStopTheRetryOfANodeNotReady) {
  test_cluster sim(1, 1);
  sim.set_not_ready(1, std::chrono::milliseconds(500));
  recording_state_handler h;
  EXPECT_EQ(login_refusing_every_status(sim, h), sim.port_text(1));
  EXPECT_TRUE(has_call(h, "status 12 '127.0.0.1' 1"));
  EXPECT_EQ(h.calls.back(), "status 5 '" + sim.node_id(1) + "' 1");
}

TEST_F(StateConnectionTest, PacketsOfType1Or5AreIgnoredAndCountAsHandled) {
  const packet one(1, "cluster.api.state.set-item", item_fields(5, "j1", one_field("a", 1)));
  const packet five(5, "anything");
  deliver({one, five});
  EXPECT_EQ(handler.calls, lines{});
  EXPECT_TRUE(replica().get_items(zelcapi::state_item_job).empty());
  handler.answer = false;
  EXPECT_TRUE(handled(one));
  EXPECT_TRUE(handled(five));
  EXPECT_EQ(handler.calls, lines{});
}

TEST_F(StateConnectionTest, RequestsFromTheClusterGoToHandleWithItsResult) {
  deliver(packet(packet::type_request, "cluster.api.state.set-item",
                 item_fields(5, "j1", one_field("a", 1))));
  EXPECT_EQ(handler.calls, lines{"handle 2 cluster.api.state.set-item"});
  EXPECT_TRUE(replica().get_items(zelcapi::state_item_job).empty());
  handler.answer = false;
  EXPECT_FALSE(handled(packet(packet::type_request, "x")));
}

TEST(StateConnectionDispatch, AnAnswerLeftByHandleGoesBackToTheCluster) {
  test_cluster sim(1, 1);
  // Written on the cluster's thread, read on this one.
  std::atomic<std::int64_t> seen{0};
  sim.on("answer", [&seen](zelsim::request_context&, const packet& request, packet&) {
    seen = request.get_properties().get_int_value("n", -1);
    return false;
  });
  struct answering_handler : recording_state_handler {
    bool handle(const packet& in, packet& out) override {
      out = packet(packet::type_request, "answer", in.get_properties());
      return true;
    }
  } answering;
  probe_state_connection c(&answering);
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  // The master serves the answer's request only to a link that logged in.
  ASSERT_FALSE(
      c.login_sync("alice", "secret", "", "", 5, true).get_properties().is_present("error"));
  sim.broadcast(packet(packet::type_request, "question", one_field("n", 3)));
  for (int i = 0; i < 500 && seen == 0; ++i) c.wait(10);
  EXPECT_EQ(seen, 3);
}

TEST_F(StateConnectionTest, NotificationsOutsideTheStateGoToHandleWithItsResult) {
  deliver(notification("cluster.api.job.news", one_field("n", 1)));
  EXPECT_EQ(handler.calls, lines{"handle 3 cluster.api.job.news"});
  handler.answer = false;
  EXPECT_FALSE(handled(notification("cluster.api.stat", zelcore::properties())));
  handler.answer = true;
  EXPECT_TRUE(handled(notification("", zelcore::properties())));
}

TEST_F(StateConnectionTest, UnknownStateNotificationsChangeNothingAndCountAsHandled) {
  deliver(notification("cluster.api.state.set-item", item_fields(5, "j1", one_field("a", 1))));
  handler.calls.clear();
  handler.answer = false;
  zeltest::capture_sink sink;
  for (const char* name : {"cluster.api.state.x", "cluster.api.statex", "cluster.api.state",
                           "cluster.api.state.set-item2", "cluster.api.state.SET-ITEM"}) {
    const packet p = notification(name, item_fields(5, "j1", one_field("a", 2)));
    deliver(p);
    EXPECT_TRUE(handled(p)) << name;
  }
  EXPECT_EQ(handler.calls, lines{});
  EXPECT_EQ(replica().get_item(zelcapi::state_item_job, "j1").get_int_value("a"), 1);
  EXPECT_EQ(sink.reports().size(), 0u);
}

TEST_F(StateConnectionTest, RepliesOfOtherNamesGoToHandleWithItsResult) {
  deliver(packet(packet::type_reply, "cluster.api.job.request"));
  EXPECT_EQ(handler.calls, lines{"handle 4 cluster.api.job.request"});
  handler.answer = false;
  EXPECT_FALSE(handled(packet(packet::type_reply, "other")));
}

TEST(StateConnectionWithoutReplica, CallsTheHandlerForEveryNotification) {
  test_cluster sim(1, 1);
  recording_state_handler h;
  probe_state_connection c(&h);
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  h.calls.clear();
  zelcore::properties result;
  result.set_int_value("st", 3);
  zelcore::properties with_result;
  with_result.set_string_value("state-id", "WOFL-1");
  with_result.set_properties_value("result", result);
  zelcore::properties command;
  command.set_string_value("action", "remove-workflow");
  command.set_string_value("state-id", "WOFL-9");
  zelcore::properties with_command;
  with_command.set_properties_value("command", command);
  zelcore::properties ref = item_fields(5, "j1");
  ref.set_string_value("property-ref", "/a");
  const std::vector<packet> packets = {
      notification("cluster.api.state.set-item", item_fields(5, "j1", one_field("a", 1))),
      notification("cluster.api.state.update-item", item_fields(5, "j1", one_field("a", 2))),
      notification("cluster.api.state.erase-property-ref", ref),
      notification("cluster.api.state.historize-item", item_fields(5, "j1")),
      notification("cluster.api.state.remove-item", item_fields(5, "j1")),
      notification("cluster.api.state.update-workflow-result", with_result),
      notification("cluster.api.state.remove-workflow-result", with_result),
      notification("cluster.api.state.update-workflow", with_command),
      packet(packet::type_reply, "cluster.api.state.request",
             [] {
               zelcore::properties p;
               p.set_properties_value("state", one_field("workflow-seq-nr", 4));
               return p;
             }()),
  };
  zeltest::capture_sink sink;
  for (const auto& p : packets) sim.broadcast(p);
  for (int i = 0; i < 500 && h.calls.size() < 10; ++i) c.wait(10);
  EXPECT_EQ(h.calls,
            (lines{"set 5 j1 {\"a\":1}", "updated 5 j1 {\"a\":2}", "erased 5 j1 /a",
                   "historized 5 j1", "removed 5 j1", "result-added WOFL-1 3,1",
                   "result-removed WOFL-1", "pre-update remove-workflow",
                   "workflow-updated remove-workflow", "new-state {\"workflow-seq-nr\":4}"}));
  EXPECT_EQ(sink.reports().size(), 0u);
}

TEST(StateConnectionWithoutReplica, SetItemOnlyCallsStateItemSet) {
  recording_state_handler h;
  probe_state_connection c(&h);
  zelnet::zelp::packet out;
  h.answer = false;
  EXPECT_FALSE(c.sc_handle(
      notification("cluster.api.state.set-item", item_fields(5, "j1", one_field("a", 1))), out));
  EXPECT_EQ(h.calls, lines{"set 5 j1 {\"a\":1}"});
  EXPECT_EQ(c.get_state(), nullptr);
}

TEST(StateConnectionWithoutReplica, AnItemTypeOfNoKindStillReachesTheHandler) {
  recording_state_handler h;
  probe_state_connection c(&h);
  zelnet::zelp::packet out;
  zeltest::capture_sink sink;
  EXPECT_TRUE(c.sc_handle(
      notification("cluster.api.state.set-item", item_fields(9, "x", one_field("a", 1))), out));
  EXPECT_TRUE(
      c.sc_handle(notification("cluster.api.state.remove-item", item_fields(-3, "x")), out));
  EXPECT_EQ(h.calls, (lines{"set 9 x {\"a\":1}", "removed -3 x"}));
  EXPECT_EQ(state_connection_failures(sink), lines{});
}

}  // namespace
