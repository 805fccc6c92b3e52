// Running the zelctl program in tests: as a child process with its output in files, bounded in
// time, against an in-process simulated cluster on free loopback ports.
#pragma once

#include <chrono>
#include <cstdint>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "json_output.h"
#include "support/child_process.h"
#include "zelbase/exceptions.h"
#include "zelsim/cluster.h"

namespace zelctl_test {

using zeltest::lines_of;
using zeltest::read_file;
using zeltest::temp_dir;
using result = zeltest::run_result;

// The zelctl program running as a child.
class process : public zeltest::child_process {
 public:
  explicit process(const std::vector<std::string>& args, const std::string& input = "")
      : child_process(ZELCTL_PROGRAM, args, input) {}
};

// Runs the program to its end.
inline result run(const std::vector<std::string>& args, const std::string& input = "") {
  return zeltest::run_program(ZELCTL_PROGRAM, args, input);
}

// Runs the program to its end in the directory `dir`, where relative file names land.
inline result run_in(const std::string& dir, const std::vector<std::string>& args) {
  std::vector<std::string> shell{"-c", "cd \"$1\" && shift && exec \"$@\"", "sh", dir,
                                 ZELCTL_PROGRAM};
  shell.insert(shell.end(), args.begin(), args.end());
  return zeltest::run_program("/bin/sh", shell);
}

// A simulated cluster: three nodes on free ports, master node 1, user demo/demo and admin
// root/rootpw, the workload paused until a test lets it run.
inline zelsim::options cluster_options(std::uint16_t port = 0, std::uint64_t seed = 1) {
  zelsim::options o;
  o.users = {{"demo", "demo"}};
  o.admins = {{"root", "rootpw"}};
  o.log = false;
  o.port = port;
  o.seed = seed;
  o.rate = 0;
  return o;
}

// A cluster on three consecutive ports that are free (so that a new cluster can take them
// again after this one stopped): the loss of a whole cluster and its return. The ports lie below
// the range that the system gives outgoing connections (32768 and up), so that no connection of
// a test running beside this one takes them while the cluster is away.
inline std::unique_ptr<zelsim::cluster> start_on_fixed_ports(std::uint16_t& base,
                                                             std::uint64_t seed) {
  std::mt19937 pick(std::random_device{}());
  for (int attempt = 0; attempt < 50; ++attempt) {
    if (base == 0) base = static_cast<std::uint16_t>(10000 + pick() % 22000);
    auto sim = std::make_unique<zelsim::cluster>(cluster_options(base, seed));
    try {
      sim->start();
      return sim;
    } catch (const zelbase::es::base&) {
      base = 0;
    }
  }
  return nullptr;
}

// The flags that point zelctl at node `node` of `sim` as user demo with a password file.
inline std::vector<std::string> at(zelsim::cluster& sim, const std::string& password_file,
                                   std::size_t node = 1) {
  return {"--host",    "127.0.0.1", "--port",          std::to_string(sim.port(node)),
          "--user",    "demo",      "--password-file", password_file,
          "--timeout", "5"};
}

inline std::vector<std::string> operator+(std::vector<std::string> a,
                                          const std::vector<std::string>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// The stderr of a failed run: exactly one line.
inline void expect_one_line(const std::string& err) { EXPECT_EQ(lines_of(err).size(), 1u) << err; }

// A simulated cluster whose workload has made 1500 changes (enough that records are running,
// ended and historized) and is paused, and a password file for zelctl.
class cluster_test : public ::testing::Test {
 protected:
  void SetUp() override {
    sim_.start();
    std::ofstream(dir_.file("pw")) << "demo\n";
    sim_.run_workload(1500);
    ASSERT_TRUE(sim_.wait_workload_paused(std::chrono::seconds(10)));
  }
  nlohmann::json master() { return zelctl::to_json(sim_.master_snapshot()); }

  temp_dir dir_;
  zelsim::cluster sim_{cluster_options()};
};

}  // namespace zelctl_test
