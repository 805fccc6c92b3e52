// The part that the Python subclasses of Handler and StateHandler share: the status, disconnected
// and handle calls, and the lookup of the subclass's methods.
#pragma once

#include <pybind11/pybind11.h>

#include <cstddef>
#include <string>

#include "bindings.h"
#include "callbacks.h"
#include "tree.h"
#include "zelcapi/connection.h"

namespace zelpy {

// `Base` is the library's handler class; `MoreSlots` the number of methods that a subclass of
// this trampoline calls besides the three shared ones (its slots start at shared_slots).
template <class Base, std::size_t MoreSlots>
class handler_trampoline : public Base {
 public:
  bool status(zelcapi::result_code code, const std::string& text, bool flag) override {
    gil_for_callback gil;
    PyObject* f = find(status_change, "status");
    if (f == nullptr) return Base::status(code, text, flag);
    return truth(methods::call(f, self(), code, text, flag));
  }
  void disconnected(const std::string& reason, bool reconnecting) override {
    gil_for_callback gil;
    PyObject* f = find(link_lost, "disconnected");
    if (f == nullptr) return Base::disconnected(reason, reconnecting);
    methods::call(f, self(), reason, reconnecting);
  }
  bool handle(const zelnet::zelp::packet& in, zelnet::zelp::packet& out) override {
    gil_for_callback gil;
    PyObject* f = find(handle_packet, "handle");
    if (f == nullptr) return Base::handle(in, out);
    return answer(
        methods::call(f, self(), in.get_name(), in.get_type(), to_python(in.get_properties())), in,
        out);
  }

 protected:
  enum shared_slot : std::size_t { status_change, link_lost, handle_packet, shared_slots };
  using methods = python_methods<shared_slots + MoreSlots>;

  // The Python object of this handler (borrowed: it owns this C++ object).
  py::handle self() {
    if (!self_) self_ = py::cast(static_cast<Base*>(this)).ptr();
    return self_;
  }
  // The subclass's method in slot `index`, or null when the subclass does not define it.
  PyObject* find(std::size_t index, const char* name) { return methods_.find(self(), index, name); }

 private:
  py::handle self_;
  methods methods_;
};

}  // namespace zelpy
