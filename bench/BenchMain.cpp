// Runs the benchmarks and then prints, for each pair registered with
// LUMO_RATIO, the time of the first relative to the second from the same run.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "BenchRatios.h"

namespace {

class RecordingReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration && run.iterations > 0) {
        seconds_[run.benchmark_name()] = run.real_accumulated_time / static_cast<double>(run.iterations);
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  const std::map<std::string, double>& seconds() const { return seconds_; }

 private:
  std::map<std::string, double> seconds_;
};

}  // namespace

namespace LumoBench {

std::vector<Ratio>& ratios() {
  static std::vector<Ratio> all;
  return all;
}

bool registerRatio(const char* label, const char* numerator, const char* denominator) {
  ratios().push_back({label, numerator, denominator});
  return true;
}

}  // namespace LumoBench

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RecordingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  bool header = false;
  for (const LumoBench::Ratio& ratio : LumoBench::ratios()) {
    const auto a = reporter.seconds().find(ratio.numerator);
    const auto b = reporter.seconds().find(ratio.denominator);
    if (a == reporter.seconds().end() || b == reporter.seconds().end() || b->second <= 0.0) continue;
    if (!header) {
      std::printf("\n%-48s %12s %12s %8s\n", "ratio (same run)", "ms", "base ms", "x");
      header = true;
    }
    std::printf("%-48s %12.3f %12.3f %8.3f\n", ratio.label.c_str(), a->second * 1e3, b->second * 1e3,
                a->second / b->second);
  }
  return 0;
}
