// The matching engine's compute against a bare OpenCV matcher with the same
// settings on the same pair.
#include <benchmark/benchmark.h>

#include <array>
#include <thread>
#include <vector>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include "BenchRatios.h"
#include "engine/StereoCVEngine.h"
#include "support/ShiftedPair.h"

namespace {

using KorvLumetra::StereoCVEngine;

// Feed, match on the worker, collect: what the pipeline pays per frame.
void BM_Engine(benchmark::State& state) {
  const int width = static_cast<int>(state.range(0));
  const int height = static_cast<int>(state.range(1));
  const bool wls = state.range(2) != 0;
  StereoCVEngine engine(width, height, 3, 0.1f, 400.0f, 1.0f, 0, "", wls);
  cv::Mat stacked = LumoTest::makeShiftedPair(width, height, 16, 3);
  std::vector<float> depth(static_cast<size_t>(width) * height), disparity(depth.size());
  std::array<int, 4> shape{};
  unsigned long long timestamp = 0;
  uint64_t frame = 0;
  for (auto _ : state) {
    LumoImage image = LumoTest::wrapStacked(stacked, ++frame);
    engine.feedImage(&image);
    while (!engine.isResultReady()) std::this_thread::yield();
    engine.getResult(depth.data(), disparity.data(), shape, timestamp);
  }
}
BENCHMARK(BM_Engine)->Args({640, 400, 0})->Args({640, 400, 1})->Unit(benchmark::kMillisecond)->UseRealTime();

// The same settings and grey views, OpenCV alone.
void BM_BareSGBM(benchmark::State& state) {
  const int width = static_cast<int>(state.range(0));
  const int height = static_cast<int>(state.range(1));
  cv::Mat stacked = LumoTest::makeShiftedPair(width, height, 16, 3);
  cv::Mat left, right, raw;
  cv::cvtColor(stacked(cv::Rect(0, 0, width, height)), left, cv::COLOR_BGR2GRAY);
  cv::cvtColor(stacked(cv::Rect(0, height, width, height)), right, cv::COLOR_BGR2GRAY);
  const int disparities = StereoCVEngine::numberOfDisparities(width, 1.0f);
  auto matcher = cv::StereoSGBM::create(0, disparities, 11, 2904, 11616, 4, 51, 10, 150, 1,
                                        cv::StereoSGBM::MODE_SGBM_3WAY);
  for (auto _ : state) {
    matcher->compute(left, right, raw);
    benchmark::DoNotOptimize(raw.data);
  }
}
BENCHMARK(BM_BareSGBM)->Args({640, 400})->Unit(benchmark::kMillisecond)->UseRealTime();

LUMO_RATIO("engine / bare SGBM, 640x400", "BM_Engine/640/400/0/real_time", "BM_BareSGBM/640/400/real_time");
LUMO_RATIO("engine with WLS / bare SGBM, 640x400", "BM_Engine/640/400/1/real_time", "BM_BareSGBM/640/400/real_time");

}  // namespace
