// Runs the benchmarks and then prints, for each pair registered with
// LUMO_RATIO, the time of the first relative to the second from the same run
// (medians when repeated); last, the pipeline's goals with this run's figures.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "BenchRatios.h"

namespace {

// Keeps every repetition's time per iteration and shows only the medians when
// repeated: the machine's speed drifts during a run, so the figures come from
// interleaved repetitions.
class RecordingReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    std::vector<Run> shown;
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration && run.iterations > 0) {
        times_[run.benchmark_name()].push_back(run.real_accumulated_time / static_cast<double>(run.iterations));
      }
      if (run.repetitions <= 1 || (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median")) {
        shown.push_back(run);
      }
    }
    if (!shown.empty()) ConsoleReporter::ReportRuns(shown);
  }
  // The median time per iteration of each benchmark, in seconds.
  std::map<std::string, double> seconds() const {
    std::map<std::string, double> medians;
    for (auto [name, times] : times_) {
      std::sort(times.begin(), times.end());
      const std::size_t n = times.size();
      medians[name] = n % 2 == 1 ? times[n / 2] : 0.5 * (times[n / 2 - 1] + times[n / 2]);
    }
    return medians;
  }

 private:
  std::map<std::string, std::vector<double>> times_;
};

// The pipeline's goals against the bare matcher or the engine: the figure
// before the work on them ("now"; 0 where it was not measured) and the goal.
// A numerator "A+B" is the sum of two benchmarks.
struct Goal {
  const char* figure;
  const char* numerator;
  const char* denominator;
  double before;
  double goal;
};

const Goal kGoals[] = {
    {"sync feed to output / bare matcher, grey", "BM_PipelineSync/640/400/100/1/real_time",
     "BM_BareSGBM/640/400/real_time", 1.44, 1.10},
    {"the same with colour input", "BM_PipelineSync/640/400/100/3/real_time", "BM_BareSGBM/640/400/real_time", 0.0,
     1.12},
    {"async, 1 engine, frame period / engine", "BM_PipelineAsync/640/400/100/1/real_time",
     "BM_EngineCompute/640/400/100/real_time", 1.20, 1.03},
    {"async, 2 engines, frame period / bare matcher", "BM_PipelineAsync/640/400/100/2/real_time",
     "BM_BareSGBM/640/400/real_time", 0.98, 0.90},
    {"cloud with 1 cm voxels / bare matcher", "BM_PointCloud/640/400/10/real_time", "BM_BareSGBM/640/400/real_time",
     0.39, 0.05},
    {"rectification (grey) / bare matcher", "BM_Rectification/640/400/1/real_time", "BM_BareSGBM/640/400/real_time",
     0.057, 0.02},
    {"spatial + temporal filter / bare matcher", "BM_SpatialFilter/640/400/real_time+BM_TemporalFilter/640/400/real_time",
     "BM_BareSGBM/640/400/real_time", 0.083, 0.03},
};

// Seconds of a benchmark or of a sum "A+B"; negative when one is missing.
double secondsOf(const std::map<std::string, double>& seconds, const std::string& names) {
  double total = 0.0;
  std::size_t start = 0;
  for (;;) {
    const std::size_t plus = names.find('+', start);
    const auto found = seconds.find(names.substr(start, plus == std::string::npos ? std::string::npos : plus - start));
    if (found == seconds.end()) return -1.0;
    total += found->second;
    if (plus == std::string::npos) return total;
    start = plus + 1;
  }
}

void printGoals(const std::map<std::string, double>& seconds) {
  bool header = false;
  for (const Goal& goal : kGoals) {
    const double a = secondsOf(seconds, goal.numerator);
    const double b = secondsOf(seconds, goal.denominator);
    if (a < 0.0 || b <= 0.0) continue;
    if (!header) {
      std::printf("\n%-48s %8s %8s %8s  %s\n", "goal (640x400, same run)", "before", "goal", "now", "");
      header = true;
    }
    char before[16] = "-";
    if (goal.before > 0.0) std::snprintf(before, sizeof before, "%.3f", goal.before);
    const double now = a / b;
    std::printf("%-48s %8s %8.3f %8.3f  %s\n", goal.figure, before, goal.goal, now, now <= goal.goal ? "met" : "open");
  }
}

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

  const std::map<std::string, double> seconds = reporter.seconds();
  bool header = false;
  for (const LumoBench::Ratio& ratio : LumoBench::ratios()) {
    const auto a = seconds.find(ratio.numerator);
    const auto b = seconds.find(ratio.denominator);
    if (a == seconds.end() || b == seconds.end() || b->second <= 0.0) continue;
    if (!header) {
      std::printf("\n%-48s %12s %12s %8s\n", "ratio (same run)", "ms", "base ms", "x");
      header = true;
    }
    std::printf("%-48s %12.3f %12.3f %8.3f\n", ratio.label.c_str(), a->second * 1e3, b->second * 1e3,
                a->second / b->second);
  }
  printGoals(seconds);
  return 0;
}
