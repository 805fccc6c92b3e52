// Python callables held by the library: what the library keeps may be copied and dropped while
// the GIL is released (inside a wait), so the callable lives in a holder that takes the GIL to
// call it and to let it go.
#pragma once

#include <pybind11/pybind11.h>

#include <array>
#include <memory>
#include <type_traits>
#include <utility>

namespace zelpy {

namespace py = pybind11;

class held_callable {
 public:
  explicit held_callable(py::object f) : f_(std::move(f)) {}
  ~held_callable() {
    py::gil_scoped_acquire gil;
    f_ = py::object();
  }
  held_callable(const held_callable&) = delete;
  held_callable& operator=(const held_callable&) = delete;

  // Calls with the GIL held; what the callable raises leaves as py::error_already_set.
  template <class... Args>
  py::object operator()(Args&&... args) const {
    py::gil_scoped_acquire gil;
    return f_(std::forward<Args>(args)...);
  }

 private:
  py::object f_;
};

// A shared holder: the library's std::function copies share one callable.
inline std::shared_ptr<held_callable> hold(py::object f) {
  return std::make_shared<held_callable>(std::move(f));
}

}  // namespace zelpy

namespace zelpy {

// Holds the GIL for a callback: a no-op when the thread holds it already, as it does inside every
// call from Python (the lock is let go only while poll(2) blocks).
class gil_for_callback {
 public:
  gil_for_callback() : taken_(PyGILState_Check() == 0) {
    if (taken_) state_ = PyGILState_Ensure();
  }
  ~gil_for_callback() {
    if (taken_) PyGILState_Release(state_);
  }
  gil_for_callback(const gil_for_callback&) = delete;
  gil_for_callback& operator=(const gil_for_callback&) = delete;

 private:
  bool taken_;
  PyGILState_STATE state_{};
};

// A C++ value as a Python object; a Python object as itself.
template <class T, std::enable_if_t<!std::is_base_of_v<py::handle, std::decay_t<T>>, int> = 0>
py::object as_object(T&& value) {
  return py::cast(std::forward<T>(value));
}
inline py::object as_object(py::object value) { return value; }

// The methods that a Python subclass of a handler defines, looked up once on its class and
// called through vectorcall with the GIL held: a handler gets hundreds of thousands of calls a
// second. A name the class does not define is remembered as absent, and the caller runs the
// library's default instead.
template <std::size_t Count>
class python_methods {
 public:
  python_methods() = default;
  ~python_methods() {
    for (PyObject* f : functions_) Py_XDECREF(f);
  }
  python_methods(const python_methods&) = delete;
  python_methods& operator=(const python_methods&) = delete;

  // The function named `name` (slot `index`) of the class of `self`; null when there is none.
  PyObject* find(py::handle self, std::size_t index, const char* name) {
    if (!looked_up_[index]) {
      looked_up_[index] = true;
      PyObject* f = PyObject_GetAttrString(reinterpret_cast<PyObject*>(Py_TYPE(self.ptr())), name);
      if (f == nullptr) PyErr_Clear();
      functions_[index] = f;
    }
    return functions_[index];
  }

  // Calls `f(self, args...)`; what it raises leaves as py::error_already_set.
  template <class... Args>
  static py::object call(PyObject* f, py::handle self, Args&&... args) {
    py::object converted[] = {py::reinterpret_borrow<py::object>(self),
                              as_object(std::forward<Args>(args))...};
    PyObject* raw[sizeof...(Args) + 1];
    for (std::size_t i = 0; i <= sizeof...(Args); ++i) raw[i] = converted[i].ptr();
    PyObject* result = PyObject_Vectorcall(f, raw, sizeof...(Args) + 1, nullptr);
    if (result == nullptr) throw py::error_already_set();
    return py::reinterpret_steal<py::object>(result);
  }

 private:
  std::array<PyObject*, Count> functions_{};
  std::array<bool, Count> looked_up_{};
};

}  // namespace zelpy
