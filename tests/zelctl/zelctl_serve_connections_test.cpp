// zelctl serve's connections over real sockets: HEAD is GET without the body; a new connection
// that sends no whole header in time loses its slot, and so does the connection that has waited
// longest for a request when a new one finds every slot held, so idle sockets never lock anyone
// out; a stream whose client went away frees its slot at once; a client that does not read is
// dropped without stalling the others.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "serve_test_support.h"

using namespace zelctl_test;
using zeltest::http_answer;
using zeltest::http_peer;
using namespace std::chrono_literals;

namespace {

class ZelctlServeConnections : public serve_test {};

const char* const summary_request = "GET /api/summary HTTP/1.1\r\nHost: t\r\n\r\n";

// Waits until the summary's "stream-clients" is `n`.
bool stream_clients_become(const server& s, int n, std::chrono::milliseconds limit = 10s) {
  const auto until = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < until) {
    if (s.json("/api/summary")["stream-clients"] == n) return true;
    std::this_thread::sleep_for(50ms);
  }
  return false;
}

TEST_F(ZelctlServeConnections, HeadIsAnsweredAsGetWithoutTheBody) {
  server s(sim_, dir_);
  ASSERT_NE(s.port(), 0) << s.child().err();
  const http_answer full = s.get("/api/state/nodes/node-1");
  ASSERT_EQ(full.status, 200);
  // On one kept-alive connection: the HEAD's answers carry no body, so each next answer follows
  // their header directly; a large answer's header says that its body would come in chunks.
  http_peer peer(s.port());
  peer.send("HEAD /api/state/nodes/node-1 HTTP/1.1\r\nHost: t\r\n\r\n");
  const http_answer head = peer.read_answer(10s, true);
  EXPECT_EQ(head.status, 200);
  EXPECT_EQ(head.headers.at("content-length"), std::to_string(full.body.size()));
  EXPECT_EQ(head.headers.at("content-type"), "application/json");
  EXPECT_EQ(head.body, "");
  peer.send("HEAD /api/state HTTP/1.1\r\nHost: t\r\n\r\n");
  const http_answer large = peer.read_answer(10s, true);
  EXPECT_EQ(large.status, 200);
  EXPECT_EQ(large.headers.at("transfer-encoding"), "chunked");
  EXPECT_EQ(large.body, "");
  peer.send("GET /api/state/nodes/node-1 HTTP/1.1\r\nHost: t\r\n\r\n");
  const http_answer after = peer.read_answer();
  EXPECT_EQ(after.status, 200);
  EXPECT_EQ(after.body, full.body);
  // Errors and pages alike; an event stream answers its header and closes.
  http_peer missing(s.port());
  missing.send("HEAD /no-such-page HTTP/1.1\r\nHost: t\r\nConnection: close\r\n\r\n");
  EXPECT_EQ(missing.read_answer(10s, true).status, 404);
  for (const auto& [target, type] :
       {std::pair<std::string, std::string>{"/jobs", "text/html; charset=utf-8"},
        {"/api/events", "text/event-stream"}}) {
    http_peer peer_of_one(s.port());
    peer_of_one.send("HEAD " + target + " HTTP/1.1\r\nHost: t\r\nConnection: close\r\n\r\n");
    const http_answer answer = peer_of_one.read_answer(10s, true);
    EXPECT_EQ(answer.status, 200) << target;
    EXPECT_EQ(answer.headers.at("content-type"), type) << target;
    EXPECT_TRUE(peer_of_one.wait_closed(20s)) << target;
  }
  http_peer post(s.port());
  post.send("POST /api/state HTTP/1.1\r\nHost: t\r\nContent-Length: 2\r\n\r\n{}");
  const http_answer refused = post.read_answer();
  EXPECT_EQ(refused.status, 405);
  EXPECT_EQ(refused.headers.at("allow"), "GET, HEAD");
  EXPECT_EQ(s.json("/api/summary")["stream-clients"], 0);
}

TEST_F(ZelctlServeConnections, ANewConnectionWithoutAWholeHeaderInTimeLosesItsSlot) {
  server s(sim_, dir_, {"--header-ms", "300"});
  ASSERT_NE(s.port(), 0) << s.child().err();
  http_peer silent(s.port());
  http_peer halfway(s.port());
  ASSERT_TRUE(silent.connected() && halfway.connected());
  halfway.send("GET /api/summary HTTP/1.1\r\nHost: t\r\n");
  // Well before the 30 s that a kept-alive connection may wait.
  EXPECT_TRUE(silent.wait_closed(10s));
  EXPECT_TRUE(halfway.wait_closed(10s));
  EXPECT_EQ(s.get("/api/summary").status, 200);
}

TEST_F(ZelctlServeConnections, AKeptAliveConnectionWaitsItsIdleTimeForTheNextRequest) {
  server s(sim_, dir_, {"--idle-ms", "300"});
  ASSERT_NE(s.port(), 0) << s.child().err();
  http_peer peer(s.port());
  peer.send(summary_request);
  EXPECT_EQ(peer.read_answer().status, 200);
  peer.send("GET /api/summary HTTP/1.1\r\n");
  EXPECT_TRUE(peer.wait_closed(10s));
}

