// Private helpers of the description converter: the error list, the reading of one map's fields
// by name and kind (each refusal an error at its path, never an exception), names, suggestions
// for misspelt keys and names, and the run parameters that jobs and workflow tasks share.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "zelcapi/description.h"
#include "zelcore/properties.h"

namespace zelcapi {
namespace description_detail {

using zelcore::properties;
using zelcore::property;
using zelcore::property_list;
using zelcore::property_ptr;

// "an int", "a bool", "a string", "a list", "a map".
const char* kind_text(property::property_kind kind);
// What a value is, for messages: its kind, and a short string's text ("a string ('four')").
std::string describe_value(const property& value);

// The path of `key` inside the map at `path`, and of element `index` inside a list.
std::string child_path(const std::string& path, const std::string& key);
std::string child_path(const std::string& path, std::size_t index);

// A name of a task, in-value or out-value: letters, digits, '-' and '_', not empty.
bool is_name(const std::string& text);
// The candidate that `word` most likely meant (a near spelling, or a known other word for it),
// or "" when none is close.
std::string suggestion(const std::string& word, const std::vector<std::string>& candidates);
// " (did you mean 'x'?)" when there is a suggestion, else "".
std::string did_you_mean(const std::string& word, const std::vector<std::string>& candidates);

// Collects the errors of one conversion.
class error_list {
 public:
  explicit error_list(std::vector<description_error>& errors) : errors_(errors) {}
  void add(const std::string& path, description_issue issue, std::string message, int setting = -1);

 private:
  std::vector<description_error>& errors_;
};

// The fields of one map of the description, read by name and kind. The constructor reports
// every key that is not among `known` (with a suggestion); each accessor reports a value of the
// wrong kind or out of range and then gives "nothing" (null, false), so the caller goes on.
class fields {
 public:
  fields(error_list& errors, const properties& tree, std::string path, std::string what,
         std::vector<std::string> known);

  const properties& tree() const noexcept { return tree_; }
  const std::string& path() const noexcept { return path_; }
  std::string path_of(const std::string& key) const { return child_path(path_, key); }
  error_list& errors() const noexcept { return errors_; }

  // The value of `key` when present and of `kind`; null when absent (reported if `required`)
  // or of another kind (reported).
  property_ptr get(const std::string& key, property::property_kind kind,
                   bool required = false) const;
  // A string; with `non_empty` an empty one is reported (and given as null).
  const std::string* text(const std::string& key, bool required = false,
                          bool non_empty = false) const;
  // An int within [low, high].
  bool integer(const std::string& key, std::int64_t low, std::int64_t high,
               std::int64_t& out) const;
  bool boolean(const std::string& key, bool& out) const;
  const properties* map(const std::string& key) const;
  const property_list* list(const std::string& key) const;
  // A list whose elements are all strings (each other element reported).
  bool strings(const std::string& key, std::vector<std::string>& out) const;
  // Copies the value of `key` into `out` under `out_key` when present, of `kind` and, for an
  // int, within [low, high]; true when copied.
  bool copy(const std::string& key, property::property_kind kind, properties& out,
            const std::string& out_key, std::int64_t low = INT64_MIN,
            std::int64_t high = INT64_MAX) const;

 private:
  error_list& errors_;
  const properties& tree_;
  std::string path_;
};

// The run parameters of a job or a workflow task, by the names the master reads.
extern const std::vector<std::string> run_parameter_keys;
// Checks the run parameters of `f` ("command" required and not empty) and copies the valid ones
// into `out` under their names.
void copy_run_parameters(const fields& f, properties& out);

// The kind of an in-value's kind name ("int" -> kind_int; "any" and unknown names -> kind_string).
property::property_kind kind_of(const std::string& accepts);
// A value given for an in-value of kind `accepts` ("any", "int", ...): the value itself when of
// that kind, a string read as that kind, else null with `problem` set.
property_ptr value_for_kind(const std::string& accepts, const property_ptr& value,
                            description_issue& issue, std::string& problem);

// The two conversions: `d` is a workflow's (or a jobs') description; the fields of `out` that
// belong to its kind are filled when no error was found.
void convert_workflow(const properties& d, const std::vector<description_setting>& settings,
                      error_list& errors, work_description& out);
void convert_jobs(const properties& d, error_list& errors, work_description& out);

}  // namespace description_detail
}  // namespace zelcapi
