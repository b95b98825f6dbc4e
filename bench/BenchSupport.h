// Shared by the benchmarks: a console reporter that remembers each run's
// time, so a benchmark binary can print its ratios to the baseline measured
// in the same run.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace nimb::bench {

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const auto& run : runs) {
      // With repetitions, keep the median; without, the single run.
      bool isMedian = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
      if (run.run_type == Run::RT_Iteration || isMedian) {
        seconds_[run.run_name.function_name] =
            run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
        cpuSeconds_[run.run_name.function_name] =
            run.GetAdjustedCPUTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
      }
    }
  }
  // Seconds per iteration of one benchmark (its median when repeated), or a
  // negative number when it did not run.
  double seconds(const std::string& name) const {
    auto found = seconds_.find(name);
    return found == seconds_.end() ? -1.0 : found->second;
  }
  // The same for CPU time (the whole process's, for benchmarks that
  // measure it).
  double cpuSeconds(const std::string& name) const {
    auto found = cpuSeconds_.find(name);
    return found == cpuSeconds_.end() ? -1.0 : found->second;
  }
  // Prints "name: X.XX x baseline" for each pair whose both sides ran.
  void printRatios(const std::vector<std::pair<std::string, std::string>>& pairs) const {
    if (pairs.empty()) return;
    std::printf("\nRatios (real time, median when repeated; lower is faster):\n");
    for (const auto& [name, baseline] : pairs) {
      auto a = seconds_.find(name), b = seconds_.find(baseline);
      if (a == seconds_.end() || b == seconds_.end() || b->second <= 0) continue;
      std::printf("  %-40s %6.2f x %s\n", name.c_str(), a->second / b->second, baseline.c_str());
    }
  }

 private:
  std::map<std::string, double> seconds_;
  std::map<std::string, double> cpuSeconds_;
};

// The main of every benchmark binary: runs the benchmarks with repetitions
// interleaved at random (so a busy spell of the machine does not land on one
// side only), then prints the ratios of `pairs`; then `summary`, when given,
// may print more from the reporter.
inline int runWithRatios(int argc, char** argv,
                         const std::vector<std::pair<std::string, std::string>>& pairs,
                         const std::function<void(const RatioReporter&)>& summary = {}) {
  std::vector<char*> args(argv, argv + argc);
  std::string interleave = "--benchmark_enable_random_interleaving=true";
  args.insert(args.begin() + 1, interleave.data());
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.printRatios(pairs);
  if (summary) summary(reporter);
  benchmark::Shutdown();
  return 0;
}

}  // namespace nimb::bench
