// Decoding of the network encoding (MessagePack) into property trees. The reader walks the
// whole input in one recursive pass and builds each value where it is read: every notification
// passes through here, and a general streaming parser costs more than the tree it feeds. It
// never reads past the input and never reserves more than the input could hold.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>

#include "arena.h"
#include "properties_body.h"
#include "property_keys.h"
#include "zelbase/exceptions.h"
#include "zelbase/strings.h"

namespace zelcore {

namespace {

constexpr const char* source_file = "code\\platform\\zelcore\\src\\property_codec";

[[noreturn]] void raise_decode(const std::string& reason) {
  zelbase::es::arg::raise(source_file, __LINE__, "cannot decode property: " + reason);
}

// The strings read so far in one large input, so that equal values share one immutable string
// property: users, nodes, slots, states and commands repeat across the records of a snapshot.
// It lives for one decode only; no table outlives its input, and none is shared between threads.
class string_table {
 public:
  // A string of the input as the table compares it: its first and last eight bytes (which are
  // all of a string of up to 16 bytes, so that such strings compare without reading them
  // again), its place and size, and a hash of them.
  struct text {
    text() = default;
    text(const char* data, std::size_t size) : data(data), size(size) {
      std::memcpy(&head, data, std::min<std::size_t>(size, 8));
      if (size > 8)
        std::memcpy(&tail, data + size - std::min<std::size_t>(size - 8, 8),
                    std::min<std::size_t>(size - 8, 8));
      // Mixed whole (each bit of the input moves about half of the bits), so that the table's
      // low bits tell apart ids that differ only in their last digits.
      std::uint64_t h = head ^ (tail * 0x9e3779b97f4a7c15ULL) ^ size;
      h = (h ^ (h >> 33)) * 0xff51afd7ed558ccdULL;
      h = (h ^ (h >> 33)) * 0xc4ceb9fe1a85ec53ULL;
      hash = h ^ (h >> 33);
    }
    bool operator==(const text& other) const {
      return hash == other.hash && size == other.size && head == other.head && tail == other.tail &&
             (size <= 16 || std::memcmp(data + 8, other.data + 8, size - 16) == 0);
    }

    const char* data = nullptr;
    std::size_t size = 0;
    std::uint64_t head = 0;
    std::uint64_t tail = 0;
    std::uint64_t hash = 0;
  };

  // The string property equal to `t`, or null.
  const property* find(const text& t) const {
    if (slots_.empty()) return nullptr;
    for (std::size_t i = t.hash & mask_;; i = (i + 1) & mask_) {
      const slot& s = slots_[i];
      if (!s.value) return nullptr;
      if (s.key == t) return s.value.get();
    }
  }
  // Remembers `value`, whose text is `t` (in the input, which outlives the table).
  void insert(const text& t, property_ptr value) {
    // At most half full: a new string is looked up first, and in a fuller table its probe
    // walks a long run of taken slots before it meets an empty one.
    if ((used_ + 1) * 2 > slots_.size()) grow();
    place(slot{t, std::move(value)});
    ++used_;
  }

  // Whether a string under the key whose text is at `key` (null outside a map) is worth looking
  // up: a key whose values seldom repeat (ids, names, commands) stops being looked up after a
  // few, which keeps the table small enough to stay in cache.
  bool worth_looking_up(const void* key) {
    if (!key) return true;
    key_stats& k = stats_of(key);
    if (k.key != key) k = key_stats{key, 0, 0, true};
    if (k.sharing && k.lookups >= trial_lookups && k.hits * 4 < k.lookups) k.sharing = false;
    return k.sharing;
  }
  // Counts the outcome of a lookup under `key`.
  void looked_up(const void* key, bool hit) {
    if (!key) return;
    key_stats& k = stats_of(key);
    ++k.lookups;
    if (hit) ++k.hits;
  }

 private:
  struct slot {
    text key;
    property_ptr value;
  };

