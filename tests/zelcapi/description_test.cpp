// Tests of the work description converter: every error at once with its path, and valid
// descriptions converted into the records and actions that the workflow manager applies.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <limits>
#include <list>
#include <map>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "zelbase/exceptions.h"
#include "zelcapi/description.h"
#include "zelcapi/workflow_manager_support.h"

namespace zelcore {
// Trees in failure messages as JSON.
void PrintTo(const properties& p, std::ostream* os) { *os << p.describe(); }
}  // namespace zelcore

namespace {

using zelcapi::convert_description;
using zelcapi::description_issue;
using zelcapi::description_kind;
using zelcapi::description_setting;
using zelcapi::work_description;
using zelcore::properties;
using zelcore::property_ptr;

property_ptr from_json(const nlohmann::json& j) {
  switch (j.type()) {
    case nlohmann::json::value_t::number_integer:
    case nlohmann::json::value_t::number_unsigned: return zelcore::make_int(j.get<std::int64_t>());
    case nlohmann::json::value_t::boolean: return zelcore::make_bool(j.get<bool>());
    case nlohmann::json::value_t::string: return zelcore::make_string(j.get<std::string>());
    case nlohmann::json::value_t::array: {
      zelbase::ptr_refcount<zelcore::property_list> list(new zelcore::property_list());
      for (const auto& e : j) list->push_back(from_json(e));
      return list;
    }
    case nlohmann::json::value_t::object: {
      zelbase::ptr_refcount<properties> tree(new properties());
      for (const auto& [key, value] : j.items()) (*tree)[key] = from_json(value);
      return tree;
    }
    default: throw std::invalid_argument("no tree value for " + j.dump());
  }
}

// The tree written as JSON text.
properties tree(const std::string& json) {
  return static_cast<const properties&>(*from_json(nlohmann::json::parse(json)));
}

std::vector<std::pair<std::string, std::string>> paths_and_messages(const work_description& d) {
  std::vector<std::pair<std::string, std::string>> out;
  for (const auto& e : d.errors) out.emplace_back(e.path, e.message);
  return out;
}

using expected_errors = std::vector<std::pair<std::string, std::string>>;

TEST(WorkDescription, FiveErrorsAreAllReportedWithTheirPaths) {
  const work_description d = convert_description(tree(R"({
    "name": "render",
    "tasks": [
      {"name": "fetch", "command": "fetch.sh", "cpus": 2, "max-attempts": 0},
      {"name": "render", "cores": "four"},
      {"name": "publish", "command": "publish.sh", "after": ["rendr"]}
    ]})"));
  EXPECT_EQ(d.kind, description_kind::workflow);
  EXPECT_FALSE(d.valid());
  EXPECT_EQ(paths_and_messages(d),
            (expected_errors{
                {"/tasks/0/cpus", "unknown key 'cpus' (did you mean 'cores'?)"},
                {"/tasks/0/max-attempts", "0 is outside 1 to 1000"},
                {"/tasks/1/command", "'command' is missing"},
                {"/tasks/1/cores", "expected an int, got a string ('four')"},
                {"/tasks/2/after/0", "no task is named 'rendr' (did you mean 'render'?)"},
            }));
  ASSERT_EQ(d.errors.size(), 5u);
  EXPECT_EQ(d.errors[0].issue, description_issue::unknown_key);
  EXPECT_EQ(d.errors[1].issue, description_issue::out_of_range);
  EXPECT_EQ(d.errors[2].issue, description_issue::missing);
  EXPECT_EQ(d.errors[3].issue, description_issue::wrong_kind);
  EXPECT_EQ(d.errors[4].issue, description_issue::unknown_name);
  for (const auto& e : d.errors) EXPECT_EQ(e.setting, -1);
  // What has errors converts to nothing that could be sent.
  EXPECT_TRUE(d.workflow.empty());
  EXPECT_THROW(d.add_workflow_action(""), zelbase::es::arg);
}

TEST(WorkDescription, ACycleIsReportedOnceWithItsWay) {
  const work_description d = convert_description(tree(R"({
    "name": "loop",
    "tasks": [
      {"name": "a", "command": "a", "after": "c"},
      {"name": "b", "command": "b", "after": "a"},
      {"name": "c", "command": "c", "after": ["b"]},
      {"name": "d", "command": "d", "after": ["d"]}
    ]})"));
  EXPECT_EQ(
      paths_and_messages(d),
      (expected_errors{
          {"/tasks/3/after/0", "a task cannot come after itself"},
          {"/tasks/0/after", "dependency cycle: a -> c -> b -> a (each comes after the next)"},
      }));
  EXPECT_EQ(d.errors[1].issue, description_issue::cycle);
}

// Many tasks: a chain of 3,000 converts (the search for cycles walks without recursion and
// looks only inside groups of tasks that depend on each other), and one cycle through 2,000 tasks
// is reported once, named from its first task in the file.
TEST(WorkDescription, ALongChainConvertsAndALongCycleIsReportedOnce) {
  const auto chain = [](std::size_t n, bool closed) {
    nlohmann::json tasks = nlohmann::json::array();
    for (std::size_t i = 0; i < n; ++i) {
      nlohmann::json t{{"name", "t" + std::to_string(i)}, {"command", "run"}};
      if (i > 0 || closed) t["after"] = "t" + std::to_string((i + n - 1) % n);
      tasks.push_back(t);
    }
    return nlohmann::json{{"name", "chain"}, {"tasks", tasks}}.dump();
  };
  const work_description open = convert_description(tree(chain(3000, false)));
  EXPECT_TRUE(open.valid());
  EXPECT_EQ(open.workflow.get_properties_value("tasks").size(), 3000u);

  const work_description cycle = convert_description(tree(chain(2000, true)));
  ASSERT_EQ(cycle.errors.size(), 1u);
  EXPECT_EQ(cycle.errors[0].issue, description_issue::cycle);
  EXPECT_EQ(cycle.errors[0].path, "/tasks/0/after");
  const std::string& text = cycle.errors[0].message;
  EXPECT_EQ(text.rfind("dependency cycle: t0 -> t1999 -> t1998 -> ", 0), 0u) << text;
  EXPECT_NE(text.find("t1 -> t0 (each comes after the next)"), std::string::npos) << text;
}

TEST(WorkDescription, AWorkflowOfManyTasksCostsAboutTheSameInAnyNameOrder) {
  // Tasks named in descending order once made each task's key move all those after it: 20,000
  // of them took about thirty times as long as in ascending order. Compared on the same machine,
  // the faster of two tries of each.
  const auto workflow = [](bool descending) {
    nlohmann::json tasks = nlohmann::json::array();
    for (int i = 0; i < 20000; ++i) {
      char name[16];
      std::snprintf(name, sizeof name, "t%05d", descending ? 19999 - i : i);
      tasks.push_back({{"name", name}, {"command", "run"}});
    }
    return tree(nlohmann::json{{"name", "wide"}, {"tasks", tasks}}.dump());
  };
  const auto fastest = [](const properties& description) {
    double best = std::numeric_limits<double>::max();
    for (int i = 0; i < 2; ++i) {
      const auto started = std::chrono::steady_clock::now();
      const work_description d = convert_description(description);
      best = std::min(
          best, std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
      EXPECT_EQ(d.workflow.get_properties_value("tasks").size(), 20000u);
    }
    return best;
  };
  const double ascending = fastest(workflow(false));
  EXPECT_LT(fastest(workflow(true)), 10 * ascending);
}

TEST(WorkDescription, NamesTasksAndInValuesAreChecked) {
  const work_description d = convert_description(tree(R"({
    "name": "w",
    "inputs": {"frames": {"kind": "int", "default": "ten"}, "scene": {"kind": "text"}},
    "tasks": [
      {"name": "a b", "command": "a", "inputs": ["frames", "scne"]},
      {"name": "c", "command": ""},
      {"name": "c", "command": "c", "priority": true}
    ]})"));
  EXPECT_EQ(paths_and_messages(d),
            (expected_errors{
                {"/inputs/frames/default", "expected an int, got a string ('ten')"},
                {"/inputs/scene/kind",
                 "'text' is not a kind; the kinds are any, int, bool, string, list and properties"},
                {"/tasks/0/name", "'a b' is not a task name: use letters, digits, '-' and '_'"},
                {"/tasks/1/command", "'command' is empty"},
                {"/tasks/2/priority", "expected an int, got a bool (true)"},
                {"/tasks/2/name", "task 'c' is also /tasks/1"},
                {"/tasks/0/inputs/1", "the workflow has no in-value 'scne'"},
                {"/inputs/frames", "in-value 'frames' has no default and was given no value"},
            }));
}

TEST(WorkDescription, AWorkflowConvertsIntoTheModelsEncoding) {
  const work_description d = convert_description(tree(R"({
    "name": "build",
    "priority": 5,
    "meta": {"project": "zel"},
    "tasks": [
      {"name": "compile", "command": "make", "cores": 4, "memory-mb": 2048, "tags": ["c++"]},
      {"name": "test", "command": "make test", "after": "compile", "max-attempts": 3,
       "env": {"CTEST_OUTPUT_ON_FAILURE": "1"}}
    ]})"));
  ASSERT_TRUE(d.valid()) << (d.errors.empty() ? "" : d.errors[0].path + ": " + d.errors[0].message);
  EXPECT_EQ(d.kind, description_kind::workflow);
  EXPECT_EQ(d.name, "build");
  EXPECT_FALSE(d.is_template);
  EXPECT_EQ(d.workflow, tree(R"({
    "type": 2,
    "priority": 5,
    "meta-data": {"name": "build", "project": "zel"},
    "tasks": {
      "compile": {
        "kind": "command",
        "parameters": {"command": "make", "cores": 4, "memory-mb": 2048, "tags": ["c++"]},
        "out-values": {"done": {"destinations": ["test>compile.done"]}}
      },
      "test": {
        "kind": "command",
        "max-attempts": 3,
        "parameters": {"command": "make test", "env": {"CTEST_OUTPUT_ON_FAILURE": "1"}},
        "in-nodes": {"compile.done": {"accepts": "any"}}
      }
    }})"));

  // The manager adds it, and the dependency holds the second task back.
  zeltest::managed_workflows m;
  m.manager.update_workflow(d.add_workflow_action("WF-build"), m.db);
  const zelworkflow::workflow_info* wi = std::as_const(m.manager).get_workflow_info("WF-build");
  ASSERT_NE(wi, nullptr);
  EXPECT_NE(wi->get_sequence_number(), 0u);
  std::list<std::string> runnable;
  std::map<std::string, std::string> reasons;
  wi->get_tasks_runnability(runnable, reasons);
  EXPECT_EQ(runnable, std::list<std::string>{"compile"});
  ASSERT_EQ(reasons.count("test"), 1u);
  EXPECT_EQ(reasons["test"].rfind("waiting for prerequisite 'compile'", 0), 0u) << reasons["test"];
}

TEST(WorkDescription, DeclaredOutputsFeedEveryDependant) {
  const work_description d = convert_description(tree(R"({
    "name": "w",
    "tasks": [
      {"name": "a", "command": "a", "outputs": {"path": "/tmp/a", "count": 3}},
      {"name": "b", "command": "b", "after": "a"},
      {"name": "c", "command": "c", "after": ["a", "b"]}
    ]})"));
  ASSERT_TRUE(d.valid());
  const properties& tasks = d.workflow.get_properties_value("tasks");
  EXPECT_EQ(tasks.get_properties_value("a").get_properties_value("out-values"), tree(R"({
    "count": {"destinations": ["b>a.count", "c>a.count"]},
    "path": {"destinations": ["b>a.path", "c>a.path"]}})"));
  EXPECT_EQ(tasks.get_properties_value("a").get_properties_value("parameters"),
            tree(R"({"command": "a", "out-values": {"path": "/tmp/a", "count": 3}})"));
  EXPECT_EQ(tasks.get_properties_value("c").get_properties_value("in-nodes"), tree(R"({
    "a.count": {"accepts": "any"}, "a.path": {"accepts": "any"},
    "b.done": {"accepts": "any"}})"));
}

TEST(WorkDescription, ATemplateSpawnsAWorkflowWithTheSettingsValues) {
  const properties render = tree(R"({
    "name": "render",
    "template": true,
    "inputs": {"frames": {"kind": "string"}, "quality": {"kind": "int", "default": 2}},
    "tasks": [
      {"name": "render", "command": "render.sh", "inputs": ["frames", "quality"]},
      {"name": "encode", "command": "encode.sh", "after": "render", "inputs": []}
    ]})");
  const work_description d =
      convert_description(render, {{"frames", zelcore::make_string("1-100")}});
  ASSERT_TRUE(d.valid()) << (d.errors.empty() ? "" : d.errors[0].path + ": " + d.errors[0].message);
  EXPECT_TRUE(d.is_template);
  EXPECT_EQ(d.workflow.get_int_value("type"), 0);
  EXPECT_EQ(d.spawn_values, tree(R"({"render>frames": "1-100", "render>quality": 2})"));
  EXPECT_EQ(d.values, tree(R"({"frames": "1-100", "quality": 2})"));
  // A template keeps no values of its own: they spawn the workflows that run.
  EXPECT_EQ(
      d.workflow.get_properties_value("tasks").get_properties_value("render").get_properties_value(
          "in-nodes"),
      tree(R"({"frames": {"accepts": "string"}, "quality": {"accepts": "int"}})"));

  zeltest::managed_workflows m;
  m.manager.update_workflow(d.add_workflow_action("TPL-render"), m.db);
  m.manager.update_workflow(d.spawn_action("TPL-render", "WF-render-1"), m.db);
  const zelworkflow::workflow_info* spawned =
      std::as_const(m.manager).get_workflow_info("WF-render-1");
  ASSERT_NE(spawned, nullptr);
  EXPECT_EQ(spawned->get_type(), zelworkflow::workflow_info::workflow_type_spawned);
  const auto task = spawned->get_task_info("render");
  EXPECT_EQ(*task->get_in_value("frames"), *zelcore::make_string("1-100"));
  EXPECT_EQ(*task->get_in_value("quality"), *zelcore::make_int(2));
  std::list<std::string> runnable;
  std::map<std::string, std::string> reasons;
  spawned->get_tasks_runnability(runnable, reasons);
  EXPECT_EQ(runnable, std::list<std::string>{"render"});

  // Without the setting, the in-value without a default has no value.
  const work_description unset = convert_description(render);
  EXPECT_EQ(paths_and_messages(unset),
            (expected_errors{
                {"/inputs/frames", "in-value 'frames' has no default and was given no value"}}));
  EXPECT_EQ(unset.errors[0].issue, description_issue::no_value);
  EXPECT_THROW(unset.spawn_action("TPL-render", ""), zelbase::es::arg);
}

TEST(WorkDescription, SettingsAreReadAsTheirInValuesKind) {
  const properties w = tree(R"({
    "name": "w",
    "inputs": {"count": {"kind": "int", "default": 1}, "fast": {"kind": "bool", "default": false},
               "shots": {"kind": "list", "default": []}},
    "tasks": [{"name": "t", "command": "t"}]})");
  const work_description good =
      convert_description(w, {zelcapi::parse_description_setting("count=-42"),
                              zelcapi::parse_description_setting("fast=true"),
                              zelcapi::parse_description_setting("shots=sh010,sh020")});
  ASSERT_TRUE(good.valid());
  EXPECT_EQ(good.values, tree(R"({"count": -42, "fast": true, "shots": ["sh010", "sh020"]})"));
  EXPECT_EQ(good.workflow.get_properties_value("tasks")
                .get_properties_value("t")
                .get_properties_value("in-nodes")
                .get_properties_value("count"),
            tree(R"({"accepts": "int", "value": -42})"));