TEST_F(ZelctlServeConnections, IdleSocketsGiveTheirSlotsToNewConnections) {
  // The default limit of 256 connections; 300 sockets that never send a byte, and between them
  // ordinary requests, each of which must be answered.
  server s(sim_, dir_);
  ASSERT_NE(s.port(), 0) << s.child().err();
  std::vector<std::unique_ptr<http_peer>> idle;
  std::size_t answered = 0;
  for (int i = 0; i < 300; ++i) {
    idle.push_back(std::make_unique<http_peer>(s.port()));
    ASSERT_TRUE(idle.back()->connected()) << i;
    if (i % 10 == 9) {
      const http_answer a = s.get("/api/summary");
      EXPECT_EQ(a.status, 200) << "after " << i + 1 << " idle sockets: " << a.body;
      answered += a.status == 200 ? 1 : 0;
    }
  }
  for (int i = 0; i < 10; ++i) {
    http_peer keep(s.port());
    keep.send(summary_request);
    EXPECT_EQ(keep.read_answer().status, 200);
    answered += 1;
  }
  EXPECT_EQ(answered, 40u);
  // The longest waiting gave their slots up: the first idle socket is closed.
  EXPECT_TRUE(idle.front()->wait_closed(10s));
  EXPECT_FALSE(s.child().has_exited());
}

TEST_F(ZelctlServeConnections, ANewConnectionIsRefusedOnlyWhenEverySlotIsBusy) {
  server s(sim_, dir_, {"--max-connections", "3"});
  ASSERT_NE(s.port(), 0) << s.child().err();
  std::vector<std::unique_ptr<http_peer>> streams;
  for (int i = 0; i < 3; ++i) {
    streams.push_back(std::make_unique<http_peer>(s.port()));
    ASSERT_EQ(streams.back()->open_stream("/api/events?snapshot=none").status, 200);
    ASSERT_EQ(streams.back()->next_event(20s).name, "snapshot");
  }
  http_peer surplus(s.port());
  surplus.send(summary_request);
  EXPECT_EQ(surplus.read_answer().status, 503);
  EXPECT_TRUE(surplus.wait_closed(20s));
  // A stream whose client goes frees its slot at once: the server reads while it streams.
  streams.pop_back();
  bool answered = false;
  const auto until = std::chrono::steady_clock::now() + 10s;
  while (!answered && std::chrono::steady_clock::now() < until) {
    answered = s.get("/api/summary").status == 200;
    if (!answered) std::this_thread::sleep_for(50ms);
  }
  EXPECT_TRUE(answered);
}

TEST_F(ZelctlServeConnections, AStreamWhoseClientWentAwayEndsWithoutAWrite) {
  // No change and no keep-alive comment for 15 s: nothing is written to the stream, so only its
  // reading can notice that the client went away.
  server s(sim_, dir_, {"--batch-ms", "100"});
  ASSERT_NE(s.port(), 0) << s.child().err();
  auto stream = std::make_unique<http_peer>(s.port());
  ASSERT_EQ(stream->open_stream("/api/events?snapshot=none").status, 200);
  ASSERT_EQ(stream->next_event(20s).name, "snapshot");
  ASSERT_TRUE(stream_clients_become(s, 1));
  stream.reset();
  EXPECT_TRUE(stream_clients_become(s, 0));
}

TEST(ZelctlServeLoad, ASlowClientIsDroppedWithoutStallingTheOthers) {
  temp_dir dir;
  std::ofstream(dir.file("pw")) << "demo\n";
  zelsim::options o = cluster_options();
  // Four thousand jobs from the start: the slow client's catch-up snapshots are large, so its
  // socket fills within a few steps whatever the machine's speed.
  o.jobs = 4000;
  o.warm_up = 12000;
  zelsim::cluster sim(o);
  sim.start();
  server s(sim, dir, {"--batch-ms", "100", "--write-ms", "1000", "--max-queue-kib", "16"});
  ASSERT_NE(s.port(), 0) << s.child().err();
  http_peer slow(s.port(), 4096);
  slow.send("GET /api/events HTTP/1.1\r\nHost: t\r\n\r\n");
  http_peer fast(s.port());
  stream_state built;
  ASSERT_TRUE(open_full_stream(fast, built, 60s));
  // The cluster changes in steps while the slow client reads nothing: each step reaches the
  // fast client in batches in order (no catch-up snapshot), until the slow one is dropped and
  // for two steps after it.
  int steps_after_drop = 0;
  int steps = 0;
  const auto until = std::chrono::steady_clock::now() + 60s;
  while (steps_after_drop < 2 && std::chrono::steady_clock::now() < until) {
    sim.run_workload(300);
    ASSERT_TRUE(sim.wait_workload_paused(20s));
    const nlohmann::json m = zelctl::to_json(sim.master_snapshot());
    ASSERT_TRUE(stream_reaches(fast, built, m)) << "step " << steps;
    ++steps;
    if (steps_after_drop > 0 || s.json("/api/summary")["stream-clients"] == 1) ++steps_after_drop;
  }
  EXPECT_EQ(steps_after_drop, 2) << "the slow client was never dropped";
  EXPECT_GE(built.batches(), static_cast<std::uint64_t>(steps));
  // What the kernel still holds for the slow client ends with the close.
  EXPECT_TRUE(slow.wait_closed(20s));
}

}  // namespace
