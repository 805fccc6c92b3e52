// A replica that applies the master's notifications to its own state, each by the state
// operation its name stands for, ends equal to the master: state and history. So does the
// replica of a state connection, which applies them itself.
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "support/seeded_workload.h"
#include "support/tree_difference.h"
#include "zelbase/time.h"
#include "zelcapi/connection.h"
#include "zelcapi/state.h"
#include "zelcapi/state_connection.h"
#include "zelcore/plugin_db.h"
#include "zelsim/cluster.h"

namespace {

using zelcore::properties;
using zelnet::zelp::packet;
using namespace std::chrono_literals;

constexpr std::uint32_t keep_time = 3600;

// Applies every "cluster.api.state." notification to `replica`.
class replica_handler : public zelcapi::handler {
 public:
  explicit replica_handler(zelcapi::state& replica) : replica_(replica) {}

  bool handle(const packet& in, packet&) override {
    if (in.get_type() != packet::type_notification) return true;
    apply(in.get_name().substr(prefix.size()), in.get_properties());
    ++applied;
    ++seen[in.get_name()];
    return true;
  }

  const std::string prefix = "cluster.api.state.";
  std::uint64_t applied = 0;
  std::map<std::string, int> seen;

 private:
  void apply(const std::string& name, const properties& f) {
    const auto type = [&f] {
      return static_cast<zelcapi::state_item_type>(f.get_int_value("item-type"));
    };
    const auto id = [&f] { return f.get_string_value("state-id"); };
    if (name == "update-item") {
      replica_.item_update(type(), id(), f.get_properties_value("state"));
    } else if (name == "set-item") {
      replica_.item_set(type(), id(), f.get_properties_value("state"));
    } else if (name == "remove-item") {
      replica_.item_remove(type(), id());
    } else if (name == "erase-property-ref") {
      replica_.item_erase_property_ref(type(), id(), f.get_string_value("property-ref"));
    } else if (name == "historize-item") {
      replica_.item_historize(type(), id());
    } else if (name == "update-workflow-result") {
      replica_.workflow_result_add(id(),
                                   zelcapi::workflow_result_info(f.get_properties_value("result")));
    } else if (name == "remove-workflow-result") {
      replica_.workflow_result_remove(id());
    } else if (name == "update-workflow") {
      replica_.update_workflow(f.get_properties_value("command"));
    } else if (name != "add-workflow" && name != "remove-workflow") {
      ADD_FAILURE() << "unknown notification " << prefix << name;
    }
  }

  zelcapi::state& replica_;
};

// A cluster of 300 jobs whose workload runs flat out, seeded, keeping history like the replicas.
zelsim::options workload_options(std::uint64_t seed) {
  zelsim::options o = zeltest::seeded_workload(seed, 300);
  o.history_keep_time = keep_time;
  return o;
}

// Holds the wall clock still (the removal time that both sides stamp into a workflow).
struct still_clock {
  still_clock() {
    zelbase::set_time_clock([] { return 1700003600u; });
  }
  ~still_clock() { zelbase::set_time_clock({}); }
};

TEST(Convergence, ReplicaFedByNotificationsEqualsTheMasterAfterTenThousandChanges) {
  still_clock clock;
  zelsim::cluster sim(workload_options(42));
  sim.start();

  zelcore::plugin_db plugins;
  zelcapi::state replica(plugins, nullptr, nullptr, nullptr, keep_time);
  replica_handler h(replica);
  zelcapi::connection c(&h);
  ASSERT_EQ(c.connect("127.0.0.1", std::to_string(sim.port(2)), 5), zelcapi::connection_ok);
  ASSERT_FALSE(
      c.login_sync("alice", "secret", "", "", 5, false).get_properties().is_present("error"));
  const packet& snapshot =
      c.send_sync(packet(packet::type_request, "cluster.api.state.request"), 5);
  replica.set_state(snapshot.get_properties().get_properties_value("state"));

  sim.run_workload(10000);
  ASSERT_TRUE(sim.wait_workload_paused(60s));
  const std::uint64_t sent = sim.notifications_sent();
  const auto deadline = std::chrono::steady_clock::now() + 30s;
  while (h.applied < sent && std::chrono::steady_clock::now() < deadline) c.wait(20);
  ASSERT_EQ(h.applied, sent);
  for (const char* name : {"set-item", "update-item", "remove-item", "erase-property-ref",
                           "historize-item", "update-workflow-result", "remove-workflow-result",
                           "update-workflow", "add-workflow", "remove-workflow"}) {
    EXPECT_GT(h.seen[h.prefix + name], 0) << name << " never came";
  }

  properties mine, master = sim.master_snapshot();
  replica.get_state(mine);
  EXPECT_TRUE(mine == master) << zeltest::first_difference(mine, master, "");
  EXPECT_FALSE(master.get_properties_value("jobs").empty());
  EXPECT_GT(master.get_int_value("workflow-seq-nr"), 0);

  properties my_history, master_history = sim.master_history();
  replica.get_history(my_history);
  EXPECT_TRUE(my_history == master_history)
      << zeltest::first_difference(my_history, master_history, "");
  EXPECT_FALSE(master_history.get_properties_value("jobs").empty());
  EXPECT_FALSE(master_history.get_properties_value("workflows").empty());
}

// Records every change that reaches the handler of a state connection as the notification
// it stands for, and notices the marker sent after the workload.
class change_log : public zelcapi::state_handler {
 public:
  bool state_item_updated(zelcapi::state_item_type, const std::string& id,
                          const properties&) override {
    return add("update-item " + id);
  }
  bool state_item_set(zelcapi::state_item_type, const std::string& id, const properties&) override {
    return add("set-item " + id);
  }
  bool state_item_removed(zelcapi::state_item_type, const std::string& id) override {
    return add("remove-item " + id);
  }
  bool state_item_erased_property_ref(zelcapi::state_item_type, const std::string& id,
                                      const std::string&) override {
    return add("erase-property-ref " + id);
  }
  bool state_item_historized(zelcapi::state_item_type, const std::string& id) override {
    return add("historize-item " + id);
  }
  bool state_workflow_result_added(const std::string&, zelcapi::workflow_result_info) override {
    return add("update-workflow-result");
  }
  bool state_workflow_result_removed(const std::string&) override {
    return add("remove-workflow-result");
  }
  bool state_workflow_added(const std::string&, const properties&) override {
    return add("add-workflow");
  }
  bool state_workflow_removed(const std::string&) override { return add("remove-workflow"); }
  bool state_workflow_updated(const properties&) override { return add("update-workflow"); }
  bool handle(const packet& in, packet&) override {
    if (in.get_name() == "test.marker") marker_seen = true;
    return true;
  }

