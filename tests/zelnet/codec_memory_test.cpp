// A received packet whose tree cannot be allocated: the decoder's allocation failure becomes the
// packet's error (which drops the link), never a std::bad_alloc for the caller. Its own binary,
// since it replaces operator new to make large allocations fail.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "support/raised_message.h"
#include "zelbase/exceptions.h"
#include "zelnet/codec.h"

namespace {

// Allocations of this size or more fail while it is not zero.
std::atomic<std::size_t> failing_from{0};

void* allocate(std::size_t size) {
  const std::size_t limit = failing_from.load();
  if (limit != 0 && size >= limit) throw std::bad_alloc();
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}

// A packet whose properties hold `fields` entries (their array is one allocation).
zelnet::zelp::packet wide_packet(int fields) {
  zelnet::zelp::packet p(3, "cluster.api.state.item-set");
  for (int i = 0; i < fields; ++i) p.get_properties().set_int_value("k" + std::to_string(i), i);
  return p;
}

}  // namespace

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

TEST(CodecMemory, AllocationFailureWhileDecodingIsThePacketsError) {
  const std::string frame = zelnet::zelp::encode_packet_frame(wide_packet(2000));
  const std::string payload = frame.substr(zelnet::zelp::frame_header_size);
  failing_from = 16 * 1024;  // the 2000 entries need more in one piece; the message needs less
  const std::string message = zeltest::raised_message<zelbase::es::arg>(
      [&] { zelnet::zelp::decode_packet(payload.data(), payload.size()); });
  failing_from = 0;
  EXPECT_EQ(message, "invalid packet: not enough memory to decode a " +
                         std::to_string(payload.size()) + "-byte payload");
}

TEST(CodecMemory, TheSamePacketDecodesOnceMemoryIsThere) {
  const std::string frame = zelnet::zelp::encode_packet_frame(wide_packet(2000));
  const std::string payload = frame.substr(zelnet::zelp::frame_header_size);
  const zelnet::zelp::packet p = zelnet::zelp::decode_packet(payload.data(), payload.size());
  EXPECT_EQ(p.get_properties().size(), 2000u);
  EXPECT_EQ(p.get_properties().get_int_value("k1999"), 1999);
}
