// The property tree: every record, message body and snapshot is a `properties`, an ordered map
// from key to a shared, constant child property (int, bool, string, list or nested properties).
//
// Sharing: children are reference counted and constant once in a tree; copying a `properties`
// shares its content (constant time) and the first change to either copy detaches it. A tree
// object is used by one thread at a time; distinct copies may be used on distinct threads.
//
// Representation: a child takes a 24-byte entry (its key's first eight bytes, its key and the
// child); keys are shared by all trees through a process-wide table, safe on any thread, and
// read as `const std::string&`. Iteration yields property_item (the key and the child by
// reference, valid while the tree is unchanged). The decoder shares one empty tree, one empty
// list, the integers from -128 to 1023 and the strings of at most two bytes; flat input (empty
// containers, scalars, strings, maps) holds about 16 bytes of heap per input byte at most, nested
// input an object per level (at most 48 bytes per input byte through maps, 80 through lists).
//
// Property references name a property inside a tree in the form of JSON Pointer (RFC 6901):
// "/a/b" is key b inside key a; "~1" stands for "/" and "~0" for "~" inside a key. The leaves of a
// tree are all children that are not `properties` (lists are leaves); an empty nested tree has
// no leaf.
//
// Accessors without a default raise zelbase::es::arg naming the key when the key is missing or
// holds another kind.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <list>
#include <map>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "zelbase/encoder_network.h"
#include "zelbase/refcount.h"
#include "zelcore/export.h"

namespace zelcore {

class property;
class properties;
using property_ptr = zelbase::ptr_refcount<const property>;

namespace detail {
class arena;
}  // namespace detail

class ZELCORE_EXPORT property : public zelbase::object_refcount {
 public:
  enum property_kind : std::uint32_t {
    kind_int = 0,
    kind_bool = 1,
    kind_string = 2,
    kind_list = 3,
    kind_properties = 4,
  };

  ~property() override;

  // Tree objects come from a pool block (thread-local free lists) or, inside the library, from
  // an arena, the contiguous memory in which a decoder builds a whole tree; either way any
  // thread may free them.
  static void* operator new(std::size_t size);
  ZELCORE_NO_EXPORT static void* operator new(std::size_t size, detail::arena& in);
  static void operator delete(void* p, std::size_t size) noexcept;
  ZELCORE_NO_EXPORT static void operator delete(void* p, detail::arena& in) noexcept;

  // Held by the object (not a virtual call): the encoder and the merge ask it of every value.
  property_kind kind() const noexcept { return kind_; }
  // Writes the property in the network encoding (MessagePack).
  virtual void encode(zelbase::encoder_network& encoder) const = 0;
  // A deep copy that shares nothing with this property.
  virtual zelbase::ptr_refcount<property> clone() const = 0;
  // Plain text: a string's own text, a number's digits, "true"/"false"; trees and lists as JSON.
  virtual std::string to_string() const = 0;
  // JSON text for logs (strings quoted and escaped).
  virtual std::string describe() const = 0;
  // Same kind and same value (trees compared key by key, children by value).
  virtual bool operator==(const property& other) const = 0;
  // Orders by kind, then by value (lists and trees lexicographically).
  virtual bool operator<(const property& other) const = 0;
  bool operator!=(const property& other) const { return !(*this == other); }

 protected:
  explicit property(property_kind kind) noexcept : kind_(kind) {}
  property(const property& other) noexcept = default;

 private:
  const property_kind kind_;  // in the counter's padding: no memory of its own
};

// Name of a kind: "int", "bool", "string", "list", "properties".
ZELCORE_EXPORT const char* property_kind_c_str(property::property_kind kind);

// The scalar kinds hold one value: equal when kind and value are equal, ordered by kind first.
template <class Derived, class T, property::property_kind Kind>
class ZELCORE_EXPORT property_scalar : public property {
 public:
  const T& value() const noexcept { return value_; }

  void encode(zelbase::encoder_network& encoder) const override;
  zelbase::ptr_refcount<property> clone() const override;
  std::string to_string() const override;
  std::string describe() const override;
  bool operator==(const property& other) const override;
  bool operator<(const property& other) const override;

 protected:
  template <class... Args>
  explicit property_scalar(Args&&... args) : property(Kind), value_(std::forward<Args>(args)...) {}

