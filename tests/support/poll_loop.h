// Test support: an application's own event loop on poll(2), which drives a controller through
// its watched files, its deadline and step() alone, never through wait() or run().
#pragma once

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <functional>
#include <vector>

#include "zelnet/ioctrl.h"

namespace zeltest {

class poll_loop {
 public:
  using clock = std::chrono::steady_clock;

  explicit poll_loop(zelnet::ioctrl& c) : c_(c) {
    c_.set_watch_callback([this] { ++watch_changes; });
  }
  ~poll_loop() { c_.set_watch_callback({}); }
  poll_loop(const poll_loop&) = delete;
  poll_loop& operator=(const poll_loop&) = delete;

  // Polls and steps until `done()` or until `limit` has passed; false on the limit. What a step
  // raises goes to `on_raise` (rethrown when there is none), and the loop goes on.
  bool run_until(const std::function<bool()>& done, std::chrono::milliseconds limit,
                 const std::function<void(std::exception_ptr)>& on_raise = {}) {
    const clock::time_point end = clock::now() + limit;
    while (!done()) {
      const clock::time_point now = clock::now();
      if (now >= end) return false;
      std::vector<pollfd> fds;
      for (const zelnet::ioctrl::watched_file& w : c_.watched_files()) {
        short events = 0;
        if ((w.events & zelnet::ioctrl::watch_readable) != 0) events |= POLLIN;
        if ((w.events & zelnet::ioctrl::watch_writable) != 0) events |= POLLOUT;
        fds.push_back(pollfd{w.descriptor, events, 0});
      }
      clock::time_point wake = end;
      if (const auto deadline = c_.next_deadline()) wake = std::min(wake, *deadline);
      const auto ms = std::chrono::ceil<std::chrono::milliseconds>(wake - now).count();
      const int ready =
          ::poll(fds.data(), fds.size(), static_cast<int>(std::clamp<long long>(ms, 0, INT_MAX)));
      if (ready > 0) ++ready_polls;
      const clock::time_point before = clock::now();
      try {
        c_.step();
      } catch (...) {
        if (!on_raise) throw;
        on_raise(std::current_exception());
      }
      longest_step = std::max(longest_step, clock::now() - before);
      ++steps;
    }
    return true;
  }

  int watch_changes = 0;
  int ready_polls = 0;
  int steps = 0;
  clock::duration longest_step{};

 private:
  zelnet::ioctrl& c_;
};

}  // namespace zeltest
