// zelctl mirror and serve under a service manager, played by the test: a datagram socket named
// by NOTIFY_SOCKET hears READY=1 once the first snapshot is loaded, WATCHDOG=1 again and again
// when WATCHDOG_USEC asks for it, STATUS lines, and STOPPING=1 at the end; log lines carry no
// time of their own when stdout is the journal's stream.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>

#include "zelctl_test_support.h"

using namespace zelctl_test;

namespace {

// The manager's end of the notify protocol: one datagram socket bound to a path.
class notify_socket {
 public:
  explicit notify_socket(const std::string& path) : path_(path) {
    fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    bound_ =
        fd_ >= 0 && ::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }
  ~notify_socket() {
    if (fd_ >= 0) ::close(fd_);
  }
  notify_socket(const notify_socket&) = delete;
  notify_socket& operator=(const notify_socket&) = delete;

  bool bound() const { return bound_; }
  const std::string& path() const { return path_; }

  // Receives messages until one holds `line` (a whole line of it); false when `limit` passed.
  // Every message received is kept in messages().
  bool wait_for(const std::string& line,
                std::chrono::milliseconds limit = std::chrono::seconds(15)) {
    const auto until = std::chrono::steady_clock::now() + limit;
    for (;;) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          until - std::chrono::steady_clock::now());
      if (left.count() <= 0) return false;
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
      char buffer[4096];
      const ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
      if (n <= 0) continue;
      messages_.emplace_back(buffer, static_cast<std::size_t>(n));
      for (const std::string& l : lines_of(messages_.back())) {
        if (l == line || (line.back() == '=' && l.rfind(line, 0) == 0)) return true;
      }
    }
  }
  // How many messages received so far hold `line`.
  std::size_t count(const std::string& line) const {
    std::size_t n = 0;
    for (const auto& m : messages_) {
      for (const std::string& l : lines_of(m)) n += l == line ? 1 : 0;
    }
    return n;
  }
  // The last STATUS= line received.
  std::string last_status() const {
    std::string status;
    for (const auto& m : messages_) {
      for (const std::string& l : lines_of(m)) {
        if (l.rfind("STATUS=", 0) == 0) status = l.substr(7);
      }
    }
    return status;
  }

 private:
  std::string path_;
  int fd_ = -1;
  bool bound_ = false;
  std::vector<std::string> messages_;
};

// zelctl with `environment` (NAME=VALUE words for sh; $$ is zelctl's own pid) and `args`.
class service_process : public zeltest::child_process {
 public:
  service_process(const std::string& environment, const std::vector<std::string>& args)
      : child_process("/bin/sh", shell(environment, args)) {}

 private:
  static std::vector<std::string> shell(const std::string& environment,
                                        const std::vector<std::string>& args) {
    std::vector<std::string> words{"-c", "exec 3>&1; " + environment + " exec \"$@\"", "sh",
                                   ZELCTL_PROGRAM};
    words.insert(words.end(), args.begin(), args.end());
    return words;
  }
};

class ZelctlService : public cluster_test {
 protected:
  std::vector<std::string> mirror_args() {
    return at(sim_, dir_.file("pw")) + std::vector<std::string>{"mirror", "--db",
                                                                dir_.file("mirror.sqlite"),
                                                                "--save-interval", "0.2"};
  }
  notify_socket manager_{dir_.file("notify")};
  // A watchdog of 0.3 s for zelctl itself: it must ping every 0.15 s.
  std::string watchdog_ =
      "NOTIFY_SOCKET=" + dir_.file("notify") + " WATCHDOG_USEC=300000 WATCHDOG_PID=$$";
};

