// The master's state: its workload, its notifications to logged-in clients, and its answers to
// state and history requests.
#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "support/seeded_workload.h"
#include "zelcapi/connection.h"
#include "zelcore/properties.h"
#include "zelsim/cluster.h"

namespace {

using zelcore::properties;
using zelnet::zelp::packet;
using namespace std::chrono_literals;

zelsim::options quiet_workload(std::uint64_t seed) { return zeltest::seeded_workload(seed, 200); }

// Counts the notifications a connection receives.
class counting_handler : public zelcapi::handler {
 public:
  bool handle(const packet& in, packet&) override {
    if (in.get_type() == packet::type_notification) ++notifications;
    return true;
  }
  std::uint64_t notifications = 0;
};

void connect_to(zelcapi::connection& c, zelsim::cluster& sim, std::size_t node) {
  ASSERT_EQ(c.connect("127.0.0.1", std::to_string(sim.port(node)), 5), zelcapi::connection_ok);
}

void log_in(zelcapi::connection& c, zelsim::cluster& sim) {
  connect_to(c, sim, 1);
  const packet& reply = c.login_sync("alice", "secret", "", "", 5, false);
  ASSERT_FALSE(reply.get_properties().is_present("error"));
}

// Lets `c` read until it has `count` notifications or two seconds passed.
void receive(zelcapi::connection& c, const counting_handler& h, std::uint64_t count) {
  const auto deadline = std::chrono::steady_clock::now() + 2s;
  while (h.notifications < count && std::chrono::steady_clock::now() < deadline) c.wait(20);
}

// Every notification the workload of `o` sends in `changes` changes, as text.
std::vector<std::string> notifications_of(const zelsim::options& o, std::uint64_t changes) {
  zelsim::cluster sim(o);
  std::mutex lock;
  std::vector<std::string> seen;
  sim.on_notification([&](const packet& p) {
    std::string text;
    p.describe(text);
    std::lock_guard<std::mutex> hold(lock);
    seen.push_back(text);
  });
  sim.start();
  sim.run_workload(changes);
  EXPECT_TRUE(sim.wait_workload_paused(20s));
  EXPECT_EQ(sim.changes_made(), changes);
  sim.stop();
  std::lock_guard<std::mutex> hold(lock);
  return seen;
}

TEST(Master, SameSeedGivesTheSameNotificationsAndAnotherSeedOthers) {
  const std::vector<std::string> first = notifications_of(quiet_workload(7), 1500);
  const std::vector<std::string> again = notifications_of(quiet_workload(7), 1500);
  const std::vector<std::string> other = notifications_of(quiet_workload(8), 1500);
  ASSERT_GE(first.size(), 1500u);
  EXPECT_TRUE(first == again) << "the runs of one seed differ";
  EXPECT_FALSE(first == other) << "seeds 7 and 8 gave the same notifications";
}

TEST(Master, NotificationsReachLoggedInClientsOnly) {
  zelsim::cluster sim(quiet_workload(3));
  sim.start();
  counting_handler in_h, out_h;
  zelcapi::connection logged_in(&in_h), not_logged_in(&out_h);
  log_in(logged_in, sim);
  connect_to(not_logged_in, sim, 1);
  not_logged_in.send_sync(packet(packet::type_request, "cluster.client.cluster-status"), 5);
  sim.run_workload(300);
  ASSERT_TRUE(sim.wait_workload_paused(10s));
  const std::uint64_t sent = sim.notifications_sent();
  ASSERT_GE(sent, 300u);
  receive(logged_in, in_h, sent);
  EXPECT_EQ(in_h.notifications, sent);
  not_logged_in.wait(200);
  EXPECT_EQ(out_h.notifications, 0u);
}

TEST(Master, WarmUpMakesItsChangesBeforeTheNodesListenAndTheSameAsARun) {
  zelsim::options warm = quiet_workload(4);
  warm.warm_up = 600;
  zelsim::cluster warmed(warm);
  warmed.start();
  EXPECT_EQ(warmed.changes_made(), 600u);
  EXPECT_FALSE(warmed.master_snapshot().get_properties_value("jobs").empty());
  // The warm-up is the workload's first changes, as a run of the same seed makes them.
  zelsim::cluster ran(quiet_workload(4));
  ran.start();
  ran.run_workload(600);
  ASSERT_TRUE(ran.wait_workload_paused(10s));
  EXPECT_TRUE(warmed.master_snapshot() == ran.master_snapshot());
}

TEST(Master, StateRequestIsAnsweredWithTheMastersSnapshot) {
  zelsim::cluster sim(quiet_workload(5));
  sim.start();
  sim.run_workload(800);
  ASSERT_TRUE(sim.wait_workload_paused(10s));
  zelcapi::connection c;
  log_in(c, sim);
  const packet& reply = c.send_sync(packet(packet::type_request, "cluster.api.state.request"), 5);
  EXPECT_EQ(reply.get_type(), packet::type_reply);
  const properties& state = reply.get_properties().get_properties_value("state");
  EXPECT_TRUE(state == sim.master_snapshot());
  for (const char* node : {"node-1", "node-2", "node-3"}) {
    EXPECT_TRUE(state.get_properties_value("nodes").is_present(node)) << node;
  }
  EXPECT_FALSE(state.get_properties_value("jobs").empty());
  EXPECT_FALSE(state.get_properties_value("workflows").empty());
}

// The requests that a master serves only after a login, each with its reply's "error" (none
// when it was served).
std::vector<std::string> refusals(zelcapi::connection& c) {
  packet history(packet::type_request, "cluster.api.history.request");
  history.get_properties().set_int_value("item-type", 5);
  std::vector<std::string> errors;
  for (const packet& p : {packet(packet::type_request, "cluster.api.state.request"), history,
                          packet(packet::type_request, "echo")}) {
    errors.push_back(c.send_sync(p, 5).get_properties().get_string_value("error", "served"));
  }
  return errors;
}

const std::vector<std::string> all_refused = {"Not logged in", "Not logged in", "Not logged in"};
const std::vector<std::string> all_served = {"served", "served", "served"};

TEST(Master, ALinkThatNeverLoggedInGetsNothingButTheClusterStatus) {
  zelsim::cluster sim(quiet_workload(5));
  sim.start();
  zelcapi::connection c;
  connect_to(c, sim, 1);
  EXPECT_EQ(refusals(c), all_refused);
  const packet& status =
      c.send_sync(packet(packet::type_request, "cluster.client.cluster-status"), 5);
  EXPECT_FALSE(status.get_properties().is_present("error"));
  EXPECT_EQ(status.get_properties().get_string_value("master-id"), "node-1");
  // A request the cluster does not know is refused the same way before a login.
  EXPECT_EQ(c.send_sync(packet(packet::type_request, "what"), 5)
                .get_properties()
                .get_string_value("error"),
            "Not logged in");
}

TEST(Master, ARefusedLoginServesNothingAndEndsAnEarlierLogin) {
  zelsim::cluster sim(quiet_workload(5));
  sim.start();
  counting_handler h;
  zelcapi::connection c(&h);
  connect_to(c, sim, 1);
  EXPECT_EQ(
      c.login_sync("alice", "wrong", "", "", 5, false).get_properties().get_string_value("error"),
      "Access denied");
  EXPECT_EQ(refusals(c), all_refused);
  EXPECT_FALSE(
      c.login_sync("alice", "secret", "", "", 5, false).get_properties().is_present("error"));
  EXPECT_EQ(refusals(c), all_served);
  EXPECT_EQ(
      c.login_sync("mallory", "x", "", "", 5, false).get_properties().get_string_value("error"),
      "No such user");
  EXPECT_EQ(refusals(c), all_refused);
  // Nor does the link get the state's notifications any more.
  sim.run_workload(100);
  ASSERT_TRUE(sim.wait_workload_paused(10s));
  ASSERT_GE(sim.notifications_sent(), 100u);
  c.send_sync(packet(packet::type_request, "cluster.client.cluster-status"), 5);
  EXPECT_EQ(h.notifications, 0u);
}

TEST(Master, AnAdminLoginServesTheRequestsWithoutTheNotifications) {
  zelsim::options o = quiet_workload(5);
  o.admins = {{"root", "toor"}};
  zelsim::cluster sim(o);
  sim.start();
  counting_handler h;
  zelcapi::connection c(&h);
  connect_to(c, sim, 1);
  EXPECT_FALSE(c.admin_login_sync("root", "toor", 5).get_properties().is_present("error"));
  EXPECT_EQ(refusals(c), all_served);
  sim.run_workload(100);
  ASSERT_TRUE(sim.wait_workload_paused(10s));
  c.send_sync(packet(packet::type_request, "cluster.client.cluster-status"), 5);
  EXPECT_EQ(h.notifications, 0u);
}

TEST(Master, ALoginAtANodeThatIsNotTheMasterServesNothingThere) {
  zelsim::cluster sim(quiet_workload(5));
  sim.start();
  zelcapi::connection c;
  connect_to(c, sim, 2);
  packet login = zelcapi::connection::login_request("alice", "secret", {}, "", "", false);
  // Sent as a plain request, so that the redirect is not followed.
  const packet& redirect = c.send_sync(login, 5);
  EXPECT_EQ(redirect.get_properties().get_string_value("master-id"), "node-1");
  EXPECT_EQ(refusals(c), all_refused);
}

class HistoryRequest : public ::testing::Test {
 protected:
  void SetUp() override {
    sim.start();
    sim.run_workload(4000);
    ASSERT_TRUE(sim.wait_workload_paused(20s));
    log_in(c, sim);
    jobs = sim.master_history().get_properties_value("jobs");
    ASSERT_GE(jobs.size(), 2u);
  }

