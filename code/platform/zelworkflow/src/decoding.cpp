// Strict reading of the workflow and task encodings.
#include "decoding.h"

#include <algorithm>
#include <utility>

#include "zelbase/exceptions.h"
#include "zelbase/strings.h"

namespace zelworkflow::detail {

using zelcore::property;

namespace {

// "an int", "a string", ...
std::string with_article(property::property_kind kind) {
  return std::string(kind == property::kind_int ? "an " : "a ") +
         zelcore::property_kind_c_str(kind);
}

}  // namespace

reader::reader(const zelcore::properties& props, std::string what)
    : props_(props), what_(std::move(what)) {}

void reader::fail(const std::string& reason) const {
  zelbase::es::arg::raise(__FILE__, __LINE__, "cannot decode " + what_ + ": " + reason);
}

void reader::found(const std::string& key, const property* member) {
  if (member && std::find(read_.begin(), read_.end(), key) == read_.end()) read_.push_back(key);
}

const property* reader::find(const std::string& key, property::property_kind kind) {
  const property* p = props_.get_property(key).get();
  found(key, p);
  if (p && p->kind() != kind) {
    fail("'" + key + "' holds " + with_article(p->kind()) + ", not " + with_article(kind));
  }
  return p;
}

std::int64_t reader::get_int(const std::string& key, std::int64_t def, std::int64_t min,
                             std::int64_t max) {
  const property* p = find(key, property::kind_int);
  if (!p) return def;
  std::int64_t v = static_cast<const zelcore::property_int*>(p)->value();
  if (v < min || v > max) {
    fail(zelbase::string_with_format("'%s' is %lld, outside %lld to %lld", key.c_str(),
                                     static_cast<long long>(v), static_cast<long long>(min),
                                     static_cast<long long>(max)));
  }
  return v;
}

bool reader::get_bool(const std::string& key, bool def) {
  const property* p = find(key, property::kind_bool);
  return p ? static_cast<const zelcore::property_bool*>(p)->value() : def;
}

std::string reader::get_string(const std::string& key, const std::string& def) {
  const property* p = find(key, property::kind_string);
  return p ? static_cast<const zelcore::property_string*>(p)->value() : def;
}

zelcore::properties reader::get_properties(const std::string& key) {
  const property* p = find(key, property::kind_properties);
  return p ? *static_cast<const zelcore::properties*>(p) : zelcore::properties();
}

zelbase::ptr_refcount<const zelcore::properties> reader::get_properties_ptr(
    const std::string& key) {
  return static_cast<const zelcore::properties*>(find(key, property::kind_properties));
}

const zelcore::properties& reader::as_properties(const std::string& what,
                                                 const zelcore::property& child) const {
  if (child.kind() != property::kind_properties) {
    fail(what + " holds " + with_article(child.kind()) + ", not a properties");
  }
  return static_cast<const zelcore::properties&>(child);
}

zelcore::property_ptr reader::get_property(const std::string& key) {
  zelcore::property_ptr p = props_.get_property(key);
  found(key, p.get());
  return p;
}

std::vector<std::string> reader::get_strings(const std::string& key) {
  std::vector<std::string> out;
  const property* p = find(key, property::kind_list);
  if (!p) return out;
  for (const zelcore::property_ptr& e : static_cast<const zelcore::property_list*>(p)->value()) {
    if (!e || e->kind() != property::kind_string) {
      fail("'" + key + "' holds an element that is not a string");
    }
    out.push_back(static_cast<const zelcore::property_string&>(*e).value());
  }
  return out;
}

void reader::finish() const {
  for (const auto& [key, value] : props_) {
    if (value && std::find(read_.begin(), read_.end(), key) == read_.end())
      fail("unknown key '" + key + "'");
  }
}

bool is_value_kind_name(const std::string& accepts) {
  return accepts == "any" || accepts == "int" || accepts == "bool" || accepts == "string" ||
         accepts == "list" || accepts == "properties";
}

bool value_kind_accepted(const std::string& accepts, const zelcore::property& value) {
  return accepts == "any" || accepts == zelcore::property_kind_c_str(value.kind());
}

void check_in_node_path(const std::string& path, const std::string& what) {
  std::size_t sep = path.find('>');
  bool ok = !path.empty() && sep != 0 &&
            (sep == std::string::npos ||
             (sep + 1 < path.size() && path.find('>', sep + 1) == std::string::npos));
  if (!ok) {
    zelbase::es::arg::raise(__FILE__, __LINE__,
                            what + ": '" + path +
                                "' is not an in-node path (\"<task id>\" or "
                                "\"<task id>><in-node>\")");
  }
}

}  // namespace zelworkflow::detail
