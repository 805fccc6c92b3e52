// The property tree and Python values, both ways: a tree becomes dicts, lists, str (bytes when
// not UTF-8), int, bool and None; a Python value that a tree cannot hold raises TypeError naming
// the place where it sits.
#pragma once

#include <pybind11/pybind11.h>

#include <string>

#include "zelcore/properties.h"

namespace zelpy {

namespace py = pybind11;

// A property as a Python value; a null property is None.
py::object to_python(const zelcore::property* value);
py::dict to_python(const zelcore::properties& tree);

// A Python value as a property; raises TypeError naming `where` (a key path) for a float, a
// set, a key that is not a string or anything else a tree cannot hold.
zelcore::property_ptr property_from_python(py::handle value, const std::string& where);
// A dict (or None: an empty tree) as a tree; raises TypeError for anything else.
zelcore::properties properties_from_python(py::handle value, const std::string& where);

// The conversions as the module's functions, and encode/decode of the network encoding.
void bind_tree(py::module_& m);

}  // namespace zelpy
