// zelctl serve against a simulated cluster, over real sockets: every endpoint answers from the
// replica what the master holds, the filters and the table select and sort, the event stream's
// batches rebuild the state, bad requests get a 4xx and change nothing, and the token is needed.
// (zelctl_serve_connections_test.cpp: the connections and their limits; zelctl_serve_link_test.cpp:
// the link to the cluster.)
#include <gtest/gtest.h>

#include <thread>

#include "json_output.h"
#include "serve_test_support.h"
#include "stream_state.h"

using namespace zelctl_test;
using zeltest::http_answer;
using zeltest::http_get;
using zeltest::http_peer;
using namespace std::chrono_literals;

namespace {

class ZelctlServe : public serve_test {};

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
  stream_state built;
  ASSERT_TRUE(open_full_stream(stream, built));
  EXPECT_EQ(built.state(), master());
  // The cluster changes in steps, each once the stream has brought the one before: each step's
  // changes come in batches of their own, however fast or slow the machine.
  const int steps = 5;
  for (int step = 0; step < steps; ++step) {
    change(600);
    const nlohmann::json m = master();
    ASSERT_TRUE(stream_reaches(stream, built, m)) << "step " << step << ":\n"
                                                  << difference(built.state(), m);
  }
  EXPECT_GE(built.batches(), static_cast<std::uint64_t>(steps));
  EXPECT_GE(built.changes(), 3000u);
  const nlohmann::json served = s.json("/api/state");
  EXPECT_TRUE(built.state() == served) << difference(built.state(), served);
}

TEST_F(ZelctlServe, ALargeAnswerComesInPiecesAndHoldsTheStateOfItsRequest) {
  server s(sim_, dir_, {"--batch-ms", "100"});
  ASSERT_NE(s.port(), 0) << s.child().err();
  http_peer stream(s.port());
  ASSERT_EQ(stream.open_stream("/api/events?snapshot=none").status, 200);
  ASSERT_EQ(stream.next_event(20s).name, "snapshot");
  const nlohmann::json before = master();
  // A client asks for the whole state and reads only the header of the answer.
  http_peer reader(s.port(), 4096);
  reader.send("GET /api/state HTTP/1.1\r\nHost: t\r\n\r\n");
  ASSERT_TRUE(reader.wait_for("\r\n\r\n", 10s));
  // Meanwhile the cluster changes and the stream carries the changes.
  change(600);
  std::size_t changes = 0;
  while (changes == 0) {
    const auto e = stream.next_event(10s);
    ASSERT_FALSE(e.name.empty()) << "no batch while an answer was in progress";
    if (e.name == "batch") changes += nlohmann::json::parse(e.data)["changes"].size();
  }
  // The answer, read now, is the state of its request, in chunks.
  const http_answer a = reader.read_answer(20s);
  ASSERT_EQ(a.status, 200);
  EXPECT_EQ(a.headers.at("transfer-encoding"), "chunked");
  EXPECT_GT(a.chunks, 1u);
  const nlohmann::json answered = body_json(a);
  EXPECT_TRUE(answered == before) << difference(answered, before);
  ASSERT_TRUE(served_equals_master(s));
  EXPECT_NE(before, master());
  // An HTTP/1.0 client, which knows no chunks: the body ends with the connection.
  http_peer old(s.port());
  old.send("GET /api/state/jobs HTTP/1.0\r\n\r\n");
  const http_answer plain = old.read_answer(20s);
  ASSERT_EQ(plain.status, 200);
  EXPECT_EQ(plain.headers.count("transfer-encoding"), 0u);
  EXPECT_EQ(body_json(plain), master()["jobs"]);
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
  EXPECT_EQ(stream.next_event(20s).name, "snapshot");
}

TEST_F(ZelctlServe, TheFaviconComesFromTheProgram) {
  server s(sim_, dir_);
  ASSERT_NE(s.port(), 0) << s.child().err();
  const http_answer icon = s.get("/favicon.ico");
  ASSERT_EQ(icon.status, 200);
  EXPECT_EQ(icon.headers.at("content-type"), "image/x-icon");
  // An icon directory of one image.
  ASSERT_GE(icon.body.size(), 22u);
  EXPECT_EQ(icon.body.substr(0, 6), std::string("\0\0\1\0\1\0", 6));
}

TEST_F(ZelctlServe, ListeningBeyondLoopbackWithoutATokenIsWarnedOf) {
  server open(sim_, dir_, {}, "0.0.0.0:0");
  ASSERT_NE(open.port(), 0) << open.child().err();
  EXPECT_NE(open.child().err().find("warning: listening on 0.0.0.0:" + std::to_string(open.port()) +
                                    " without --token-file"),
            std::string::npos)
      << open.child().err();
  EXPECT_EQ(open.get("/api/summary").status, 200);
  std::ofstream(dir_.file("token")) << "s3cret-token\n";
  server guarded(sim_, dir_, {"--token-file", dir_.file("token")}, "0.0.0.0:0");
  ASSERT_NE(guarded.port(), 0) << guarded.child().err();
  server local(sim_, dir_);
  ASSERT_NE(local.port(), 0) << local.child().err();
  EXPECT_EQ(guarded.child().err(), "");
  EXPECT_EQ(local.child().err(), "");
}

TEST(ZelctlServeFlags, AnEmptyTokenFileIsSaidToBeEmpty) {
  temp_dir dir;
  std::ofstream(dir.file("empty")).flush();
  const result empty = run({"serve", "--token-file", dir.file("empty")});
  EXPECT_EQ(empty.code, 1);
  EXPECT_NE(empty.err.find("--token-file '" + dir.file("empty") + "' is empty"), std::string::npos)
      << empty.err;
  expect_one_line(empty.err);
  std::ofstream(dir.file("blank")) << "  \n";
  const result blank = run({"serve", "--token-file", dir.file("blank")});
  EXPECT_EQ(blank.code, 1);
  EXPECT_NE(blank.err.find("holds no token"), std::string::npos) << blank.err;
}

}  // namespace
