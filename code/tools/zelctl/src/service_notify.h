// zelctl as a service: readiness, watchdog and status for the service manager (the notify
// protocol of libsystemd), and log lines without a time of their own when the journal adds one.
#pragma once

#include <chrono>
#include <string>

namespace zelctl {

// What the long-running subcommands (mirror, serve) tell their service manager. Without
// NOTIFY_SOCKET in the environment every call does nothing. Called from one thread.
class service_notify {
 public:
  using clock = std::chrono::steady_clock;

  // Reads NOTIFY_SOCKET, and whether the manager wants a watchdog for this process and how
  // often (WATCHDOG_USEC, WATCHDOG_PID).
  service_notify();

  // READY=1 with a status line: the service does its work now.
  void ready(const std::string& status);
  // STATUS=text, at most once a second: false (and nothing sent) when the last was sooner.
  bool status_due() const;
  void status(const std::string& text);
  // WATCHDOG=1 when half the watchdog interval passed since the last one; the main loop calls
  // it at least that often.
  void keep_alive();
  // STOPPING=1: the service ends (a final save may still run).
  void stopping();

  // Whether anything is sent at all.
  bool active() const noexcept { return active_; }
  // How often the main loop must call keep_alive() at least (a second without a watchdog).
  clock::duration tick() const noexcept;

 private:
  void send(const std::string& text);

  bool active_ = false;
  clock::duration watchdog_half_{};  // zero: no watchdog asked for
  clock::time_point last_ping_{};
  clock::time_point last_status_{};
};

// "2026-11-26T11:49:19.123Z " before a log line, or nothing when stdout goes to the journal
// (JOURNAL_STREAM names it), which stamps each line itself.
std::string log_stamp();

}  // namespace zelctl
