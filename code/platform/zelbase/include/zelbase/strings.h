// String helpers: printf-style formatting and the shared empty string.
#pragma once

#include <cstdarg>
#include <string>

#include "zelbase/export.h"

namespace zelbase {

// Formats like printf into a new string; a bad format yields an empty string.
ZELBASE_EXPORT std::string string_with_format(const char* format, ...)
    __attribute__((format(printf, 1, 2)));
ZELBASE_EXPORT std::string string_with_vformat(const char* format, va_list args)
    __attribute__((format(printf, 1, 0)));

// One empty string for the whole process, for accessors that return a reference.
ZELBASE_EXPORT const std::string& string_empty_string();

}  // namespace zelbase
