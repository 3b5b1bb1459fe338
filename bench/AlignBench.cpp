// Depth/colour registration at pipeline size: 640x400 depth, 1920x1080 colour.
// Arguments: colocated (1: table-driven fast mode, 0: full projection with a
// translation), threaded (1: rows spread over threads, 0: OpenCV held to one thread).
#include <benchmark/benchmark.h>

#include <vector>

#include <opencv2/core/utility.hpp>

#include "BenchRatios.h"
#include "align/AlignImage.h"
#include "align/AlignRigs.h"

namespace {

using KorvLumetra::AlignImage;

// OpenCV's thread count for one benchmark, restored after it.
struct ThreadCount {
  int saved = cv::getNumThreads();
  explicit ThreadCount(bool threaded) {
    if (!threaded) cv::setNumThreads(1);
  }
  ~ThreadCount() { cv::setNumThreads(saved); }
};

struct Setup {
  ThreadCount threads;
  LumoTest::AlignRig rig;
  AlignImage align;
  std::vector<float> depthPx;
  std::vector<uint8_t> colourPx;
  LumoDepthImage depth;
  LumoImage colour;

  explicit Setup(const benchmark::State& state)
      : threads(state.range(1) != 0), rig(LumoTest::benchRig(state.range(0) != 0)) {
    align.setAlignInfo(rig.depth, rig.other, rig.depthToOther);
    depthPx = LumoTest::randomDepth(rig.depth.width, rig.depth.height, 7);
    colourPx = LumoTest::randomBytes(static_cast<size_t>(rig.other.width) * rig.other.height * 3, 8);
    depth = LumoTest::wrapDepth(depthPx, rig.depth.width, rig.depth.height, 1);
    colour = LumoTest::wrapImage(colourPx, rig.other.width, rig.other.height, 3, 0);
  }
};

void BM_AlignDepthToColour(benchmark::State& state) {
  Setup s(state);
  std::vector<float> outPx(static_cast<size_t>(s.rig.other.width) * s.rig.other.height);
  LumoDepthImage out = LumoTest::wrapDepth(outPx, s.rig.other.width, s.rig.other.height);
  for (auto _ : state) {
    s.align.alignDepthToOther(out, s.depth, s.colour);
    benchmark::DoNotOptimize(outPx.data());
  }
}
BENCHMARK(BM_AlignDepthToColour)
    ->Args({0, 0})->Args({0, 1})->Args({1, 0})->Args({1, 1})
    ->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_AlignColourToDepth(benchmark::State& state) {
  Setup s(state);
  std::vector<uint8_t> outPx(static_cast<size_t>(s.rig.depth.width) * s.rig.depth.height * 3);
  LumoImage out = LumoTest::wrapImage(outPx, s.rig.depth.width, s.rig.depth.height, 3, 0);
  for (auto _ : state) {
    s.align.alignOtherToDepth(out, s.depth, s.colour);
    benchmark::DoNotOptimize(outPx.data());
  }
}
BENCHMARK(BM_AlignColourToDepth)
    ->Args({0, 0})->Args({0, 1})->Args({1, 0})->Args({1, 1})
    ->Unit(benchmark::kMillisecond)->UseRealTime();

// The fast-mode table is built once per setAlignInfo, on the result thread.
void BM_AlignSetupColocated(benchmark::State& state) {
  const LumoTest::AlignRig rig = LumoTest::benchRig(true);
  const ThreadCount threads(state.range(0) != 0);
  AlignImage align;
  for (auto _ : state) align.setAlignInfo(rig.depth, rig.other, rig.depthToOther);
}
BENCHMARK(BM_AlignSetupColocated)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

LUMO_RATIO("depth->colour full / bare SGBM", "BM_AlignDepthToColour/0/1/real_time", "BM_BareSGBM/640/400/real_time");
LUMO_RATIO("depth->colour fast / bare SGBM", "BM_AlignDepthToColour/1/1/real_time", "BM_BareSGBM/640/400/real_time");
LUMO_RATIO("colour->depth offset / bare SGBM", "BM_AlignColourToDepth/0/1/real_time", "BM_BareSGBM/640/400/real_time");
LUMO_RATIO("colour->depth colocated / bare SGBM", "BM_AlignColourToDepth/1/1/real_time", "BM_BareSGBM/640/400/real_time");
LUMO_RATIO("depth->colour full, threaded / one thread", "BM_AlignDepthToColour/0/1/real_time", "BM_AlignDepthToColour/0/0/real_time");
LUMO_RATIO("colour->depth offset, threaded / one thread", "BM_AlignColourToDepth/0/1/real_time", "BM_AlignColourToDepth/0/0/real_time");

}  // namespace
