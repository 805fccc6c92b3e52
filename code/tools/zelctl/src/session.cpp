// The target cluster (given or embedded) and the connect, login and status helpers.
#include "session.h"

#include <strings.h>

#include <cstdlib>

#include "password.h"
#include "zelbase/exceptions.h"

namespace zelctl {
namespace {

const char* const demo_account = "demo";

zelsim::options simulated_options(const global_options& o) {
  zelsim::options s;
  s.nodes = 3;
  s.master = 1;
  s.port = 0;
  s.users = {{demo_account, demo_account}};
  s.admins = {{demo_account, demo_account}};
  s.log = false;
  s.rate = o.rate;
  s.jobs = o.jobs;
  s.seed = o.seed;
  s.warm_up = o.warm_up;
  s.workload = true;
  return s;
}

// The result code that a refusal stands for: the client's own give-up ("result-code"), else
// the code whose text the cluster's error matches; 0 when none does.
int refusal_code(const zelcore::properties& reply) {
  if (reply.is_present("result-code")) return static_cast<int>(reply.get_int_value("result-code"));
  const std::string error = reply.get_string_value("error", "");
  for (const auto code : {zelcapi::no_such_user, zelcapi::access_denied}) {
    if (strcasecmp(error.c_str(), zelcapi::result_code_c_str(code)) == 0) return code;
  }
  return 0;
}

// Raises the failure for a reply that holds "error".
[[noreturn]] void refused(const std::string& what, const zelcore::properties& reply) {
  const int code = refusal_code(reply);
  const std::string error = reply.get_string_value("error", "");
  std::string text =
      code != 0 ? zelcapi::result_code_c_str(static_cast<zelcapi::result_code>(code)) : error;
  if (code != 0 && strcasecmp(text.c_str(), error.c_str()) != 0) text += " (" + error + ")";
  throw login_refused(what + " failed: " + text);
}

login_result where_we_are(const zelcapi::connection& c, const target& t,
                          const zelcore::properties& reply) {
  login_result r;
  r.master_id = reply.get_string_value("master-id", "");
  r.node_id = reply.get_string_value("node-id", "");
  r.host = c.get_host();
  r.port = c.get_port();
  r.redirected = r.host != t.host() || r.port != t.port();
  return r;
}

// Runs one synchronous exchange; transport errors become failures with exit_connection.
template <class Exchange>
const zelnet::zelp::packet& exchange(const std::string& what, Exchange run) {
  try {
    return run();
  } catch (const zelbase::es::base& e) {
    throw failure(exit_connection, what + " failed: " + e.message());
  }
}

}  // namespace

target::target(const global_options& o)
    : host_(o.host),
      port_(o.port),
      user_(o.user),
      password_file_(o.password_file),
      timeout_(o.timeout) {
  if (o.simulate) {
    try {
      sim_ = std::make_unique<zelsim::cluster>(simulated_options(o));
      sim_->start();
    } catch (const zelbase::es::base& e) {
      throw failure(exit_failure, "cannot start the simulated cluster: " + e.message());
    }
    host_ = sim_->host();
    port_ = std::to_string(sim_->port(2));
    if (user_.empty()) {
      user_ = demo_account;
      if (password_file_.empty()) {
        password_ = demo_account;
        have_password_ = true;
      }
    }
  }
  if (user_.empty()) {
    const char* login_name = std::getenv("USER");
    if (login_name != nullptr) user_ = login_name;
  }
}

target::~target() = default;

const std::string& target::password() {
  if (user_.empty()) throw failure(exit_usage, "no user: give --user");
  if (!have_password_) {
    password_ = read_password(password_file_, user_);
    have_password_ = true;
  }
  return password_;
}

void connect_to(zelcapi::connection& c, const target& t) {
  const zelcapi::result_code r = c.connect(t.host(), t.port(), t.timeout());
  if (r != zelcapi::connection_ok) {
    throw failure(exit_connection, "cannot connect to " + t.host() + ":" + t.port() + ": " +
                                       zelcapi::result_code_c_str(r));
  }
  c.set_timeout(t.timeout());
}

login_result log_in(zelcapi::connection& c, target& t) {
  const std::string& password = t.password();
  connect_to(c, t);
  const zelnet::zelp::packet& reply = exchange(
      "login as '" + t.user() + "'", [&]() -> auto& {
        return c.login_sync(t.user(), password, "", "", t.timeout(), true);
      });
  return login_answered(c, t, reply.get_properties());
}

login_result login_answered(const zelcapi::connection& c, const target& t,
                            const zelcore::properties& reply) {
  if (reply.is_present("error")) refused("login as '" + t.user() + "'", reply);
  return where_we_are(c, t, reply);
}

login_result load_snapshot(zelcapi::state_connection& c, target& t) {
  const login_result where = log_in(c, t);
  try {
    c.request_new_state_sync();
  } catch (const zelbase::es::base& e) {
    throw failure(exit_connection, "state request failed: " + e.message());
  }
  return where;
}

zelcore::properties cluster_status(zelcapi::connection& c, const target& t, login_result& where) {
  connect_to(c, t);
  const zelnet::zelp::packet& reply = exchange(
      "cluster status", [&]() -> auto& { return c.get_cluster_status(); });
  if (reply.get_properties().is_present("error")) {
    refused("cluster status", reply.get_properties());
  }
  where = where_we_are(c, t, reply.get_properties());
  return reply.get_properties();
}

login_result admin_log_in(zelcapi::connection& c, target& t) {
  const std::string& password = t.password();
  login_result where;
  cluster_status(c, t, where);
  const zelnet::zelp::packet& reply = exchange(
      "admin login as '" + t.user() + "'", [&]() -> auto& {
        return c.admin_login_sync(t.user(), password, t.timeout());
      });
  if (reply.get_properties().is_present("error")) {
    refused("admin login as '" + t.user() + "'", reply.get_properties());
  }
  return where;
}

}  // namespace zelctl