  void place(slot&& s) {
    for (std::size_t i = s.key.hash & mask_;; i = (i + 1) & mask_) {
      if (!slots_[i].value) {
        slots_[i] = std::move(s);
        return;
      }
    }
  }
  void grow() {
    std::vector<slot> old(slots_.empty() ? 1024 : slots_.size() * 2);
    old.swap(slots_);
    mask_ = slots_.size() - 1;
    for (slot& s : old)
      if (s.value) place(std::move(s));
  }

  struct key_stats {
    const void* key;
    std::uint32_t lookups;
    std::uint32_t hits;
    bool sharing;
  };
  static constexpr std::uint32_t trial_lookups = 4096;

  // One slot per key, by its address; two keys that meet in a slot start their trial again.
  key_stats& stats_of(const void* key) {
    const std::uint64_t h = reinterpret_cast<std::uintptr_t>(key) * 0x9e3779b97f4a7c15ULL;
    return keys_[h >> 54];
  }

  std::vector<slot> slots_;
  std::size_t mask_ = 0;
  std::size_t used_ = 0;
  key_stats keys_[1024] = {};
};

class tree_reader {
 public:
  tree_reader(const char* data, std::size_t size, std::size_t max_depth,
              std::size_t memory_per_byte)
      : begin_(reinterpret_cast<const unsigned char*>(data)),
        next_(begin_),
        end_(begin_ + size),
        pair_budget_(size / 2),
        max_depth_(std::min(max_depth, deepest)),
        memory_per_byte_(memory_per_byte),
        memory_budget_(memory_budget(size, memory_per_byte)) {
    if (size >= arena_threshold) {
      arena_.emplace();
      entries_in_arena_.emplace(*arena_);
      strings_.emplace();
    }
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
  // The memory that any input may take, whatever its size and the cap.
  static constexpr std::size_t small_input_allowance = std::size_t{64} << 10;
  // A map of a large input with this many pairs is keyed by ids (the records of a snapshot,
  // the tasks of a large workflow): each key is met once, so its keys are not looked up in the
  // process-wide table. Records' field names, which repeat, are in smaller maps.
  static constexpr std::uint32_t own_keys_from = 128;
  // Longer strings are seldom repeated: they are not looked up.
  static constexpr std::size_t longest_shared_string = 128;
  // A node of a list: two links and the element.
  static constexpr std::size_t list_node_size = 2 * sizeof(void*) + sizeof(property_ptr);
  // A key of the key table, beside its text: its count and links.
  static constexpr std::size_t key_node_size = 4 * sizeof(void*);

  // An input of `size` bytes may build this much; no cap gives the largest size. Every input
  // may take a small allowance, so that the fixed cost of a few objects never refuses a packet
  // of a few bytes.
  static std::size_t memory_budget(std::size_t size, std::size_t per_byte) {
    if (per_byte == 0 || size > SIZE_MAX / per_byte) return SIZE_MAX;
    return std::max(size * per_byte, small_input_allowance);
  }

  // The heap that a block of `bytes` takes: the allocator's header, rounded up to 16 bytes.
  static constexpr std::size_t block(std::size_t bytes) {
    return (bytes + sizeof(void*) + 15) & ~std::size_t{15};
  }

  // Counts a block of `bytes` that the tree is about to take, as the heap it holds, and refuses
  // the input once the count passes its budget: a peer's input must not make the client hold
  // more than the cap per byte of it.
  void charge(std::size_t bytes) {
    bytes = block(bytes);
    if (bytes <= memory_budget_) {
      memory_budget_ -= bytes;
      return;
    }
    raise_decode(zelbase::string_with_format(
        "a %zu-byte payload takes more than %zu bytes of memory per payload byte",
        static_cast<std::size_t>(end_ - begin_), memory_per_byte_));
  }

  template <class T, class... Args>
  zelbase::ptr_refcount<T> make(Args&&... args) {
    charge(sizeof(T));
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
    if (const property* shared = detail::shared_string(bytes, size)) return property_ptr(shared);
    if (!strings_ || size > longest_shared_string || !strings_->worth_looking_up(value_key_))
      return new_string(bytes, size);
    const string_table::text text(bytes, size);
    const property* seen = strings_->find(text);
    strings_->looked_up(value_key_, seen != nullptr);
    if (seen) return property_ptr(seen);
    property_ptr made = new_string(bytes, size);
    strings_->insert(text, made);
    return made;
  }

  property_ptr new_string(const char* bytes, std::size_t size) {
    if (size >= 16) charge(size + 1);  // beyond the string's inline room
    return make<property_string>(bytes, size);
  }

  void open_container(std::size_t depth) const {
    if (depth >= max_depth_)
      raise_decode(zelbase::string_with_format("nesting deeper than %zu levels", max_depth_));
  }

  property_ptr read_list(std::uint32_t count, std::size_t depth) {
    open_container(depth);
    if (count == 0) return property_ptr(detail::shared_empty_list());
    // Nodes are added as elements are read: a forged count reserves nothing.
    property_list::list_type elements;
    for (std::uint32_t i = 0; i < count; ++i) {
      property_ptr element = read_value(depth + 1);
      if (!element) raise_decode("nil is not allowed in a list");
      charge(list_node_size);
      elements.push_back(std::move(element));
    }
    return make<property_list>(std::move(elements));
  }

  property_ptr read_map(std::uint32_t count, std::size_t depth) {
    open_container(depth);
    if (count == 0) return property_ptr(detail::shared_empty_properties());
    zelbase::ptr_refcount<properties> tree = make<properties>();
    detail::properties_builder::slots& entries =
        arena_ ? detail::properties_builder::entries(*tree, *arena_)
               : detail::properties_builder::entries(*tree);
    // Each pair takes at least two bytes, so the whole input holds at most size / 2 pairs: forged
    // counts, even nested ones, cannot together reserve more than that.
    const std::size_t reserve = std::min<std::size_t>(count, pair_budget_);
    pair_budget_ -= reserve;
    charge(reserve * sizeof(detail::slot));
    entries.reserve(reserve);
    bool sorted = true;
    bool has_nil = false;
    const bool own_keys = arena_ && count >= own_keys_from;
    for (std::uint32_t i = 0; i < count; ++i) {
      read_key(entries, depth, own_keys);
      if (sorted && entries.size() > 1 &&
          !detail::entry_less(entries[entries.size() - 2], entries.back()))
        sorted = false;
      value_key_ = &entries.back().first();
      property_ptr value = read_value(depth + 1);
      value_key_ = nullptr;
      if (value)
        entries.back().second = std::move(value);
      else
        has_nil = true;
    }
    if (!sorted) detail::properties_builder::normalise(entries);
    if (has_nil)  // after normalising, so that a later nil also removes an earlier value
      entries.erase(std::remove_if(entries.begin(), entries.end(),
                                   [](const detail::slot& e) { return !e.second; }),
                    entries.end());
    // Repeated keys and nil values leave room that the tree would hold for its whole life.
    if (entries.size() < entries.capacity() / 2) entries.shrink_to_fit();
    return tree;
  }

  // Appends an entry for the key that comes next; anything but a string is refused (once it has
  // been read whole, so that truncation and unsupported types are named first). `own` gives the
  // key a node of its own instead of the table's.
  void read_key(detail::properties_builder::slots& entries, std::size_t depth, bool own) {
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
    const char* key = take(size);
    // Keys are shared across trees; counted as if each were new, since a peer may make them so.
    charge(key_node_size + size);
    const std::uint64_t order = property_entry::order_of(key, size);
    entries.push_back(
        {order, own ? detail::key_own(key, size, *arena_) : detail::key_lookup(key, size, order),
         property_ptr()});
  }

  // Declared first: it must outlive every object built while it is released.
  std::optional<detail::arena> arena_;
  std::optional<detail::entries_in_arena> entries_in_arena_;  // while this reader builds
  std::optional<string_table> strings_;  // for large inputs, which repeat values
  const void* value_key_ = nullptr;      // the key of the map value being read, if it is one
  const unsigned char* const begin_;
  const unsigned char* next_;
  const unsigned char* const end_;
  std::size_t pair_budget_;  // map pairs that may still be reserved
  const std::size_t max_depth_;
  const std::size_t memory_per_byte_;  // the cap, 0 for none
  std::size_t memory_budget_;          // bytes the tree may still take
};

}  // namespace

namespace detail {

namespace {

// Writes trees straight into the encoder's buffer: one room check per entry (a key and a leaf
// together), headers put byte by byte, short keys copied inline, and a call only per nested
// container. The bytes are those of msgpack-cxx's packer (the shortest form of every header and
// integer), whose write per piece took twice the time;
// tests/zelcore/property_encode_reference_test.cpp holds the two to the same output.
class tree_writer {
 public:
  explicit tree_writer(zelbase::encoder_network& out) : out_(out) {}
  ~tree_writer() { out_.advance(static_cast<std::size_t>(next_ - start_)); }
  tree_writer(const tree_writer&) = delete;
  tree_writer& operator=(const tree_writer&) = delete;

