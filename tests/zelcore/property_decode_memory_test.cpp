// Memory taken by decoding hostile input: forged container counts must not make the decoder
// reserve more than the input could hold. Its own binary, since it counts every operator new.
#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <random>
#include <thread>
#include <vector>

#include "zelbase/exceptions.h"
#include "zelbase/strings.h"
#include "zelcore/properties.h"
#include "zelnet/codec.h"

namespace {

std::atomic<std::size_t> live_bytes{0};
std::atomic<std::size_t> peak_bytes{0};

void* counted_allocate(std::size_t size) {
  void* p = std::malloc(size ? size : 1);
  if (!p) throw std::bad_alloc();
  const std::size_t now = live_bytes += malloc_usable_size(p);
  std::size_t peak = peak_bytes.load();
  while (now > peak && !peak_bytes.compare_exchange_weak(peak, now)) {
  }
  return p;
}

void counted_free(void* p) noexcept {
  if (!p) return;
  live_bytes -= malloc_usable_size(p);
  std::free(p);
}

// The most memory held at once by operator new while `f` runs, beyond what was held before.
template <class F>
std::size_t peak_while(F&& f) {
  const std::size_t before = live_bytes.load();
  peak_bytes = before;
  f();
  return peak_bytes.load() - before;
}

std::string decode_error(const std::string& in) {
  try {
    zelcore::decode_property(in.data(), in.size());
  } catch (const zelbase::es::arg& e) {
    return e.what();
  }
  return "no error";
}

}  // namespace

void* operator new(std::size_t size) { return counted_allocate(size); }
void* operator new[](std::size_t size) { return counted_allocate(size); }
void operator delete(void* p) noexcept { counted_free(p); }
void operator delete[](void* p) noexcept { counted_free(p); }
void operator delete(void* p, std::size_t) noexcept { counted_free(p); }
void operator delete[](void* p, std::size_t) noexcept { counted_free(p); }

TEST(PropertyDecodeMemory, NestedForgedMapCountsReserveNoMoreThanTheInputHolds) {
  // Twenty nested maps, each claiming 2^32-1 pairs, then one long string to make the input
  // large enough that a per-map bound of "input size / 2" pairs would still be generous.
  std::string in;
  for (int level = 0; level < 20; ++level) in += std::string("\xdf\xff\xff\xff\xff\xa1k", 7);
  const std::size_t text = 64 * 1024;
  in += std::string("\xdb\x00\x01\x00\x00", 5);
  in += std::string(text, 'x');
  ASSERT_EQ(text, 0x10000u);

  std::string error;
  const std::size_t peak = peak_while([&] { error = decode_error(in); });
  EXPECT_EQ(error, "cannot decode property: input truncated at byte " + std::to_string(in.size()));
  // Real pairs take two bytes or more, so the input holds at most size / 2 of them whatever
  // the counts say: about 24 bytes of entries per input byte, once, not once per map.
  EXPECT_LT(peak, 32 * in.size()) << "peak " << peak << " for " << in.size() << " input bytes";
}

TEST(PropertyDecodeMemory, ForgedArrayCountReservesNothing) {
  std::string in("\xdd\xff\xff\xff\xff", 5);
  in += std::string(4096, '\x01');
  std::string error;
  const std::size_t peak = peak_while([&] { error = decode_error(in); });
  EXPECT_EQ(error, "cannot decode property: input truncated at byte " + std::to_string(in.size()));
  EXPECT_LT(peak, 64 * in.size());
}