 private:
  T value_;
};

class ZELCORE_EXPORT property_int final
    : public property_scalar<property_int, std::int64_t, property::kind_int> {
 public:
  explicit property_int(std::int64_t value) noexcept : property_scalar(value) {}
};

class ZELCORE_EXPORT property_bool final
    : public property_scalar<property_bool, bool, property::kind_bool> {
 public:
  explicit property_bool(bool value) noexcept : property_scalar(value) {}
};

class ZELCORE_EXPORT property_string final
    : public property_scalar<property_string, std::string, property::kind_string> {
 public:
  explicit property_string(const std::string& value) : property_scalar(value) {}
  explicit property_string(std::string&& value) noexcept : property_scalar(std::move(value)) {}
  explicit property_string(const char* value) : property_scalar(value) {}
  property_string(const char* data, std::size_t size) : property_scalar(data, size) {}
};

// An ordered list of shared, constant elements. The elements are a std::list, as every user of
// the tree expects of get_list_value; lists are rare in records, so the node per element costs
// little (docs/property-tree.md has the figures).
class ZELCORE_EXPORT property_list final : public property {
 public:
  using list_type = std::list<property_ptr>;

  property_list() noexcept : property(kind_list) {}
  explicit property_list(list_type values) noexcept
      : property(kind_list), values_(std::move(values)) {}
  // A list with the same elements as `other` (shared); a null pointer gives an empty list.
  explicit property_list(const zelbase::ptr_refcount<const property_list>& other);

  const list_type& value() const noexcept { return values_; }
  void push_back(property_ptr value) { values_.push_back(std::move(value)); }

  void encode(zelbase::encoder_network& encoder) const override;
  zelbase::ptr_refcount<property> clone() const override;
  std::string to_string() const override;
  std::string describe() const override;
  bool operator==(const property& other) const override;
  bool operator<(const property& other) const override;

 private:
  list_type values_;
};

namespace detail {
struct properties_body;
struct properties_builder;

// A key of the process-wide key table: every tree that holds the same key holds this one node,
// counted, instead of a copy of its bytes. The table drops a key with its last holder. The keys
// of a large map in a large input (the ids of a snapshot's records) are nodes of their own, out
// of the table: they are met once each, and the table's lookups were most of such a decode.
// Equal keys may therefore be two nodes; compare their text when the nodes differ.
struct key_node {
  std::atomic<std::uint32_t> count;
  bool in_table;
  std::string text;
};
// Called with the last count of a node gone: takes it out of the table, if it is there, and
// frees it.
ZELCORE_EXPORT void key_table_drop(const key_node* node) noexcept;
// Called when a node reaches key_popular holders: makes a node of the table permanent (no
// longer counted, never freed) while the process's budget of permanent keys lasts. Field names are
// held by every record and become permanent; ids used as keys have a holder or two and stay
// counted.
ZELCORE_EXPORT void key_make_permanent(const key_node* node) noexcept;
constexpr std::uint32_t key_popular = 64;
// A permanent node's count; counts from half of it up are permanent, so that the few counts
// that race with the change cannot bring it below.
constexpr std::uint32_t key_permanent = std::uint32_t{1} << 31;

// The storage of a tree's entries: from the arena of the decode running on this thread, if one
// is, otherwise a block of its own (library-internal; either is freed by slots_free).
ZELCORE_NO_EXPORT void* slots_allocate(std::size_t bytes);
ZELCORE_NO_EXPORT void slots_free(void* p, std::size_t bytes) noexcept;
template <class T>
struct slots_allocator {
  using value_type = T;
  using is_always_equal = std::true_type;
  slots_allocator() = default;
  template <class U>
  slots_allocator(const slots_allocator<U>&) noexcept {}
  T* allocate(std::size_t n) { return static_cast<T*>(slots_allocate(n * sizeof(T))); }
  void deallocate(T* p, std::size_t n) noexcept { slots_free(p, n * sizeof(T)); }
  friend bool operator==(slots_allocator, slots_allocator) noexcept { return true; }
  friend bool operator!=(slots_allocator, slots_allocator) noexcept { return false; }
};

// A counted reference to a key node.
class key_ref {
 public:
  key_ref() = default;
  // Takes over a count that the caller already holds.
  static key_ref adopt(const key_node* node) noexcept {
    key_ref k;
    k.node_ = node;
    return k;
  }
  key_ref(const key_ref& other) noexcept : node_(other.node_) {
    if (!node_) return;
    std::atomic<std::uint32_t>& count = const_cast<key_node*>(node_)->count;
    if (count.load(std::memory_order_relaxed) >= key_permanent / 2) return;
    if (count.fetch_add(1, std::memory_order_relaxed) + 1 == key_popular) key_make_permanent(node_);
  }
  key_ref(key_ref&& other) noexcept : node_(other.node_) { other.node_ = nullptr; }
  key_ref& operator=(key_ref other) noexcept {
    std::swap(node_, other.node_);
    return *this;
  }
  ~key_ref() {
    if (!node_) return;
    std::atomic<std::uint32_t>& count = const_cast<key_node*>(node_)->count;
    if (count.load(std::memory_order_acquire) >= key_permanent / 2) return;
    if (count.fetch_sub(1, std::memory_order_acq_rel) == 1) key_table_drop(node_);
  }
  const std::string& text() const noexcept { return node_->text; }
  const key_node* node() const noexcept { return node_; }