  const work_description bad =
      convert_description(w, {{"count", zelcore::make_string("12a")},
                              {"fast", zelcore::make_string("yes")},
                              {"cuont", zelcore::make_string("1")},
                              {"count", zelcore::make_string("2")},
                              {"shots", zelcore::make_int(3)},
                              {"count", zelcore::make_string("99999999999999999999")}});
  EXPECT_EQ(paths_and_messages(bad),
            (expected_errors{
                {"", "in-value 'count': '12a' is not an int"},
                {"", "in-value 'fast': 'yes' is not a bool (true or false)"},
                {"", "the workflow has no in-value 'cuont' (did you mean 'count'?)"},
                {"", "in-value 'count' is given twice"},
                {"", "in-value 'shots': expected a list, got an int (3)"},
                {"", "in-value 'count' is given twice"},
            }));
  for (std::size_t i = 0; i < bad.errors.size(); ++i) {
    EXPECT_EQ(bad.errors[i].setting, static_cast<int>(i));
  }
  EXPECT_EQ(bad.errors[4].issue, description_issue::wrong_kind);
}

TEST(WorkDescription, ASettingIsNameEqualsValue) {
  const description_setting s = zelcapi::parse_description_setting("url=http://x/?a=b");
  EXPECT_EQ(s.name, "url");
  EXPECT_EQ(*s.value, *zelcore::make_string("http://x/?a=b"));
  EXPECT_EQ(*zelcapi::parse_description_setting("empty=").value, *zelcore::make_string(""));
  EXPECT_THROW(zelcapi::parse_description_setting("frames"), zelbase::es::arg);
  EXPECT_THROW(zelcapi::parse_description_setting("=3"), zelbase::es::arg);
}

