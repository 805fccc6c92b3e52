// Where zelctl connects and how it logs in: a cluster named by --host/--port or the embedded
// simulated cluster of --simulate, the user and password, and connect/login helpers that turn
// every refusal into a failure with exit code 2 and the result code's text.
#pragma once

#include <memory>
#include <string>

#include "options.h"
#include "zelcapi/connection.h"
#include "zelcapi/state_connection.h"
#include "zelsim/cluster.h"

namespace zelctl {

// The cluster answered and refused the login: waiting and trying again would not help.
class login_refused : public failure {
 public:
  explicit login_refused(const std::string& message) : failure(exit_connection, message) {}
};

// What a successful login (or status request) learned about the cluster.
struct login_result {
  std::string master_id;
  std::string node_id;
  // The node that answered last: the master after a redirect.
  std::string host;
  std::string port;
  bool redirected = false;
};

// The cluster to talk to. With --simulate it owns a running embedded cluster (three nodes,
// master node 1, user and admin demo/demo, a running workload) and points at node 2, so that
// a login shows the redirect to the master.
class target {
 public:
  explicit target(const global_options& options);
  ~target();
  target(const target&) = delete;
  target& operator=(const target&) = delete;

  const std::string& host() const noexcept { return host_; }
  const std::string& port() const noexcept { return port_; }
  const std::string& user() const noexcept { return user_; }
  unsigned timeout() const noexcept { return timeout_; }
  // The password, read on first use (file, prompt or the embedded cluster's "demo"); raises
  // failure (exit_usage) when there is no user name.
  const std::string& password();
  // The embedded cluster, or null.
  zelsim::cluster* simulated() noexcept { return sim_.get(); }

 private:
  std::unique_ptr<zelsim::cluster> sim_;
  std::string host_;
  std::string port_;
  std::string user_;
  std::string password_file_;
  std::string password_;
  bool have_password_ = false;
  unsigned timeout_;
};

// Connects `c` to the target; raises failure (exit_connection) with the result's text.
void connect_to(zelcapi::connection& c, const target& t);
// Connects and logs in as the target's user, following the cluster to its master.
login_result log_in(zelcapi::connection& c, target& t);
// What the reply of a login as the target's user says: where the connection now is, or
// login_refused with the refusal's text.
login_result login_answered(const zelcapi::connection& c, const target& t,
                            const zelcore::properties& reply);
// Finds the master through a status request, then logs in there as an administrator.
login_result admin_log_in(zelcapi::connection& c, target& t);
// Connects, logs in and loads the cluster's snapshot into the state connection's replica (and
// its handler's state_new_state); transport errors raise failure (exit_connection).
login_result load_snapshot(zelcapi::state_connection& c, target& t);
// Connects and asks for the cluster's status (no login needed); returns the reply's tree.
zelcore::properties cluster_status(zelcapi::connection& c, const target& t, login_result& where);

}  // namespace zelctl
