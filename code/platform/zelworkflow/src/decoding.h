// Strict reading of the workflow and task encodings: every key is checked for its kind and
// range, unknown keys are refused, and each failure raises es::arg naming what was decoded.
// Also the one writing helper that the encodings share.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "zelcore/properties.h"

namespace zelworkflow::detail {

class reader {
 public:
  // `what` names the object in error texts, e.g. "task 'a'".
  reader(const zelcore::properties& props, std::string what);

  std::int64_t get_int(const std::string& key, std::int64_t def, std::int64_t min,
                       std::int64_t max);
  bool get_bool(const std::string& key, bool def);
  std::string get_string(const std::string& key, const std::string& def);
  // An empty tree when absent.
  zelcore::properties get_properties(const std::string& key);
  // A shared nested tree; null when absent.
  zelbase::ptr_refcount<const zelcore::properties> get_properties_ptr(const std::string& key);
  // Null when absent.
  zelcore::property_ptr get_property(const std::string& key);
  // `child` (named `what` in the error text) as a properties; other kinds are refused.
  const zelcore::properties& as_properties(const std::string& what,
                                           const zelcore::property& child) const;
  // A list of strings; empty when absent.
  std::vector<std::string> get_strings(const std::string& key);
  // Refuses every key that no getter read.
  void finish() const;
  [[noreturn]] void fail(const std::string& reason) const;

 private:
  const zelcore::property* find(const std::string& key, zelcore::property::property_kind kind);
  // Remembers the key of a member that a getter found (null: the key is absent and no member
  // can be refused for it).
  void found(const std::string& key, const zelcore::property* member);

  const zelcore::properties& props_;
  std::string what_;
  // The keys of the members read: a handful per object, short enough to sit in the strings
  // themselves, so a vector searched in order costs less than a set of every key asked for.
  std::vector<std::string> read_;
};

// The value kinds that an in-node may accept: "any" or a property kind name.
bool is_value_kind_name(const std::string& accepts);
bool value_kind_accepted(const std::string& accepts, const zelcore::property& value);

// Checks the syntax of an in-node path ("<task id>" or "<task id>><in-node>", no empty
// element); raises es::arg with `what` in the text otherwise.
void check_in_node_path(const std::string& path, const std::string& what);

// A list property of the strings of `texts`, in order.
template <class Container>
zelcore::property_ptr make_string_list(const Container& texts) {
  zelbase::ptr_refcount<zelcore::property_list> list(new zelcore::property_list());
  for (const std::string& text : texts) list->push_back(zelcore::make_string(text));
  return list;
}

}  // namespace zelworkflow::detail
