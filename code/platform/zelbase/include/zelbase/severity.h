// Severities of report records, from the most to the least urgent.
#pragma once

#include <cstdint>

namespace zelbase {

using severity = std::uint32_t;

constexpr severity severity_emergency = 0;
constexpr severity severity_alert = 1;
constexpr severity severity_critical = 2;
constexpr severity severity_error = 3;
constexpr severity severity_warning = 4;
constexpr severity severity_notice = 5;
constexpr severity severity_info = 6;
constexpr severity severity_debug = 7;

}  // namespace zelbase
