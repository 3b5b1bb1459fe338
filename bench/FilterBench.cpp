// The two depth filters on a depth image with holes and steps.
#include <benchmark/benchmark.h>

#include <vector>

#include <opencv2/core.hpp>

#include "BenchRatios.h"
#include "filters/KesTemporalFilter.h"
#include "filters/VorSpatialFilter.h"

namespace {

// Depth between 0.5 and 5 with a fifth of the pixels missing.
std::vector<float> depthWithHoles(int width, int height) {
  std::vector<float> depth(static_cast<size_t>(width) * height);
  cv::RNG rng(11);
  for (float& d : depth) d = rng.uniform(0.0f, 1.0f) < 0.2f ? 0.0f : rng.uniform(0.5f, 5.0f);
  return depth;
}

LumoDepthImage recordOf(std::vector<float>& data, int width, int height) {
  LumoDepthImage image{};
  image.width = static_cast<uint32_t>(width);
  image.height = static_cast<uint32_t>(height);
  image.channels = 1;
  image.stride = image.width * 4;
  image.size = image.stride * image.height;
  image.data = data.data();
  return image;
}

void BM_SpatialFilter(benchmark::State& state) {
  const int width = static_cast<int>(state.range(0)), height = static_cast<int>(state.range(1));
  const std::vector<float> source = depthWithHoles(width, height);
  std::vector<float> work = source;
  LumoDepthImage image = recordOf(work, width, height);
  KorvLumetra::VorSpatialFilter filter;
  for (auto _ : state) {
    state.PauseTiming();
    work = source;
    state.ResumeTiming();
    filter.processFrame(&image);
  }
}
BENCHMARK(BM_SpatialFilter)->Args({640, 400})->Args({1280, 800})->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_TemporalFilter(benchmark::State& state) {
  const int width = static_cast<int>(state.range(0)), height = static_cast<int>(state.range(1));
  const std::vector<float> source = depthWithHoles(width, height);
  std::vector<float> work = source;
  LumoDepthImage image = recordOf(work, width, height);
  KorvLumetra::KesTemporalFilter filter;
  for (auto _ : state) {
    state.PauseTiming();
    work = source;
    state.ResumeTiming();
    filter.processFrame(&image);
  }
}
BENCHMARK(BM_TemporalFilter)->Args({640, 400})->Args({1280, 800})->Unit(benchmark::kMillisecond)->UseRealTime();

LUMO_RATIO("spatial filter / bare SGBM, 640x400", "BM_SpatialFilter/640/400/real_time",
           "BM_BareSGBM/640/400/real_time");
LUMO_RATIO("temporal filter / bare SGBM, 640x400", "BM_TemporalFilter/640/400/real_time",
           "BM_BareSGBM/640/400/real_time");

}  // namespace
