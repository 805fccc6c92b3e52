// The connection: its handler, connect, login and requests (blocking with the GIL released, or
// ending through a callback), and the non-blocking surface that an event loop drives.
#include <pybind11/functional.h>
#include <pybind11/stl.h>

#include <chrono>

#include "bindings.h"
#include "callbacks.h"
#include "errors.h"
#include "handler_trampoline.h"
#include "tree.h"
#include "waits.h"
#include "zelcapi/connection.h"

namespace zelpy {

namespace {

using zelnet::zelp::packet;

// A Python subclass of Handler: each method it defines replaces the library's default.
class py_handler : public handler_trampoline<zelcapi::handler, 0> {};

zelcapi::connection::reply_callback reply_callback_of(py::function callback) {
  return [held = hold(std::move(callback))](const packet& reply, std::exception_ptr error) {
    gil_for_callback gil;
    if (error) {
      (*held)(py::none(), exception_object(error));
    } else {
      (*held)(to_python(reply.get_properties()), py::none());
    }
  };
}

// The same for a login: a reply that refuses ends it with the refusal as the error.
zelcapi::connection::reply_callback login_callback_of(py::function callback) {
  return [held = hold(std::move(callback))](const packet& reply, std::exception_ptr error) {
    gil_for_callback gil;
    py::object refusal = error ? exception_object(error) : login_refusal(reply.get_properties());
    if (!refusal.is_none()) {
      (*held)(py::none(), refusal);
    } else {
      (*held)(to_python(reply.get_properties()), py::none());
    }
  };
}

// A port as the library takes it: a str as it is, an int from 0 to 65535 as its digits.
std::string port_text(py::handle port) {
  if (PyUnicode_Check(port.ptr())) return port.cast<std::string>();
  if (PyLong_Check(port.ptr()) && !PyBool_Check(port.ptr())) {
    int overflow = 0;
    const long number = PyLong_AsLongAndOverflow(port.ptr(), &overflow);
    if (overflow != 0 || number < 0 || number > 65535) {
      throw py::value_error("port " + py::str(port).cast<std::string>() +
                            " is not from 0 to 65535");
    }
    return std::to_string(number);
  }
  throw py::type_error("port must be a str or an int, not " +
                       py::str(py::type::handle_of(port).attr("__name__")).cast<std::string>());
}

// Drops the link of a call that is raising already: what the handler raises meanwhile is
// dropped too, so that the first exception is the one that leaves.
void drop_quietly(zelcapi::connection& c, const std::string& reason) {
  try {
    c.disconnect(reason, false);
  } catch (py::error_already_set& e) {
    e.discard_as_unraisable("disconnecting an interrupted connect");
  } catch (...) {
    // The link is gone either way.
  }
}

using storage_map = std::map<std::string, std::string>;

packet login_packet(const std::string& username, const std::string& password, bool broadcasts,
                    const std::string& id, const std::string& io_port,
                    const storage_map& storages) {
  return zelcapi::connection::login_request(username, password, storages, id, io_port, broadcasts);
}

packet packet_of(const std::string& name, py::handle props,
                 std::int32_t type = packet::type_request) {
  packet p(type, name);
  p.get_properties() = properties_from_python(props, name);
  return p;
}

// Seconds on the clock of time.monotonic() (and of asyncio's loop.time()).
double monotonic_seconds(zelnet::ioctrl::clock::time_point t) {
  return std::chrono::duration<double>(t.time_since_epoch()).count();
}

}  // namespace

bool truth(const py::object& answer) { return answer.is_none() || py::bool_(answer); }

bool answer(const py::object& reply, const packet& in, packet& out) {
  if (reply.is_none()) return true;
  out = packet(packet::type_reply, in.get_name());
  out.get_properties() = properties_from_python(reply, in.get_name());
  return true;
}

void bind_connection(py::module_& m) {
  py::class_<zelcapi::handler, py_handler>(m, "Handler",
                                           "Subclass and define status, disconnected or handle.")
      .def(py::init<>());

  using connection = zelcapi::connection;
  py::class_<connection, connection_holder<connection>>(
      m, "Connection",
      "A connection to one cluster node. One thread at a time uses it: a call from another "
      "thread meanwhile raises BusyError.")
      .def(py::init([](zelcapi::handler* h) -> connection* {
             auto* c = new python_connection<connection>(h);
             release_gil_while_blocking(*c);
             return c;
           }),
           py::arg("handler") = nullptr, py::keep_alive<1, 2>())
      .def("connect",
           used(+[](connection& c, const std::string& host, py::object port, unsigned timeout) {
             const std::string service = port_text(port);
             try {
               return c.connect(host, service, timeout);
             } catch (py::error_already_set&) {
               // Interrupted (Ctrl-C) or a handler raised: no half-opened link is left.
               drop_quietly(c, "connect interrupted");
               throw;
             }
           }),
           py::arg("host"), py::arg("port"), py::arg("timeout") = 15,
           "Connects (port: a str or an int) and returns the ResultCode; a connect that raises "
           "(Ctrl-C) leaves no link.")
      .def("disconnect", used(&connection::disconnect), py::arg("reason") = "Disconnected",
           py::arg("reconnecting") = false)
      .def_property_readonly("is_connected", used(&connection::is_connected))
      .def_property_readonly("host", used(&connection::get_host))
      .def_property_readonly("port", used(&connection::get_port))
      .def_property("timeout", used(&connection::get_timeout), used(&connection::set_timeout))
      .def_property("frame_limit", used(&connection::get_frame_limit),
                    used(&connection::set_frame_limit))
      .def_property("decode_cap", used(&connection::get_decode_cap),
                    used(&connection::set_decode_cap))
      .def("login",
           used(+[](connection& c, const std::string& username, const std::string& password,
                    unsigned timeout, bool broadcasts, const std::string& id,
                    const std::string& io_port, const storage_map& storages) {
             const packet& reply = c.login_sync(
                 login_packet(username, password, broadcasts, id, io_port, storages), timeout);
             raise_if_refused(reply.get_properties());
             return to_python(reply.get_properties());
           }),
           py::arg("username"), py::arg("password"), py::arg("timeout") = 15,
           py::arg("broadcasts") = false, py::arg("id") = "", py::arg("io_port") = "",
           py::arg("storages") = storage_map(),
           "Logs in, following the redirect to the master; returns the reply. A refused login "
           "raises LoginError (AccessDenied, NoSuchUser).")
      .def("admin_login",
           used(+[](connection& c, const std::string& username, const std::string& password,
                    unsigned timeout) {
             const packet& reply = c.admin_login_sync(username, password, timeout);
             raise_if_refused(reply.get_properties());
             return to_python(reply.get_properties());
           }),
           py::arg("username"), py::arg("password"), py::arg("timeout") = 15,
           "Logs in as an administrator; a refusal raises as login's does.")
      .def("request",
           used(+[](connection& c, const std::string& name, py::object props,
                    std::optional<unsigned> timeout) {
             const packet request = packet_of(name, props);
             return to_python(
                 c.send_sync(request, timeout.value_or(c.get_timeout())).get_properties());
           }),
           py::arg("name"), py::arg("props") = py::none(), py::arg("timeout") = py::none(),
           "Sends a request and waits for its reply, which it returns as a dict.")
      .def("send", used(+[](connection& c, const std::string& name, py::object props, int type) {
             c.send_no_wait(packet_of(name, props, type));
           }),
           py::arg("name"), py::arg("props") = py::none(), py::arg("type") = 2,
           "Sends a packet (a request by default) without waiting.")
      .def("wait", used(+[](connection& c, unsigned ms) { return c.wait(ms); }), py::arg("ms"),
           "Processes I/O for up to ms milliseconds; True when a reply ended it.")
      // The non-blocking surface: an event loop watches the files and calls step.
      .def("step", used(+[](connection& c) { return c.step(); }),
           "Does what is due without blocking; returns the number of files and timers served.")
      .def("watched_files", used(+[](connection& c) {
             std::vector<std::tuple<int, unsigned, std::uint64_t>> files;
             for (const auto& f : c.watched_files())
               files.emplace_back(f.descriptor, f.events, f.serial);
             return files;
           }),
           "(descriptor, events, serial) for each file: events 1 readable, 2 writable.")
      .def("next_deadline", used(+[](connection& c) -> std::optional<double> {
             const auto deadline = c.next_deadline();
             if (!deadline) return std::nullopt;
             return monotonic_seconds(*deadline);
           }),
           "When step must run at the latest, on the clock of time.monotonic(); None if never.")
      .def("set_watch_callback", used(+[](connection& c, py::object callback) {
             if (callback.is_none()) return c.set_watch_callback({});
             c.set_watch_callback([held = hold(std::move(callback))] { (*held)(); });
           }),
           py::arg("callback"), "callback() runs when the files or the deadline change.")
      .def("connect_async",
           used(+[](connection& c, const std::string& host, py::object port, unsigned timeout,
                    py::function callback) {
             c.connect_async(
                 host, port_text(port), timeout,
                 [held = hold(std::move(callback))](zelcapi::result_code r) { (*held)(r); });
           }),
           py::arg("host"), py::arg("port"), py::arg("timeout"), py::arg("callback"))
      .def("login_async",
           used(+[](connection& c, const std::string& username, const std::string& password,
                    unsigned timeout, py::function callback, bool broadcasts, const std::string& id,
                    const std::string& io_port, const storage_map& storages) {
             c.login_async(login_packet(username, password, broadcasts, id, io_port, storages),
                           timeout, login_callback_of(std::move(callback)));
           }),
           py::arg("username"), py::arg("password"), py::arg("timeout"), py::arg("callback"),
           py::arg("broadcasts") = false, py::arg("id") = "", py::arg("io_port") = "",
           py::arg("storages") = storage_map(),
           "callback(reply, error): one of them is None; a refusal is the error.")
      .def("request_async",
           used(+[](connection& c, const std::string& name, py::object props, unsigned timeout,
                    py::function callback) {
             c.send_async(packet_of(name, props), timeout, reply_callback_of(std::move(callback)));
           }),
           py::arg("name"), py::arg("props"), py::arg("timeout"), py::arg("callback"),
           "callback(reply, error): one of them is None.");
}

}  // namespace zelpy
