// The zelp wire codec: bytes to frames to packets and back, with no I/O, so that it can be
// fed bytes in any fragments, tested and fuzzed on its own. docs/wire-protocol.md describes
// the bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "zelbase/encoder_network.h"
#include "zelnet/export.h"
#include "zelnet/packet.h"

namespace zelnet::zelp {

// The protocol version this library speaks.
constexpr std::uint32_t protocol_version = 2;
// Largest payload a frame may carry unless a link is given another limit (64 MiB).
constexpr std::size_t default_frame_limit = std::size_t{64} << 20;
// Memory that decoding a received payload may take per payload byte unless a link is given
// another cap: real trees take about 5; a peer's nested one-element lists would take 80.
constexpr std::size_t default_decode_cap = 32;
// Size of the big-endian length that starts every frame.
constexpr std::size_t frame_header_size = 4;

// A whole frame (length and payload) holding the hello for `version`.
ZELNET_EXPORT std::string encode_hello_frame(std::uint32_t version);
// The version carried by a hello payload; raises es::arg "invalid hello: ..." otherwise.
ZELNET_EXPORT std::uint32_t decode_hello(const char* data, std::size_t size);

// A whole frame holding `p`; raises es::arg when the payload would not fit a frame.
ZELNET_EXPORT std::string encode_packet_frame(const packet& p);
// Appends the whole frame holding `p` to `out`, with no copy of its bytes; raises es::arg when
// the payload would not fit a frame, and leaves `out` as it was when anything raises.
ZELNET_EXPORT void append_packet_frame(const packet& p, zelbase::encoder_network& out);
// The packet in a frame's payload; raises es::arg "invalid packet: <reason>" for anything that
// is not a MessagePack array [type (int), name (string), properties (map)], and for a payload
// whose tree does not fit in memory ("not enough memory to decode a N-byte payload") or would
// take more than `memory_per_byte` bytes per payload byte ("a N-byte payload takes more than
// M bytes of memory per payload byte"; 0: no cap).
ZELNET_EXPORT packet decode_packet(const char* data, std::size_t size,
                                   std::size_t memory_per_byte = default_decode_cap);

// Cuts a byte stream into frame payloads. Holds at most one partial frame plus the bytes of
// the last feed; never reserves memory from an announced length alone, and never more than the
// frame in progress (at most the limit and its header) plus two feeds.
class ZELNET_EXPORT frame_decoder {
 public:
  explicit frame_decoder(std::size_t limit = default_frame_limit) : limit_(limit) {}

  // Appends received bytes.
  void feed(const char* data, std::size_t size);
  // Sets `payload` to the next whole frame's payload (valid until the next feed or next) and
  // returns true; false when more bytes are needed. Raises es::arg naming the length and the
  // limit when a frame announces more than the limit.
  bool next(std::string_view& payload);
  // Whether a whole frame within the limit is buffered: next() would return it without raising.
  bool has_frame() const noexcept;
  // Raises what next() raises for a frame of `payload` bytes above the limit.
  void admit(std::size_t payload) const;
  // Bytes received that do not yet form a whole frame.
  std::size_t buffered() const noexcept { return buffer_.size() - pos_; }
  // The size of the frame in progress (header included) once its header is in, else 0.
  std::size_t expected() const noexcept;
  std::size_t limit() const noexcept { return limit_; }
  // Changes the limit; it applies to the frame whose header is read next, and to one whose
  // header is in but whose payload is not complete yet.
  void set_limit(std::size_t limit) noexcept { limit_ = limit; }
  // Bytes of memory the decoder holds for its buffer.
  std::size_t reserved() const noexcept { return buffer_.capacity(); }

 private:
  // The most that the buffer keeps between frames.
  static constexpr std::size_t retained_capacity = std::size_t{1} << 20;
  std::size_t limit_;
  // A vector, since its reserve() takes exactly what is asked.
  std::vector<char> buffer_;
  std::size_t pos_ = 0;
};

}  // namespace zelnet::zelp
