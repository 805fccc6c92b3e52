// String helpers.
#include "zelbase/strings.h"

#include <cstdio>

namespace zelbase {

std::string string_with_vformat(const char* format, va_list args) {
  char small[256];
  va_list again;
  va_copy(again, args);
  const int needed = std::vsnprintf(small, sizeof small, format, args);
  if (needed < 0) {
    va_end(again);
    return std::string();
  }
  if (static_cast<std::size_t>(needed) < sizeof small) {
    va_end(again);
    return std::string(small, static_cast<std::size_t>(needed));
  }
  std::string out(static_cast<std::size_t>(needed), '\0');
  std::vsnprintf(out.data(), out.size() + 1, format, again);
  va_end(again);
  return out;
}

std::string string_with_format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string out = string_with_vformat(format, args);
  va_end(args);
  return out;
}

const std::string& string_empty_string() {
  static const std::string empty;
  return empty;
}

}  // namespace zelbase
