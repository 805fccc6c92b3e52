// Login and cluster-master redirect against a simulated cluster: straight to the master,
// redirected, not-ready retries, handler vetoes, missing and dead masters, and failures.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

#include "support/capture_sink.h"
#include "support/raised_message.h"
#include "zelbase/exceptions.h"
#include "zelcapi/connection_test_support.h"
#include "zelcore/identifiers.h"

namespace {

using zelnet::zelp::packet;
using zeltest::recording_handler;
using zeltest::test_cluster;
using events = std::vector<std::string>;

constexpr const char* api_source = "code\\app\\common\\shared\\zelcapi\\src\\api";

template <class F>
std::string uspec_message(F f) {
  return zeltest::raised_message<zelbase::es::uspec>(f);
}

bool has_report(const zeltest::capture_sink& sink, const std::string& text, unsigned kind,
                unsigned severity) {
  const auto reports = sink.reports();
  return std::any_of(reports.begin(), reports.end(), [&](const zelcore::report_record& r) {
    return r.message == text && r.record_kind == kind && r.record_severity == severity &&
           r.category == "zelcapi" && r.file == api_source;
  });
}

TEST(Login, StraightToTheMaster) {
  test_cluster sim(3, 1);
  recording_handler h;
  zelcapi::connection c(&h);
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  zeltest::capture_sink sink;
  const packet& reply = c.login_sync("alice", "secret", "", "", 5, false);
  EXPECT_EQ(reply.get_type(), 4);
  EXPECT_EQ(reply.get_name(), "cluster.client.login");
  EXPECT_FALSE(reply.get_properties().is_present("error"));
  EXPECT_EQ(h.events, (events{"status 1 '' 0", "status 5 'node-1' 1"}));
  EXPECT_EQ(sink.messages(),
            (std::vector<std::string>{
                "login_sync - have connection",
                "l_master_id: node-1. p_props.get_string_value(node_id): node-1."}));
  EXPECT_TRUE(has_report(sink, "login_sync - have connection", 3, 7));
  EXPECT_EQ(&reply, &c.get_sync_packet());
}

TEST(Login, NonMasterRedirectsToTheMaster) {
  test_cluster sim(3, 2);
  recording_handler h;
  zelcapi::connection c(&h);
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  zeltest::capture_sink sink;
  const packet& reply = c.login_sync("alice", "secret", "", "", 5, false);
  EXPECT_FALSE(reply.get_properties().is_present("error"));
  EXPECT_EQ(reply.get_properties().get_string_value("node-id"), "node-2");
  EXPECT_EQ(c.get_port(), sim.port_text(2));
  EXPECT_EQ(h.events, (events{"status 1 '' 0", "status 15 '' 0",
                              "disconnected 'Host was not master. Reconnecting to master' 1",
                              "status 13 '127.0.0.1' 0", "status 1 '' 0", "status 5 'node-2' 1"}));
  EXPECT_TRUE(
      has_report(sink, "l_master_id: node-2. p_props.get_string_value(node_id): node-1.", 3, 7));
  EXPECT_EQ(sim.link_count(1), 0u);
}

TEST(Login, NotReadyNodeIsRetriedUntilReady) {
  test_cluster sim(1, 1);
  sim.set_not_ready(1, std::chrono::milliseconds(1000));
  recording_handler h;
  zelcapi::connection c(&h);
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  zeltest::capture_sink sink;
  const packet& reply = c.login_sync("alice", "secret", "", "", 5, false);
  EXPECT_FALSE(reply.get_properties().is_present("error"));
  EXPECT_EQ(h.events, (events{"status 1 '' 0", "status 15 '' 0",
                              "disconnected 'Host was not ready, retrying in 2 seconds' 1",
                              "status 12 '127.0.0.1' 1", "status 1 '' 0", "status 5 'node-1' 1"}));
  EXPECT_TRUE(has_report(sink, "Host was not ready, retrying in 2 seconds", 3, 4));
}

TEST(Login, HandlerVetoStopsTheNotReadyRetry) {
  test_cluster sim(1, 1);
  sim.set_not_ready(1, std::chrono::milliseconds(60000));
  recording_handler h;
  h.answer = [](zelcapi::result_code code) { return code != zelcapi::unknown_cluster_master; };
  zelcapi::connection c(&h);
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  const auto start = std::chrono::steady_clock::now();
  const packet& reply = c.login_sync("alice", "secret", "", "", 5, false);
  // A veto gives up at once, without the two seconds' sleep.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
  EXPECT_EQ(reply.get_type(), 4);
  EXPECT_EQ(reply.get_properties().get_int_value("result-code"), 12);
  EXPECT_EQ(reply.get_properties().get_string_value("error"), "Unknown Cluster Master");
  EXPECT_EQ(reply.get_properties().get_int_value("api"), 12);
  EXPECT_EQ(&reply, &c.get_sync_packet());
  EXPECT_FALSE(c.is_connected());
  EXPECT_EQ(h.events, (events{"status 1 '' 0", "status 15 '' 0",
                              "disconnected 'Host was not ready, retrying in 2 seconds' 1",
                              "status 12 '127.0.0.1' 1"}));
}

TEST(Login, NotReadyRetryShrinksTheTimeOutUntilItRunsOut) {
  test_cluster sim(1, 1);
  sim.set_not_ready(1, std::chrono::milliseconds(60000));
  recording_handler h;
  zelcapi::connection c(&h);
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  zeltest::capture_sink sink;
  // The retry has 1 - 1 = 0 seconds left: whether its wait runs out or the node's "not ready"
  // beats it, the login ends there as timed out instead of retrying again.
  EXPECT_EQ(uspec_message([&] { c.login_sync("alice", "secret", "", "", 1, false); }),
            "connection timeout");
  EXPECT_TRUE(has_report(sink, "connection timeout", 3, 4));
  EXPECT_EQ(h.events, (events{"status 1 '' 0", "status 15 '' 0",
                              "disconnected 'Host was not ready, retrying in 2 seconds' 1",
                              "status 12 '127.0.0.1' 1", "status 1 '' 0", "status 8 '' 0"}));
  EXPECT_TRUE(c.is_connected());
}

TEST(Login, FailedReconnectAfterNotReadyGivesLoginReconnectionFailed) {
  test_cluster sim(1, 1);
  sim.set_not_ready(1, std::chrono::milliseconds(60000));
  recording_handler h;
  // The node dies while the client waits to retry.
  h.answer = [&sim](zelcapi::result_code code) {
    if (code == zelcapi::unknown_cluster_master) sim.stop_node(1);
    return true;
  };
  zelcapi::connection c(&h);
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  const packet& reply = c.login_sync("alice", "secret", "", "", 5, false);
  EXPECT_EQ(reply.get_properties().get_int_value("result-code"), 7);
  EXPECT_EQ(reply.get_properties().get_string_value("error"), "Login Reconnection failed");
  ASSERT_GE(h.events.size(), 2u);
  EXPECT_EQ(h.events[h.events.size() - 2], "status 3 '' 0");
  EXPECT_EQ(h.events.back(), "status 3 '' 0");
}

TEST(Login, ErrorWithoutApiIsReturnedUnchanged) {
  test_cluster sim(1, 1);
  recording_handler h;
  zelcapi::connection c(&h);
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  const packet& reply = c.login_sync("alice", "wrong", "", "", 5, false);
  EXPECT_EQ(reply.get_properties().get_string_value("error"), "Access denied");
  EXPECT_FALSE(reply.get_properties().is_present("result-code"));
  EXPECT_TRUE(c.is_connected());
  EXPECT_EQ(h.events, (events{"status 1 '' 0"}));
}

TEST(Login, ErrorWithAnotherApiCodeIsNotRetried) {
  test_cluster sim(1, 1);
  sim.on("cluster.client.login", [](zelsim::request_context&, const packet&, packet& reply) {
    reply.get_properties().set_string_value("error", "busy");
    reply.get_properties().set_int_value("api", 5);
    return true;
  });
  recording_handler h;
  zelcapi::connection c(&h);
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  const packet& reply = c.login_sync("alice", "secret", "", "", 5, false);
  EXPECT_EQ(reply.get_properties().get_string_value("error"), "busy");
  EXPECT_EQ(reply.get_properties().get_int_value("api"), 5);
  EXPECT_TRUE(c.is_connected());
  EXPECT_EQ(h.events, (events{"status 1 '' 0"}));
}

TEST(Login, MasterMissingFromHostListGivesClusterMasterNotFound) {
  test_cluster sim(3, 2);
  sim.set_master_missing_from_host_list(true);
  recording_handler h;
  zelcapi::connection c(&h);
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  zeltest::capture_sink sink;
  const packet& reply = c.login_sync("alice", "secret", "", "", 5, false);
  EXPECT_EQ(reply.get_properties().get_int_value("result-code"), 14);
  EXPECT_EQ(reply.get_properties().get_string_value("error"), "Cluster Master not found");
  EXPECT_EQ(h.events, (events{"status 1 '' 0", "status 14 '' 0"}));
  EXPECT_TRUE(has_report(sink, "Cluster master is not present in host list", 3, 4));
  EXPECT_TRUE(c.is_connected());
}

TEST(Login, HandlerVetoStopsTheRedirect) {
  test_cluster sim(3, 2);
  recording_handler h;
  h.answer = [](zelcapi::result_code code) { return code != zelcapi::reconnecting_to_master; };
  zelcapi::connection c(&h);
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  const packet& reply = c.login_sync("alice", "secret", "", "", 5, false);
  EXPECT_EQ(reply.get_type(), 4);
  EXPECT_EQ(reply.get_properties().get_int_value("result-code"), 13);
  EXPECT_EQ(reply.get_properties().get_string_value("error"), "Reconecting to Master");
  EXPECT_EQ(reply.get_properties().get_string_value("master-id"), "node-2");
  EXPECT_FALSE(c.is_connected());
  EXPECT_EQ(h.events, (events{"status 1 '' 0", "status 15 '' 0",
                              "disconnected 'Host was not master. Reconnecting to master' 1",
                              "status 13 '127.0.0.1' 0"}));
}

TEST(Login, RedirectToDeadMasterRaises) {
  test_cluster sim(3, 2);
  const std::string master_port = sim.port_text(2);
  sim.stop_node(2);
  recording_handler h;
  zelcapi::connection c(&h);
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  zeltest::capture_sink sink;
  const std::string text = "Failed to connect to master '127.0.0.1:" + master_port +
                           "' after redirect (Connection Failed)";
  EXPECT_EQ(uspec_message([&] { c.login_sync("alice", "secret", "", "", 5, false); }), text);
  EXPECT_TRUE(has_report(sink, text, 3, 4));
  EXPECT_EQ(h.events.back(), "status 3 '' 0");
}

TEST(Login, WithoutConnectionRaisesNoConnection) {
  recording_handler h;
  zelcapi::connection c(&h);
  zeltest::capture_sink sink;
  EXPECT_EQ(uspec_message([&] { c.login_sync("alice", "secret", "", "", 5, false); }),
            "no connection");
  EXPECT_EQ(h.events, (events{"status 6 '' 0"}));
  EXPECT_TRUE(has_report(sink, "no connection", 3, 3));
}

TEST(Login, SilentNodeTimesOut) {
  test_cluster sim(1, 1);
  recording_handler h;
  zelcapi::connection c(&h);
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  sim.set_stalled(1, true);
  zeltest::capture_sink sink;
  EXPECT_EQ(uspec_message([&] { c.login_sync("alice", "secret", "", "", 1, false); }),
            "connection timeout");
  EXPECT_TRUE(has_report(sink, "connection timeout", 3, 4));
  EXPECT_EQ(h.events, (events{"status 1 '' 0", "status 8 '' 0"}));
  EXPECT_TRUE(c.is_connected());
}

TEST(Login, LinkLostDuringTheWaitRaisesDisconnected) {
  test_cluster sim(1, 1);
  sim.drop_links_on("cluster.client.login");
  recording_handler h;
  zelcapi::connection c(&h);
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  zeltest::capture_sink sink;
  EXPECT_EQ(uspec_message([&] { c.login_sync("alice", "secret", "", "", 5, false); }),
            "disconnected");
  EXPECT_TRUE(has_report(sink, "disconnected", 3, 4));
  EXPECT_EQ(h.events, (events{"status 1 '' 0", "status 16 '' 0",
                              "disconnected 'Connection Closed' 0", "status 9 '' 0"}));
}

TEST(Login, RequestCarriesDigestAndOptionalFields) {
  test_cluster sim(1, 1);
  std::vector<packet> seen;
  sim.on("cluster.client.login", [&seen](zelsim::request_context&, const packet& in, packet& r) {
    seen.push_back(in);
    r.get_properties().set_string_value("master-id", "m");
    r.get_properties().set_string_value("node-id", "m");
    return true;
  });
  zelcapi::connection c;
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  c.login_sync("bob", "pw", {{"disk", "/d"}}, "client-7", "9000", 5, true);
  c.login_sync("bob", "", "", "", 5, false);
  ASSERT_EQ(seen.size(), 2u);
  const zelcore::properties& full = seen[0].get_properties();
  EXPECT_EQ(seen[0].get_type(), 2);
  EXPECT_EQ(full.get_int_value("interface-version"), 3);
  EXPECT_EQ(full.get_string_value("username"), "bob");
  EXPECT_EQ(full.get_string_value("password"), zelcore::string_hash_SHA1_hex("pw"));
  EXPECT_NE(full.get_string_value("password"), "pw");
  EXPECT_EQ(full.get_properties_value("storages").get_string_value("disk"), "/d");
  EXPECT_EQ(full.get_string_value("id"), "client-7");
  EXPECT_EQ(full.get_string_value("io-port"), "9000");
  EXPECT_TRUE(full.get_bool_value("broadcasts"));
  const zelcore::properties& bare = seen[1].get_properties();
  EXPECT_EQ(bare.get_string_value("password"), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_FALSE(bare.is_present("storages"));
  EXPECT_FALSE(bare.is_present("id"));
  EXPECT_FALSE(bare.is_present("io-port"));
  EXPECT_FALSE(bare.get_bool_value("broadcasts"));
  EXPECT_EQ(bare.size(), 4u);
}

TEST(Login, EmptyPasswordLogsInWithItsDigest) {
  test_cluster sim(1, 1);
  zelcapi::connection c;
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  EXPECT_FALSE(c.login_sync("nopass", "", "", "", 5, false).get_properties().is_present("error"));
}

TEST(Login, ReplyWithoutNodeIdFailsAsTheRead) {
  test_cluster sim(1, 1);
  sim.on("cluster.client.login", [](zelsim::request_context&, const packet&, packet& r) {
    r.get_properties().set_string_value("master-id", "m");
    return true;
  });
  zelcapi::connection c;
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  EXPECT_THROW(c.login_sync("alice", "secret", "", "", 5, false), zelbase::es::arg);
}

TEST(AdminLogin, AcceptedWithoutRedirect) {
  test_cluster sim(3, 2);
  recording_handler h;
  zelcapi::connection c(&h);
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  const packet& reply = c.admin_login_sync("root", "toor", 5);
  EXPECT_EQ(reply.get_name(), "admin.login");
  EXPECT_TRUE(reply.get_properties().get_bool_value("admin"));
  EXPECT_EQ(reply.get_properties().get_string_value("node-id"), "node-1");
  EXPECT_EQ(h.events, (events{"status 1 '' 0"}));
  EXPECT_EQ(c.admin_login_sync("root", "bad", 5).get_properties().get_string_value("error"),
            "Access denied");
}

TEST(AdminLogin, RequestCarriesOnlyTheNameAndTheDigest) {
  test_cluster sim(1, 1);
  std::vector<packet> seen;
  sim.on("admin.login", [&seen](zelsim::request_context&, const packet& in, packet&) {
    seen.push_back(in);
    return true;
  });
  zelcapi::connection c;
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  c.admin_login_sync("root", "", 5);
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].get_type(), 2);
  const zelcore::properties& props = seen[0].get_properties();
  EXPECT_EQ(props.size(), 2u);
  EXPECT_EQ(props.get_string_value("username"), "root");
  EXPECT_EQ(props.get_string_value("password"), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

TEST(AdminLogin, FailuresRaise) {
  test_cluster sim(1, 1);
  zelcapi::connection c;
  zeltest::capture_sink sink;
  EXPECT_EQ(uspec_message([&] { c.admin_login_sync("root", "toor", 5); }), "no connection");
  EXPECT_TRUE(has_report(sink, "no connection", 3, 3));
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  sim.set_stalled(1, true);
  EXPECT_EQ(uspec_message([&] { c.admin_login_sync("root", "toor", 1); }), "connection timeout");
  sim.set_stalled(1, false);
  sim.drop_links_on("admin.login");
  EXPECT_EQ(uspec_message([&] { c.admin_login_sync("root", "toor", 5); }), "connection error");
  EXPECT_TRUE(has_report(sink, "connection error", 3, 4));
}

TEST(ClusterStatus, RequestCarriesTheInterfaceVersionOnly) {
  test_cluster sim(1, 1);
  std::vector<packet> seen;
  sim.on("cluster.client.cluster-status",
         [&seen](zelsim::request_context&, const packet& in, packet& r) {
           seen.push_back(in);
           r.get_properties().set_string_value("master-id", "m");
           r.get_properties().set_string_value("node-id", "m");
           return true;
         });
  zelcapi::connection c;
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  EXPECT_EQ(c.get_cluster_status().get_properties().get_string_value("node-id"), "m");
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].get_type(), 2);
  EXPECT_EQ(seen[0].get_properties().size(), 1u);
  EXPECT_EQ(seen[0].get_properties().get_int_value("interface-version"), 3);
}

TEST(ClusterStatus, FollowsTheRedirectAndAMovedMaster) {
  test_cluster sim(3, 1);
  recording_handler h;
  zelcapi::connection c(&h);
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
  ASSERT_FALSE(
      c.login_sync("alice", "secret", "", "", 5, false).get_properties().is_present("error"));
  sim.set_master(3);
  const packet& reply = c.get_cluster_status();
  EXPECT_EQ(reply.get_name(), "cluster.client.cluster-status");
  EXPECT_EQ(reply.get_properties().get_string_value("node-id"), "node-3");
  EXPECT_EQ(reply.get_properties().get_int_value("node-count"), 3);
  EXPECT_EQ(c.get_port(), sim.port_text(3));
  EXPECT_EQ(h.events.back(), "status 5 'node-3' 1");
}

}  // namespace
