// The connection: connect and disconnect, login with redirect to the cluster master, and the
// request/reply exchange over the connection's one link.
#include <algorithm>
#include <chrono>
#include <climits>
#include <exception>
#include <new>

#include "connection_impl.h"
#include "zelbase/exceptions.h"
#include "zelbase/strings.h"
#include "zelcore/identifiers.h"
#include "zelcore/report.h"
#include "zelnet/socket.h"

namespace zelcapi {

namespace {

constexpr const char* source_file = "code\\app\\common\\shared\\zelcapi\\src\\api";
constexpr const char* default_reason = "Connection Closed";
constexpr unsigned default_timeout = 15;

using zelnet::zelp::packet;

// Seconds to the milliseconds of ioctrl::wait, saturating instead of wrapping.
unsigned milliseconds(unsigned seconds) {
  return seconds > UINT_MAX / 1000 ? UINT_MAX : seconds * 1000;
}

void report(unsigned line, zelcore::kind k, zelbase::severity s, const std::string& text) {
  zelcore::report(source_file, line, "zelcapi", k, s, text);
}

// Reports `text` (kind 3) and raises it as es::uspec.
[[noreturn]] void report_and_raise(unsigned line, zelbase::severity s, const std::string& text) {
  report(line, 3, s, text);
  zelbase::es::uspec::raise(source_file, line, text);
}

}  // namespace

const char* result_code_c_str(result_code code) {
  switch (code) {
    case connection_ok: return "Connection OK";
    case wrong_protocol_version: return "Wrong protocol version";
    case connection_failed: return "Connection Failed";
    case connection_timeout: return "Connection Timeout";
    case login_ok: return "Login OK";
    case no_connection_for_login: return "No connection for Login";
    case login_reconnection_failed: return "Login Reconnection failed";
    case login_timeout: return "Login Timeout";
    case disconnected_on_login: return "Disconnected on Login";
    case no_such_user: return "No such user";
    case access_denied: return "Access Denied";
    case unknown_cluster_master: return "Unknown Cluster Master";
    case reconnecting_to_master: return "Reconecting to Master";
    case cluster_master_not_found: return "Cluster Master not found";
    case manual_disconnection: return "Manual Disconnection";
    case connection_closed: return "Connection Closed";
  }
  return "unspecified error";
}

handler::~handler() = default;

bool handler::status(result_code, const std::string&, bool) { return true; }

void handler::disconnected(const std::string& reason, bool reconnecting) {
  zelcore::ds::print("zelcapi::handler:error", "disconnected. reason: '%s' reconnecting: %s",
                     reason.c_str(), reconnecting ? "yes" : "no");
}

bool handler::handle(const packet&, packet&) { return true; }

connection_impl::connection_impl(connection& owner, handler* h, std::size_t frame_limit)
    : client_link(owner, zelnet::zelp::protocol_version, frame_limit),
      owner_(&owner),
      handler_(h) {}

connection_impl::~connection_impl() = default;

bool connection_impl::packet_received(const packet& in, packet& out) {
  if (in.get_type() == packet::type_reply) {
    std::uint64_t id = 0;
    if (reply_request_id(in, id)) {
      // The answer to a request of send_async, never the synchronous exchange's: it ends its own
      // request, or goes to the handler once that one has ended.
      if (owner_->_take_reply(id, in)) return true;
    } else if (waiting_sync_reply_ && in.get_name() == owner_->sync_packet_.get_name()) {
      waiting_sync_reply_ = false;
      owner_->sync_packet_ = in;
      owner_->abort();
      owner_->_exchange_replied();
      return true;
    }
  }
  return handler_ == nullptr || handler_->handle(in, out);
}

void connection_impl::packet_ahead(const packet& next) { owner_->packet_ahead(next); }

void connection_impl::version_mismatch(std::uint32_t, std::uint32_t server_version) {
  version_mismatch_ = true;
  server_version_ = server_version;
}

void connection_impl::link_established() {
  owner_->abort();
  owner_->_post_connect_end();
}

void connection::packet_ahead(const packet&) noexcept {}

connection::connection() : connection(nullptr) {}

connection::connection(handler* h)
    : zelnet::ioctrl(16000),
      handler_(h),
      timeout_(default_timeout),
      reason_(default_reason),
      reconnecting_(false),
      manual_(false),
      version_mismatch_(false),
      server_version_(0),
      frame_limit_(zelnet::zelp::default_frame_limit),
      login_frame_limit_(zelnet::zelp::default_frame_limit),
      decode_cap_(zelnet::zelp::default_decode_cap),
      logged_in_(false),
      operations_(std::make_unique<connection_operations>()) {}

connection::~connection() {
  try {
    disconnect("removing connection", false);
  } catch (...) {
    // A destructor must not throw; the link is gone either way.
  }
}

bool connection::_status(result_code code, const std::string& text, bool flag) {
  return handler_ == nullptr || handler_->status(code, text, flag);
}

result_code connection::connect(const std::string& host, const std::string& port,
                                unsigned timeout) {
  bool finished = false;
  result_code result = connection_failed;
  connect_async(host, port, timeout, [&finished, &result](result_code r) {
    result = r;
    finished = true;
  });
  try {
    if (serve_until(finished)) return result;
  } catch (const zelbase::es::base& e) {
    // A handler that raised while the link opened fails the connect, as a socket error would.
    operations_->connecting.reset();
    _connect_raised(e);
    return connection_failed;
  } catch (...) {
    operations_->connecting.reset();
    throw;
  }
  operations_->connecting.reset();
  return connection_failed;
}

void connection::connect_async(const std::string& host, const std::string& port, unsigned timeout,
                               connect_callback done) {
  if (operations_->connecting) _finish_connect(connection_failed);
  if (link_) disconnect("Already connected", true);
  host_ = host;
  port_ = port;
  // The reason, flag and manual mark that a disconnect without a link stored are kept: they
  // describe the end of the next link unless an erase resets them first.
  logged_in_ = false;
  link_.reset(new (std::nothrow) connection_impl(*this, handler_, _link_frame_limit()));
  version_mismatch_ = false;
  server_version_ = 0;
  if (!link_) {
    done(connection_failed);
    return;
  }
  link_->set_decode_cap(decode_cap_);
  try {
    zelnet::socket_connector connector;
    const bool connected = connector.create_connect(host, port, zelnet::socket_kind_tcp);
    link_->set_file(connector.get_file());
    link_->set_host(host);
    if (!connected) {
      disconnect("Failed to connect", false);
      _status(connection_failed, "", false);
      done(connection_failed);
      return;
    }
    if (!watch(connector.get_file(), *link_, 0, true, true)) {
      connector.get_file().close();
      disconnect("socket error (failed to watch socket)", false);
      _status(connection_failed, "", false);
      done(connection_failed);
      return;
    }
  } catch (const zelbase::es::base& e) {
    _connect_raised(e);
    done(connection_failed);
    return;
  }
  const std::uint64_t id = operations_->next_id++;
  const timer_id timer =
      add_timer(clock::now() + std::chrono::milliseconds(milliseconds(timeout)), [this, id] {
        if (!operations_->connecting || operations_->connecting->id != id) return;
        connect_callback ended = std::move(operations_->connecting->done);
        operations_->connecting.reset();
        disconnect("timed out", false);
        _status(connection_timeout, "", false);
        ended(connection_timeout);
      });
  operations_->connecting = connection_operations::connect_op{id, std::move(done), timer};
}

void connection::_connect_raised(const zelbase::es::base& e) {
  const std::string message = e.message();
  disconnect(zelbase::string_with_format("exception: %s", message.c_str()), false);
  _status(connection_failed, message, false);
  zelcore::ds::print("zelcapi::connect:error", "%s", message.c_str());
}

void connection::_connect_ended(std::uint64_t id) {
  if (!operations_->connecting || operations_->connecting->id != id) return;
  if (link_) {
    _finish_connect(connection_ok);
    return;
  }
  disconnect("connection closed while connecting", false);
  _finish_connect(version_mismatch_ ? wrong_protocol_version : connection_failed);
}

void connection::_finish_connect(result_code result) {
  connect_callback ended = std::move(operations_->connecting->done);
  cancel_timer(operations_->connecting->timer);
  operations_->connecting.reset();
  _status(result, "", false);
  ended(result);
}

result_code connection::connect(const std::string& host, const std::string& port) {
  return connect(host, port, timeout_);
}

void connection::disconnect(const std::string& reason, bool reconnecting) {
  reason_ = reason;
  reconnecting_ = reconnecting;
  manual_ = true;
  zelcore::report(source_file, __LINE__, "connection", 8, 6,
                  zelbase::string_with_format("Disconnect. Reason: %s. Reconnecting: %s",
                                              reason.c_str(), reconnecting ? "TRUE" : "FALSE"));
  clear();
  if (link_) _destroy_link();
}

void connection::erase(zelbase::file& f, zelnet::ioctrl::hdlr&, unsigned) {
  // A link that dropped itself on a protocol or socket error says why in a debug line; the
  // handler hears the stored reason as always.
  if (link_ && !link_->failure().empty()) {
    zelcore::ds::print("zelcapi::connection:error", "link dropped: %s", link_->failure().c_str());
  }
  // What the handler raises passes on once the link is gone and its file closed: a connection
  // never stays half connected.
  std::exception_ptr raised;
  try {
    if (manual_) {
      manual_ = false;
      _status(manual_disconnection, "", false);
    } else {
      _status(connection_closed, "", false);
    }
    if (handler_ != nullptr) handler_->disconnected(reason_, reconnecting_);
  } catch (...) {
    raised = std::current_exception();
  }
  reason_ = default_reason;
  reconnecting_ = false;
  if (link_) {
    link_->set_waiting_sync_reply(false);
    abort();
  }
  f.close();
  if (link_) _destroy_link();
  _link_lost();
  if (raised) std::rethrow_exception(raised);
}

void connection::_destroy_link() {
  version_mismatch_ = link_->has_version_mismatch();
  server_version_ = link_->get_server_version();
  // Handlers may disconnect from inside the link's own callbacks: the controller frees the
  // link once no call of it is on the stack.
  retire(std::move(link_));
}

bool connection::is_connected() const { return link_ != nullptr; }

std::string connection::get_host() const { return host_; }

std::string connection::get_port() const { return port_; }

unsigned connection::get_timeout() const { return timeout_; }

void connection::set_timeout(unsigned seconds) { timeout_ = seconds; }

unsigned connection::this_version() const { return zelnet::zelp::protocol_version; }

unsigned connection::server_version() const { return server_version_; }

void connection::set_handler(handler* h) {
  handler_ = h;
  if (link_) link_->set_handler(h);
}

void connection::set_frame_limit(std::size_t bytes) {
  frame_limit_ = bytes;
  if (link_) link_->set_frame_limit(_link_frame_limit());
}

std::size_t connection::get_frame_limit() const { return frame_limit_; }

void connection::set_login_frame_limit(std::size_t bytes) {
  login_frame_limit_ = bytes;
  if (link_) link_->set_frame_limit(_link_frame_limit());
}

std::size_t connection::get_login_frame_limit() const { return login_frame_limit_; }

void connection::set_decode_cap(std::size_t bytes_per_byte) {
  decode_cap_ = bytes_per_byte;
  if (link_) link_->set_decode_cap(bytes_per_byte);
}

std::size_t connection::get_decode_cap() const { return decode_cap_; }

std::size_t connection::_link_frame_limit() const {
  return logged_in_ ? frame_limit_ : std::min(frame_limit_, login_frame_limit_);
}

void connection::_logged_in() {
  logged_in_ = true;
  if (link_) link_->set_frame_limit(frame_limit_);
}

bool connection::_send_and_wait(const packet& p, unsigned timeout) {
  link_->set_waiting_sync_reply(true);
  sync_packet_ = p;
  link_->send(p);
  return wait(milliseconds(timeout));
}

const packet& connection::_give_up(result_code code) {
  zelcore::properties& reply = sync_packet_.get_properties();
  reply.set_string_value("error", result_code_c_str(code));
  reply.set_int_value("result-code", code);
  return sync_packet_;
}

const packet& connection::admin_login_sync(const std::string& username, const std::string& password,
                                           unsigned timeout) {
  if (!link_) report_and_raise(__LINE__, 3, "no connection");
  packet request(packet::type_request, "admin.login");
  request.get_properties().set_string_value("username", username);
  request.get_properties().set_string_value("password", zelcore::string_hash_SHA1_hex(password));
  if (!_send_and_wait(request, timeout)) report_and_raise(__LINE__, 4, "connection timeout");
  if (sync_packet_.get_type() != packet::type_reply) {
    report_and_raise(__LINE__, 4, "connection error");
  }
  if (!sync_packet_.get_properties().is_present("error")) _logged_in();
  return sync_packet_;
}

void connection::send(const packet& p) {
  send_no_wait(p);
  wait(1);
}

void connection::send_no_wait(const packet& p) {
  if (!link_) report_and_raise(__LINE__, 3, "No connection");
  link_->set_waiting_sync_reply(false);
  link_->send(p);
}

const packet& connection::send_sync(const packet& p, unsigned timeout) {
  if (!link_) report_and_raise(__LINE__, 3, "No connection");
  if (!_send_and_wait(p, timeout)) report_and_raise(__LINE__, 4, "Connection timeout");
  if (sync_packet_.get_type() == packet::type_reply) return sync_packet_;
  report_and_raise(__LINE__, 4, "Connection error");
}

const packet& connection::send_sync(const packet& p) { return send_sync(p, timeout_); }

const packet& connection::get_sync_packet() const { return sync_packet_; }

void connection::set_sync_packet(const packet& p) { sync_packet_ = p; }

}  // namespace zelcapi
