// Writes values in the network encoding (MessagePack) into a growing byte buffer.
// Properties encode themselves through it; the packet layer frames its bytes. write() is inline
// so that MessagePack packers can stream into the encoder directly.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
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
  void write(const char* data, std::size_t size) {
    if (capacity_ - size_ < size) grow(size);
    std::memcpy(data_.get() + size_, data, size);
    size_ += size;
  }

  // For writers that fill the buffer themselves: room for at least `size` more bytes at the end,
  // to be written and then committed with advance().
  char* room(std::size_t size) {
    if (capacity_ - size_ < size) grow(size);
    return data_.get() + size_;
  }
  void advance(std::size_t size) noexcept { size_ += size; }

  const char* data() const noexcept { return data_.get(); }
  std::size_t size() const noexcept { return size_; }
  std::string_view view() const noexcept { return {data_.get(), size_}; }
  std::size_t capacity() const noexcept { return capacity_; }
  void clear() noexcept { size_ = 0; }
  // Drops the bytes from `size` on (no-op when `size` is not below size()).
  void truncate(std::size_t size) noexcept {
    if (size < size_) size_ = size;
  }
  // Overwrites bytes already written, from offset `at` (at + size must not pass size()).
  void overwrite(std::size_t at, const char* data, std::size_t size) noexcept {
    std::memcpy(data_.get() + at, data, size);
  }
  // Empties the encoder and gives its buffer back, keeping one of the initial size.
  void release();
  // Copies the bytes out and leaves the encoder empty (its buffer is kept for reuse).
  std::string take();

 private:
  void grow(std::size_t more);

  struct free_bytes {
    void operator()(char* p) const noexcept { std::free(p); }
  };
  std::unique_ptr<char, free_bytes> data_;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

}  // namespace zelbase
