// Reconnecting zelctl serve's replica to its cluster: connect, login and snapshot request as
// asynchronous steps, a failed step retried after the backoff's wait.
#include "serve/cluster_link.h"

#include <cstdio>

#include <boost/asio/post.hpp>

#include "serve/link_log.h"
#include "service_notify.h"
#include "time_text.h"
#include "zelbase/exceptions.h"

namespace zelctl::serve {
namespace {

std::string message_of(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const zelbase::es::base& e) {
    return e.message();
  } catch (const std::exception& e) {
    return e.what();
  }
}

}  // namespace

cluster_link::cluster_link(boost::asio::io_context& io, zelcapi::state_connection& c, target& t,
                           event_feed& feed, const login_result& reached)
    : io_(io), connection_(c), target_(t), feed_(feed), retry_timer_(io), snapshot_timer_(io) {
  status_.master = reached.master_id;
  status_.address = reached.host + ":" + reached.port;
  feed_.on_link([this](const std::string& reason) { lost(reason); }, [this] { snapshot_loaded(); });
  feed_.link_changed(status_);
}

cluster_link::~cluster_link() {
  *alive_ = false;
  feed_.on_link({}, {});
}

void cluster_link::lost(const std::string& reason) {
  if (phase_ == phase::loading) {
    snapshot_timer_.cancel();
    // The link is going already: nothing to drop.
    failed(reason.empty() ? "the link went before the snapshot came" : reason, false);
    return;
  }
  // Meanwhile the step in progress ends with its own error.
  if (phase_ != phase::live) return;
  status_.connected = false;
  status_.lost = reason;
  status_.lost_ms = now_ms();
  status_.attempts = 0;
  status_.last_error.clear();
  log_link("lost the link to the cluster (" + reason + "); reconnecting");
  changed();
  // Not inside the connection's own report of the loss: the next step starts afresh.
  phase_ = phase::waiting;
  boost::asio::post(io_, [this, alive = std::weak_ptr<bool>(alive_)] {
    if (!alive.expired() && phase_ == phase::waiting) attempt();
  });
}

void cluster_link::attempt() {
  phase_ = phase::connecting;
  status_.next_attempt_ms = 0;
  connection_.connect_async(
      target_.host(), target_.port(), target_.timeout(),
      [this, alive = std::weak_ptr<bool>(alive_)](zelcapi::result_code result) {
        if (alive.expired() || phase_ != phase::connecting) return;
        if (result != zelcapi::connection_ok) {
          failed("cannot connect to " + target_.host() + ":" + target_.port() + ": " +
                 zelcapi::result_code_c_str(result));
          return;
        }
        log_in();
      });
}

void cluster_link::log_in() {
  phase_ = phase::logging_in;
  zelnet::zelp::packet request;
  try {
    request =
        zelcapi::connection::login_request(target_.user(), target_.password(), {}, "", "", true);
  } catch (const failure& e) {
    give_up(e.what());
    return;
  }
  connection_.login_async(
      request, target_.timeout(),
      [this, alive = std::weak_ptr<bool>(alive_)](const zelnet::zelp::packet& reply,
                                                  std::exception_ptr error) {
        if (alive.expired() || phase_ != phase::logging_in) return;
        if (error) {
          failed("login as '" + target_.user() + "' failed: " + message_of(error));
          return;
        }
        try {
          pending_ = login_answered(connection_, target_, reply.get_properties());
        } catch (const login_refused& e) {
          give_up(e.what());
          return;
        }
        load();
      });
}

void cluster_link::load() {
  phase_ = phase::loading;
  try {
    connection_.request_new_state();
  } catch (const zelbase::es::base& e) {
    failed("state request failed: " + e.message());
    return;
  }
  snapshot_timer_.expires_after(std::chrono::seconds(target_.timeout()));
  snapshot_timer_.async_wait([this, alive = std::weak_ptr<bool>(alive_)](
                                 const boost::system::error_code& ec) {
    if (ec || alive.expired() || phase_ != phase::loading) return;
    // The loss reaches lost(), which waits and tries again.
    connection_.disconnect("no snapshot within " + std::to_string(target_.timeout()) + " s", false);
  });
}

void cluster_link::snapshot_loaded() {
  if (phase_ != phase::loading) return;
  snapshot_timer_.cancel();
  phase_ = phase::live;
  backoff_.reset();
  ++status_.reconnects;
  status_.connected = true;
  status_.master = pending_.master_id;
  status_.address = pending_.host + ":" + pending_.port;
  status_.lost.clear();
  status_.lost_ms = 0;
  status_.attempts = 0;
  status_.last_error.clear();
  status_.next_attempt_ms = 0;
  log_link("reconnected to " + status_.master + " at " + status_.address + "; snapshot reloaded");
  changed();
}

void cluster_link::failed(const std::string& error, bool drop_link) {
  phase_ = phase::waiting;
  // A link left half-way (connected, the login timed out) goes before the next attempt; its
  // loss is this failure.
  if (drop_link && connection_.is_connected()) connection_.disconnect(error, true);
  const retry_backoff::duration wait = backoff_.next();
  ++status_.attempts;
  status_.last_error = error;
  status_.next_attempt_ms = now_ms() + wait.count();
  log_link(error + "; retrying in " + seconds_text(wait));
  changed();
  retry_timer_.expires_after(wait);
  retry_timer_.async_wait(
      [this, alive = std::weak_ptr<bool>(alive_)](const boost::system::error_code& ec) {
        if (ec || alive.expired() || phase_ != phase::waiting) return;
        attempt();
      });
}

void cluster_link::give_up(const std::string& error) {
  phase_ = phase::given_up;
  if (connection_.is_connected()) connection_.disconnect(error, false);
  ++status_.attempts;
  status_.last_error = error;
  status_.next_attempt_ms = 0;
  status_.retrying = false;
  std::fprintf(stderr,
               "zelctl: serve: %s; not reconnecting: the pages keep the last state "
               "(restart serve to reconnect)\n",
               error.c_str());
  std::fflush(stderr);
  changed();
}

void cluster_link::changed() { feed_.link_changed(status_); }

}  // namespace zelctl::serve
