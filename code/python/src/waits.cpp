// The library's waits from Python, in slices between which signals are handled.
#include "waits.h"

#include <memory>

namespace zelpy {

namespace {

// Runs the handlers of signals that came; raises what one of them raised.
void handle_signals() {
  if (PyErr_CheckSignals() != 0) throw py::error_already_set();
}

}  // namespace

void release_gil_while_blocking(zelnet::ioctrl& c) {
  auto saved = std::make_shared<PyThreadState*>(nullptr);
  c.set_blocking_hooks([saved] { *saved = PyEval_SaveThread(); },
                       [saved] {
                         PyEval_RestoreThread(*saved);
                         handle_signals();
                       },
                       static_cast<int>(signal_slice.count()));
}

void wait_in_slices(bool (*ended)(std::chrono::milliseconds slice)) {
  for (;;) {
    bool done = false;
    {
      py::gil_scoped_release unlocked;
      done = ended(signal_slice);
    }
    if (done) return;
    handle_signals();
  }
}

}  // namespace zelpy
