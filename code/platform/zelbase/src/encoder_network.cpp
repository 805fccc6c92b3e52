// MessagePack writer of the network encoding, on msgpack-cxx's packer.
#include "zelbase/encoder_network.h"

#include <cstdlib>
#include <new>

#include <msgpack.hpp>

namespace zelbase {

encoder_network::encoder_network() { grow(256); }
encoder_network::~encoder_network() = default;

void encoder_network::release() {
  data_.reset();
  size_ = 0;
  capacity_ = 0;
  grow(256);
}

void encoder_network::grow(std::size_t more) {
  std::size_t capacity = capacity_ ? capacity_ : 256;
  while (capacity - size_ < more) capacity *= 2;
  // realloc: a large buffer (a snapshot of hundreds of megabytes) is moved by remapping its
  // pages, neither copied nor touched again at each doubling.
  void* bigger = std::realloc(data_.get(), capacity);
  if (!bigger) throw std::bad_alloc();
  static_cast<void>(data_.release());
  data_.reset(static_cast<char*>(bigger));
  capacity_ = capacity;
}

void encoder_network::pack_int(std::int64_t value) {
  msgpack::packer<encoder_network>(*this).pack_int64(value);
}

void encoder_network::pack_bool(bool value) {
  msgpack::packer<encoder_network> packer(*this);
  if (value)
    packer.pack_true();
  else
    packer.pack_false();
}

void encoder_network::pack_string(std::string_view value) {
  msgpack::packer<encoder_network> packer(*this);
  packer.pack_str(static_cast<std::uint32_t>(value.size()));
  packer.pack_str_body(value.data(), static_cast<std::uint32_t>(value.size()));
}

void encoder_network::pack_nil() { msgpack::packer<encoder_network>(*this).pack_nil(); }

void encoder_network::pack_array(std::uint32_t count) {
  msgpack::packer<encoder_network>(*this).pack_array(count);
}

void encoder_network::pack_map(std::uint32_t count) {
  msgpack::packer<encoder_network>(*this).pack_map(count);
}

std::string encoder_network::take() {
  std::string out(data_.get(), size_);
  size_ = 0;
  return out;
}

}  // namespace zelbase
