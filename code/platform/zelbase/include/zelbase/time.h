// Wall-clock time in whole seconds, read through a clock that tests can replace.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "zelbase/export.h"

namespace zelbase {

using clock_function = std::function<std::uint32_t()>;

// The current wall-clock time in seconds since 1970 (unsigned 32-bit), from the installed clock.
ZELBASE_EXPORT std::uint32_t time_in_seconds();
// Replaces the clock (an empty function restores the system clock); returns the previous one.
// Not synchronised with concurrent readers: install it before other threads read the time.
ZELBASE_EXPORT clock_function set_time_clock(clock_function clock);
// "YYYY-MM-DD HH:MM:SS" in UTC.
ZELBASE_EXPORT std::string time_string(std::uint32_t seconds);
// Blocks the calling thread.
ZELBASE_EXPORT void sleep_seconds(unsigned seconds);

}  // namespace zelbase
