// Times as zelctl prints them: ISO 8601 in UTC with milliseconds.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace zelctl {

std::string iso_time(std::chrono::system_clock::time_point t);
inline std::string now_text() { return iso_time(std::chrono::system_clock::now()); }
// Milliseconds since 1970 (UTC), as the change stream and the overview's samples carry them.
inline std::int64_t now_ms() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace zelctl
