// A workflow task: its encoding, out-values and job information.
#include "zelworkflow/task_info.h"

#include <atomic>
#include <limits>

#include "decoding.h"
#include "task_model.h"
#include "zelbase/exceptions.h"
#include "zelworkflow/task_kind_db.h"
#include "zelworkflow/workflow_info.h"

namespace zelworkflow {

using zelcore::properties;
using zelcore::property_ptr;

namespace {

constexpr std::int64_t max_u32 = std::numeric_limits<std::uint32_t>::max();
constexpr std::int64_t min_i64 = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t max_i64 = std::numeric_limits<std::int64_t>::max();

// Element names of in-nodes and out-values: not empty, no path separator.
void check_name(detail::reader& r, const std::string& what, const std::string& name) {
  if (name.empty() || name.find('>') != std::string::npos) {
    r.fail(what + " name '" + name + "' is empty or holds '>'");
  }
}

}  // namespace

const char* task_status_c_str(zelcore::task::status status) {
  switch (status) {
    case zelcore::task::status_waiting: return "waiting";
    case zelcore::task::status_runnable: return "runnable";
    case zelcore::task::status_running: return "running";
    case zelcore::task::status_finished: return "finished";
    case zelcore::task::status_failed: return "failed";
    case zelcore::task::status_killed: return "killed";
  }
  return "unknown";
}

const char* task_scheduling_state_c_str(zelcore::task::scheduling_state state) {
  switch (state) {
    case zelcore::task::scheduling_none: return "none";
    case zelcore::task::scheduling_queued: return "queued";
    case zelcore::task::scheduling_dispatched: return "dispatched";
  }
  return "unknown";
}

std::uint64_t next_change_stamp() noexcept {
  static std::atomic<std::uint64_t> last{0};
  return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

task_info::task_info() : model_(new model()) {}
task_info::~task_info() { delete model_; }

zelbase::ptr_refcount<task_info> task_info::clone() const {
  zelbase::ptr_refcount<task_info> copy(new task_info());
  *copy->model_ = *model_;
  return copy;
}

zelbase::ptr_refcount<task_info> task_info::create_task_info(const properties& encoded,
                                                             const zelcore::plugin_db& db) {
  return decode(encoded, db, "");
}

zelbase::ptr_refcount<task_info> task_info::decode(const properties& encoded,
                                                   const zelcore::plugin_db& db,
                                                   const std::string& default_id) {
  const auto* kinds = dynamic_cast<const task_kind_db*>(&db);
  model m;
  m.id = detail::reader(encoded, "task").get_string("id", default_id);
  const std::string what = m.id.empty() ? "task" : "task '" + m.id + "'";
  detail::reader r(encoded, what);
  r.get_string("id", "");
  // Wpaths split at the separator, so a task id holding one could never be addressed.
  if (m.id.find('>') != std::string::npos) r.fail("task id '" + m.id + "' holds '>'");
  m.kind = r.get_string("kind", "");
  if (kinds && !kinds->has_kind(m.kind)) r.fail("unknown task kind '" + m.kind + "'");
  m.type = static_cast<task_type>(r.get_int("type", 0, 0, task_type_init));
  m.info.task_status = static_cast<status>(r.get_int("status", 0, 0, status_killed));
  m.info.time = static_cast<std::uint32_t>(r.get_int("status-time", 0, 0, max_u32));
  m.info.node_id = r.get_string("status-node", "");
  m.info.message = r.get_string("status-message", "");
  m.scheduling =
      static_cast<scheduling_state>(r.get_int("scheduling-state", 0, 0, scheduling_dispatched));
  m.max_attempts = static_cast<unsigned int>(
      r.get_int("max-attempts", kinds ? kinds->get_default_max_attempts(m.kind) : 1, 0, max_u32));
  m.num_attempts = static_cast<unsigned int>(r.get_int("num-attempts", 0, 0, max_u32));
  m.priority = r.get_int("priority", 0, min_i64, max_i64);
  m.kill_triggered = r.get_bool("kill-triggered", false);
  m.progress = r.get_properties("progress");
  m.parameters = r.get_properties("parameters");
  for (const auto& [name, child] : r.get_properties("in-nodes")) {
    if (!child) continue;
    const std::string node_what = "in-node '" + name + "'";
    check_name(r, "in-node", name);
    detail::reader nr(r.as_properties(node_what, *child), node_what + " of " + what);
    in_node& node = m.in_nodes[name];
    node.accepts = nr.get_string("accepts", "any");
    if (!detail::is_value_kind_name(node.accepts)) {
      nr.fail("'accepts' is '" + node.accepts + "', not a value kind");
    }
    node.value = nr.get_property("value");
    if (node.value && !detail::value_kind_accepted(node.accepts, *node.value)) {
      nr.fail(std::string("'value' is a ") + zelcore::property_kind_c_str(node.value->kind()) +
              ", the in-node accepts " + node.accepts);
    }
    node.originator = nr.get_string("originator", "");
    nr.finish();
  }
  for (const auto& [name, child] : r.get_properties("out-values")) {
    if (!child) continue;
    const std::string out_what = "out-value '" + name + "'";
    check_name(r, "out-value", name);
    detail::reader orr(r.as_properties(out_what, *child), out_what + " of " + what);
    out_value& out = m.out_values[name];
    out.destinations = orr.get_strings("destinations");
    for (const std::string& d : out.destinations) {
      detail::check_in_node_path(d, "cannot decode " + out_what + " of " + what);
    }
    out.value = orr.get_property("value");
    orr.finish();
  }
  m.license_capabilities = r.get_properties_ptr("allocated-license-capabilities");
  m.job_info = r.get_properties_ptr("job-info");
  r.finish();

  zelbase::ptr_refcount<task_info> task(new task_info());
  *task->model_ = std::move(m);
  return task;
}

void task_info::encode_task_info(properties& out) const {
  const model& m = *model_;
  out.set_string_value("id", m.id);
  out.set_string_value("kind", m.kind);
  out.set_int_value("type", m.type);
  out.set_int_value("status", m.info.task_status);
  out.set_int_value("status-time", m.info.time);
  out.set_string_value("status-node", m.info.node_id);
  out.set_string_value("status-message", m.info.message);
  out.set_int_value("scheduling-state", m.scheduling);
  out.set_int_value("max-attempts", m.max_attempts);
  out.set_int_value("num-attempts", m.num_attempts);
  out.set_int_value("priority", m.priority);
  out.set_bool_value("kill-triggered", m.kill_triggered);
  out.set_properties_value("progress", m.progress);
  out.set_properties_value("parameters", m.parameters);
  properties in_nodes;
  for (const auto& [name, node] : m.in_nodes) {
    properties n;
    n.set_string_value("accepts", node.accepts);
    if (node.value) n["value"] = node.value;
    if (!node.originator.empty()) n.set_string_value("originator", node.originator);
    in_nodes.set_properties_value(name, n);
  }
  out.set_properties_value("in-nodes", in_nodes);
  properties out_values;
  for (const auto& [name, ov] : m.out_values) {
    properties o;
    o["destinations"] = detail::make_string_list(ov.destinations);
    if (ov.value) o["value"] = ov.value;
    out_values.set_properties_value(name, o);
  }
  out.set_properties_value("out-values", out_values);
  if (m.license_capabilities) out["allocated-license-capabilities"] = m.license_capabilities;
  if (m.job_info) out["job-info"] = m.job_info;
}

const std::string& task_info::get_id() const { return model_->id; }
const std::string& task_info::get_kind() const { return model_->kind; }
zelcore::task::task_type task_info::get_type() const { return model_->type; }
zelcore::task::status task_info::get_status() const { return model_->info.task_status; }
const zelcore::task::status_info& task_info::get_status_info() const { return model_->info; }
zelcore::task::scheduling_state task_info::get_scheduling_state() const {
  return model_->scheduling;
}
const properties& task_info::get_progress() const { return model_->progress; }
const properties& task_info::get_parameters() const { return model_->parameters; }

// The value held under `name` in a task's in-nodes or out-values (`what` names which).
template <class Map>
property_ptr named_value(const Map& entries, const std::string& name, const std::string& task_id,
                         const char* what) {
  auto it = entries.find(name);
  if (it == entries.end()) {
    zelbase::es::arg::raise(__FILE__, __LINE__,
                            "task '" + task_id + "' has no " + what + " '" + name + "'");
  }
  return it->second.value;
}

property_ptr task_info::get_in_value(const std::string& in_node) const {
  return named_value(model_->in_nodes, in_node, model_->id, "in-node");
}

property_ptr task_info::get_out_value(const std::string& name) const {
  return named_value(model_->out_values, name, model_->id, "out-value");
}

void task_info::make_out_values(const properties& values, properties& out) const {
  properties routed;
  for (const auto& [name, value] : values) {
    if (!value) continue;
    get_out_value(name);  // raises for an unknown name
    properties entry;
    entry["value"] = value;
    entry["destinations"] = detail::make_string_list(model_->out_values.at(name).destinations);
    routed.set_properties_value(name, entry);
  }
  for (const auto& [name, entry] : routed) out[name] = entry;
}

void task_info::decode_out_values(const properties& out_values) {
  std::map<std::string, property_ptr> produced;
  for (const auto& [name, entry] : out_values) {
    if (!entry) continue;
    get_out_value(name);  // raises for an unknown name
    const properties* e = entry->kind() == zelcore::property::kind_properties
                              ? static_cast<const properties*>(entry.get())
                              : nullptr;
    property_ptr value = e ? e->get_property("value") : nullptr;
    if (!value) {
      zelbase::es::arg::raise(__FILE__, __LINE__,
                              "out-value '" + name + "' of task '" + model_->id +
                                  "' is not a properties holding \"value\"");
    }
    produced[name] = value;
  }
  model_->stamp = next_change_stamp();
  for (auto& [name, value] : produced) model_->out_values[name].value = value;
}

void task_info::create_job_info(const workflow_info& workflow) const {
  if (!workflow.has_task_info(model_->id) || workflow.get_task_info(model_->id).get() != this) {
    zelbase::es::arg::raise(__FILE__, __LINE__,
                            "task '" + model_->id + "' is not a task of the workflow");
  }
  const model& m = *model_;
  zelbase::ptr_refcount<properties> info(new properties());
  info->set_string_value("task-id", m.id);
  info->set_string_value("kind", m.kind);
  info->set_int_value("task-type", m.type);
  info->set_properties_value("parameters", m.parameters);
  properties in_values;
  for (const auto& [name, node] : m.in_nodes) {
    if (node.value) in_values[name] = node.value;
  }
  info->set_properties_value("in-values", in_values);
  info->set_int_value("attempt", static_cast<std::int64_t>(m.num_attempts) + 1);
  info->set_int_value("max-attempts", m.max_attempts);
  info->set_int_value("priority", m.priority);
  info->set_int_value("workflow-priority", workflow.get_priority());
  info->set_int_value("sequence-number", static_cast<std::int64_t>(workflow.get_sequence_number()));
  info->set_properties_value("configuration", workflow.get_configuration());
  m.job_info = info;
  model_->stamp = next_change_stamp();
}

zelbase::ptr_refcount<const properties> task_info::get_job_info() const { return model_->job_info; }

zelbase::ptr_refcount<const properties> task_info::get_job_allocated_license_capabilities() const {
  return model_->license_capabilities;
}

void task_info::set_job_allocated_license_capabilities(
    zelbase::ptr_refcount<const properties> capabilities) {
  model_->license_capabilities = std::move(capabilities);
  model_->stamp = next_change_stamp();
}

}  // namespace zelworkflow