TEST(WorkDescription, IntsAreWholeDecimalNumbersWithin64Bits) {
  std::int64_t v = 7;
  EXPECT_TRUE(zelcapi::read_description_int("-9223372036854775808", v));
  EXPECT_EQ(v, std::numeric_limits<std::int64_t>::min());
  EXPECT_TRUE(zelcapi::read_description_int("+12", v));
  EXPECT_EQ(v, 12);
  for (const char* bad :
       {"", "+", "-", " 1", "1 ", "1.0", "0x10", "1e3", "9223372036854775808", "--1", "12a"}) {
    EXPECT_FALSE(zelcapi::read_description_int(bad, v)) << bad;
  }
  EXPECT_EQ(v, 12);
}

TEST(WorkDescription, JobsConvertIntoASubmission) {
  const properties jobs = tree(R"({
    "name": "nightly",
    "jobs": [
      {"command": "a.sh", "cores": 2, "queue": "short", "priority": -3, "max-attempts": 2},
      {"name": "b", "command": "b.sh", "env": {"X": "1"}, "tasks": 10, "run-ms": 500,
       "fail-attempts": 1, "exit-code": 3}
    ]})");
  const work_description d = convert_description(jobs);
  ASSERT_TRUE(d.valid()) << (d.errors.empty() ? "" : d.errors[0].path + ": " + d.errors[0].message);
  EXPECT_EQ(d.kind, description_kind::jobs);
  EXPECT_EQ(d.name, "nightly");
  EXPECT_EQ(d.submission, jobs);
  EXPECT_TRUE(d.workflow.empty());
  EXPECT_THROW(d.add_workflow_action(""), zelbase::es::arg);

  const work_description with_setting =
      convert_description(jobs, {{"frames", zelcore::make_string("1")}});
  EXPECT_EQ(paths_and_messages(with_setting),
            (expected_errors{{"", "a jobs description takes no in-values"}}));
  EXPECT_EQ(with_setting.errors[0].setting, 0);
}

