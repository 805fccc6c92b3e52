// The library's exceptions, translated to Python's.
#include "errors.h"

#include "zelbase/exceptions.h"

namespace zelpy {

namespace {

// Created once by bind_errors, alive as long as the module.
PyObject* error_type = nullptr;
PyObject* arg_error_type = nullptr;
PyObject* uspec_error_type = nullptr;
PyObject* api_error_type = nullptr;

PyObject* new_type(py::module_& m, const char* name, PyObject* base, const char* doc) {
  const std::string qualified = std::string("zelcapi.") + name;
  PyObject* type = PyErr_NewExceptionWithDoc(qualified.c_str(), doc, base, nullptr);
  if (type == nullptr) throw py::error_already_set();
  m.add_object(name, py::handle(type));
  return type;
}

// The Python type and object of one library exception.
py::object instance_of(const zelbase::es::base& e) {
  PyObject* type = error_type;
  if (dynamic_cast<const zelbase::es::arg*>(&e) != nullptr) type = arg_error_type;
  if (dynamic_cast<const zelbase::es::uspec*>(&e) != nullptr) type = uspec_error_type;
  const auto* api = dynamic_cast<const zelbase::es::api_code*>(&e);
  if (api != nullptr) type = api_error_type;
  py::object instance = py::handle(type)(e.message());
  if (api != nullptr) instance.attr("code") = api->code();
  return instance;
}

}  // namespace

void bind_errors(py::module_& m) {
  error_type = new_type(m, "Error", PyExc_Exception, "An error of the zelcapi library.");
  arg_error_type = new_type(m, "ArgError", error_type,
                            "A bad argument: an unknown id or item type, malformed input.");
  uspec_error_type = new_type(m, "UnspecifiedError", error_type,
                              "A transport failure: no connection, a time-out, a lost link.");
  api_error_type =
      new_type(m, "ApiError", error_type, "A failure carrying the system's error code as code.");
  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (const zelbase::es::base& e) {
      const py::object instance = instance_of(e);
      PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(instance.ptr())), instance.ptr());
    }
  });
}

py::object exception_object(std::exception_ptr error) {
  if (!error) return py::none();
  try {
    std::rethrow_exception(error);
  } catch (const zelbase::es::base& e) {
    return instance_of(e);
  } catch (py::error_already_set& e) {
    return e.value();
  } catch (const std::exception& e) {
    return py::handle(error_type)(e.what());
  }
}

}  // namespace zelpy
