// The library's report lines and debug prints on Python's logging: the logger "zelcapi" gets a
// record for each, at the level of its severity, from whichever thread reports.
#pragma once

#include <pybind11/pybind11.h>

namespace zelpy {

namespace py = pybind11;

// Routes the reports to logging now, until the interpreter exits (the library's own standard
// error lines are back for what reports after that); binds reports_to_logging and
// reports_to_stderr.
void bind_reports(py::module_& m);

}  // namespace zelpy
