// The network encoding of property trees: round trips, and clear errors for bad bytes.
#include <gtest/gtest.h>

#include <limits>
#include <random>

#include "zelbase/exceptions.h"
#include "zelcore/properties.h"

using zelcore::decode_properties;
using zelcore::decode_property;
using zelcore::encode_property;
using zelcore::make_bool;
using zelcore::make_int;
using zelcore::make_string;
using zelcore::properties;
using zelcore::property_list;
using zelcore::property_ptr;

namespace {

std::string decode_error(const std::string& bytes) {
  try {
    decode_property(bytes.data(), bytes.size());
  } catch (const zelbase::es::arg& e) {
    return e.what();
  }
  return "no error";
}

std::string bytes(std::initializer_list<int> values) {
  std::string out;
  for (int v : values) out.push_back(static_cast<char>(v));
  return out;
}

property_ptr round_trip(const zelcore::property& p) {
  const std::string encoded = encode_property(p);
  return decode_property(encoded.data(), encoded.size());
}

properties every_kind() {
  properties p(false);
  for (std::int64_t v :
       std::initializer_list<std::int64_t>{0LL, 1LL, -1LL, 127LL, 128LL, -32LL, -33LL, 65535LL,
                                           65536LL, INT64_MAX, INT64_MIN, 1LL << 40})
    p.set_int_value("int" + std::to_string(v), v);
  p.set_bool_value("true", true);
  p.set_bool_value("false", false);
  p.set_string_value("empty", "");
  p.set_string_value("short", "abc");
  p.set_string_value("long", std::string(70000, 'x'));
  p.set_string_value("binaryish", std::string("\0\xff\x01", 3));
  zelbase::ptr_refcount<property_list> list(new property_list);
  list->push_back(make_int(1));
  list->push_back(make_string("two"));
  list->push_back(property_ptr(new properties{{"k", make_bool(true)}}));
  list->push_back(property_ptr(new property_list));
  p["list"] = list;
  p.set_properties_value("empty-tree", properties(false));
  p.set_properties_value("nested",
                         properties{{"a", property_ptr(new properties{{"b", make_int(2)}})}});
  return p;
}

}  // namespace

TEST(PropertyCodec, RoundTripOfEveryKind) {
  const properties p = every_kind();
  const property_ptr back = round_trip(p);
  EXPECT_TRUE(*back == p) << back->describe();
}

TEST(PropertyCodec, ScalarsEncodeInTheirSmallestForm) {
  EXPECT_EQ(encode_property(*make_int(5)), bytes({0x05}));
  EXPECT_EQ(encode_property(*make_int(-1)), bytes({0xff}));
  EXPECT_EQ(encode_property(*make_int(200)), bytes({0xcc, 0xc8}));
  EXPECT_EQ(encode_property(*make_int(-200)), bytes({0xd1, 0xff, 0x38}));
  EXPECT_EQ(encode_property(*make_bool(true)), bytes({0xc3}));
  EXPECT_EQ(encode_property(*make_string("ab")), bytes({0xa2, 'a', 'b'}));
  EXPECT_EQ(encode_property(properties{{"a", make_int(1)}}), bytes({0x81, 0xa1, 'a', 0x01}));
}

TEST(PropertyCodec, MapKeysAreWrittenInTreeOrder) {
  const properties p{{"b", make_int(2)}, {"a", make_int(1)}};
  EXPECT_EQ(encode_property(p), bytes({0x82, 0xa1, 'a', 0x01, 0xa1, 'b', 0x02}));
}

TEST(PropertyCodec, UnsortedAndDuplicateKeysFromAPeerAreNormalised) {
  const std::string in = bytes({0x83, 0xa1, 'b', 0x02, 0xa1, 'a', 0x01, 0xa1, 'b', 0x03});
  const properties p = decode_properties(in.data(), in.size());
  EXPECT_EQ(p.size(), 2u);
  EXPECT_EQ(p.begin()->first, "a");
  EXPECT_EQ(p.get_int_value("b"), 3);
}

