// The client's connection to a cluster node: result codes, the handler interface, connect,
// login with redirect to the cluster master, and the request/reply exchange.
//
// Threads: the connection starts no thread. All I/O, and every handler call, happens on the
// thread that is inside connect, login_sync, admin_login_sync, send, send_sync,
// get_cluster_status, wait, run or step. A connection is used by one thread at a time.
//
// Event loops: connect_async, login_async and send_async start an operation and return; it
// completes through its callback inside a later step(), wait() or run() (see zelnet::ioctrl for
// the files, the deadline and the step that an application's loop drives).
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "zelbase/exceptions.h"
#include "zelbase/refcount.h"
#include "zelcapi/export.h"
#include "zelnet/ioctrl.h"
#include "zelnet/packet.h"

namespace zelcapi {

// Every outcome that the connection reports. The numbers travel in login replies
// ("result-code") and must not change.
enum result_code : std::int32_t {
  connection_ok = 1,
  wrong_protocol_version = 2,
  connection_failed = 3,
  connection_timeout = 4,
  login_ok = 5,
  no_connection_for_login = 6,
  login_reconnection_failed = 7,
  login_timeout = 8,
  disconnected_on_login = 9,
  no_such_user = 10,
  access_denied = 11,
  unknown_cluster_master = 12,
  reconnecting_to_master = 13,
  cluster_master_not_found = 14,
  manual_disconnection = 15,
  connection_closed = 16,
};

// The fixed English text of a code ("Reconecting to Master" for 13, spelled so on purpose);
// "unspecified error" for any other value. Never fails; the text is never freed.
ZELCAPI_EXPORT const char* result_code_c_str(result_code code);

// Receives a connection's events. Not owned by the connection: keep it alive while a
// connection points at it. Called on the thread that waits on the connection.
class ZELCAPI_EXPORT handler {
 public:
  virtual ~handler();
  // A status change. The result is consulted only during a login, where false stops the
  // login from retrying or redirecting. Default: true.
  virtual bool status(result_code code, const std::string& text, bool flag);
  // The link has gone. Default: a debug print in "zelcapi::handler:error". What this (or the
  // status call before it) raises passes on once the link is destroyed and its socket closed.
  virtual void disconnected(const std::string& reason, bool reconnecting);
  // A packet that is not the reply of a pending synchronous request; a packet left in `out`
  // with a name is sent back. Default: ignores it and returns true.
  virtual bool handle(const zelnet::zelp::packet& in, zelnet::zelp::packet& out);
};

class connection_impl;
struct connection_operations;

// A connection to one cluster node. It is its own I/O controller: call run() (or wait()) on
// it to receive unsolicited packets, which go to the handler.
class ZELCAPI_EXPORT connection : public zelnet::ioctrl, public zelbase::object_refcount {
 public:
  connection();
  explicit connection(handler* h);
  // Disconnects with the reason "removing connection"; never throws.
  ~connection() override;
  connection(const connection&) = delete;
  connection& operator=(const connection&) = delete;

  // Connects to `host`:`port` and waits up to `timeout` seconds for the link. Returns
  // connection_ok, wrong_protocol_version, connection_failed or connection_timeout (also told
  // to the handler); a connection that was connected is disconnected first.
  result_code connect(const std::string& host, const std::string& port, unsigned timeout);
  result_code connect(const std::string& host, const std::string& port);

  // The end of connect_async: the result that connect would return.
  using connect_callback = std::function<void(result_code result)>;
  // The end of an asynchronous exchange: the reply (valid during the call), or, when `error` is
  // set, the es::uspec that the synchronous form raises (the reply is then the sync packet).
  using reply_callback =
      std::function<void(const zelnet::zelp::packet& reply, std::exception_ptr error)>;

