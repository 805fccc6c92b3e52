// Benchmarks of the workflow manager: applying task updates received from the master, and
// spawning workflows from a template through set_in_value.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <random>

#include "support/sample_workflows.h"
#include "zelcapi/workflow_manager.h"

namespace {

using zelcapi::workflow_manager;
using zelcore::make_int;
using zelcore::make_string;
using zelcore::properties;
using zelworkflow::workflow_info;

// Counts the callbacks, as a state would receive them.
class counting_receiver : public zelcapi::workflow_manager_event_receiver {
 public:
  void wm_cb_workflow_will_be_updated(const std::string&, const properties&) override { ++will; }
  void wm_cb_workflow_was_updated(const std::string&, const properties&) override { ++was; }
  std::size_t will = 0;
  std::size_t was = 0;
};

constexpr std::size_t workflow_count = 1000;
constexpr std::size_t tasks_per_workflow = 20;
constexpr std::size_t message_count = 100000;

std::string workflow_id(std::size_t i) { return "WOFL-bench-" + std::to_string(i); }

// 100,000 "set-task-status" and "update-task-progress" messages, alternating, for random tasks.
std::vector<properties> task_messages() {
  std::mt19937_64 rng(7);
  std::vector<properties> out;
  out.reserve(message_count);
  for (std::size_t i = 0; i < message_count; ++i) {
    const std::string wf = workflow_id(rng() % workflow_count);
    const std::string wtid = zeltest::sample_task_id(1 + rng() % tasks_per_workflow);
    if (i % 2 == 0) {
      out.push_back(properties{{"action", make_string("set-task-status")},
                               {"wf-state-id", make_string(wf)},
                               {"task-wtid", make_string(wtid)},
                               {"task-status", make_int(static_cast<std::int64_t>(rng() % 6))},
                               {"tm", make_int(static_cast<std::int64_t>(i))},
                               {"nid", make_string("node-" + std::to_string(rng() % 16))},
                               {"msg", make_string("")}});
    } else {
      const properties progress{{"percent", make_int(static_cast<std::int64_t>(rng() % 101))},
                                {"step", make_int(static_cast<std::int64_t>(i))}};
      out.push_back(properties{{"action", make_string("update-task-progress")},
                               {"wf-state-id", make_string(wf)},
                               {"task-wtid", make_string(wtid)},
                               {"progress", zelcore::property_ptr(new properties(progress))}});
    }
  }
  return out;
}

void BM_apply_task_updates(benchmark::State& state) {
  workflow_manager::workflow_map workflows;
  std::uint64_t sequence = 0;
  counting_receiver receiver;
  workflow_manager manager(&receiver, workflows, sequence);
  zelcore::plugin_db db;
  const properties encoded =
      zeltest::sample_workflow(workflow_info::workflow_type_spawned, tasks_per_workflow);
  std::string id;
  for (std::size_t i = 0; i < workflow_count; ++i)
    manager.add_workflow(encoded, db, id, workflow_id(i));
  const std::vector<properties> messages = task_messages();
  for (auto _ : state) {
    for (const properties& m : messages) manager.update_workflow(m, db);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * messages.size()));
  state.counters["messages/s"] = benchmark::Counter(
      static_cast<double>(state.iterations() * messages.size()), benchmark::Counter::kIsRate);
  benchmark::DoNotOptimize(receiver.was);
}
BENCHMARK(BM_apply_task_updates)->Unit(benchmark::kMillisecond)->Iterations(5);

constexpr std::size_t spawn_count = 10000;
constexpr std::size_t template_tasks = 50;

void BM_spawn_from_template(benchmark::State& state) {
  zelcore::plugin_db db;
  const properties encoded =
      zeltest::sample_workflow(workflow_info::workflow_type_template, template_tasks);
  double heap_bytes = 0;
  double encoded_bytes = 0;
  for (auto _ : state) {
    workflow_manager::workflow_map workflows;
    std::uint64_t sequence = 0;
    counting_receiver receiver;
    workflow_manager manager(&receiver, workflows, sequence);
    std::string id;
    manager.add_workflow(encoded, db, id, "T");
    const auto heap_before = mallinfo2().uordblks;
    std::string spawned;
    for (std::size_t i = 0; i < spawn_count; ++i) {
      manager.set_in_value("workflow:T>t1>in", make_int(static_cast<std::int64_t>(i)), spawned, "",
                           properties(), false, "bench");
    }
    const auto heap_after = mallinfo2().uordblks;
    state.PauseTiming();
    heap_bytes = static_cast<double>(heap_after - heap_before) / spawn_count;
    properties one;
    manager.encode_workflow(spawned, one);
    encoded_bytes = static_cast<double>(zelcore::encode_property(one).size());
    if (workflows.size() != spawn_count + 1) state.SkipWithError("spawns were refused");
    workflows.clear();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * spawn_count));
  state.counters["spawns/s"] = benchmark::Counter(
      static_cast<double>(state.iterations() * spawn_count), benchmark::Counter::kIsRate);
  state.counters["heap_bytes_per_spawn"] = heap_bytes;
  state.counters["encoded_bytes_per_spawn"] = encoded_bytes;
}
BENCHMARK(BM_spawn_from_template)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
