// The parts of the module, each bound by a function of its own file.
#pragma once

#include <pybind11/pybind11.h>

#include "zelnet/packet.h"

namespace zelpy {

namespace py = pybind11;

void bind_connection(py::module_& m);
void bind_state(py::module_& m);

// A handler method's answer: None counts as True.
bool truth(const py::object& answer);
// A dict that a handler returned for a packet becomes the reply of its name in `out`; None
// sends nothing. Returns true.
bool answer(const py::object& reply, const zelnet::zelp::packet& in, zelnet::zelp::packet& out);

}  // namespace zelpy
