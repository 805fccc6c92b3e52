// Times as zelctl prints them: ISO 8601 in UTC with milliseconds.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace zelctl {

std::string iso_time(std::chrono::system_clock::time_point t);
inline std::string now_text() { return iso_time(std::chrono::system_clock::now()); }
// A time given in milliseconds since 1970.
inline std::string iso_time_of_ms(std::int64_t ms) {
  return iso_time(std::chrono::system_clock::time_point(std::chrono::milliseconds(ms)));
}
// Milliseconds since 1970 (UTC), as the change stream and the overview's samples carry them.
inline std::int64_t now_ms() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace zelctl
