// Benchmark support: a console reporter that also prints each pair's ratio against its target.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <initializer_list>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace zelbench {

// Collects each benchmark's time per iteration for the ratio table: CPU time, so that other
// work on the machine does not skew one side, or wall-clock time for work that waits on other
// threads or on the disk. With --benchmark_repetitions, the median of the repetitions is used,
// which a passing disturbance does not move.
class ratio_reporter : public benchmark::ConsoleReporter {
 public:
  enum clock { cpu_time, real_time };
  explicit ratio_reporter(clock measured) : clock_(measured) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
      if (!median && run.run_type != Run::RT_Iteration) continue;
      // The function name alone: suffixes such as "/real_time" do not change which pair it is.
      const std::string name = run.run_name.function_name;
      if (!median && medians_.count(name) != 0) continue;
      if (median) medians_.insert(name);
      const double time = clock_ == cpu_time ? run.GetAdjustedCPUTime() : run.GetAdjustedRealTime();
      seconds_[name] = time / benchmark::GetTimeUnitMultiplier(run.time_unit);
    }
  }

  // "ours is N times faster than peer" (target: at least `times`).
  void print_speedup(const char* what, const std::string& ours, const std::string& peer,
                     double times) const {
    if (!has(ours) || !has(peer)) return;
    const double ratio = seconds_.at(peer) / seconds_.at(ours);
    std::printf("%-44s %8.2fx  (target >= %.2fx)  %s\n", what, ratio, times,
                ratio >= times ? "met" : "NOT MET");
  }
  // "ours runs at N% of peer's rate" (target: at least `fraction`).
  void print_rate(const char* what, const std::string& ours, const std::string& peer,
                  double fraction) const {
    if (!has(ours) || !has(peer)) return;
    const double ratio = seconds_.at(peer) / seconds_.at(ours);
    std::printf("%-44s %7.0f%%   (target >= %.0f%%)   %s\n", what, ratio * 100, fraction * 100,
                ratio >= fraction ? "met" : "NOT MET");
  }

  struct target {
    const char* what;
    const char* ours;
    const char* peer;
    double at_least;
    bool as_rate;  // printed as a percentage of the peer's rate, else as a speed-up
  };
  void print_targets(std::initializer_list<target> targets) const {
    for (const target& t : targets) {
      if (t.as_rate)
        print_rate(t.what, t.ours, t.peer, t.at_least);
      else
        print_speedup(t.what, t.ours, t.peer, t.at_least);
    }
  }

 private:
  bool has(const std::string& name) const { return seconds_.count(name) != 0; }
  clock clock_;
  std::map<std::string, double> seconds_;
  std::set<std::string> medians_;
};

}  // namespace zelbench
