// zelctl mirror: it saves the replica into the SQLite file, survives the loss of its master (a
// new cluster on the same ports) by reconnecting and reloading, and a mirror killed mid-run
// leaves a file from which the next mirror loads the last complete save.
#include <gtest/gtest.h>

#include "json_output.h"
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

}  // namespace
