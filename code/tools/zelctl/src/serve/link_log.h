// The lines that zelctl serve's replica sources write when their link goes, fails to come back
// or returns.
#pragma once

#include <string>

#include "retry_backoff.h"

namespace zelctl::serve {

// "<stamp>zelctl serve: <text>" on stdout.
void log_link(const std::string& text);
// "1.50 s".
std::string seconds_text(retry_backoff::duration wait);

}  // namespace zelctl::serve
