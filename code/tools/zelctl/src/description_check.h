// A work description file checked as validate and submit both check it: read, converted with the
// --set values, and every error printed on stdout as FILE:LINE:COL: path: message.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "zelcapi/description.h"

namespace zelctl {

// "1 task", "3 tasks".
std::string plural(std::size_t n, const char* one, const char* many);

// Reads `file`, converts it with `settings` (each NAME=VALUE) and returns the valid description.
// Prints every error of the file, then those of the settings, and raises failure (exit_invalid)
// counting them; a setting without '=' raises failure (exit_usage) before the file is read, a
// file that cannot be read failure (exit_failure).
zelcapi::work_description checked_description(const std::string& file,
                                              const std::vector<std::string>& settings);

// One line on what a valid description holds: "template 'render-shot': 3 tasks, in-values ...".
std::string description_summary(const zelcapi::work_description& d);

}  // namespace zelctl
