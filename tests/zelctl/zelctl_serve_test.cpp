// zelctl serve against a simulated cluster, over real sockets: every endpoint answers from the
// replica what the master holds, the filters and the table select and sort, the event stream's
// batches rebuild the state, bad requests get a 4xx and change nothing, the token is needed,
// and the limits drop idle, surplus and slow clients without stalling the others.
#include <gtest/gtest.h>

#include <thread>

#include "json_output.h"
#include "stream_state.h"
#include "support/http_peer.h"
#include "zelctl_test_support.h"

using namespace zelctl_test;
using zeltest::http_answer;
using zeltest::http_get;
using zeltest::http_peer;
using namespace std::chrono_literals;

namespace {

nlohmann::json body_json(const http_answer& a) { return nlohmann::json::parse(a.body); }

// The first differences between two states, as JSON patch operations (the states themselves
// are too long to print).
std::string difference(const nlohmann::json& from, const nlohmann::json& to) {
  const nlohmann::json patch = nlohmann::json::diff(from, to);
  std::string text;
  for (std::size_t i = 0; i < patch.size() && i < 5; ++i)
    text += patch[i].dump().substr(0, 300) + "\n";
  return text;
}

// zelctl serve as a child, pointed at node 2 of `sim`, on a free port.
class server {
 public:
  server(zelsim::cluster& sim, const temp_dir& dir, const std::vector<std::string>& flags = {})
      : process_(at(sim, dir.file("pw"), 2) +
                 std::vector<std::string>{"serve", "--listen", "127.0.0.1:0"} + flags) {
    if (!process_.wait_for_output("serving", 15s)) return;
    port_ = zeltest::loopback_port_in(process_.out());
  }
  std::uint16_t port() const { return port_; }
  http_answer get(const std::string& target, const std::string& headers = "") const {
    return http_get(port_, target, headers);
  }
  nlohmann::json json(const std::string& target) const {
    const http_answer a = get(target);
    EXPECT_EQ(a.status, 200) << target << ": " << a.body;
    return a.status == 200 ? body_json(a) : nlohmann::json();
  }
  process& child() { return process_; }

 private:
  process process_;
  std::uint16_t port_ = 0;
};

class ZelctlServe : public ::testing::Test {
 protected:
  void SetUp() override {
    sim_.start();
    std::ofstream(dir_.file("pw")) << "demo\n";
    sim_.run_workload(1500);
    ASSERT_TRUE(sim_.wait_workload_paused(10s));
  }
  nlohmann::json master() { return zelctl::to_json(sim_.master_snapshot()); }
  // Runs `changes` more changes of the workload and waits for their end.
  void change(std::uint64_t changes) {
    sim_.run_workload(changes);
    ASSERT_TRUE(sim_.wait_workload_paused(20s));
  }
  // Waits until the served state equals the master's (the replica has applied everything).
  bool served_equals_master(const server& s) {
    const auto until = std::chrono::steady_clock::now() + 10s;
    while (std::chrono::steady_clock::now() < until) {
      if (s.json("/api/state") == master()) return true;
      std::this_thread::sleep_for(100ms);
    }
    return false;
  }

