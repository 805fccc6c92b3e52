// Decoding of the network encoding (MessagePack) into property trees. The reader walks the
// whole input in one recursive pass and builds each value where it is read: every notification
// passes through here, and a general streaming parser costs more than the tree it feeds. It
// never reads past the input and never reserves more than the input could hold. Writing goes
// through msgpack-cxx's packer.
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

[[noreturn]] void raise_decode(const std::string& reason) {
  zelbase::es::arg::raise(source_file, __LINE__, "cannot decode property: " + reason);
}

class tree_reader {
 public:
  tree_reader(const char* data, std::size_t size, std::size_t max_depth)
      : begin_(reinterpret_cast<const unsigned char*>(data)),
        next_(begin_),
        end_(begin_ + size),
        pair_budget_(size / 2),
        max_depth_(std::min(max_depth, deepest)) {
    if (size >= arena_threshold) arena_.emplace();
  }

  property_ptr read_whole() {
    property_ptr value = read_value(0);
    if (!value) raise_decode("nil is not a property");
    if (next_ != end_)
      raise_decode(zelbase::string_with_format("%zu bytes after the value",
                                               static_cast<std::size_t>(end_ - next_)));
    return value;
  }

 private:
  // Inputs of this size and more (snapshots, state replies) are built in an arena; smaller
  // ones (notifications, whose leaves are merged into records one by one and outlive the rest
  // of their tree) take blocks of their own, so that no leaf keeps a whole chunk alive.
  static constexpr std::size_t arena_threshold = std::size_t{16} << 10;
  // Each level is a call: this bounds the stack whatever depth a caller allows.
  static constexpr std::size_t deepest = 1024;

  template <class T, class... Args>
  zelbase::ptr_refcount<T> make(Args&&... args) {
    return zelbase::ptr_refcount<T>::adopt_new(arena_ ? new (*arena_) T(std::forward<Args>(args)...)
                                                      : new T(std::forward<Args>(args)...));
  }

