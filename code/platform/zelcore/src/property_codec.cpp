// Decoding of the network encoding (MessagePack) into property trees, on msgpack-cxx's parser.
// Builds the tree directly while parsing; never reads past the input and never reserves more
// than the input could hold.
#include <algorithm>

#include <msgpack.hpp>
#include <optional>

#include "arena.h"
#include "properties_body.h"
#include "zelbase/exceptions.h"
#include "zelbase/strings.h"

namespace zelcore {

namespace {

constexpr const char* source_file = "code\\platform\\zelcore\\src\\property_codec";

class tree_builder : public msgpack::null_visitor {
 public:
  tree_builder(std::size_t input_size, std::size_t max_depth)
      : pair_budget_(input_size / 2), max_depth_(max_depth) {
    if (input_size >= arena_threshold) arena_.emplace();
    frames_.reserve(8);
  }

  property_ptr take_root() { return std::move(root_); }
  const std::string& error() const { return error_; }

  bool visit_nil() { return attach(property_ptr()); }
  bool visit_boolean(bool v) { return attach(make_bool(v)); }
  bool visit_positive_integer(std::uint64_t v) {
    // Unsigned counters travel as their bits; they come back as the signed value.
    return attach(int_value(static_cast<std::int64_t>(v)));
  }
  bool visit_negative_integer(std::int64_t v) { return attach(int_value(v)); }
  bool visit_float32(float) { return fail("floating-point values are not supported"); }
  bool visit_float64(double) { return fail("floating-point values are not supported"); }
  bool visit_bin(const char*, std::uint32_t) { return fail("binary values are not supported"); }
  bool visit_ext(const char*, std::uint32_t) { return fail("extension values are not supported"); }

  // A key opens its entry at once; the value fills it in (or removes it, for nil).
  bool visit_str(const char* v, std::uint32_t size) {
    if (frames_.empty() || !frames_.back().expecting_key)
      return attach(property_ptr(make<property_string>(v, size)));
    frame& top = frames_.back();
    properties::container& entries = *top.entries;
    entries.emplace_back(v, size);
    if (top.sorted && entries.size() > 1 &&
        !detail::entry_less(entries[entries.size() - 2], entries.back()))
      top.sorted = false;
    top.has_key = true;
    return true;
  }

  bool start_array(std::uint32_t) {
    if (!open_container()) return false;
    zelbase::ptr_refcount<property_list> list(make<property_list>());
    frames_.push_back(frame{property_ptr(list), list.get(), nullptr, false, false, true});
    return true;
  }
  bool end_array() { return close_container(); }

  bool start_map(std::uint32_t count) {
    if (!open_container()) return false;
    zelbase::ptr_refcount<properties> tree(make<properties>());
    properties::container& entries = arena_ ? detail::properties_builder::entries(*tree, *arena_)
                                            : detail::properties_builder::entries(*tree);
    // Each pair takes at least two bytes, so the whole input holds at most size / 2 pairs: forged
    // counts, even nested ones, cannot together reserve more than that.
    const std::size_t reserve = std::min<std::size_t>(count, pair_budget_);
    pair_budget_ -= reserve;
    entries.reserve(reserve);
    frames_.push_back(frame{property_ptr(tree), nullptr, &entries, false, false, true});
    return true;
  }
  bool start_map_key() {
    frames_.back().expecting_key = true;
    frames_.back().has_key = false;
    return true;
  }
  bool end_map_key() {
    frame& top = frames_.back();
    top.expecting_key = false;
    return top.has_key || fail("a map key is not a string");
  }
  bool end_map() {
    frame& top = frames_.back();
    if (!top.sorted) detail::properties_builder::normalise(*top.entries);
    if (top.has_nil) {  // after normalising, so that a later nil also removes an earlier value
      properties::container& entries = *top.entries;
      entries.erase(std::remove_if(entries.begin(), entries.end(),
                                   [](const properties::entry& e) { return !e.second; }),
                    entries.end());
    }
    return close_container();
  }

  void parse_error(std::size_t, std::size_t error_offset) {
    set_error(zelbase::string_with_format("malformed input at byte %zu", error_offset));
  }
  void insufficient_bytes(std::size_t, std::size_t error_offset) {
    set_error(zelbase::string_with_format("input truncated at byte %zu", error_offset));
  }

 private:
  // Inputs of this size and more (snapshots, state replies) are built in an arena; smaller
  // ones (notifications, whose leaves are merged into records one by one and outlive the rest
  // of their tree) take blocks of their own, so that no leaf keeps a whole chunk alive.
  static constexpr std::size_t arena_threshold = std::size_t{16} << 10;

  template <class T, class... Args>
  T* make(Args&&... args) {
    if (arena_) return new (*arena_) T(std::forward<Args>(args)...);
    return new T(std::forward<Args>(args)...);
  }

