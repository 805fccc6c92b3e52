// Fuzz target: random server bytes, cut into random fragments, into the frame decoder and the
// packet decoder. Each must give frames and packets or es::base, nothing else; a decoded packet
// must encode and decode again to an equal packet.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "zelbase/exceptions.h"
#include "zelnet/codec.h"

namespace {

// A small limit, so that the refusal of long frames is reached too.
constexpr std::size_t fuzz_frame_limit = 4096;

void check_packet(std::string_view payload) {
  zelnet::zelp::packet p;
  try {
    p = zelnet::zelp::decode_packet(payload.data(), payload.size());
  } catch (const zelbase::es::base&) {
    return;
  }
  const std::string frame = zelnet::zelp::encode_packet_frame(p);
  const zelnet::zelp::packet again =
      zelnet::zelp::decode_packet(frame.data() + zelnet::zelp::frame_header_size,
                                  frame.size() - zelnet::zelp::frame_header_size);
  if (again.get_type() != p.get_type() || again.get_name() != p.get_name() ||
      !(again.get_properties() == p.get_properties())) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  // The first byte picks the fragment size, the rest is the stream.
  const std::size_t fragment = data[0] % 64 + 1;
  const char* stream = reinterpret_cast<const char*>(data + 1);
  const std::size_t length = size - 1;
  zelnet::zelp::frame_decoder decoder(fuzz_frame_limit);
  bool first = true;
  try {
    for (std::size_t at = 0; at < length; at += fragment) {
      decoder.feed(stream + at, std::min(fragment, length - at));
      std::string_view payload;
      while (decoder.next(payload)) {
        if (payload.size() > fuzz_frame_limit) std::abort();
        if (first) {
          try {
            zelnet::zelp::decode_hello(payload.data(), payload.size());
          } catch (const zelbase::es::base&) {
          }
          first = false;
          continue;
        }
        check_packet(payload);
      }
    }
  } catch (const zelbase::es::base&) {
    // A frame above the limit: the link would drop here.
  }
  if (decoder.buffered() > length) std::abort();
  return 0;
}
