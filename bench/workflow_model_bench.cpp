// Workflow model benchmarks: the model operations that the workflow manager repeats most
// (spawning a copy of a template, setting statuses, encoding, decoding, graph queries).
#include <benchmark/benchmark.h>

#include "support/sample_workflows.h"
#include "zelworkflow/workflow_info.h"

namespace {

using zelworkflow::workflow_info;

workflow_info sample(std::uint32_t type, std::size_t n_tasks) {
  workflow_info wf;
  wf.decode_workflow_info(zeltest::sample_workflow(type, n_tasks), zelcore::plugin_db());
  if (type == workflow_info::workflow_type_spawned) wf.spawn(1, zelcore::make_int(0), {});
  return wf;
}

// What a value sent to a template costs the model: copy, retype, spawn, set the value.
void BM_SpawnFromTemplate(benchmark::State& state) {
  const workflow_info tpl = sample(0, static_cast<std::size_t>(state.range(0)));
  const zelcore::property_ptr value = zelcore::make_string("input");
  std::uint64_t seq = 0;
  for (auto _ : state) {
    workflow_info copy(tpl);
    copy.set_type(workflow_info::workflow_type_spawned);
    copy.clear_dependants();
    copy.spawn(++seq, value, {});
    benchmark::DoNotOptimize(copy.set_in_value("t1>in", value, false, "bench"));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SpawnFromTemplate)->Arg(20)->Arg(50);

void BM_SetTaskStatus(benchmark::State& state) {
  workflow_info wf = sample(2, 20);
  const zelcore::task::status cycle[] = {zelcore::task::status_running,
                                         zelcore::task::status_failed};
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(wf.set_task_status("t7", cycle[++i % 2], 1, "node", ""));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SetTaskStatus);

void BM_EncodeWorkflow(benchmark::State& state) {
  const workflow_info wf = sample(2, static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    zelcore::properties out;
    wf.encode_workflow_info(out);
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_EncodeWorkflow)->Arg(20)->Arg(50);

void BM_DecodeWorkflow(benchmark::State& state) {
  zelcore::properties encoded;
  sample(2, static_cast<std::size_t>(state.range(0))).encode_workflow_info(encoded);
  const zelcore::plugin_db db;
  for (auto _ : state) {
    workflow_info wf;
    wf.decode_workflow_info(encoded, db);
    benchmark::DoNotOptimize(wf);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DecodeWorkflow)->Arg(20)->Arg(50);

void BM_GraphQueries(benchmark::State& state) {
  const workflow_info wf = sample(2, static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    std::list<std::string> runnable;
    std::map<std::string, std::string> reasons;
    wf.get_tasks_runnability(runnable, reasons);
    std::set<std::string> invalid;
    wf.get_invalid_pre_reqs_tasks(invalid);
    benchmark::DoNotOptimize(invalid);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_GraphQueries)->Arg(20)->Arg(50);

}  // namespace

BENCHMARK_MAIN();
