// zelctl serve and the link to its cluster: when the whole cluster goes, serve keeps answering
// from the last state and says so (in /api/summary and to the stream's clients), retries on the
// mirror's pace, and when a cluster answers on the same address again it logs in, reloads the
// snapshot and sends every stream client a fresh snapshot event.
#include <gtest/gtest.h>

#include "json_output.h"
#include "serve_test_support.h"
#include "stream_state.h"

using namespace zelctl_test;
using zeltest::http_peer;
using namespace std::chrono_literals;

namespace {

// The next event of `name` on the stream, applying every snapshot and batch before it (and
// the event itself) to `built`; an event with an empty name when none came within `limit`.
zeltest::sse_event next_of(http_peer& stream, const std::string& name, stream_state& built,
                           std::chrono::milliseconds limit = 20s) {
  const auto until = std::chrono::steady_clock::now() + limit;
  for (;;) {
    const auto now = std::chrono::steady_clock::now();
    if (now >= until) return {};
    const auto e =
        stream.next_event(std::chrono::duration_cast<std::chrono::milliseconds>(until - now));
    if (e.name.empty()) return e;
    EXPECT_TRUE(built.apply(e.name, nlohmann::json::parse(e.data))) << "a batch was skipped";
    if (e.name == name) return e;
  }
}

// Waits until `s` says what `holds` wants of its summary.
template <class Condition>
nlohmann::json summary_when(const server& s, Condition holds, std::chrono::milliseconds limit) {
  const auto until = std::chrono::steady_clock::now() + limit;
  nlohmann::json summary = s.json("/api/summary");
  while (!holds(summary) && std::chrono::steady_clock::now() < until) {
    std::this_thread::sleep_for(50ms);
    summary = s.json("/api/summary");
  }
  return summary;
}

// A cluster on ports that a second cluster can take once it is gone, and a password file.
class ZelctlServeLink : public ::testing::Test {
 protected:
  void SetUp() override {
    std::ofstream(dir_.file("pw")) << "demo\n";
    first_ = start_on_fixed_ports(base_, 1);
    ASSERT_NE(first_, nullptr);
    first_->run_workload(800);
    ASSERT_TRUE(first_->wait_workload_paused(10s));
  }

