// The zelsim program as users run it: three nodes, master 2, a client that logs in through
// node 1 and lands on the master, and a clean stop on SIGTERM; its defaults (user demo, a
// running workload), its help and its refusal of bad flag values.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "zelcapi/connection.h"
#include "zelnet/packet.h"

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

// The program running as a child, its stderr readable; killed at the end unless waited for.
struct running_program {
  pid_t pid = 0;
  FILE* log = nullptr;
  std::vector<std::string> ports;
  ~running_program() {
    if (pid > 0) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, nullptr, 0);
    }
    if (log != nullptr) std::fclose(log);
  }
};

// Starts the program with `args` and reads the three nodes' ports from its log
// ("zelsim: node-1 127.0.0.1:PORT: listening").
void start_program(const std::vector<const char*>& args, running_program& p) {
  int err[2];
  ASSERT_EQ(::pipe(err), 0);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::dup2(err[1], STDERR_FILENO);
    ::close(err[0]);
    std::vector<char*> argv{const_cast<char*>(ZELSIM_PROGRAM)};
    for (const char* a : args) argv.push_back(const_cast<char*>(a));
    argv.push_back(nullptr);
    ::execv(ZELSIM_PROGRAM, argv.data());
    ::_exit(127);
  }
  ::close(err[1]);
  p.pid = child;
  p.log = ::fdopen(err[0], "r");
  ASSERT_NE(p.log, nullptr);
  std::string line;
  while (p.ports.size() < 3 && read_line(p.log, line)) {
    const auto end = line.find(": listening");
    if (end == std::string::npos || end == 0) continue;
    const auto colon = line.rfind(':', end - 1);
    if (colon != std::string::npos) p.ports.push_back(line.substr(colon + 1, end - colon - 1));
  }
  ASSERT_EQ(p.ports.size(), 3u);
}

// Runs the program to its end with `args`; its exit status and its output (stdout and stderr).
int run_program(const std::string& args, std::string& output) {
  FILE* out = ::popen((std::string(ZELSIM_PROGRAM) + " " + args + " 2>&1").c_str(), "r");
  if (out == nullptr) return -1;
  output.clear();
  char buffer[4096];
  for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, out)) > 0;)
    output.append(buffer, n);
  const int status = ::pclose(out);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(Program, ThreeNodesLoginLandsOnTheMasterAndSigtermStops) {
  running_program program;
  start_program({"--nodes", "3", "--master", "2", "--port", "0", "--user", "alice:secret"},
                program);
  if (HasFatalFailure()) return;
  const std::vector<std::string>& ports = program.ports;
  FILE* log = program.log;
  std::string line;

  zelcapi::connection c;
  ASSERT_EQ(c.connect("127.0.0.1", ports[0], 5), zelcapi::connection_ok);
  const zelnet::zelp::packet& reply = c.login_sync("alice", "secret", "", "", 5, false);
  EXPECT_FALSE(reply.get_properties().is_present("error"));
  EXPECT_EQ(reply.get_properties().get_string_value("node-id"), "node-2");
  EXPECT_EQ(c.get_port(), ports[1]);
  c.disconnect("done", false);

  ::kill(program.pid, SIGTERM);
  bool stopping = false;
  while (read_line(log, line)) stopping = stopping || line == "zelsim: stopping on SIGTERM";
  int status = 0;
  ASSERT_EQ(::waitpid(program.pid, &status, 0), program.pid);
  program.pid = 0;
  EXPECT_TRUE(stopping);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

// Counts the notifications a connection receives.
class counting_handler : public zelcapi::handler {
 public:
  bool handle(const zelnet::zelp::packet& in, zelnet::zelp::packet&) override {
    notifications += in.get_type() == zelnet::zelp::packet::type_notification ? 1 : 0;
    return true;
  }
  int notifications = 0;
};

TEST(Program, WithoutFlagsThreeNodesLetDemoLogInAndTheWorkloadRuns) {
  running_program program;
  start_program({}, program);
  if (HasFatalFailure()) return;
  counting_handler h;
  zelcapi::connection c(&h);
  ASSERT_EQ(c.connect("127.0.0.1", program.ports[1], 5), zelcapi::connection_ok);
  const zelnet::zelp::packet& reply = c.login_sync("demo", "demo", "", "", 5, false);
  EXPECT_FALSE(reply.get_properties().is_present("error"));
  EXPECT_EQ(reply.get_properties().get_string_value("node-id"), "node-1");
  // Ten changes a second by default.
  for (int i = 0; i < 30 && h.notifications == 0; ++i) c.wait(100);
  EXPECT_GT(h.notifications, 0);
}

TEST(Program, HelpNamesTheDefaultUserAndTheWorkloadFlags) {
  std::string output;
  EXPECT_EQ(run_program("--help", output), 0);
  for (const char* text : {"\"demo\" with password \"demo\"", "--rate", "--jobs", "--seed",
                           "--history-keep", "--idle", "--run-ms", "--key-keep", "--job-keep"}) {
    EXPECT_NE(output.find(text), std::string::npos) << text << " is not in:\n" << output;
  }
}

TEST(Program, BadFlagValuesGiveAClearError) {
  const std::pair<const char*, const char*> cases[] = {{"--rate -5", "--rate"},
                                                       {"--rate fast", "--rate"},
                                                       {"--jobs 0", "--jobs"},
                                                       {"--seed abc", "--seed"},
                                                       {"--history-keep -1", "--history-keep"},
                                                       {"--run-ms 100000000", "--run-ms"},
                                                       {"--key-keep 0", "--key-keep"},
                                                       {"--job-keep x", "--job-keep"},
                                                       {"--no-such-flag", "--no-such-flag"}};
  for (const auto& [args, flag] : cases) {
    std::string output;
    EXPECT_EQ(run_program(args, output), 2) << args;
    EXPECT_NE(output.find("(see zelsim --help)"), std::string::npos) << output;
    EXPECT_NE(output.find(flag), std::string::npos) << args << " gave:\n" << output;
    EXPECT_EQ(output.find("listening"), std::string::npos) << args;
  }
}

}  // namespace
