// SIGINT and SIGTERM as a request to stop: the long-running subcommands (watch, mirror) poll
// the flag between waits and finish cleanly with their summary.
#pragma once

namespace zelctl {

// Installs the handlers; a second signal after the first ends the program at once.
void install_stop_signals();
// Whether a stop signal arrived.
bool stop_requested();

}  // namespace zelctl
