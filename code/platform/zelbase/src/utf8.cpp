// Reading UTF-8 one sequence at a time.
#include "zelbase/utf8.h"

namespace zelbase {

utf8_sequence read_utf8(const unsigned char* p, std::size_t left) noexcept {
  const unsigned char c = p[0];
  if (c < 0x80) return {1, true};
  // How many bytes follow the lead byte, and the range of the first of them (the others are
  // 0x80..0xBF): the ranges leave out overlong forms, surrogates and code points past U+10FFFF.
  std::size_t follow = 0;
  unsigned char low = 0x80, high = 0xBF;
  if (c >= 0xC2 && c <= 0xDF) {
    follow = 1;
  } else if (c >= 0xE0 && c <= 0xEF) {
    follow = 2;
    if (c == 0xE0) low = 0xA0;
    if (c == 0xED) high = 0x9F;
  } else if (c >= 0xF0 && c <= 0xF4) {
    follow = 3;
    if (c == 0xF0) low = 0x90;
    if (c == 0xF4) high = 0x8F;
  } else {
    return {1, false};
  }
  std::size_t n = 1;
  for (; n <= follow; ++n) {
    if (n == left || p[n] < low || p[n] > high) return {n, false};
    low = 0x80;
    high = 0xBF;
  }
  return {n, true};
}

}  // namespace zelbase
