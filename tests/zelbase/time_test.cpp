// Wall-clock time through a replaceable clock.
#include <gtest/gtest.h>

#include <chrono>
#include <ctime>

#include "zelbase/time.h"

TEST(Time, ReplaceableClockIsReadAndRestored) {
  const auto previous = zelbase::set_time_clock([] { return 1000u; });
  EXPECT_EQ(zelbase::time_in_seconds(), 1000u);
  zelbase::set_time_clock(previous);
  const auto now = static_cast<std::uint32_t>(std::time(nullptr));
  EXPECT_LE(zelbase::time_in_seconds() - now, 2u);
}

TEST(Time, TimeStringIsUtc) {
  EXPECT_EQ(zelbase::time_string(0), "1970-01-01 00:00:00");
  EXPECT_EQ(zelbase::time_string(1700000000u), "2023-11-14 22:13:20");
}

TEST(Time, SleepSecondsBlocksForAtLeastThatLong) {
  const auto start = std::chrono::steady_clock::now();
  zelbase::sleep_seconds(1);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  const auto again = std::chrono::steady_clock::now();
  zelbase::sleep_seconds(0);
  EXPECT_LT(std::chrono::steady_clock::now() - again, std::chrono::milliseconds(500));
}
