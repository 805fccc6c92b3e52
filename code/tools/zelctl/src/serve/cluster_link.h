// The cluster as the source of zelctl serve's replica: when the link goes, it reconnects on the
// mirror's pace (retry_backoff), logs in again and reloads the snapshot, all without blocking the
// io_context's thread (the connection's asynchronous calls, through the Asio adapter), so the
// pages and the API keep answering from the last state meanwhile. The feed tells the stream's
// clients of each change of the link, and a reloaded snapshot reaches them as a snapshot event.
// Runs on the io_context's thread.
#pragma once

#include <memory>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include "retry_backoff.h"
#include "serve/event_feed.h"
#include "serve/replica_source.h"
#include "session.h"
#include "zelcapi/state_connection.h"

namespace zelctl::serve {

class cluster_link final : public replica_source {
 public:
  // Keeps `c`'s replica current with the cluster of `t`, which `reached` already logged into
  // (the snapshot is loaded). Hooks into `feed`, which must be `c`'s state_handler.
  cluster_link(boost::asio::io_context& io, zelcapi::state_connection& c, target& t,
               event_feed& feed, const login_result& reached);
  ~cluster_link() override;
  cluster_link(const cluster_link&) = delete;
  cluster_link& operator=(const cluster_link&) = delete;

  const source_status& status() const override { return status_; }

 private:
  // Where the link stands: live, or one step of getting it back.
  enum class phase { live, waiting, connecting, logging_in, loading, given_up };

  void lost(const std::string& reason);
  void snapshot_loaded();
  void attempt();
  void log_in();
  void load();
  // An attempt failed: wait the backoff's next wait and try again (after dropping what is left
  // of the link, unless it is going already).
  void failed(const std::string& error, bool drop_link = true);
  // The cluster refused the login: trying again would not help.
  void give_up(const std::string& error);
  void changed();

  boost::asio::io_context& io_;
  zelcapi::state_connection& connection_;
  target& target_;
  event_feed& feed_;
  boost::asio::steady_timer retry_timer_;
  boost::asio::steady_timer snapshot_timer_;
  retry_backoff backoff_;
  phase phase_ = phase::live;
  login_result pending_;  // where the attempt in progress logged in
  source_status status_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace zelctl::serve
