// The replica sources' lines.
#include "serve/link_log.h"

#include <cstdio>

#include "service_notify.h"

namespace zelctl::serve {

void log_link(const std::string& text) {
  std::printf("%szelctl serve: %s\n", log_stamp().c_str(), text.c_str());
  std::fflush(stdout);
}

std::string seconds_text(retry_backoff::duration wait) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2f s", std::chrono::duration<double>(wait).count());
  return text;
}

}  // namespace zelctl::serve
