// Unique identifiers and digests.
#pragma once

#include <string>

#include "zelcore/export.h"

namespace zelcore {

// A new random (version 4) UUID as 36 characters of text, lower case, or upper case when
// `upper_case` is true.
ZELCORE_EXPORT std::string string_uuid(bool upper_case);
// The SHA-1 digest of `text` as 40 lower-case hexadecimal characters.
ZELCORE_EXPORT std::string string_hash_SHA1_hex(const std::string& text);

}  // namespace zelcore
