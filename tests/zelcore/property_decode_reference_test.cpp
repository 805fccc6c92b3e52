// The decoder against a second one built on msgpack-cxx's general parser: on random MessagePack
// of every type and width (canonical or not, keys out of order and repeated, nil values), on the
// same bytes damaged (flipped, cut, spliced) and on random bytes, both must give equal trees or
// refuse with the same text.
#include <gtest/gtest.h>

#include <msgpack.hpp>
#include <random>
#include <string>

#include "support/reference_decoder.h"
#include "zelbase/exceptions.h"
#include "zelcore/properties.h"

namespace {

// The library's decoder, in the reference's terms.
zeltest::reference_result library_decode(const std::string& in, std::size_t max_depth) {
  zeltest::reference_result out;
  try {
    out.value = zelcore::decode_property(in.data(), in.size(), max_depth);
  } catch (const zelbase::es::arg& e) {
    out.error = e.message();
  }
  return out;
}

std::string hex(const std::string& in) {
  std::string out;
  for (const unsigned char c : in.substr(0, 64))
    out += zelbase::string_with_format("%02x ", static_cast<unsigned>(c));
  return out + (in.size() > 64 ? "..." : "");
}

// Fails the test when the two decoders disagree; true when the input was accepted.
bool same_outcome(const std::string& in, std::size_t max_depth = 256) {
  const zeltest::reference_result expected =
      zeltest::reference_decoder::decode(in.data(), in.size(), max_depth);
  const zeltest::reference_result actual = library_decode(in, max_depth);
  EXPECT_EQ(actual.error, expected.error) << hex(in);
  if (expected.value && actual.value) {
    EXPECT_TRUE(*actual.value == *expected.value) << hex(in);
    // Trees must come out sorted and unique whatever order the keys came in.
    EXPECT_EQ(zelcore::encode_property(*actual.value), zelcore::encode_property(*expected.value));
  }
  return !expected.value.is_null();
}

// Random MessagePack, mostly what a peer may send (with keys out of order, repeated and nil
// values), sometimes what it may not (floats, binary, extensions, nil in a list, non-string
// keys), in every width of every type.
class random_messagepack {
 public:
  explicit random_messagepack(unsigned seed) : random_(seed) {}

  std::string value(int depth) {
    out_.clear();
    write(pk_, depth, false);
    return std::string(out_.data(), out_.size());
  }

  std::size_t below(std::size_t n) {
    return std::uniform_int_distribution<std::size_t>(0, n - 1)(random_);
  }

 private:
  using packer = msgpack::packer<msgpack::sbuffer>;

  std::string text() {
    static const char* const samples[] = {"a",        "b",         "",          "status",
                                          "prefix12", "prefix123", "prefix12x", "id"};
    if (below(4) != 0) return samples[below(8)];
    return std::string(below(3) == 0 ? 40 + below(300) : below(12),
                       static_cast<char>('a' + below(3)));
  }

  void write_int(packer& pk) {
    switch (below(10)) {
      case 0: pk.pack_fix_int8(static_cast<std::int8_t>(below(256))); break;
      case 1: pk.pack_fix_uint8(static_cast<std::uint8_t>(below(256))); break;
      case 2: pk.pack_fix_int16(static_cast<std::int16_t>(below(65536))); break;
      case 3: pk.pack_fix_uint16(static_cast<std::uint16_t>(below(65536))); break;
      case 4: pk.pack_fix_int32(static_cast<std::int32_t>(random_())); break;
      case 5: pk.pack_fix_uint32(static_cast<std::uint32_t>(random_())); break;
      case 6: pk.pack_fix_int64(static_cast<std::int64_t>(random_() * 7919 * random_())); break;
      case 7: pk.pack_fix_uint64(static_cast<std::uint64_t>(random_()) << 33 | random_()); break;
      default: pk.pack(static_cast<int>(below(300)) - 150);
    }
  }

  void write_string(packer& pk, const std::string& s) {
    // Any width that holds the text, not only the shortest.
    const unsigned char widths[] = {0xd9, 0xda, 0xdb};
    if (s.size() < 32 && below(4) != 0) {
      pk.pack_str(static_cast<std::uint32_t>(s.size()));
    } else {
      const unsigned char w = widths[s.size() < 256 ? below(3) : 1 + below(2)];
      std::string header(1, static_cast<char>(w));
      const std::size_t n = w == 0xd9 ? 1 : w == 0xda ? 2 : 4;
      for (std::size_t i = n; i-- > 0;) header.push_back(static_cast<char>(s.size() >> (8 * i)));
      out_.write(header.data(), header.size());
    }
    pk.pack_str_body(s.data(), static_cast<std::uint32_t>(s.size()));
  }

