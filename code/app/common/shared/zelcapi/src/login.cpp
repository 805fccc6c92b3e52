// Login: the request, the not-ready retry and the redirect to the cluster master, as steps that
// a loop drives (login_async) or that the caller's thread waits for (login_sync); and the ends
// of the asynchronous operations when the link opens or is lost.
#include "connection_impl.h"
#include "zelbase/strings.h"
#include "zelcore/identifiers.h"
#include "zelcore/report.h"

namespace zelcapi {

namespace {

constexpr const char* source_file = "code\\app\\common\\shared\\zelcapi\\src\\api";
constexpr unsigned not_ready_retry_seconds = 2;
constexpr std::int64_t interface_version = 3;
constexpr std::int64_t api_not_ready = 12;
constexpr const char* status_request_name = "cluster.client.cluster-status";

using zelnet::zelp::packet;

void report(unsigned line, zelbase::severity s, const std::string& text) {
  zelcore::report(source_file, line, "zelcapi", 3, s, text);
}

}  // namespace

std::exception_ptr reported_failure(const char* file, unsigned line, zelbase::severity s,
                                    const std::string& text) {
  zelcore::report(file, line, "zelcapi", 3, s, text);
  return std::make_exception_ptr(zelbase::es::uspec(file, line, text));
}

packet connection::login_request(const std::string& username, const std::string& password,
                                 const std::map<std::string, std::string>& storages,
                                 const std::string& id, const std::string& io_port,
                                 bool broadcasts) {
  packet request(packet::type_request, "cluster.client.login");
  zelcore::properties& props = request.get_properties();
  props.set_int_value("interface-version", interface_version);
  props.set_string_value("username", username);
  props.set_string_value("password", zelcore::string_hash_SHA1_hex(password));
  if (!storages.empty()) props.set_properties_value("storages", zelcore::properties(storages));
  if (!id.empty()) props.set_string_value("id", id);
  if (!io_port.empty()) props.set_string_value("io-port", io_port);
  props.set_bool_value("broadcasts", broadcasts);
  return request;
}

const packet& connection::login_sync(const packet& request, unsigned timeout) {
  bool finished = false;
  std::exception_ptr failure;
  login_async(request, timeout, [&finished, &failure](const packet&, std::exception_ptr error) {
    failure = error;
    finished = true;
  });
  try {
    serve_until(finished);
  } catch (...) {
    // A handler raised while the login waited: the login ends here, with what it raised.
    if (operations_->login) cancel_timer(operations_->login->timer);
    operations_->login.reset();
    throw;
  }
  if (!finished) {
    operations_->login.reset();
    zelbase::es::uspec::raise(source_file, __LINE__, "disconnected");
  }
  if (failure) std::rethrow_exception(failure);
  return sync_packet_;
}

const packet& connection::login_sync(const std::string& username, const std::string& password,
                                     const std::map<std::string, std::string>& storages,
                                     const std::string& id, const std::string& io_port,
                                     unsigned timeout, bool broadcasts) {
  return login_sync(login_request(username, password, storages, id, io_port, broadcasts), timeout);
}

const packet& connection::login_sync(const std::string& username, const std::string& password,
                                     const std::string& id, const std::string& io_port,
                                     unsigned timeout, bool broadcasts) {
  return login_sync(username, password, std::map<std::string, std::string>(), id, io_port, timeout,
                    broadcasts);
}

const packet& connection::get_cluster_status() {
  packet request(packet::type_request, status_request_name);
  request.get_properties().set_int_value("interface-version", interface_version);
  return login_sync(request, timeout_);
}

// --- the asynchronous login ---
//
// A login is in one phase at a time, and _login_on is the one place where an event moves it:
//
//   phase            event                   what happens, and the next phase
//   ---------------  ----------------------  ------------------------------------------------
//   (none)           login_async             the request is sent: awaiting_reply (without a
//                                            link the login ends with "no connection")
//   awaiting_reply   answered                the reply is in the slot, or the link is gone:
//                                            reply_arrived, acted on in a callback of its own,
//                                            after the one that brought it
//   awaiting_reply   timer (the time-out)    ends with "connection timeout"
//   reply_arrived    timer (at once)         ends with the reply (the master's answer, a
//                                            refusal, a give-up written into it), or
//                                            "disconnected" without a link; a node not ready:
//                                            not_ready_pause; another node the master:
//                                            redirecting
//   not_ready_pause  timer (two seconds)     connects to the same node again: reconnecting
//   reconnecting     connected (ok)          the time-out one second shorter, the request sent
//                                            again: awaiting_reply
//   reconnecting     connected (failed)      ends with the give-up "Login Reconnection failed"
//   redirecting      connected (ok)          the request sent to the master: awaiting_reply
//   redirecting      connected (failed)      ends with "Failed to connect to master ..."
//
// An event that its phase does not expect changes nothing. The request and its reply share the
// connection's sync slot (get_sync_packet), as in every synchronous exchange: the request is
// copied there when sent, and the link puts the reply in its place.

enum class connection::login_event : std::uint8_t {
  answered,   // the reply was taken into the slot, or the link was lost while awaiting it
  timer,      // the timer that the phase set has come
  connected,  // the connect that the phase started has ended
};

void connection::login_async(const packet& request, unsigned timeout, reply_callback done) {
  if (operations_->login) {
    done(packet(), reported_failure(source_file, __LINE__, 3, "login in progress"));
    return;
  }
  const std::uint64_t id = operations_->next_id++;
  operations_->login = connection_operations::login_op{id, request, timeout, std::move(done)};
  _login_step(id, [this] { _login_send(); });
}

void connection::_login_on(std::uint64_t id, login_event event, result_code connected) {
  using phase = connection_operations::login_phase;
  _login_step(id, [this, event, connected] {
    switch (operations_->login->at) {
      case phase::awaiting_reply:
        if (event == login_event::answered) return _login_answered();
        if (event == login_event::timer) return _login_timed_out();
        return;
      case phase::reply_arrived:
        if (event == login_event::timer) return _login_handle_reply();
        return;
      case phase::not_ready_pause:
        if (event == login_event::timer) return _login_reconnect();
        return;
      case phase::reconnecting:
        if (event == login_event::connected) return _login_reconnected(connected);
        return;
      case phase::redirecting:
        if (event == login_event::connected) return _login_redirected(connected);
        return;
    }
  });
}

void connection::_login_step(std::uint64_t id, const std::function<void()>& step) {
  if (!operations_->login || operations_->login->id != id) return;
  try {
    step();
  } catch (...) {
    if (operations_->login && operations_->login->id == id) {
      _login_finish(std::current_exception());
    } else {
      throw;
    }
  }
}

void connection::_login_finish(std::exception_ptr error) {
  reply_callback done = std::move(operations_->login->done);
  cancel_timer(operations_->login->timer);
  operations_->login.reset();
  done(error ? packet() : sync_packet_, error);
}

void connection::_login_after(std::chrono::seconds delay) {
  const std::uint64_t id = operations_->login->id;
  operations_->login->timer =
      add_timer(clock::now() + delay, [this, id] { _login_on(id, login_event::timer); });
}

void connection::_login_connect(std::string host, std::string port) {
  const std::uint64_t id = operations_->login->id;
  connect_async(host, port, operations_->login->timeout,
                [this, id](result_code result) { _login_on(id, login_event::connected, result); });
}

void connection::_login_send() {
  connection_operations::login_op& login = *operations_->login;
  if (!link_) {
    const std::exception_ptr failure = reported_failure(source_file, __LINE__, 3, "no connection");
    _status(no_connection_for_login, "", false);
    _login_finish(failure);
    return;
  }
  login.at = connection_operations::login_phase::awaiting_reply;
  // After the time-out the slot keeps waiting: a late reply is taken there, not given to the
  // handler.
  _login_after(std::chrono::seconds(login.timeout));
  link_->set_waiting_sync_reply(true);
  sync_packet_ = login.request;
  link_->send(login.request);
}

void connection::_login_timed_out() {
  const std::exception_ptr failure =
      reported_failure(source_file, __LINE__, 4, "connection timeout");
  _status(login_timeout, "", false);
  _login_finish(failure);
}

void connection::_exchange_replied() {
  if (operations_->login) _login_on(operations_->login->id, login_event::answered);
}

void connection::_login_answered() {
  // The reply (or the loss of the link) is acted on after the callback that brought it, before
  // the packets that came after it.
  connection_operations::login_op& login = *operations_->login;
  login.at = connection_operations::login_phase::reply_arrived;
  cancel_timer(login.timer);
  _login_after(std::chrono::seconds(0));
}

void connection::_login_handle_reply() {
  if (!link_) {
    const std::exception_ptr failure = reported_failure(source_file, __LINE__, 4, "disconnected");
    _status(disconnected_on_login, "", false);
    _login_finish(failure);
    return;
  }
  report(__LINE__, 7, "login_sync - have connection");
  const zelcore::properties& reply = sync_packet_.get_properties();
  connection_operations::login_op& login = *operations_->login;

  if (reply.is_present("error")) {
    if (!reply.is_present("api") || reply.get_int_value("api") != api_not_ready) {
      _login_finish(nullptr);
      return;
    }
    // The retries have used up the time-out (an answer can beat even a wait of 0): one
    // second less would wrap around to an endless one.
    if (login.timeout == 0) {
      _login_timed_out();
      return;
    }
    const std::string text = zelbase::string_with_format(
        "Host was not ready, retrying in %u seconds", not_ready_retry_seconds);
    report(__LINE__, 4, text);
    disconnect(text, true);
    if (!_status(unknown_cluster_master, host_, true)) {
      _give_up(unknown_cluster_master);
      _login_finish(nullptr);
      return;
    }
    login.at = connection_operations::login_phase::not_ready_pause;
    _login_after(std::chrono::seconds(not_ready_retry_seconds));
    return;
  }

  const std::string master_id = reply.get_string_value("master-id");
  const std::string node_id = reply.get_string_value("node-id");
  report(__LINE__, 7,
         zelbase::string_with_format("l_master_id: %s. p_props.get_string_value(node_id): %s.",
                                     master_id.c_str(), node_id.c_str()));
  if (node_id == master_id) {
    // A status request follows the login's path but logs nobody in.
    if (login.request.get_name() != status_request_name) _logged_in();
    _status(login_ok, master_id, true);
    _login_finish(nullptr);
    return;
  }

  const zelcore::properties* hosts = reply.get_properties_value_ptr("host-list");
  const zelcore::properties* master =
      hosts == nullptr ? nullptr : hosts->get_properties_value_ptr(master_id);
  if (master == nullptr) {
    report(__LINE__, 4, "Cluster master is not present in host list");
    _status(cluster_master_not_found, "", false);
    _give_up(cluster_master_not_found);
    _login_finish(nullptr);
    return;
  }
  _login_redirect(master->get_string_value("hostname"), master->get_string_value("client-port"));
}

void connection::_login_reconnect() {
  operations_->login->at = connection_operations::login_phase::reconnecting;
  _login_connect(host_, port_);
}

void connection::_login_reconnected(result_code result) {
  if (result == connection_ok) {
    // The time-out shrinks by a second per retry, which bounds the retries.
    --operations_->login->timeout;
    _login_send();
    return;
  }
  _status(connection_failed, "", false);
  _give_up(login_reconnection_failed);
  _login_finish(nullptr);
}

void connection::_login_redirect(const std::string& hostname, const std::string& client_port) {
  disconnect("Host was not master. Reconnecting to master", true);
  if (!_status(reconnecting_to_master, hostname, false)) {
    _give_up(reconnecting_to_master);
    _login_finish(nullptr);
    return;
  }
  connection_operations::login_op& login = *operations_->login;
  login.at = connection_operations::login_phase::redirecting;
  login.master_host = hostname;
  login.master_port = client_port;
  _login_connect(login.master_host, login.master_port);
}

void connection::_login_redirected(result_code result) {
  if (result == connection_ok) {
    _login_send();
    return;
  }
  const connection_operations::login_op& login = *operations_->login;
  _login_finish(reported_failure(
      source_file, __LINE__, 4,
      zelbase::string_with_format("Failed to connect to master '%s:%s' after redirect (%s)",
                                  login.master_host.c_str(), login.master_port.c_str(),
                                  result_code_c_str(result))));
}

void connection::_post_connect_end() {
  if (!operations_->connecting) return;
  const std::uint64_t id = operations_->connecting->id;
  add_timer(clock::now(), [this, id] { _connect_ended(id); });
}

void connection::_link_lost() {
  _post_connect_end();
  if (operations_->login) _login_on(operations_->login->id, login_event::answered);
  // Each request ends in a timer of its own, so that a callback that raises ends no other.
  for (connection_operations::request_op& request : operations_->requests) {
    cancel_timer(request.timer);
    add_timer(clock::now(), [ended = std::move(request.done)] {
      ended(packet(), reported_failure(source_file, __LINE__, 4, "Connection error"));
    });
  }
  operations_->requests.clear();
}

}  // namespace zelcapi
