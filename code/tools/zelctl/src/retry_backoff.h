// How long zelctl waits between two attempts to reach a cluster it lost: half a second after the
// first failed attempt, doubling with each further one up to ten seconds. mirror and serve both
// reconnect on this pace.
#pragma once

#include <algorithm>
#include <chrono>

namespace zelctl {

class retry_backoff {
 public:
  using duration = std::chrono::milliseconds;
  static constexpr duration first{500};
  static constexpr duration longest{10000};

  // The wait before the next attempt; each call doubles the one after it.
  duration next() noexcept {
    const duration wait = wait_;
    wait_ = std::min(wait_ * 2, longest);
    return wait;
  }
  // After a success: the next failure waits `first` again.
  void reset() noexcept { wait_ = first; }

 private:
  duration wait_ = first;
};

}  // namespace zelctl