TEST(WorkDescription, BadJobsAreReportedEach) {
  const work_description d = convert_description(tree(R"({
    "jobs": [
      {"command": "a.sh", "cores": 0},
      "b.sh",
      {"command": ["b"], "env": {"X": 1}, "tags": ["a", 2], "exit-code": 0, "tasks": 0}
    ]})"));
  EXPECT_EQ(paths_and_messages(d), (expected_errors{
                                       {"/jobs/0/cores", "0 is outside 1 to 1024"},
                                       {"/jobs/1", "expected a map (a job), got a string ('b.sh')"},
                                       {"/jobs/2/command", "expected a string, got a list"},
                                       {"/jobs/2/tags/1", "expected a string, got an int (2)"},
                                       {"/jobs/2/env/X", "expected a string, got an int (1)"},
                                       {"/jobs/2/exit-code", "0 is outside 1 to 255"},
                                       {"/jobs/2/tasks", "0 is outside 1 to 1000"},
                                   }));
  EXPECT_TRUE(d.submission.empty());
}

TEST(WorkDescription, TheKindOfADescriptionIsToldByItsKeys) {
  const work_description neither = convert_description(tree(R"({"name": "x", "taks": []})"));
  EXPECT_EQ(neither.kind, description_kind::invalid);
  EXPECT_EQ(paths_and_messages(neither),
            (expected_errors{{"/taks", "unknown key 'taks' (did you mean 'tasks'?)"}}));
  const work_description empty = convert_description(properties());
  EXPECT_EQ(
      paths_and_messages(empty),
      (expected_errors{{"", "a description has \"tasks\" (a workflow) or \"jobs\" (plain jobs)"}}));
  EXPECT_EQ(empty.errors[0].issue, description_issue::missing);
  const work_description both = convert_description(
      tree(R"({"name": "x", "tasks": [{"name": "t", "command": "t"}], "jobs": []})"));
  EXPECT_EQ(paths_and_messages(both),
            (expected_errors{{"/jobs",
                              "a description has \"tasks\" (a workflow) or \"jobs\" (plain "
                              "jobs), not both"}}));
}

