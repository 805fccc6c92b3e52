// What a connection made from Python holds beside the library's object: the thread that uses it
// (one at a time) and the Python objects that the library points to on its behalf.
#pragma once

#include <pybind11/pybind11.h>

#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>

#include "zelcapi/connection.h"
#include "zelcapi/work_client.h"

namespace zelpy {

namespace py = pybind11;

// A call from a thread while another thread is inside the same connection (zelcapi.BusyError).
class connection_busy : public std::runtime_error {
 public:
  connection_busy()
      : std::runtime_error(
            "the connection is in use by another thread: a connection serves one thread at a "
            "time (give each thread its own, or hand the calls to one thread)") {}
};

class python_side {
 public:
  python_side() = default;
  // Lets go of the kept objects, taking the GIL to do so.
  ~python_side();
  python_side(const python_side&) = delete;
  python_side& operator=(const python_side&) = delete;

  // Makes the calling thread the connection's user while it lives; calls that nest on that
  // thread (a callback's) are let in. Raises connection_busy when another thread is the user.
  class use {
   public:
    explicit use(python_side& side);
    ~use();
    use(const use&) = delete;
    use& operator=(const use&) = delete;

   private:
    python_side& side_;
  };

  // Keeps `store` (the replica's state_db, or None) alive in place of the previous one, which
  // it returns: the caller lets go of it once the replica no longer writes to it.
  py::object keep_store(py::object store);

  // The work client over `c` (this side's connection), made at the first use: over the state
  // connection and its replica when `c` is one.
  zelcapi::work_client& work(zelcapi::connection& c);

 private:
  std::unique_ptr<zelcapi::work_client> work_;
  std::mutex lock_;
  std::thread::id user_;
  unsigned depth_ = 0;
  py::object store_;
};

// The connections that Python makes. python_side comes first, so it goes last: the
// connection's replica waits for a save still writing to the store before the store is let go.
template <class Connection>
class python_connection final : public python_side, public Connection {
 public:
  using Connection::Connection;
};

// The Python side of a connection that Python made.
python_side& side_of(zelcapi::connection& c);

// The plugin database of every replica and work client made from Python: it holds no plugins.
const zelcore::plugin_db& no_plugins();

// `f` (a function of the object first, or a member function) as a method that runs with the
// calling thread as the user of the object's connection.
template <class Self, class Return, class... Args>
auto used(Return (*f)(Self&, Args...)) {
  return [f](Self& self, Args... args) -> Return {
    const python_side::use user(side_of(self));
    return f(self, std::forward<Args>(args)...);
  };
}
template <class Self, class Return, class... Args>
auto used(Return (Self::*f)(Args...)) {
  return [f](Self& self, Args... args) -> Return {
    const python_side::use user(side_of(self));
    return (self.*f)(std::forward<Args>(args)...);
  };
}
template <class Self, class Return, class... Args>
auto used(Return (Self::*f)(Args...) const) {
  return [f](Self& self, Args... args) -> Return {
    const python_side::use user(side_of(self));
    return (self.*f)(std::forward<Args>(args)...);
  };
}

}  // namespace zelpy
