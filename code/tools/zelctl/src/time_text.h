// Times as zelctl prints them: ISO 8601 in UTC with milliseconds.
#pragma once

#include <chrono>
#include <string>

namespace zelctl {

std::string iso_time(std::chrono::system_clock::time_point t);
inline std::string now_text() { return iso_time(std::chrono::system_clock::now()); }

}  // namespace zelctl