TEST(WorkDescription, TasksThatAreNotAListAreOneError) {
  EXPECT_EQ(
      paths_and_messages(convert_description(tree(R"({"name": "w", "tasks": {"t": {}}})"))),
      (expected_errors{{"/tasks", "expected a list of tasks (each with its name), got a map"}}));
  EXPECT_EQ(paths_and_messages(convert_description(tree(R"({"name": "w", "tasks": []})"))),
            (expected_errors{{"/tasks", "a workflow has at least one task"}}));
}

TEST(WorkDescription, ValuesOfEveryWrongKindGiveErrorsNotExceptions) {
  // Every key of a workflow and of a task with a value of each kind that it does not take.
  const std::vector<std::string> kinds{R"(7)", R"(true)", R"("s")", R"([1, "x", []])",
                                       R"({"k": {"j": 1}})"};
  const std::vector<std::string> workflow_keys{"name",   "template", "priority", "meta",
                                               "config", "inputs",   "tasks"};
  const std::vector<std::string> task_keys{
      "name",     "command",      "kind",          "after",     "inputs", "outputs",
      "priority", "max-attempts", "cores",         "memory-mb", "queue",  "tags",
      "env",      "run-ms",       "fail-attempts", "exit-code", "params"};
  std::size_t erroneous = 0;
  for (const std::string& kind : kinds) {
    for (const std::string& key : workflow_keys) {
      const std::string text = R"({"name": "w", "tasks": [{"name": "t", "command": "c"}], ")" +
                               key + R"(": )" + kind + "}";
      const work_description d = convert_description(tree(text));
      if (!d.errors.empty()) ++erroneous;
      for (const auto& e : d.errors) EXPECT_FALSE(e.message.empty()) << text;
    }
    for (const std::string& key : task_keys) {
      const std::string text = R"({"name": "w", "tasks": [{"name": "t", "command": "c", ")" + key +
                               R"(": )" + kind + "}]}";
      const work_description d = convert_description(tree(text));
      if (!d.errors.empty()) ++erroneous;
      for (const auto& e : d.errors) {
        EXPECT_EQ(e.path.rfind("/tasks/0/", 0), 0u) << text << " " << e.path;
      }
    }
  }
  // Most combinations are wrong: each of them was an error with its place, none an exception.
  EXPECT_GT(erroneous, (workflow_keys.size() + task_keys.size()) * 3);
}

}  // namespace
