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
PyObject* refused_type = nullptr;
PyObject* not_found_type = nullptr;
PyObject* not_allowed_type = nullptr;
PyObject* invalid_item_type = nullptr;
PyObject* write_error_type = nullptr;
PyObject* wait_error_type = nullptr;
PyObject* wait_timeout_type = nullptr;
PyObject* work_removed_type = nullptr;
PyObject* link_lost_type = nullptr;
PyObject* description_error_type = nullptr;
PyObject* description_type_error_type = nullptr;

// `base` is a type, or a tuple of them.
PyObject* new_type(py::module_& m, const char* name, PyObject* base, const char* doc) {
  const std::string qualified = std::string("zelcapi.") + name;
  PyObject* type = PyErr_NewExceptionWithDoc(qualified.c_str(), doc, base, nullptr);
  if (type == nullptr) throw py::error_already_set();
  m.add_object(name, py::handle(type));
  return type;
}

PyObject* tuple_of(PyObject* first, PyObject* second) {
  PyObject* both = PyTuple_Pack(2, first, second);
  if (both == nullptr) throw py::error_already_set();
  return both;
}

const char* write_reason_name(zelcapi::write_error::reason why) {
  switch (why) {
    case zelcapi::write_error::timed_out: return "timed-out";
    case zelcapi::write_error::link_lost: return "link-lost";
    case zelcapi::write_error::refused: return "refused";
    case zelcapi::write_error::bad_reply: return "bad-reply";
  }
  return "unknown";
}

// A write request that got no items: its reason, request and key.
py::object write_error_object(const zelcapi::write_error& e) {
  py::object instance = py::handle(write_error_type)(e.message());
  instance.attr("reason") = write_reason_name(e.why());
  instance.attr("request") = e.request();
  instance.attr("key") = e.key();
  return instance;
}

// A wait that ended without its condition: its reason and the last record seen.
py::object wait_error_object(const zelcapi::wait_error& e) {
  PyObject* type = wait_timeout_type;
  const char* reason = "timed-out";
  if (e.why() == zelcapi::wait_error::removed) {
    type = work_removed_type;
    reason = "removed";
  } else if (e.why() == zelcapi::wait_error::link_lost) {
    type = link_lost_type;
    reason = "link-lost";
  }
  py::object instance = py::handle(type)(e.message());
  instance.attr("reason") = reason;
  instance.attr("last") = py::cast(e.last());
  return instance;
}

// The Python type and object of one library exception.
py::object instance_of(const zelbase::es::base& e) {
  if (const auto* write = dynamic_cast<const zelcapi::write_error*>(&e)) {
    return write_error_object(*write);
  }
  if (const auto* wait = dynamic_cast<const zelcapi::wait_error*>(&e)) {
    return wait_error_object(*wait);
  }
  PyObject* type = error_type;
  if (dynamic_cast<const zelbase::es::arg*>(&e) != nullptr) type = arg_error_type;
  if (dynamic_cast<const zelbase::es::uspec*>(&e) != nullptr) type = uspec_error_type;
  const auto* api = dynamic_cast<const zelbase::es::api_code*>(&e);
  if (api != nullptr) type = api_error_type;
  py::object instance = py::handle(type)(e.message());
  if (api != nullptr) instance.attr("code") = api->code();
  return instance;
}

