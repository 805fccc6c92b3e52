// Shared pieces of the write path's tests: a quiet cluster whose runner's clock moves only when a
// test moves it, clients logged in as users or as an administrator that send raw write requests,
// and builders of job descriptions, workflow descriptions and "update-workflow" actions.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "zelcapi/connection.h"
#include "zelcore/properties.h"
#include "zelsim/cluster.h"

namespace zeltest {

using zelcore::properties;
using zelnet::zelp::packet;

constexpr const char* submit_request = "cluster.api.jobs.submit";
constexpr const char* steer_request = "cluster.api.jobs.steer";
constexpr const char* update_request = "cluster.api.workflow.update";

// Three nodes (node 1 the master), users alice and bob, administrator root; no workload; the
// runner's clock stands still until the test advances it; a job runs 1000 ms unless it says.
inline zelsim::options write_options() {
  zelsim::options o;
  o.nodes = 3;
  o.master = 1;
  o.log = false;
  o.users = {{"alice", "secret"}, {"bob", "hunter2"}};
  o.admins = {{"root", "toor"}};
  o.manual_time = true;
  o.start_time = 1700000000;
  return o;
}

// A started cluster of write_options (changed by `adjust` first).
class write_cluster : public zelsim::cluster {
 public:
  explicit write_cluster(zelsim::options o = write_options()) : cluster(std::move(o)) { start(); }
};

inline zelbase::ptr_refcount<zelcore::property_list> list_of(
    const std::vector<zelcore::property_ptr>& values) {
  zelbase::ptr_refcount<zelcore::property_list> list(new zelcore::property_list());
  for (const zelcore::property_ptr& v : values) list->push_back(v);
  return list;
}

inline zelcore::property_ptr tree(properties p) {
  return zelcore::property_ptr(new properties(std::move(p)));
}

inline zelcore::property_ptr text(const std::string& s) { return zelcore::make_string(s); }
inline zelcore::property_ptr number(std::int64_t n) { return zelcore::make_int(n); }

// A client of the master: connected and logged in as a user, or as an administrator.
class write_client {
 public:
  write_client(zelsim::cluster& sim, const std::string& user, const std::string& password,
               bool admin = false) {
    EXPECT_EQ(c.connect("127.0.0.1", std::to_string(sim.port(1)), 5), zelcapi::connection_ok);
    const packet& reply = admin ? c.admin_login_sync(user, password, 5)
                                : c.login_sync(user, password, "", "", 5, false);
    EXPECT_FALSE(reply.get_properties().is_present("error"));
  }
  // The reply's fields to a request `name` with `fields`.
  properties request(const std::string& name, const properties& fields, unsigned timeout = 30) {
    return c.send_sync(packet(packet::type_request, name, fields), timeout).get_properties();
  }

