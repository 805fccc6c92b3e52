// The workflow: a graph of tasks fed through in-nodes by other tasks' out-values, with its
// statuses, priorities, meta data, spawning and encoding.
#include "zelworkflow/workflow_info.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <utility>

#include "decoding.h"
#include "task_model.h"
#include "zelbase/exceptions.h"
#include "zelbase/paths.h"
#include "zelbase/strings.h"

namespace zelworkflow {

using zelcore::properties;
using zelcore::property_ptr;
using task_ptr = zelbase::ptr_refcount<task_info>;

namespace {

constexpr std::int64_t min_i64 = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t max_i64 = std::numeric_limits<std::int64_t>::max();

[[noreturn]] void raise_arg(const std::string& message) {
  zelbase::es::arg::raise(__FILE__, __LINE__, message);
}

std::int64_t new_priority(std::int64_t current, std::int64_t priority,
                          workflow_info::priority_whence whence, std::int64_t min_priority,
                          std::int64_t max_priority) {
  if (min_priority > max_priority) {
    raise_arg(zelbase::string_with_format("min priority %lld is greater than max priority %lld",
                                          static_cast<long long>(min_priority),
                                          static_cast<long long>(max_priority)));
  }
  std::int64_t p = priority;
  if (whence == workflow_info::priority_relative) {
    if (__builtin_add_overflow(current, priority, &p)) p = priority > 0 ? max_i64 : min_i64;
  } else if (whence != workflow_info::priority_absolute) {
    raise_arg(
        zelbase::string_with_format("unknown priority whence %u", static_cast<unsigned>(whence)));
  }
  return std::clamp(p, min_priority, max_priority);
}

void check_state_id(const std::string& state_id) {
  if (state_id.empty()) raise_arg("a workflow state id is not empty");
}

void check_meta_key(const std::string& key) {
  if (key.empty()) raise_arg("a meta data key is not empty");
}

void set_meta_key(properties& meta, const std::string& key, const property_ptr& value) {
  check_meta_key(key);
  if (value) {
    meta[key] = value;
  } else {
    meta.erase(key);
  }
}

// Dot text of a string: quoted, with '"' and '\' escaped and line breaks as "\n".
std::string dot_quoted(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else {
      out += c;
    }
  }
  return out + "\"";
}

const char* workflow_type_name(workflow_info::workflow_type type) {
  switch (type) {
    case workflow_info::workflow_type_template: return "template";
    case workflow_info::workflow_type_init: return "init workflow";
    case workflow_info::workflow_type_spawned: return "spawned workflow";
  }
  return "workflow";
}

}  // namespace

struct workflow_info::model {
  std::uint64_t stamp = next_change_stamp();  // of the last change (a copy draws its own)
  workflow_type type = workflow_type_spawned;
  std::uint64_t sequence_number = 0;
  std::int64_t priority = 0;
  properties configuration;
  properties meta_data;
  properties ext_meta_data;
  std::map<std::string, task_ptr> tasks;
  std::set<std::string> dependants;
  std::map<std::string, std::string> waiting;
  property_ptr spawn_value;

  model() = default;
  model(const model& other)
      : type(other.type),
        sequence_number(other.sequence_number),
        priority(other.priority),
        configuration(other.configuration),
        meta_data(other.meta_data),
        ext_meta_data(other.ext_meta_data),
        dependants(other.dependants),
        waiting(other.waiting),
        spawn_value(other.spawn_value) {
    for (const auto& [id, task] : other.tasks) tasks.emplace(id, task->clone());
  }
  model& operator=(const model&) = delete;

  // Called by every operation that changes the workflow or one of its tasks.
  void touch() noexcept { stamp = next_change_stamp(); }

  task_info::model& task(const std::string& wtid) const {
    auto it = tasks.find(wtid);
    if (it == tasks.end()) raise_arg("the workflow has no task '" + wtid + "'");
    return *it->second->model_;
  }

  void check_not_template(const char* what) const {
    if (type == workflow_type_template) raise_arg(std::string("tasks of a template ") + what);
  }

  bool kill_requested() const {
    property_ptr p = meta_data.get_property("kill-requested");
    return p && p->kind() == zelcore::property::kind_bool &&
           static_cast<const zelcore::property_bool&>(*p).value();
  }