  void write(packer& pk, int depth, bool in_list) {
    const std::size_t pick = below(depth > 0 ? 100 : 70);
    if (pick < 25) return write_int(pk);
    if (pick < 45) return write_string(pk, text());
    if (pick < 52) return (void)(below(2) ? pk.pack_true() : pk.pack_false());
    if (pick < 56) {
      if (in_list && below(4) != 0) return write_int(pk);
      return (void)pk.pack_nil();
    }
    if (pick < 58) return (void)(below(2) ? pk.pack_float(1.5f) : pk.pack_double(2.5));
    if (pick < 59) return (void)pk.pack_bin(2).pack_bin_body("xy", 2);
    if (pick < 60) return (void)pk.pack_ext(3, 7).pack_ext_body("abc", 3);
    if (pick < 70) return (void)pk.pack_ext(1, 7).pack_ext_body("a", 1);
    const std::size_t count = below(7);
    if (pick < 80) {
      pk.pack_array(static_cast<std::uint32_t>(count));
      for (std::size_t i = 0; i < count; ++i) write(pk, depth - 1, true);
      return;
    }
    pk.pack_map(static_cast<std::uint32_t>(count));
    for (std::size_t i = 0; i < count; ++i) {
      if (below(40) == 0)
        write_int(pk);  // a key that is not a string
      else
        write_string(pk, text());
      write(pk, depth - 1, false);
    }
  }

  std::mt19937 random_;
  msgpack::sbuffer out_;
  packer pk_{out_};
};

// The shape most inputs have: a map on top.
std::string random_tree(random_messagepack& gen) {
  std::string in;
  do in = gen.value(5);
  while (in.empty() || (static_cast<unsigned char>(in[0]) & 0xf0) != 0x80);
  return in;
}

}  // namespace

TEST(PropertyDecodeReference, RandomMessagePackDecodesAlike) {
  random_messagepack gen(11);
  int accepted = 0;
  for (int i = 0; i < 3000; ++i) accepted += same_outcome(gen.value(5));
  // Both outcomes must be well represented for the comparison to mean anything.
  EXPECT_GT(accepted, 600);
  EXPECT_LT(accepted, 2900);
}

TEST(PropertyDecodeReference, DamagedMessagePackIsRefusedAlike) {
  random_messagepack gen(12);
  int accepted = 0;
  for (int i = 0; i < 1500; ++i) {
    std::string in = random_tree(gen);
    switch (gen.below(4)) {
      case 0:  // one byte changed
        in[gen.below(in.size())] = static_cast<char>(gen.below(256));
        break;
      case 1:  // cut short
        in.resize(gen.below(in.size()));
        break;
      case 2:  // bytes after the value, or another value spliced in
        in.insert(gen.below(in.size() + 1), gen.value(1));
        break;
      default:  // one bit flipped in a header
        in[0] = static_cast<char>(in[0] ^ (1 << gen.below(8)));
    }
    accepted += same_outcome(in);
  }
  EXPECT_GT(accepted, 50);
  EXPECT_LT(accepted, 1450);
}

TEST(PropertyDecodeReference, RandomBytesAreRefusedAlike) {
  random_messagepack gen(13);
  for (int i = 0; i < 5000; ++i) {
    std::string in(1 + gen.below(12), '\0');
    for (char& c : in) c = static_cast<char>(gen.below(256));
    same_outcome(in);
  }
}

TEST(PropertyDecodeReference, EveryTypeByteAloneAndWithShortPayloadsIsHandledAlike) {
  for (int type = 0; type < 256; ++type) {
    for (std::size_t extra = 0; extra < 10; ++extra) {
      std::string in(1, static_cast<char>(type));
      in.append(extra, '\x01');
      same_outcome(in);
      same_outcome("\x81\xa1k" + in);
      same_outcome("\x91" + in);
    }
  }
}

TEST(PropertyDecodeReference, DepthLimitsAgree) {
  random_messagepack gen(14);
  for (int i = 0; i < 300; ++i) {
    const std::string in = random_tree(gen);
    for (std::size_t limit = 1; limit < 5; ++limit) same_outcome(in, limit);
  }
}
