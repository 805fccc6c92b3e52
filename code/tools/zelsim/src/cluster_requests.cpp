// How a node of the simulated cluster answers requests: a master serves nothing but logins and
// the cluster's status before a login succeeded; then the handlers of the request's name (the
// built-in logins, status, state, history and write requests, and those a test added), with the
// reply hooks that drop or delay the replies of write requests.
#include <cstdio>

#include "cluster_impl.h"
#include "zelbase/exceptions.h"
#include "zelbase/strings.h"
#include "zelcore/identifiers.h"

namespace zelsim {

namespace {

constexpr std::int64_t api_not_ready = 12;
constexpr const char* client_login_name = "cluster.client.login";
constexpr const char* admin_login_name = "admin.login";
constexpr const char* cluster_status_name = "cluster.client.cluster-status";
// The error of every other request on a link that has no successful login.
constexpr const char* not_logged_in = "Not logged in";

}  // namespace

bool cluster::impl::is_login(const std::string& name) {
  return name == client_login_name || name == admin_login_name;
}

bool cluster::impl::login_accepted(const packet& in, const packet& reply) {
  const zelcore::properties& props = reply.get_properties();
  if (props.is_present("error")) return false;
  if (in.get_name() == admin_login_name) return true;
  try {
    const std::string master_id = props.get_string_value("master-id", "");
    return !master_id.empty() && master_id == props.get_string_value("node-id", "");
  } catch (const zelbase::es::base&) {
    // A test's own login handler answered with fields of another kind.
    return false;
  }
}

void cluster::impl::dispatch(node& n, const packet& in, packet& out) {
  if (in.get_type() != packet::type_request) return;
  packet reply(packet::type_reply, in.get_name());
  const std::string& bounce = packet::bounce_property_id();
  if (const zelcore::property_ptr b = in.get_properties().get_property(bounce)) {
    reply.set_property(bounce, b);
  }
  // As a master: nothing but a login or the cluster's status before a login has succeeded.
  if (current != nullptr && !current->authorized && !is_login(in.get_name()) &&
      in.get_name() != cluster_status_name) {
    reply.get_properties().set_string_value("error", not_logged_in);
    log(n, "request '" + in.get_name() + "' refused: not logged in");
    out = reply;
    return;
  }
  answer(n, in, reply, out);
  // Each login decides anew what the link may do: one that is refused closes the requests
  // and the notifications that an earlier one opened.
  if (current != nullptr && is_login(in.get_name())) {
    current->authorized = !out.get_name().empty() && login_accepted(in, out);
    if (!current->authorized) {
      current->logged_in = false;
      current->login = identity();
    }
  }
}

void cluster::impl::answer(node& n, const packet& in, packet& reply, packet& out) {
  const auto found = handlers.find(in.get_name());
  if (found == handlers.end()) {
    reply.get_properties().set_string_value("error", "unknown request '" + in.get_name() + "'");
    log(n, "unknown request '" + in.get_name() + "'");
    out = reply;
    return;
  }
  const identity login = current == nullptr ? identity() : current->login;
  request_context context{self, n.number, login.user, login.admin, login.client_id};
  bool answered = true;
  try {
    answered = found->second(context, in, reply);
  } catch (const zelbase::es::base& e) {
    // A malformed request gets an error reply; the node goes on.
    reply.get_properties().set_string_value("error", e.message());
    log(n, "request '" + in.get_name() + "' failed: " + e.message());
  }
  if (answered && !(write_requests::is_write_request(in.get_name()) && hold_reply(n, reply))) {
    out = reply;
  }
}

bool cluster::impl::hold_reply(node& n, const packet& reply) {
  if (drop_left > 0) {
    --drop_left;
    log(n, "reply to '" + reply.get_name() + "' dropped");
    return true;
  }
  if (delay_left == 0 || current == nullptr) return false;
  --delay_left;
  log(n, zelbase::string_with_format("reply to '%s' delayed by %lld ms", reply.get_name().c_str(),
                                     static_cast<long long>(delay.count())));
  loop.add_timer(steady::now() + delay, [&n, serial = current->serial, reply] {
    for (auto& [raw, s] : n.sessions) {
      if (s->serial == serial && s->is_established()) s->send(reply);
    }
  });
  return true;
}

void cluster::impl::add_cluster_view(const node& n, zelcore::properties& reply) const {
  reply.set_string_value("master-id", nodes[master - 1]->id);
  reply.set_string_value("node-id", n.id);
  zelcore::properties hosts;
  for (const auto& other : nodes) {
    if (missing_master && other->number == master) continue;
    zelcore::properties entry;
    entry.set_string_value("hostname", opts.host);
    entry.set_string_value("client-port", std::to_string(other->listener.port()));
    hosts.set_properties_value(other->id, entry);
  }
  reply.set_properties_value("host-list", hosts);
}

bool cluster::impl::answer_not_ready(const node& n, packet& reply) const {
  if (!not_ready(n)) return false;
  reply.get_properties().set_string_value("error", "node is not ready");
  reply.get_properties().set_int_value("api", api_not_ready);
  log(n, "not ready for '" + reply.get_name() + "'");
  return true;
}

std::string cluster::impl::check_account(const std::map<std::string, std::string>& accounts,
                                         const zelcore::properties& request) {
  const std::string& name = request.get_string_value("username", "");
  const auto it = accounts.find(name);
  if (it == accounts.end()) return "No such user";
  if (request.get_string_value("password", "") != zelcore::string_hash_SHA1_hex(it->second)) {
    return "Access denied";
  }
  return "";
}

bool cluster::impl::client_login(request_context& c, const packet& in, packet& reply) {
  node& n = at(c.node);
  zelcore::properties& props = reply.get_properties();
  if (answer_not_ready(n, reply)) return true;
  if (n.number != master) {
    add_cluster_view(n, props);
    log(n, "login redirected to " + nodes[master - 1]->id);
    return true;
  }
  const std::string error = check_account(opts.users, in.get_properties());
  const std::string& name = in.get_properties().get_string_value("username", "");
  if (!error.empty()) {
    props.set_string_value("error", error);
    log(n, "login of '" + name + "' refused: " + error);
    return true;
  }
  add_cluster_view(n, props);
  const std::string client_id = zelcore::string_uuid(false);
  props.set_string_value("client-id", client_id);
  if (current != nullptr) {
    current->logged_in = true;
    current->login = identity{name, false, client_id};
  }
  log(n, "login of '" + name + "' accepted");
  return true;
}

bool cluster::impl::admin_login(request_context& c, const packet& in, packet& reply) {
  node& n = at(c.node);
  const std::string error = check_account(opts.admins, in.get_properties());
  const std::string& name = in.get_properties().get_string_value("username", "");
  if (!error.empty()) {
    reply.get_properties().set_string_value("error", error);
    log(n, "admin login of '" + name + "' refused: " + error);
    return true;
  }
  reply.get_properties().set_string_value("node-id", n.id);
  reply.get_properties().set_bool_value("admin", true);
  if (current != nullptr) current->login = identity{name, true, ""};
  log(n, "admin login of '" + name + "' accepted");
  return true;
}

bool cluster::impl::cluster_status(request_context& c, const packet&, packet& reply) {
  node& n = at(c.node);
  if (answer_not_ready(n, reply)) return true;
  add_cluster_view(n, reply.get_properties());
  reply.get_properties().set_int_value("node-count", static_cast<std::int64_t>(nodes.size()));
  log(n, "cluster status");
  return true;
}

void cluster::impl::install_handlers() {
  using namespace std::placeholders;
  handlers[client_login_name] = std::bind(&impl::client_login, this, _1, _2, _3);
  handlers[admin_login_name] = std::bind(&impl::admin_login, this, _1, _2, _3);
  handlers[cluster_status_name] = std::bind(&impl::cluster_status, this, _1, _2, _3);
  handlers["cluster.api.state.request"] = [this](request_context&, const packet&, packet& reply) {
    cluster_state->answer_state_request(reply.get_properties());
    return true;
  };
  handlers["cluster.api.history.request"] = [this](request_context&, const packet& in,
                                                   packet& reply) {
    cluster_state->answer_history_request(in.get_properties(), reply.get_properties());
    return true;
  };
  for (const char* name :
       {write_requests::update_name, write_requests::submit_name, write_requests::steer_name}) {
    handlers[name] = [this](request_context& c, const packet& in, packet& reply) {
      writes->answer(in.get_name(), identity{c.user, c.admin, c.client_id}, at(c.node).id,
                     nodes[master - 1]->id, in.get_properties(), reply.get_properties());
      return true;
    };
  }
  // Answers with the request's own properties: the round trip of the benchmark.
  handlers["echo"] = [](request_context&, const packet& in, packet& reply) {
    reply = packet(packet::type_reply, in.get_name(), in.get_properties());
    return true;
  };
}

}  // namespace zelsim