 private:
  const key_node* node_ = nullptr;
};

// The stored form of a child: the key's first eight bytes as a number (see
// property_entry::order_of), the shared key and the child; 24 bytes.
struct slot {
  std::uint64_t order;
  key_ref key;
  property_ptr second;

  const std::string& first() const noexcept { return key.text(); }
};
}  // namespace detail

// What iteration over a `properties` yields: the key (`first`) and the child (`second`), as in a
// map's pair, both valid while the tree is unchanged; structured bindings give the two.
struct property_item {
  const std::string& first;
  const property_ptr& second;
};

// Iterates the children of a tree in ascending key order (random access).
class properties_const_iterator {
 public:
  using iterator_category = std::random_access_iterator_tag;
  using value_type = property_item;
  using reference = property_item;
  using difference_type = std::ptrdiff_t;
  struct pointer {
    property_item item;
    const property_item* operator->() const noexcept { return &item; }
  };

  properties_const_iterator() = default;
  explicit properties_const_iterator(const detail::slot* at) noexcept : at_(at) {}

  reference operator*() const noexcept { return {at_->first(), at_->second}; }
  pointer operator->() const noexcept { return {**this}; }
  reference operator[](difference_type n) const noexcept { return *(*this + n); }
  properties_const_iterator& operator++() noexcept { return ++at_, *this; }
  properties_const_iterator operator++(int) noexcept { return properties_const_iterator(at_++); }
  properties_const_iterator& operator--() noexcept { return --at_, *this; }
  properties_const_iterator operator--(int) noexcept { return properties_const_iterator(at_--); }
  properties_const_iterator& operator+=(difference_type n) noexcept { return at_ += n, *this; }
  properties_const_iterator& operator-=(difference_type n) noexcept { return at_ -= n, *this; }
  friend properties_const_iterator operator+(properties_const_iterator it, difference_type n) {
    return it += n;
  }
  friend properties_const_iterator operator-(properties_const_iterator it, difference_type n) {
    return it -= n;
  }
  friend difference_type operator-(properties_const_iterator a, properties_const_iterator b) {
    return a.at_ - b.at_;
  }
  friend bool operator==(properties_const_iterator a, properties_const_iterator b) {
    return a.at_ == b.at_;
  }
  friend bool operator!=(properties_const_iterator a, properties_const_iterator b) {
    return a.at_ != b.at_;
  }
  friend bool operator<(properties_const_iterator a, properties_const_iterator b) {
    return a.at_ < b.at_;
  }

 private:
  const detail::slot* at_ = nullptr;
};

// One child given to a `properties` constructor: the key (`first`) and the child (`second`), as
// in a map's pair; structured bindings give the two. The key is fixed at construction.
class ZELCORE_EXPORT property_entry {
 public:
  property_entry() = default;
  property_entry(std::string key, property_ptr value)
      : first(std::move(key)), second(std::move(value)), order_(order_of(first)) {}
  property_entry(const char* key, std::size_t size)
      : first(key, size), order_(order_of(key, size)) {}

  template <std::size_t I>
  decltype(auto) get() const {
    if constexpr (I == 0)
      return (first);
    else
      return (second);
  }