  // Starts what connect does and returns: `done` gets the result from inside a later step, wait
  // or run, or from this call when the connect fails at once. The handler hears the same
  // status changes. A connect_async or disconnect before the end ends it with connection_failed.
  void connect_async(const std::string& host, const std::string& port, unsigned timeout,
                     connect_callback done);
  // Drops the link; the handler hears of it through status (manual_disconnection) and
  // disconnected (reason, reconnecting). Without a link it only logs and stores the reason:
  // the end of the next link then reports it.
  void disconnect(const std::string& reason, bool reconnecting);
  bool is_connected() const;
  std::string get_host() const;
  std::string get_port() const;
  // The default time-out in seconds (15) of connect, send_sync and get_cluster_status.
  unsigned get_timeout() const;
  void set_timeout(unsigned seconds);
  // The protocol version of this library: 2.
  unsigned this_version() const;
  // The version that the server of the last link announced when it refused ours; else 0.
  unsigned server_version() const;
  // Replaces the handler (may be null), also for the live link.
  void set_handler(handler* h);
  // The largest frame payload in bytes that the link accepts once a login has succeeded
  // (default 64 MiB; a frame announces at most 4 GiB - 1). A larger frame drops the link, which
  // the handler hears as a disconnection; the reason goes to the "zelcapi::connection:error"
  // debug print. Applies to the live link at once when it is logged in.
  void set_frame_limit(std::size_t bytes);
  std::size_t get_frame_limit() const;
  // The limit of a link until its login has succeeded (default 64 MiB): a peer that has not
  // logged the client in cannot make it buffer more. The smaller of the two limits applies.
  void set_login_frame_limit(std::size_t bytes);
  std::size_t get_login_frame_limit() const;
  // The memory in bytes that decoding a received packet may take per payload byte (default 32;
  // real trees take about 5; 0: no cap). A packet whose tree would take more drops the link,
  // with a reason that names the payload's size and the cap; so no packet makes the link hold
  // more than the frame limit times the cap. Applies to the live link from its next packet.
  void set_decode_cap(std::size_t bytes_per_byte);
  std::size_t get_decode_cap() const;

  // Logs in and follows the cluster: retries a node that is not ready (2 seconds apart, the
  // time-out one second shorter each time) and reconnects to the master a node names. Returns
  // the reply (kept until the next synchronous exchange); client-side give-ups come back in
  // it as "error" and "result-code". Raises es::uspec "no connection", "connection timeout",
  // "disconnected" or "Failed to connect to master ..." for transport failures.
  const zelnet::zelp::packet& login_sync(const zelnet::zelp::packet& request, unsigned timeout);
  // Builds "cluster.client.login" (the password travels as its SHA-1 hex digest) and logs in.
  const zelnet::zelp::packet& login_sync(const std::string& username, const std::string& password,
                                         const std::map<std::string, std::string>& storages,
                                         const std::string& id, const std::string& io_port,
                                         unsigned timeout, bool broadcasts);
  const zelnet::zelp::packet& login_sync(const std::string& username, const std::string& password,
                                         const std::string& id, const std::string& io_port,
                                         unsigned timeout, bool broadcasts);
  // Sends "admin.login" and returns the reply; follows no redirect, calls no handler. Raises
  // es::uspec "no connection", "connection timeout" or "connection error".
  // Starts what login_sync does and returns: the not-ready retries, the redirect and its connect
  // run inside later steps, and `done` gets the reply or the failure that login_sync raises
  // (from this call when there is no connection). One login at a time: another one meanwhile
  // fails with "login in progress".
  void login_async(const zelnet::zelp::packet& request, unsigned timeout, reply_callback done);
  // The "cluster.client.login" request that login_sync sends (the password as its SHA-1 hex
  // digest; "storages", "id" and "io-port" only when not empty).
  static zelnet::zelp::packet login_request(const std::string& username,
                                            const std::string& password,
                                            const std::map<std::string, std::string>& storages,
                                            const std::string& id, const std::string& io_port,
                                            bool broadcasts);
  const zelnet::zelp::packet& admin_login_sync(const std::string& username,
                                               const std::string& password, unsigned timeout);

  // Sends `p` and lets the I/O run once (1 ms). A reply still awaited by send_sync becomes an
  // unsolicited packet. Raises es::uspec "No connection".
  void send(const zelnet::zelp::packet& p);
  // Sends `p` only (bytes the socket does not take at once leave at the next wait, run or step).
  void send_no_wait(const zelnet::zelp::packet& p);
  // Sends `p` and waits up to `timeout` seconds for the reply of the same name (one that carries
  // no request id of send_async). Raises
  // es::uspec "No connection", "Connection timeout" (the connection stays; a late reply is
  // taken at the next wait) or "Connection error" (the link was lost).
  const zelnet::zelp::packet& send_sync(const zelnet::zelp::packet& p, unsigned timeout);
  const zelnet::zelp::packet& send_sync(const zelnet::zelp::packet& p);
  // Sends `p` with a request id of its own in its bounce tree (the key "async-request-id", which
  // the peer copies into its reply) and returns; `done` gets the reply that carries that id, with
  // the bounce tree as `p` had it, or es::uspec "Connection timeout" after `timeout` seconds (a
  // later reply goes to the handler), "Connection error" when the link is lost, or, from this
  // call, "No connection" or the refusal of a "bounce" that is not a tree. Any number may be in
  // flight, of any names; each reply ends its own request, whatever the order. send_sync never
  // takes a reply that carries such an id.
  void send_async(const zelnet::zelp::packet& p, unsigned timeout, reply_callback done);
  // The slot of the synchronous exchange: the last reply (or pending request).
  const zelnet::zelp::packet& get_sync_packet() const;
  void set_sync_packet(const zelnet::zelp::packet& p);
  // Sends "cluster.client.cluster-status" through login_sync, with the stored time-out.
  const zelnet::zelp::packet& get_cluster_status();

