// The scalar and list property kinds, and the shared constants for common values.
#include <atomic>
#include <cstdio>

#include "properties_body.h"
#include "property_text.h"
#include "zelbase/exceptions.h"
#include "zelcore/properties.h"

namespace zelcore {

static_assert(sizeof(property) == sizeof(zelbase::object_refcount),
              "a property's kind lives in the padding after its count");

namespace detail {

void append_json_string(std::string& out, const std::string& text) {
  out.push_back('"');
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
          out += escaped;
        } else {
          out.push_back(ch);
        }
    }
  }
  out.push_back('"');
}

}  // namespace detail

property::~property() = default;

const char* property_kind_c_str(property::property_kind kind) {
  switch (kind) {
    case property::kind_int: return "int";
    case property::kind_bool: return "bool";
    case property::kind_string: return "string";
    case property::kind_list: return "list";
    case property::kind_properties: return "properties";
  }
  return "unknown";
}

namespace {
void pack_scalar(zelbase::encoder_network& encoder, std::int64_t value) { encoder.pack_int(value); }
void pack_scalar(zelbase::encoder_network& encoder, bool value) { encoder.pack_bool(value); }
void pack_scalar(zelbase::encoder_network& encoder, const std::string& value) {
  encoder.pack_string(value);
}

std::string plain_text(std::int64_t value) { return std::to_string(value); }
std::string plain_text(bool value) { return value ? "true" : "false"; }
std::string plain_text(const std::string& value) { return value; }

std::string json_text(std::int64_t value) { return plain_text(value); }
std::string json_text(bool value) { return plain_text(value); }
std::string json_text(const std::string& value) {
  std::string out;
  detail::append_json_string(out, value);
  return out;
}
}  // namespace

template <class Derived, class T, property::property_kind Kind>
void property_scalar<Derived, T, Kind>::encode(zelbase::encoder_network& encoder) const {
  pack_scalar(encoder, value_);
}

template <class Derived, class T, property::property_kind Kind>
zelbase::ptr_refcount<property> property_scalar<Derived, T, Kind>::clone() const {
  return new Derived(value_);
}

template <class Derived, class T, property::property_kind Kind>
std::string property_scalar<Derived, T, Kind>::to_string() const {
  return plain_text(value_);
}

template <class Derived, class T, property::property_kind Kind>
std::string property_scalar<Derived, T, Kind>::describe() const {
  return json_text(value_);
}

template <class Derived, class T, property::property_kind Kind>
bool property_scalar<Derived, T, Kind>::operator==(const property& other) const {
  return other.kind() == Kind && static_cast<const property_scalar&>(other).value_ == value_;
}

template <class Derived, class T, property::property_kind Kind>
bool property_scalar<Derived, T, Kind>::operator<(const property& other) const {
  return other.kind() == Kind ? value_ < static_cast<const property_scalar&>(other).value_
                              : Kind < other.kind();
}

template class property_scalar<property_int, std::int64_t, property::kind_int>;
template class property_scalar<property_bool, bool, property::kind_bool>;
template class property_scalar<property_string, std::string, property::kind_string>;

property_list::property_list(const zelbase::ptr_refcount<const property_list>& other)
    : property(kind_list) {
  if (other) values_ = other->values_;
}

void property_list::encode(zelbase::encoder_network& encoder) const {
  detail::pack_property(*this, encoder);
}

zelbase::ptr_refcount<property> property_list::clone() const {
  auto copy = zelbase::make_refcount<property_list>();
  for (const auto& value : values_) copy->values_.push_back(value ? value->clone() : nullptr);
  return copy;
}

std::string property_list::to_string() const { return describe(); }

std::string property_list::describe() const {
  std::string out = "[";
  bool first = true;
  for (const auto& value : values_) {
    if (!first) out += ",";
    first = false;
    out += value ? value->describe() : "null";
  }
  out += "]";
  return out;
}