  // The first eight bytes of a key as a big-endian number, zero-padded: keys compare by it
  // first, which decides most comparisons without looking at the bytes.
  static std::uint64_t order_of(const std::string& key) noexcept {
    return order_of(key.data(), key.size());
  }
  // Whole loads only (a short key's bytes assembled from overlapping ones): a load that spans
  // several smaller stores of the key just written would wait for them.
  static std::uint64_t order_of(const char* key, std::size_t size) noexcept {
    if (size >= 8) return big_endian<std::uint64_t>(key);
    if (size >= 4)
      return std::uint64_t{big_endian<std::uint32_t>(key)} << 32 |
             std::uint64_t{big_endian<std::uint32_t>(key + size - 4)} << (64 - 8 * size);
    if (size == 0) return 0;
    const auto byte = [key](std::size_t i) {
      return std::uint64_t{static_cast<unsigned char>(key[i])} << (56 - 8 * i);
    };
    return byte(0) | byte(size / 2) | byte(size - 1);
  }
  std::uint64_t order() const noexcept { return order_; }

  std::string first;
  property_ptr second;

 private:
  template <class T>
  static T big_endian(const char* bytes) noexcept {
    T value;
    std::memcpy(&value, bytes, sizeof value);
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    if constexpr (sizeof value == 8)
      value = __builtin_bswap64(value);
    else
      value = __builtin_bswap32(value);
#endif
    return value;
  }

  std::uint64_t order_ = 0;
};

class ZELCORE_EXPORT properties final : public property {
 public:
  // The children given to a constructor.
  using entry = property_entry;
  using container = std::vector<entry>;
  // Iteration is in ascending key order and never detaches a shared tree; it yields
  // property_item (key and child by reference, as a map's pair would). Values are changed
  // through operator[] or the setters.
  using const_iterator = properties_const_iterator;
  using iterator = const_iterator;

  // The flag is accepted for compatibility and has no effect.
  explicit properties(bool unused = false) noexcept;
  properties(const properties& other) noexcept;
  properties(properties&& other) noexcept;
  // One string child per pair.
  explicit properties(const std::map<std::string, std::string>& strings);
  properties(std::initializer_list<entry> children);
  // A tree of the given children in any order; of equal keys the last one is kept. This is the
  // way to build a large tree whose keys do not come in ascending order: one sort instead of an
  // insertion in the middle per key.
  explicit properties(container children);
  ~properties() override;
  properties& operator=(const properties& other) noexcept;
  properties& operator=(properties&& other) noexcept;

  void encode(zelbase::encoder_network& encoder) const override;
  zelbase::ptr_refcount<property> clone() const override;
  std::string to_string() const override;
  std::string describe() const override;
  bool operator==(const property& other) const override;
  bool operator<(const property& other) const override;
  using property::operator!=;

  // The slot of `key`, created empty (null) when new; a null slot counts as absent. The
  // reference is valid until the next change or copy of this tree (a copy would see writes
  // made through it). A new key after the last one is appended in constant time; a new key
  // before it moves the keys after it.
  property_ptr& operator[](const std::string& key);

  const_iterator begin() const noexcept;
  const_iterator end() const noexcept;
  const_iterator find(const std::string& key) const noexcept;
  // Number of slots, null slots included.
  std::size_t size() const noexcept;
  bool empty() const noexcept { return size() == 0; }
  // Whether this tree and `other` hold the very same content, shared by a copy (constant time,
  // reading neither): content that two trees share is never changed, so they are then equal.
  // False when this tree never held an entry.
  bool shares_content_with(const properties& other) const noexcept {
    return body_ && body_ == other.body_;
  }
  void clear() noexcept;
  // Removes the key; true when it was there.
  bool erase(const std::string& key);

  bool is_present(const std::string& key) const noexcept;
  // The child as stored; null when absent.
  property_ptr get_property(const std::string& key) const;
  const std::string& get_string_value(const std::string& key) const;
  // With a default: a reference to the value, or to `def` when the key is absent; raises
  // zelbase::es::arg when the value is not a string.
  const std::string& get_string_value(const std::string& key, const std::string& def) const;
  // A temporary default ("" or "n/a") gives a copy, so that binding the result to a reference
  // never outlives the temporary.
  std::string get_string_value(const std::string& key, std::string&& def) const;
  std::int64_t get_int_value(const std::string& key) const;
  std::int64_t get_int_value(const std::string& key, std::int64_t def) const;
  bool get_bool_value(const std::string& key) const;
  bool get_bool_value(const std::string& key, bool def) const;
  const properties& get_properties_value(const std::string& key) const;
  const properties& get_properties_value(const std::string& key, const properties& def) const;
  // Null when the key is absent; raises when it holds another kind.
  const properties* get_properties_value_ptr(const std::string& key) const;
  const property_list::list_type& get_list_value(const std::string& key) const;

