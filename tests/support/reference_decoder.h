// A second decoder of the network encoding, on msgpack-cxx's general parser and the public tree
// API only: slow and simple, with the same rules and the same error texts as the library's own
// reader, against which tests and the fuzzer compare it on valid, damaged and random bytes.
#pragma once

#include <cstddef>
#include <msgpack.hpp>
#include <string>
#include <vector>

#include "zelbase/strings.h"
#include "zelcore/properties.h"

namespace zeltest {

// The decoded value, or the reason the input was refused (as the library words it).
struct reference_result {
  zelcore::property_ptr value;
  std::string error;
};

class reference_decoder : public msgpack::null_visitor {
 public:
  static reference_result decode(const char* data, std::size_t size,
                                 std::size_t max_depth = zelcore::default_decode_max_depth) {
    reference_decoder d(max_depth);
    reference_result out;
    if (size == 0) {
      out.error = "cannot decode property: input is empty";
      return out;
    }
    std::size_t offset = 0;
    if (!msgpack::parse(data, size, offset, d)) {
      out.error = d.error_.empty() ? "malformed input" : d.error_;
    } else if (!d.root_) {
      out.error = "nil is not a property";
    } else if (offset != size) {
      out.error = zelbase::string_with_format("%zu bytes after the value", size - offset);
    } else {
      out.value = d.root_;
    }
    if (!out.error.empty()) out.error = "cannot decode property: " + out.error;
    return out;
  }

  bool visit_nil() { return attach(zelcore::property_ptr()); }
  bool visit_boolean(bool v) { return attach(zelcore::make_bool(v)); }
  bool visit_positive_integer(std::uint64_t v) {
    return attach(zelcore::make_int(static_cast<std::int64_t>(v)));
  }
  bool visit_negative_integer(std::int64_t v) { return attach(zelcore::make_int(v)); }
  bool visit_float32(float) { return fail("floating-point values are not supported"); }
  bool visit_float64(double) { return fail("floating-point values are not supported"); }
  bool visit_bin(const char*, std::uint32_t) { return fail("binary values are not supported"); }
  bool visit_ext(const char*, std::uint32_t) { return fail("extension values are not supported"); }
  bool visit_str(const char* v, std::uint32_t size) {
    if (!open_.empty() && open_.back().in_key) {
      open_.back().key.assign(v, size);
      open_.back().has_key = true;
      return true;
    }
    return attach(zelcore::make_string(std::string(v, size)));
  }

  bool start_array(std::uint32_t) {
    return open(zelcore::property_ptr(new zelcore::property_list));
  }
  bool end_array() { return close(); }
  bool start_map(std::uint32_t) { return open(zelcore::property_ptr(new zelcore::properties)); }
  bool start_map_key() {
    open_.back().in_key = true;
    open_.back().has_key = false;
    return true;
  }
  bool end_map_key() {
    open_.back().in_key = false;
    return open_.back().has_key || fail("a map key is not a string");
  }
  bool end_map() { return close(); }

  void parse_error(std::size_t, std::size_t at) {
    fail(zelbase::string_with_format("malformed input at byte %zu", at));
  }
  void insufficient_bytes(std::size_t, std::size_t at) {
    fail(zelbase::string_with_format("input truncated at byte %zu", at));
  }

 private:
  struct container {
    zelcore::property_ptr value;  // the list or tree being filled (not shared yet)
    bool in_key = false;
    bool has_key = false;
    std::string key;
  };

  explicit reference_decoder(std::size_t max_depth) : max_depth_(max_depth) {}

  bool fail(const std::string& reason) {
    if (error_.empty()) error_ = reason;
    return false;
  }

  bool open(zelcore::property_ptr value) {
    if (!open_.empty() && open_.back().in_key) return fail("a map key is not a string");
    if (open_.size() >= max_depth_)
      return fail(zelbase::string_with_format("nesting deeper than %zu levels", max_depth_));
    open_.push_back(container{std::move(value), false, false, {}});
    return true;
  }
  bool close() {
    zelcore::property_ptr done = std::move(open_.back().value);
    open_.pop_back();
    return attach(std::move(done));
  }

  bool attach(zelcore::property_ptr value) {
    if (open_.empty()) {
      root_ = std::move(value);
      return true;  // a nil on top is refused once the parse is over
    }
    container& top = open_.back();
    if (top.in_key) return fail("a map key is not a string");
    if (top.value->kind() == zelcore::property::kind_list) {
      if (!value) return fail("nil is not allowed in a list");
      const_cast<zelcore::property_list&>(static_cast<const zelcore::property_list&>(*top.value))
          .push_back(std::move(value));
      return true;
    }
    auto& tree =
        const_cast<zelcore::properties&>(static_cast<const zelcore::properties&>(*top.value));
    if (value)
      tree[top.key] = std::move(value);
    else
      tree.erase(top.key);  // nil: the key is absent, whatever came before it
    return true;
  }

  std::size_t max_depth_;
  std::vector<container> open_;
  zelcore::property_ptr root_;
  std::string error_;
};

}  // namespace zeltest
