// The ordered, copy-on-write map of a property tree: construction, lookup, accessors, text.
#include <algorithm>

#include "properties_body.h"
#include "property_keys.h"
#include "property_text.h"
#include "zelbase/exceptions.h"
#include "zelbase/strings.h"

namespace zelcore {

namespace {

constexpr const char* source_file = "code\\platform\\zelcore\\src\\properties";

using slots = std::vector<detail::slot, detail::slots_allocator<detail::slot>>;

const slots& no_entries() {
  static const slots empty;
  return empty;
}

// Position of the first entry not before `key`, whose order is `order`.
std::size_t position_of(const slots& all, const std::string& key, std::uint64_t order) {
  return static_cast<std::size_t>(
      detail::entry_lower_bound(all.data(), all.data() + all.size(), key, order) - all.data());
}

[[noreturn]] void raise_missing(const std::string& key) {
  zelbase::es::arg::raise(source_file, __LINE__,
                          zelbase::string_with_format("property '%s' is missing", key.c_str()));
}

[[noreturn]] void raise_kind(const std::string& key, const property& found,
                             property::property_kind wanted) {
  zelbase::es::arg::raise(
      source_file, __LINE__,
      zelbase::string_with_format("property '%s' is a %s, not a %s", key.c_str(),
                                  property_kind_c_str(found.kind()), property_kind_c_str(wanted)));
}

// The child of `key` that must be of kind `wanted`, or null when absent.
template <class T>
const T* child_of_kind(const properties& tree, const std::string& key,
                       property::property_kind wanted) {
  const auto it = tree.find(key);
  if (it == tree.end() || !it->second) return nullptr;
  if (it->second->kind() != wanted) raise_kind(key, *it->second, wanted);
  return static_cast<const T*>(it->second.get());
}

template <class T>
const T& required_child(const properties& tree, const std::string& key,
                        property::property_kind wanted) {
  const T* child = child_of_kind<T>(tree, key, wanted);
  if (!child) raise_missing(key);
  return *child;
}

}  // namespace

namespace detail {
void properties_builder::normalise(slots& entries) {
  // Entries already in strict key order (as readers of ordered text give them) need nothing.
  if (std::adjacent_find(entries.begin(), entries.end(), [](const slot& a, const slot& b) {
        return !entry_less(a, b);
      }) == entries.end())
    return;
  std::stable_sort(entries.begin(), entries.end(), entry_less);
  // Keep the last of equal keys: walk backwards and keep first occurrences.
  auto out = entries.end();
  for (auto it = entries.end(); it != entries.begin();) {
    --it;
    if (out != entries.end() && same_key(*out, *it)) continue;
    --out;
    if (out != it) *out = std::move(*it);
  }
  entries.erase(entries.begin(), out);
}
}  // namespace detail

properties::properties(bool) noexcept : property(kind_properties) {}
properties::properties(const properties& other) noexcept : property(other), body_(other.body_) {}
properties::properties(properties&& other) noexcept
    : property(other), body_(std::move(other.body_)) {}

properties::properties(const std::map<std::string, std::string>& strings)
    : property(kind_properties) {
  if (strings.empty()) return;
  slots& out = mutable_entries();
  out.reserve(strings.size());
  for (const auto& [key, text] : strings) {
    const std::uint64_t order = property_entry::order_of(key);
    out.push_back({order, detail::key_lookup(key, order), make_string(text)});
  }
}

namespace {
template <class Entries>
void store_children(slots& out, Entries& children) {
  out.reserve(children.size());
  for (auto& child : children)
    out.push_back(
        {child.order(), detail::key_lookup(child.first, child.order()), std::move(child.second)});
  detail::properties_builder::normalise(out);
}
}  // namespace

properties::properties(std::initializer_list<entry> children) : property(kind_properties) {
  if (children.size() == 0) return;
  store_children(mutable_entries(), children);
}

properties::properties(container children) : property(kind_properties) {
  if (children.empty()) return;
  store_children(mutable_entries(), children);
}

properties::~properties() = default;

properties& properties::operator=(const properties& other) noexcept {
  body_ = other.body_;
  return *this;
}

properties& properties::operator=(properties&& other) noexcept {
  body_ = std::move(other.body_);
  return *this;
}

const properties::slots& properties::entries() const noexcept {
  return body_ ? body_->entries : no_entries();
}

properties::slots& properties::mutable_entries() {
  if (!body_) {
    body_ = zelbase::make_refcount<detail::properties_body>();
  } else if (body_->refcount() > 1) {
    auto own = zelbase::make_refcount<detail::properties_body>();
    own->entries = body_->entries;
    body_ = std::move(own);
  }
  return body_->entries;
}

properties::const_iterator properties::begin() const noexcept {
  return const_iterator(entries().data());
}
properties::const_iterator properties::end() const noexcept {
  const slots& all = entries();
  return const_iterator(all.data() + all.size());
}
std::size_t properties::size() const noexcept { return entries().size(); }
void properties::clear() noexcept { body_.reset(); }

properties::const_iterator properties::find(const std::string& key) const noexcept {
  const slots& all = entries();
  const std::uint64_t order = property_entry::order_of(key);
  const detail::slot* const last = all.data() + all.size();
  const detail::slot* const it = all.data() + position_of(all, key, order);
  return const_iterator(it != last && detail::entry_is(*it, key, order) ? it : last);
}

properties::slots::iterator properties::slot(const std::string& key) {
  slots& all = mutable_entries();
  // Trees are mostly built in key order: try the end first.
  const std::uint64_t order = property_entry::order_of(key);
  if (all.empty() || detail::entry_before(all.back(), key, order)) {
    all.push_back({order, detail::key_lookup(key, order), property_ptr()});
    return all.end() - 1;
  }
  auto it = all.begin() + static_cast<std::ptrdiff_t>(position_of(all, key, order));
  if (!detail::entry_is(*it, key, order))
    it = all.insert(it, {order, detail::key_lookup(key, order), property_ptr()});
  return it;
}

property_ptr& properties::operator[](const std::string& key) { return slot(key)->second; }

bool properties::erase(const std::string& key) {
  if (find(key) == end()) return false;
  slots& all = mutable_entries();
  all.erase(all.begin() +
            static_cast<std::ptrdiff_t>(position_of(all, key, property_entry::order_of(key))));
  return true;
}

bool properties::is_present(const std::string& key) const noexcept {
  const auto it = find(key);
  return it != end() && it->second;
}

property_ptr properties::get_property(const std::string& key) const {
  const auto it = find(key);
  return it == end() ? property_ptr() : it->second;
}

const std::string& properties::get_string_value(const std::string& key) const {
  return required_child<property_string>(*this, key, kind_string).value();
}

const std::string& properties::get_string_value(const std::string& key,
                                                const std::string& def) const {
  const auto* child = child_of_kind<property_string>(*this, key, kind_string);
  return child ? child->value() : def;
}

std::string properties::get_string_value(const std::string& key, std::string&& def) const {
  const auto* child = child_of_kind<property_string>(*this, key, kind_string);
  return child ? child->value() : std::move(def);
}

std::int64_t properties::get_int_value(const std::string& key) const {
  return required_child<property_int>(*this, key, kind_int).value();
}

std::int64_t properties::get_int_value(const std::string& key, std::int64_t def) const {
  const auto* child = child_of_kind<property_int>(*this, key, kind_int);
  return child ? child->value() : def;
}

bool properties::get_bool_value(const std::string& key) const {
  return required_child<property_bool>(*this, key, kind_bool).value();
}

bool properties::get_bool_value(const std::string& key, bool def) const {
  const auto* child = child_of_kind<property_bool>(*this, key, kind_bool);
  return child ? child->value() : def;
}

const properties& properties::get_properties_value(const std::string& key) const {
  return required_child<properties>(*this, key, kind_properties);
}

const properties& properties::get_properties_value(const std::string& key,
                                                   const properties& def) const {
  const auto* child = child_of_kind<properties>(*this, key, kind_properties);
  return child ? *child : def;
}

const properties* properties::get_properties_value_ptr(const std::string& key) const {
  return child_of_kind<properties>(*this, key, kind_properties);
}

const property_list::list_type& properties::get_list_value(const std::string& key) const {
  return required_child<property_list>(*this, key, kind_list).value();
}

void properties::set_int_value(const std::string& key, std::int64_t value) {
  (*this)[key] = make_int(value);
}
void properties::set_bool_value(const std::string& key, bool value) {
  (*this)[key] = make_bool(value);
}
void properties::set_string_value(const std::string& key, const std::string& value) {
  (*this)[key] = make_string(value);
}
void properties::set_properties_value(const std::string& key, const properties& value) {
  (*this)[key] = zelbase::make_refcount<properties>(value);
}

void properties::encode(zelbase::encoder_network& encoder) const {
  detail::pack_property(*this, encoder);
}

zelbase::ptr_refcount<property> properties::clone() const {
  auto copy = zelbase::make_refcount<properties>();
  const slots& all = entries();
  if (all.empty()) return copy;
  slots& out = copy->mutable_entries();
  out.reserve(all.size());
  // The keys are shared by all trees: only the children are copied.
  for (const detail::slot& e : all)
    out.push_back({e.order, e.key, e.second ? property_ptr(e.second->clone()) : property_ptr()});
  return copy;
}

std::string properties::to_string() const { return describe(); }

std::string properties::describe() const {
  std::string out = "{";
  bool first = true;
  for (const auto& [key, value] : *this) {
    if (!value) continue;
    if (!first) out += ",";
    first = false;
    detail::append_json_string(out, key);
    out += ":";
    out += value->describe();
  }
  out += "}";
  return out;
}

namespace {
// The entries that hold a child (null slots are absent keys).
template <class F>
bool for_each_pair(const slots& a, const slots& b, F&& f) {
  auto ia = a.begin(), ib = b.begin();
  for (;;) {
    while (ia != a.end() && !ia->second) ++ia;
    while (ib != b.end() && !ib->second) ++ib;
    if (ia == a.end() || ib == b.end())
      return f(ia == a.end() ? nullptr : &*ia, ib == b.end() ? nullptr : &*ib);
    if (!f(&*ia, &*ib)) return false;
    ++ia;
    ++ib;
  }
}
}  // namespace

bool properties::operator==(const property& other) const {
  if (other.kind() != kind_properties) return false;
  const auto& theirs = static_cast<const properties&>(other);
  if (body_ == theirs.body_) return true;
  bool equal = true;
  for_each_pair(entries(), theirs.entries(), [&](const detail::slot* a, const detail::slot* b) {
    if (!a || !b) {
      equal = !a && !b;
      return false;
    }
    equal = detail::same_key(*a, *b) && *a->second == *b->second;
    return equal;
  });
  return equal;
}

bool properties::operator<(const property& other) const {
  if (other.kind() != kind_properties) return kind_properties < other.kind();
  const auto& theirs = static_cast<const properties&>(other);
  bool less = false;
  for_each_pair(entries(), theirs.entries(), [&](const detail::slot* a, const detail::slot* b) {
    if (!a || !b) {
      less = !a && b;
      return false;
    }
    if (!detail::same_key(*a, *b)) {
      less = detail::entry_less(*a, *b);
      return false;
    }
    if (*a->second == *b->second) return true;
    less = *a->second < *b->second;
    return false;
  });
  return less;
}

}  // namespace zelcore
