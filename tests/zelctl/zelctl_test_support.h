// Running the zelctl program in tests: as a child process with its output in files, bounded in
// time, against an in-process simulated cluster on free loopback ports.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "zelsim/cluster.h"

namespace zelctl_test {

inline std::string read_file(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

inline std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::stringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// A fresh directory for a test's files, removed at the end.
struct temp_dir {
  std::string path;
  temp_dir() {
    char name[] = "/tmp/zelctl-test-XXXXXX";
    path = ::mkdtemp(name);
  }
  ~temp_dir() { std::system(("rm -rf '" + path + "'").c_str()); }
  std::string file(const std::string& name) const { return path + "/" + name; }
};

// The program running as a child; its stdout and stderr go to files. Killed at the end unless
// waited for.
class process {
 public:
  explicit process(const std::vector<std::string>& args, const std::string& input = "") {
    static int serial = 0;
    const std::string base = dir_.file("run" + std::to_string(serial++));
    out_path_ = base + ".out";
    err_path_ = base + ".err";
    const std::string in_path = base + ".in";
    std::ofstream(in_path) << input;
    pid_ = ::fork();
    if (pid_ == 0) {
      const int in = ::open(in_path.c_str(), O_RDONLY);
      const int out = ::open(out_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      const int err = ::open(err_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      ::dup2(in, STDIN_FILENO);
      ::dup2(out, STDOUT_FILENO);
      ::dup2(err, STDERR_FILENO);
      std::vector<char*> argv{const_cast<char*>(ZELCTL_PROGRAM)};
      for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      ::execv(ZELCTL_PROGRAM, argv.data());
      ::_exit(127);
    }
  }
  ~process() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  process(const process&) = delete;
  process& operator=(const process&) = delete;

  // Waits up to `limit` for the exit; its exit code, or -1 (and a kill) when it ran over.
  int wait(std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto until = std::chrono::steady_clock::now() + limit;
    int status = 0;
    while (::waitpid(pid_, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > until) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        pid_ = 0;
        return -1;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    pid_ = 0;
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    return 128 + WTERMSIG(status);
  }
  void signal(int number) { ::kill(pid_, number); }
  // Waits until stdout holds `text`; false when `limit` passed first.
  bool wait_for_output(const std::string& text,
                       std::chrono::milliseconds limit = std::chrono::seconds(10)) const {
    const auto until = std::chrono::steady_clock::now() + limit;
    while (out().find(text) == std::string::npos) {
      if (std::chrono::steady_clock::now() > until) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
  }
  std::string out() const { return read_file(out_path_); }
  std::string err() const { return read_file(err_path_); }

 private:
  temp_dir dir_;
  pid_t pid_ = 0;
  std::string out_path_;
  std::string err_path_;
};

struct result {
  int code;
  std::string out;
  std::string err;
};

// Runs the program to its end.
inline result run(const std::vector<std::string>& args, const std::string& input = "") {
  process p(args, input);
  const int code = p.wait();
  return {code, p.out(), p.err()};
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
