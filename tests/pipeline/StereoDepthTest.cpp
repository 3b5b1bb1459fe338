// The pipeline object: its lifetimes, exceptions on its threads, the limits of
// its fixed buffers, and the frame ring behind them.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

#include <opencv2/imgproc.hpp>

#include "pipeline/LumoImageRing.h"
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
    announceResult();
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

// The rectified pair the host reads is each view remapped whole with the
// pipeline's maps (the pipeline remaps in row bands), grey or colour.
TEST(StereoDepthRectification, ViewsAreTheWholeViewRemapOfTheFrame) {
  LumoTest::TempDir dir;
  StereoDepth pipeline;
  // 640 wide: bands of 102 rows, the last of a 400-row view shorter.
  using Access = StereoDepthTestAccess;
  ASSERT_EQ(LumoTest::configure(pipeline, dir, LumoTest::ConfigOptions{640, 400}, LumoTest::syntheticRig("radtan")), 0);
  cv::Mat grey(800, 640, CV_8UC1), colour(800, 640, CV_8UC3);
  cv::randu(grey, 0, 256);
  cv::randu(colour, cv::Scalar::all(0), cv::Scalar::all(256));
  uint64_t stamp = 0;
  for (cv::Mat frame : {grey, colour}) {
    LumoImage image = LumoTest::wrapStacked(frame, ++stamp);
    ASSERT_EQ(pipeline.feedStereoImage(&image), 0);
    cv::Mat read(800, 640, CV_8UC3);
    LumoImage out{};
    out.data = read.data;
    for (int i = 0; i < 5000 && (pipeline.getRectifyImage(&out) != 0 || out.timestamp != stamp); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_EQ(out.timestamp, stamp);
    cv::Mat expected(800, 640, frame.type());
    for (int view = 0; view < 2; ++view) {
      const cv::Range rows(400 * view, 400 * (view + 1));
      cv::Mat half = expected.rowRange(rows);
      cv::remap(frame.rowRange(rows), half, Access::map1(pipeline)[view], Access::map2(pipeline)[view],
                cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar());
    }
    if (frame.channels() == 1) cv::cvtColor(expected, expected, cv::COLOR_GRAY2BGR);
    EXPECT_EQ(cv::norm(read, expected, cv::NORM_INF), 0.0) << frame.channels() << " channels";
  }
}

template <typename Fn>
std::string lengthErrorText(Fn&& fn) {
  try {
    fn();
  } catch (const std::length_error& e) {
    return e.what();
  }
  return "no exception";
}

TEST(LumoImageRing, OverwritesTheOldestKeepsBuffersAndThrowsWhenEmpty) {
  LumoUtils::LumoImageRing ring(20, 8);
  EXPECT_EQ(lengthErrorText([&] { ring.back(); }), "back function called on empty buffer");
  EXPECT_EQ(lengthErrorText([&] { ring.front(); }), "front function called on empty buffer");
  // Frames 1..21 into 20 slots: after the 20th push the write index wraps to 0.
  LumoImage* first = nullptr;
  uint8_t* firstBuffer = nullptr;
  for (uint64_t t = 1; t <= 21; ++t) {
    ring.push();
    LumoImage* slot = ring.back();
    EXPECT_EQ(slot->timestamp, 0u);  // header cleared by the push, buffer kept
    ASSERT_NE(slot->data, nullptr);
    if (t == 1) first = slot, firstBuffer = slot->data;
    slot->timestamp = t;
  }
  EXPECT_EQ(ring.back(), first);
  EXPECT_EQ(first->data, firstBuffer);
  EXPECT_EQ(ring.size(), 20u);
  for (uint64_t t = 2; t <= 21; ++t) {
    EXPECT_EQ(ring.front()->timestamp, t);
    ring.pop_front();
  }
  EXPECT_EQ(lengthErrorText([&] { ring.pop_front(); }), "pop_front called on empty buffer");
  ring.push();  // the ring's own mutex was released before throwing
  EXPECT_EQ(ring.size(), 1u);
}

// Configurations whose frame sizes exceed the pipeline's fixed buffers are
// refused when read, instead of overrunning the buffers on the first frame.
// Reads a configuration with the given "key value" pairs; standard output to *printed.
int initWith(const std::string& settings, std::string* printed) {
  LumoTest::TempDir dir;
  LumoTest::HostConfig config;
  config.set("calib_path", "");
  std::istringstream pairs(settings);
  for (std::string key, value; pairs >> key >> value;) config.set(key, value);
  config.write(dir.file("cfg.yaml"));
  StereoDepth pipeline;
  int status = 0;
  *printed = LumoTest::captureStdout([&] { status = pipeline.initFromYaml(dir.file("cfg.yaml")); });
  return status;
}

TEST(ConfigLimits, OversizedFramesAreRefusedWithTheSettingNamed) {
  const std::pair<const char*, const char*> cases[] = {
      // 1281 x 801 x 2 views x 3 channels is just over 6,144,000 bytes.
      {"input_stereo_width 1281 input_stereo_height 801", "input_stereo_width"},
      // Fits once scaled, but the input-size outputs (3 bytes a pixel) would not.
      {"input_stereo_width 5000 input_stereo_height 2000 stereo_img_scaling 0.25", "input_stereo_width"},
      // 3841 x 2160 x 3 is over a colour ring slot.
      {"input_aux_cam_width 3841 input_aux_cam_height 2160", "input_aux_cam_width"},
      // 3840 x 2160 floats are over the depth record that aligned depth returns to.
      {"input_aux_cam_width 3840 input_aux_cam_height 2160 align_cam_id 2 align_direction true", "align_cam_id"},
  };
  std::string printed;
  for (const auto& [settings, named] : cases) {
    EXPECT_EQ(initWith(settings, &printed), 1) << settings;
    for (const char* piece : {"[ ERROR] initFromYaml(): ", named, "limit"}) {
      EXPECT_NE(printed.find(piece), std::string::npos) << printed;
    }
  }
  // The largest sizes that fit are accepted.
  const char* largest = "input_stereo_width 1280 input_stereo_height 800 input_aux_cam_width 3840 input_aux_cam_height 2160";
  EXPECT_EQ(initWith(largest, &printed), 0);
}

}  // namespace
}  // namespace KorvLumetra
