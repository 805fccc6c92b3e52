// The handle of an open socket or file. It is a plain handle: copies name the same descriptor
// and nothing closes it but close().
#pragma once

#include "zelbase/export.h"

namespace zelbase {

class ZELBASE_EXPORT file {
 public:
  file() noexcept = default;
  explicit file(int descriptor) noexcept : fd_(descriptor) {}

  int descriptor() const noexcept { return fd_; }
  bool is_open() const noexcept { return fd_ >= 0; }
  // Closes the descriptor (once; later calls do nothing) and forgets it.
  void close() noexcept;

  friend bool operator==(const file& a, const file& b) noexcept { return a.fd_ == b.fd_; }
  friend bool operator!=(const file& a, const file& b) noexcept { return a.fd_ != b.fd_; }
  friend bool operator<(const file& a, const file& b) noexcept { return a.fd_ < b.fd_; }

 private:
  int fd_ = -1;
};

}  // namespace zelbase