  bool kill_triggered(const task_info::model& t) const {
    return (t.kill_triggered || kill_requested()) && !t.has_ended();
  }

  // Task id -> the ids of the tasks whose out-values name one of its in-nodes.
  std::map<std::string, std::set<std::string>> pre_reqs() const {
    std::map<std::string, std::set<std::string>> out;
    for (const auto& [id, task] : tasks) {
      for (const auto& [name, ov] : task->model_->out_values) {
        for (const std::string& d : ov.destinations) {
          std::string target = zelbase::path_front(d, '>');
          if (tasks.count(target)) out[target].insert(id);
        }
      }
    }
    return out;
  }

  // Empty when the task may run now, else why not.
  std::string not_runnable_reason(const task_info::model& t,
                                  const std::set<std::string>& task_pre_reqs) const {
    if (type == workflow_type_template) return "the workflow is a template";
    if (type == workflow_type_spawned && sequence_number == 0) {
      return "the workflow has not been spawned";
    }
    if (t.type == task_info::task_type_init && type != workflow_type_init) {
      return "init task: it runs in its init workflow";
    }
    if (t.type != task_info::task_type_init && type == workflow_type_init) {
      return "ordinary task of an init workflow: it runs in the workflows spawned from it";
    }
    if (kill_triggered(t)) return "a kill was triggered";
    switch (t.info.task_status) {
      case task_info::status_running: return "the task is running";
      case task_info::status_finished: return "the task has finished";
      case task_info::status_killed: return "the task was killed";
      default: break;
    }
    if (t.num_attempts >= t.max_attempts) {
      return zelbase::string_with_format("the task has used all its attempts (%u of %u)",
                                         t.num_attempts, t.max_attempts);
    }
    if (t.scheduling != task_info::scheduling_none) {
      return std::string("the task is ") + task_scheduling_state_c_str(t.scheduling);
    }
    for (const std::string& p : task_pre_reqs) {
      const task_info::model& pre = task(p);
      if (pre.info.task_status != task_info::status_finished) {
        return "waiting for prerequisite '" + p + "' (" + task_status_c_str(pre.info.task_status) +
               ")";
      }
    }
    for (const auto& [name, node] : t.in_nodes) {
      if (!node.value) return "waiting for in-value '" + name + "'";
    }
    return std::string();
  }
};

workflow_info::workflow_info() : model_(new model()) {}
workflow_info::workflow_info(const workflow_info& other) : model_(new model(*other.model_)) {}
workflow_info& workflow_info::operator=(const workflow_info& other) {
  if (this != &other) {
    model* copy = new model(*other.model_);
    delete model_;
    model_ = copy;
  }
  return *this;
}
workflow_info::~workflow_info() { delete model_; }

void workflow_info::decode_workflow_info(const properties& encoded, const zelcore::plugin_db& db) {
  detail::reader r(encoded, "workflow");
  auto m = std::make_unique<model>();
  m->type = static_cast<workflow_type>(r.get_int("type", workflow_type_spawned, 0, 2));
  m->sequence_number =
      static_cast<std::uint64_t>(r.get_int("sequence-number", 0, min_i64, max_i64));
  m->priority = r.get_int("priority", 0, min_i64, max_i64);
  m->configuration = r.get_properties("configuration");
  m->meta_data = r.get_properties("meta-data");
  m->ext_meta_data = r.get_properties("ext-meta-data");
  for (const auto& [id, child] : r.get_properties("tasks")) {
    if (!child) continue;
    const properties& task_encoding = r.as_properties("task '" + id + "'", *child);
    if (id.empty() || id.find('>') != std::string::npos) {
      r.fail("task id '" + id + "' is empty or holds '>'");
    }
    task_ptr task = task_info::decode(task_encoding, db, id);
    const std::string& task_id = task->model_->id;
    if (task_id != id) r.fail("the task under '" + id + "' has the id '" + task_id + "'");
    m->tasks.emplace(id, task);
  }
  for (const std::string& d : r.get_strings("dependants")) {
    if (d.empty()) r.fail("'dependants' holds an empty state id");
    m->dependants.insert(d);
  }
  for (const auto& [id, originator] : r.get_properties("waiting")) {
    if (!originator) continue;
    if (id.empty() || originator->kind() != zelcore::property::kind_string) {
      r.fail("'waiting' entry '" + id + "' is not a state id with an originator text");
    }
    m->waiting[id] = static_cast<const zelcore::property_string&>(*originator).value();
  }
  m->spawn_value = r.get_property("spawn-value");
  r.finish();
  delete model_;
  model_ = m.release();
}