TEST(PropertyDecodeMemory, RandomForgedHeadersStayWithinABoundOfTheInputSize) {
  std::mt19937 random(4242);
  const auto byte = [&] { return static_cast<char>(random()); };
  for (int round = 0; round < 2000; ++round) {
    // Container and string headers with random (often huge) counts, keys between them, and
    // random bytes after.
    std::string in;
    for (int headers = 1 + static_cast<int>(random() % 40); headers > 0; --headers) {
      switch (random() % 5) {
        case 0: in += '\xdf'; break;  // map32
        case 1: in += '\xde'; break;  // map16
        case 2: in += '\xdd'; break;  // array32
        case 3: in += '\xdb'; break;  // str32
        default: in += "\xa1k"; continue;
      }
      const int count_bytes = in.back() == '\xde' ? 2 : 4;
      for (int i = 0; i < count_bytes; ++i) in += random() % 2 ? '\xff' : byte();
      if (random() % 2) in += "\xa1k";
    }
    in.append(random() % 20000, '\x01');
    const std::size_t peak =
        peak_while([&] { EXPECT_EQ(decode_error(in).rfind("cannot decode property: ", 0), 0u); });
    // Reserved map entries take up to 24 bytes per input byte, list elements up to 32 (a node
    // per one-byte element): linear in the input, whatever the counts claim.
    ASSERT_LT(peak, 64 * in.size() + 4096) << "round " << round << ": " << in.size() << " bytes";
  }
}

namespace {

constexpr std::size_t payload_bytes = std::size_t{4} << 20;

// A top-level array32 of `count` copies of `element`, which holds `values` values.
std::string array_of(const std::string& element, std::size_t count, std::size_t values = 1) {
  std::string in("\xdd", 1);
  for (int shift = 24; shift >= 0; shift -= 8)
    in += static_cast<char>((count * values >> shift) & 0xff);
  in.reserve(in.size() + element.size() * count);
  for (std::size_t i = 0; i < count; ++i) in += element;
  return in;
}

// Heap in use: the allocator's small blocks and the large ones it maps on their own.
std::size_t heap_in_use() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

// A payload of values nested to the depth limit: `level` opens each level (under the top-level
// array), and a small integer ends each nest.
std::string nests_of(const std::string& level) {
  std::string nest;
  for (std::size_t depth = 1; depth < zelcore::default_decode_max_depth; ++depth) nest += level;
  nest += '\0';
  return array_of(nest, payload_bytes / nest.size());
}

// Whether mallinfo2 sees this process's allocations (the sanitizers bring allocators of their
// own, which it does not count).
bool mallinfo_counts() {
  const std::size_t before = heap_in_use();
  void* volatile p = std::malloc(1 << 20);
  const bool counted = heap_in_use() >= before + (1 << 20);
  std::free(p);
  return counted;
}

// Bytes of heap that the decoded tree of `in` holds while it lives, measured with mallinfo2 on
// a thread of its own (whose block cache starts empty, so that every block is counted).
double heap_per_input_byte(const std::string& in) {
  double per_byte = 0;
  std::thread([&] {
    const std::size_t before = heap_in_use();
    const zelcore::property_ptr tree = zelcore::decode_property(in.data(), in.size());
    const std::size_t after = heap_in_use();
    per_byte = static_cast<double>(after - before) / static_cast<double>(in.size());
  }).join();
  return per_byte;
}

// The shared constants are made at their first use; that once-per-process cost is not the
// input's.
void make_constants() { zelcore::decode_property("\x94\x80\x90\x01\xa1x", 6); }

#define SKIP_UNLESS_MALLINFO_COUNTS() \
  if (!mallinfo_counts()) GTEST_SKIP() << "mallinfo2 does not see this allocator"

// Flat input (the elements of one list): an element costs its list node, 32 bytes of heap with
// the allocator's header, and shared constants or at most 16 per byte for itself; one-byte
// elements are the worst, one more byte covers the outer list.
constexpr double bound_per_byte = 33;
// Nested input costs an object per level and its array of children: a map level (3 bytes) at
// most 48 bytes per input byte, a list level (1 byte) at most 80.
constexpr double nested_map_bound_per_byte = 48;
constexpr double nested_list_bound_per_byte = 80;

}  // namespace

TEST(PropertyDecodeMemory, EmptyMapsTakeAtMostTheBoundPerInputByte) {
  SKIP_UNLESS_MALLINFO_COUNTS();
  make_constants();
  const std::string in = array_of(std::string("\x80", 1), payload_bytes);
  EXPECT_LE(heap_per_input_byte(in), bound_per_byte);
}

TEST(PropertyDecodeMemory, EmptyListsTakeAtMostTheBoundPerInputByte) {
  SKIP_UNLESS_MALLINFO_COUNTS();
  make_constants();
  const std::string in = array_of(std::string("\x90", 1), payload_bytes);
  EXPECT_LE(heap_per_input_byte(in), bound_per_byte);
}

