// The whole pipeline through the exported functions against the bare engine
// compute on the same frames, synchronous latency and asynchronous throughput.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "BenchRatios.h"
#include "engine/StereoCVEngine.h"
#include "lumetra_depth.h"
#include "pipeline/StageTimeline.h"
#include "support/HostConfig.h"
#include "support/TempDir.h"
#include "synth/SyntheticStereo.h"

namespace {

constexpr int kWarmUpFrames = 24;  // more than the pipeline's ring of fed frames

// A rendered frame, grey and colour, and a configuration per input size, made once.
struct Fixture {
  LumoTest::TempDir dir;
  cv::Mat grey;
  cv::Mat colour;
};

const Fixture& fixture(int width, int height) {
  static std::map<std::pair<int, int>, std::unique_ptr<Fixture>> cache;
  auto& slot = cache[{width, height}];
  if (!slot) {
    slot = std::make_unique<Fixture>();
    const LumoSynth::Rig rig = LumoSynth::pinholeRig(width, height);
    LumoSynth::writeCalibrationYaml(slot->dir.file("calib.yaml"), rig);
    const cv::Mat stacked = LumoSynth::renderStereo(LumoSynth::makeRenderer(rig, 1), LumoSynth::defaultScene(), 0);
    cv::cvtColor(stacked, slot->grey, cv::COLOR_BGR2GRAY);
    slot->colour = stacked;
  }
  return *slot;
}

void* createHandle(const Fixture& f, int width, int height, double scale, int async, int threads) {
  const std::string path = f.dir.file("config_" + std::to_string(async) + "_" + std::to_string(threads) + "_" +
                                      std::to_string(static_cast<int>(scale * 100)) + ".yaml");
  LumoTest::HostConfig()
      .set("calib_path", f.dir.file("calib.yaml"))
      .set("input_stereo_width", std::to_string(width))
      .set("input_stereo_height", std::to_string(height))
      .set("stereo_img_scaling", std::to_string(scale))
      .set("async_mode", std::to_string(async))
      .set("thread_num", std::to_string(threads))
      // The work a host usually asks for: both filters and a cloud per frame.
      .set("enable_filter", "true")
      .set("pointcloud_type", "1")
      .write(path);
  void* handle = nullptr;
  KORV_LUMO_D_CreateHandleWithConfig(&handle, path.c_str());
  return handle;
}

// The median time of each step of a frame's way, in ms, as counters of the
// benchmark: a step ends at its stage's mark and starts at the mark before it.
void reportStages(benchmark::State& state, const std::vector<KorvLumetra::StageMark>& marks) {
  static const char* const kSteps[KorvLumetra::kStageCount] = {
      "host ms", "intake ms", "rectify ms", "match ms", "take ms", "filter ms", "cloud ms", "output ms"};
  std::vector<double> steps[KorvLumetra::kStageCount];
  for (std::size_t i = 1; i < marks.size(); ++i) {
    steps[static_cast<int>(marks[i].stage)].push_back((marks[i].nanoseconds - marks[i - 1].nanoseconds) * 1e-6);
  }
  for (int stage = 0; stage < KorvLumetra::kStageCount; ++stage) {
    std::vector<double>& times = steps[stage];
    if (times.empty()) continue;
    std::nth_element(times.begin(), times.begin() + times.size() / 2, times.end());
    state.counters[kSteps[stage]] = times[times.size() / 2];
  }
}

LumoImage frameOf(const cv::Mat& stacked, uint64_t timestamp) {
  LumoImage frame{};
  frame.timestamp = timestamp;
  frame.width = static_cast<uint32_t>(stacked.cols);
  frame.height = static_cast<uint32_t>(stacked.rows);
  frame.channels = static_cast<uint32_t>(stacked.channels());
  frame.stride = frame.width * frame.channels;
  frame.size = frame.stride * frame.height;
  frame.data = stacked.data;
  return frame;
}

// Rectifying a stacked grey or 3-channel pair with fixed-point maps, as the
// preprocessing thread does for every frame.
void BM_Rectification(benchmark::State& state) {
  const int width = static_cast<int>(state.range(0)), height = static_cast<int>(state.range(1));
  const int channels = static_cast<int>(state.range(2));
  const LumoSynth::Rig rig = LumoSynth::pinholeRig(width, height);
  const LumoSynth::Rectification rect = LumoSynth::rectification(rig, 1.0);
  cv::Mat map1[2], map2[2];
  const cv::Mat* rotations[2] = {&rect.R1, &rect.R2};
  const cv::Mat* projections[2] = {&rect.P1, &rect.P2};
  const cv::Mat* intrinsics[2] = {&rect.K0, &rect.K1};
  for (int i = 0; i < 2; ++i) {
    cv::initUndistortRectifyMap(*intrinsics[i], LumoSynth::distCoeffs(rig.cameras[i]), *rotations[i],
                                *projections[i], rect.size, CV_16SC2, map1[i], map2[i]);
  }
  const cv::Mat& stacked = channels == 1 ? fixture(width, height).grey : fixture(width, height).colour;
  cv::Mat rectified(stacked.size(), stacked.type());
  const cv::Rect halves[2] = {cv::Rect(0, 0, width, height), cv::Rect(0, height, width, height)};
  const int band = (1 << 16) / width;  // the pipeline's bands, each on the calling thread
  for (auto _ : state) {
    for (int i = 0; i < 2; ++i) {
      const cv::Mat view = stacked(halves[i]), out = rectified(halves[i]);
      for (int first = 0; first < height; first += band) {
        const cv::Range rows(first, std::min(height, first + band));
        cv::Mat outBand = out.rowRange(rows);
        cv::remap(view, outBand, map1[i].rowRange(rows), map2[i].rowRange(rows), cv::INTER_LINEAR,
                  cv::BORDER_CONSTANT, cv::Scalar());
      }
    }
    benchmark::DoNotOptimize(rectified.data);
  }
}
BENCHMARK(BM_Rectification)->Args({640, 400, 1})->Args({640, 400, 3})->Unit(benchmark::kMillisecond)->UseRealTime();

// Feed one frame (grey or colour) synchronously and read its depth back.
void BM_PipelineSync(benchmark::State& state) {
  const int width = static_cast<int>(state.range(0)), height = static_cast<int>(state.range(1));
  const double scale = state.range(2) / 100.0;
  const Fixture& f = fixture(width, height);
  const cv::Mat& stacked = state.range(3) == 1 ? f.grey : f.colour;
  void* handle = createHandle(f, width, height, scale, 0, 1);
  std::vector<float> depth(static_cast<size_t>(width) * height);
  LumoDepthImage record{};
  record.data = depth.data();
  uint64_t timestamp = 0;
  // Steady state: every slot of the pipeline's frame ring written once.
  for (int i = 0; i < kWarmUpFrames; ++i) {
    LumoImage frame = frameOf(stacked, ++timestamp);
    KORV_LUMO_D_FeedStereoImage(handle, &frame);
  }
  KorvLumetra::takeStageMarks();
  for (auto _ : state) {
    LumoImage frame = frameOf(stacked, ++timestamp);
    if (KORV_LUMO_D_FeedStereoImage(handle, &frame) != 0) state.SkipWithError("synchronous feed timed out");
    KORV_LUMO_D_GetDepthImage(handle, &record, nullptr, nullptr);
  }
  reportStages(state, KorvLumetra::takeStageMarks());
  KORV_LUMO_D_DestroyHandle(handle);
}
// Arguments: width, height, scaling in per cent, channels of the fed frame.
BENCHMARK(BM_PipelineSync)
    ->Args({640, 400, 100, 1})
    ->Args({640, 400, 100, 3})
    ->Args({1280, 800, 50, 1})
    ->Unit(benchmark::kMillisecond)->UseRealTime();

// The engine alone at the working size, on the same (scaled) frame.
void BM_EngineCompute(benchmark::State& state) {
  const int width = static_cast<int>(state.range(0)), height = static_cast<int>(state.range(1));
  const double scale = state.range(2) / 100.0;
  const int working = static_cast<int>(width * scale), workingHeight = static_cast<int>(height * scale);
  cv::Mat stacked;
  cv::resize(fixture(width, height).grey, stacked, cv::Size(working, 2 * workingHeight), 0, 0, cv::INTER_LINEAR);
  cv::cvtColor(stacked, stacked, cv::COLOR_GRAY2BGR);
  KorvLumetra::StereoCVEngine engine(working, workingHeight, 3, 0.1f, 400.0f, 1.0f, 0, "", false);
  std::vector<float> depth(static_cast<size_t>(working) * workingHeight), disparity(depth.size());
  std::array<int, 4> shape{};
  unsigned long long timestamp = 0;
  uint64_t frame = 0;
  // Waits as the pipeline's result thread does, asleep until the engine
  // announces; a spinning wait would take the core the matcher could use.
  std::mutex mutex;
  std::condition_variable announced;
  bool ready = false;
  engine.setResultListener([&] {
    {
      std::lock_guard<std::mutex> lock(mutex);
      ready = true;
    }
    announced.notify_one();
  });
  for (auto _ : state) {
    LumoImage image{};
    image.timestamp = ++frame;
    image.width = static_cast<uint32_t>(working);
    image.height = static_cast<uint32_t>(2 * workingHeight);
    image.channels = 3;
    image.stride = image.width * 3;
    image.size = image.stride * image.height;
    image.data = stacked.data;
    engine.feedImage(&image);
    {
      std::unique_lock<std::mutex> lock(mutex);
      announced.wait(lock, [&] { return ready; });
      ready = false;
    }
    engine.getResult(depth.data(), disparity.data(), shape, timestamp);
  }
}
BENCHMARK(BM_EngineCompute)->Args({640, 400, 100})->Args({1280, 800, 50})->Unit(benchmark::kMillisecond)->UseRealTime();

// Asynchronous: keeps one frame in flight per engine and counts results.
void BM_PipelineAsync(benchmark::State& state) {
  const int width = static_cast<int>(state.range(0)), height = static_cast<int>(state.range(1));
  const double scale = state.range(2) / 100.0;
  const int threads = static_cast<int>(state.range(3));
  const Fixture& f = fixture(width, height);
  void* handle = createHandle(f, width, height, scale, 1, threads);
  std::vector<float> depth(static_cast<size_t>(width) * height);
  LumoDepthImage record{};
  record.data = depth.data();
  uint64_t fed = 0, lastResult = 0;
  for (int i = 0; i < kWarmUpFrames; ++i) {  // steady state, as above; frames fed this fast are dropped
    LumoImage frame = frameOf(f.grey, ++fed);
    KORV_LUMO_D_FeedStereoImage(handle, &frame);
  }
  KorvLumetra::takeStageMarks();
  for (int i = 0; i < threads; ++i) {
    LumoImage frame = frameOf(f.grey, ++fed);
    KORV_LUMO_D_FeedStereoImage(handle, &frame);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  for (auto _ : state) {
    // One iteration per new result; a new frame replaces each one collected.
    for (;;) {
      if (KORV_LUMO_D_GetDepthImage(handle, &record, nullptr, nullptr) == 0 && record.timestamp != lastResult) {
        lastResult = record.timestamp;
        break;
      }
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    LumoImage frame = frameOf(f.grey, ++fed);
    KORV_LUMO_D_FeedStereoImage(handle, &frame);
  }
  state.counters["fps"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  if (threads == 1) reportStages(state, KorvLumetra::takeStageMarks());  // one frame at a time: steps in order
  KORV_LUMO_D_DestroyHandle(handle);
}
BENCHMARK(BM_PipelineAsync)
    ->Args({640, 400, 100, 1})
    ->Args({640, 400, 100, 2})
    ->Args({1280, 800, 50, 1})
    ->Args({1280, 800, 50, 2})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

LUMO_RATIO("rectification / bare SGBM, 640x400", "BM_Rectification/640/400/1/real_time",
           "BM_BareSGBM/640/400/real_time");
LUMO_RATIO("sync pipeline / bare SGBM, 640x400", "BM_PipelineSync/640/400/100/1/real_time",
           "BM_BareSGBM/640/400/real_time");
LUMO_RATIO("sync pipeline / engine, 640x400 at 1.0", "BM_PipelineSync/640/400/100/1/real_time",
           "BM_EngineCompute/640/400/100/real_time");
LUMO_RATIO("sync pipeline / engine, 1280x800 at 0.5", "BM_PipelineSync/1280/800/50/1/real_time",
           "BM_EngineCompute/1280/800/50/real_time");
LUMO_RATIO("async 1 engine period / engine, 640x400", "BM_PipelineAsync/640/400/100/1/real_time",
           "BM_EngineCompute/640/400/100/real_time");
LUMO_RATIO("async 2 engines period / engine, 640x400", "BM_PipelineAsync/640/400/100/2/real_time",
           "BM_EngineCompute/640/400/100/real_time");
LUMO_RATIO("async 1 engine period / engine, 1280x800 at 0.5", "BM_PipelineAsync/1280/800/50/1/real_time",
           "BM_EngineCompute/1280/800/50/real_time");
LUMO_RATIO("async 2 engines period / engine, 1280x800 at 0.5", "BM_PipelineAsync/1280/800/50/2/real_time",
           "BM_EngineCompute/1280/800/50/real_time");

}  // namespace