void workflow_info::encode_workflow_info(properties& out) const {
  const model& m = *model_;
  out.set_int_value("type", m.type);
  out.set_int_value("sequence-number", static_cast<std::int64_t>(m.sequence_number));
  out.set_int_value("priority", m.priority);
  out.set_properties_value("configuration", m.configuration);
  out.set_properties_value("meta-data", m.meta_data);
  out.set_properties_value("ext-meta-data", m.ext_meta_data);
  properties tasks;
  for (const auto& [id, task] : m.tasks) {
    properties t;
    task->encode_task_info(t);
    tasks.set_properties_value(id, t);
  }
  out.set_properties_value("tasks", tasks);
  out["dependants"] = detail::make_string_list(m.dependants);
  out.set_properties_value("waiting", properties(m.waiting));
  if (m.spawn_value) {
    out["spawn-value"] = m.spawn_value;
  } else {
    out.erase("spawn-value");
  }
}

std::uint64_t workflow_info::get_change_stamp() const {
  std::uint64_t latest = model_->stamp;
  for (const auto& entry : model_->tasks) latest = std::max(latest, entry.second->model_->stamp);
  return latest;
}

bool workflow_info::operator==(const workflow_info& other) const {
  properties mine;
  properties theirs;
  encode_workflow_info(mine);
  other.encode_workflow_info(theirs);
  return mine == theirs;
}

workflow_info::workflow_type workflow_info::get_type() const { return model_->type; }

void workflow_info::set_type(workflow_type type) {
  model_->touch();
  if (type > workflow_type_spawned) {
    raise_arg(zelbase::string_with_format("unknown workflow type %u", static_cast<unsigned>(type)));
  }
  model_->type = type;
}

workflow_info::status workflow_info::get_status() const {
  if (model_->tasks.empty()) return status_created;
  bool killed = false;
  bool failed = false;
  bool all_finished = true;
  bool started = false;
  for (const auto& [id, task] : model_->tasks) {
    const task_info::model& t = *task->model_;
    killed |= t.info.task_status == task_info::status_killed;
    failed |= t.info.task_status == task_info::status_failed && t.has_ended();
    all_finished &= t.info.task_status == task_info::status_finished;
    started |= t.info.task_status != task_info::status_waiting ||
               t.scheduling != task_info::scheduling_none || t.num_attempts > 0;
  }
  if (killed) return status_killed;
  if (failed) return status_failed;
  if (all_finished) return status_finished;
  return started ? status_running : status_created;
}

std::uint64_t workflow_info::get_sequence_number() const { return model_->sequence_number; }

void workflow_info::spawn(std::uint64_t sequence_number,
                          zelbase::ptr_refcount<const zelcore::property> in_value,
                          std::map<std::string, unsigned int> attempts_config) {
  model_->touch();
  if (model_->type == workflow_type_template) {
    raise_arg("a template is never spawned itself; spawn a copy of it");
  }
  if (sequence_number == 0) raise_arg("a workflow is spawned with a sequence number above 0");
  auto fallback = attempts_config.find("default");
  for (auto& [id, task] : model_->tasks) {
    task_info::model& t = *task->model_;
    auto it = attempts_config.find(t.kind);
    if (it == attempts_config.end()) it = fallback;
    if (it != attempts_config.end()) t.max_attempts = it->second;
  }
  model_->sequence_number = sequence_number;
  model_->spawn_value = std::move(in_value);
}

zelbase::ptr_refcount<const zelcore::property> workflow_info::get_spawn_value() const {
  return model_->spawn_value;
}

