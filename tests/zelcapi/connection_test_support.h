// Shared pieces of the connection tests: a handler that records every call as text, and a
// simulated cluster started on free loopback ports for the duration of a test.
#pragma once

#include <chrono>
#include <exception>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "zelbase/exceptions.h"
#include "zelcapi/connection.h"
#include "zelsim/cluster.h"

namespace zeltest {

// Records "status <code> '<text>' <flag>", "disconnected '<reason>' <flag>" and
// "handle <type> <name>" lines; status answers come from `answer` (default true).
class recording_handler : public zelcapi::handler {
 public:
  bool status(zelcapi::result_code code, const std::string& text, bool flag) override {
    events.push_back("status " + std::to_string(code) + " '" + text + "' " + (flag ? "1" : "0"));
    return answer ? answer(code) : true;
  }
  void disconnected(const std::string& reason, bool reconnecting) override {
    events.push_back("disconnected '" + reason + "' " + (reconnecting ? "1" : "0"));
    if (on_disconnected) on_disconnected();
  }
  bool handle(const zelnet::zelp::packet& in, zelnet::zelp::packet& out) override {
    events.push_back("handle " + std::to_string(in.get_type()) + " " + in.get_name());
    received.push_back(in);
    if (on_packet) on_packet(in, out);
    return true;
  }

  std::vector<std::string> events;
  std::vector<zelnet::zelp::packet> received;
  std::function<bool(zelcapi::result_code)> answer;
  std::function<void(const zelnet::zelp::packet&, zelnet::zelp::packet&)> on_packet;
  std::function<void()> on_disconnected;
};

// The outcome of an asynchronous exchange: whether it ended, its reply and the message of its
// failure.
struct async_exchange {
  bool ended = false;
  zelnet::zelp::packet reply;
  std::string error;

  zelcapi::connection::reply_callback callback() {
    return [this](const zelnet::zelp::packet& in, std::exception_ptr failure) {
      ended = true;
      reply = in;
      if (!failure) return;
      try {
        std::rethrow_exception(failure);
      } catch (const zelbase::es::uspec& e) {
        error = e.message();
      }
    };
  }
};

// Waits on the connections in turn until `done()` or `limit` has passed; false on the limit.
template <class F>
bool serve_until(std::initializer_list<zelcapi::connection*> connections, F done,
                 std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > end) return false;
    for (zelcapi::connection* c : connections) c->wait(5);
  }
  return true;
}

// Options of a quiet test cluster with one user "alice"/"secret" and one admin "root"/"toor".
inline zelsim::options test_cluster_options(std::size_t nodes, std::size_t master) {
  zelsim::options o;
  o.nodes = nodes;
  o.master = master;
  o.users = {{"alice", "secret"}, {"nopass", ""}};
  o.admins = {{"root", "toor"}};
  o.log = false;
  return o;
}

// A started test cluster.
class test_cluster : public zelsim::cluster {
 public:
  explicit test_cluster(std::size_t nodes = 3, std::size_t master = 1)
      : cluster(test_cluster_options(nodes, master)) {
    start();
  }
  std::string port_text(std::size_t node) const { return std::to_string(port(node)); }
  // Requests named `name` close every link of the node that receives them, unanswered.
  void drop_links_on(const std::string& name) {
    on(name, [](zelsim::request_context& r, const zelnet::zelp::packet&, zelnet::zelp::packet&) {
      r.sim.close_links(r.node);
      return false;
    });
  }
};

// Connects `c` to `node` and logs in as alice: a master serves requests other than logins and
// the cluster status only to a link whose login succeeded. The handler hears "status 1 '' 0"
// and "status 5 '<master id>' 1".
inline void connect_and_log_in(zelcapi::connection& c, const test_cluster& sim,
                               std::size_t node = 1) {
  ASSERT_EQ(c.connect("127.0.0.1", sim.port_text(node), 5), zelcapi::connection_ok);
  ASSERT_FALSE(
      c.login_sync("alice", "secret", "", "", 5, false).get_properties().is_present("error"));
}

}  // namespace zeltest
