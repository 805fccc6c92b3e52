// Running the zelctl program in tests: as a child process with its output in files, bounded in
// time, against an in-process simulated cluster on free loopback ports.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/child_process.h"
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

}  // namespace zelctl_test