bool workflow_info::is_inited() const {
  for (const auto& [id, task] : model_->tasks) {
    const task_info::model& t = *task->model_;
    if (t.type != task_info::task_type_init) continue;
    for (const auto& [name, node] : t.in_nodes) {
      if (!node.value) return false;
    }
  }
  return true;
}

bool workflow_info::set_in_value(const std::string& in_node_path,
                                 const zelbase::ptr_refcount<const zelcore::property>& value,
                                 bool force_spawn_value, const std::string& originator) {
  model_->touch();
  const std::string what = "cannot set in-value '" + in_node_path + "'";
  detail::check_in_node_path(in_node_path, what);
  std::string node_name = in_node_path;
  const std::string wtid = zelbase::path_front(node_name, '>');
  zelbase::path_pop_front(node_name, '>');
  auto task_it = model_->tasks.find(wtid);
  if (task_it == model_->tasks.end()) raise_arg(what + ": the workflow has no task '" + wtid + "'");
  task_info::model& t = *task_it->second->model_;
  if (node_name.empty()) {
    if (t.in_nodes.size() != 1) {
      raise_arg(zelbase::string_with_format("%s: task '%s' has %zu in-nodes; name one of them",
                                            what.c_str(), wtid.c_str(), t.in_nodes.size()));
    }
    node_name = t.in_nodes.begin()->first;
  }
  auto node_it = t.in_nodes.find(node_name);
  if (node_it == t.in_nodes.end()) {
    raise_arg(what + ": task '" + wtid + "' has no in-node '" + node_name + "'");
  }
  in_node& node = node_it->second;
  if (!value) raise_arg(what + ": the value is null");
  if (!detail::value_kind_accepted(node.accepts, *value)) {
    raise_arg(what + ": the in-node accepts " + node.accepts + " values, not " +
              zelcore::property_kind_c_str(value->kind()));
  }
  if (model_->type == workflow_type_template) return false;
  if (!force_spawn_value && (node.value || t.has_started())) return false;
  node.value = value;
  node.originator = originator;
  return true;
}

const std::map<std::string, std::string>& workflow_info::get_waiting_wfs() const {
  return model_->waiting;
}

void workflow_info::add_waiting_wf(const std::string& state_id, const std::string& originator) {
  model_->touch();
  check_state_id(state_id);
  model_->waiting[state_id] = originator;
}

void workflow_info::clear_waiting_wfs() {
  model_->touch();
  model_->waiting.clear();
}

bool workflow_info::add_dependant(const std::string& state_id) {
  model_->touch();
  check_state_id(state_id);
  return model_->dependants.insert(state_id).second;
}

bool workflow_info::remove_dependant(const std::string& state_id) {
  model_->touch();
  return model_->dependants.erase(state_id) != 0;
}

void workflow_info::clear_dependants() {
  model_->touch();
  model_->dependants.clear();
}

const std::set<std::string>& workflow_info::get_dependants() const { return model_->dependants; }

const std::string& workflow_info::add_task_info(task_ptr& task) {
  model_->touch();
  if (!task) raise_arg("cannot add a null task");
  std::string id = task->model_->id;
  if (id.empty()) {
    for (unsigned long n = 1; id.empty() || model_->tasks.count(id); ++n) {
      id = "task-" + std::to_string(n);
    }
  } else if (model_->tasks.count(id)) {
    raise_arg("cannot add task '" + id + "': the workflow already has a task of that id");
  }
  task->model_->id = id;
  return model_->tasks.emplace(id, task).first->second->model_->id;
}

zelbase::ptr_refcount<const task_info> workflow_info::get_task_info(const std::string& wtid) const {
  model_->task(wtid);
  return model_->tasks.find(wtid)->second;
}

zelbase::ptr_refcount<task_info> workflow_info::get_task_info(const std::string& wtid) {
  model_->task(wtid);
  return model_->tasks.find(wtid)->second;
}

bool workflow_info::has_task_info(const std::string& wtid) const {
  return model_->tasks.count(wtid) != 0;
}

bool workflow_info::is_task_kill_triggered(const std::string& wtid) const {
  return model_->kill_triggered(model_->task(wtid));
}

void workflow_info::set_task_kill_triggered(const std::string& wtid, bool triggered) {
  model_->touch();
  model_->task(wtid).kill_triggered = triggered;
}