  void write(const property& value) {
    switch (value.kind()) {
      case property::kind_list: return write_list(static_cast<const property_list&>(value));
      case property::kind_properties: return write_tree(static_cast<const properties&>(value));
      default: next_ = put_leaf(room(leaf_room(value)), value);
    }
  }

 private:
  static constexpr std::size_t header_room = 5;  // the longest str, array or map header
  static constexpr std::size_t int_room = 9;

  // At least `size` bytes free at next_; the buffer is taken from the encoder in large pieces.
  char* room(std::size_t size) {
    if (static_cast<std::size_t>(limit_ - next_) < size) {
      out_.advance(static_cast<std::size_t>(next_ - start_));
      const std::size_t piece = size > 4096 ? size : 4096;
      start_ = next_ = out_.room(piece);
      limit_ = start_ + piece;
    }
    return next_;
  }

  static std::size_t leaf_room(const property& leaf) {
    return leaf.kind() == property::kind_string
               ? header_room + static_cast<const property_string&>(leaf).value().size()
               : int_room;
  }

  void write_list(const property_list& list) {
    next_ = put_header(room(header_room), list.value().size(), 0x90, 0xdc);
    for (const auto& element : list.value()) {
      if (element)
        write(*element);
      else
        next_ = put_byte(room(1), 0xc0);  // refused by the decoder, as a null element must be
    }
  }

