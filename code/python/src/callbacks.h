// Python callables held by the library: what the library keeps may be copied and dropped while
// the GIL is released (inside a wait), so the callable lives in a holder that takes the GIL to
// call it and to let it go.
#pragma once

#include <pybind11/pybind11.h>

#include <memory>
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
