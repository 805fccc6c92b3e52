// Benchmark support: a console reporter that also prints each pair's ratio against its target,
// and the repeated, interleaved run that a benchmark program may make its default.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <initializer_list>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace zelbench {

// Collects each benchmark's time per iteration for the ratio table: CPU time, so that other
// work on the machine does not skew one side, or wall-clock time for work that waits on other
// threads or on the disk. Two figures a benchmark: the fastest of its repetitions, the run that
// the machine's other work disturbed least, which judges the targets; and the median of the
// repetitions beside it. A single run gives both as its one time.
class ratio_reporter : public benchmark::ConsoleReporter {
 public:
  enum clock { cpu_time, real_time };
  explicit ratio_reporter(clock measured) : clock_(measured) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      // The function name alone: suffixes such as "/real_time" do not change which pair it is.
      const std::string name = run.run_name.function_name;
      const double time = clock_ == cpu_time ? run.GetAdjustedCPUTime() : run.GetAdjustedRealTime();
      const double seconds = time / benchmark::GetTimeUnitMultiplier(run.time_unit);
      if (run.run_type == Run::RT_Iteration) {
        const auto fastest = min_.find(name);
        min_[name] = fastest == min_.end() ? seconds : std::min(fastest->second, seconds);
        if (medians_.count(name) == 0) median_[name] = seconds;
      } else if (run.aggregate_name == "median") {
        medians_.insert(name);
        median_[name] = seconds;
      } else if (run.aggregate_name == "min") {
        // Reported when the repetitions themselves are not (--benchmark_report_aggregates_only).
        const auto fastest = min_.find(name);
        min_[name] = fastest == min_.end() ? seconds : std::min(fastest->second, seconds);
      }
    }
  }

  // "ours is N times faster than peer" (target: at least `times`).
  void print_speedup(const char* what, const std::string& ours, const std::string& peer,
                     double times) const {
    if (!has(ours) || !has(peer)) return;
    const double ratio = min_.at(peer) / min_.at(ours);
    std::printf("%-48s %8.2fx  (target >= %.2fx)  %-7s  median %.2fx\n", what, ratio, times,
                ratio >= times ? "met" : "NOT MET", median_.at(peer) / median_.at(ours));
  }
  // "ours runs at N% of peer's rate" (target: at least `fraction`).
  void print_rate(const char* what, const std::string& ours, const std::string& peer,
                  double fraction) const {
    if (!has(ours) || !has(peer)) return;
    const double ratio = min_.at(peer) / min_.at(ours);
    std::printf("%-48s %7.0f%%   (target >= %.0f%%)   %-7s  median %.0f%%\n", what, ratio * 100,
                fraction * 100, ratio >= fraction ? "met" : "NOT MET",
                median_.at(peer) / median_.at(ours) * 100);
  }
  // "ours runs at N times peer's rate" as a plain ratio (target: at least `fraction`).
  void print_share_of_rate(const char* what, const std::string& ours, const std::string& peer,
                           double fraction) const {
    if (!has(ours) || !has(peer)) return;
    const double ratio = min_.at(peer) / min_.at(ours);
    std::printf("%-52s %5.2f  (target >= %.2f)  %-7s  median %.2f\n", what, ratio, fraction,
                ratio >= fraction ? "met" : "NOT MET", median_.at(peer) / median_.at(ours));
  }
  // "ours takes N% of peer's time" (target: at most `fraction`; none when it is 0).
  void print_share(const char* what, const std::string& ours, const std::string& peer,
                   double fraction = 0) const {
    if (!has(ours) || !has(peer)) return;
    const double share = min_.at(ours) / min_.at(peer);
    const double median = median_.at(ours) / median_.at(peer) * 100;
    if (fraction <= 0) {
      std::printf("%-48s %7.1f%%   (of the time, no target)          median %.1f%%\n", what,
                  share * 100, median);
      return;
    }
    std::printf("%-48s %7.1f%%   (target <= %.0f%% of the time)  %-7s  median %.1f%%\n", what,
                share * 100, fraction * 100, share <= fraction ? "met" : "NOT MET", median);
  }
  // An information line without a target.
  void print_info(const char* what, const std::string& ours, const std::string& peer) const {
    if (!has(ours) || !has(peer)) return;
    std::printf("%-48s %8.2fx  (no target)          median %.2fx\n", what,
                min_.at(peer) / min_.at(ours), median_.at(peer) / median_.at(ours));
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
  bool has(const std::string& name) const { return min_.count(name) != 0; }
  clock clock_;
  std::map<std::string, double> min_;
  std::map<std::string, double> median_;
  std::set<std::string> medians_;  // the benchmarks whose median aggregate has been reported
};

// benchmark::Initialize with `repetitions` repetitions of each benchmark, interleaved at random
// across all of them, so that the machine's drift touches both sides of a pair alike. Flags
// given on the command line come after these and take precedence.
inline void initialize_repeated(int* argc, char** argv, int repetitions) {
  if (*argc < 1) return benchmark::Initialize(argc, argv);
  static std::string repeat;
  static char interleave[] = "--benchmark_enable_random_interleaving=true";
  static std::vector<char*> args;
  repeat = "--benchmark_repetitions=" + std::to_string(repetitions);
  args.assign(argv, argv + *argc);
  args.insert(args.begin() + 1, {&repeat[0], interleave});
  args.push_back(nullptr);
  int count = static_cast<int>(args.size()) - 1;
  benchmark::Initialize(&count, args.data());
  // Initialize removed the flags it read; what is left is what the caller passes on.
  for (int i = 0; i < count; ++i) argv[i] = args[static_cast<std::size_t>(i)];
  *argc = count;
}

}  // namespace zelbench