TEST(PropertyDecodeMemory, SmallIntegersTakeAtMostTheBoundPerInputByte) {
  SKIP_UNLESS_MALLINFO_COUNTS();
  make_constants();
  std::string in = array_of(std::string("\x00", 1), payload_bytes);
  for (std::size_t i = 5; i < in.size(); ++i) in[i] = static_cast<char>(i % 128);
  EXPECT_LE(heap_per_input_byte(in), bound_per_byte);
}

TEST(PropertyDecodeMemory, OneByteStringsTakeAtMostTheBoundPerInputByte) {
  SKIP_UNLESS_MALLINFO_COUNTS();
  make_constants();
  std::string in = array_of(std::string("\xa1x", 2), payload_bytes / 2);
  for (std::size_t i = 6; i < in.size(); i += 2) in[i] = static_cast<char>(i / 2);
  EXPECT_LE(heap_per_input_byte(in), bound_per_byte);
}

TEST(PropertyDecodeMemory, NegativeIntegersOfOneAndTwoBytesTakeAtMostTheBoundPerInputByte) {
  SKIP_UNLESS_MALLINFO_COUNTS();
  make_constants();
  std::string in = array_of(std::string("\xe0\xd0\x80", 3), payload_bytes / 3, 2);
  for (std::size_t i = 7; i < in.size(); i += 3) in[i] = static_cast<char>(0x80 + i % 0x60);
  EXPECT_LE(heap_per_input_byte(in), bound_per_byte);
}

TEST(PropertyDecodeMemory, TwoAndThreeByteStringsTakeAtMostTheBoundPerInputByte) {
  SKIP_UNLESS_MALLINFO_COUNTS();
  make_constants();
  std::string in = array_of(std::string("\xa2xy\xa3xyz", 7), payload_bytes / 7, 2);
  // Every two-byte string there is, and as many different three-byte ones.
  for (std::size_t i = 5, n = 0; i < in.size(); i += 7, ++n) {
    in[i + 1] = static_cast<char>(n);
    in[i + 2] = static_cast<char>(n >> 8);
    in[i + 4] = static_cast<char>(n);
    in[i + 5] = static_cast<char>(n >> 8);
    in[i + 6] = static_cast<char>(n >> 16);
  }
  EXPECT_LE(heap_per_input_byte(in), bound_per_byte);
}

TEST(PropertyDecodeMemory, MapsOfOneByteKeysTakeAtMostTheBoundPerInputByte) {
  SKIP_UNLESS_MALLINFO_COUNTS();
  make_constants();
  std::string map("\x8f", 1);
  for (char key = 'a'; key < 'a' + 15; ++key) map += std::string("\xa1", 1) + key + '\0';
  const std::string in = array_of(map, payload_bytes / map.size());
  EXPECT_LE(heap_per_input_byte(in), bound_per_byte);
}

TEST(PropertyDecodeMemory, MapsNestedToTheDepthLimitTakeAtMostTheirLevelsCostPerInputByte) {
  SKIP_UNLESS_MALLINFO_COUNTS();
  make_constants();
  const std::string in = nests_of("\x81\xa1k");
  EXPECT_LE(heap_per_input_byte(in), nested_map_bound_per_byte);
}

TEST(PropertyDecodeMemory, ListsNestedToTheDepthLimitTakeAtMostTheirLevelsCostPerInputByte) {
  SKIP_UNLESS_MALLINFO_COUNTS();
  make_constants();
  const std::string in = nests_of("\x91");
  EXPECT_LE(heap_per_input_byte(in), nested_list_bound_per_byte);
}