  property_ptr int_value(std::int64_t v) {
    if (const property* shared = detail::shared_int(v)) return property_ptr(shared);
    return property_ptr(make<property_int>(v));
  }

  struct frame {
    property_ptr holder;
    property_list* list;
    properties::container* entries;
    bool expecting_key = false;
    bool has_key = false;
    bool sorted = true;
    bool has_nil = false;  // a key with a nil value, to remove at the end
  };

  bool fail(const char* reason) {
    set_error(reason);
    return false;
  }
  void set_error(std::string reason) {
    if (error_.empty()) error_ = std::move(reason);
  }

  bool open_container() {
    if (!frames_.empty() && frames_.back().expecting_key) return fail("a map key is not a string");
    if (frames_.size() >= max_depth_)
      return fail(
          zelbase::string_with_format("nesting deeper than %zu levels", max_depth_).c_str());
    return true;
  }

  bool close_container() {
    property_ptr done = std::move(frames_.back().holder);
    frames_.pop_back();
    return attach(std::move(done));
  }

  bool attach(property_ptr value) {
    if (frames_.empty()) {
      if (!value) return fail("nil is not a property");
      root_ = std::move(value);
      return true;
    }
    frame& top = frames_.back();
    if (top.list) {
      if (!value) return fail("nil is not allowed in a list");
      top.list->push_back(std::move(value));
      return true;
    }
    if (top.expecting_key) return fail("a map key is not a string");
    if (value)
      top.entries->back().second = std::move(value);
    else
      top.has_nil = true;  // a nil value: the key is absent
    return true;
  }

  // Declared first: it must outlive the frames and the root while they are released.
  std::optional<detail::arena> arena_;
  std::size_t pair_budget_;  // map pairs that may still be reserved
  std::size_t max_depth_;
  std::vector<frame> frames_;
  property_ptr root_;
  std::string error_;
};

[[noreturn]] void raise_decode(const std::string& reason) {
  zelbase::es::arg::raise(source_file, __LINE__, "cannot decode property: " + reason);
}

}  // namespace

namespace detail {

namespace {
using packer = msgpack::packer<zelbase::encoder_network>;

void pack(const property& value, packer& out) {
  switch (value.kind()) {
    case property::kind_int:
      out.pack_int64(static_cast<const property_int&>(value).value());
      return;
    case property::kind_bool:
      if (static_cast<const property_bool&>(value).value())
        out.pack_true();
      else
        out.pack_false();
      return;
    case property::kind_string: {
      const std::string& text = static_cast<const property_string&>(value).value();
      out.pack_str(static_cast<std::uint32_t>(text.size()));
      out.pack_str_body(text.data(), static_cast<std::uint32_t>(text.size()));
      return;
    }
    case property::kind_list: {
      const auto& list = static_cast<const property_list&>(value).value();
      out.pack_array(static_cast<std::uint32_t>(list.size()));
      for (const auto& element : list) {
        if (element)
          pack(*element, out);
        else
          out.pack_nil();
      }
      return;
    }
    case property::kind_properties: {
      const auto& tree = static_cast<const properties&>(value);
      out.pack_map(static_cast<std::uint32_t>(tree.size()));
      // A null slot travels as nil, which decodes as an absent key.
      for (const auto& [key, child] : tree) {
        out.pack_str(static_cast<std::uint32_t>(key.size()));
        out.pack_str_body(key.data(), static_cast<std::uint32_t>(key.size()));
        if (child)
          pack(*child, out);
        else
          out.pack_nil();
      }
      return;
    }
  }
}
}  // namespace

void pack_property(const property& value, zelbase::encoder_network& encoder) {
  packer out(encoder);
  pack(value, out);
}

}  // namespace detail

property_ptr decode_property(const char* data, std::size_t size, std::size_t max_depth) {
  if (size == 0) raise_decode("input is empty");
  tree_builder builder(size, max_depth);
  std::size_t offset = 0;
  bool ok = false;
  try {
    ok = msgpack::parse(data, size, offset, builder);
  } catch (const std::exception& e) {
    raise_decode(e.what());
  }
  if (!ok) raise_decode(builder.error().empty() ? "malformed input" : builder.error());
  if (offset != size)
    raise_decode(zelbase::string_with_format("%zu bytes after the value", size - offset));
  return builder.take_root();
}

properties decode_properties(const char* data, std::size_t size, std::size_t max_depth) {
  property_ptr value = decode_property(data, size, max_depth);
  if (value->kind() != property::kind_properties)
    raise_decode(zelbase::string_with_format("the value is a %s, not a properties",
                                             property_kind_c_str(value->kind())));
  return static_cast<const properties&>(*value);
}

}  // namespace zelcore
