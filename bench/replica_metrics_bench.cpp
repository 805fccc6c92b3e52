// /metrics of a replica of 100,000 jobs (and 2,000 nodes), the jobs and nodes by state kept as the
// changes arrive, against a walk over the replica that computes the same counts: the whole
// metrics text of a scrape after 1,000 job changes (each applied to the replica and heard by the
// counting handler, as a state connection does; the changes are not timed) against the two
// walks. Target: at most 5% of the walk's time. A fixed number of iterations: the untimed changes
// would otherwise make the library run the cheap scrape for minutes to fill its time.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "ratio_reporter.h"
#include "replica_metrics.h"
#include "zelcapi/state.h"
#include "zelcore/plugin_db.h"

namespace {

constexpr int job_count = 100000;
constexpr int node_count = 2000;
constexpr int changes_between_scrapes = 1000;
const char* const job_states[] = {"waiting", "running", "held", "done", "failed"};

zelcore::properties record(const std::string& name, const char* state) {
  zelcore::properties p(false);
  p.set_string_value("name", name);
  p.set_string_value("state", state);
  p.set_string_value("user", "someone");
  p.set_int_value("priority", 5);
  p.set_int_value("submitted", 1700000000);
  return p;
}

// The replica, the counters that a counting handler keeps for it, and the next change to make.
struct scraped_replica {
  scraped_replica() {
    for (int n = 0; n < job_count; ++n)
      replica.item_set(zelcapi::state_item_job, "job-" + std::to_string(n),
                       record("job", job_states[n % 5]));
    for (int n = 0; n < node_count; ++n)
      replica.item_set(zelcapi::state_item_node, "node-" + std::to_string(n),
                       record("node", n % 10 == 0 ? "down" : "up"));
  }
  // Changes the state of `count` jobs, as update-item notifications would.
  void change_jobs(int count) {
    for (int n = 0; n < count; ++n, ++next) {
      const std::string id = "job-" + std::to_string((next * 7919) % job_count);
      zelcore::properties update(false);
      update.set_string_value("state", job_states[next % 5]);
      replica.item_update(zelcapi::state_item_job, id, update);
      counted.state_item_updated(zelcapi::state_item_job, id, update);
    }
  }

  zelcore::plugin_db plugins;
  zelcapi::state replica{plugins, nullptr};
  zelcapi::state_handler program;
  zelctl::replica_counters counts;
  zelctl::counting_handler counted{program, counts};
  long next = 0;
};

scraped_replica& cluster() {
  static scraped_replica r;
  return r;
}

void BM_metrics_kept_as_changes_arrive(benchmark::State& st) {
  scraped_replica& r = cluster();
  zelctl::metrics_text first;
  zelctl::write_replica_metrics(first, r.replica, r.counts, {true, 0});  // the snapshot's walk
  std::size_t bytes = 0;
  for (auto _ : st) {
    st.PauseTiming();
    r.change_jobs(changes_between_scrapes);
    st.ResumeTiming();
    zelctl::metrics_text out;
    zelctl::write_replica_metrics(out, r.replica, r.counts, {true, 0});
    bytes = out.text().size();
    benchmark::DoNotOptimize(out.text().data());
  }
  st.counters["bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_metrics_kept_as_changes_arrive)->Unit(benchmark::kMicrosecond)->Iterations(200);

void BM_walk_counting_jobs_and_nodes_by_state(benchmark::State& st) {
  scraped_replica& r = cluster();
  for (auto _ : st) {
    st.PauseTiming();
    r.change_jobs(changes_between_scrapes);
    st.ResumeTiming();
    auto jobs = zelctl::count_by_state(r.replica.get_items(zelcapi::state_item_job));
    auto nodes = zelctl::count_by_state(r.replica.get_items(zelcapi::state_item_node));
    benchmark::DoNotOptimize(jobs);
    benchmark::DoNotOptimize(nodes);
  }
}
BENCHMARK(BM_walk_counting_jobs_and_nodes_by_state)->Unit(benchmark::kMicrosecond)->Iterations(200);

}  // namespace

int main(int argc, char** argv) {
  zelbench::initialize_repeated(&argc, argv, 7);
  cluster();
  zelbench::ratio_reporter reporter(zelbench::ratio_reporter::cpu_time);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  std::printf("\n");
  reporter.print_share("/metrics vs a walk counting by state", "BM_metrics_kept_as_changes_arrive",
                       "BM_walk_counting_jobs_and_nodes_by_state", 0.05);
  return 0;
}