void workflow_info::get_task_pre_reqs(const std::string& wtid, std::set<std::string>& wtids) const {
  model_->task(wtid);
  auto all = model_->pre_reqs();
  const std::set<std::string>& mine = all[wtid];
  wtids.insert(mine.begin(), mine.end());
}

unsigned int workflow_info::get_task_num_attempts(const std::string& wtid) const {
  return model_->task(wtid).num_attempts;
}

unsigned int workflow_info::get_task_max_attempts(const std::string& wtid) const {
  return model_->task(wtid).max_attempts;
}

void workflow_info::set_task_max_attempts(const std::string& wtid, unsigned int max_attempts) {
  model_->touch();
  model_->task(wtid).max_attempts = max_attempts;
}

std::int64_t workflow_info::get_task_priority(const std::string& wtid) const {
  return model_->task(wtid).priority;
}

void workflow_info::set_task_priority(const std::string& wtid, std::int64_t priority,
                                      priority_whence whence, std::int64_t min_priority,
                                      std::int64_t max_priority) {
  model_->touch();
  task_info::model& t = model_->task(wtid);
  t.priority = new_priority(t.priority, priority, whence, min_priority, max_priority);
}

std::int64_t workflow_info::get_priority() const { return model_->priority; }

void workflow_info::set_priority(std::int64_t priority, priority_whence whence,
                                 std::int64_t min_priority, std::int64_t max_priority) {
  model_->touch();
  model_->priority = new_priority(model_->priority, priority, whence, min_priority, max_priority);
}

bool workflow_info::set_task_status(const std::string& wtid, zelcore::task::status status,
                                    unsigned int time, const std::string& node_id,
                                    const std::string& message) {
  model_->touch();
  if (status > task_info::status_killed) {
    raise_arg(zelbase::string_with_format("unknown task status %u", static_cast<unsigned>(status)));
  }
  task_info::model& t = model_->task(wtid);
  if (model_->type == workflow_type_template || t.info.task_status == status) return false;
  t.info.task_status = status;
  t.info.time = time;
  t.info.node_id = node_id;
  t.info.message = message;
  if (status == task_info::status_running &&
      t.num_attempts < std::numeric_limits<unsigned int>::max()) {
    ++t.num_attempts;
  }
  if (status >= task_info::status_finished) t.scheduling = task_info::scheduling_none;
  return true;
}

void workflow_info::set_task_scheduling_state(const std::string& wtid,
                                              zelcore::task::scheduling_state state) {
  model_->touch();
  if (state > task_info::scheduling_dispatched) {
    raise_arg(zelbase::string_with_format("unknown task scheduling state %u",
                                          static_cast<unsigned>(state)));
  }
  task_info::model& t = model_->task(wtid);
  model_->check_not_template("are never scheduled");
  t.scheduling = state;
}

void workflow_info::update_task_progress(const std::string& wtid, const properties& progress) {
  model_->touch();
  task_info::model& t = model_->task(wtid);
  model_->check_not_template("make no progress");
  t.progress.merge_leaves(progress);
}

void workflow_info::get_invalid_pre_reqs_tasks(std::set<std::string>& wtids) const {
  const auto pre_reqs = model_->pre_reqs();
  static const std::set<std::string> none;
  auto pre_reqs_of = [&](const std::string& id) -> const std::set<std::string>& {
    auto it = pre_reqs.find(id);
    return it == pre_reqs.end() ? none : it->second;
  };
  // The least fixed point of "can complete": tasks on a cycle never can.
  std::set<std::string> can_complete;
  for (bool changed = true; changed;) {
    changed = false;
    for (const auto& [id, task] : model_->tasks) {
      if (can_complete.count(id)) continue;
      const task_info::model& t = *task->model_;
      bool ok = t.info.task_status == task_info::status_finished;
      if (!ok && !t.has_ended() && !model_->kill_triggered(t)) {
        const auto& pre = pre_reqs_of(id);
        ok = std::all_of(pre.begin(), pre.end(),
                         [&](const std::string& p) { return can_complete.count(p) != 0; });
      }
      if (ok) {
        can_complete.insert(id);
        changed = true;
      }
    }
  }
  for (const auto& [id, task] : model_->tasks) {
    if (task->model_->info.task_status == task_info::status_finished) continue;
    const auto& pre = pre_reqs_of(id);
    if (std::any_of(pre.begin(), pre.end(),
                    [&](const std::string& p) { return can_complete.count(p) == 0; })) {
      wtids.insert(id);
    }
  }
}

