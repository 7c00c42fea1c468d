// A console reporter that also remembers each benchmark's real time per
// iteration, so that a program can print its figures as shares of a floor
// measured in the same run: a ratio holds on a noisy machine where absolute
// figures do not.
#pragma once

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace TarnBench {

class FloorReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) times_[run.benchmark_name()] = run.GetAdjustedRealTime();
  }

 protected:
  // Prints `name`'s throughput as a share of `floor`'s (same work per
  // iteration); prints nothing when either did not run.
  void share(const std::string& name, const std::string& floor) const {
    const auto a = times_.find(name), b = times_.find(floor);
    if (a == times_.end() || b == times_.end() || a->second <= 0) return;
    std::printf("  %-60s %6.0f%%\n", name.c_str(), 100.0 * b->second / a->second);
  }
  const std::map<std::string, double>& times() const { return times_; }

 private:
  std::map<std::string, double> times_;
};

// Runs the benchmarks selected on the command line through `reporter`.
inline void RunBenchmarks(int argc, char** argv, FloorReporter& reporter) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
}

}  // namespace TarnBench
