// Property trees written as JSON text straight from the tree, with no JSON document in between:
// the text is byte for byte what json_text(to_json(tree), pretty) makes (members in the tree's
// key order, which is byte order; the same escapes; a null child left out of an object and null
// in a list; bytes that are not valid UTF-8 replaced by U+FFFD in the same places).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "zelcore/properties.h"

namespace zelctl {

// Appends `text` as a JSON string (quoted, escaped, invalid UTF-8 replaced by U+FFFD).
void append_json_string(std::string& out, std::string_view text);

// Writes JSON to the end of a string, one value at a time; the caller may take the text written
// so far out of the string (write it away, clear it) between any two calls.
class json_writer {
 public:
  // Indented by 2 when `pretty`, else on one line.
  json_writer(std::string& out, bool pretty) : out_(out), pretty_(pretty) {}

  void begin_object();
  // The key of the next member of the open object; its value follows.
  void key(std::string_view name);
  void end_object();
  // A whole tree, list or scalar.
  void value(const zelcore::property& p);
  // A null pointer gives null.
  void value(const zelcore::property_ptr& p);
  void value(std::int64_t n);
  void value(std::string_view text);
  // A value already written as JSON text.
  void raw_value(std::string_view json);

 private:
  struct level {
    bool is_object;
    bool has_members;
  };
  // Separator and indentation before a value: nothing after a key or at the top.
  void before_value();
  void newline_and_indent();
  void end_level(char close);

  std::string& out_;
  const bool pretty_;
  bool after_key_ = false;
  std::vector<level> levels_;
};

}  // namespace zelctl
