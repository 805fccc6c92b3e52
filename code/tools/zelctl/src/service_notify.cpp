// The notify protocol through libsystemd's sd_notify, and the journal's own time stamps.
#include "service_notify.h"

#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "time_text.h"

namespace zelctl {

service_notify::service_notify() {
  const char* socket = std::getenv("NOTIFY_SOCKET");
  active_ = socket != nullptr && *socket != '\0';
  if (!active_) return;
  std::uint64_t usec = 0;
  // Positive only when WATCHDOG_USEC is set and WATCHDOG_PID, if set, is this process.
  if (::sd_watchdog_enabled(0, &usec) > 0 && usec > 0) {
    watchdog_half_ =
        std::chrono::duration_cast<clock::duration>(std::chrono::microseconds(usec / 2));
  }
}

void service_notify::send(const std::string& text) {
  if (active_) ::sd_notify(0, text.c_str());
}

void service_notify::ready(const std::string& status) {
  send("READY=1\nSTATUS=" + status);
  last_status_ = clock::now();
  keep_alive();
}

bool service_notify::status_due() const {
  return active_ && clock::now() - last_status_ >= std::chrono::seconds(1);
}

void service_notify::status(const std::string& text) {
  send("STATUS=" + text);
  last_status_ = clock::now();
}

void service_notify::keep_alive() {
  if (!active_ || watchdog_half_ == clock::duration::zero()) return;
  const auto now = clock::now();
  if (now - last_ping_ < watchdog_half_) return;
  send("WATCHDOG=1");
  last_ping_ = now;
}

void service_notify::stopping() { send("STOPPING=1"); }

service_notify::clock::duration service_notify::tick() const noexcept {
  const clock::duration second = std::chrono::seconds(1);
  if (watchdog_half_ == clock::duration::zero()) return second;
  return std::min(second, watchdog_half_ / 2);
}

std::string log_stamp() {
  static const bool journal = [] {
    const char* stream = std::getenv("JOURNAL_STREAM");
    struct stat out {};
    if (stream == nullptr || ::fstat(STDOUT_FILENO, &out) != 0) return false;
    unsigned long long device = 0;
    unsigned long long inode = 0;
    if (std::sscanf(stream, "%llu:%llu", &device, &inode) != 2) return false;
    return device == out.st_dev && inode == out.st_ino;
  }();
  return journal ? "" : now_text() + " ";
}

}  // namespace zelctl
