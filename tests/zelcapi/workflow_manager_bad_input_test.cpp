// Bad update messages: missing fields, wrong kinds, unknown ids and random trees raise the
// system's errors, never crash, and leave the workflows as they were.
#include <gtest/gtest.h>

#include <random>

#include "support/capture_sink.h"
#include "support/sample_workflows.h"
#include "zelbase/exceptions.h"
#include "zelcapi/workflow_manager_support.h"

namespace {

using zelcore::make_bool;
using zelcore::make_int;
using zelcore::make_string;
using zelcore::properties;
using zelcore::property;
using zelcore::property_ptr;
using zeltest::managed_workflows;
using zeltest::tree_of;
using zelworkflow::workflow_info;

property_ptr list_of(const std::vector<std::string>& texts) {
  zelcore::property_list::list_type list;
  for (const auto& t : texts) list.push_back(make_string(t));
  return property_ptr(new zelcore::property_list(list));
}

// One valid message of an action, with what each field may be.
struct message_case {
  properties update;
  std::set<std::string> optional;  // fields read with a default
  std::set<std::string> any_kind;  // fields that take any kind of property
  std::string id_key;              // the field naming the workflow ("" for none)
  std::string unknown_id;          // a value of id_key that names no workflow
};

std::vector<message_case> valid_messages() {
  const properties out_values{
      {"out", tree_of(properties{{"value", make_int(1)}, {"destinations", list_of({"t2>in"})}})}};
  auto tm = [](const char* action, const std::string& wf, const std::string& wtid) {
    return properties{{"action", make_string(action)},
                      {"wf-state-id", make_string(wf)},
                      {"task-wtid", make_string(wtid)}};
  };
  std::vector<message_case> cases;
  cases.push_back({properties{{"action", make_string("add-workflow")},
                              {"workflow", tree_of(zeltest::sample_workflow(0, 2))},
                              {"state-id", make_string("N")}},
                   {},
                   {},
                   "",
                   ""});
  cases.push_back(
      {properties{{"action", make_string("remove-workflow")}, {"state-id", make_string("S")}},
       {},
       {},
       "state-id",
       "nope"});
  cases.push_back({properties{{"action", make_string("set-in-value")},
                              {"force-state-id", make_string("")},
                              {"originator", make_string("o")},
                              {"force-spawn-value", make_bool(false)},
                              {"input-node-id", make_string("workflow:S>t2>in")},
                              {"value", make_string("v")},
                              {"workflow-meta", tree_of(properties{{"k", make_int(1)}})}},
                   {"originator", "workflow-meta"},
                   {"value"},
                   "input-node-id",
                   "workflow:nope>t2>in"});
  cases.push_back({properties{{"action", make_string("set-in-values")},
                              {"force-state-id", make_string("")},
                              {"originator", make_string("o")},
                              {"force-spawn-value", make_bool(false)},
                              {"workflow-id", make_string("S")},
                              {"workflow-meta", tree_of(properties())},
                              {"values", tree_of(properties{{"t2>in", make_int(3)}})}},
                   {"originator", "workflow-meta"},
                   {},
                   "workflow-id",
                   "nope"});
  cases.push_back({properties{{"action", make_string("set-init-in-value")},
                              {"input-node-id", make_string("I>init>setup")},
                              {"value", make_int(4)},
                              {"originator", make_string("o")}},
                   {"originator"},
                   {"value"},
                   "input-node-id",
                   "nope>init>setup"});
  properties in_out = tm("set-in-out-values", "S", "t1");
  in_out["values"] = tree_of(out_values);
  in_out["workflow-meta"] = tree_of(properties());
  in_out["originator"] = make_string("o");
  cases.push_back({in_out, {"workflow-meta", "originator"}, {}, "wf-state-id", "nope"});
  properties status = tm("set-task-status", "S", "t1");
  status["task-status"] = make_int(zelcore::task::status_running);
  status["tm"] = make_int(10);
  status["nid"] = make_string("n");
  status["msg"] = make_string("m");
  cases.push_back({status, {}, {}, "wf-state-id", "nope"});
  properties scheduling = tm("set-task-scheduling-state", "S", "t1");
  scheduling["task-scheduling-state"] = make_int(zelcore::task::scheduling_queued);
  cases.push_back({scheduling, {}, {}, "wf-state-id", "nope"});
  properties progress = tm("update-task-progress", "S", "t1");
  progress["progress"] = tree_of(properties{{"p", make_int(1)}});
  cases.push_back({progress, {}, {}, "wf-state-id", "nope"});
  properties attempts = tm("set-task-max-attempts", "S", "t1");
  attempts["max-attempts"] = make_int(3);
  cases.push_back({attempts, {}, {}, "wf-state-id", "nope"});
  properties task_priority = tm("set-task-priority", "S", "t1");
  for (const char* key : {"priority", "whence", "min", "max"}) task_priority[key] = make_int(0);
  task_priority["max"] = make_int(10);
  cases.push_back({task_priority, {}, {}, "wf-state-id", "nope"});
  cases.push_back({properties{{"action", make_string("add-task")},
                              {"wf-state-id", make_string("S")},
                              {"task-info", tree_of(zeltest::sample_task("command", 0, {}, {}))}},
                   {},
                   {},
                   "wf-state-id",
                   "nope"});
  for (const char* action :
       {"set-workflow-meta-data", "add-workflow-meta-data", "add-ext-meta-data"}) {
    cases.push_back({properties{{"action", make_string(action)},
                                {"wf-state-id", make_string("S")},
                                {"meta-data", tree_of(properties{{"m", make_int(1)}})}},
                     {},
                     {},
                     "wf-state-id",
                     "nope"});
  }
  cases.push_back({properties{{"action", make_string("add-dependant")},
                              {"state-id", make_string("S")},
                              {"dependant", make_string("d")}},
                   {},
                   {},
                   "state-id",
                   "nope"});
  cases.push_back({properties{{"action", make_string("remove-dependant")},
                              {"state-id", make_string("S")},
                              {"dependant", make_string("d")}},
                   {"state-id"},
                   {},
                   "state-id",
                   "nope"});
  cases.push_back({properties{{"action", make_string("set-priority")},
                              {"state-id", make_string("S")},
                              {"priority", make_int(1)},
                              {"whence", make_int(0)},
                              {"min", make_int(0)},
                              {"max", make_int(10)}},
                   {},
                   {},
                   "state-id",
                   "nope"});
  return cases;
}

// A property of another kind than `p`.
property_ptr other_kind(const property& p) {
  switch (p.kind()) {
    case property::kind_string: return make_int(7);
    case property::kind_int: return make_string("7");
    case property::kind_bool: return make_string("true");
    case property::kind_list: return make_int(1);
    case property::kind_properties: return make_string("{}");
  }
  return make_int(0);
}

struct WorkflowManagerBadInput : ::testing::Test {
  void SetUp() override {
    std::string id;
    m.manager.add_workflow(zeltest::sample_workflow(workflow_info::workflow_type_template, 2), m.db,
                           id, "T");
    m.manager.add_workflow(zeltest::sample_workflow(workflow_info::workflow_type_init, 2, true),
                           m.db, id, "I");
    m.manager.add_workflow(zeltest::sample_workflow(workflow_info::workflow_type_spawned, 3), m.db,
                           id, "S");
    m.receiver.calls.clear();
  }
  void reset() {
    m.workflows.clear();
    SetUp();
  }

