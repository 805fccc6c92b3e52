// The JSON text of a record in the SQLite stores: a property tree written and read directly.
// int -> integer, bool -> true/false, string -> string, list -> array, properties -> object.
// A string that is not valid UTF-8 becomes {"~x":"<hex of its bytes>"}; a tree with a key that
// is not valid UTF-8 or that begins with "~" becomes {"~o":[key, value, key, value, ...]} (keys
// as strings, or as {"~x":...} when not valid UTF-8). Every other object has no key beginning
// with "~", so the two forms cannot be mistaken for a tree.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

#include "zelbase/encoder_network.h"
#include "zelcore/properties.h"

namespace zelcapi::sqlite_detail {

// Nesting deeper than this is neither written nor read (the deepest tree the decoder accepts).
constexpr std::size_t json_max_depth = 1024;

// JSON text that cannot be read as a tree; what() gives the reason and the offset.
class malformed_json : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Whether `text` is valid UTF-8 (no overlong forms, no surrogates, nothing above U+10FFFF).
bool is_utf8(std::string_view text);
// Appends the JSON text of `tree` to `out`. Raises zelbase::es::arg for a tree nested deeper
// than json_max_depth.
void write_json(const zelcore::properties& tree, zelbase::encoder_network& out);
// The tree of a JSON object written by write_json (or by any writer of the same mapping).
// Raises malformed_json for other text: bad syntax, numbers that are not 64-bit integers, null,
// an escape form that is not one of the two above, nesting deeper than json_max_depth.
zelcore::properties read_json(std::string_view text);

}  // namespace zelcapi::sqlite_detail
