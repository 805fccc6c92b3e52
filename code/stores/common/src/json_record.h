// The JSON text of a record in the stores (SQLite text, PostgreSQL jsonb): a property tree written
// and read directly. int -> integer, bool -> true/false, string -> string, list -> array,
// properties -> object. A string that is not valid UTF-8 becomes {"~x":"<hex of its bytes>"}; a
// tree with a key that is not valid UTF-8 or that begins with "~" becomes {"~o":[key, value, key,
// value, ...]} (keys as strings, or as {"~x":...} when not valid UTF-8). Every other object has no
// key beginning with "~", so the two forms cannot be mistaken for a tree.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>

#include "zelbase/encoder_network.h"
#include "zelcore/properties.h"

namespace zelcapi::store_detail {

// Nesting deeper than this is neither written nor read (the deepest tree the decoder accepts).
constexpr std::size_t json_max_depth = 1024;

// JSON text that cannot be read as a tree; what() gives the reason and the offset.
class malformed_json : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class shared_strings;

// Whether `text` is valid UTF-8 (no overlong forms, no surrogates, nothing above U+10FFFF).
bool is_utf8(std::string_view text);
// The text's form. `text`: a NUL byte in a string or key as the escape \u0000 (valid JSON), the
// keys of an object in the tree's order. `jsonb`, for PostgreSQL's jsonb, which cannot hold that
// character and keeps an object's keys ordered by length, then by their bytes: a string with a
// NUL in the {"~x":...} form as if it were not UTF-8, and the keys in jsonb's order, so that the
// server finds them sorted instead of sorting them.
enum class json_form { text, jsonb };

// Appends the JSON text of `tree` to `out`. Raises zelbase::es::arg for a tree nested deeper
// than json_max_depth.
void write_json(const zelcore::properties& tree, zelbase::encoder_network& out,
                json_form form = json_form::text);
// The tree of a JSON object written by write_json (or by any writer of the same mapping).
// Raises malformed_json for other text: bad syntax, numbers that are not 64-bit integers, null,
// an escape form that is not one of the two above, nesting deeper than json_max_depth.
// With `strings`, equal short strings read through it share one property.
zelcore::properties read_json(std::string_view text, shared_strings* strings = nullptr);

// The tree of a stored record for a store's connection `db`, whose fail(text) raises the store's
// error: malformed text names the table and the id.
template <class Connection>
zelcore::properties read_stored_record(const Connection& db, const char* table, std::string_view id,
                                       std::string_view json, shared_strings* strings) {
  try {
    return read_json(json, strings);
  } catch (const malformed_json& e) {
    db.fail("malformed record in table " + std::string(table) + ", id '" + std::string(id) +
            "': " + e.what());
  }
}

// The short strings read while one set of records loads, so that records repeating a user, a
// node or a state share one immutable string property. Lives for that load only.
class shared_strings {
 public:
  // Strings longer than this are seldom repeated: they are not looked up.
  static constexpr std::size_t longest = 32;
  // The property holding `text`, the value of `key` in its record (empty in a list), shared
  // with earlier reads of the same text. A key whose values seldom repeat (ids, names) stops
  // being looked up after a trial, which keeps the table small.
  zelcore::property_ptr get(std::string_view key, std::string_view text);

 private:
  struct key_stats {
    std::uint32_t lookups = 0;
    std::uint32_t hits = 0;
  };
  static constexpr std::uint32_t trial_lookups = 4096;

  std::unordered_map<std::string, key_stats> keys_;
  // Keys are views of the properties' own texts, which never change.
  std::unordered_map<std::string_view, zelcore::property_ptr> seen_;
};

}  // namespace zelcapi::store_detail