TEST_F(ZelctlService, MirrorIsReadyAfterItsSnapshotAndKeepsTheWatchdogAlive) {
  ASSERT_TRUE(manager_.bound());
  service_process mirror(watchdog_, mirror_args());
  ASSERT_TRUE(manager_.wait_for("READY=1")) << mirror.err();
  // The snapshot was loaded (and said) before READY=1.
  EXPECT_NE(mirror.out().find("; snapshot clients "), std::string::npos) << mirror.out();
  for (int ping = 0; ping < 5; ++ping) ASSERT_TRUE(manager_.wait_for("WATCHDOG=1"));
  ASSERT_TRUE(manager_.wait_for("STATUS="));
  ASSERT_TRUE(manager_.wait_for("STATUS="));
  EXPECT_NE(manager_.last_status().find("mirroring "), std::string::npos) << manager_.last_status();
  EXPECT_NE(manager_.last_status().find(" records, "), std::string::npos) << manager_.last_status();
  mirror.signal(SIGTERM);
  ASSERT_TRUE(manager_.wait_for("STOPPING=1"));
  EXPECT_EQ(mirror.wait(), 0) << mirror.err();
  EXPECT_EQ(manager_.count("READY=1"), 1u);
}

TEST_F(ZelctlService, ServeIsReadyOnceItListensAndKeepsTheWatchdogAlive) {
  ASSERT_TRUE(manager_.bound());
  service_process serve(
      watchdog_,
      at(sim_, dir_.file("pw")) + std::vector<std::string>{"serve", "--listen", "127.0.0.1:0"});
  ASSERT_TRUE(manager_.wait_for("READY=1")) << serve.err();
  EXPECT_NE(serve.out().find("serving without token at http://127.0.0.1:"), std::string::npos)
      << serve.out();
  for (int ping = 0; ping < 5; ++ping) ASSERT_TRUE(manager_.wait_for("WATCHDOG=1"));
  ASSERT_TRUE(manager_.wait_for("STATUS="));
  ASSERT_TRUE(manager_.wait_for("STATUS="));
  EXPECT_NE(manager_.last_status().find(" changes in "), std::string::npos)
      << manager_.last_status();
  serve.signal(SIGTERM);
  ASSERT_TRUE(manager_.wait_for("STOPPING=1"));
  EXPECT_EQ(serve.wait(), 0) << serve.err();
}

TEST_F(ZelctlService, NoWatchdogForAnotherProcess) {
  ASSERT_TRUE(manager_.bound());
  // WATCHDOG_PID names the shell's parent, not zelctl.
  service_process mirror(
      "NOTIFY_SOCKET=" + dir_.file("notify") + " WATCHDOG_USEC=300000 WATCHDOG_PID=$PPID",
      mirror_args() + std::vector<std::string>{"--duration", "1"});
  ASSERT_TRUE(manager_.wait_for("READY=1")) << mirror.err();
  ASSERT_TRUE(manager_.wait_for("STOPPING=1"));
  EXPECT_EQ(mirror.wait(), 0) << mirror.err();
  EXPECT_EQ(manager_.count("WATCHDOG=1"), 0u);
}

TEST_F(ZelctlService, LogLinesInTheJournalCarryNoTimeOfTheirOwn) {
  // JOURNAL_STREAM names zelctl's stdout (device:inode), as the manager sets it.
  service_process journal("JOURNAL_STREAM=$(stat -L -c %d:%i /proc/self/fd/3)",
                          mirror_args() + std::vector<std::string>{"--duration", "0.5"});
  ASSERT_EQ(journal.wait(), 0) << journal.err();
  EXPECT_EQ(journal.out().rfind("zelctl mirror: new mirror ", 0), 0u) << journal.out();
  // A stream that is not stdout changes nothing.
  temp_dir other;
  service_process file(
      "JOURNAL_STREAM=1:2",
      at(sim_, dir_.file("pw")) +
          std::vector<std::string>{"mirror", "--db", other.file("m.sqlite"), "--duration", "0.5"});
  ASSERT_EQ(file.wait(), 0) << file.err();
  EXPECT_EQ(file.out().find(" zelctl mirror: new mirror "), 24u) << file.out();
}

}  // namespace