  // The next `n` bytes, which must all be there (a shortage is named where they would start).
  const char* take(std::size_t n) {
    if (static_cast<std::size_t>(end_ - next_) < n)
      raise_decode(zelbase::string_with_format("input truncated at byte %zu",
                                               static_cast<std::size_t>(next_ - begin_)));
    const char* bytes = reinterpret_cast<const char*>(next_);
    next_ += n;
    return bytes;
  }
  template <class T>
  T take_big_endian() {
    const char* bytes = take(sizeof(T));
    T value = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i)
      value = static_cast<T>(value << 8 | static_cast<unsigned char>(bytes[i]));
    return value;
  }
  // The length or count that follows a str/array/map/bin/ext type byte of the given width.
  std::uint32_t take_length(unsigned char type, unsigned char first_of_family) {
    switch (type - first_of_family) {
      case 0: return take_big_endian<std::uint8_t>();
      case 1: return take_big_endian<std::uint16_t>();
      default: return take_big_endian<std::uint32_t>();
    }
  }

  property_ptr int_value(std::int64_t v) {
    if (const property* shared = detail::shared_int(v)) return property_ptr(shared);
    return make<property_int>(v);
  }

  // One value; null for nil, which only a map value may be (it means the key is absent).
  property_ptr read_value(std::size_t depth) {
    const unsigned char type = static_cast<unsigned char>(*take(1));
    if (type <= 0x7f) return int_value(type);
    if (type >= 0xe0) return int_value(static_cast<std::int8_t>(type));
    if ((type & 0xe0) == 0xa0) return read_string(type & 0x1f);
    if ((type & 0xf0) == 0x90) return read_list(type & 0x0f, depth);
    if ((type & 0xf0) == 0x80) return read_map(type & 0x0f, depth);
    switch (type) {
      case 0xc0: return property_ptr();
      case 0xc2: return make_bool(false);
      case 0xc3: return make_bool(true);
      case 0xcc: return int_value(take_big_endian<std::uint8_t>());
      case 0xcd: return int_value(take_big_endian<std::uint16_t>());
      case 0xce: return int_value(take_big_endian<std::uint32_t>());
      case 0xcf:
        // Unsigned counters travel as their bits; they come back as the signed value.
        return int_value(static_cast<std::int64_t>(take_big_endian<std::uint64_t>()));
      case 0xd0: return int_value(static_cast<std::int8_t>(take_big_endian<std::uint8_t>()));
      case 0xd1: return int_value(static_cast<std::int16_t>(take_big_endian<std::uint16_t>()));
      case 0xd2: return int_value(static_cast<std::int32_t>(take_big_endian<std::uint32_t>()));
      case 0xd3: return int_value(static_cast<std::int64_t>(take_big_endian<std::uint64_t>()));
      case 0xd9:
      case 0xda:
      case 0xdb: return read_string(take_length(type, 0xd9));
      case 0xdc:
      case 0xdd: return read_list(take_length(type, 0xdb), depth);
      case 0xde:
      case 0xdf: return read_map(take_length(type, 0xdd), depth);
      case 0xca:
      case 0xcb:
        take(type == 0xca ? 4 : 8);
        raise_decode("floating-point values are not supported");
      case 0xc4:
      case 0xc5:
      case 0xc6: take(take_length(type, 0xc4)); raise_decode("binary values are not supported");
      case 0xc7:
      case 0xc8:
      case 0xc9:
        take(take_length(type, 0xc7) + std::size_t{1});
        raise_decode("extension values are not supported");
      case 0xd4:
      case 0xd5:
      case 0xd6:
      case 0xd7:
      case 0xd8:
        take((std::size_t{1} << (type - 0xd4)) + 1);
        raise_decode("extension values are not supported");
      default:  // 0xc1, never used
        raise_decode(zelbase::string_with_format("malformed input at byte %zu",
                                                 static_cast<std::size_t>(next_ - begin_ - 1)));
    }
  }

  property_ptr read_string(std::size_t size) {
    const char* bytes = take(size);
    return make<property_string>(bytes, size);
  }

  void open_container(std::size_t depth) const {
    if (depth >= max_depth_)
      raise_decode(zelbase::string_with_format("nesting deeper than %zu levels", max_depth_));
  }

  property_ptr read_list(std::uint32_t count, std::size_t depth) {
    open_container(depth);
    zelbase::ptr_refcount<property_list> list = make<property_list>();
    for (std::uint32_t i = 0; i < count; ++i) {
      property_ptr element = read_value(depth + 1);
      if (!element) raise_decode("nil is not allowed in a list");
      list->push_back(std::move(element));
    }
    return list;
  }

  property_ptr read_map(std::uint32_t count, std::size_t depth) {
    open_container(depth);
    zelbase::ptr_refcount<properties> tree = make<properties>();
    properties::container& entries = arena_ ? detail::properties_builder::entries(*tree, *arena_)
                                            : detail::properties_builder::entries(*tree);
    // Each pair takes at least two bytes, so the whole input holds at most size / 2 pairs: forged
    // counts, even nested ones, cannot together reserve more than that.
    const std::size_t reserve = std::min<std::size_t>(count, pair_budget_);
    pair_budget_ -= reserve;
    entries.reserve(reserve);
    bool sorted = true;
    bool has_nil = false;
    for (std::uint32_t i = 0; i < count; ++i) {
      read_key(entries, depth);
      if (sorted && entries.size() > 1 &&
          !detail::entry_less(entries[entries.size() - 2], entries.back()))
        sorted = false;
      if (property_ptr value = read_value(depth + 1))
        entries.back().second = std::move(value);
      else
        has_nil = true;
    }
    if (!sorted) detail::properties_builder::normalise(entries);
    if (has_nil)  // after normalising, so that a later nil also removes an earlier value
      entries.erase(std::remove_if(entries.begin(), entries.end(),
                                   [](const properties::entry& e) { return !e.second; }),
                    entries.end());
    return tree;
  }

  // Appends an entry for the key that comes next; anything but a string is refused (once it has
  // been read whole, so that truncation and unsupported types are named first).
  void read_key(properties::container& entries, std::size_t depth) {
    const unsigned char type = static_cast<unsigned char>(*take(1));
    std::size_t size;
    if ((type & 0xe0) == 0xa0) {
      size = type & 0x1f;
    } else if (type >= 0xd9 && type <= 0xdb) {
      size = take_length(type, 0xd9);
    } else {
      if ((type & 0xe0) == 0x80 || (type >= 0xdc && type <= 0xdf)) {
        if (type >= 0xdc) take(type == 0xdc || type == 0xde ? 2 : 4);
      } else {
        --next_;
        read_value(depth + 1);
      }
      raise_decode("a map key is not a string");
    }
    entries.emplace_back(take(size), size);
  }

  // Declared first: it must outlive every object built while it is released.
  std::optional<detail::arena> arena_;
  const unsigned char* const begin_;
  const unsigned char* next_;
  const unsigned char* const end_;
  std::size_t pair_budget_;  // map pairs that may still be reserved
  const std::size_t max_depth_;
};

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
  return tree_reader(data, size, max_depth).read_whole();
}

properties decode_properties(const char* data, std::size_t size, std::size_t max_depth) {
  property_ptr value = decode_property(data, size, max_depth);
  if (value->kind() != property::kind_properties)
    raise_decode(zelbase::string_with_format("the value is a %s, not a properties",
                                             property_kind_c_str(value->kind())));
  return static_cast<const properties&>(*value);
}

}  // namespace zelcore