  // Sends a history request for jobs with `field` = `value` (no field: all) and id 7; checks
  // the echoed bounce tree and returns the history.
  std::vector<properties> request(const std::string& field, const std::string& value) {
    packet p(packet::type_request, "cluster.api.history.request");
    if (!field.empty()) p.get_properties().set_string_value(field, value);
    p.get_properties().set_int_value("item-type", 5);
    properties bounce;
    bounce.set_int_value("history-request-id", 7);
    p.get_properties().set_properties_value(packet::bounce_property_id(), bounce);
    const packet& reply = c.send_sync(p, 5);
    EXPECT_EQ(reply.get_type(), packet::type_reply);
    EXPECT_TRUE(reply.get_properties().get_properties_value(packet::bounce_property_id()) ==
                bounce);
    std::vector<properties> history;
    for (const auto& record : reply.get_properties().get_list_value("history")) {
      history.push_back(static_cast<const properties&>(*record));
    }
    return history;
  }

  // The historized jobs whose `field` is `value`.
  std::size_t count_where(const std::string& field, const std::string& value) const {
    std::size_t n = 0;
    for (const auto& [id, record] : jobs) {
      n += static_cast<const properties&>(*record).get_string_value(field) == value ? 1 : 0;
    }
    return n;
  }

  zelsim::cluster sim{quiet_workload(11)};
  zelcapi::connection c;
  properties jobs;
};

TEST_F(HistoryRequest, ByItemTypeAloneGivesEveryHistorizedRecordOfTheType) {
  const std::vector<properties> history = request("", "");
  ASSERT_EQ(history.size(), jobs.size());
  for (const properties& record : history) {
    EXPECT_TRUE(jobs.get_properties_value(record.get_string_value("id")) == record);
  }
}

TEST_F(HistoryRequest, ByStateIdGivesThatRecord) {
  const properties& job = static_cast<const properties&>(*jobs.begin()->second);
  const std::vector<properties> history = request("state-id", jobs.begin()->first);
  ASSERT_EQ(history.size(), 1u);
  EXPECT_TRUE(history[0] == job);
  EXPECT_TRUE(request("state-id", "job-none").empty());
}

TEST_F(HistoryRequest, ByClientIdAndBySubmissionIdGiveTheRecordsOfThatClientOrSubmission) {
  const properties& job = static_cast<const properties&>(*jobs.begin()->second);
  for (const char* field : {"client-id", "submission-id"}) {
    const std::string& value = job.get_string_value(field);
    const std::vector<properties> history = request(field, value);
    EXPECT_EQ(history.size(), count_where(field, value)) << field;
    for (const properties& record : history) EXPECT_EQ(record.get_string_value(field), value);
  }
}

TEST_F(HistoryRequest, BadOrMissingItemTypeGetsAnError) {
  packet p(packet::type_request, "cluster.api.history.request");
  p.get_properties().set_int_value("item-type", 9);
  EXPECT_EQ(c.send_sync(p, 5).get_properties().get_string_value("error"),
            "\"item-type\" 9 is not an item type (0 to 6)");
  p.get_properties().erase("item-type");
  EXPECT_TRUE(c.send_sync(p, 5).get_properties().is_present("error"));
  EXPECT_FALSE(c.send_sync(p, 5).get_properties().is_present("history"));
}

TEST(Master, WorkloadKeepsToItsRate) {
  zelsim::options o = quiet_workload(1);
  o.rate = 200;
  zelsim::cluster sim(o);
  sim.start();
  const auto started = std::chrono::steady_clock::now();
  sim.run_workload(41);
  ASSERT_TRUE(sim.wait_workload_paused(10s));
  // The 41st change is due 200 ms after the first.
  EXPECT_GE(std::chrono::steady_clock::now() - started, 195ms);
}

TEST(Master, RequestsAreServedWhileTheWorkloadRunsFlatOut) {
  zelsim::cluster sim(quiet_workload(2));
  sim.start();
  zelcapi::connection c;
  connect_to(c, sim, 1);
  sim.run_workload();
  for (int i = 0; i < 20; ++i) {
    const packet& reply =
        c.send_sync(packet(packet::type_request, "cluster.client.cluster-status"), 5);
    EXPECT_EQ(reply.get_properties().get_string_value("master-id"), "node-1");
  }
  sim.pause_workload();
  ASSERT_TRUE(sim.wait_workload_paused(5s));
  EXPECT_GT(sim.changes_made(), 0u);
}

}  // namespace