[[noreturn]] void raise_object(const py::object& instance) {
  PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(instance.ptr())), instance.ptr());
  throw py::error_already_set();
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
  refused_type = new_type(m, "Refused", error_type,
                          "An item of a write request that the master refused: result (the "
                          "WriteResult), item (its ItemResult), outcome, id, owner.");
  access_denied_type =
      new_type(m, "AccessDenied", tuple_of(login_error_type, refused_type),
               "A login refused for its password, or another user's work that the master "
               "refused to change (owner names them).");
  no_such_user_type =
      new_type(m, "NoSuchUser", login_error_type, "A login refused for an unknown user.");
  busy_error_type = new_type(m, "BusyError", error_type,
                             "A connection called from a thread while another thread uses it.");
  // The write side's own exceptions, each after its base.
  struct declared {
    PyObject** type;
    const char* name;
    PyObject** base;
    const char* doc;
  };
  const declared write_side[] = {
      {&not_found_type, "NotFound", &refused_type, "An item naming work that is not there."},
      {&not_allowed_type, "NotAllowed", &refused_type,
       "An item that the work's state does not allow (ended, running)."},
      {&invalid_item_type, "InvalidItem", &refused_type,
       "An item that the master found wrong in itself."},
      {&write_error_type, "WriteError", &uspec_error_type,
       "A write request without an answer per item: reason (timed-out, link-lost, refused, "
       "bad-reply), request, key."},
      {&wait_error_type, "WaitError", &uspec_error_type,
       "A wait that ended without its condition: reason, last (the WorkRecord last seen)."},
      {&wait_timeout_type, "WaitTimeout", &wait_error_type, "A wait whose time-out passed."},
      {&work_removed_type, "WorkRemoved", &wait_error_type,
       "A wait whose work left the live state before its condition held."},
      {&link_lost_type, "LinkLost", &wait_error_type,
       "A wait whose state connection lost its link."},
  };
  for (const declared& d : write_side) *d.type = new_type(m, d.name, *d.base, d.doc);
  description_error_type =
      new_type(m, "DescriptionError", tuple_of(error_type, PyExc_ValueError),
               "A work description with errors, nothing sent: errors (path, message, issue).");
  description_type_error_type =
      new_type(m, "DescriptionTypeError", tuple_of(description_error_type, PyExc_TypeError),
               "A DescriptionError of which some value is of the wrong kind.");
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
  if (!refusal.is_none()) raise_object(refusal);
}

py::object refusal_of(const zelcapi::write_result& result) {
  for (std::size_t i = 0; i < result.items.size(); ++i) {
    const zelcapi::item_result& item = result.items[i];
    if (item.ok()) continue;
    PyObject* type = invalid_item_type;
    if (item.outcome == zelcapi::write_outcome::access_denied) type = access_denied_type;
    if (item.outcome == zelcapi::write_outcome::not_found) type = not_found_type;
    if (item.outcome == zelcapi::write_outcome::not_allowed) type = not_allowed_type;
    std::string text = item.text;
    if (text.empty())
      text = std::string(zelcapi::write_outcome_c_str(item.outcome)) + ": " + item.id;
    py::object refusal = py::handle(type)(text);
    refusal.attr("result") = py::cast(result);
    refusal.attr("item") = refusal.attr("result").attr("items")[py::int_(i)];
    refusal.attr("outcome") = zelcapi::write_outcome_c_str(item.outcome);
    refusal.attr("id") = item.id;
    refusal.attr("owner") = item.owner;
    // A write refusal is no login's: AccessDenied's login attributes say so.
    refusal.attr("code") = py::none();
    refusal.attr("reply") = py::none();
    return refusal;
  }
  return py::none();
}

void raise_if_refused(const zelcapi::write_result& result) {
  const py::object refusal = refusal_of(result);
  if (!refusal.is_none()) raise_object(refusal);
}

void raise_description_errors(const std::vector<zelcapi::description_error>& errors,
                              const std::vector<zelcapi::description_setting>& settings) {
  bool wrong_kind = false;
  py::list listed;
  std::string text = std::to_string(errors.size()) + (errors.size() == 1 ? " error" : " errors") +
                     " in the work description, nothing was sent:";
  for (const zelcapi::description_error& e : errors) {
    wrong_kind = wrong_kind || e.issue == zelcapi::description_issue::wrong_kind;
    // A value's error is named by the value's key; the description's by its JSON Pointer.
    std::string path = e.path;
    if (e.setting >= 0 && static_cast<std::size_t>(e.setting) < settings.size()) {
      path = "values['" + settings[static_cast<std::size_t>(e.setting)].name + "']";
    } else if (path.empty()) {
      path = "(the description)";
    }
    text += "\n  " + path + ": " + e.message;
    listed.append(py::make_tuple(path, e.message, zelcapi::description_issue_c_str(e.issue)));
  }
  py::object instance =
      py::handle(wrong_kind ? description_type_error_type : description_error_type)(text);
  instance.attr("errors") = listed;
  raise_object(instance);
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
