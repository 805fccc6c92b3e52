// Benchmark support for plain programs that time zelctl as a child: waiting for its lines and
// printing the fastest and the median of a figure's rounds.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "support/child_process.h"

namespace zelbench {

using clock_type = std::chrono::steady_clock;

inline double ms_since(clock_type::time_point start) {
  return std::chrono::duration<double, std::milli>(clock_type::now() - start).count();
}

// Waits until `p`'s stdout holds `text` `times` times, polling every half millisecond; false
// after 60 s.
inline bool wait_for(const zeltest::child_process& p, const std::string& text,
                     std::size_t times = 1) {
  const auto until = clock_type::now() + std::chrono::seconds(60);
  for (;;) {
    const std::string out = p.out();
    std::size_t seen = 0;
    for (auto at = out.find(text); at != std::string::npos; at = out.find(text, at + 1)) ++seen;
    if (seen >= times) return true;
    if (clock_type::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(500));
  }
}

inline double fastest(const std::vector<double>& values) {
  return *std::min_element(values.begin(), values.end());
}

inline double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// "<what>  fastest N ms  median N ms".
inline void summary(const char* what, const std::vector<double>& values) {
  std::printf("%-44s fastest %8.1f ms  median %8.1f ms\n", what, fastest(values), median(values));
}

}  // namespace zelbench