  void write_tree(const properties& tree) {
    const properties_builder::slots* entries = properties_builder::entries_of(tree);
    next_ = put_header(room(header_room), entries ? entries->size() : 0, 0x80, 0xde);
    if (!entries) return;
    for (const slot& e : *entries) {
      const std::string& key = e.first();
      const property_ptr& child = e.second;
      if (!child) {  // a null slot travels as nil, which decodes as an absent key
        next_ = put_byte(put_string(room(header_room + key.size() + 1), key), 0xc0);
      } else if (child->kind() == property::kind_list ||
                 child->kind() == property::kind_properties) {
        next_ = put_string(room(header_room + key.size()), key);
        write(*child);
      } else {
        next_ =
            put_leaf(put_string(room(header_room + key.size() + leaf_room(*child)), key), *child);
      }
    }
  }

  static char* put_leaf(char* at, const property& leaf) {
    switch (leaf.kind()) {
      case property::kind_int: return put_int(at, static_cast<const property_int&>(leaf).value());
      case property::kind_bool:
        return put_byte(at, static_cast<const property_bool&>(leaf).value() ? 0xc3 : 0xc2);
      default: return put_string(at, static_cast<const property_string&>(leaf).value());
    }
  }

  template <class T>
  static char* put_big_endian(char* at, T value) {
    for (std::size_t i = sizeof(T); i-- > 0;) *at++ = static_cast<char>(value >> (8 * i));
    return at;
  }
  static char* put_byte(char* at, unsigned v) {
    *at = static_cast<char>(v);
    return at + 1;
  }
  static char* put_string(char* at, const std::string& text) {
    const std::size_t size = text.size();
    if (size < 32)
      at = put_byte(at, 0xa0 | static_cast<unsigned>(size));
    else if (size < 256)
      at = put_byte(put_byte(at, 0xd9), static_cast<unsigned>(size));
    else if (size < 65536)
      at = put_big_endian(put_byte(at, 0xda), static_cast<std::uint16_t>(size));
    else
      at = put_big_endian(put_byte(at, 0xdb), static_cast<std::uint32_t>(size));
    copy(at, text.data(), size);
    return at + size;
  }
  // An array or map header: the fix form below 16 elements, else 16 or 32 bits.
  static char* put_header(char* at, std::size_t count, unsigned fix, unsigned wide16) {
    if (count < 16) return put_byte(at, fix | static_cast<unsigned>(count));
    if (count < 65536)
      return put_big_endian(put_byte(at, wide16), static_cast<std::uint16_t>(count));
    return put_big_endian(put_byte(at, wide16 + 1), static_cast<std::uint32_t>(count));
  }
  static char* put_int(char* at, std::int64_t v) {
    if (v >= -32 && v < 128) return put_byte(at, static_cast<unsigned char>(v));
    if (v < 0) {
      if (v >= -128) return put_big_endian(put_byte(at, 0xd0), static_cast<std::uint8_t>(v));
      if (v >= -32768) return put_big_endian(put_byte(at, 0xd1), static_cast<std::uint16_t>(v));
      if (v >= INT32_MIN) return put_big_endian(put_byte(at, 0xd2), static_cast<std::uint32_t>(v));
      return put_big_endian(put_byte(at, 0xd3), static_cast<std::uint64_t>(v));
    }
    if (v < 256) return put_big_endian(put_byte(at, 0xcc), static_cast<std::uint8_t>(v));
    if (v < 65536) return put_big_endian(put_byte(at, 0xcd), static_cast<std::uint16_t>(v));
    if (v <= UINT32_MAX) return put_big_endian(put_byte(at, 0xce), static_cast<std::uint32_t>(v));
    return put_big_endian(put_byte(at, 0xcf), static_cast<std::uint64_t>(v));
  }