  // Applies `update`, which must raise E with `message`, change nothing and not report
  // "was updated".
  template <class E>
  void expect_refused(const properties& update, const std::string& message) {
    const properties before = m.encoded();
    const std::uint64_t sequence = m.sequence_number;
    m.receiver.calls.clear();
    try {
      m.manager.update_workflow(update, m.db);
      ADD_FAILURE() << "accepted: " << update.describe();
    } catch (const E& e) {
      EXPECT_EQ(std::string(e.what()), message) << update.describe();
    }
    EXPECT_EQ(m.encoded(), before) << update.describe();
    EXPECT_EQ(m.sequence_number, sequence);
    EXPECT_LE(m.receiver.calls.size(), 1u);
    for (const auto& call : m.receiver.calls) EXPECT_TRUE(call.will);
  }

  managed_workflows m;
  zeltest::capture_sink quiet;
};

TEST_F(WorkflowManagerBadInput, EveryValidMessageApplies) {
  for (const auto& c : valid_messages()) {
    reset();
    m.manager.update_workflow(c.update, m.db);
    ASSERT_EQ(m.receiver.calls.size(), 2u) << c.update.describe();
    EXPECT_FALSE(m.receiver.calls[1].will);
  }
}

TEST_F(WorkflowManagerBadInput, MissingRequiredFieldsRaiseBeforeAnyChange) {
  for (const auto& c : valid_messages()) {
    for (const auto& entry : c.update) {
      const std::string& key = entry.first;
      if (c.optional.count(key)) continue;
      properties update = c.update;
      update.erase(key);
      expect_refused<zelbase::es::arg>(update, "property '" + key + "' is missing");
    }
  }
}

TEST_F(WorkflowManagerBadInput, MissingOptionalFieldsTakeTheirDefaults) {
  for (const auto& c : valid_messages()) {
    for (const std::string& key : c.optional) {
      reset();
      properties update = c.update;
      update.erase(key);
      EXPECT_NO_THROW(m.manager.update_workflow(update, m.db)) << update.describe();
    }
  }
}

TEST_F(WorkflowManagerBadInput, FieldsOfTheWrongKindRaiseBeforeAnyChange) {
  for (const auto& c : valid_messages()) {
    for (const auto& [key, value] : c.update) {
      if (c.any_kind.count(key)) continue;
      properties update = c.update;
      const property_ptr wrong = other_kind(*value);
      update[key] = wrong;
      expect_refused<zelbase::es::arg>(
          update, "property '" + key + "' is a " + zelcore::property_kind_c_str(wrong->kind()) +
                      ", not a " + zelcore::property_kind_c_str(value->kind()));
    }
  }
}

// The fields that update_workflow reads for each action, in the order it reads them; a field
// with a default is marked false. Fields that name the workflow for the receiver and are
// required there (read before the action is dispatched) are left out.
const std::map<std::string, std::vector<std::pair<std::string, bool>>>& read_orders() {
  static const std::map<std::string, std::vector<std::pair<std::string, bool>>> orders = {
      {"add-workflow", {{"workflow", true}, {"state-id", true}}},
      {"remove-workflow", {{"state-id", true}}},
      {"set-in-value",
       {{"force-state-id", true},
        {"originator", false},
        {"force-spawn-value", true},
        {"value", true},
        {"workflow-meta", false}}},
      {"set-in-values",
       {{"force-state-id", true},
        {"originator", false},
        {"force-spawn-value", true},
        {"workflow-meta", false},
        {"values", true}}},
      {"set-init-in-value", {{"value", true}, {"originator", false}}},
      {"set-in-out-values",
       {{"task-wtid", true}, {"values", true}, {"workflow-meta", false}, {"originator", false}}},
      {"set-task-status",
       {{"task-wtid", true}, {"task-status", true}, {"tm", true}, {"nid", true}, {"msg", true}}},
      {"set-task-scheduling-state", {{"task-wtid", true}, {"task-scheduling-state", true}}},
      {"update-task-progress", {{"task-wtid", true}, {"progress", true}}},
      // Announced under the empty id, so its "wf-state-id" is read only when applied.
      {"set-task-max-attempts",
       {{"wf-state-id", true}, {"task-wtid", true}, {"max-attempts", true}}},
      {"set-task-priority",
       {{"task-wtid", true}, {"priority", true}, {"whence", true}, {"min", true}, {"max", true}}},
      {"add-task", {{"task-info", true}}},
      {"set-workflow-meta-data", {{"meta-data", true}}},
      {"add-workflow-meta-data", {{"meta-data", true}}},
      {"add-ext-meta-data", {{"meta-data", true}}},
      {"add-dependant", {{"dependant", true}, {"state-id", true}}},
      {"remove-dependant", {{"dependant", true}}},
      {"set-priority",
       {{"priority", true}, {"state-id", true}, {"whence", true}, {"min", true}, {"max", true}}}};
  return orders;
}

TEST_F(WorkflowManagerBadInput, FieldsAreReadInTheirFixedOrder) {
  // With the k-th field and every later one broken (a required field missing, a field with a
  // default of the wrong kind), the error must name the k-th field.
  std::size_t checked = 0;
  for (const auto& c : valid_messages()) {
    const std::string action = c.update.get_string_value("action");
    const auto& order = read_orders().at(action);
    for (std::size_t k = 0; k < order.size(); ++k) {
      properties update = c.update;
      std::string expected;
      for (std::size_t j = order.size(); j-- > k;) {
        const auto& [key, required] = order[j];
        const property_ptr valid = c.update.get_property(key);
        ASSERT_TRUE(valid) << action << " " << key;
        if (required) {
          update.erase(key);
          expected = "property '" + key + "' is missing";
        } else {
          const property_ptr wrong = other_kind(*valid);
          update[key] = wrong;
          expected = "property '" + key + "' is a " + zelcore::property_kind_c_str(wrong->kind()) +
                     ", not a " + zelcore::property_kind_c_str(valid->kind());
        }
      }
      expect_refused<zelbase::es::arg>(update, expected);
      ++checked;
    }
  }
  EXPECT_EQ(checked, 48u);
}

TEST_F(WorkflowManagerBadInput, UnknownWorkflowIdsRaiseWithTheirCode) {
  for (const auto& c : valid_messages()) {
    if (c.id_key.empty()) continue;
    properties update = c.update;
    update[c.id_key] = make_string(c.unknown_id);
    expect_refused<zelbase::es::api_code>(update, "'nope' isn't a valid workflow state id");
  }
}

TEST_F(WorkflowManagerBadInput, UnknownActionsRaiseAfterTheAnnouncement) {
  for (const auto& c : valid_messages()) {
    properties update = c.update;
    update["action"] = make_string(update.get_string_value("action") + "x");
    expect_refused<zelbase::es::arg>(update, "unknown workflow-update action requested");
    EXPECT_EQ(m.receiver.calls.size(), 1u);
  }
}

TEST_F(WorkflowManagerBadInput, MessageWithoutActionAnnouncesNothing) {
  expect_refused<zelbase::es::arg>(properties{{"state-id", make_string("S")}},
                                   "property 'action' is missing");
  EXPECT_TRUE(m.receiver.calls.empty());
}

TEST_F(WorkflowManagerBadInput, MalformedValuesAndTasksRaiseBeforeAnyChange) {
  const auto cases = valid_messages();
  for (const auto& c : cases) {
    const std::string action = c.update.get_string_value("action");
    properties update = c.update;
    if (action == "add-workflow")
      update["workflow"] = tree_of(properties{{"type", make_int(9)}});
    else if (action == "add-task")
      update["task-info"] = tree_of(properties{{"type", make_string("x")}});
    else if (action == "set-in-out-values")
      update["values"] = tree_of(properties{{"out", make_int(1)}});
    else if (action == "set-task-status")
      update["task-status"] = make_int(99);
    else if (action == "set-task-priority")
      update["min"] = make_int(20);  // above max
    else
      continue;
    const properties before = m.encoded();
    EXPECT_THROW(m.manager.update_workflow(update, m.db), zelbase::es::base) << action;
    EXPECT_EQ(m.encoded(), before) << action;
  }
}

// A random tree made of the keys and values that update messages use.
class tree_maker {
 public:
  explicit tree_maker(std::uint64_t seed) : rng_(seed) {}