  temp_dir dir_;
  std::uint16_t base_ = 0;
  std::unique_ptr<zelsim::cluster> first_;
};

TEST_F(ZelctlServeLink, ReconnectsAfterLosingTheClusterAndReloadsTheSnapshot) {
  server s(*first_, dir_, {"--batch-ms", "100"});
  ASSERT_NE(s.port(), 0) << s.child().err();
  http_peer stream(s.port());
  ASSERT_EQ(stream.open_stream("/api/events").status, 200);
  stream_state built;
  const auto hello = next_of(stream, "cluster", built);
  ASSERT_EQ(hello.name, "cluster");
  EXPECT_TRUE(nlohmann::json::parse(hello.data)["connected"].get<bool>());
  const nlohmann::json before = zelctl::to_json(first_->master_snapshot());
  EXPECT_EQ(built.state(), before);

  first_->stop();
  first_.reset();
  // The stream's clients hear of the loss; the API answers from the last state and says why.
  const auto gone = next_of(stream, "cluster", built);
  ASSERT_EQ(gone.name, "cluster");
  const nlohmann::json lost = nlohmann::json::parse(gone.data);
  EXPECT_FALSE(lost["connected"].get<bool>());
  EXPECT_FALSE(lost["lost"].get<std::string>().empty());
  EXPECT_FALSE(lost["lost-at"].is_null());
  EXPECT_EQ(s.json("/api/state"), before);
  // Attempts fail while nothing listens; each says when the next one comes.
  nlohmann::json retrying = summary_when(
      s, [](const nlohmann::json& j) { return j.value("attempts", 0) >= 2; }, 20s);
  EXPECT_FALSE(retrying["connected"].get<bool>());
  EXPECT_GE(retrying["attempts"].get<int>(), 2);
  EXPECT_NE(retrying["last-error"].get<std::string>().find("cannot connect"), std::string::npos)
      << retrying["last-error"];
  EXPECT_FALSE(retrying["next-attempt"].is_null());
  EXPECT_TRUE(retrying["retrying"].get<bool>());
  EXPECT_EQ(retrying["reconnects"], 0);

  // Another cluster on the same address, with another state: serve logs in and reloads.
  auto second = std::make_unique<zelsim::cluster>(cluster_options(base_, 2));
  second->start();
  second->run_workload(800);
  ASSERT_TRUE(second->wait_workload_paused(10s));
  const nlohmann::json after = zelctl::to_json(second->master_snapshot());
  ASSERT_NE(after, before);
  const auto fresh = next_of(stream, "snapshot", built);
  ASSERT_EQ(fresh.name, "snapshot");
  const auto back = next_of(stream, "cluster", built);
  ASSERT_EQ(back.name, "cluster");
  EXPECT_TRUE(nlohmann::json::parse(back.data)["connected"].get<bool>());
  // The snapshot may predate the last changes of the workload: the batches after it bring the
  // stream's state to the master's.
  const auto until = std::chrono::steady_clock::now() + 10s;
  while (built.state() != after && std::chrono::steady_clock::now() < until) {
    const auto e = stream.next_event(200ms);
    if (!e.name.empty()) {
      ASSERT_TRUE(built.apply(e.name, nlohmann::json::parse(e.data)));
    }
  }
  EXPECT_TRUE(built.state() == after) << difference(built.state(), after);
  EXPECT_EQ(s.json("/api/state"), after);
  const nlohmann::json summary = s.json("/api/summary");
  EXPECT_TRUE(summary["connected"].get<bool>());
  EXPECT_EQ(summary["lost"], "");
  EXPECT_TRUE(summary["lost-at"].is_null());
  EXPECT_EQ(summary["reconnects"], 1);
  EXPECT_EQ(summary["master"], "node-1");
  EXPECT_TRUE(s.child().wait_for_output("reconnected to node-1", 20s)) << s.child().out();
  EXPECT_NE(s.child().out().find("lost the link to the cluster"), std::string::npos);
  EXPECT_FALSE(s.child().has_exited());
}

TEST_F(ZelctlServeLink, ARefusedLoginEndsTheRetriesAndKeepsTheLastState) {
  server s(*first_, dir_);
  ASSERT_NE(s.port(), 0) << s.child().err();
  const nlohmann::json before = s.json("/api/state");
  first_->stop();
  first_.reset();
  // The cluster that comes back no longer knows the password.
  zelsim::options changed = cluster_options(base_, 2);
  changed.users = {{"demo", "another password"}};
  zelsim::cluster second(changed);
  second.start();
  nlohmann::json summary = summary_when(
      s, [](const nlohmann::json& j) { return !j.value("retrying", true); }, 20s);
  EXPECT_FALSE(summary["retrying"].get<bool>());
  EXPECT_FALSE(summary["connected"].get<bool>());
  EXPECT_TRUE(summary["next-attempt"].is_null());
  EXPECT_NE(summary["last-error"].get<std::string>().find("login as 'demo' failed"),
            std::string::npos)
      << summary["last-error"];
  // Said before the summary said it.
  EXPECT_NE(s.child().err().find("not reconnecting"), std::string::npos) << s.child().err();
  EXPECT_EQ(s.json("/api/state"), before);
  EXPECT_FALSE(s.child().has_exited());
}

TEST_F(ZelctlServeLink, AClusterThatSendsNoSnapshotIsTriedAgain) {
  server s(*first_, dir_);
  ASSERT_NE(s.port(), 0) << s.child().err();
  first_->stop();
  first_.reset();
  // The cluster that comes back logs serve in but never answers its state request.
  zelsim::cluster mute(cluster_options(base_, 2));
  mute.on("cluster.api.state.request", [](zelsim::request_context&, const zelnet::zelp::packet&,
                                          zelnet::zelp::packet&) { return false; });
  mute.start();
  // serve waits its --timeout (5 s) for the snapshot, then drops the link and tries again.
  nlohmann::json summary = summary_when(
      s,
      [](const nlohmann::json& j) {
        return j.value("last-error", "").find("no snapshot within 5 s") != std::string::npos;
      },
      30s);
  EXPECT_NE(summary["last-error"].get<std::string>().find("no snapshot within 5 s"),
            std::string::npos)
      << summary;
  EXPECT_FALSE(summary["connected"].get<bool>());
  EXPECT_TRUE(summary["retrying"].get<bool>());
  EXPECT_EQ(summary["reconnects"], 0);
  EXPECT_FALSE(s.child().has_exited());
}

}  // namespace
