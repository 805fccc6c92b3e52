// Shared pieces of the state connection tests: a state_handler that records every call as one
// line of text, a state connection whose packet handling a test may call directly, and a
// logged-in state connection with a replica against a simulated cluster.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "support/capture_sink.h"
#include "zelcapi/connection_test_support.h"
#include "zelcapi/state_connection.h"
#include "zelcapi/state_connection_samples.h"

namespace zeltest {

// Records "<callback> <arguments>" lines. Item and result callbacks add "live" or "absent":
// whether the replica held the item (or result) at the time of the call, which tells whether
// the replica was changed before or after the handler heard of it.
class recording_state_handler : public zelcapi::state_handler {
 public:
  std::vector<std::string> calls;
  std::vector<zelnet::zelp::packet> handled;
  const zelcapi::state* replica = nullptr;
  bool answer = true;             // the answer of the change callbacks and of handle
  bool pre_update_answer = true;  // the answer of state_pre_workflow_update
  bool status_answer = true;
  // Called with each change callback's line once it is recorded: a test makes it raise.
  std::function<void(const std::string& line)> on_call;

  bool state_item_updated(zelcapi::state_item_type t, const std::string& id,
                          const zelcore::properties& p) override {
    return record("updated " + item(t, id) + " " + p.describe());
  }
  bool state_item_set(zelcapi::state_item_type t, const std::string& id,
                      const zelcore::properties& p) override {
    return record("set " + item(t, id) + " " + p.describe());
  }
  bool state_item_removed(zelcapi::state_item_type t, const std::string& id) override {
    return record("removed " + item(t, id));
  }
  bool state_item_erased_property_ref(zelcapi::state_item_type t, const std::string& id,
                                      const std::string& ref) override {
    return record("erased " + item(t, id) + " " + ref);
  }
  bool state_item_historized(zelcapi::state_item_type t, const std::string& id) override {
    return record("historized " + item(t, id));
  }
  bool state_workflow_result_added(const std::string& id,
                                   zelcapi::workflow_result_info r) override {
    return record("result-added " + result(id) + " " + std::to_string(r.status) + "," +
                  std::to_string(r.ht));
  }
  bool state_workflow_result_removed(const std::string& id) override {
    return record("result-removed " + result(id));
  }
  bool state_workflow_added(const std::string& id, const zelcore::properties& w) override {
    return record("workflow-added " + id + " " + w.describe());
  }
  bool state_workflow_removed(const std::string& id) override {
    return record("workflow-removed " + id);
  }
  bool state_workflow_updated(const zelcore::properties& command) override {
    return record("workflow-updated " + command.get_string_value("action", "?") + workflows_text());
  }
  bool state_pre_workflow_update(const zelcore::properties& command) override {
    record("pre-update " + command.get_string_value("action", "?") + workflows_text());
    return pre_update_answer;
  }
  bool state_new_state(const zelcore::properties& s) override {
    return record("new-state " + s.describe());
  }
  bool history_request_reply(std::uint32_t id, const zelcore::property_list& h) override {
    return record("history " + std::to_string(id) + " " + h.describe());
  }
  bool handle(const zelnet::zelp::packet& in, zelnet::zelp::packet&) override {
    handled.push_back(in);
    return record("handle " + std::to_string(in.get_type()) + " " + in.get_name());
  }
  bool status(zelcapi::result_code code, const std::string& text, bool flag) override {
    calls.push_back("status " + std::to_string(code) + " '" + text + "' " + (flag ? "1" : "0"));
    return status_answer;
  }
  void disconnected(const std::string& reason, bool reconnecting) override {
    calls.push_back("disconnected '" + reason + "' " + (reconnecting ? "1" : "0"));
  }

 private:
  bool record(const std::string& line) {
    calls.push_back(line);
    if (on_call) on_call(line);
    return answer;
  }
  std::string item(zelcapi::state_item_type t, const std::string& id) const {
    std::string text = std::to_string(static_cast<std::int32_t>(t)) + " " + id;
    // A kind the state does not have is told as it came: only the state refuses it.
    if (replica != nullptr && t <= zelcapi::state_item_task) {
      text += replica->has_item(t, id) ? " live" : " absent";
    }
    return text;
  }
  std::string result(const std::string& id) const {
    std::string text = id;
    if (replica != nullptr) text += replica->has_workflow_result(id) ? " live" : " absent";
    return text;
  }
  std::string workflows_text() const {
    return replica == nullptr ? "" : " (" + std::to_string(replica->get_workflows().size()) + ")";
  }
};

// A state connection whose packet handling (the path of every packet from the link) a test may
// call directly, to see its result.
class probe_state_connection : public zelcapi::state_connection {
 public:
  using state_connection::sc_handle;
  using state_connection::state_connection;
};

constexpr const char* state_connection_source =
    "code\\app\\common\\shared\\zelcapi\\src\\state_connection";

// The texts of the failure reports of the state connection, each checked for its category,
// kind and severity (other sources may report too).
inline std::vector<std::string> state_connection_failures(const capture_sink& sink) {
  std::vector<std::string> out;
  for (const auto& r : sink.reports()) {
    if (r.file != state_connection_source) continue;
    EXPECT_EQ(r.category, "state_connection");
    EXPECT_EQ(r.record_kind, 8u);
    EXPECT_EQ(r.record_severity, 3u);
    out.push_back(r.message);
  }
  return out;
}

// A one-node test cluster, a recording handler and a state connection with a replica (no
// history) on it, connected and logged in as alice.
class StateConnectionTest : public testing::Test {
 protected:
  explicit StateConnectionTest(std::uint32_t history_keep_time = 0)
      : conn(&handler, history_keep_time, &plugins) {
    handler.replica = conn.get_state();
  }

  void SetUp() override {
    ASSERT_EQ(conn.connect("127.0.0.1", sim.port_text(1), 5), zelcapi::connection_ok);
    const zelnet::zelp::packet& reply = conn.login_sync("alice", "secret", "", "", 5, true);
    ASSERT_FALSE(reply.get_properties().is_present("error"));
    handler.calls.clear();
  }

  // Sends the packets from the cluster, then a marker notification, and runs the connection
  // until the marker has reached the handler (at most 30 s: a frame of tens of megabytes takes
  // seconds under ThreadSanitizer). The marker's line is dropped.
  void deliver(const std::vector<zelnet::zelp::packet>& packets) {
    for (const auto& p : packets) sim.broadcast(p);
    sim.broadcast(notification("test.marker", zelcore::properties()));
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < deadline) {
      conn.wait(10);
      if (!handler.calls.empty() && handler.calls.back() == "handle 3 test.marker") {
        handler.calls.pop_back();
        handler.handled.pop_back();
        return;
      }
    }
    FAIL() << "the marker notification did not arrive";
  }
  void deliver(const zelnet::zelp::packet& p) { deliver(std::vector<zelnet::zelp::packet>{p}); }

  // The packet's handling as the link would run it, with its result.
  bool handled(const zelnet::zelp::packet& p) {
    zelnet::zelp::packet out;
    return conn.sc_handle(p, out);
  }

  const zelcapi::state& replica() const { return *conn.get_state(); }

  test_cluster sim{1, 1};
  zelcore::plugin_db plugins;
  recording_state_handler handler;
  probe_state_connection conn;
};

}  // namespace zeltest
