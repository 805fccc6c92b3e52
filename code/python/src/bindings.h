// The parts of the module, each bound by a function of its own file, and what they share: how
// a connection that Python made is deleted, and the handlers' answers.
#pragma once

#include <pybind11/pybind11.h>

#include <memory>

#include "connection_side.h"
#include "enums.h"
#include "zelcapi/connection.h"
#include "zelnet/packet.h"

namespace zelpy {

namespace py = pybind11;

// Deletes a connection that Python let go of: the handler, the watch callback and the blocking
// hooks are taken off first, so that its disconnection calls no Python code while the Python
// object is being destroyed. The GIL goes meanwhile: the replica waits for a save still
// writing, and the saver thread's reports go to Python's logging.
struct connection_deleter {
  void operator()(zelcapi::connection* c) const {
    c->set_handler(nullptr);
    c->set_watch_callback({});
    c->set_blocking_hooks({}, {});
    py::gil_scoped_release unlocked;
    delete c;
  }
};
template <class Connection>
using connection_holder = std::unique_ptr<Connection, connection_deleter>;

void bind_connection(py::module_& m);
void bind_state(py::module_& m);
// After bind_connection: the write side's methods on Connection and its result classes.
void bind_work(py::module_& m);

// A handler method's answer: None counts as True.
bool truth(const py::object& answer);
// A dict that a handler returned for a packet becomes the reply of its name in `out`; None
// sends nothing. Returns true.
bool answer(const py::object& reply, const zelnet::zelp::packet& in, zelnet::zelp::packet& out);

}  // namespace zelpy