 protected:
  // The controller dropped the socket (peer gone or disconnect): tells the handler, ends a
  // pending wait and destroys the link.
  void erase(zelbase::file& f, zelnet::ioctrl::hdlr& h, unsigned flags) override;

 private:
  friend class connection_impl;

  // Called inside wait(), run() or step() before a packet goes to the handler, when the packet
  // after it has arrived whole and been decoded too: a hint for a subclass to start early on what
  // that packet will touch (fetching it into cache). It must change nothing that the packet handled
  // first could see. The default does nothing.
  virtual void packet_ahead(const zelnet::zelp::packet& next) noexcept;

  // The asynchronous operations: the connect's end, the login's steps, the requests in flight.
  // A handler raised while a link opened: the connect fails with its message.
  void _connect_raised(const zelbase::es::base& e);
  // The link is established or gone: the connect in progress ends after the current callback.
  void _post_connect_end();
  void _connect_ended(std::uint64_t id);
  void _finish_connect(result_code result);
  // The asynchronous login: its phases and their transitions are listed in login.cpp, and
  // _login_on is where an event moves the login `id` on (if it is still the current one).
  enum class login_event : std::uint8_t;
  void _login_on(std::uint64_t id, login_event event, result_code connected = connection_ok);
  // Runs `step` for the login `id` if it is still the current one; a step that raises ends the
  // login with what it raised.
  void _login_step(std::uint64_t id, const std::function<void()>& step);
  // The steps, each run by _login_on in its phase.
  void _login_send();
  void _login_answered();
  void _login_handle_reply();
  void _login_reconnect();
  void _login_reconnected(result_code result);
  void _login_redirect(const std::string& hostname, const std::string& client_port);
  void _login_redirected(result_code result);
  // The reply did not come in time, or the retries used the time-out up.
  void _login_timed_out();
  void _login_finish(std::exception_ptr error);
  // The login's timer: the event `timer` after `delay`; a connect that ends in `connected`.
  void _login_after(std::chrono::seconds delay);
  void _login_connect(std::string host, std::string port);
  // The sync slot took a reply: the login awaiting it goes on.
  void _exchange_replied();
  // The reply carrying request id `id`: ends that request of send_async (if it is still waiting
  // and has the reply's name) and returns true.
  bool _take_reply(std::uint64_t id, const zelnet::zelp::packet& in);
  // The link ended: the operations that needed it end after the current callback.
  void _link_lost();

  // Copies the link's version outcome and destroys it.
  void _destroy_link();
  // The common part of the synchronous exchanges: flag, slot, send, wait.
  bool _send_and_wait(const zelnet::zelp::packet& p, unsigned timeout);
  // Tells the handler, if there is one; returns its answer (true without a handler).
  bool _status(result_code code, const std::string& text, bool flag);
  // Writes a client-side give-up into the sync packet and returns it.
  const zelnet::zelp::packet& _give_up(result_code code);
  // The frame limit that fits the link's login state: the full one once logged in.
  std::size_t _link_frame_limit() const;
  // The login succeeded: the full frame limit applies to the link from now on.
  void _logged_in();

  handler* handler_;
  std::string host_;
  std::string port_;
  zelnet::zelp::packet sync_packet_;
  std::uint32_t timeout_;
  std::unique_ptr<connection_impl> link_;
  std::string reason_;
  bool reconnecting_;
  bool manual_;
  bool version_mismatch_;
  std::uint32_t server_version_;
  std::size_t frame_limit_;
  std::size_t login_frame_limit_;
  std::size_t decode_cap_;
  bool logged_in_;
  std::unique_ptr<connection_operations> operations_;
};

}  // namespace zelcapi
