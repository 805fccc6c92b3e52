// Sample packets and trees of the state connection's tests and fuzz target: the fields of the
// item notifications and a small snapshot with items, a workflow result and a workflow.
#pragma once

#include <cstdint>
#include <string>

#include "zelcore/properties.h"
#include "zelnet/packet.h"
#include "zelworkflow/workflow_info.h"

namespace zeltest {

inline zelcore::properties one_field(const std::string& key, std::int64_t value) {
  zelcore::properties p;
  p.set_int_value(key, value);
  return p;
}

inline zelnet::zelp::packet notification(const std::string& name,
                                         const zelcore::properties& fields) {
  return zelnet::zelp::packet(zelnet::zelp::packet::type_notification, name, fields);
}

// "item-type", "state-id" and, when given, "state": the fields of the item notifications.
inline zelcore::properties item_fields(std::int64_t type, const std::string& id) {
  zelcore::properties p;
  p.set_int_value("item-type", type);
  p.set_string_value("state-id", id);
  return p;
}
inline zelcore::properties item_fields(std::int64_t type, const std::string& id,
                                       const zelcore::properties& state) {
  zelcore::properties p = item_fields(type, id);
  p.set_properties_value("state", state);
  return p;
}

// An empty init workflow, encoded as a snapshot and an "add-workflow" command carry it.
inline zelcore::properties empty_init_workflow() {
  zelworkflow::workflow_info workflow;
  workflow.set_type(zelworkflow::workflow_info::workflow_type_init);
  zelcore::properties encoded;
  workflow.encode_workflow_info(encoded);
  return encoded;
}

// The "add-workflow" command of an empty workflow `id`.
inline zelcore::properties add_workflow_command(const std::string& id) {
  zelcore::properties command;
  command.set_string_value("action", "add-workflow");
  command.set_string_value("state-id", id);
  command.set_properties_value("workflow", empty_init_workflow());
  return command;
}

// "cluster.api.state.update-workflow" carrying `command`.
inline zelnet::zelp::packet update_workflow(const zelcore::properties& command) {
  zelcore::properties fields;
  fields.set_properties_value("command", command);
  return notification("cluster.api.state.update-workflow", fields);
}

// Jobs j1 {"a":1} and j2 {"a":2}, node n1 {"cores":8}, the result {"st":3} of WOFL-2 and an
// empty init workflow WOFL-1.
inline zelcore::properties small_snapshot() {
  zelcore::properties jobs;
  jobs.set_properties_value("j1", one_field("a", 1));
  jobs.set_properties_value("j2", one_field("a", 2));
  zelcore::properties nodes;
  nodes.set_properties_value("n1", one_field("cores", 8));
  zelcore::properties results;
  results.set_properties_value("WOFL-2", one_field("st", 3));
  zelcore::properties workflows;
  workflows.set_properties_value("WOFL-1", empty_init_workflow());
  zelcore::properties snapshot;
  snapshot.set_properties_value("jobs", jobs);
  snapshot.set_properties_value("nodes", nodes);
  snapshot.set_properties_value("workflow-results", results);
  snapshot.set_properties_value("workflows", workflows);
  return snapshot;
}

}  // namespace zeltest
