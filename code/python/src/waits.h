// Waiting from Python: the GIL is let go while the library waits, and a signal (Ctrl-C) is seen
// within a slice of the wait: its Python handler runs, and what it raises (KeyboardInterrupt)
// ends the wait, leaving the connection usable.
#pragma once

#include <pybind11/pybind11.h>

#include <chrono>

#include "zelnet/ioctrl.h"

namespace zelpy {

namespace py = pybind11;

// How long the library waits at most before it looks for signals.
constexpr std::chrono::milliseconds signal_slice{50};

// Lets the GIL go while `c` blocks in poll(2), polling in slices of signal_slice with the
// signals' handlers run between them. Every callback then runs with the GIL held.
void release_gil_while_blocking(zelnet::ioctrl& c);

// Calls `ended(slice)`, which waits up to `slice` for something and says whether it came, with
// the GIL released until it says so; between slices the signals' handlers run.
void wait_in_slices(bool (*ended)(std::chrono::milliseconds slice));

}  // namespace zelpy
