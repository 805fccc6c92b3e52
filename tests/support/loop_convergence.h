// Test support: a state connection that follows a seeded simulated cluster inside an
// application's own event loop, and the check that its replica ends equal to the master.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

#include "support/seeded_workload.h"
#include "zelbase/time.h"
#include "zelcapi/state_connection.h"
#include "zelcore/plugin_db.h"
#include "zelsim/cluster.h"

namespace zeltest {

// Drives the loop until the predicate holds or the time has passed; false on the time.
using loop_driver =
    std::function<bool(const std::function<bool()>& done, std::chrono::milliseconds limit)>;

// Holds the wall clock still: both sides stamp it into removed workflows.
struct still_clock {
  still_clock() {
    zelbase::set_time_clock([] { return 1700003600u; });
  }
  ~still_clock() { zelbase::set_time_clock({}); }
};

// A state handler that counts the changes and notices the snapshot and the closing marker.
class loop_follower : public zelcapi::state_handler {
 public:
  bool state_item_updated(zelcapi::state_item_type, const std::string&,
                          const zelcore::properties&) override {
    return count();
  }
  bool state_item_set(zelcapi::state_item_type, const std::string&,
                      const zelcore::properties&) override {
    return count();
  }
  bool state_item_removed(zelcapi::state_item_type, const std::string&) override { return count(); }
  bool state_item_historized(zelcapi::state_item_type, const std::string&) override {
    return count();
  }
  bool state_workflow_updated(const zelcore::properties&) override { return count(); }
  bool state_new_state(const zelcore::properties&) override {
    snapshot = true;
    return true;
  }
  bool handle(const zelnet::zelp::packet& in, zelnet::zelp::packet&) override {
    if (in.get_name() == "test.marker") marker = true;
    return true;
  }

  zelcore::plugin_db plugins;
  zelcapi::state_connection c{this, 0, &plugins};
  std::uint64_t changes = 0;
  bool snapshot = false;
  bool marker = false;

 private:
  bool count() {
    ++changes;
    return true;
  }
};

// A follower whose handler fails as an application's may: every `every`-th call of the
// callbacks that come before the replica's change (an item removed, a property erased, an item
// historized, a result removed, the question before a workflow command) raises
// std::runtime_error. The replica must still end equal to the master.
class raising_follower : public loop_follower {
 public:
  explicit raising_follower(std::uint64_t every) : every_(every) {}

  bool state_item_removed(zelcapi::state_item_type t, const std::string& id) override {
    loop_follower::state_item_removed(t, id);
    return maybe_raise();
  }
  bool state_item_erased_property_ref(zelcapi::state_item_type, const std::string&,
                                      const std::string&) override {
    return maybe_raise();
  }
  bool state_item_historized(zelcapi::state_item_type t, const std::string& id) override {
    loop_follower::state_item_historized(t, id);
    return maybe_raise();
  }
  bool state_workflow_result_removed(const std::string&) override { return maybe_raise(); }
  bool state_pre_workflow_update(const zelcore::properties&) override { return maybe_raise(); }

  // The calls that raised.
  std::uint64_t raised = 0;

 private:
  bool maybe_raise() {
    if (++calls_ % every_ != 0) return true;
    ++raised;
    throw std::runtime_error("the application's handler failed");
  }

  std::uint64_t every_;
  std::uint64_t calls_ = 0;
};

// Connects, logs in and takes a snapshot through the asynchronous calls, lets the cluster make
// `changes` changes while the loop runs, and expects the replica equal to the master.
inline void expect_convergence_in_loop(zelsim::cluster& sim, loop_follower& f,
                                       const loop_driver& run_until, std::uint64_t changes) {
  using namespace std::chrono_literals;
  std::optional<zelcapi::result_code> connected;
  f.c.connect_async("127.0.0.1", std::to_string(sim.port(2)), 5,
                    [&connected](zelcapi::result_code r) { connected = r; });
  ASSERT_TRUE(run_until([&] { return connected.has_value(); }, 10s));
  ASSERT_EQ(*connected, zelcapi::connection_ok);
  bool logged_in = false;
  f.c.login_async(zelcapi::connection::login_request("alice", "secret", {}, "", "", false), 5,
                  [&logged_in](const zelnet::zelp::packet& reply, std::exception_ptr error) {
                    logged_in = !error && !reply.get_properties().is_present("error");
                  });
  ASSERT_TRUE(run_until([&] { return logged_in; }, 10s));
  f.c.request_new_state();
  ASSERT_TRUE(run_until([&] { return f.snapshot; }, 10s));

  sim.run_workload(changes);
  ASSERT_TRUE(run_until([&] { return sim.wait_workload_paused(0ms); }, 120s));
  sim.broadcast(zelnet::zelp::packet(zelnet::zelp::packet::type_notification, "test.marker"));
  ASSERT_TRUE(run_until([&] { return f.marker; }, 60s));

  EXPECT_EQ(sim.changes_made(), changes);
  EXPECT_GT(f.changes, 0u);
  zelcore::properties mine;
  f.c.get_state()->get_state(mine);
  const zelcore::properties master = sim.master_snapshot();
  EXPECT_FALSE(master.get_properties_value("jobs").empty());
  EXPECT_TRUE(mine == master);
}

}  // namespace zeltest