  properties message() {
    static const std::vector<std::string> actions = [] {
      std::vector<std::string> out;
      for (const auto& c : valid_messages()) out.push_back(c.update.get_string_value("action"));
      out.push_back("set-task-max_attempts");
      out.push_back("set-task-max-attemps");
      return out;
    }();
    static const std::vector<message_case> valid = valid_messages();
    properties out;
    if (pick(2) == 0) {
      // A valid message with a few fields dropped or replaced.
      out = valid[pick(valid.size())].update;
      for (std::size_t i = pick(3); i > 0; --i) {
        const std::string k = key();
        if (pick(2) == 0)
          out.erase(k);
        else
          out[k] = value(0);
      }
      return out;
    }
    if (pick(10) != 0) out["action"] = make_string(actions[pick(actions.size())]);
    const std::size_t n = pick(8);
    for (std::size_t i = 0; i < n; ++i) out[key()] = value(0);
    return out;
  }

 private:
  std::size_t pick(std::size_t n) {
    return std::uniform_int_distribution<std::size_t>(0, n - 1)(rng_);
  }
  std::string key() {
    static const std::vector<std::string> keys = {"state-id",
                                                  "wf-state-id",
                                                  "task-wtid",
                                                  "workflow-id",
                                                  "input-node-id",
                                                  "value",
                                                  "values",
                                                  "workflow",
                                                  "task-info",
                                                  "meta-data",
                                                  "progress",
                                                  "dependant",
                                                  "priority",
                                                  "whence",
                                                  "min",
                                                  "max",
                                                  "task-status",
                                                  "tm",
                                                  "nid",
                                                  "msg",
                                                  "max-attempts",
                                                  "force-state-id",
                                                  "force-spawn-value",
                                                  "originator",
                                                  "workflow-meta",
                                                  "task-scheduling-state",
                                                  "type",
                                                  "tasks",
                                                  "in-nodes",
                                                  "out",
                                                  "destinations",
                                                  "t1>in",
                                                  "t2>in",
                                                  "source-url"};
    return keys[pick(keys.size())];
  }
  property_ptr value(int depth) {
    static const std::vector<std::string> texts = {"S",
                                                   "T",
                                                   "I",
                                                   "nope",
                                                   "",
                                                   "t1",
                                                   "t2",
                                                   "init",
                                                   "workflow:S>t2>in",
                                                   "T>t1>in",
                                                   "I>init>setup",
                                                   "I>t1>in",
                                                   "S>t9>in",
                                                   ">>",
                                                   "workflow:",
                                                   "S>t1>in>x"};
    switch (pick(depth < 3 ? 6 : 4)) {
      case 0: return make_string(texts[pick(texts.size())]);
      case 1:
        return make_int(static_cast<std::int64_t>(pick(7)) - 2 +
                        (pick(4) == 0 ? (std::int64_t{1} << 40) : 0));
      case 2: return make_bool(pick(2) == 0);
      case 3: {
        zelcore::property_list::list_type list;
        for (std::size_t i = pick(3); i > 0; --i)
          list.push_back(make_string(texts[pick(texts.size())]));
        return property_ptr(new zelcore::property_list(list));
      }
      default: {
        properties tree;
        for (std::size_t i = pick(4); i > 0; --i) tree[key()] = value(depth + 1);
        return tree_of(tree);
      }
    }
  }
  std::mt19937_64 rng_;
};

TEST_F(WorkflowManagerBadInput, RandomTreesNeverCrashAndRefusalsChangeNothing) {
  tree_maker maker(4242);
  int refused = 0, applied = 0;
  for (int i = 0; i < 3000; ++i) {
    if (i % 200 == 0) reset();  // so that removals do not empty the manager
    const properties update = maker.message();
    const properties before = m.encoded();
    try {
      m.manager.update_workflow(update, m.db);
      ++applied;
    } catch (const zelbase::es::base&) {
      ++refused;
      ASSERT_EQ(m.encoded(), before) << update.describe();
    }
  }
  EXPECT_GT(refused, 1000);
  EXPECT_GT(applied, 200);
}

}  // namespace
