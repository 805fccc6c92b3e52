// Conversions between the property tree and Python values.
#include "tree.h"

#include <climits>

#include "zelcore/properties.h"

namespace zelpy {

namespace {

// The path of a value being converted: built into text only when an error names it.
struct key_path {
  const key_path* parent;
  const std::string* key;
  std::size_t index;

  std::string text(const std::string& root) const {
    std::string prefix = parent != nullptr ? parent->text(root) : root;
    const std::string step = key != nullptr ? *key : std::to_string(index);
    return prefix.empty() ? step : prefix + "/" + step;
  }
};

[[noreturn]] void cannot_hold(py::handle value, const key_path* at, const std::string& root) {
  const std::string where = at != nullptr ? at->text(root) : root;
  const std::string type = py::str(py::type::handle_of(value).attr("__name__"));
  throw py::type_error("a value of type " + type + " at '" + where +
                       "' cannot be held by a property tree (int, bool, str, bytes, list, "
                       "tuple, dict with str keys or None)");
}

zelcore::property_ptr convert(py::handle value, const key_path* at, const std::string& root);

zelcore::properties convert_dict(py::handle value, const key_path* at, const std::string& root) {
  // Gathered first and sorted once: a dict's keys come in its own order, and a tree takes keys
  // out of order one at a time only by moving the keys after them.
  zelcore::properties::container children;
  children.reserve(static_cast<std::size_t>(PyDict_Size(value.ptr())));
  for (const auto& [key, item] : py::reinterpret_borrow<py::dict>(value)) {
    if (!PyUnicode_Check(key.ptr())) {
      const std::string where = at != nullptr ? at->text(root) : root;
      const std::string shown = py::repr(key);
      throw py::type_error("the key " + shown + " at '" + where +
                           "' is not a string: a property tree's keys are strings");
    }
    const std::string name = key.cast<std::string>();
    const key_path here{at, &name, 0};
    zelcore::property_ptr child = convert(item, &here, root);
    children.emplace_back(name, std::move(child));
  }
  return zelcore::properties(std::move(children));
}

zelcore::property_ptr convert(py::handle value, const key_path* at, const std::string& root) {
  PyObject* o = value.ptr();
  if (o == Py_None) return zelcore::property_ptr();
  if (PyBool_Check(o)) return zelcore::make_bool(o == Py_True);
  if (PyLong_Check(o)) {
    int overflow = 0;
    const long long v = PyLong_AsLongLongAndOverflow(o, &overflow);
    if (overflow != 0) {
      const std::string where = at != nullptr ? at->text(root) : root;
      throw py::type_error("the int at '" + where + "' does not fit in 64 bits");
    }
    return zelcore::make_int(v);
  }
  if (PyUnicode_Check(o)) {
    Py_ssize_t size = 0;
    const char* data = PyUnicode_AsUTF8AndSize(o, &size);
    if (data == nullptr) throw py::error_already_set();
    return zelcore::make_string(std::string(data, static_cast<std::size_t>(size)));
  }
  if (PyBytes_Check(o)) {
    return zelcore::make_string(
        std::string(PyBytes_AS_STRING(o), static_cast<std::size_t>(PyBytes_GET_SIZE(o))));
  }
  if (PyByteArray_Check(o)) {
    return zelcore::make_string(
        std::string(PyByteArray_AS_STRING(o), static_cast<std::size_t>(PyByteArray_GET_SIZE(o))));
  }
  if (PyList_Check(o) || PyTuple_Check(o)) {
    auto list = zelbase::make_refcount<zelcore::property_list>();
    std::size_t index = 0;
    for (const py::handle item : py::reinterpret_borrow<py::sequence>(value)) {
      const key_path here{at, nullptr, index++};
      // A tree holds "no value" only under a key.
      if (item.is_none()) {
        throw py::type_error("None at '" + here.text(root) +
                             "' cannot be held by a list of a property tree (only by a dict)");
      }
      list->push_back(convert(item, &here, root));
    }
    return list;
  }
  if (PyDict_Check(o)) {
    return zelbase::make_refcount<zelcore::properties>(convert_dict(value, at, root));
  }
  cannot_hold(value, at, root);
}

py::object string_to_python(const std::string& s) {
  PyObject* text = PyUnicode_DecodeUTF8(s.data(), static_cast<Py_ssize_t>(s.size()), nullptr);
  if (text != nullptr) return py::reinterpret_steal<py::object>(text);
  // Bytes that are no UTF-8 stay bytes: nothing of them is lost.
  PyErr_Clear();
  return py::bytes(s);
}

}  // namespace

py::dict to_python(const zelcore::properties& tree) {
  py::dict out;
  for (const auto& [key, value] : tree) {
    const py::object name = string_to_python(key);
    const py::object converted = to_python(value.get());
    if (PyDict_SetItem(out.ptr(), name.ptr(), converted.ptr()) != 0) throw py::error_already_set();
  }
  return out;
}

py::object to_python(const zelcore::property* value) {
  if (value == nullptr) return py::none();
  switch (value->kind()) {
    case zelcore::property::kind_int:
      return py::int_(static_cast<const zelcore::property_int*>(value)->value());
    case zelcore::property::kind_bool:
      return py::bool_(static_cast<const zelcore::property_bool*>(value)->value());
    case zelcore::property::kind_string:
      return string_to_python(static_cast<const zelcore::property_string*>(value)->value());
    case zelcore::property::kind_list: {
      const auto& elements = static_cast<const zelcore::property_list*>(value)->value();
      py::list out(elements.size());
      std::size_t i = 0;
      for (const zelcore::property_ptr& e : elements) out[i++] = to_python(e.get());
      return std::move(out);
    }
    case zelcore::property::kind_properties:
      return to_python(*static_cast<const zelcore::properties*>(value));
  }
  return py::none();
}

zelcore::property_ptr property_from_python(py::handle value, const std::string& where) {
  return convert(value, nullptr, where);
}

zelcore::properties properties_from_python(py::handle value, const std::string& where) {
  if (value.is_none()) return zelcore::properties();
  if (!PyDict_Check(value.ptr())) cannot_hold(value, nullptr, where);
  return convert_dict(value, nullptr, where);
}

void bind_tree(py::module_& m) {
  m.def(
      "encode",
      [](py::handle value) {
        const zelcore::property_ptr p = property_from_python(value, "");
        if (!p) throw py::type_error("None alone has no network encoding");
        return py::bytes(zelcore::encode_property(*p));
      },
      py::arg("value"), "The network encoding of a value (a dict, list, str, bytes, int or bool).");
  m.def(
      "decode",
      [](py::bytes data) {
        const std::string bytes = data;
        const zelcore::property_ptr p = zelcore::decode_property(bytes.data(), bytes.size());
        return to_python(p.get());
      },
      py::arg("data"), "The value of a network encoding; raises ArgError for bad input.");
}

}  // namespace zelpy
