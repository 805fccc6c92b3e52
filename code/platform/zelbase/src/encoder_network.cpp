// MessagePack writer of the network encoding, on msgpack-cxx's packer.
#include "zelbase/encoder_network.h"

#include <msgpack/pack.hpp>

namespace zelbase {

namespace {
// The packer's stream: appends to the encoder's buffer.
struct string_sink {
  std::string& out;
  void write(const char* data, std::size_t size) { out.append(data, size); }
};
}  // namespace

encoder_network::encoder_network() { buffer_.reserve(256); }
encoder_network::~encoder_network() = default;

void encoder_network::pack_int(std::int64_t value) {
  string_sink sink{buffer_};
  msgpack::packer<string_sink>(sink).pack_int64(value);
}

void encoder_network::pack_bool(bool value) {
  string_sink sink{buffer_};
  msgpack::packer<string_sink> packer(sink);
  if (value)
    packer.pack_true();
  else
    packer.pack_false();
}

void encoder_network::pack_string(std::string_view value) {
  string_sink sink{buffer_};
  msgpack::packer<string_sink> packer(sink);
  packer.pack_str(static_cast<std::uint32_t>(value.size()));
  packer.pack_str_body(value.data(), static_cast<std::uint32_t>(value.size()));
}

void encoder_network::pack_nil() {
  string_sink sink{buffer_};
  msgpack::packer<string_sink>(sink).pack_nil();
}

void encoder_network::pack_array(std::uint32_t count) {
  string_sink sink{buffer_};
  msgpack::packer<string_sink>(sink).pack_array(count);
}

void encoder_network::pack_map(std::uint32_t count) {
  string_sink sink{buffer_};
  msgpack::packer<string_sink>(sink).pack_map(count);
}

void encoder_network::write(const char* data, std::size_t size) { buffer_.append(data, size); }

std::string encoder_network::take() noexcept {
  std::string out;
  out.swap(buffer_);
  return out;
}

}  // namespace zelbase