void workflow_info::get_tasks_runnability(std::list<std::string>& runnable,
                                          std::map<std::string, std::string>& not_runnable) const {
  auto pre_reqs = model_->pre_reqs();
  for (const auto& [id, task] : model_->tasks) {
    std::string reason = model_->not_runnable_reason(*task->model_, pre_reqs[id]);
    if (reason.empty()) {
      runnable.push_back(id);
    } else {
      not_runnable[id] = reason;
    }
  }
}

void workflow_info::get_task_uris(std::list<std::string>& wtids) const {
  for (const auto& [id, task] : model_->tasks) wtids.push_back(id);
}

void workflow_info::make_dot_graph(std::string& out) {
  std::string label = workflow_type_name(model_->type);
  if (model_->sequence_number != 0) {
    label += " " + std::to_string(model_->sequence_number);
  }
  out = "digraph workflow {\n  label=" + dot_quoted(label) + ";\n  node [shape=box];\n";
  std::set<std::string> missing;
  std::string edges;
  for (const auto& [id, task] : model_->tasks) {
    const task_info::model& t = *task->model_;
    std::string node_label = id + "\n" + t.kind + "\n" + task_status_c_str(t.info.task_status);
    if (t.type == task_info::task_type_init) node_label += "\n(init)";
    out += "  " + dot_quoted(id) + " [label=" + dot_quoted(node_label) + "];\n";
    for (const auto& [name, ov] : t.out_values) {
      for (const std::string& d : ov.destinations) {
        std::string target = d;
        const std::string target_id = zelbase::path_front(target, '>');
        std::string in_name = zelbase::path_pop_front(target, '>');
        auto target_it = model_->tasks.find(target_id);
        bool dangling = target_it == model_->tasks.end() ||
                        (!in_name.empty() && !target_it->second->model_->in_nodes.count(in_name));
        if (target_it == model_->tasks.end()) missing.insert(target_id);
        edges += "  " + dot_quoted(id) + " -> " + dot_quoted(target_id) +
                 " [label=" + dot_quoted(in_name.empty() ? name : name + " -> " + in_name) +
                 (dangling ? ", style=dashed" : "") + "];\n";
      }
    }
  }
  for (const std::string& id : missing) {
    out +=
        "  " + dot_quoted(id) + " [label=" + dot_quoted(id + "\n(missing)") + ", style=dashed];\n";
  }
  out += edges + "}\n";
}

const properties& workflow_info::get_configuration() const { return model_->configuration; }
void workflow_info::set_configuration(const properties& configuration) {
  model_->touch();
  model_->configuration = configuration;
}

const properties& workflow_info::get_workflow_meta_data() const { return model_->meta_data; }
void workflow_info::set_workflow_meta_data(const properties& meta) {
  model_->touch();
  model_->meta_data = meta;
}
void workflow_info::add_workflow_meta_data(const properties& meta) {
  model_->touch();
  model_->meta_data.merge_leaves(meta);
}
void workflow_info::add_workflow_meta_data(const std::string& key,
                                           zelbase::ptr_refcount<const zelcore::property> value) {
  model_->touch();
  set_meta_key(model_->meta_data, key, value);
}

const properties& workflow_info::get_ext_meta_data() const { return model_->ext_meta_data; }
void workflow_info::set_ext_meta_data(const properties& meta) {
  model_->touch();
  model_->ext_meta_data = meta;
}
void workflow_info::set_ext_meta_data(const std::string& key,
                                      zelbase::ptr_refcount<const zelcore::property> value) {
  model_->touch();
  set_meta_key(model_->ext_meta_data, key, value);
}
void workflow_info::add_ext_meta_data(const properties& meta) {
  model_->touch();
  model_->ext_meta_data.merge_leaves(meta);
}

}  // namespace zelworkflow
