// The stop flag set by SIGINT and SIGTERM.
#include "stop_signal.h"

#include <signal.h>
#include <unistd.h>

namespace zelctl {
namespace {

volatile sig_atomic_t stop = 0;
volatile sig_atomic_t signals_seen = 0;

void on_signal(int number) {
  if (signals_seen++ > 0) {
    ::signal(number, SIG_DFL);
    ::raise(number);
    return;
  }
  stop = 1;
}

}  // namespace

void install_stop_signals() {
  struct sigaction action {};
  action.sa_handler = on_signal;
  sigemptyset(&action.sa_mask);
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);
}

bool stop_requested() { return stop != 0; }

}  // namespace zelctl
