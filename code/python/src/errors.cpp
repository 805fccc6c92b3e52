// The library's exceptions, translated to Python's.
#include "errors.h"

#include <strings.h>

#include "connection_side.h"
#include "enums.h"
#include "tree.h"
#include "zelbase/exceptions.h"
#include "zelcapi/connection.h"

namespace zelpy {

namespace {

// Created once by bind_errors, alive as long as the module.
PyObject* error_type = nullptr;
PyObject* arg_error_type = nullptr;
PyObject* uspec_error_type = nullptr;
PyObject* api_error_type = nullptr;
PyObject* login_error_type = nullptr;
PyObject* access_denied_type = nullptr;
PyObject* no_such_user_type = nullptr;
PyObject* busy_error_type = nullptr;

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
  login_error_type = new_type(m, "LoginError", error_type,
                              "A refused login: code (a ResultCode, or None), reply (the dict).");
  access_denied_type =
      new_type(m, "AccessDenied", login_error_type, "A login refused for its password.");
  no_such_user_type =
      new_type(m, "NoSuchUser", login_error_type, "A login refused for an unknown user.");
  busy_error_type = new_type(m, "BusyError", error_type,
                             "A connection called from a thread while another thread uses it.");
  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (const zelbase::es::base& e) {
      const py::object instance = instance_of(e);
      PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(instance.ptr())), instance.ptr());
    } catch (const connection_busy& e) {
      PyErr_SetString(busy_error_type, e.what());
    }
  });
}

py::object login_refusal(const zelcore::properties& reply) {
  if (!reply.is_present("error")) return py::none();
  const std::string text = reply.get_string_value("error", "");
  // The client's own give-up carries its code; the cluster's refusal only its text.
  zelcapi::result_code code{};
  bool known = false;
  if (reply.is_present("result-code")) {
    known = result_code_of(py::int_(reply.get_int_value("result-code", 0)), code);
  } else {
    for (const zelcapi::result_code c : {zelcapi::no_such_user, zelcapi::access_denied}) {
      if (strcasecmp(text.c_str(), zelcapi::result_code_c_str(c)) == 0) {
        code = c;
        known = true;
      }
    }
  }
  PyObject* type = login_error_type;
  if (known && code == zelcapi::access_denied) type = access_denied_type;
  if (known && code == zelcapi::no_such_user) type = no_such_user_type;
  py::object refusal = py::handle(type)(text);
  refusal.attr("code") = known ? result_code_member(code) : py::none();
  refusal.attr("reply") = to_python(reply);
  return refusal;
}

void raise_if_refused(const zelcore::properties& reply) {
  const py::object refusal = login_refusal(reply);
  if (refusal.is_none()) return;
  PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(refusal.ptr())), refusal.ptr());
  throw py::error_already_set();
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
