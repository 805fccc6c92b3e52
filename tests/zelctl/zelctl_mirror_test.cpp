// zelctl mirror: it saves the replica into the SQLite file, survives the loss of its master (a
// new cluster on the same ports) by reconnecting and reloading, and a mirror killed mid-run
// leaves a file from which the next mirror loads the last complete save; with --metrics-listen it
// serves its replica's and its saves' metrics.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "json_output.h"
#include "metrics_support.h"
#include "zelcapi/sqlite_db.h"
#include "zelctl_test_support.h"

using namespace zelctl_test;

namespace {

// The records of one kind that the file's last complete save holds, as JSON.
nlohmann::json saved(const std::string& path, zelcapi::db_item_type type) {
  zelcapi::sqlite_options read_only;
  read_only.read_only = true;
  zelcapi::sqlite_state_db file(path, read_only);
  return zelctl::to_json(*file.load_items(type));
}

TEST(ZelctlMirror, SimulatedRunSavesTheReplicaAndPrintsASummary) {
  temp_dir dir;
  const std::string db = dir.file("mirror.sqlite");
  const result r = run({"--simulate", "--rate", "300", "mirror", "--db", db, "--duration", "2.5",
                        "--save-interval", "0.5"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("mirror summary"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("changes applied:"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find(db), std::string::npos);
  EXPECT_NE(r.out.find("saved "), std::string::npos) << r.out;  // log lines: not a terminal
  EXPECT_FALSE(saved(db, zelcapi::db_item_job).empty());
  EXPECT_GE(saved(db, zelcapi::db_item_node).size(), 3u);
}

TEST(ZelctlMirror, ReconnectsToANewMasterOnTheSamePortsAndReloads) {
  temp_dir dir;
  std::ofstream(dir.file("pw")) << "demo\n";
  const std::string db = dir.file("mirror.sqlite");
  std::uint16_t base = 0;
  auto first = start_on_fixed_ports(base, 1);
  ASSERT_NE(first, nullptr);
  first->run_workload();
  process mirror(at(*first, dir.file("pw")) + std::vector<std::string>{"mirror", "--db", db,
                                                                       "--duration", "6",
                                                                       "--save-interval", "0.5"});
  ASSERT_TRUE(mirror.wait_for_output("connected to"));
  std::this_thread::sleep_for(std::chrono::milliseconds(800));
  first->stop();
  first.reset();
  // A different seed: the new master's state differs from the first one's.
  auto second = std::make_unique<zelsim::cluster>(cluster_options(base, 2));
  second->start();
  second->run_workload(800);
  ASSERT_TRUE(second->wait_workload_paused(std::chrono::seconds(10)));
  ASSERT_TRUE(mirror.wait_for_output("reconnected to", std::chrono::seconds(8))) << mirror.out();
  ASSERT_EQ(mirror.wait(std::chrono::seconds(15)), 0) << mirror.err();
  EXPECT_NE(mirror.out().find("lost the link"), std::string::npos) << mirror.out();
  const auto master = zelctl::to_json(second->master_snapshot());
  EXPECT_EQ(saved(db, zelcapi::db_item_job), master["jobs"]);
  EXPECT_EQ(saved(db, zelcapi::db_item_task), master["tasks"]);
}

TEST(ZelctlMirror, AMirrorKilledMidRunLeavesItsLastCompleteSaveForTheNext) {
  temp_dir dir;
  std::ofstream(dir.file("pw")) << "demo\n";
  const std::string db = dir.file("mirror.sqlite");
  zelsim::cluster sim(cluster_options());
  sim.start();
  sim.run_workload(600);
  ASSERT_TRUE(sim.wait_workload_paused(std::chrono::seconds(10)));
  process mirror(at(sim, dir.file("pw")) +
                 std::vector<std::string>{"mirror", "--db", db, "--save-interval", "0.2"});
  ASSERT_TRUE(mirror.wait_for_output("saved "));
  // Saves go on while the workload runs again; the kill lands at any point of one.
  sim.run_workload();
  std::this_thread::sleep_for(std::chrono::milliseconds(700));
  mirror.signal(SIGKILL);
  mirror.wait();
  sim.stop();
  const auto jobs = saved(db, zelcapi::db_item_job);
  ASSERT_FALSE(jobs.empty());

  // The next mirror finds no cluster: it loads the file, retries, and saves what it loaded.
  const result next =
      run({"--port", std::to_string(sim.port(1)), "--user", "demo", "--password-file",
           dir.file("pw"), "--timeout", "1", "mirror", "--db", db, "--duration", "1.5", "--json"});
  ASSERT_EQ(next.code, 0) << next.err;
  EXPECT_NE(next.out.find("loaded " + db), std::string::npos) << next.out;
  EXPECT_NE(next.out.find("retrying"), std::string::npos) << next.out;
  const auto summary = nlohmann::json::parse(next.out.substr(next.out.find("\n{") + 1));
  EXPECT_EQ(summary["items"]["jobs"], jobs.size());
  EXPECT_EQ(saved(db, zelcapi::db_item_job), jobs);
}

TEST(ZelctlMirror, MetricsListenServesTheReplicaAndTheSaves) {
  temp_dir dir;
  std::ofstream(dir.file("pw")) << "demo\n";
  zelsim::cluster sim(cluster_options());
  sim.start();
  sim.run_workload(600);
  ASSERT_TRUE(sim.wait_workload_paused(std::chrono::seconds(10)));
  process mirror(at(sim, dir.file("pw")) +
                 std::vector<std::string>{"mirror", "--db", dir.file("mirror.sqlite"),
                                          "--save-interval", "0.2", "--metrics-listen",
                                          "127.0.0.1:0"});
  ASSERT_TRUE(mirror.wait_for_output("metrics at http://")) << mirror.err();
  const std::uint16_t port = zeltest::loopback_port_in(mirror.out());
  ASSERT_NE(port, 0) << mirror.out();
  // Two saves after the snapshot: the second finds the workload paused, so the replica's
  // figures are the master's.
  zeltest::http_answer a;
  std::map<std::string, double> now;
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (std::chrono::steady_clock::now() < until) {
    a = zeltest::http_get(port, "/metrics");
    now = metric_samples(a.body);
    if (a.status == 200 && now["zelcapi_saves_total"] >= 2) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  ASSERT_EQ(a.status, 200) << a.body;
  EXPECT_EQ(a.headers.at("content-type"), "text/plain; version=0.0.4; charset=utf-8");
  ASSERT_GE(now["zelcapi_saves_total"], 2) << a.body;
  if (!prometheus_program("promtool").empty()) {
    const auto checked =
        zeltest::run_program(prometheus_program("promtool"), {"check", "metrics"}, a.body);
    EXPECT_EQ(checked.code, 0) << checked.out << checked.err << a.body;
  }
  const nlohmann::json master = zelctl::to_json(sim.master_snapshot());
  EXPECT_EQ(now.at("zelcapi_replica_records{kind=\"jobs\"}"),
            static_cast<double>(master["jobs"].size()));
  EXPECT_EQ(metric_sum(now, "zelcapi_jobs"), static_cast<double>(master["jobs"].size()));
  EXPECT_EQ(now.at("zelcapi_snapshots_loaded_total"), 1);
  EXPECT_EQ(now.at("zelcapi_cluster_connected"), 1);
  const double saves = now.at("zelcapi_saves_total");
  EXPECT_EQ(now.at("zelcapi_save_duration_seconds_count"), saves);
  EXPECT_EQ(now.at("zelcapi_save_duration_seconds_bucket{le=\"+Inf\"}"), saves);
  EXPECT_GT(now.at("zelcapi_save_duration_seconds_sum"), 0);
  EXPECT_EQ(now.at("zelcapi_save_records_written_count"), saves);
  // The first save wrote every record.
  EXPECT_GE(now.at("zelcapi_save_records_written_sum"), now.at("zelcapi_last_save_records"));
  EXPECT_GT(now.at("zelcapi_last_save_records"), static_cast<double>(master["jobs"].size()));
  EXPECT_EQ(now.at("zelcapi_save_failures_total"), 0);
  EXPECT_GT(now.at("zelcapi_last_save_timestamp_seconds"), 1.7e9);
  // Nothing but /metrics; HEAD is its header alone; answers are counted.
  EXPECT_EQ(zeltest::http_get(port, "/api/state").status, 404);
  zeltest::http_peer peer(port);
  peer.send("HEAD /metrics HTTP/1.1\r\nHost: t\r\nConnection: close\r\n\r\n");
  const zeltest::http_answer head = peer.read_answer(std::chrono::seconds(10), true);
  EXPECT_EQ(head.status, 200);
  EXPECT_EQ(head.body, "");
  now = metric_samples(zeltest::http_get(port, "/metrics").body);
  EXPECT_EQ(now.at("zelcapi_http_responses_total{code=\"404\"}"), 1);
  mirror.signal(SIGTERM);
  EXPECT_EQ(mirror.wait(), 0) << mirror.err();
}

// A "cluster" whose port takes connections (the kernel completes them) and never answers: each
// login waits for --timeout, the mirror's thread with it.
class hung_port {
 public:
  hung_port() {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof at;
    if (::bind(fd_, reinterpret_cast<sockaddr*>(&at), sizeof at) == 0 && ::listen(fd_, 16) == 0 &&
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&at), &size) == 0) {
      port_ = ntohs(at.sin_port);
    }
  }
  ~hung_port() { ::close(fd_); }
  std::uint16_t port() const { return port_; }

 private:
  int fd_ = -1;
  std::uint16_t port_ = 0;
};

TEST(ZelctlMirror, AScrapeWhileTheMirrorWaitsForTheClusterGets503ThenTheLinkIsDown) {
  temp_dir dir;
  std::ofstream(dir.file("pw")) << "demo\n";
  hung_port cluster;
  ASSERT_NE(cluster.port(), 0);
  process mirror({"--port", std::to_string(cluster.port()), "--user", "demo", "--password-file",
                  dir.file("pw"), "--timeout", "10", "mirror", "--db", dir.file("mirror.sqlite"),
                  "--metrics-listen", "127.0.0.1:0"});
  ASSERT_TRUE(mirror.wait_for_output("metrics at http://")) << mirror.err();
  const std::uint16_t port = zeltest::loopback_port_in(mirror.out());
  ASSERT_NE(port, 0) << mirror.out();
  // The first login waits for its time-out: the scrape gets 503, not figures.
  const zeltest::http_answer busy = zeltest::http_get(port, "/metrics");
  EXPECT_EQ(busy.status, 503) << busy.body;
  EXPECT_NE(busy.body.find("busy"), std::string::npos) << busy.body;
  // Between two attempts the mirror answers: the link is down, no snapshot came.
  ASSERT_TRUE(mirror.wait_for_output("retrying", std::chrono::seconds(30))) << mirror.out();
  std::map<std::string, double> now;
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (std::chrono::steady_clock::now() < until) {
    const zeltest::http_answer a = zeltest::http_get(port, "/metrics");
    if (a.status == 200) {
      now = metric_samples(a.body);
      break;
    }
    EXPECT_EQ(a.status, 503) << a.body;
  }
  ASSERT_FALSE(now.empty()) << mirror.out();
  EXPECT_EQ(now.at("zelcapi_cluster_connected"), 0);
  EXPECT_EQ(now.at("zelcapi_snapshots_loaded_total"), 0);
  EXPECT_EQ(now.at("zelcapi_replica_records{kind=\"jobs\"}"), 0);
  EXPECT_GE(now.at("zelcapi_http_responses_total{code=\"503\"}"), 1);
  mirror.signal(SIGTERM);
  EXPECT_EQ(mirror.wait(std::chrono::seconds(30)), 0) << mirror.err();
}

}  // namespace

TEST(ZelctlMirror, ASecondMirrorOnOneFileIsRefusedWithOneLineAndReadersAreNot) {
  temp_dir dir;
  const std::string file = dir.file("mirror.db");
  process first({"--simulate", "mirror", "--db", file, "--save-interval", "0.2"});
  ASSERT_TRUE(first.wait_for_output("saved ")) << first.out() << first.err();

  const result second = run({"--simulate", "mirror", "--db", file, "--duration", "1"});
  EXPECT_EQ(second.code, 3);
  EXPECT_EQ(second.err, "zelctl: cannot open --db '" + file +
                            "': another mirror writes it (it "
                            "holds " +
                            file + "-lock): one mirror a file\n");
  EXPECT_EQ(second.out, "");
  const result read = run({"state", "--from", file, "--count"});
  EXPECT_EQ(read.code, 0) << read.err;

  first.signal(SIGTERM);
  EXPECT_EQ(first.wait(), 0) << first.err();
  EXPECT_NE(::access((file + "-lock").c_str(), F_OK), 0) << "the lock file is left behind";
  const result next = run({"--simulate", "mirror", "--db", file, "--duration", "0.5"});
  EXPECT_EQ(next.code, 0) << next.err;
}

TEST(ZelctlMirror, ARefusedLoginLeavesNoNewFileAndKeepsAnOldOne) {
  zelsim::cluster sim(cluster_options());
  sim.start();
  temp_dir dir;
  std::ofstream(dir.file("wrong")) << "not-the-password\n";
  const std::string file = dir.file("mirror.db");
  const result refused = run(at(sim, dir.file("wrong")) +
                             std::vector<std::string>{"mirror", "--db", file, "--duration", "5"});
  EXPECT_EQ(refused.code, 2) << refused.err;
  EXPECT_NE(refused.err.find("Access Denied"), std::string::npos) << refused.err;
  for (const char* suffix : {"", "-wal", "-shm", "-lock"})
    EXPECT_NE(::access((file + suffix).c_str(), F_OK), 0) << file + suffix << " is left";

  // A mirror that saved before is kept whole.
  const result saved = run({"--simulate", "mirror", "--db", file, "--duration", "0.5"});
  ASSERT_EQ(saved.code, 0) << saved.err;
  EXPECT_EQ(run(at(sim, dir.file("wrong")) +
                std::vector<std::string>{"mirror", "--db", file, "--duration", "5"})
                .code,
            2);
  const result read = run({"state", "--from", file, "--count"});
  ASSERT_EQ(read.code, 0) << read.err;
  EXPECT_GT(nlohmann::json::parse(read.out)["jobs"].get<std::uint64_t>(), 0u) << read.out;
}
