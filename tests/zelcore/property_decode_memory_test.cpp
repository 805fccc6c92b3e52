// Memory taken by decoding hostile input: forged container counts must not make the decoder
// reserve more than the input could hold. Its own binary, since it counts every operator new.
#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <random>

#include "zelbase/exceptions.h"
#include "zelcore/properties.h"

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
