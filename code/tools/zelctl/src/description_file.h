// Work description files: YAML or JSON text read into a property tree that remembers where each
// value was written (line and column), and the description's errors placed in the file.
//
// One reader for both forms: JSON is read as YAML (its flow form), so a .json file and a .yaml
// file give the same tree and the same places. Scalars: a plain decimal whole number within 64
// bits is an int, true/false (also True, TRUE, False, FALSE) a bool; every other plain scalar and
// every quoted one is a string. Null values, keys given twice, keys that are not scalars, tags
// other than !!str, !!int, !!bool and more than one document are errors of the reader.
#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "zelcapi/description.h"
#include "zelcore/properties.h"

namespace zelctl {

// A place in the text, both counted from 1.
struct text_place {
  int line = 1;
  int column = 1;
};

// One error with its place, to be shown: `path` is the JSON Pointer inside the description (""
// for the file as a whole, such as a syntax error); path and message are printable_text.
struct placed_error {
  text_place place;
  std::string path;
  std::string message;
};

// The limits of what the reader takes: the file's size, how deep values nest, how many values
// the tree may hold (aliases may repeat a value many times).
constexpr std::size_t max_description_bytes = 16u << 20;
constexpr std::size_t max_description_depth = 128;
constexpr std::size_t max_description_values = 1000000;

struct description_text {
  // The description; what could not be read is left out of it (and is among `errors`).
  zelcore::properties tree;
  // Where each key (for the value under a key) or element was written, by JSON Pointer; the
  // whole description under "".
  std::map<std::string, text_place> places;
  // The reader's own errors, in the order of the text.
  std::vector<placed_error> errors;
  // The paths of the values that the tree does not hold as written (left out of a map, an
  // empty string in a list); "" when the text holds no description that could be read.
  std::set<std::string> refused;

  // The place of `path`, or of its nearest enclosing value that the text has (a missing key is
  // placed at the map that should hold it).
  text_place place_of(const std::string& path) const;
};

// Reads YAML or JSON text in UTF-8 (a byte order mark is skipped; UTF-16 and UTF-32 are refused).
// Never raises for anything the text holds.
description_text read_description_text(const std::string& text);

// Reads the file at `path`; raises failure (exit_failure) when it cannot be read or is larger
// than max_description_bytes.
description_text read_description_file(const std::string& path);

// Every error of a description read from text and then converted: the reader's, then the
// converter's (each placed by its path), except a converter error at or inside a value that the
// reader refused (a value left out of the tree is then also "missing") and the errors of
// settings (they have no place in the text). Sorted by place, stable.
// `text` safe to print on a terminal: control characters and bytes that are not UTF-8 become
// \xNN, so that a file's bytes quoted in a message can neither garble nor steer the terminal.
std::string printable_text(const std::string& text);

std::vector<placed_error> place_errors(const description_text& text,
                                       const zelcapi::work_description& converted);

}  // namespace zelctl
