// The simulated cluster: nodes, accounts, the request registry and its replies.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>

#include <cstdio>
#include <fstream>

#include "zelbase/exceptions.h"
#include "zelcapi/connection.h"
#include "zelcore/identifiers.h"
#include "zelnet/codec.h"
#include "zelnet/socket.h"
#include "zelsim/cluster.h"

namespace {

using zelnet::zelp::packet;

zelsim::options quiet(std::size_t nodes, std::size_t master) {
  zelsim::options o;
  o.nodes = nodes;
  o.master = master;
  o.log = false;
  o.users = {{"alice", "secret"}};
  return o;
}

// Connects `c` to the node and logs in as alice: the master serves other requests only then.
void log_in(zelcapi::connection& c, const zelsim::cluster& sim, std::size_t node) {
  ASSERT_EQ(c.connect("127.0.0.1", std::to_string(sim.port(node)), 5), zelcapi::connection_ok);
  ASSERT_FALSE(
      c.login_sync("alice", "secret", "", "", 5, false).get_properties().is_present("error"));
}

TEST(Cluster, NodesListenOnTheirOwnPortsAndNameEveryNode) {
  zelsim::cluster sim(quiet(3, 2));
  sim.start();
  EXPECT_EQ(sim.node_count(), 3u);
  EXPECT_EQ(sim.master(), 2u);
  EXPECT_NE(sim.port(1), sim.port(2));
  zelcapi::connection c;
  ASSERT_EQ(c.connect("127.0.0.1", std::to_string(sim.port(3)), 5), zelcapi::connection_ok);
  const packet& reply = c.send_sync(packet(2, "cluster.client.cluster-status"), 5);
  const zelcore::properties& props = reply.get_properties();
  EXPECT_EQ(props.get_string_value("master-id"), "node-2");
  EXPECT_EQ(props.get_string_value("node-id"), "node-3");
  for (std::size_t n = 1; n <= 3; ++n) {
    const zelcore::properties& entry =
        props.get_properties_value("host-list").get_properties_value(sim.node_id(n));
    EXPECT_EQ(entry.get_string_value("hostname"), "127.0.0.1");
    EXPECT_EQ(entry.get_string_value("client-port"), std::to_string(sim.port(n)));
  }
  EXPECT_EQ(sim.link_count(3), 1u);
  sim.stop();
}

TEST(Cluster, MasterChecksTheDigestAgainstItsUsers) {
  zelsim::cluster sim(quiet(1, 1));
  sim.start();
  zelcapi::connection c;
  ASSERT_EQ(c.connect("127.0.0.1", std::to_string(sim.port(1)), 5), zelcapi::connection_ok);
  packet login(2, "cluster.client.login");
  login.get_properties().set_string_value("username", "alice");
  login.get_properties().set_string_value("password", zelcore::string_hash_SHA1_hex("secret"));
  EXPECT_FALSE(c.send_sync(login, 5).get_properties().is_present("error"));
  login.get_properties().set_string_value("password", "secret");
  EXPECT_EQ(c.send_sync(login, 5).get_properties().get_string_value("error"), "Access denied");
  login.get_properties().set_string_value("username", "mallory");
  EXPECT_EQ(c.send_sync(login, 5).get_properties().get_string_value("error"), "No such user");
}

TEST(Cluster, UnknownRequestsGetAnErrorAndNotReadyGivesApi12) {
  zelsim::cluster sim(quiet(1, 1));
  sim.start();
  zelcapi::connection c;
  log_in(c, sim, 1);
  EXPECT_EQ(c.send_sync(packet(2, "what"), 5).get_properties().get_string_value("error"),
            "unknown request 'what'");
  sim.set_not_ready(1, std::chrono::milliseconds(60000));
  const packet& reply = c.send_sync(packet(2, "cluster.client.cluster-status"), 5);
  EXPECT_EQ(reply.get_properties().get_int_value("api"), 12);
  EXPECT_TRUE(reply.get_properties().is_present("error"));
}

TEST(Cluster, RegisteredHandlerAnswersAndFailingHandlerGivesAnError) {
  zelsim::cluster sim(quiet(1, 1));
  sim.start();
  sim.on("double", [](zelsim::request_context&, const packet& in, packet& reply) {
    reply.get_properties().set_int_value("n", 2 * in.get_properties().get_int_value("n"));
    return true;
  });
  zelcapi::connection c;
  log_in(c, sim, 1);
  packet p(2, "double");
  p.get_properties().set_int_value("n", 21);
  EXPECT_EQ(c.send_sync(p, 5).get_properties().get_int_value("n"), 42);
  p.get_properties().set_string_value("n", "text");
  EXPECT_TRUE(c.send_sync(p, 5).get_properties().is_present("error"));
}

TEST(Cluster, AccountsFileIsRead) {
  const std::string path = ::testing::TempDir() + "zelsim_accounts.txt";
  {
    std::ofstream out(path);
    out << "# accounts\nuser alice secret\n\nadmin root toor  # the admin\n";
  }
  zelsim::options o;
  zelsim::read_accounts_file(path, o);
  EXPECT_EQ(o.users.at("alice"), "secret");
  EXPECT_EQ(o.admins.at("root"), "toor");
  {
    std::ofstream out(path);
    out << "user alice\n";
  }
  try {
    zelsim::read_accounts_file(path, o);
    ADD_FAILURE() << "nothing was raised";
  } catch (const zelbase::es::arg& e) {
    EXPECT_EQ(e.message(), path + ":1: expected 'user|admin NAME PASSWORD'");
  }
  std::remove(path.c_str());
}

TEST(Cluster, TakenPortRaisesAndReleasesWhatWasOpened) {
  zelnet::socket_listener taken;
  taken.listen("127.0.0.1", "0");
  zelsim::options o = quiet(1, 1);
  o.port = taken.port();
  zelsim::cluster sim(o);
  try {
    sim.start();
    ADD_FAILURE() << "nothing was raised";
  } catch (const zelbase::es::uspec& e) {
    EXPECT_EQ(e.message(), "cannot listen on '127.0.0.1:" + std::to_string(taken.port()) +
                               "': Address already in use");
  }
  // The cluster stays usable once the port is free.
  taken.close();
  sim.start();
  zelcapi::connection c;
  EXPECT_EQ(c.connect("127.0.0.1", std::to_string(sim.port(1)), 5), zelcapi::connection_ok);
}

TEST(Cluster, BadMasterNumberIsRefused) {
  EXPECT_THROW(zelsim::cluster(quiet(3, 4)), zelbase::es::arg);
  EXPECT_THROW(zelsim::cluster(quiet(3, 0)), zelbase::es::arg);
}

// Sends `bytes` to node 1 over a raw socket; the node must drop that link and go on serving.
void expect_node_survives(const std::string& bytes) {
  zelsim::cluster sim(quiet(1, 1));
  sim.start();
  zelnet::socket_connector raw;
  ASSERT_TRUE(raw.create_connect("127.0.0.1", std::to_string(sim.port(1)), 6));
  zelbase::file f = raw.get_file();
  pollfd writable{f.descriptor(), POLLOUT, 0};
  ASSERT_EQ(::poll(&writable, 1, 5000), 1);
  ASSERT_EQ(::send(f.descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(bytes.size()));
  // The node closes its end: the raw socket reads the end of the stream (after any hello).
  std::string got;
  for (;;) {
    pollfd readable{f.descriptor(), POLLIN, 0};
    ASSERT_EQ(::poll(&readable, 1, 5000), 1);
    char buffer[64];
    const ssize_t n = ::recv(f.descriptor(), buffer, sizeof buffer, 0);
    if (n <= 0) break;
    got.append(buffer, static_cast<std::size_t>(n));
  }
  f.close();
  EXPECT_LE(got.size(), zelnet::zelp::encode_hello_frame(2).size());
  zelcapi::connection c;
  log_in(c, sim, 1);
  EXPECT_EQ(c.send_sync(packet(2, "what"), 5).get_properties().get_string_value("error"),
            "unknown request 'what'");
  EXPECT_EQ(sim.link_count(1), 1u);
}

TEST(Cluster, ClientWithAnOversizedFrameIsDroppedAndTheNodeGoesOn) {
  expect_node_survives(zelnet::zelp::encode_hello_frame(2) + std::string("\xff\xff\xff\xff", 4));
}

TEST(Cluster, ClientWithInvalidMessagePackIsDroppedAndTheNodeGoesOn) {
  expect_node_survives(zelnet::zelp::encode_hello_frame(2) +
                       std::string("\x00\x00\x00\x01\xc1", 5));
}

TEST(Cluster, ClientWithoutAHelloIsDroppedAndTheNodeGoesOn) {
  expect_node_survives(zelnet::zelp::encode_packet_frame(packet(2, "echo")));
}

}  // namespace
