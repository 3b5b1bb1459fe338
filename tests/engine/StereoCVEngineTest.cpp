#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cmath>
#include <limits>
#include <regex>
#include <thread>
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
  for (int i = 0; i < 30000 && !done(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return done();
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
    depth.size = static_cast<uint32_t>(out.size() * 4);
    depth.data = out.data();
    return engine.disparity2Depth(&disparity, &depth);
  };

  // k = 600 * 0.1 * 1 = 60 and a search range of 64 (width 640).
  StereoCVEngine engine(640, 4, 3, 0.1f, 600.0f, 1.0f, 0, "", false);
  disparity.timestamp = 42;
  disparity.tag0 = 7;
  const float nan = std::numeric_limits<float>::quiet_NaN();
  ASSERT_EQ(convert(engine, {5.0f, 4.9f, 64.0f, 63.99f, -1.0f, 0.0f, nan, 30.0f}), 0);
  // 60 / 5 = 12 exactly is kept; 60 / 4.9 > 12 dropped, not clamped; the search
  // range, the matcher's invalid value, 0 and NaN give no depth.
  EXPECT_EQ(out, std::vector<float>({12.0f, 0.0f, 0.0f, 60.0f / 63.99f, 0.0f, 0.0f, 0.0f, 2.0f}));
  EXPECT_TRUE(depth.timestamp == 42u && depth.tag0 == 7u && depth.width == 8u && depth.data == out.data())
      << "the header follows the disparity's";

  // k = 0.1 keeps small disparities below the 12-unit cut, so only the
  // threshold decides. 0.0100001f widened to double is just above 0.01.
  StereoCVEngine small(640, 4, 3, 0.1f, 1.0f, 1.0f, 0, "", false);
  ASSERT_EQ(convert(small, {0.0101f, 0.01f, 0.0100001f}), 0);
  const float k = 1.0f * 0.1f * 1.0f;
  EXPECT_EQ(out, std::vector<float>({k / 0.0101f, 0.0f, k / 0.0100001f}));

  // No data: zero depth, and a message without a newline (the next output continues on its line).
  const LumoDepthImage none{};
  out.assign(3, 3.0f);
  depth.data = out.data();
  int status = 0;
  const std::string printed = LumoTest::captureStdout([&] { status = small.disparity2Depth(&none, &depth); });
  EXPECT_EQ(status, 1);
  EXPECT_TRUE(std::regex_search(printed, std::regex(R"(\[ ERROR\] disparity2Depth\(\): Disparity map is empty, )"
                                                    R"(depth map set to zero$)")))
      << printed;
  EXPECT_EQ(out, std::vector<float>(3, 0.0f));
}

// The WLS filter on or off.
class EngineOnShiftedPair : public testing::TestWithParam<bool> {};

TEST_P(EngineOnShiftedPair, RefusesBadInputAndRecoversConstantDisparityAndDepth) {
  const int width = 320, height = 120, shift = 12;
  const float baseline = 0.1f, focal = 400.0f;
  auto engine = StereoEngineFactory::createStereoEngine(width, height, 3, "unused", baseline, focal, 0, "", 0, 1.0f,
                                                        GetParam());
  std::vector<float> depth(width * height, -1.0f), disparity(width * height, -1.0f);
  std::array<int, 4> shape{{9, 9, 9, 9}};
  unsigned long long timestamp = 99;
  EXPECT_EQ(engine->getResult(depth.data(), disparity.data(), shape, timestamp), 1);  // nothing yet
  EXPECT_TRUE(shape[0] == 9 && timestamp == 99u && depth[0] == -1.0f);
  EXPECT_EQ(engine->feedImage(nullptr), 1);
  cv::Mat single = makeShiftedPair(width, height / 2, 4, 1);  // one view high, not two
  LumoImage wrong = wrapStacked(single, 1);
  const std::string printed = LumoTest::captureStdout([&] { EXPECT_EQ(engine->feedImage(&wrong), 1); });
  EXPECT_NE(printed.find("[ ERROR] feedImage(): Image size mismatch! Expected: 320x120, Got: 320x120"),
            std::string::npos)
      << printed;

  cv::Mat stacked = makeShiftedPair(width, height, shift, 7);
  LumoImage frame = wrapStacked(stacked, 123456789012345ull);
  ASSERT_EQ(engine->feedImage(&frame), 0);
  ASSERT_TRUE(waitFor([&] { return engine->isResultReady(); }));
  EXPECT_EQ(engine->getLatestTimestamp(), 123456789012345ull);
  ASSERT_EQ(engine->getResult(depth.data(), disparity.data(), shape, timestamp), 0);
  EXPECT_FALSE(engine->isResultReady());
  EXPECT_EQ(timestamp, 123456789012345ull);
  EXPECT_EQ(shape, (std::array<int, 4>{{1, 1, height, width}}));
  // Interior: away from the left band the matcher cannot see and the borders.
  int counted = 0, close = 0;
  for (int v = 10; v < height - 10; ++v) {
    for (int u = 64 + 10; u < width - 10; ++u, ++counted) {
      const float d = disparity[v * width + u];
      if (std::fabs(d - shift) > 0.25f) continue;
      ++close;
      EXPECT_EQ(depth[v * width + u], focal * baseline / d);
    }
  }
  EXPECT_GT(close, counted * 95 / 100) << close << " of " << counted;

  // Two frames in a row: whatever the worker picked up first, the last result is the last frame.
  LumoImage second = frame, third = frame;
  second.timestamp = 2, third.timestamp = 3;
  ASSERT_EQ(engine->feedImage(&second), 0);
  ASSERT_EQ(engine->feedImage(&third), 0);
  EXPECT_TRUE(waitFor([&] { return engine->getLatestTimestamp() == 3u; }));
}

INSTANTIATE_TEST_SUITE_P(Matcher, EngineOnShiftedPair, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& info) { return info.param ? "WithWls" : "Plain"; });

// Views with no room for the search would make OpenCV assert inside a
// destructor, past any handler: the worker drops such a frame with one line
// and stays ready for the next.
TEST(StereoCVEngine, AFrameItCannotMatchIsDroppedAndTheWorkerGoesOn) {
  StereoCVEngine engine(16, 10, 3, 0.1f, 100.0f, 1.0f, 0, "", false);
  cv::Mat pixels(20, 16, CV_8UC3, cv::Scalar::all(90));
  LumoImage frame = wrapStacked(pixels, 31);
  const std::string printed = LumoTest::captureStdout([&] {
    ASSERT_EQ(engine.feedImage(&frame), 0);
    ASSERT_TRUE(waitFor([&] { return engine.droppedFrames() == 1 && !engine.isBusy(); }));
  });
  EXPECT_NE(printed.find("[ ERROR] inferLoop(): frame 31 dropped: views of 16 columns leave no room for 16 disparities\n"),
            std::string::npos)
      << printed;
  EXPECT_FALSE(engine.isResultReady());
  EXPECT_EQ(engine.getLatestTimestamp(), 0u);
  frame.timestamp = 32;
  LumoTest::captureStdout([&] {
    ASSERT_EQ(engine.feedImage(&frame), 0);
    EXPECT_TRUE(waitFor([&] { return engine.droppedFrames() == 2; }));  // the worker still runs
  });
}

}  // namespace
}  // namespace KorvLumetra