TEST(PropertyCodec, NilMapValueIsAnAbsentKey) {
  const std::string in = bytes({0x82, 0xa1, 'a', 0xc0, 0xa1, 'b', 0x01});
  const properties p = decode_properties(in.data(), in.size());
  EXPECT_FALSE(p.is_present("a"));
  EXPECT_EQ(p.size(), 1u);
  properties with_null_slot(false);
  with_null_slot["ghost"];
  with_null_slot.set_int_value("b", 1);
  EXPECT_TRUE(*round_trip(with_null_slot) == p);
}

TEST(PropertyCodec, ALaterNilMakesAnEarlierValueOfTheKeyAbsent) {
  // The last of equal keys wins, and a nil value means the key is absent.
  const std::string nil_last = bytes({0x83, 0xa1, 'a', 0x01, 0xa1, 'b', 0x02, 0xa1, 'a', 0xc0});
  EXPECT_EQ(decode_properties(nil_last.data(), nil_last.size()).describe(), "{\"b\":2}");
  const std::string nil_first = bytes({0x82, 0xa1, 'a', 0xc0, 0xa1, 'a', 0x01});
  EXPECT_EQ(decode_properties(nil_first.data(), nil_first.size()).describe(), "{\"a\":1}");
  const std::string only_nil = bytes({0x81, 0xa1, 'a', 0xc0});
  EXPECT_EQ(decode_properties(only_nil.data(), only_nil.size()).size(), 0u);
}

TEST(PropertyCodec, LargeUnsignedComesBackAsTheSignedValueOfTheSameBits) {
  const std::string in = bytes({0xcf, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xfe});
  const property_ptr p = decode_property(in.data(), in.size());
  EXPECT_EQ(static_cast<const zelcore::property_int&>(*p).value(), -2);
}

TEST(PropertyCodec, DeepTreeUpToTheLimitRoundTrips) {
  properties leaf{{"x", make_int(1)}};
  for (int depth = 1; depth < 255; ++depth)
    leaf = properties{{"d", property_ptr(new properties(leaf))}};
  EXPECT_TRUE(*round_trip(leaf) == leaf);
}

TEST(PropertyCodec, NestingDeeperThanTheLimitIsRefused) {
  std::string in(300, static_cast<char>(0x91));  // 300 nested one-element arrays
  in.push_back(0x01);
  EXPECT_EQ(decode_error(in), "cannot decode property: nesting deeper than 256 levels");
  properties small_limit{{"a", property_ptr(new properties{{"b", make_int(1)}})}};
  const std::string encoded = encode_property(small_limit);
  EXPECT_THROW(decode_property(encoded.data(), encoded.size(), 1), zelbase::es::arg);
  EXPECT_NO_THROW(decode_property(encoded.data(), encoded.size(), 2));
}

TEST(PropertyCodec, NoCallerCanAllowNestingThatWouldExhaustTheStack) {
  std::string in(100000, static_cast<char>(0x91));
  in.push_back(0x01);
  try {
    decode_property(in.data(), in.size(), std::numeric_limits<std::size_t>::max());
    FAIL() << "a 100,000-level input was accepted";
  } catch (const zelbase::es::arg& e) {
    EXPECT_EQ(e.message(), "cannot decode property: nesting deeper than 1024 levels");
  }
  std::string deepest(1023, static_cast<char>(0x91));
  deepest.push_back(0x01);
  EXPECT_NO_THROW(decode_property(deepest.data(), deepest.size(), 5000));
}

TEST(PropertyCodec, LargeTreeRoundTrips) {
  properties::container records;
  for (int i = 0; i < 20000; ++i) {
    properties record(false);
    record.set_int_value("n", i);
    record.set_string_value("name", "job-" + std::to_string(i));
    records.emplace_back("id" + std::to_string(i), zelcore::property_ptr(new properties(record)));
  }
  const properties big(std::move(records));
  ASSERT_EQ(big.size(), 20000u);
  EXPECT_TRUE(*round_trip(big) == big);
}

