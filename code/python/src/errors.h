// The library's errors as Python exceptions carrying the system's texts: Error (es::base), and
// its subclasses ArgError (es::arg), UnspecifiedError (es::uspec), ApiError (es::api_code, with
// its code as `code`), LoginError (a refused login; AccessDenied and NoSuchUser by its code) and
// BusyError (a connection used by two threads at once).
#pragma once

#include <pybind11/pybind11.h>

#include <exception>

#include "zelcore/properties.h"

namespace zelpy {

namespace py = pybind11;

void bind_errors(py::module_& m);

// The Python exception object for a library error that an asynchronous operation ended with;
// None for a null pointer.
py::object exception_object(std::exception_ptr error);

// The refusal that a login's reply stands for when it holds "error": a LoginError (AccessDenied
// or NoSuchUser by the code) with the reply's text, `code` (the ResultCode of the client's give-up
// or of the text, else None) and `reply`; None for a reply without "error".
py::object login_refusal(const zelcore::properties& reply);
// Raises the refusal of a reply that holds one.
void raise_if_refused(const zelcore::properties& reply);

}  // namespace zelpy