  // Keys and most values are short: copied with whole loads (reading only `size` bytes)
  // instead of a call per piece.
  static void copy(char* to, const char* from, std::size_t size) {
    if (size > 16) {
      std::memcpy(to, from, size);
    } else if (size >= 8) {
      copy_ends<std::uint64_t>(to, from, size);
    } else if (size >= 4) {
      copy_ends<std::uint32_t>(to, from, size);
    } else if (size > 0) {
      to[0] = from[0];
      to[size / 2] = from[size / 2];
      to[size - 1] = from[size - 1];
    }
  }
  // The first and the last sizeof(T) bytes, which together cover the piece.
  template <class T>
  static void copy_ends(char* to, const char* from, std::size_t size) {
    T head;
    T tail;
    std::memcpy(&head, from, sizeof head);
    std::memcpy(&tail, from + size - sizeof tail, sizeof tail);
    std::memcpy(to, &head, sizeof head);
    std::memcpy(to + size - sizeof tail, &tail, sizeof tail);
  }

  zelbase::encoder_network& out_;
  char* start_ = nullptr;  // where the piece taken from the encoder begins
  char* next_ = nullptr;
  char* limit_ = nullptr;
};

}  // namespace

void pack_property(const property& value, zelbase::encoder_network& encoder) {
  tree_writer(encoder).write(value);
}

}  // namespace detail

property_ptr decode_property(const char* data, std::size_t size, std::size_t max_depth,
                             std::size_t memory_per_byte) {
  if (size == 0) raise_decode("input is empty");
  return tree_reader(data, size, max_depth, memory_per_byte).read_whole();
}

properties decode_properties(const char* data, std::size_t size, std::size_t max_depth,
                             std::size_t memory_per_byte) {
  property_ptr value = decode_property(data, size, max_depth, memory_per_byte);
  if (value->kind() != property::kind_properties)
    raise_decode(zelbase::string_with_format("the value is a %s, not a properties",
                                             property_kind_c_str(value->kind())));
  return static_cast<const properties&>(*value);
}

}  // namespace zelcore