  temp_dir dir_;
  zelsim::cluster sim_{cluster_options()};
};

TEST_F(ZelctlServe, StateIsWhatZelctlStatePrints) {
  server s(sim_, dir_);
  ASSERT_NE(s.port(), 0) << s.child().err();
  EXPECT_EQ(s.json("/api/state"), master());
  const result printed = run(at(sim_, dir_.file("pw"), 2) + std::vector<std::string>{"state"});
  ASSERT_EQ(printed.code, 0) << printed.err;
  EXPECT_EQ(s.json("/api/state"), nlohmann::json::parse(printed.out));
}

TEST_F(ZelctlServe, KindAndRecordEndpointsAnswerFromTheReplica) {
  server s(sim_, dir_);
  ASSERT_NE(s.port(), 0) << s.child().err();
  const nlohmann::json m = master();
  for (const char* kind : {"jobs", "nodes", "tasks", "workflows", "workflow-results"}) {
    EXPECT_EQ(s.json(std::string("/api/state/") + kind), m[kind]) << kind;
  }
  EXPECT_EQ(s.json("/api/state/job"), m["jobs"]);
  const std::string id = m["jobs"].begin().key();
  EXPECT_EQ(s.json("/api/state/jobs/" + id), m["jobs"][id]);
  const std::string workflow = m["workflows"].begin().key();
  EXPECT_EQ(s.json("/api/state/workflows/" + workflow), m["workflows"][workflow]);
  EXPECT_EQ(s.get("/api/state/jobs/no-such-job").status, 404);
  EXPECT_EQ(s.get("/api/state/no-such-kind").status, 404);
  EXPECT_EQ(s.get("/api/no-such-endpoint").status, 404);
}

TEST_F(ZelctlServe, SummaryCountsWhatTheMasterHolds) {
  server s(sim_, dir_);
  ASSERT_NE(s.port(), 0) << s.child().err();
  const nlohmann::json m = master();
  const nlohmann::json summary = s.json("/api/summary");
  EXPECT_EQ(summary["master"], "node-1");
  EXPECT_TRUE(summary["connected"].get<bool>());
  ASSERT_EQ(summary["nodes"].size(), m["nodes"].size());
  for (const auto& node : summary["nodes"]) {
    EXPECT_EQ(node["state"], m["nodes"][node["id"].get<std::string>()]["state"]);
  }
  std::map<std::string, std::uint64_t> by_state;
  for (const auto& [id, job] : m["jobs"].items()) ++by_state[job["state"].get<std::string>()];
  EXPECT_FALSE(by_state.empty());
  EXPECT_EQ(summary["counts"]["jobs"], nlohmann::json(by_state));
  EXPECT_EQ(summary["totals"]["jobs"], m["jobs"].size());
  EXPECT_FALSE(summary["samples"].empty());
}

TEST_F(ZelctlServe, FiltersSelectByStateUserAndNode) {
  server s(sim_, dir_);
  ASSERT_NE(s.port(), 0) << s.child().err();
  const nlohmann::json jobs = master()["jobs"];
  const auto expected = [&](const std::map<std::string, std::string>& filter) {
    nlohmann::json out = nlohmann::json::object();
    for (const auto& [id, job] : jobs.items()) {
      bool pass = true;
      for (const auto& [field, value] : filter) pass = pass && job[field] == value;
      if (pass) out[id] = job;
    }
    return out;
  };
  const std::string user = jobs.begin().value()["user"];
  std::string node;
  for (const auto& [id, job] : jobs.items()) {
    if (job["state"] == "running") node = job["node"];
  }
  ASSERT_FALSE(node.empty());
  const nlohmann::json running = s.json("/api/state/jobs?state=running");
  EXPECT_FALSE(running.empty());
  EXPECT_EQ(running, expected({{"state", "running"}}));
  EXPECT_EQ(s.json("/api/state/jobs?user=" + user), expected({{"user", user}}));
  EXPECT_EQ(s.json("/api/state/jobs?node=" + node + "&state=running"),
            expected({{"node", node}, {"state", "running"}}));
  EXPECT_EQ(s.json("/api/state/jobs?state=no-such-state"), nlohmann::json::object());
}

TEST_F(ZelctlServe, TablePagesSortAndFilter) {
  server s(sim_, dir_);
  ASSERT_NE(s.port(), 0) << s.child().err();
  const nlohmann::json jobs = master()["jobs"];
  std::size_t queued = 0;
  for (const auto& [id, job] : jobs.items()) queued += job["state"] == "queued" ? 1 : 0;
  const nlohmann::json page =
      s.json("/api/table/jobs?state=queued&sort=priority&order=desc&offset=0&limit=50");
  EXPECT_EQ(page["total"], jobs.size());
  EXPECT_EQ(page["matched"], queued);
  ASSERT_EQ(page["rows"].size(), std::min<std::size_t>(50, queued));
  for (std::size_t i = 0; i < page["rows"].size(); ++i) {
    const auto& row = page["rows"][i];
    EXPECT_EQ(row["record"], jobs[row["id"].get<std::string>()]);
    EXPECT_EQ(row["record"]["state"], "queued");
    if (i > 0) {
      EXPECT_GE(page["rows"][i - 1]["record"]["priority"], row["record"]["priority"]);
    }
  }
  // The pages of a sort, read one after another, hold every matching record once.
  std::set<std::string> seen;
  for (std::size_t offset = 0; offset < jobs.size(); offset += 300) {
    const nlohmann::json p =
        s.json("/api/table/jobs?sort=name&limit=300&offset=" + std::to_string(offset));
    std::string last_name;
    for (const auto& row : p["rows"]) {
      EXPECT_TRUE(seen.insert(row["id"].get<std::string>()).second);
      EXPECT_LE(last_name, row["record"]["name"].get<std::string>());
      last_name = row["record"]["name"];
    }
  }
  EXPECT_EQ(seen.size(), jobs.size());
  EXPECT_EQ(s.get("/api/table/jobs?offset=-1").status, 400);
  EXPECT_EQ(s.get("/api/table/jobs?order=sideways").status, 400);
  EXPECT_EQ(s.get("/api/table/no-such-kind").status, 404);
}

TEST_F(ZelctlServe, HistoryHoldsWhatTheReplicaHistorized) {
  server s(sim_, dir_);
  ASSERT_NE(s.port(), 0) << s.child().err();
  change(2000);
  ASSERT_TRUE(served_equals_master(s));
  const nlohmann::json history = s.json("/api/history/jobs");
  ASSERT_FALSE(history.empty());
  const nlohmann::json master_history = zelctl::to_json(sim_.master_history())["jobs"];
  for (const auto& [id, record] : history.items()) {
    ASSERT_TRUE(master_history.contains(id)) << id;
    EXPECT_EQ(record, master_history[id]) << id;
  }
  const nlohmann::json failed = s.json("/api/history/jobs?state=failed");
  for (const auto& [id, record] : failed.items()) EXPECT_EQ(record["state"], "failed");
  EXPECT_EQ(s.get("/api/history/workflows").status, 404);
}

TEST_F(ZelctlServe, EventStreamBatchesRebuildTheReplica) {
  server s(sim_, dir_, {"--batch-ms", "100"});
  ASSERT_NE(s.port(), 0) << s.child().err();
  http_peer stream(s.port());
  ASSERT_EQ(stream.open_stream("/api/events").status, 200);
  stream_state built;
  const auto first = stream.next_event(5s);
  ASSERT_EQ(first.name, "snapshot");
  ASSERT_TRUE(built.apply(first.name, nlohmann::json::parse(first.data)));
  EXPECT_EQ(built.state(), master());
  sim_.run_workload(3000);
  // Read batches while the workload runs, and until the stream has been quiet for a while.
  std::size_t batches = 0;
  for (;;) {
    const auto e = stream.next_event(sim_.changes_made() > 0 ? 1500ms : 5000ms);
    if (e.name.empty()) {
      if (sim_.wait_workload_paused(0ms)) break;
      continue;
    }
    ASSERT_EQ(e.name, "batch");
    ASSERT_TRUE(built.apply(e.name, nlohmann::json::parse(e.data))) << "a batch was skipped";
    ++batches;
  }
  EXPECT_GT(batches, 1u);
  EXPECT_GT(built.changes(), 3000u);
  EXPECT_TRUE(built.state() == master()) << difference(built.state(), master());
  const nlohmann::json served = s.json("/api/state");
  EXPECT_TRUE(built.state() == served) << difference(built.state(), served);
}

TEST_F(ZelctlServe, BadRequestsGetA4xxAndChangeNothing) {
  server s(sim_, dir_);
  ASSERT_NE(s.port(), 0) << s.child().err();
  const nlohmann::json before = s.json("/api/state");
  const auto raw = [&](const std::string& bytes) {
    http_peer peer(s.port());
    peer.send(bytes);
    return peer.read_answer().status;
  };
  EXPECT_EQ(
      raw("GET /api/summary HTTP/1.1\r\nHost: t\r\nX-Big: " + std::string(20000, 'a') + "\r\n\r\n"),
      431);
  std::string many = "GET /api/summary HTTP/1.1\r\nHost: t\r\n";
  for (int i = 0; i < 100; ++i) many += "X-F" + std::to_string(i) + ": 1\r\n";
  EXPECT_EQ(raw(many + "\r\n"), 431);
  EXPECT_EQ(raw("POST /api/state HTTP/1.1\r\nHost: t\r\nContent-Length: 100000\r\n\r\n" +
                std::string(100000, 'x')),
            413);
  EXPECT_EQ(raw("POST /api/state HTTP/1.1\r\nHost: t\r\nContent-Length: 2\r\n\r\n{}"), 405);
  EXPECT_EQ(raw("DELETE /api/state/jobs HTTP/1.1\r\nHost: t\r\n\r\n"), 405);
  EXPECT_EQ(raw("GARBAGE\r\n\r\n"), 400);
  EXPECT_EQ(raw("GET /api/state HTTP/9.9\r\nHost: t\r\n\r\n"), 400);
  EXPECT_EQ(raw("GET /api/state/%zz HTTP/1.1\r\nHost: t\r\n\r\n"), 400);
  EXPECT_EQ(raw("GET /api/state/%00 HTTP/1.1\r\nHost: t\r\n\r\n"), 400);
  EXPECT_EQ(raw("GET nowhere HTTP/1.1\r\nHost: t\r\n\r\n"), 400);
  EXPECT_EQ(raw("GET /../../etc/passwd HTTP/1.1\r\nHost: t\r\n\r\n"), 404);
  EXPECT_EQ(raw("GET /assets/../index.html HTTP/1.1\r\nHost: t\r\n\r\n"), 404);
  EXPECT_EQ(s.get("/no-such-page").status, 404);
  // Odd but well-formed values are answered, not refused.
  EXPECT_EQ(s.get("/api/table/jobs?sort=%2Fa%2F~1b&q=%E2%9C%93&offset=999999999").status, 200);
  EXPECT_EQ(s.get("/api/state/jobs?state=%FF%FE").status, 200);
  EXPECT_EQ(s.json("/api/state"), before);
  EXPECT_EQ(before, master());
  EXPECT_FALSE(s.child().has_exited());
}

TEST_F(ZelctlServe, EveryRequestNeedsTheToken) {
  std::ofstream(dir_.file("token")) << "s3cret-token\n";
  server s(sim_, dir_, {"--token-file", dir_.file("token")});
  ASSERT_NE(s.port(), 0) << s.child().err();
  EXPECT_EQ(s.get("/api/summary").status, 401);
  EXPECT_EQ(s.get("/").status, 401);
  EXPECT_EQ(s.get("/api/events").status, 401);
  EXPECT_EQ(s.get("/api/summary", "Authorization: Bearer wrong\r\n").status, 401);
  EXPECT_EQ(s.get("/api/summary?token=s3cret-toke").status, 401);
  EXPECT_EQ(s.get("/api/summary", "Cookie: zelctl-token=nope\r\n").status, 401);
  EXPECT_EQ(s.get("/api/summary", "Authorization: Bearer s3cret-token\r\n").status, 200);
  const http_answer by_query = s.get("/?token=s3cret-token");
  EXPECT_EQ(by_query.status, 200);
  EXPECT_NE(by_query.headers.at("set-cookie").find("zelctl-token=s3cret-token"), std::string::npos);
  EXPECT_NE(by_query.headers.at("set-cookie").find("HttpOnly"), std::string::npos);
  EXPECT_EQ(s.get("/api/summary", "Cookie: a=b; zelctl-token=s3cret-token\r\n").status, 200);
  http_peer stream(s.port());
  EXPECT_EQ(stream.open_stream("/api/events?token=s3cret-token&snapshot=none").status, 200);
  EXPECT_EQ(stream.next_event(5s).name, "snapshot");
}

TEST_F(ZelctlServe, IdleAndSurplusConnectionsAreClosed) {
  server s(sim_, dir_, {"--idle-ms", "500", "--max-connections", "3"});
  ASSERT_NE(s.port(), 0) << s.child().err();
  http_peer a(s.port());
  http_peer b(s.port());
  http_peer c(s.port());
  ASSERT_TRUE(a.connected() && b.connected() && c.connected());
  std::this_thread::sleep_for(100ms);
  http_peer surplus(s.port());
  surplus.send("GET /api/summary HTTP/1.1\r\nHost: t\r\n\r\n");
  EXPECT_EQ(surplus.read_answer().status, 503);
  // Half a request, then nothing: closed after the idle limit.
  a.send("GET /api/summary HTTP/1.1\r\n");
  EXPECT_TRUE(a.wait_closed(3s));
  EXPECT_TRUE(b.wait_closed(3s));
  EXPECT_TRUE(c.wait_closed(3s));
  EXPECT_EQ(s.get("/api/summary").status, 200);
}

TEST(ZelctlServeLoad, ASlowClientIsDroppedWithoutStallingTheOthers) {
  temp_dir dir;
  std::ofstream(dir.file("pw")) << "demo\n";
  zelsim::options o = cluster_options();
  o.rate = 4000;
  // A thousand jobs from the start: the slow client's catch-up snapshots are large, so its
  // socket fills within a second whatever the machine's speed.
  o.warm_up = 3000;
  zelsim::cluster sim(o);
  sim.start();
  server s(sim, dir, {"--batch-ms", "100", "--write-ms", "1000", "--max-queue-kib", "16"});
  ASSERT_NE(s.port(), 0) << s.child().err();
  http_peer slow(s.port(), 4096);
  slow.send("GET /api/events HTTP/1.1\r\nHost: t\r\n\r\n");
  http_peer fast(s.port());
  ASSERT_EQ(fast.open_stream("/api/events?snapshot=none").status, 200);
  ASSERT_EQ(fast.next_event(5s).name, "snapshot");
  sim.run_workload();
  std::uint64_t last_seq = 0;
  std::size_t batches = 0;
  bool dropped = false;
  // Until the slow client is dropped, and for two seconds at least: every batch reaches the
  // fast client in order, none after a wait of over a second.
  const auto start = std::chrono::steady_clock::now();
  while (std::chrono::steady_clock::now() < start + 30s) {
    const auto e = fast.next_event(1s);
    ASSERT_EQ(e.name, "batch") << "the fast client waited over a second";
    const std::uint64_t seq = nlohmann::json::parse(e.data)["seq"];
    if (last_seq != 0) {
      ASSERT_EQ(seq, last_seq + 1);
    }
    last_seq = seq;
    ++batches;
    if (!dropped && s.json("/api/summary")["stream-clients"] == 1) dropped = true;
    if (dropped && std::chrono::steady_clock::now() > start + 2s) break;
  }
  sim.pause_workload();
  EXPECT_TRUE(dropped) << "the slow client was never dropped";
  EXPECT_GT(batches, 5u);
  // What the kernel still holds for the slow client ends with the close.
  EXPECT_TRUE(slow.wait_closed(5s));
}

}  // namespace
