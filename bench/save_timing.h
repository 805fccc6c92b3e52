// The saves that the store benchmarks time, on a state of zelbench::job_record jobs: each save
// timed alone (the set-up around it is the benchmark's own work), a save with nothing changed
// since the previous one, and a save after 1% of the jobs changed one field each.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <string>

#include "job_records.h"
#include "zelcapi/save_counts.h"
#include "zelcapi/state.h"

namespace zelbench {

inline void timed_save(benchmark::State& s, zelcapi::state& st) {
  const auto start = std::chrono::steady_clock::now();
  st.save_state_to_db(true);
  s.SetIterationTime(
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
}

// What every save costs before it writes anything: the state's copy, the walk over every
// record and its digest.
inline void unchanged_saves(benchmark::State& s, zelcapi::state& st) {
  for (auto _ : s) {
    st.save_state_to_db(true);
    timed_save(s, st);
  }
}

// Saves after 1% of the jobs changed since the previous save; `counts` gives the store's
// counts of its last save, shown beside the time.
template <class Counts>
void one_percent_changed_saves(benchmark::State& s, zelcapi::state& st, Counts counts) {
  static std::int64_t round = 0;
  for (auto _ : s) {
    st.save_state_to_db(true);
    ++round;
    for (int n = 0; n < snapshot_records; n += 100) {
      const std::string id = job_record(n).get_string_value("id");
      st.item_update(zelcapi::state_item_job, id,
                     zelcore::properties{{"progress", zelcore::make_int(round)}});
    }
    timed_save(s, st);
  }
  const zelcapi::save_counts last = counts();
  s.counters["written"] = static_cast<double>(last.written);
  s.counters["unchanged"] = static_cast<double>(last.unchanged);
}

}  // namespace zelbench
