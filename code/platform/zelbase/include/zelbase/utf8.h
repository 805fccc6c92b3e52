// UTF-8 as the library reads it: well-formed sequences only (no overlong forms, no surrogates,
// nothing past U+10FFFF).
#pragma once

#include <cstddef>

#include "zelbase/export.h"

namespace zelbase {

// One sequence of a text: `length` bytes, `valid` when they are one well-formed character. An
// ill-formed sequence is its maximal subpart (a lead byte and the bytes after it that could still
// continue it, or one byte that cannot lead), which a reader replaces by one U+FFFD.
struct utf8_sequence {
  std::size_t length;
  bool valid;
};

// The sequence at `p`, which has `left` (at least 1) bytes.
ZELBASE_EXPORT utf8_sequence read_utf8(const unsigned char* p, std::size_t left) noexcept;

}  // namespace zelbase
