// The library's errors as Python exceptions carrying the system's texts: Error (es::base), and
// its subclasses ArgError (es::arg), UnspecifiedError (es::uspec) and ApiError (es::api_code,
// with its code as `code`).
#pragma once

#include <pybind11/pybind11.h>

#include <exception>

namespace zelpy {

namespace py = pybind11;

void bind_errors(py::module_& m);

// The Python exception object for a library error that an asynchronous operation ended with;
// None for a null pointer.
py::object exception_object(std::exception_ptr error);

}  // namespace zelpy
