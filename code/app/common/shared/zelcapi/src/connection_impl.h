// The live link of a connection: a client link that hands the awaited reply to the
// connection's sync slot and every other packet to the handler.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <list>
#include <optional>
#include <string>

#include "zelbase/severity.h"
#include "zelcapi/connection.h"
#include "zelnet/link.h"

namespace zelcapi {

class connection_impl final : public zelnet::zelp::client_link {
 public:
  // `frame_limit` bounds the payload of received frames (changed later with set_frame_limit).
  connection_impl(connection& owner, handler* h, std::size_t frame_limit);
  ~connection_impl() override;

  void set_handler(handler* h) noexcept { handler_ = h; }
  bool is_waiting_sync_reply() const noexcept { return waiting_sync_reply_; }
  void set_waiting_sync_reply(bool waiting) noexcept { waiting_sync_reply_ = waiting; }
  bool has_version_mismatch() const noexcept { return version_mismatch_; }
  std::uint32_t get_server_version() const noexcept { return server_version_; }

 protected:
  bool packet_received(const zelnet::zelp::packet& in, zelnet::zelp::packet& out) override;
  void packet_ahead(const zelnet::zelp::packet& next) override;
  void version_mismatch(std::uint32_t client_version, std::uint32_t server_version) override;
  void link_established() override;

 private:
  connection* owner_;
  handler* handler_;
  bool waiting_sync_reply_ = false;
  bool version_mismatch_ = false;
  std::uint32_t server_version_ = 0;
};

// The asynchronous operations of a connection: each carries an id, so that an end posted for
// one never ends a later one.
struct connection_operations {
  struct connect_op {
    std::uint64_t id;
    connection::connect_callback done;
    zelnet::ioctrl::timer_id timer;
  };
  // Where a login stands (login.cpp lists the transitions).
  enum class login_phase : std::uint8_t {
    awaiting_reply,   // the request is sent; the reply or the time-out comes next
    reply_arrived,    // the reply is in the slot (or the link is gone), to be acted on
    not_ready_pause,  // the node was not ready: two seconds before connecting again
    reconnecting,     // connecting to the same node again
    redirecting,      // connecting to the master that the node named
  };
  struct login_op {
    std::uint64_t id;
    zelnet::zelp::packet request;
    unsigned timeout;  // seconds, one less after each not-ready retry
    connection::reply_callback done;
    zelnet::ioctrl::timer_id timer = 0;  // the phase's time-out or pause
    login_phase at = login_phase::awaiting_reply;
    // The master of a redirect, for the failure's text.
    std::string master_host{};
    std::string master_port{};
  };
  struct request_op {
    std::uint64_t id;
    std::string name;
    // Whether the caller's request carried a bounce tree of its own.
    bool had_bounce;
    connection::reply_callback done;
    zelnet::ioctrl::timer_id timer;
  };
  std::optional<connect_op> connecting;
  std::optional<login_op> login;
  std::list<request_op> requests;
  std::uint64_t next_id = 1;
};

// The key of the request id that send_async puts into a request's bounce tree.
constexpr const char* request_id_key = "async-request-id";

// The request id that a reply carries in its bounce tree (an int under request_id_key); false
// when it carries none.
bool reply_request_id(const zelnet::zelp::packet& reply, std::uint64_t& id);

// Reports `text` (kind 3) at `line` of `file` and gives it as the es::uspec that a synchronous
// call raises.
std::exception_ptr reported_failure(const char* file, unsigned line, zelbase::severity s,
                                    const std::string& text);

}  // namespace zelcapi
