// The encoder against msgpack-cxx's packer: every kind, every header width and every integer
// width must come out byte for byte as the packer writes them.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <msgpack.hpp>
#include <random>
#include <string>

#include "zelcore/properties.h"

using zelcore::make_bool;
using zelcore::make_int;
using zelcore::make_string;
using zelcore::properties;
using zelcore::property;
using zelcore::property_list;
using zelcore::property_ptr;

namespace {

using packer = msgpack::packer<msgpack::sbuffer>;

void pack_reference(packer& pk, const property_ptr& value) {
  if (!value) {
    pk.pack_nil();
    return;
  }
  switch (value->kind()) {
    case property::kind_int:
      pk.pack_int64(static_cast<const zelcore::property_int&>(*value).value());
      return;
    case property::kind_bool:
      pk.pack(static_cast<const zelcore::property_bool&>(*value).value());
      return;
    case property::kind_string: {
      const std::string& s = static_cast<const zelcore::property_string&>(*value).value();
      pk.pack_str(static_cast<std::uint32_t>(s.size()));
      pk.pack_str_body(s.data(), static_cast<std::uint32_t>(s.size()));
      return;
    }
    case property::kind_list: {
      const auto& list = static_cast<const property_list&>(*value).value();
      pk.pack_array(static_cast<std::uint32_t>(list.size()));
      for (const property_ptr& element : list) pack_reference(pk, element);
      return;
    }
    case property::kind_properties: {
      const auto& tree = static_cast<const properties&>(*value);
      pk.pack_map(static_cast<std::uint32_t>(tree.size()));
      for (const auto& [key, child] : tree) {
        pk.pack_str(static_cast<std::uint32_t>(key.size()));
        pk.pack_str_body(key.data(), static_cast<std::uint32_t>(key.size()));
        pack_reference(pk, child);
      }
      return;
    }
  }
}

std::string reference_bytes(const property_ptr& value) {
  msgpack::sbuffer out;
  packer pk(out);
  pack_reference(pk, value);
  return std::string(out.data(), out.size());
}

void expect_same_bytes(const property_ptr& value) {
  EXPECT_EQ(zelcore::encode_property(*value), reference_bytes(value)) << value->describe();
}

// Integers at and around every width boundary of the encoding.
std::vector<std::int64_t> boundary_ints() {
  std::vector<std::int64_t> out;
  const std::int64_t edges[] = {0,
                                31,
                                32,
                                127,
                                128,
                                255,
                                256,
                                65535,
                                65536,
                                4294967295LL,
                                -1,
                                -32,
                                -33,
                                -128,
                                -129,
                                -32768,
                                -32769,
                                INT32_MIN,
                                -2147483649LL,
                                std::numeric_limits<std::int64_t>::min(),
                                std::numeric_limits<std::int64_t>::max()};
  for (const std::int64_t e : edges) {
    out.push_back(e);
    if (e != std::numeric_limits<std::int64_t>::max()) out.push_back(e + 1);
    if (e != std::numeric_limits<std::int64_t>::min()) out.push_back(e - 1);
  }
  return out;
}

}  // namespace

TEST(PropertyEncodeReference, IntegersOfEveryWidth) {
  for (const std::int64_t v : boundary_ints()) expect_same_bytes(make_int(v));
}

TEST(PropertyEncodeReference, StringsAndKeysOfEveryHeaderWidth) {
  for (const std::size_t size : {0, 1, 3, 4, 7, 8, 15, 16, 17, 31, 32, 255, 256, 65535, 65536}) {
    const std::string text(size, 'k');
    expect_same_bytes(make_string(text));
    expect_same_bytes(property_ptr(new properties{{text, make_string(text)}}));
  }
}

TEST(PropertyEncodeReference, ListsAndTreesOfEveryHeaderWidth) {
  for (const std::size_t count : {0, 1, 15, 16, 65535, 65536}) {
    zelbase::ptr_refcount<property_list> list(new property_list);
    properties::container entries;
    for (std::size_t i = 0; i < count; ++i) {
      list->push_back(make_int(static_cast<std::int64_t>(i)));
      entries.emplace_back("k" + std::to_string(i), make_int(static_cast<std::int64_t>(i)));
    }
    expect_same_bytes(list);
    expect_same_bytes(property_ptr(new properties(std::move(entries))));
  }
}

TEST(PropertyEncodeReference, NullSlotsAndNullListElementsTravelAsNil) {
  properties tree(false);
  tree["absent"];
  tree["present"] = make_bool(true);
  zelbase::ptr_refcount<property_list> list(new property_list);
  list->push_back(property_ptr());
  tree["list"] = list;
  expect_same_bytes(property_ptr(new properties(tree)));
}

TEST(PropertyEncodeReference, RandomTreesComeOutByteForByte) {
  std::mt19937 random(5);
  const std::vector<std::int64_t> ints = boundary_ints();
  const auto below = [&random](std::size_t n) {
    return std::uniform_int_distribution<std::size_t>(0, n - 1)(random);
  };
  std::function<property_ptr(int)> value = [&](int depth) -> property_ptr {
    switch (below(depth > 0 ? 6 : 3)) {
      case 0: return make_int(ints[below(ints.size())]);
      case 1: return make_bool(below(2) == 1);
      case 2: return make_string(std::string(below(3) == 0 ? below(300) : below(20), 'v'));
      case 3: {
        zelbase::ptr_refcount<property_list> list(new property_list);
        for (std::size_t n = below(20); n > 0; --n) list->push_back(value(depth - 1));
        return list;
      }
      default: {
        properties tree(false);
        for (std::size_t n = below(20); n > 0; --n)
          tree[std::string(below(40), static_cast<char>('a' + below(26)))] = value(depth - 1);
        return property_ptr(new properties(tree));
      }
    }
  };
  for (int i = 0; i < 600; ++i) expect_same_bytes(value(4));
}
