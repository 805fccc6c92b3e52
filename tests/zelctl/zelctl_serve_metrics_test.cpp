// zelctl serve's /metrics against a simulated cluster, over real sockets: promtool accepts the
// text, its counts are the replica's, answers are counted by code, the token guards it as it
// guards the API, and a Prometheus server of the test's own scrapes it and answers a query with
// the cluster's job count.
#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "metrics_support.h"
#include "serve_test_support.h"

using namespace zelctl_test;
using zeltest::http_answer;
using namespace std::chrono_literals;

namespace {

const char* const metrics_type = "text/plain; version=0.0.4; charset=utf-8";

class ZelctlServeMetrics : public serve_test {
 protected:
  std::map<std::string, double> samples(const server& s, const std::string& headers = "") {
    const http_answer a = s.get("/metrics", headers);
    EXPECT_EQ(a.status, 200) << a.body;
    return metric_samples(a.body);
  }
  // Waits until `sample` of /metrics is `wanted`.
  bool sample_becomes(const server& s, const std::string& sample, double wanted) {
    const auto until = std::chrono::steady_clock::now() + 20s;
    while (std::chrono::steady_clock::now() < until) {
      const auto now = samples(s);
      const auto it = now.find(sample);
      if (it != now.end() && it->second == wanted) return true;
      std::this_thread::sleep_for(50ms);
    }
    return false;
  }
};

TEST_F(ZelctlServeMetrics, TextPassesPromtoolsCheck) {
  if (prometheus_program("promtool").empty()) GTEST_SKIP() << "promtool is not installed";
  server s(sim_, dir_);
  ASSERT_NE(s.port(), 0) << s.child().err();
  change(300);
  const http_answer a = s.get("/metrics");
  ASSERT_EQ(a.status, 200) << a.body;
  EXPECT_EQ(a.headers.at("content-type"), metrics_type);
  const zeltest::run_result checked =
      zeltest::run_program(prometheus_program("promtool"), {"check", "metrics"}, a.body);
  EXPECT_EQ(checked.code, 0) << checked.out << checked.err << "\n" << a.body;
  EXPECT_EQ(checked.out + checked.err, "") << a.body;
}

TEST_F(ZelctlServeMetrics, CountsAreTheReplicas) {
  server s(sim_, dir_);
  ASSERT_NE(s.port(), 0) << s.child().err();
  change(500);
  ASSERT_TRUE(served_equals_master(s));
  const nlohmann::json m = master();
  const nlohmann::json summary = s.json("/api/summary");
  const auto now = samples(s);
  const double jobs = static_cast<double>(m["jobs"].size());
  ASSERT_GT(jobs, 0);
  EXPECT_EQ(now.at("zelcapi_replica_records{kind=\"jobs\"}"), jobs);
  EXPECT_EQ(metric_sum(now, "zelcapi_jobs"), jobs);
  for (const auto& [state, n] : summary["counts"]["jobs"].items()) {
    EXPECT_EQ(now.at("zelcapi_jobs{state=\"" + state + "\"}"), n.get<double>()) << state;
  }
  for (const char* kind : {"nodes", "tasks", "workflows", "workflow-results"}) {
    EXPECT_EQ(now.at(std::string("zelcapi_replica_records{kind=\"") + kind + "\"}"),
              static_cast<double>(m[kind].size()))
        << kind;
  }
  std::map<std::string, double> nodes;
  for (const auto& [id, node] : m["nodes"].items()) ++nodes[node["state"].get<std::string>()];
  for (const auto& [state, n] : nodes) {
    EXPECT_EQ(now.at("zelcapi_nodes{state=\"" + state + "\"}"), n) << state;
  }
  EXPECT_EQ(metric_sum(now, "zelcapi_nodes"), static_cast<double>(m["nodes"].size()));
  // The changes are those the change stream counted; each came as a notification.
  const double changes = now.at("zelcapi_changes_applied_total");
  EXPECT_GT(changes, 0);
  EXPECT_EQ(changes, summary["changes"].get<double>());
  EXPECT_GE(metric_sum(now, "zelcapi_notifications_total"), changes);
  EXPECT_GT(now.at("zelcapi_notifications_total{name=\"cluster.api.state.update-item\"}"), 0);
  EXPECT_EQ(now.at("zelcapi_snapshots_loaded_total"), 1);
  EXPECT_EQ(now.at("zelcapi_reconnects_total"), 0);
  EXPECT_EQ(now.at("zelcapi_cluster_connected"), 1);
}

TEST_F(ZelctlServeMetrics, EventStreamClientsAreCounted) {
  server s(sim_, dir_);
  ASSERT_NE(s.port(), 0) << s.child().err();
  EXPECT_EQ(samples(s).at("zelcapi_event_stream_clients"), 0);
  {
    zeltest::http_peer stream(s.port());
    stream_state built;
    ASSERT_TRUE(open_full_stream(stream, built));
    EXPECT_TRUE(sample_becomes(s, "zelcapi_event_stream_clients", 1));
  }
  EXPECT_TRUE(sample_becomes(s, "zelcapi_event_stream_clients", 0));
}

TEST_F(ZelctlServeMetrics, AnswersAreCountedByCode) {
  server s(sim_, dir_);
  ASSERT_NE(s.port(), 0) << s.child().err();
  EXPECT_EQ(s.get("/api/summary").status, 200);
  EXPECT_EQ(s.get("/no-such-page").status, 404);
  EXPECT_EQ(s.get("/api/state/jobs/no-such-job").status, 404);
  // The answer to /metrics is counted after its text is made.
  auto now = samples(s);
  EXPECT_EQ(now.at("zelcapi_http_responses_total{code=\"200\"}"), 1);
  EXPECT_EQ(now.at("zelcapi_http_responses_total{code=\"404\"}"), 2);
  now = samples(s);
  EXPECT_EQ(now.at("zelcapi_http_responses_total{code=\"200\"}"), 2);
  // HEAD: the header of the GET, no body.
  zeltest::http_peer peer(s.port());
  peer.send("HEAD /metrics HTTP/1.1\r\nHost: t\r\nConnection: close\r\n\r\n");
  const http_answer head = peer.read_answer(10s, true);
  EXPECT_EQ(head.status, 200);
  EXPECT_EQ(head.headers.at("content-type"), metrics_type);
  EXPECT_GT(std::stoul(head.headers.at("content-length")), 0u);
  EXPECT_EQ(head.body, "");
  EXPECT_EQ(samples(s).at("zelcapi_http_responses_total{code=\"200\"}"), 4);
}

TEST_F(ZelctlServeMetrics, TheTokenGuardsMetricsAsItGuardsTheApi) {
  std::ofstream(dir_.file("token")) << "s3cret-token\n";
  server s(sim_, dir_, {"--token-file", dir_.file("token")});
  ASSERT_NE(s.port(), 0) << s.child().err();
  const http_answer refused = s.get("/metrics");
  EXPECT_EQ(refused.status, 401);
  EXPECT_EQ(refused.body.find("zelcapi_"), std::string::npos);
  EXPECT_EQ(s.get("/metrics", "Authorization: Bearer s3cret-tokeN\r\n").status, 401);
  const auto now = samples(s, "Authorization: Bearer s3cret-token\r\n");
  EXPECT_EQ(now.at("zelcapi_http_responses_total{code=\"401\"}"), 2);
  EXPECT_EQ(now.at("zelcapi_replica_records{kind=\"jobs\"}"),
            static_cast<double>(master()["jobs"].size()));
}

TEST_F(ZelctlServeMetrics, PrometheusScrapesTheClustersJobCount) {
  if (prometheus_program("prometheus").empty()) GTEST_SKIP() << "prometheus is not installed";
  std::ofstream(dir_.file("token")) << "scrape-token\n";
  server s(sim_, dir_, {"--token-file", dir_.file("token")});
  ASSERT_NE(s.port(), 0) << s.child().err();
  prometheus_server prometheus(dir_, s.port(), dir_.file("token"));
  ASSERT_TRUE(prometheus.ready(90s)) << prometheus.log();
  // Waits until the query answers `wanted`.
  const auto answers = [&](const std::string& promql, const std::string& wanted) {
    const auto until = std::chrono::steady_clock::now() + 90s;
    std::string last;
    while (std::chrono::steady_clock::now() < until) {
      last = prometheus.query(promql);
      if (last == wanted) return true;
      std::this_thread::sleep_for(200ms);
    }
    ADD_FAILURE() << promql << " answered '" << last << "', not " << wanted << "\n"
                  << prometheus.log();
    return false;
  };
  const std::string jobs = std::to_string(master()["jobs"].size());
  EXPECT_TRUE(answers("sum(zelcapi_jobs)", jobs));
  EXPECT_TRUE(answers("zelcapi_replica_records{kind=\"jobs\"}", jobs));
  // It follows the cluster (serve's replica, then the next scrapes).
  change(800);
  EXPECT_TRUE(answers("sum(zelcapi_jobs)", std::to_string(master()["jobs"].size())));
  EXPECT_TRUE(answers("up{job=\"zelctl\"}", "1"));
}

}  // namespace
