#pragma once
// The console report of Google Benchmark plus, at the end, each benchmark's time as a ratio
// to a floor measured in the same run: the median when the run is repeated
// (--benchmark_repetitions), else the one measurement.
//
//   bench_support::RatioReporter reporter;
//   benchmark::RunSpecifiedBenchmarks(&reporter);
//   reporter.printRatios("BM_Floor", {{"BM_Write", "write"}});   // "ratio write: 1.08 (CPU time 1.21)"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace bench_support {

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const auto& run : runs) {
      const auto& name = run.run_name.function_name;
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
        times_[name] = {run.GetAdjustedRealTime(), run.GetAdjustedCPUTime()};
        medians_.insert(name);
      } else if (run.run_type == Run::RT_Iteration && !medians_.contains(name)) {
        times_[name] = {run.GetAdjustedRealTime(), run.GetAdjustedCPUTime()};
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

  /// One line per (benchmark, label) that ran, in the order given, against `floor`.
  void printRatios(const std::string& floor,
                   const std::vector<std::pair<std::string, std::string>>& labels) const {
    const auto base = times_.find(floor);
    if (base == times_.end() || base->second.first <= 0 || base->second.second <= 0) return;
    for (const auto& [name, label] : labels) {
      if (const auto it = times_.find(name); it != times_.end())
        std::printf("ratio %s: %.2f (CPU time %.2f)\n", label.c_str(),
                    it->second.first / base->second.first,
                    it->second.second / base->second.second);
    }
  }

 private:
  std::map<std::string, std::pair<double, double>> times_;  // real, CPU
  std::set<std::string> medians_;
};

}  // namespace bench_support
