// The IntEnums of the module. Their members are made once and kept: a handler receives one with
// each of hundreds of thousands of changes a second, at the cost of a plain int.
#include "enums.h"

#include <array>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace zelpy {

namespace {

constexpr std::size_t item_types = 7;
constexpr std::size_t result_codes = 16;  // 1 to 16

// Strong references that live as long as the process: the module is never unloaded.
std::array<PyObject*, item_types> item_type_members{};
std::array<PyObject*, result_codes + 1> result_code_members{};

// Makes the IntEnum `name` with `values` in the module and returns it.
py::object int_enum(py::module_& m, const char* name, const char* doc,
                    const std::vector<std::pair<const char*, int>>& values) {
  py::list members;
  for (const auto& [member, value] : values) members.append(py::make_tuple(member, value));
  py::object type =
      py::module_::import("enum").attr("IntEnum")(name, members, py::arg("module") = "zelcapi");
  type.attr("__doc__") = doc;
  m.add_object(name, type);
  return type;
}

template <std::size_t N>
void keep_members(const py::object& type, std::array<PyObject*, N>& members) {
  for (std::size_t value = 0; value < N; ++value) {
    py::object member = type.attr("_value2member_map_").attr("get")(value);
    if (!member.is_none()) members[value] = member.release().ptr();
  }
}

// The int value of a Python int in [low, high]; false for anything else.
bool int_in_range(py::handle value, long low, long high, long& out) {
  if (!PyLong_Check(value.ptr()) || PyBool_Check(value.ptr())) return false;
  int overflow = 0;
  out = PyLong_AsLongAndOverflow(value.ptr(), &overflow);
  return overflow == 0 && out >= low && out <= high;
}

template <std::size_t N>
py::object member_or_int(const std::array<PyObject*, N>& members, std::int64_t value) {
  if (value >= 0 && static_cast<std::size_t>(value) < N &&
      members[static_cast<std::size_t>(value)] != nullptr) {
    return py::reinterpret_borrow<py::object>(members[static_cast<std::size_t>(value)]);
  }
  return py::int_(value);
}

}  // namespace

void bind_enums(py::module_& m) {
  const py::object item_type = int_enum(m, "ItemType", "The seven kinds of state items.",
                                        {{"CLIENT", zelcapi::state_item_client},
                                         {"NODE", zelcapi::state_item_node},
                                         {"SUBMISSION", zelcapi::state_item_submission},
                                         {"SOURCE", zelcapi::state_item_source},
                                         {"SLOT", zelcapi::state_item_slot},
                                         {"JOB", zelcapi::state_item_job},
                                         {"TASK", zelcapi::state_item_task}});
  keep_members(item_type, item_type_members);

  const py::object result_code =
      int_enum(m, "ResultCode", "Every outcome that a connection reports; .text is its text.",
               {{"CONNECTION_OK", zelcapi::connection_ok},
                {"WRONG_PROTOCOL_VERSION", zelcapi::wrong_protocol_version},
                {"CONNECTION_FAILED", zelcapi::connection_failed},
                {"CONNECTION_TIMEOUT", zelcapi::connection_timeout},
                {"LOGIN_OK", zelcapi::login_ok},
                {"NO_CONNECTION_FOR_LOGIN", zelcapi::no_connection_for_login},
                {"LOGIN_RECONNECTION_FAILED", zelcapi::login_reconnection_failed},
                {"LOGIN_TIMEOUT", zelcapi::login_timeout},
                {"DISCONNECTED_ON_LOGIN", zelcapi::disconnected_on_login},
                {"NO_SUCH_USER", zelcapi::no_such_user},
                {"ACCESS_DENIED", zelcapi::access_denied},
                {"UNKNOWN_CLUSTER_MASTER", zelcapi::unknown_cluster_master},
                {"RECONNECTING_TO_MASTER", zelcapi::reconnecting_to_master},
                {"CLUSTER_MASTER_NOT_FOUND", zelcapi::cluster_master_not_found},
                {"MANUAL_DISCONNECTION", zelcapi::manual_disconnection},
                {"CONNECTION_CLOSED", zelcapi::connection_closed}});
  // An attribute that is no member: the fixed text of the code.
  result_code.attr("text") =
      py::module_::import("builtins")
          .attr("property")(py::cpp_function([](py::handle code) {
                              zelcapi::result_code c{};
                              if (!result_code_of(code, c))
                                throw py::type_error("not a ResultCode");
                              return std::string(zelcapi::result_code_c_str(c));
                            }),
                            py::none(), py::none(),
                            "The code's fixed text (\"Access Denied\" for ACCESS_DENIED).");
  keep_members(result_code, result_code_members);
}

py::object item_type_member(zelcapi::state_item_type type) {
  return member_or_int(item_type_members, type);
}

py::object result_code_member(zelcapi::result_code code) {
  return member_or_int(result_code_members, code);
}

bool item_type_of(py::handle value, zelcapi::state_item_type& out) {
  long v = 0;
  if (!int_in_range(value, 0, zelcapi::state_item_task, v)) return false;
  out = static_cast<zelcapi::state_item_type>(v);
  return true;
}

bool result_code_of(py::handle value, zelcapi::result_code& out) {
  long v = 0;
  if (!int_in_range(value, zelcapi::connection_ok, zelcapi::connection_closed, v)) return false;
  out = static_cast<zelcapi::result_code>(v);
  return true;
}

}  // namespace zelpy
