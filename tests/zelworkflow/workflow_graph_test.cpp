// Tests of the workflow graph: prerequisites, runnability with its reasons, prerequisites that
// can no longer complete, and the dot drawing parsed back into nodes and edges.
#include <gtest/gtest.h>

#include <sstream>

#include "support/sample_workflows.h"
#include "workflow_test_util.h"
#include "zelworkflow/workflow_info.h"

namespace {

using zelcore::make_int;
using zelcore::properties;
using zelcore::task;
using zeltest::decoded;
using zelworkflow::workflow_info;

// a feeds b>in and c>in; b feeds d>x; c feeds d>y.
properties diamond(std::uint32_t type) {
  properties tasks;
  tasks.set_properties_value(
      "a", zeltest::sample_task("cmd", 0, {{"in", "any"}}, {{"o", {"b>in", "c>in"}}}));
  tasks.set_properties_value("b",
                             zeltest::sample_task("cmd", 0, {{"in", "any"}}, {{"o", {"d>x"}}}));
  tasks.set_properties_value("c",
                             zeltest::sample_task("cmd", 0, {{"in", "any"}}, {{"o", {"d>y"}}}));
  tasks.set_properties_value("d", zeltest::sample_task("cmd", 0, {{"x", "any"}, {"y", "any"}}, {}));
  properties wf;
  wf.set_int_value("type", type);
  wf.set_properties_value("tasks", tasks);
  return wf;
}

workflow_info spawned_diamond() {
  workflow_info wf = decoded(diamond(2));
  wf.spawn(1, make_int(0), {});
  return wf;
}

struct runnability {
  std::list<std::string> runnable;
  std::map<std::string, std::string> reasons;
};

runnability runnability_of(const workflow_info& wf) {
  runnability r;
  wf.get_tasks_runnability(r.runnable, r.reasons);
  return r;
}

std::set<std::string> invalid_of(const workflow_info& wf) {
  std::set<std::string> out;
  wf.get_invalid_pre_reqs_tasks(out);
  return out;
}

void finish(workflow_info& wf, const std::string& wtid) {
  wf.set_task_status(wtid, task::status_running, 1, "n", "");
  wf.set_task_status(wtid, task::status_finished, 2, "n", "");
}

TEST(WorkflowGraph, PreReqsAreTheTasksThatFeedTheTask) {
  workflow_info wf = spawned_diamond();
  std::set<std::string> pre;
  wf.get_task_pre_reqs("d", pre);
  EXPECT_EQ(pre, (std::set<std::string>{"b", "c"}));
  pre.clear();
  wf.get_task_pre_reqs("a", pre);
  EXPECT_TRUE(pre.empty());
}

TEST(WorkflowGraph, FreshSpawnedDiamondWaitsForItsEntryValue) {
  runnability r = runnability_of(spawned_diamond());
  EXPECT_TRUE(r.runnable.empty());
  const std::map<std::string, std::string> expected{
      {"a", "waiting for in-value 'in'"},
      {"b", "waiting for prerequisite 'a' (waiting)"},
      {"c", "waiting for prerequisite 'a' (waiting)"},
      {"d", "waiting for prerequisite 'b' (waiting)"}};
  EXPECT_EQ(r.reasons, expected);
}

TEST(WorkflowGraph, RunnabilityFollowsTheGraphAsTasksFinish) {
  workflow_info wf = spawned_diamond();
  wf.set_in_value("a>in", make_int(1), false, "");
  EXPECT_EQ(runnability_of(wf).runnable, std::list<std::string>{"a"});
  wf.set_task_status("a", task::status_running, 1, "n", "");
  EXPECT_EQ(runnability_of(wf).reasons.at("a"), "the task is running");
  wf.set_task_status("a", task::status_finished, 2, "n", "");
  EXPECT_EQ(runnability_of(wf).reasons.at("a"), "the task has finished");
  EXPECT_EQ(runnability_of(wf).reasons.at("b"), "waiting for in-value 'in'");
  wf.set_in_value("b>in", make_int(2), false, "");
  wf.set_in_value("c>in", make_int(2), false, "");
  EXPECT_EQ(runnability_of(wf).runnable, (std::list<std::string>{"b", "c"}));
  finish(wf, "b");
  wf.set_task_status("c", task::status_running, 3, "n", "");
  EXPECT_EQ(runnability_of(wf).reasons.at("d"), "waiting for prerequisite 'c' (running)");
  wf.set_task_status("c", task::status_finished, 4, "n", "");
  wf.set_in_value("d>x", make_int(3), false, "");
  EXPECT_EQ(runnability_of(wf).reasons.at("d"), "waiting for in-value 'y'");
  wf.set_in_value("d>y", make_int(3), false, "");
  runnability r = runnability_of(wf);
  EXPECT_EQ(r.runnable, std::list<std::string>{"d"});
  EXPECT_EQ(r.reasons.size(), 3u);
}

TEST(WorkflowGraph, QueuedDispatchedKilledAndExhaustedTasksAreNotRunnable) {
  workflow_info wf = spawned_diamond();
  wf.set_in_value("a>in", make_int(1), false, "");
  wf.set_task_scheduling_state("a", task::scheduling_queued);
  EXPECT_EQ(runnability_of(wf).reasons.at("a"), "the task is queued");
  wf.set_task_scheduling_state("a", task::scheduling_dispatched);
  EXPECT_EQ(runnability_of(wf).reasons.at("a"), "the task is dispatched");
  wf.set_task_scheduling_state("a", task::scheduling_none);
  wf.set_task_max_attempts("a", 0);
  EXPECT_EQ(runnability_of(wf).reasons.at("a"), "the task has used all its attempts (0 of 0)");
  wf.set_task_max_attempts("a", 1);
  wf.set_task_kill_triggered("a", true);
  EXPECT_EQ(runnability_of(wf).reasons.at("a"), "a kill was triggered");
  wf.set_task_status("a", task::status_killed, 1, "n", "");
  EXPECT_EQ(runnability_of(wf).reasons.at("a"), "the task was killed");
}

TEST(WorkflowGraph, FailedTaskWithAttemptsLeftIsRunnableAgain) {
  workflow_info wf = spawned_diamond();
  wf.set_in_value("a>in", make_int(1), false, "");
  wf.set_task_max_attempts("a", 2);
  wf.set_task_status("a", task::status_running, 1, "n", "");
  wf.set_task_status("a", task::status_failed, 2, "n", "");
  EXPECT_EQ(runnability_of(wf).runnable, std::list<std::string>{"a"});
  EXPECT_TRUE(invalid_of(wf).empty());
  wf.set_task_status("a", task::status_running, 3, "n", "");
  wf.set_task_status("a", task::status_failed, 4, "n", "");
  EXPECT_EQ(runnability_of(wf).reasons.at("a"), "the task has used all its attempts (2 of 2)");
}

TEST(WorkflowGraph, TemplatesAndUnspawnedWorkflowsRunNothing) {
  runnability tpl = runnability_of(decoded(diamond(0)));
  EXPECT_TRUE(tpl.runnable.empty());
  EXPECT_EQ(tpl.reasons.size(), 4u);
  EXPECT_EQ(tpl.reasons.at("a"), "the workflow is a template");
  runnability unspawned = runnability_of(decoded(diamond(2)));
  EXPECT_EQ(unspawned.reasons.at("a"), "the workflow has not been spawned");
}

TEST(WorkflowGraph, InitTasksRunOnlyInInitWorkflows) {
  workflow_info init = decoded(zeltest::sample_workflow(1, 2, true));
  init.set_in_value("init>setup", make_int(1), false, "");
  runnability r = runnability_of(init);
  EXPECT_EQ(r.runnable, std::list<std::string>{"init"});
  EXPECT_EQ(r.reasons.at("t1"),
            "ordinary task of an init workflow: it runs in the workflows spawned from it");

  workflow_info child(init);
  child.set_type(workflow_info::workflow_type_spawned);
  child.spawn(3, make_int(0), {});
  child.set_in_value("t1>in", make_int(1), false, "");
  r = runnability_of(child);
  EXPECT_EQ(r.reasons.at("init"), "init task: it runs in its init workflow");
  EXPECT_EQ(r.reasons.at("t1"), "waiting for prerequisite 'init' (waiting)");
  finish(child, "init");
  child.set_in_value("t1>config", make_int(5), false, "");
  EXPECT_EQ(runnability_of(child).runnable, std::list<std::string>{"t1"});
}

TEST(WorkflowGraph, NothingIsInvalidWhileEveryTaskCanStillComplete) {
  workflow_info wf = spawned_diamond();
  EXPECT_TRUE(invalid_of(wf).empty());
  finish(wf, "a");
  wf.set_task_status("b", task::status_running, 1, "n", "");
  EXPECT_TRUE(invalid_of(wf).empty());
}

TEST(WorkflowGraph, KilledTaskInvalidatesEveryTaskDownstream) {
  workflow_info wf = spawned_diamond();
  wf.set_task_status("a", task::status_killed, 1, "n", "");
  EXPECT_EQ(invalid_of(wf), (std::set<std::string>{"b", "c", "d"}));
}

TEST(WorkflowGraph, FailedTaskWithoutAttemptsInvalidatesOnlyItsBranch) {
  workflow_info wf = spawned_diamond();
  finish(wf, "a");
  wf.set_task_status("b", task::status_running, 1, "n", "");
  wf.set_task_status("b", task::status_failed, 2, "n", "");
  EXPECT_EQ(invalid_of(wf), std::set<std::string>{"d"});
}

TEST(WorkflowGraph, FinishedTasksAreNotReportedEvenAfterAPreReqFailed) {
  workflow_info wf = spawned_diamond();
  finish(wf, "b");
  wf.set_task_status("a", task::status_running, 1, "n", "");
  wf.set_task_status("a", task::status_failed, 2, "n", "");
  EXPECT_EQ(invalid_of(wf), (std::set<std::string>{"c", "d"}));
}

TEST(WorkflowGraph, KillTriggerInvalidatesDownstreamTasks) {
  workflow_info wf = spawned_diamond();
  wf.set_task_kill_triggered("c", true);
  EXPECT_EQ(invalid_of(wf), std::set<std::string>{"d"});
}

TEST(WorkflowGraph, TasksOnACycleAndBehindItCanNeverComplete) {
  properties tasks;
  tasks.set_properties_value("x", zeltest::sample_task("c", 0, {{"in", "any"}}, {{"o", {"y>in"}}}));
  tasks.set_properties_value(
      "y", zeltest::sample_task("c", 0, {{"in", "any"}}, {{"o", {"x>in", "z>in"}}}));
  tasks.set_properties_value("z", zeltest::sample_task("c", 0, {{"in", "any"}}, {}));
  tasks.set_properties_value("w", zeltest::sample_task("c", 0, {{"in", "any"}}, {}));
  properties enc;
  enc.set_properties_value("tasks", tasks);
  workflow_info wf = decoded(enc);
  EXPECT_EQ(invalid_of(wf), (std::set<std::string>{"x", "y", "z"}));
}

TEST(WorkflowGraph, InvalidPreReqsAreAddedToTheCallersSet) {
  workflow_info wf = spawned_diamond();
  wf.set_task_status("c", task::status_killed, 1, "n", "");
  std::set<std::string> out{"other"};
  wf.get_invalid_pre_reqs_tasks(out);
  EXPECT_EQ(out, (std::set<std::string>{"d", "other"}));
}

// A minimal reader of the dot text that make_dot_graph writes: quoted ids with escapes.
struct dot_graph {
  std::string label;
  std::map<std::string, std::string> nodes;  // id -> label
  std::multimap<std::string, std::string> edges;
  std::map<std::pair<std::string, std::string>, std::string> edge_labels;
  std::set<std::string> dashed_nodes;
};

// Reads the literal `text` at `pos` and moves past it; false when it is not there.
bool consume(const std::string& line, std::size_t& pos, const std::string& text) {
  if (line.compare(pos, text.size(), text) != 0) return false;
  pos += text.size();
  return true;
}

// Reads a quoted dot string at `pos` (escapes: \" \\ \n) into `out`; false when malformed.
bool read_quoted(const std::string& line, std::size_t& pos, std::string& out) {
  out.clear();
  if (!consume(line, pos, "\"")) return false;
  while (pos < line.size()) {
    char c = line[pos++];
    if (c == '"') return true;
    if (c == '\\') {
      if (pos >= line.size()) return false;
      c = line[pos++];
      if (c == 'n') c = '\n';
    }
    out += c;
  }
  return false;
}

// Parses one line inside the braces into `g`; false when the line has another form.
bool parse_dot_line(const std::string& line, dot_graph& g) {
  std::size_t pos = 0;
  std::string first;
  std::string second;
  std::string label;
  if (line == "  node [shape=box];") return true;
  if (!consume(line, pos, "  ")) return false;
  if (consume(line, pos, "label=")) {
    return read_quoted(line, pos, g.label) && consume(line, pos, ";") && pos == line.size();
  }
  if (!read_quoted(line, pos, first)) return false;
  const bool edge = consume(line, pos, " -> ");
  if (edge && !read_quoted(line, pos, second)) return false;
  if (!consume(line, pos, " [label=") || !read_quoted(line, pos, label)) return false;
  const bool dashed = consume(line, pos, ", style=dashed");
  if (!consume(line, pos, "];") || pos != line.size()) return false;
  if (edge) {
    g.edges.emplace(first, second);
    g.edge_labels[{first, second}] = label;
  } else {
    g.nodes[first] = label;
    if (dashed) g.dashed_nodes.insert(first);
  }
  return true;
}

dot_graph parse_dot(const std::string& text) {
  dot_graph g;
  std::istringstream in(text);
  std::string line;
  std::getline(in, line);
  EXPECT_EQ(line, "digraph workflow {");
  bool closed = false;
  while (std::getline(in, line)) {
    EXPECT_FALSE(closed) << "text after the closing brace: " << line;
    if (line == "}") {
      closed = true;
    } else {
      EXPECT_TRUE(parse_dot_line(line, g)) << "unexpected dot line: " << line;
    }
  }
  EXPECT_TRUE(closed);
  return g;
}

TEST(WorkflowGraph, DotGraphHasOneNodePerTaskAndOneEdgePerDestination) {
  workflow_info wf = spawned_diamond();
  finish(wf, "a");
  std::string dot;
  wf.make_dot_graph(dot);
  dot_graph g = parse_dot(dot);
  EXPECT_EQ(g.label, "spawned workflow 1");
  ASSERT_EQ(g.nodes.size(), 4u);
  EXPECT_EQ(g.nodes.at("a"), "a\ncmd\nfinished");
  EXPECT_EQ(g.nodes.at("d"), "d\ncmd\nwaiting");
  const std::multimap<std::string, std::string> expected{
      {"a", "b"}, {"a", "c"}, {"b", "d"}, {"c", "d"}};
  EXPECT_EQ(g.edges, expected);
  EXPECT_EQ((g.edge_labels[{"b", "d"}]), "o -> x");
  EXPECT_TRUE(g.dashed_nodes.empty());
}

TEST(WorkflowGraph, DotGraphOfSampleTemplateMatchesItsShape) {
  workflow_info wf = decoded(zeltest::sample_workflow(0, 20, true));
  std::string dot;
  wf.make_dot_graph(dot);
  dot_graph g = parse_dot(dot);
  EXPECT_EQ(g.label, "template");
  EXPECT_EQ(g.nodes.size(), 21u);
  EXPECT_EQ(g.edges.size(), 19u + 18u + 1u);
  EXPECT_EQ(g.nodes.at("init"), "init\nsetup\nwaiting\n(init)");
}

TEST(WorkflowGraph, DotGraphEscapesIdsAndDrawsMissingDestinationsDashed) {
  properties tasks;
  tasks.set_properties_value("q\"1\\",
                             zeltest::sample_task("c", 0, {}, {{"o", {"ghost>in", "r>nope"}}}));
  tasks.set_properties_value("r", zeltest::sample_task("c", 0, {{"in", "any"}}, {}));
  properties enc;
  enc.set_properties_value("tasks", tasks);
  workflow_info wf = decoded(enc);
  std::string dot;
  wf.make_dot_graph(dot);
  dot_graph g = parse_dot(dot);
  EXPECT_EQ(g.nodes.size(), 3u);
  EXPECT_TRUE(g.nodes.count("q\"1\\"));
  EXPECT_EQ(g.dashed_nodes, std::set<std::string>{"ghost"});
  EXPECT_EQ(g.nodes.at("ghost"), "ghost\n(missing)");
  EXPECT_EQ(g.edges.size(), 2u);
  EXPECT_EQ(g.edges.count("q\"1\\"), 2u);
  EXPECT_NE(dot.find("\"q\\\"1\\\\\" -> \"r\" [label=\"o -> nope\", style=dashed];"),
            std::string::npos)
      << dot;
}

}  // namespace
