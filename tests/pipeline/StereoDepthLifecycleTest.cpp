#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <stdexcept>
#include <thread>
#include <memory>
#include <string>

#include "pipeline/StereoDepth.h"
#include "support/CalibrationFixtures.h"
#include "support/ShiftedPair.h"

namespace KorvLumetra {
namespace {

long residentKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  }
  return -1;
}

// Both threads start with the object and are joined by its destructor (a hang
// shows as a timeout); the large buffers stay untouched until used.
TEST(StereoDepthLifecycle, RepeatedLifetimesCostNoResidentMemory) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
  // A sanitizer's allocator touches every page (or its shadow) of the 1.2 GB
  // a pipeline reserves: a few lifetimes check the threads, memory is not measured.
  constexpr int kLifetimes = 5;
  constexpr bool kMeasured = false;
#else
  constexpr int kLifetimes = 100;
  constexpr bool kMeasured = true;
#endif
  // Destroyed right after construction, while the preprocessing thread may not wait yet.
  for (int i = 0; i < kLifetimes; ++i) std::make_unique<StereoDepth>().reset();
  if (!kMeasured) GTEST_SKIP() << "resident memory is not measured under a sanitizer";
  const long before = residentKiB();
  ASSERT_GT(before, 0);
  auto pipeline = std::make_unique<StereoDepth>();
  // Well over a gigabyte is reserved; only a few tens of MB may become resident.
  EXPECT_LT(residentKiB() - before, 48 * 1024);
  pipeline.reset();
  const long settled = residentKiB();
  for (int i = 0; i < 50; ++i) StereoDepth again;
  EXPECT_LT(residentKiB() - settled, 16 * 1024);
}

// Throws where OpenCV could: on the frame hand-off and on the result.
class ThrowingEngine : public StereoEngineBase {
 public:
  std::atomic<int> fed{0};
  std::atomic<bool> ready{false};
  uint64_t getLatestTimestamp() const override { return 0; }
  bool isBusy() const override { return false; }
  bool isResultReady() const override { return ready.load(); }
  int getResult(float*, float*, std::array<int, 4>&, unsigned long long&) override {
    ready = false;
    throw cv::Exception(cv::Error::StsAssert, "result exploded", "getResult", "engine.cpp", 1);
  }
  int feedImage(LumoImage*) override {
    ready = true;
    ++fed;
    throw std::runtime_error("feed exploded");
  }
  int getImageScale(float* scale) const override { return *scale = 1.0f, 0; }
  bool isInitialized() const override { return true; }
};

// An exception on a pipeline thread drops that frame with one line; the
// thread goes on with the next frame instead of ending the host.
TEST(StereoDepthLifecycle, ExceptionsOnThePipelineThreadsDropTheFrameOnly) {
  LumoTest::TempDir dir;
  auto pipeline = std::make_unique<StereoDepth>();
  ASSERT_EQ(LumoTest::configure(*pipeline, dir, LumoTest::ConfigOptions{320, 200}, LumoTest::syntheticRig("radtan")), 0);
  auto owned = std::make_unique<ThrowingEngine>();
  ThrowingEngine* engine = owned.get();
  pipeline->addEngine(std::move(owned));
  int fed = 0;
  cv::Mat pixels(400, 320, CV_8UC1, cv::Scalar::all(100));
  const std::string printed = LumoTest::captureStdout([&] {
    for (uint64_t stamp : {1, 2}) {
      LumoImage frame = LumoTest::wrapStacked(pixels, stamp);
      ASSERT_EQ(pipeline->feedStereoImage(&frame), 0);
      for (int i = 0; i < 5000 && (engine->fed < static_cast<int>(stamp) || engine->ready); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }
    fed = engine->fed;
    pipeline.reset();  // joins the threads: every line is written
  });
  EXPECT_EQ(fed, 2);
  EXPECT_NE(printed.find("[ ERROR] preprocessLoop(): frame 2 dropped: feed exploded\n"), std::string::npos) << printed;
  EXPECT_NE(printed.find("[ ERROR] updateResult(): result dropped: OpenCV"), std::string::npos) << printed;
  EXPECT_NE(printed.find("result exploded in function 'getResult'\n"), std::string::npos) << printed;
}

}  // namespace
}  // namespace KorvLumetra
