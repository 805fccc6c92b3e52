// A workflow's description checked and converted into the workflow model's encoding: tasks with
// their run parameters, dependencies by name turned into out-value -> in-node edges, in-values
// with their kinds and values, out-values passed to every dependant.
#include <algorithm>
#include <deque>
#include <limits>
#include <map>
#include <set>

#include "description_checks.h"
#include "zelworkflow/workflow_info.h"

namespace zelcapi {
namespace description_detail {

namespace {

using zelworkflow::workflow_info;

constexpr std::int64_t max_attempts = 1000;
constexpr std::int64_t min_i64 = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t max_i64 = std::numeric_limits<std::int64_t>::max();
// The out-value that a task without declared outputs passes to its dependants.
const char* const implicit_output = "done";

const std::vector<std::string> workflow_keys{"name",   "template", "priority", "meta",
                                             "config", "inputs",   "tasks"};
const std::vector<std::string> input_keys{"kind", "default"};
const std::vector<std::string> in_value_kinds{"any", "int", "bool", "string", "list", "properties"};
const std::vector<std::string> task_keys{
    "name",     "command",      "kind",          "after",     "inputs", "outputs",
    "priority", "max-attempts", "cores",         "memory-mb", "queue",  "tags",
    "env",      "run-ms",       "fail-attempts", "exit-code", "params"};

// A name given in a list of names, with its path.
struct name_ref {
  std::string name;
  std::string path;
};

struct input_entry {
  std::string name;
  std::string path;
  std::string accepts = "string";
  property_ptr default_value;
};

struct task_entry {
  std::string name;  // "" when the task has no valid name
  std::string path;
  std::vector<name_ref> after;
  bool inputs_given = false;
  std::vector<name_ref> inputs;
  std::vector<std::string> outputs;
  // The task's encoding without its in-nodes and out-values.
  properties encoding;
  // Resolved: the prerequisites (index, position in `after`) and the in-values taken.
  std::vector<std::pair<std::size_t, std::size_t>> prerequisites;
  std::vector<std::string> taken;
};

std::string name_rule(const std::string& what, const std::string& text) {
  return "'" + text + "' is not " + what + ": use letters, digits, '-' and '_'";
}

// The names of a list of names (or, where `one_allowed`, of a single string).
std::vector<name_ref> read_names(const fields& f, const std::string& key, bool one_allowed) {
  std::vector<name_ref> out;
  const property_ptr value = f.tree().get_property(key);
  if (!value) return out;
  if (one_allowed && value->kind() == property::kind_string) {
    out.push_back({static_cast<const zelcore::property_string&>(*value).value(), f.path_of(key)});
    return out;
  }
  std::vector<std::string> names;
  if (value->kind() != property::kind_list) {
    f.errors().add(f.path_of(key), description_issue::wrong_kind,
                   std::string("expected a list of names") + (one_allowed ? " or a name" : "") +
                       ", got " + describe_value(*value));
    return out;
  }
  std::size_t index = 0;
  for (const property_ptr& e : static_cast<const property_list&>(*value).value()) {
    const std::string path = child_path(f.path_of(key), index++);
    if (e->kind() == property::kind_string) {
      out.push_back({static_cast<const zelcore::property_string&>(*e).value(), path});
    } else {
      f.errors().add(path, description_issue::wrong_kind,
                     "expected a name (a string), got " + describe_value(*e));
    }
  }
  return out;
}

void check_meta(const fields& f, properties& meta) {
  const properties* given = f.map("meta");
  if (given == nullptr) return;
  static const std::vector<std::pair<std::string, std::string>> reserved{
      {"user", "'user' names the workflow's owner, which the master sets"},
      {"name", "the workflow's name goes in /name"},
      {"kill-requested", "'kill-requested' cancels the workflow; a description does not set it"}};
  for (const auto& [key, value] : *given) {
    if (!value) continue;
    const auto r = std::find_if(reserved.begin(), reserved.end(),
                                [&key = key](const auto& entry) { return entry.first == key; });
    if (r != reserved.end()) {
      f.errors().add(child_path(f.path_of("meta"), key), description_issue::bad_value, r->second);
    } else {
      meta[key] = value;
    }
  }
}

std::vector<input_entry> read_inputs(const fields& f) {
  std::vector<input_entry> out;
  const properties* inputs = f.map("inputs");
  if (inputs == nullptr) return out;
  for (const auto& [name, declared] : *inputs) {
    if (!declared) continue;
    input_entry in{name, child_path(f.path_of("inputs"), name), "string", nullptr};
    if (!is_name(name)) {
      f.errors().add(in.path, description_issue::bad_name, name_rule("an in-value name", name));
    }
    if (declared->kind() != property::kind_properties) {
      f.errors().add(in.path, description_issue::wrong_kind,
                     "expected a map (kind, default), got " + describe_value(*declared));
      continue;
    }
    const fields s(f.errors(), static_cast<const properties&>(*declared), in.path, "an in-value",
                   input_keys);
    if (const std::string* kind = s.text("kind")) {
      if (std::find(in_value_kinds.begin(), in_value_kinds.end(), *kind) == in_value_kinds.end()) {
        const std::string hint = did_you_mean(*kind, in_value_kinds);
        f.errors().add(s.path_of("kind"), description_issue::bad_value,
                       "'" + *kind + "' is not a kind" +
                           (hint.empty() ? "; the kinds are any, int, bool, string, list and "
                                           "properties"
                                         : hint));
        continue;
      }
      in.accepts = *kind;
    }
    if (const property_ptr d = s.tree().get_property("default")) {
      // A default is written in the file with its own kind: no text is read as another kind.
      if (in.accepts == "any" || d->kind() == kind_of(in.accepts)) {
        in.default_value = d;
      } else {
        f.errors().add(s.path_of("default"), description_issue::wrong_kind,
                       std::string("expected ") + kind_text(kind_of(in.accepts)) + ", got " +
                           describe_value(*d));
      }
    }
    out.push_back(std::move(in));
  }
  return out;
}

// The outputs of a task: a list of names, or a map from name to the value the task produces.
void read_outputs(const fields& f, task_entry& t, properties& produced) {
  const property_ptr value = f.tree().get_property("outputs");
  if (!value) return;
  const std::string path = f.path_of("outputs");
  const auto add = [&](const std::string& name, const std::string& at) {
    if (!is_name(name)) {
      f.errors().add(at, description_issue::bad_name, name_rule("an out-value name", name));
    } else if (std::find(t.outputs.begin(), t.outputs.end(), name) != t.outputs.end()) {
      f.errors().add(at, description_issue::duplicate, "out-value '" + name + "' is named twice");
    } else {
      t.outputs.push_back(name);
    }
  };
  if (value->kind() == property::kind_properties) {
    for (const auto& [name, v] : static_cast<const properties&>(*value)) {
      if (!v) continue;
      add(name, child_path(path, name));
      produced[name] = v;
    }
  } else if (value->kind() == property::kind_list) {
    for (const name_ref& n : read_names(f, "outputs", false)) add(n.name, n.path);
  } else {
    f.errors().add(path, description_issue::wrong_kind,
                   "expected a list of names or a map of values, got " + describe_value(*value));
  }
}

task_entry read_task(const fields& f) {
  task_entry t;
  t.path = f.path();
  if (const std::string* name = f.text("name", true)) {
    if (is_name(*name)) {
      t.name = *name;
    } else {
      f.errors().add(f.path_of("name"), description_issue::bad_name,
                     name_rule("a task name", *name));
    }
  }
  const std::string* kind = f.text("kind", false, true);
  t.encoding.set_string_value("kind", kind != nullptr ? *kind : "command");
  properties parameters;
  copy_run_parameters(f, parameters);
  f.copy("priority", property::kind_int, t.encoding, "priority", min_i64, max_i64);
  f.copy("max-attempts", property::kind_int, t.encoding, "max-attempts", 1, max_attempts);
  t.after = read_names(f, "after", true);
  t.inputs_given = f.tree().is_present("inputs");
  t.inputs = read_names(f, "inputs", false);
  properties produced;
  read_outputs(f, t, produced);
  if (!produced.empty()) parameters.set_properties_value("out-values", produced);
  if (const properties* params = f.map("params")) {
    for (const auto& [key, value] : *params) {
      if (!value) continue;
      const std::string at = child_path(f.path_of("params"), key);
      if (key == "out-values") {
        f.errors().add(at, description_issue::bad_value,
                       "the values a task produces go in " + f.path_of("outputs"));
      } else if (std::find(run_parameter_keys.begin(), run_parameter_keys.end(), key) !=
                 run_parameter_keys.end()) {
        f.errors().add(at, description_issue::bad_value,
                       "'" + key + "' is a run parameter: write it as " + f.path_of(key));
      } else {
        parameters[key] = value;
      }
    }
  }
  t.encoding.set_properties_value("parameters", parameters);
  return t;
}

// Resolves each task's prerequisites and in-values by name.
void resolve(error_list& errors, std::vector<task_entry>& tasks,
             const std::vector<input_entry>& inputs, bool& input_refs_ok) {
  std::map<std::string, std::size_t> by_name;
  std::vector<std::string> names;
  for (std::size_t i = 0; i < tasks.size(); ++i) {
    if (tasks[i].name.empty()) continue;
    const auto [at, fresh] = by_name.emplace(tasks[i].name, i);
    if (fresh) {
      names.push_back(tasks[i].name);
    } else {
      errors.add(child_path(tasks[i].path, "name"), description_issue::duplicate,
                 "task '" + tasks[i].name + "' is also " + tasks[at->second].path);
    }
  }
  std::vector<std::string> input_names;
  for (const input_entry& in : inputs) input_names.push_back(in.name);
  input_refs_ok = true;
  for (std::size_t i = 0; i < tasks.size(); ++i) {
    task_entry& t = tasks[i];
    std::set<std::size_t> seen;
    for (std::size_t k = 0; k < t.after.size(); ++k) {
      const name_ref& a = t.after[k];
      const auto found = by_name.find(a.name);
      if (found == by_name.end()) {
        errors.add(a.path, description_issue::unknown_name,
                   "no task is named '" + a.name + "'" + did_you_mean(a.name, names));
      } else if (found->second == i) {
        errors.add(a.path, description_issue::cycle, "a task cannot come after itself");
      } else if (!seen.insert(found->second).second) {
        errors.add(a.path, description_issue::duplicate, "'" + a.name + "' is named twice");
      } else {
        t.prerequisites.emplace_back(found->second, k);
      }
    }
    if (!t.inputs_given) {
      t.taken = input_names;
      continue;
    }
    for (const name_ref& n : t.inputs) {
      if (std::find(input_names.begin(), input_names.end(), n.name) == input_names.end()) {
        errors.add(
            n.path, description_issue::unknown_name,
            "the workflow has no in-value '" + n.name + "'" + did_you_mean(n.name, input_names));
        input_refs_ok = false;
      } else if (std::find(t.taken.begin(), t.taken.end(), n.name) != t.taken.end()) {
        errors.add(n.path, description_issue::duplicate, "'" + n.name + "' is named twice");
      } else {
        t.taken.push_back(n.name);
      }
    }
  }
}

// Reports every group of tasks whose dependencies go round (a strongly connected component of
// more than one task, found without recursion), once, at the first of its tasks in the file.
void report_cycles(error_list& errors, const std::vector<task_entry>& tasks) {
  const std::size_t n = tasks.size();
  constexpr std::size_t none = std::numeric_limits<std::size_t>::max();
  std::vector<std::size_t> index(n, none), low(n, 0), component(n, none);
  std::vector<bool> on_stack(n, false);
  std::vector<std::size_t> stack;
  std::vector<std::pair<std::size_t, std::size_t>> calls;  // (task, next prerequisite)
  std::size_t counter = 0;
  std::size_t components = 0;
  for (std::size_t root = 0; root < n; ++root) {
    if (index[root] != none) continue;
    calls.emplace_back(root, 0);
    while (!calls.empty()) {
      auto& [v, next] = calls.back();
      if (next == 0 && index[v] == none) {
        index[v] = low[v] = counter++;
        stack.push_back(v);
        on_stack[v] = true;
      }
      if (next < tasks[v].prerequisites.size()) {
        const std::size_t w = tasks[v].prerequisites[next++].first;
        if (index[w] == none) {
          calls.emplace_back(w, 0);
        } else if (on_stack[w]) {
          low[v] = std::min(low[v], index[w]);
        }
        continue;
      }
      if (low[v] == index[v]) {
        std::size_t w = none;
        do {
          w = stack.back();
          stack.pop_back();
          on_stack[w] = false;
          component[w] = components;
        } while (w != v);
        ++components;
      }
      const std::size_t done = v;
      calls.pop_back();
      if (!calls.empty()) low[calls.back().first] = std::min(low[calls.back().first], low[done]);
    }
  }
  // A task alone in its component is on no cycle (one after itself was refused in resolve).
  std::vector<std::size_t> size(components, 0);
  for (std::size_t v = 0; v < n; ++v) ++size[component[v]];
  std::vector<bool> reported(components, false);
  std::vector<std::size_t> parent(n, none);
  for (std::size_t s = 0; s < n; ++s) {
    if (size[component[s]] < 2 || reported[component[s]]) continue;
    // The shortest way from s back to itself inside its component.
    std::fill(parent.begin(), parent.end(), none);
    std::deque<std::size_t> queue{s};
    std::size_t last = none;
    while (!queue.empty() && last == none) {
      const std::size_t v = queue.front();
      queue.pop_front();
      for (const auto& [w, k] : tasks[v].prerequisites) {
        if (component[w] != component[s]) continue;
        if (w == s) {
          last = v;
          break;
        }
        if (parent[w] == none) {
          parent[w] = v;
          queue.push_back(w);
        }
      }
    }
    if (last == none) continue;
    reported[component[s]] = true;
    std::vector<std::size_t> way;
    for (std::size_t v = last; v != s; v = parent[v]) way.push_back(v);
    way.push_back(s);
    std::reverse(way.begin(), way.end());
    std::string text;
    for (const std::size_t v : way) text += tasks[v].name + " -> ";
    const std::size_t first = way.size() > 1 ? way[1] : s;
    const auto edge = std::find_if(tasks[s].prerequisites.begin(), tasks[s].prerequisites.end(),
                                   [first](const auto& p) { return p.first == first; });
    errors.add(tasks[s].after[edge->second].path, description_issue::cycle,
               "dependency cycle: " + text + tasks[s].name + " (each comes after the next)");
  }
}

// The values that the in-values take: settings by name, else defaults.
properties take_values(error_list& errors, const std::vector<input_entry>& inputs,
                       const std::vector<description_setting>& settings) {
  properties values;
  std::vector<std::string> names;
  for (const input_entry& in : inputs) names.push_back(in.name);
  std::set<std::string> given;
  for (std::size_t i = 0; i < settings.size(); ++i) {
    const int at = static_cast<int>(i);
    const description_setting& s = settings[i];
    const auto in = std::find_if(inputs.begin(), inputs.end(),
                                 [&s](const input_entry& e) { return e.name == s.name; });
    if (in == inputs.end()) {
      errors.add("", description_issue::unknown_name,
                 inputs.empty() ? "the workflow takes no in-values"
                                : "the workflow has no in-value '" + s.name + "'" +
                                      did_you_mean(s.name, names),
                 at);
      continue;
    }
    if (!given.insert(s.name).second) {
      errors.add("", description_issue::duplicate, "in-value '" + s.name + "' is given twice", at);
      continue;
    }
    if (!s.value) {
      errors.add("", description_issue::missing, "in-value '" + s.name + "' is given no value", at);
      continue;
    }
    description_issue issue = description_issue::bad_value;
    std::string problem;
    const property_ptr v = value_for_kind(in->accepts, s.value, issue, problem);
    if (v) {
      values[s.name] = v;
    } else {
      errors.add("", issue, "in-value '" + s.name + "': " + problem, at);
    }
  }
  for (const input_entry& in : inputs) {
    if (given.count(in.name) != 0) continue;
    if (in.default_value) {
      values[in.name] = in.default_value;
    } else {
      errors.add(in.path, description_issue::no_value,
                 "in-value '" + in.name + "' has no default and was given no value");
    }
  }
  return values;
}

// The workflow's tasks with their edges: every out-value of a prerequisite p (its declared
// outputs, else "done") feeds the in-node "p.<out-value>" of each task that comes after it.
properties encode_tasks(const std::vector<task_entry>& tasks,
                        const std::vector<input_entry>& inputs, const properties& values,
                        bool is_template, properties& spawn_values) {
  std::vector<std::vector<std::string>> outputs(tasks.size());
  std::vector<std::vector<std::size_t>> dependants(tasks.size());
  for (std::size_t d = 0; d < tasks.size(); ++d) {
    for (const auto& [p, k] : tasks[d].prerequisites) dependants[p].push_back(d);
  }
  for (std::size_t p = 0; p < tasks.size(); ++p) {
    outputs[p] = tasks[p].outputs;
    if (outputs[p].empty() && !dependants[p].empty()) outputs[p].push_back(implicit_output);
  }
  // Gathered and sorted once: a tree takes keys out of order one at a time only by moving the
  // keys after them, which a workflow of many tasks (or a task of many inputs) cannot afford.
  properties::container encoded;
  encoded.reserve(tasks.size());
  for (std::size_t i = 0; i < tasks.size(); ++i) {
    const task_entry& t = tasks[i];
    properties task = t.encoding;
    properties::container in_nodes;
    for (const std::string& name : t.taken) {
      const auto in = std::find_if(inputs.begin(), inputs.end(),
                                   [&name](const input_entry& e) { return e.name == name; });
      properties node;
      node.set_string_value("accepts", in->accepts);
      if (is_template) {
        spawn_values[t.name + ">" + name] = values.get_property(name);
      } else {
        node["value"] = values.get_property(name);
      }
      in_nodes.emplace_back(name, zelbase::make_refcount<properties>(std::move(node)));
    }
    for (const auto& [p, k] : t.prerequisites) {
      for (const std::string& o : outputs[p]) {
        properties node;
        node.set_string_value("accepts", "any");
        in_nodes.emplace_back(tasks[p].name + "." + o,
                              zelbase::make_refcount<properties>(std::move(node)));
      }
    }
    properties out_values;
    for (const std::string& o : outputs[i]) {
      std::vector<std::string> destinations;
      for (const std::size_t d : dependants[i]) {
        destinations.push_back(tasks[d].name + ">" + t.name + "." + o);
      }
      properties out_value;
      out_value["destinations"] = zelcore::make_string_list(destinations);
      out_values.set_properties_value(o, out_value);
    }
    if (!in_nodes.empty()) task.set_properties_value("in-nodes", properties(std::move(in_nodes)));
    if (!out_values.empty()) task.set_properties_value("out-values", out_values);
    encoded.emplace_back(t.name, zelbase::make_refcount<properties>(std::move(task)));
  }
  return properties(std::move(encoded));
}

}  // namespace

void convert_workflow(const properties& d, const std::vector<description_setting>& settings,
                      error_list& errors, work_description& out) {
  const std::size_t errors_before = out.errors.size();
  const fields f(errors, d, "", "a workflow", workflow_keys);
  if (const std::string* name = f.text("name", true, true)) out.name = *name;
  f.boolean("template", out.is_template);
  properties encoding;
  encoding.set_int_value("type", out.is_template ? workflow_info::workflow_type_template
                                                 : workflow_info::workflow_type_spawned);
  f.copy("priority", property::kind_int, encoding, "priority", min_i64, max_i64);
  properties meta;
  check_meta(f, meta);
  meta.set_string_value("name", out.name);
  if (const properties* config = f.map("config")) {
    encoding.set_properties_value("configuration", *config);
  }
  const std::vector<input_entry> inputs = read_inputs(f);
  if (out.is_template && inputs.empty()) {
    errors.add(f.path_of("template"), description_issue::bad_value,
               "a template takes in-values: the values sent to it spawn the workflows that run; "
               "declare them in /inputs");
  }
  std::vector<task_entry> tasks;
  const property_ptr task_list = f.tree().get_property("tasks");
  if (task_list && task_list->kind() != property::kind_list) {
    errors.add(f.path_of("tasks"), description_issue::wrong_kind,
               "expected a list of tasks (each with its name), got " + describe_value(*task_list));
  } else if (task_list) {
    const property_list::list_type& list = static_cast<const property_list&>(*task_list).value();
    if (list.empty()) {
      errors.add(f.path_of("tasks"), description_issue::out_of_range,
                 "a workflow has at least one task");
    }
    std::size_t index = 0;
    for (const property_ptr& e : list) {
      const std::string path = child_path(f.path_of("tasks"), index++);
      if (e->kind() != property::kind_properties) {
        errors.add(path, description_issue::wrong_kind,
                   "expected a map (a task), got " + describe_value(*e));
        continue;
      }
      tasks.push_back(
          read_task(fields(errors, static_cast<const properties&>(*e), path, "a task", task_keys)));
    }
  }
  bool input_refs_ok = true;
  resolve(errors, tasks, inputs, input_refs_ok);
  report_cycles(errors, tasks);
  if (input_refs_ok) {
    for (const input_entry& in : inputs) {
      const bool taken = std::any_of(tasks.begin(), tasks.end(), [&in](const task_entry& t) {
        return std::find(t.taken.begin(), t.taken.end(), in.name) != t.taken.end();
      });
      if (!taken && !tasks.empty()) {
        errors.add(in.path, description_issue::bad_value,
                   "no task takes in-value '" + in.name + "'");
      }
    }
  }
  properties values = take_values(errors, inputs, settings);
  if (out.errors.size() != errors_before) return;
  encoding.set_properties_value("meta-data", meta);
  encoding.set_properties_value(
      "tasks", encode_tasks(tasks, inputs, values, out.is_template, out.spawn_values));
  out.workflow = encoding;
  out.values = values;
}

}  // namespace description_detail
}  // namespace zelcapi
