#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cmath>
#include <limits>
#include <thread>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>

#include "engine/StereoCVEngine.h"
#include "engine/StereoEngineFactory.h"
#include "support/CaptureOutput.h"
#include "support/ShiftedPair.h"

namespace KorvLumetra {
namespace {

using LumoTest::makeShiftedPair;
using LumoTest::wrapStacked;

// Polls the worker's outcome for up to 30 seconds.
template <typename Done>
bool waitFor(Done done) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

TEST(StereoCVEngine, NumberOfDisparitiesFollowsWidthAndScale) {
  // About width / 10, truncated and not rounded to a multiple of 16, floor 16,
  // cap 128 (64 below half scale).
  const struct { int width; float scale; int expected; } cases[] = {
      {640, 1.0f, 64},  {1000, 1.0f, 100}, {1600, 1.0f, 128}, {200, 0.6f, 16},
      {1281, 0.5f, 64}, {2000, 0.5f, 100}, {2000, 0.4f, 64}};
  for (const auto& c : cases) {
    EXPECT_EQ(StereoCVEngine::numberOfDisparities(c.width, c.scale), c.expected) << c.width << " at " << c.scale;
  }

  StereoCVEngine engine(640, 48, 3, 0.1f, 500.0f, 1.0f, 0, "", false);
  EXPECT_EQ(engine.matcherSettings().numDisparities, 64);
  EXPECT_EQ(engine.matcherSettings().blockSize, 11);
  EXPECT_EQ(engine.matcherSettings().minDisparity, 0);
  EXPECT_TRUE(engine.isInitialized());
}

TEST(StereoCVEngine, DisparityToDepthCuts) {
  std::vector<float> in, out;
  LumoDepthImage disparity{}, depth{};
  const auto convert = [&](StereoCVEngine& engine, std::vector<float> values) {
    in = std::move(values);
    out.assign(in.size(), -7.0f);
    disparity.width = static_cast<uint32_t>(in.size());
    disparity.size = disparity.width * 4;
    disparity.data = in.data();
    depth.size = disparity.size;
    depth.data = out.data();
    ASSERT_EQ(engine.disparity2Depth(&disparity, &depth), 0);
  };

  // k = 600 * 0.1 * 1 = 60 and a search range of 64 (width 640).
  StereoCVEngine engine(640, 4, 3, 0.1f, 600.0f, 1.0f, 0, "", false);
  disparity.timestamp = 42;
  disparity.tag0 = 7;
  convert(engine, {5.0f, 4.9f, 64.0f, 63.99f, -1.0f, 0.0f, std::numeric_limits<float>::quiet_NaN(), 30.0f});
  EXPECT_EQ(out[0], 12.0f);           // 60 / 5 = 12 exactly: kept
  EXPECT_EQ(out[1], 0.0f);            // 60 / 4.9 > 12: dropped, not clamped
  EXPECT_EQ(out[2], 0.0f);            // at the search range
  EXPECT_EQ(out[3], 60.0f / 63.99f);  // just inside the search range
  EXPECT_EQ(out[4], 0.0f);            // the matcher's invalid value
  EXPECT_EQ(out[5], 0.0f);
  EXPECT_EQ(out[6], 0.0f);            // NaN gives no depth
  EXPECT_EQ(out[7], 60.0f / 30.0f);
  EXPECT_EQ(depth.timestamp, 42u);    // the header follows the disparity's
  EXPECT_EQ(depth.tag0, 7u);
  EXPECT_EQ(depth.width, disparity.width);
  EXPECT_EQ(depth.data, out.data());

  // k = 1 * 0.1 = 0.1 keeps small disparities below the 12-unit cut, so only
  // the threshold decides. 0.0100001f widened to double is just above 0.01.
  StereoCVEngine small(640, 4, 3, 0.1f, 1.0f, 1.0f, 0, "", false);
  convert(small, {0.0101f, 0.01f, 0.0100001f});
  ASSERT_GT(static_cast<double>(0.0100001f), 0.01);
  const float k = 1.0f * 0.1f * 1.0f;
  EXPECT_EQ(out[0], k / 0.0101f);
  EXPECT_EQ(out[1], 0.0f);
  EXPECT_EQ(out[2], k / 0.0100001f);
}

TEST(StereoCVEngine, EmptyDisparityLogsAndZeroesDepth) {
  StereoCVEngine engine(64, 4, 3, 0.1f, 1.0f, 1.0f, 0, "", false);
  std::vector<float> out(8, 3.0f);
  LumoDepthImage disparity{};
  LumoDepthImage depth{};
  depth.size = 32;
  depth.data = out.data();
  int status = 0;
  const std::string printed = LumoTest::captureStdout([&] { status = engine.disparity2Depth(&disparity, &depth); });
  EXPECT_EQ(status, 1);
  // No newline: the next output continues on the same line.
  const std::string ending = "disparity2Depth(): Disparity map is empty, depth map set to zero";
  EXPECT_TRUE(printed.size() > ending.size() &&
              printed.compare(printed.size() - ending.size(), ending.size(), ending) == 0)
      << printed;
  for (float v : out) EXPECT_EQ(v, 0.0f);
}

TEST(StereoCVEngine, GetResultAndFeedRefusals) {
  StereoCVEngine engine(320, 40, 3, 0.1f, 300.0f, 1.0f, 0, "", false);
  std::vector<float> depth(320 * 40, -1.0f), disparity(320 * 40, -1.0f);
  std::array<int, 4> shape{{9, 9, 9, 9}};
  unsigned long long timestamp = 99;
  EXPECT_EQ(engine.getResult(depth.data(), disparity.data(), shape, timestamp), 1);
  EXPECT_EQ(shape[0], 9);
  EXPECT_EQ(timestamp, 99u);
  EXPECT_EQ(depth[0], -1.0f);

  EXPECT_EQ(engine.feedImage(nullptr), 1);
  cv::Mat single = makeShiftedPair(320, 20, 4, 1);  // one view high, not two
  LumoImage wrong = wrapStacked(single, 1);
  const std::string printed = LumoTest::captureStdout([&] { EXPECT_EQ(engine.feedImage(&wrong), 1); });
  EXPECT_NE(printed.find("[ ERROR] feedImage(): Image size mismatch! Expected: 320x40, Got: 320x40"),
            std::string::npos)
      << printed;
  float scale = 0.0f;
  EXPECT_EQ(engine.getImageScale(&scale), 0);
  EXPECT_EQ(scale, 1.0f);
}

class EngineOnShiftedPair : public testing::TestWithParam<bool> {};  // with the WLS filter or not

TEST_P(EngineOnShiftedPair, RecoversConstantDisparityAndDepth) {
  const int width = 320, height = 120, shift = 12;
  const float baseline = 0.1f, focal = 400.0f;
  auto engine = StereoEngineFactory::createStereoEngine(width, height, 3, "unused", baseline, focal, 0, "", 0,
                                                        1.0f, GetParam());
  cv::Mat stacked = makeShiftedPair(width, height, shift, 7);
  LumoImage frame = wrapStacked(stacked, 123456789012345ull);
  frame.tag0 = 5;
  ASSERT_EQ(engine->feedImage(&frame), 0);
  ASSERT_TRUE(waitFor([&] { return engine->isResultReady(); }));
  EXPECT_EQ(engine->getLatestTimestamp(), 123456789012345ull);

  std::vector<float> depth(width * height), disparity(width * height);
  std::array<int, 4> shape{};
  unsigned long long timestamp = 0;
  ASSERT_EQ(engine->getResult(depth.data(), disparity.data(), shape, timestamp), 0);
  EXPECT_FALSE(engine->isResultReady());
  EXPECT_EQ(timestamp, 123456789012345ull);
  EXPECT_EQ(shape, (std::array<int, 4>{{1, 1, height, width}}));

  // Interior: away from the left band the matcher cannot see and the borders.
  const float k = focal * baseline;
  int counted = 0, close = 0;
  for (int v = 10; v < height - 10; ++v) {
    for (int u = 64 + 10; u < width - 10; ++u) {
      const float d = disparity[v * width + u];
      ++counted;
      if (std::fabs(d - shift) <= 0.25f) {
        ++close;
        EXPECT_EQ(depth[v * width + u], k / d);
      }
    }
  }
  EXPECT_GT(close, counted * 95 / 100) << close << " of " << counted;
}

INSTANTIATE_TEST_SUITE_P(Matcher, EngineOnShiftedPair, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& info) { return info.param ? "WithWls" : "Plain"; });

TEST(StereoCVEngine, LaterFrameReplacesStagedOne) {
  auto engine = StereoEngineFactory::createStereoEngine(320, 60, 3, "", 0.1f, 400.0f, 0, "", 1, 1.0f, false);
  cv::Mat a = makeShiftedPair(320, 60, 8, 1), b = makeShiftedPair(320, 60, 8, 2);
  LumoImage first = wrapStacked(a, 1), second = wrapStacked(b, 2);
  ASSERT_EQ(engine->feedImage(&first), 0);
  ASSERT_EQ(engine->feedImage(&second), 0);
  // Whatever the worker picked up first, the last result is the last frame.
  EXPECT_TRUE(waitFor([&] { return engine->getLatestTimestamp() == 2u; }));
}

}  // namespace
}  // namespace KorvLumetra
