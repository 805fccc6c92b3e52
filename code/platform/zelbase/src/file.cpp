// File and socket handles.
#include "zelbase/file.h"

#include <unistd.h>

namespace zelbase {

void file::close() noexcept {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

}  // namespace zelbase