namespace {
// Null elements compare equal to each other and before any value.
bool element_less(const property_ptr& a, const property_ptr& b) {
  if (!a || !b) return !a && b;
  return *a < *b;
}
bool element_equal(const property_ptr& a, const property_ptr& b) {
  if (!a || !b) return !a && !b;
  return *a == *b;
}
}  // namespace

bool property_list::operator==(const property& other) const {
  if (other.kind() != kind_list) return false;
  const auto& theirs = static_cast<const property_list&>(other).values_;
  return values_.size() == theirs.size() &&
         std::equal(values_.begin(), values_.end(), theirs.begin(), element_equal);
}

bool property_list::operator<(const property& other) const {
  if (other.kind() != kind_list) return kind_list < other.kind();
  const auto& theirs = static_cast<const property_list&>(other).values_;
  return std::lexicographical_compare(values_.begin(), values_.end(), theirs.begin(), theirs.end(),
                                      element_less);
}

namespace {
// Constants live for the whole process.
template <class T>
const property* immortal(T* p) {
  p->make_immortal();
  return p;
}

// Down to -128: every integer that takes one or two bytes of input is a constant.
constexpr std::int64_t small_int_min = -128;
constexpr std::int64_t small_int_max = 1023;

const property* const* small_ints() {
  static const property* const* table = [] {
    auto* t = new const property*[small_int_max - small_int_min + 1];
    for (std::int64_t v = small_int_min; v <= small_int_max; ++v)
      t[v - small_int_min] = immortal(new property_int(v));
    return t;
  }();
  return table;
}
}  // namespace

namespace detail {
const property* shared_int(std::int64_t value) {
  return value >= small_int_min && value <= small_int_max ? small_ints()[value - small_int_min]
                                                          : nullptr;
}

const property* shared_string(const char* data, std::size_t size) {
  if (size > 2) return nullptr;
  if (size < 2) {
    // Index 0 is the empty string, 1 + b the one-byte string b.
    static const property* const* table = [] {
      auto* t = new const property*[257];
      t[0] = immortal(new property_string(std::string()));
      for (int b = 0; b < 256; ++b)
        t[1 + b] = immortal(new property_string(std::string(1, static_cast<char>(b))));
      return t;
    }();
    return table[size == 0 ? 0 : 1 + static_cast<unsigned char>(data[0])];
  }
  // Two-byte strings are made at their first use (a string object for 3 bytes of input would
  // exceed the decoder's memory bound); racing threads keep the first one made.
  static std::atomic<const property*> pairs[1 << 16];
  std::atomic<const property*>& slot =
      pairs[static_cast<unsigned char>(data[0]) << 8 | static_cast<unsigned char>(data[1])];
  const property* shared = slot.load(std::memory_order_acquire);
  if (shared) return shared;
  const property* made = immortal(new property_string(data, 2));
  if (slot.compare_exchange_strong(shared, made, std::memory_order_acq_rel)) return made;
  delete made;  // never shared
  return shared;
}

const property* shared_empty_list() {
  static const property* const empty = immortal(new property_list());
  return empty;
}

const property* shared_empty_properties() {
  static const property* const empty = immortal(new properties());
  return empty;
}
}  // namespace detail

property_ptr make_int(std::int64_t value) {
  if (const property* shared = detail::shared_int(value)) return property_ptr(shared);
  return zelbase::make_refcount<property_int>(value);
}

property_ptr make_bool(bool value) {
  static const property* const yes = immortal(new property_bool(true));
  static const property* const no = immortal(new property_bool(false));
  return property_ptr(value ? yes : no);
}

property_ptr make_string(std::string value) {
  if (const property* shared = detail::shared_string(value.data(), value.size()))
    return property_ptr(shared);
  return zelbase::make_refcount<property_string>(std::move(value));
}

property_ptr make_string_list(const std::vector<std::string>& values) {
  zelbase::ptr_refcount<property_list> list(new property_list());
  for (const std::string& v : values) list->push_back(make_string(v));
  return list;
}

std::string encode_property(const property& value) {
  zelbase::encoder_network encoder;
  value.encode(encoder);
  return encoder.take();
}

}  // namespace zelcore
