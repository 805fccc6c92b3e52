// ItemType and ResultCode: Python IntEnums made by the module, and the conversion of the
// library's state_item_type and result_code to their members (and back from any int in range).
#pragma once

#include <pybind11/pybind11.h>

#include "zelcapi/connection.h"
#include "zelcapi/state.h"

namespace zelpy {

namespace py = pybind11;

// Makes ItemType and ResultCode and adds them to the module, before anything converts them.
void bind_enums(py::module_& m);

// The member of a value (a new reference), or a plain int for a value that has none.
py::object item_type_member(zelcapi::state_item_type type);
py::object result_code_member(zelcapi::result_code code);

// The library's enum of a Python int (a member or a plain int); false when it is none or out of
// range.
bool item_type_of(py::handle value, zelcapi::state_item_type& out);
bool result_code_of(py::handle value, zelcapi::result_code& out);

}  // namespace zelpy

namespace pybind11::detail {

template <>
struct type_caster<zelcapi::state_item_type> {
  PYBIND11_TYPE_CASTER(zelcapi::state_item_type, const_name("ItemType"));
  bool load(handle src, bool) { return zelpy::item_type_of(src, value); }
  static handle cast(zelcapi::state_item_type type, return_value_policy, handle) {
    return zelpy::item_type_member(type).release();
  }
};

template <>
struct type_caster<zelcapi::result_code> {
  PYBIND11_TYPE_CASTER(zelcapi::result_code, const_name("ResultCode"));
  bool load(handle src, bool) { return zelpy::result_code_of(src, value); }
  static handle cast(zelcapi::result_code code, return_value_policy, handle) {
    return zelpy::result_code_member(code).release();
  }
};

}  // namespace pybind11::detail