  zelcapi::connection c;
};

// The items of a reply (failing the test when it has none).
inline std::vector<properties> items_of(const properties& reply) {
  std::vector<properties> out;
  EXPECT_FALSE(reply.is_present("error")) << reply.get_string_value("error", "");
  if (!reply.is_present("items")) return out;
  for (const zelcore::property_ptr& item : reply.get_list_value("items")) {
    out.push_back(static_cast<const properties&>(*item));
  }
  return out;
}

// The one item of a reply.
inline properties only_item(const properties& reply) {
  const std::vector<properties> items = items_of(reply);
  EXPECT_EQ(items.size(), 1u);
  return items.empty() ? properties() : items[0];
}

// A submission of the given jobs under `key`.
inline properties submission(const std::vector<properties>& jobs, const std::string& key) {
  std::vector<zelcore::property_ptr> list;
  for (const properties& j : jobs) list.push_back(tree(j));
  properties fields;
  fields["jobs"] = list_of(list);
  if (!key.empty()) fields.set_string_value("key", key);
  return fields;
}

// A steering request.
inline properties steering(const std::string& action, const std::vector<std::string>& ids) {
  std::vector<zelcore::property_ptr> list;
  for (const std::string& id : ids) list.push_back(text(id));
  properties fields;
  fields.set_string_value("action", action);
  fields["ids"] = list_of(list);
  return fields;
}

// A workflow update request carrying `actions`.
inline properties updating(const std::vector<properties>& actions, const std::string& key = "") {
  std::vector<zelcore::property_ptr> list;
  for (const properties& a : actions) list.push_back(tree(a));
  properties fields;
  fields["actions"] = list_of(list);
  if (!key.empty()) fields.set_string_value("key", key);
  return fields;
}

// A task of kind "command" with the runner's `parameters`, in-nodes of the given names and
// out-values, each with its destinations.
inline properties task_of(
    const properties& parameters, const std::vector<std::string>& in_nodes,
    const std::vector<std::pair<std::string, std::vector<std::string>>>& out_values = {},
    std::int64_t max_attempts = 1) {
  properties task;
  task.set_string_value("kind", "command");
  task.set_int_value("max-attempts", max_attempts);
  task.set_properties_value("parameters", parameters);
  properties ins;
  for (const std::string& n : in_nodes) ins.set_properties_value(n, properties());
  task.set_properties_value("in-nodes", ins);
  properties outs;
  for (const auto& [name, destinations] : out_values) {
    std::vector<zelcore::property_ptr> list;
    for (const std::string& d : destinations) list.push_back(text(d));
    properties out;
    out["destinations"] = list_of(list);
    outs.set_properties_value(name, out);
  }
  task.set_properties_value("out-values", outs);
  return task;
}

// A workflow of type `type` (2: to run) with the given tasks.
inline properties workflow_of(const std::vector<std::pair<std::string, properties>>& tasks,
                              std::int64_t type = 2) {
  properties all;
  for (const auto& [id, task] : tasks) all.set_properties_value(id, task);
  properties w;
  w.set_int_value("type", type);
  w.set_properties_value("tasks", all);
  return w;
}

// {"action": "add-workflow", "state-id": id, "workflow": workflow}
inline properties add_workflow(const std::string& id, const properties& workflow) {
  properties a;
  a.set_string_value("action", "add-workflow");
  a.set_string_value("state-id", id);
  a.set_properties_value("workflow", workflow);
  return a;
}

// An action of the meta-data family ("add-workflow-meta-data" and its kin) on workflow `id`.
inline properties meta_action(const std::string& action, const std::string& id,
                              const properties& meta) {
  properties a;
  a.set_string_value("action", action);
  a.set_string_value("wf-state-id", id);
  a.set_properties_value("meta-data", meta);
  return a;
}

// "set-in-value" of `value` at `input_node_id`, spawning under `force_state_id` from a template.
inline properties set_in_value(const std::string& input_node_id, const zelcore::property_ptr& value,
                               const std::string& force_state_id) {
  properties a;
  a.set_string_value("action", "set-in-value");
  a.set_string_value("input-node-id", input_node_id);
  a["value"] = value;
  a.set_string_value("force-state-id", force_state_id);
  a.set_bool_value("force-spawn-value", false);
  a.set_string_value("originator", "test");
  return a;
}

// Run parameters: `run_ms` of simulated time, the first `fail_attempts` attempts failing.
inline properties run_params(std::int64_t run_ms, std::int64_t fail_attempts = 0) {
  properties p;
  p.set_int_value("run-ms", run_ms);
  if (fail_attempts > 0) p.set_int_value("fail-attempts", fail_attempts);
  return p;
}

// The master's records of `kind` ("jobs", "workflows", ...), by id.
inline properties master_records(zelsim::cluster& sim, const std::string& kind) {
  return sim.master_snapshot().get_properties_value(kind);
}

// The master's record of `kind` and `id`; empty when it has none.
inline properties master_record(zelsim::cluster& sim, const std::string& kind,
                                const std::string& id) {
  return sim.master_snapshot().get_properties_value(kind).get_properties_value(id, properties());
}

}  // namespace zeltest
