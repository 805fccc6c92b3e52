// The zelsim program as users run it: three nodes, master 2, a client that logs in through
// node 1 and lands on the master, and a clean stop on SIGTERM.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "zelcapi/connection.h"

namespace {

// Reads one line from `f` (without the newline); false at the end.
bool read_line(FILE* f, std::string& line) {
  line.clear();
  for (int c = std::fgetc(f); c != EOF; c = std::fgetc(f)) {
    if (c == '\n') return true;
    line.push_back(static_cast<char>(c));
  }
  return !line.empty();
}

TEST(Program, ThreeNodesLoginLandsOnTheMasterAndSigtermStops) {
  int err[2];
  ASSERT_EQ(::pipe(err), 0);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::dup2(err[1], STDERR_FILENO);
    ::close(err[0]);
    ::execl(ZELSIM_PROGRAM, ZELSIM_PROGRAM, "--nodes", "3", "--master", "2", "--port", "0",
            "--user", "alice:secret", static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(err[1]);
  // Stops the program whatever the test's outcome (a SIGTERM it already had is harmless).
  struct stop_child {
    pid_t pid;
    ~stop_child() {
      if (pid > 0) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
      }
    }
  } guard{child};
  FILE* log = ::fdopen(err[0], "r");
  ASSERT_NE(log, nullptr);
  // "zelsim: node-1 127.0.0.1:PORT: listening"
  std::vector<std::string> ports;
  std::string line;
  while (ports.size() < 3 && read_line(log, line)) {
    const auto end = line.find(": listening");
    if (end == std::string::npos || end == 0) continue;
    const auto colon = line.rfind(':', end - 1);
    if (colon != std::string::npos) ports.push_back(line.substr(colon + 1, end - colon - 1));
  }
  ASSERT_EQ(ports.size(), 3u);

  zelcapi::connection c;
  ASSERT_EQ(c.connect("127.0.0.1", ports[0], 5), zelcapi::connection_ok);
  const zelnet::zelp::packet& reply = c.login_sync("alice", "secret", "", "", 5, false);
  EXPECT_FALSE(reply.get_properties().is_present("error"));
  EXPECT_EQ(reply.get_properties().get_string_value("node-id"), "node-2");
  EXPECT_EQ(c.get_port(), ports[1]);
  c.disconnect("done", false);

  ::kill(child, SIGTERM);
  bool stopping = false;
  while (read_line(log, line)) stopping = stopping || line == "zelsim: stopping on SIGTERM";
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  guard.pid = 0;
  std::fclose(log);
  EXPECT_TRUE(stopping);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
