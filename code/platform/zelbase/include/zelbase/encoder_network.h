// Writes values in the network encoding (MessagePack) into a growing byte buffer.
// Properties encode themselves through it; the packet layer frames its bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "zelbase/export.h"

namespace zelbase {

class ZELBASE_EXPORT encoder_network {
 public:
  encoder_network();
  ~encoder_network();
  encoder_network(const encoder_network&) = delete;
  encoder_network& operator=(const encoder_network&) = delete;

  void pack_int(std::int64_t value);
  void pack_bool(bool value);
  void pack_string(std::string_view value);
  void pack_nil();
  // Starts an array or a map of `count` elements (a map element is a key and a value).
  void pack_array(std::uint32_t count);
  void pack_map(std::uint32_t count);
  // Appends bytes as they are (already encoded data, framing headers).
  void write(const char* data, std::size_t size);

  const char* data() const noexcept { return buffer_.data(); }
  std::size_t size() const noexcept { return buffer_.size(); }
  void clear() noexcept { buffer_.clear(); }
  // Hands the bytes over and leaves the encoder empty.
  std::string take() noexcept;

 private:
  std::string buffer_;
};

}  // namespace zelbase
