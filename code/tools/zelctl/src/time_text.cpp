// ISO 8601 time stamps for watch lines, mirror logs and summaries.
#include "time_text.h"

#include <cstdio>
#include <ctime>

namespace zelctl {

std::string iso_time(std::chrono::system_clock::time_point t) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(t);
  const auto ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch()).count() % 1000;
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[96];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900,
                utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                static_cast<int>(ms));
  return text;
}

}  // namespace zelctl
