// Wall-clock time through a replaceable clock.
#include "zelbase/time.h"

#include <chrono>
#include <ctime>
#include <thread>

namespace zelbase {

namespace {
clock_function& installed_clock() {
  static clock_function clock;
  return clock;
}
}  // namespace

std::uint32_t time_in_seconds() {
  if (const auto& clock = installed_clock()) return clock();
  return static_cast<std::uint32_t>(std::chrono::duration_cast<std::chrono::seconds>(
                                        std::chrono::system_clock::now().time_since_epoch())
                                        .count());
}

clock_function set_time_clock(clock_function clock) {
  clock_function previous = std::move(installed_clock());
  installed_clock() = std::move(clock);
  return previous;
}

std::string time_string(std::uint32_t seconds) {
  const std::time_t t = seconds;
  std::tm parts{};
  gmtime_r(&t, &parts);
  char text[32];
  const std::size_t n = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
  return std::string(text, n);
}

void sleep_seconds(unsigned seconds) { std::this_thread::sleep_for(std::chrono::seconds(seconds)); }

}  // namespace zelbase
