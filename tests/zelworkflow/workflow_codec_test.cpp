// Tests of the workflow and task encodings: exact round trips of every field, strict refusal of
// malformed encodings with clear texts, and random damage that never crashes.
#include <gtest/gtest.h>

#include <limits>
#include <random>

#include "support/sample_workflows.h"
#include "workflow_test_util.h"
#include "zelbase/exceptions.h"
#include "zelworkflow/task_kind_db.h"
#include "zelworkflow/workflow_info.h"

namespace {

using zelcore::make_bool;
using zelcore::make_int;
using zelcore::make_string;
using zelcore::properties;
using zelcore::property_ptr;
using zelcore::task;
using zeltest::encoded;
using zelworkflow::task_info;
using zelworkflow::workflow_info;

// A workflow in which every field of the model differs from its default.
workflow_info full_workflow() {
  workflow_info wf;
  wf.decode_workflow_info(zeltest::sample_workflow(1, 3, true), zelcore::plugin_db());
  wf.spawn(std::numeric_limits<std::uint64_t>::max(), make_string("spawned by test"),
           {{"command", 4}});
  wf.set_priority(std::numeric_limits<std::int64_t>::min(), workflow_info::priority_absolute,
                  std::numeric_limits<std::int64_t>::min(), 0);
  properties config;
  config.set_string_value("queue", "fast");
  wf.set_configuration(config);
  wf.add_workflow_meta_data("parent-id", make_string("WOFL-p"));
  wf.set_ext_meta_data("origin{template}", make_string("WOFL-p"));
  wf.add_dependant("WOFL-d1");
  wf.add_dependant("WOFL-d2");
  wf.add_waiting_wf("WOFL-w", "originator text");
  wf.set_in_value("init>setup", make_string("s"), false, "client");
  zelbase::ptr_refcount<zelcore::property_list> list(new zelcore::property_list());
  list->push_back(make_int(1));
  list->push_back(make_bool(false));
  wf.set_in_value("t1>in", list, false, "");
  wf.set_task_status("t1", task::status_running, 4000000000u, "node-7", "msg \"quoted\"");
  wf.set_task_scheduling_state("t2", task::scheduling_queued);
  wf.set_task_max_attempts("t2", std::numeric_limits<unsigned int>::max());
  wf.set_task_priority("t3", std::numeric_limits<std::int64_t>::max(),
                       workflow_info::priority_absolute, 0,
                       std::numeric_limits<std::int64_t>::max());
  wf.set_task_kill_triggered("t3", true);
  properties progress;
  progress.set_int_value("percent", 40);
  wf.update_task_progress("t1", progress);
  properties out;
  properties produced;
  produced.set_string_value("config", "cfg");
  wf.get_task_info("init")->make_out_values(produced, out);
  wf.get_task_info("init")->decode_out_values(out);
  properties caps;
  caps.set_int_value("licences", 2);
  wf.get_task_info("t1")->set_job_allocated_license_capabilities(
      zelbase::ptr_refcount<const properties>(new properties(caps)));
  wf.get_task_info("t1")->create_job_info(wf);
  return wf;
}

TEST(WorkflowCodec, FullWorkflowRoundTripsExactly) {
  const workflow_info original = full_workflow();
  const properties enc = encoded(original);
  workflow_info back;
  back.decode_workflow_info(enc, zelcore::plugin_db());
  EXPECT_TRUE(back == original);
  EXPECT_TRUE(encoded(back) == enc);
  // Through the network encoding as well.
  const std::string bytes = zelcore::encode_property(enc);
  workflow_info from_bytes;
  from_bytes.decode_workflow_info(zelcore::decode_properties(bytes.data(), bytes.size()),
                                  zelcore::plugin_db());
  EXPECT_TRUE(from_bytes == original);
}

TEST(WorkflowCodec, EveryFieldSurvivesTheRoundTrip) {
  workflow_info back;
  back.decode_workflow_info(encoded(full_workflow()), zelcore::plugin_db());
  EXPECT_EQ(back.get_type(), workflow_info::workflow_type_init);
  EXPECT_EQ(back.get_sequence_number(), std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(back.get_spawn_value()->to_string(), "spawned by test");
  EXPECT_EQ(back.get_priority(), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(back.get_configuration().get_string_value("queue"), "fast");
  EXPECT_EQ(back.get_workflow_meta_data().get_string_value("parent-id"), "WOFL-p");
  EXPECT_EQ(back.get_ext_meta_data().get_string_value("origin{template}"), "WOFL-p");
  EXPECT_EQ(back.get_dependants(), (std::set<std::string>{"WOFL-d1", "WOFL-d2"}));
  EXPECT_EQ(back.get_waiting_wfs(),
            (std::map<std::string, std::string>{{"WOFL-w", "originator text"}}));
  EXPECT_TRUE(back.is_inited());
  auto t1 = back.get_task_info("t1");
  EXPECT_EQ(t1->get_in_value("in")->describe(), "[1,false]");
  EXPECT_EQ(t1->get_status(), task::status_running);
  EXPECT_EQ(t1->get_status_info().time, 4000000000u);
  EXPECT_EQ(t1->get_status_info().node_id, "node-7");
  EXPECT_EQ(t1->get_status_info().message, "msg \"quoted\"");
  EXPECT_EQ(back.get_task_num_attempts("t1"), 1u);
  EXPECT_EQ(back.get_task_max_attempts("t1"), 4u);
  EXPECT_EQ(t1->get_progress().get_int_value("percent"), 40);
  EXPECT_EQ(t1->get_job_allocated_license_capabilities()->get_int_value("licences"), 2);
  ASSERT_FALSE(t1->get_job_info().is_null());
  EXPECT_EQ(t1->get_job_info()->get_string_value("task-id"), "t1");
  EXPECT_EQ(back.get_task_info("t2")->get_scheduling_state(), task::scheduling_queued);
  EXPECT_EQ(back.get_task_max_attempts("t2"), std::numeric_limits<unsigned int>::max());
  EXPECT_EQ(back.get_task_priority("t3"), std::numeric_limits<std::int64_t>::max());
  EXPECT_TRUE(back.is_task_kill_triggered("t3"));
  EXPECT_EQ(back.get_task_info("init")->get_out_value("config")->to_string(), "cfg");
  EXPECT_EQ(back.get_task_info("init")->get_type(), task::task_type_init);
  EXPECT_EQ(back.get_task_info("init")->get_kind(), "setup");
}

TEST(WorkflowCodec, TaskRoundTripsThroughCreateTaskInfo) {
  const workflow_info wf = full_workflow();
  for (const char* id : {"init", "t1", "t2", "t3"}) {
    const properties enc = encoded(*wf.get_task_info(id));
    auto back = task_info::create_task_info(enc, zelcore::plugin_db());
    EXPECT_TRUE(encoded(*back) == enc) << id;
  }
}

// A task id holding the separator could never be addressed by a wpath, and the workflow that
// took such a task could not be decoded from its own encoding.
TEST(WorkflowCodec, CreateTaskInfoRefusesATaskIdHoldingTheSeparator) {
  properties t = zeltest::sample_task("c", 0, {}, {});
  t.set_string_value("id", "a>b");
  zeltest::expect_arg([&] { task_info::create_task_info(t, zelcore::plugin_db()); },
                      "cannot decode task 'a>b': task id 'a>b' holds '>'");
}

TEST(WorkflowCodec, EncodingKeysAreTheDocumentedOnes) {
  const properties enc = encoded(full_workflow());
  std::vector<std::string> keys;
  for (const auto& [key, value] : enc) keys.push_back(key);
  const std::vector<std::string> expected{
      "configuration",   "dependants",  "ext-meta-data", "meta-data", "priority",
      "sequence-number", "spawn-value", "tasks",         "type",      "waiting"};
  EXPECT_EQ(keys, expected);
  keys.clear();
  for (const auto& [key, value] : enc.get_properties_value("tasks").get_properties_value("t1")) {
    keys.push_back(key);
  }
  const std::vector<std::string> task_keys{"allocated-license-capabilities",
                                           "id",
                                           "in-nodes",
                                           "job-info",
                                           "kill-triggered",
                                           "kind",
                                           "max-attempts",
                                           "num-attempts",
                                           "out-values",
                                           "parameters",
                                           "priority",
                                           "progress",
                                           "scheduling-state",
                                           "status",
                                           "status-message",
                                           "status-node",
                                           "status-time",
                                           "type"};
  EXPECT_EQ(keys, task_keys);
}

TEST(WorkflowCodec, SpawnValueIsAbsentForAWorkflowNeverSpawned) {
  properties enc;
  enc.set_int_value("spawn-value", 3);
  workflow_info plain;
  plain.encode_workflow_info(enc);
  EXPECT_FALSE(enc.is_present("spawn-value"));
}

TEST(WorkflowCodec, MinimalEncodingTakesDefaults) {
  workflow_info wf;
  wf.decode_workflow_info(properties(), zelcore::plugin_db());
  EXPECT_TRUE(wf == workflow_info());
  auto t = task_info::create_task_info(properties(), zelcore::plugin_db());
  EXPECT_EQ(t->get_id(), "");
  EXPECT_EQ(t->get_status(), task::status_waiting);
  EXPECT_EQ(t->get_type(), task::task_type_ordinary);
}

// Decoding `bad` into a workflow that already holds content raises exactly `text` and leaves
// that content as it was.
void expect_refused(const properties& bad, const std::string& text) {
  workflow_info wf = full_workflow();
  zeltest::expect_arg_unchanged(
      wf, [&] { wf.decode_workflow_info(bad, zelcore::plugin_db()); }, text);
}

properties with_task(const std::string& id, const properties& task) {
  properties tasks;
  tasks.set_properties_value(id, task);
  properties wf;
  wf.set_properties_value("tasks", tasks);
  return wf;
}

properties task_with(const std::string& key, const property_ptr& value) {
  properties t = zeltest::sample_task("c", 0, {{"in", "any"}}, {{"o", {"a>in"}}});
  t[key] = value;
  return t;
}

properties in_node_with(const std::string& key, const property_ptr& value) {
  properties node;
  node.set_string_value("accepts", "int");
  node[key] = value;
  properties nodes;
  nodes.set_properties_value("n", node);
  properties t;
  t.set_properties_value("in-nodes", nodes);
  return t;
}

TEST(WorkflowCodec, MalformedWorkflowKeysAreRefused) {
  properties p;
  p.set_string_value("type", "0");
  expect_refused(p, "cannot decode workflow: 'type' holds a string, not an int");
  p = properties();
  p.set_int_value("type", 3);
  expect_refused(p, "cannot decode workflow: 'type' is 3, outside 0 to 2");
  p = properties();
  p.set_int_value("typo", 3);
  expect_refused(p, "cannot decode workflow: unknown key 'typo'");
  p = properties();
  p.set_int_value("tasks", 1);
  expect_refused(p, "cannot decode workflow: 'tasks' holds an int, not a properties");
  p = properties();
  zelbase::ptr_refcount<zelcore::property_list> list(new zelcore::property_list());
  list->push_back(make_int(1));
  p["dependants"] = list;
  expect_refused(p, "cannot decode workflow: 'dependants' holds an element that is not a string");
  p = properties();
  properties waiting;
  waiting.set_int_value("WOFL-1", 1);
  p.set_properties_value("waiting", waiting);
  expect_refused(p,
                 "cannot decode workflow: 'waiting' entry 'WOFL-1' is not a state id with an "
                 "originator text");
  p = properties();
  properties tasks;
  tasks.set_int_value("a", 1);
  p.set_properties_value("tasks", tasks);
  expect_refused(p, "cannot decode workflow: task 'a' holds an int, not a properties");
  expect_refused(with_task("a>b", properties()),
                 "cannot decode workflow: task id 'a>b' is empty or holds '>'");
  properties named;
  named.set_string_value("id", "b");
  expect_refused(with_task("a", named),
                 "cannot decode workflow: the task under 'a' has the id 'b'");
}

TEST(WorkflowCodec, MalformedTaskKeysAreRefused) {
  expect_refused(with_task("a", task_with("status", make_int(6))),
                 "cannot decode task 'a': 'status' is 6, outside 0 to 5");
  expect_refused(with_task("a", task_with("type", make_int(2))),
                 "cannot decode task 'a': 'type' is 2, outside 0 to 1");
  expect_refused(with_task("a", task_with("scheduling-state", make_int(-1))),
                 "cannot decode task 'a': 'scheduling-state' is -1, outside 0 to 2");
  expect_refused(with_task("a", task_with("max-attempts", make_int(4294967296))),
                 "cannot decode task 'a': 'max-attempts' is 4294967296, outside 0 to 4294967295");
  expect_refused(with_task("a", task_with("status-time", make_int(-1))),
                 "cannot decode task 'a': 'status-time' is -1, outside 0 to 4294967295");
  expect_refused(with_task("a", task_with("kill-triggered", make_int(1))),
                 "cannot decode task 'a': 'kill-triggered' holds an int, not a bool");
  expect_refused(with_task("a", task_with("max_attempts", make_int(1))),
                 "cannot decode task 'a': unknown key 'max_attempts'");
  expect_refused(with_task("a", task_with("job-info", make_int(1))),
                 "cannot decode task 'a': 'job-info' holds an int, not a properties");
  properties t = zeltest::sample_task("c", 0, {}, {});
  t.set_string_value("id", "a");
  t.set_int_value("priority", 1);
  t.set_string_value("kind", "x");
  t.set_bool_value("progress", true);
  expect_refused(with_task("a", t),
                 "cannot decode task 'a': 'progress' holds a bool, not a properties");
}

TEST(WorkflowCodec, MalformedInNodesAndOutValuesAreRefused) {
  expect_refused(with_task("a", in_node_with("accepts", make_string("float"))),
                 "cannot decode in-node 'n' of task 'a': 'accepts' is 'float', not a value kind");
  expect_refused(
      with_task("a", in_node_with("value", make_string("x"))),
      "cannot decode in-node 'n' of task 'a': 'value' is a string, the in-node accepts int");
  expect_refused(with_task("a", in_node_with("extra", make_int(1))),
                 "cannot decode in-node 'n' of task 'a': unknown key 'extra'");
  properties t;
  properties nodes;
  nodes.set_int_value("n", 1);
  t.set_properties_value("in-nodes", nodes);
  expect_refused(with_task("a", t),
                 "cannot decode task 'a': in-node 'n' holds an int, not a properties");
  t = properties();
  nodes = properties();
  nodes.set_properties_value("a>b", properties());
  t.set_properties_value("in-nodes", nodes);
  expect_refused(with_task("a", t),
                 "cannot decode task 'a': in-node name 'a>b' is empty or holds '>'");
  expect_refused(with_task("a", zeltest::sample_task("c", 0, {}, {{"o", {"a>b>c"}}})),
                 "cannot decode out-value 'o' of task 'a': 'a>b>c' is not an in-node path "
                 "(\"<task id>\" or \"<task id>><in-node>\")");
  expect_refused(with_task("a", zeltest::sample_task("c", 0, {}, {{"", {"a"}}})),
                 "cannot decode task 'a': out-value name '' is empty or holds '>'");
}

TEST(WorkflowCodec, TaskKindDbRefusesUnknownKindsAndGivesDefaultAttempts) {
  zelworkflow::task_kind_db kinds;
  kinds.add_kind("command", 3);
  auto t = task_info::create_task_info(zeltest::sample_task("command", 0, {}, {}), kinds);
  EXPECT_EQ(encoded(*t).get_int_value("max-attempts"), 3);
  properties explicit_attempts = zeltest::sample_task("command", 0, {}, {});
  explicit_attempts.set_int_value("max-attempts", 7);
  t = task_info::create_task_info(explicit_attempts, kinds);
  EXPECT_EQ(encoded(*t).get_int_value("max-attempts"), 7);
  zeltest::expect_arg(
      [&] { task_info::create_task_info(zeltest::sample_task("mystery", 0, {}, {}), kinds); },
      "cannot decode task: unknown task kind 'mystery'");
  workflow_info wf;
  try {
    wf.decode_workflow_info(zeltest::sample_workflow(0, 2), kinds);
  } catch (const zelbase::es::arg&) {
    ADD_FAILURE() << "known kinds refused";
  }
  EXPECT_EQ(wf.get_task_max_attempts("t1"), 3u);
  zeltest::expect_arg([&] { kinds.get_default_max_attempts("mystery"); },
                      "unknown task kind 'mystery'");
}

// Random damage: replaces, removes or adds keys anywhere in a valid encoding. Every result
// either decodes (and then round-trips) or is refused with es::arg, leaving the target as it was.
property_ptr random_value(std::mt19937& rng) {
  switch (rng() % 5) {
    case 0: return make_int(static_cast<std::int64_t>(rng()) - (1ll << 31));
    case 1: return make_bool(rng() % 2);
    case 2:
      return make_string(std::vector<std::string>{"", "a", "t1>in", "x>y>z", "any"}[rng() % 5]);
    case 3: {
      zelbase::ptr_refcount<zelcore::property_list> list(new zelcore::property_list());
      if (rng() % 2) list->push_back(make_string("t2>in"));
      if (rng() % 2) list->push_back(make_int(1));
      return list;
    }
    default: return property_ptr(new properties());
  }
}

properties damaged(const properties& tree, std::mt19937& rng, int depth) {
  properties out = tree;
  std::vector<std::string> keys;
  for (const auto& [key, value] : tree) keys.push_back(key);
  for (const std::string& key : keys) {
    property_ptr value = tree.get_property(key);
    unsigned r = rng() % 20;
    if (r == 0) {
      out.erase(key);
    } else if (r == 1) {
      out[key] = random_value(rng);
    } else if (value->kind() == zelcore::property::kind_properties && depth < 6 && r < 12) {
      out.set_properties_value(key,
                               damaged(static_cast<const properties&>(*value), rng, depth + 1));
    }
  }
  if (rng() % 15 == 0)
    out[std::vector<std::string>{"extra", "tasks", "value", "in"}[rng() % 4]] = random_value(rng);
  return out;
}

TEST(WorkflowCodec, RandomlyDamagedEncodingsNeverCrashAndNeverHalfDecode) {
  std::mt19937 rng(20261122);
  const properties valid = encoded(full_workflow());
  int refused = 0;
  int accepted = 0;
  for (int i = 0; i < 3000; ++i) {
    const properties bad = damaged(valid, rng, 0);
    workflow_info wf = full_workflow();
    try {
      wf.decode_workflow_info(bad, zelcore::plugin_db());
      ++accepted;
      workflow_info back;
      back.decode_workflow_info(encoded(wf), zelcore::plugin_db());
      ASSERT_TRUE(back == wf) << bad.describe();
    } catch (const zelbase::es::arg& e) {
      ++refused;
      ASSERT_EQ(std::string(e.what()).rfind("cannot decode ", 0), 0u) << e.what();
      ASSERT_TRUE(encoded(wf) == valid) << bad.describe();
    }
  }
  EXPECT_GT(refused, 100);
  EXPECT_GT(accepted, 100);
}

}  // namespace