  void set_int_value(const std::string& key, std::int64_t value);
  void set_bool_value(const std::string& key, bool value);
  void set_string_value(const std::string& key, const std::string& value);
  void set_properties_value(const std::string& key, const properties& value);

  // Appends one reference per leaf, in key order, depth first.
  void get_leaf_references(std::list<std::string>& references) const;
  // The property at `ref`; null when nothing is there ("" names the tree itself and gives null).
  // Raises es::arg for a malformed reference.
  property_ptr get_referenced_property(const std::string& ref) const;
  // Stores `value` at `ref`, replacing what was there; a null `value` removes the key (parents
  // stay, even when left empty). A missing parent raises es::arg, except when removing, which
  // then changes nothing.
  void set_referenced_property(const std::string& ref, const property_ptr& value);
  // As set_referenced_property, creating missing parents; a parent that is not a `properties`
  // is replaced by a new one.
  void set_create_referenced_property(const std::string& ref, const property_ptr& value);
  // Leaf-wise merge: every leaf of `update` is stored at its reference in this tree, as
  // set_create_referenced_property would, leaves the update does not name keep their values.
  void merge_leaves(const properties& update);

 private:
  friend struct detail::properties_builder;
  using slots = std::vector<detail::slot, detail::slots_allocator<detail::slot>>;
  const slots& entries() const noexcept;
  slots& mutable_entries();
  slots::iterator slot(const std::string& key);
  void set_at_reference(const std::string& ref, const property_ptr& value, bool create);

  zelbase::ptr_refcount<detail::properties_body> body_;
};

// Shared constant children for common values (no allocation for bools, integers from -128 to
// 1023 and strings of at most two bytes).
ZELCORE_EXPORT property_ptr make_int(std::int64_t value);
ZELCORE_EXPORT property_ptr make_bool(bool value);
ZELCORE_EXPORT property_ptr make_string(std::string value);
// A list of strings, in the order given.
ZELCORE_EXPORT property_ptr make_string_list(const std::vector<std::string>& values);

// Escapes a key for use in a property reference ("~" -> "~0", "/" -> "~1").
ZELCORE_EXPORT std::string property_reference_escape(const std::string& key);
// Splits a reference into its unescaped keys; raises es::arg when malformed.
ZELCORE_EXPORT std::vector<std::string> property_reference_split(const std::string& ref);

// The network encoding of a property, as bytes.
ZELCORE_EXPORT std::string encode_property(const property& value);

// Decoding limits: nesting deeper than this is refused.
constexpr std::size_t default_decode_max_depth = 256;

// Builds a property from the network encoding. The whole input must be one value. Raises
// es::arg with the reason for truncated, malformed or unsupported input (floats, binary, ext,
// nil outside a map, non-string keys, nesting deeper than max_depth, which is at most 1024),
// and for input whose tree would take more than `memory_per_byte` bytes of memory per input
// byte (0: no cap), counted as it is built; the part built is freed before the error leaves.
// A nil map value means the key is absent; duplicate keys keep the last value.
ZELCORE_EXPORT property_ptr decode_property(const char* data, std::size_t size,
                                            std::size_t max_depth = default_decode_max_depth,
                                            std::size_t memory_per_byte = 0);
// As decode_property, for input whose top value must be a map.
ZELCORE_EXPORT properties decode_properties(const char* data, std::size_t size,
                                            std::size_t max_depth = default_decode_max_depth,
                                            std::size_t memory_per_byte = 0);

}  // namespace zelcore

template <>
struct std::tuple_size<zelcore::property_entry> : std::integral_constant<std::size_t, 2> {};
template <>
struct std::tuple_element<0, zelcore::property_entry> {
  using type = std::string;
};
template <>
struct std::tuple_element<1, zelcore::property_entry> {
  using type = zelcore::property_ptr;
};