namespace {

// The heap per input byte that decoding `in` takes with no cap, then whether a cap under it is
// refused with its reason, leaving the heap where it was, and twice that cap accepted: the
// decoder counts at least what the heap holds, and not much more.
void expect_the_cap_decides(const std::string& in) {
  make_constants();
  const double cost = heap_per_input_byte(in);
  const auto capped = [&](std::size_t cap) {
    std::string error = "no error";
    const std::size_t before = heap_in_use();
    std::thread([&] {
      try {
        zelcore::decode_property(in.data(), in.size(), zelcore::default_decode_max_depth, cap);
      } catch (const zelbase::es::arg& e) {
        error = e.what();
      }
    }).join();
    // Nothing of a refused tree stays once its thread has given back its block cache; an
    // accepted one is gone with its pointer.
    const std::size_t after = heap_in_use();
    EXPECT_LT(after, before + (std::size_t{64} << 10)) << "cap " << cap;
    return error;
  };
  const std::size_t below = static_cast<std::size_t>(cost) - 1;
  const std::size_t above = 2 * below + 1;
  EXPECT_EQ(capped(below), zelbase::string_with_format(
                               "cannot decode property: a %zu-byte payload takes more than %zu "
                               "bytes of memory per payload byte",
                               in.size(), below))
      << "cost " << cost;
  EXPECT_EQ(capped(above), "no error") << "cost " << cost;
}

}  // namespace

TEST(PropertyDecodeCap, NestedOneElementListsAreRefusedUnderTheirCostAndAcceptedOver) {
  SKIP_UNLESS_MALLINFO_COUNTS();
  expect_the_cap_decides(nests_of("\x91"));
}

TEST(PropertyDecodeCap, NestedOnePairMapsAreRefusedUnderTheirCostAndAcceptedOver) {
  SKIP_UNLESS_MALLINFO_COUNTS();
  expect_the_cap_decides(nests_of("\x81\xa1k"));
}

TEST(PropertyDecodeCap, EmptyMapsAreRefusedUnderTheirCostAndAcceptedOver) {
  SKIP_UNLESS_MALLINFO_COUNTS();
  expect_the_cap_decides(array_of(std::string("\x80", 1), payload_bytes));
}

TEST(PropertyDecodeCap, EmptyListsAreRefusedUnderTheirCostAndAcceptedOver) {
  SKIP_UNLESS_MALLINFO_COUNTS();
  expect_the_cap_decides(array_of(std::string("\x90", 1), payload_bytes));
}

TEST(PropertyDecodeCap, TheDefaultCapOfALinkRefusesNestedListsAndMapsButNotFlatInput) {
  const std::string lists = nests_of("\x91");
  const std::string maps = nests_of("\x81\xa1k");
  const std::string flat = array_of(std::string("\x90", 1), payload_bytes);
  const auto refused = [](const std::string& in) {
    try {
      zelnet::zelp::decode_packet(in.data(), in.size());
    } catch (const zelbase::es::arg& e) {
      return std::string(e.what()).find("bytes of memory per payload byte") != std::string::npos;
    }
    return false;
  };
  // Each is refused for its cost, before its shape (it is no packet) is looked at.
  EXPECT_TRUE(refused(lists));
  EXPECT_TRUE(refused(maps));
  EXPECT_FALSE(refused(flat));
}

TEST(PropertyDecodeMemory, AnIdHeldByManyTreesGoesWithThemAndItsArenaWithIt) {
  // The ids of a large map are keys of the decode's own, in its arena. One held by many trees
  // at once must not become permanent as a popular key of the table does: that would keep its
  // arena's memory for the life of the process.
  zelcore::properties all(false);
  for (int n = 0; n < 1000; ++n)
    all.set_properties_value("job-" + std::to_string(n),
                             zelcore::properties{{"status", zelcore::make_int(n)}});
  const std::string in = zelcore::encode_property(all);
  ASSERT_GE(in.size(), std::size_t{16} << 10);  // built in an arena
  make_constants();
  const std::size_t before = live_bytes.load();
  // On a thread of its own, whose blocks go back to the allocator when it ends.
  std::thread([&] {
    const zelcore::properties decoded = zelcore::decode_properties(in.data(), in.size());
    std::vector<zelcore::properties> copies(100, decoded);
    for (std::size_t i = 0; i < copies.size(); ++i)  // each change copies every id's key
      copies[i].set_int_value("x", static_cast<std::int64_t>(i));
  }).join();
  const std::size_t after = live_bytes.load();
  EXPECT_LT(after, before + 4096) << after - before << " bytes kept";
}
