// Test and benchmark support: encoded sample workflows (templates, init workflows, spawned
// workflows of any size) as decode_workflow_info and the workflow manager's add_workflow take
// them. Header-only, so benchmarks can use it without the test support library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "zelcore/properties.h"

namespace zeltest {

// One task's encoding: kind, type (0 ordinary, 1 init), in-nodes (name -> accepted kind: "any",
// "int", "bool", "string", "list", "properties") and out-values (name -> destinations, each
// "<task id>><in-node>").
inline zelcore::properties sample_task(
    const std::string& kind, std::uint32_t type, const std::map<std::string, std::string>& in_nodes,
    const std::map<std::string, std::vector<std::string>>& out_values) {
  zelcore::properties task;
  task.set_string_value("kind", kind);
  task.set_int_value("type", type);
  zelcore::properties nodes;
  for (const auto& [name, accepts] : in_nodes) {
    zelcore::properties node;
    node.set_string_value("accepts", accepts);
    nodes.set_properties_value(name, node);
  }
  task.set_properties_value("in-nodes", nodes);
  zelcore::properties outs;
  for (const auto& [name, destinations] : out_values) {
    zelbase::ptr_refcount<zelcore::property_list> list(new zelcore::property_list());
    for (const std::string& d : destinations) list->push_back(zelcore::make_string(d));
    zelcore::properties out;
    out["destinations"] = list;
    outs.set_properties_value(name, out);
  }
  task.set_properties_value("out-values", outs);
  return task;
}

// The id of the k-th (1-based) ordinary task of a sample workflow: "t1", "t2", ...
inline std::string sample_task_id(std::size_t k) { return "t" + std::to_string(k); }

// An encoded workflow of `type` (0 template, 1 init workflow, 2 spawned workflow, never
// spawned) with `n_tasks` ordinary tasks t1..tn of kind "command". Task tk has the in-node "in"
// (any kind), tasks from t3 on also "side"; its out-value "out" feeds t(k+1)>in and t(k+2)>side.
// So t1>in is the one in-node fed from outside: a value there spawns from a template.
// With `with_init_task`, an init task "init" (kind "setup", type 1) has the in-node "setup"
// (any kind) and the out-value "config" feeding t1>config, a further in-node of t1; the
// workflow is then not inited until init>setup holds a value.
inline zelcore::properties sample_workflow(std::uint32_t type, std::size_t n_tasks,
                                           bool with_init_task = false) {
  zelcore::properties tasks;
  for (std::size_t k = 1; k <= n_tasks; ++k) {
    std::map<std::string, std::string> in_nodes{{"in", "any"}};
    if (k >= 3) in_nodes["side"] = "any";
    if (k == 1 && with_init_task) in_nodes["config"] = "any";
    std::vector<std::string> destinations;
    if (k + 1 <= n_tasks) destinations.push_back(sample_task_id(k + 1) + ">in");
    if (k + 2 <= n_tasks) destinations.push_back(sample_task_id(k + 2) + ">side");
    tasks.set_properties_value(sample_task_id(k),
                               sample_task("command", 0, in_nodes, {{"out", destinations}}));
  }
  if (with_init_task) {
    tasks.set_properties_value(
        "init", sample_task("setup", 1, {{"setup", "any"}}, {{"config", {"t1>config"}}}));
  }
  zelcore::properties workflow;
  workflow.set_int_value("type", type);
  workflow.set_properties_value("tasks", tasks);
  return workflow;
}

}  // namespace zeltest