TEST(PropertyCodec, TruncatedInputIsRefusedAtEveryLength) {
  const std::string full = encode_property(every_kind());
  for (std::size_t n = 0; n < full.size(); n += (n < 200 ? 1 : 997)) {
    const std::string cut = full.substr(0, n);
    EXPECT_THROW(decode_property(cut.data(), cut.size()), zelbase::es::arg) << n;
  }
  EXPECT_EQ(decode_error(""), "cannot decode property: input is empty");
  EXPECT_EQ(decode_error(bytes({0x82, 0xa1, 'a'})),
            "cannot decode property: input truncated at byte 3");
}

TEST(PropertyCodec, ForgedLengthsAreRefusedWithoutAllocatingThem) {
  // A str32 and a map32 claiming 4 GiB in a few bytes.
  EXPECT_THROW(decode_property(bytes({0xdb, 0xff, 0xff, 0xff, 0xff, 'a'}).data(), 6),
               zelbase::es::arg);
  const std::string map32 = bytes({0xdf, 0xff, 0xff, 0xff, 0xff, 0xa1, 'a', 0x01});
  EXPECT_THROW(decode_property(map32.data(), map32.size()), zelbase::es::arg);
  const std::string array32 = bytes({0xdd, 0xff, 0xff, 0xff, 0xff, 0x01});
  EXPECT_THROW(decode_property(array32.data(), array32.size()), zelbase::es::arg);
}

TEST(PropertyCodec, UnsupportedTypesAreRefusedByName) {
  EXPECT_EQ(decode_error(bytes({0xca, 0, 0, 0, 0})),
            "cannot decode property: floating-point values are not supported");
  EXPECT_EQ(decode_error(bytes({0xcb, 0, 0, 0, 0, 0, 0, 0, 0})),
            "cannot decode property: floating-point values are not supported");
  EXPECT_EQ(decode_error(bytes({0xc4, 0x01, 0x00})),
            "cannot decode property: binary values are not supported");
  EXPECT_EQ(decode_error(bytes({0xd4, 0x01, 0x00})),
            "cannot decode property: extension values are not supported");
  EXPECT_EQ(decode_error(bytes({0xc0})), "cannot decode property: nil is not a property");
  EXPECT_EQ(decode_error(bytes({0x91, 0xc0})),
            "cannot decode property: nil is not allowed in a list");
  EXPECT_EQ(decode_error(bytes({0x81, 0x01, 0x01})),
            "cannot decode property: a map key is not a string");
  EXPECT_EQ(decode_error(bytes({0x81, 0x80, 0x01})),
            "cannot decode property: a map key is not a string");
  EXPECT_EQ(decode_error(bytes({0xc1})), "cannot decode property: malformed input at byte 0");
}

TEST(PropertyCodec, TrailingBytesAreRefused) {
  EXPECT_EQ(decode_error(bytes({0x01, 0x02, 0x03})),
            "cannot decode property: 2 bytes after the value");
}

TEST(PropertyCodec, DecodePropertiesWantsAMapOnTop) {
  const std::string in = bytes({0x92, 0x01, 0x02});
  try {
    decode_properties(in.data(), in.size());
    FAIL() << "no error";
  } catch (const zelbase::es::arg& e) {
    EXPECT_STREQ(e.what(), "cannot decode property: the value is a list, not a properties");
  }
}

TEST(PropertyCodec, RandomBytesGiveATreeOrAClearError) {
  std::mt19937 random(12345);
  const std::string valid = encode_property(every_kind()).substr(0, 4000);
  int decoded = 0, refused = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string in;
    if (round % 2 == 0) {
      in.resize(random() % 64);
      for (char& c : in) c = static_cast<char>(random());
    } else {  // a valid encoding with a few bytes flipped
      in = valid;
      for (int flips = 0; flips < 3; ++flips)
        in[random() % in.size()] = static_cast<char>(random());
    }
    try {
      const property_ptr p = decode_property(in.data(), in.size());
      ASSERT_TRUE(p);
      const std::string again = encode_property(*p);
      EXPECT_TRUE(*decode_property(again.data(), again.size()) == *p);
      ++decoded;
    } catch (const zelbase::es::arg& e) {
      EXPECT_EQ(std::string(e.what()).rfind("cannot decode property: ", 0), 0u) << e.what();
      ++refused;
    }
  }
  EXPECT_GT(decoded, 0);
  EXPECT_GT(refused, 0);
}
