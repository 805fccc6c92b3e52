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
  py::enum_<zelcapi::result_code>(m, "ResultCode", "Every outcome that a connection reports.")
      .value("CONNECTION_OK", zelcapi::connection_ok)
      .value("WRONG_PROTOCOL_VERSION", zelcapi::wrong_protocol_version)
      .value("CONNECTION_FAILED", zelcapi::connection_failed)
      .value("CONNECTION_TIMEOUT", zelcapi::connection_timeout)
      .value("LOGIN_OK", zelcapi::login_ok)
      .value("NO_CONNECTION_FOR_LOGIN", zelcapi::no_connection_for_login)
      .value("LOGIN_RECONNECTION_FAILED", zelcapi::login_reconnection_failed)
      .value("LOGIN_TIMEOUT", zelcapi::login_timeout)
      .value("DISCONNECTED_ON_LOGIN", zelcapi::disconnected_on_login)
      .value("NO_SUCH_USER", zelcapi::no_such_user)
      .value("ACCESS_DENIED", zelcapi::access_denied)
      .value("UNKNOWN_CLUSTER_MASTER", zelcapi::unknown_cluster_master)
      .value("RECONNECTING_TO_MASTER", zelcapi::reconnecting_to_master)
      .value("CLUSTER_MASTER_NOT_FOUND", zelcapi::cluster_master_not_found)
      .value("MANUAL_DISCONNECTION", zelcapi::manual_disconnection)
      .value("CONNECTION_CLOSED", zelcapi::connection_closed)
      .def_property_readonly("text", [](zelcapi::result_code c) {
        return std::string(zelcapi::result_code_c_str(c));
      });

  py::class_<zelcapi::handler, py_handler>(m, "Handler",
                                           "Subclass and define status, disconnected or handle.")
      .def(py::init<>());

  py::class_<zelcapi::connection, connection_holder<zelcapi::connection>>(
      m, "Connection", "A connection to one cluster node; use it from one thread.")
      .def(py::init([](zelcapi::handler* h) {
             auto* c = new zelcapi::connection(h);
             release_gil_while_blocking(*c);
             return c;
           }),
           py::arg("handler") = nullptr, py::keep_alive<1, 2>())
      .def(
          "connect",
          [](zelcapi::connection& c, const std::string& host, const std::string& port,
             unsigned timeout) { return c.connect(host, port, timeout); },
          py::arg("host"), py::arg("port"), py::arg("timeout") = 15)
      .def("disconnect", &zelcapi::connection::disconnect, py::arg("reason") = "Disconnected",
           py::arg("reconnecting") = false)
      .def_property_readonly("is_connected", &zelcapi::connection::is_connected)
      .def_property_readonly("host", &zelcapi::connection::get_host)
      .def_property_readonly("port", &zelcapi::connection::get_port)
      .def_property("timeout", &zelcapi::connection::get_timeout, &zelcapi::connection::set_timeout)
      .def_property("frame_limit", &zelcapi::connection::get_frame_limit,
                    &zelcapi::connection::set_frame_limit)
      .def_property("decode_cap", &zelcapi::connection::get_decode_cap,
                    &zelcapi::connection::set_decode_cap)
      .def(
          "login",
          [](zelcapi::connection& c, const std::string& username, const std::string& password,
             unsigned timeout, bool broadcasts, const std::string& id, const std::string& io_port,
             const std::map<std::string, std::string>& storages) {
            const packet request = zelcapi::connection::login_request(username, password, storages,
                                                                      id, io_port, broadcasts);
            return to_python(c.login_sync(request, timeout).get_properties());
          },
          py::arg("username"), py::arg("password"), py::arg("timeout") = 15,
          py::arg("broadcasts") = false, py::arg("id") = "", py::arg("io_port") = "",
          py::arg("storages") = std::map<std::string, std::string>())
      .def(
          "admin_login",
          [](zelcapi::connection& c, const std::string& username, const std::string& password,
             unsigned timeout) {
            return to_python(c.admin_login_sync(username, password, timeout).get_properties());
          },
          py::arg("username"), py::arg("password"), py::arg("timeout") = 15)
      .def(
          "request",
          [](zelcapi::connection& c, const std::string& name, py::object props,
             std::optional<unsigned> timeout) {
            const packet request = packet_of(name, props);
            return to_python(
                c.send_sync(request, timeout.value_or(c.get_timeout())).get_properties());
          },
          py::arg("name"), py::arg("props") = py::none(), py::arg("timeout") = py::none(),
          "Sends a request and waits for its reply, which it returns as a dict.")
      .def(
          "send",
          [](zelcapi::connection& c, const std::string& name, py::object props, int type) {
            c.send_no_wait(packet_of(name, props, type));
          },
          py::arg("name"), py::arg("props") = py::none(), py::arg("type") = 2,
          "Sends a packet (a request by default) without waiting.")
      .def("wait", &zelcapi::connection::wait, py::arg("ms"),
           "Processes I/O for up to ms milliseconds; True when a reply ended it.")
      // The non-blocking surface: an event loop watches the files and calls step.
      .def("step", &zelcapi::connection::step,
           "Does what is due without blocking; returns the number of files and timers served.")
      .def(
          "watched_files",
          [](const zelcapi::connection& c) {
            std::vector<std::tuple<int, unsigned, std::uint64_t>> files;
            for (const auto& f : c.watched_files())
              files.emplace_back(f.descriptor, f.events, f.serial);
            return files;
          },
          "(descriptor, events, serial) for each file: events 1 readable, 2 writable.")
      .def(
          "next_deadline",
          [](const zelcapi::connection& c) -> std::optional<double> {
            const auto deadline = c.next_deadline();
            if (!deadline) return std::nullopt;
            return monotonic_seconds(*deadline);
          },
          "When step must run at the latest, on the clock of time.monotonic(); None if never.")
      .def(
          "set_watch_callback",
          [](zelcapi::connection& c, py::object callback) {
            if (callback.is_none()) return c.set_watch_callback({});
            c.set_watch_callback([held = hold(std::move(callback))] { (*held)(); });
          },
          py::arg("callback"), "callback() runs when the files or the deadline change.")
      .def(
          "connect_async",
          [](zelcapi::connection& c, const std::string& host, const std::string& port,
             unsigned timeout, py::function callback) {
            c.connect_async(
                host, port, timeout,
                [held = hold(std::move(callback))](zelcapi::result_code r) { (*held)(r); });
          },
          py::arg("host"), py::arg("port"), py::arg("timeout"), py::arg("callback"))
      .def(
          "login_async",
          [](zelcapi::connection& c, const std::string& username, const std::string& password,
             unsigned timeout, py::function callback, bool broadcasts) {
            c.login_async(
                zelcapi::connection::login_request(username, password, {}, "", "", broadcasts),
                timeout, reply_callback_of(std::move(callback)));
          },
          py::arg("username"), py::arg("password"), py::arg("timeout"), py::arg("callback"),
          py::arg("broadcasts") = false, "callback(reply, error): one of them is None.")
      .def(
          "request_async",
          [](zelcapi::connection& c, const std::string& name, py::object props, unsigned timeout,
             py::function callback) {
            c.send_async(packet_of(name, props), timeout, reply_callback_of(std::move(callback)));
          },
          py::arg("name"), py::arg("props"), py::arg("timeout"), py::arg("callback"),
          "callback(reply, error): one of them is None.");
}

}  // namespace zelpy