  std::vector<std::string> changes;
  bool marker_seen = false;

 private:
  bool add(std::string change) {
    changes.push_back(std::move(change));
    return true;
  }
};

// The same line for a notification the master sends.
std::string change_of(const packet& p, const std::string& prefix) {
  const std::string name = p.get_name().substr(prefix.size());
  const bool item = p.get_properties().is_present("item-type");
  return item ? name + " " + p.get_properties().get_string_value("state-id") : name;
}

// A state connection with a replica keeping history, logged in to the cluster's node 2.
struct follower {
  explicit follower(zelsim::cluster& sim) : c(&log, keep_time, &plugins) {
    EXPECT_EQ(c.connect("127.0.0.1", std::to_string(sim.port(2)), 5), zelcapi::connection_ok);
    EXPECT_FALSE(
        c.login_sync("alice", "secret", "", "", 5, false).get_properties().is_present("error"));
    c.request_new_state_sync();
  }
  zelcore::plugin_db plugins;
  change_log log;
  zelcapi::state_connection c;
};

TEST(Convergence, StateConnectionsFromTheStartAndFromMidWorkloadEndEqualToTheMaster) {
  still_clock clock;
  zelsim::cluster sim(workload_options(7));
  std::mutex sent_lock;
  std::vector<std::string> sent;
  const std::string prefix = "cluster.api.state.";
  sim.on_notification([&](const packet& p) {
    if (p.get_name().rfind(prefix, 0) != 0) return;
    std::lock_guard<std::mutex> hold(sent_lock);
    sent.push_back(change_of(p, prefix));
  });
  sim.start();

  follower first(sim);
  std::unique_ptr<follower> late;
  // Both clients keep reading while the master works, as live clients would; the second one
  // joins, snapshot and all, while the changes flow.
  sim.run_workload(100000);
  const auto deadline = std::chrono::steady_clock::now() + 240s;
  while (!sim.wait_workload_paused(0ms) && std::chrono::steady_clock::now() < deadline) {
    first.c.wait(10);
    if (late) {
      late->c.wait(10);
    } else if (sim.changes_made() >= 30000) {
      late = std::make_unique<follower>(sim);
    }
  }
  ASSERT_TRUE(sim.wait_workload_paused(0ms));
  ASSERT_TRUE(late);
  sim.broadcast(packet(packet::type_notification, "test.marker"));
  while (!(first.log.marker_seen && late->log.marker_seen) &&
         std::chrono::steady_clock::now() < deadline) {
    first.c.wait(10);
    late->c.wait(10);
  }
  ASSERT_TRUE(first.log.marker_seen && late->log.marker_seen);
  EXPECT_EQ(sim.changes_made(), 100000u);

  const properties master = sim.master_snapshot();
  EXPECT_FALSE(master.get_properties_value("jobs").empty());
  for (const follower* f : {&first, late.get()}) {
    properties mine;
    f->c.get_state()->get_state(mine);
    EXPECT_TRUE(mine == master) << zeltest::first_difference(mine, master, "");
  }
  // The first client was there from the master's first change on: it heard of every change
  // once, in the master's order, and holds the same history.
  {
    std::lock_guard<std::mutex> hold(sent_lock);
    EXPECT_EQ(first.log.changes.size(), sent.size());
    EXPECT_TRUE(first.log.changes == sent);
  }
  properties my_history, master_history = sim.master_history();
  first.c.get_state()->get_history(my_history);
  EXPECT_TRUE(my_history == master_history)
      << zeltest::first_difference(my_history, master_history, "");
  EXPECT_FALSE(master_history.get_properties_value("workflows").empty());
}

}  // namespace
