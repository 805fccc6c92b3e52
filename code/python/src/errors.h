// The library's errors as Python exceptions carrying the system's texts: Error (es::base), and
// its subclasses ArgError (es::arg), UnspecifiedError (es::uspec), ApiError (es::api_code, with
// its code as `code`), LoginError (a refused login; AccessDenied and NoSuchUser by its code),
// BusyError (a connection used by two threads at once); for the write side Refused (an item the
// master refused: AccessDenied, which is a LoginError too, NotFound, NotAllowed, InvalidItem),
// WriteError (zelcapi::write_error), WaitError (zelcapi::wait_error: WaitTimeout, WorkRemoved,
// LinkLost) and DescriptionError (a ValueError; DescriptionTypeError also a TypeError).
#pragma once

#include <pybind11/pybind11.h>

#include <exception>
#include <vector>

#include "zelcapi/description.h"
#include "zelcapi/work_client.h"
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

// The exception of the first item of `result` that the master refused, with `result`, `item`,
// `outcome`, `id` and `owner` ("" unless access was denied); None when every item is ok.
py::object refusal_of(const zelcapi::write_result& result);
// Raises the refusal of a result that holds one.
void raise_if_refused(const zelcapi::write_result& result);

// Raises DescriptionError for a description's errors (DescriptionTypeError when one of them is a
// value of the wrong kind), naming every error's place; `settings` name the values' errors.
[[noreturn]] void raise_description_errors(
    const std::vector<zelcapi::description_error>& errors,
    const std::vector<zelcapi::description_setting>& settings);

}  // namespace zelpy
