// What a host gets for bad input that the other host tests do not reach: a
// handle without configuration, frames the preprocessing cannot use, values of
// the wrong kind in the configuration, faulty calibration files.
#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "lumetra_depth.h"
#include "support/CaptureOutput.h"
#include "support/HostConfig.h"
#include "support/TempDir.h"
#include "synth/SyntheticStereo.h"

namespace {

using LumoTest::HostConfig;
using LumoTest::TempDir;

constexpr int kWidth = 320, kHeight = 200;

std::string createQuietly(void** handle, const std::string& path) {
  return LumoTest::captureStdout([&] { KORV_LUMO_D_CreateHandleWithConfig(handle, path.c_str()); });
}

// A configuration with a rendered rig's calibration beside it.
std::string writeHost(const TempDir& dir, HostConfig config) {
  LumoSynth::writeCalibrationYaml(dir.file("calib.yaml"), LumoSynth::pinholeRig(kWidth, kHeight));
  config.set("input_stereo_width", std::to_string(kWidth)).set("input_stereo_height", std::to_string(kHeight));
  config.write(dir.file("config.yaml"));
  return dir.file("config.yaml");
}

TEST(BadInput, HandleWithoutConfigurationRefusesFeedsAndQueries) {
  void* handle = nullptr;
  const std::string printed = createQuietly(&handle, "/nonexistent/config.yaml");
  ASSERT_NE(handle, nullptr);
  EXPECT_NE(printed.find("initFromYaml(): file not exits: /nonexistent/config.yaml"), std::string::npos) << printed;

  std::vector<uint8_t> pixels(kWidth * kHeight * 2);
  LumoImage frame{};
  frame.timestamp = 1;
  frame.width = kWidth;
  frame.height = 2 * kHeight;
  frame.channels = 1;
  frame.data = pixels.data();
  std::vector<float> points(30);
  LumoMap map{};
  map.points = points.data();
  int stereo = 0, colour = 0, cloud = 0;
  const std::string refused = LumoTest::captureStdout([&] {
    stereo = KORV_LUMO_D_FeedStereoImage(handle, &frame);
    colour = KORV_LUMO_D_FeedRGBImage(handle, &frame);
    cloud = KORV_LUMO_D_GetPointcloud(handle, &map, 10);
  });
  EXPECT_EQ(stereo, 1);
  EXPECT_EQ(colour, 1);
  EXPECT_EQ(cloud, 1);
  EXPECT_NE(refused.find("feedStereoImage(): rectify map or camera image size not exists\n"), std::string::npos);
  EXPECT_NE(refused.find("feedRGBImage(): rectify map or camera image size not exists\n"), std::string::npos);
  EXPECT_NE(refused.find("getPointcloud(): point cloud data is empty\n"), std::string::npos) << refused;
  EXPECT_EQ(map.num, 0);

  const int pixel[2] = {1, 1};
  float out[3] = {7.0f, 7.0f, 7.0f};
  std::vector<float> depthData(kWidth * kHeight, 1.0f);
  LumoDepthImage depth{};
  depth.width = kWidth;
  depth.height = kHeight;
  depth.data = depthData.data();
  EXPECT_EQ(KorvLumetra::KORV_LUMO_D_GetCoordinates(handle, pixel, 1, &depth, out), 1);
  EXPECT_EQ(KorvLumetra::KORV_LUMO_D_GetCoordinates(handle, nullptr, 1, &depth, out), 1);
  EXPECT_EQ(KorvLumetra::KORV_LUMO_D_GetCoordinates(handle, pixel, 1, nullptr, out), 1);
  EXPECT_EQ(out[0], 7.0f);  // refused: nothing written
  EXPECT_EQ(KORV_LUMO_D_DestroyHandle(handle), 0);
}

// A channel count other than 1 or 3 passes the feed; the preprocessing drops
// the frame with a message, and no depth appears.
TEST(BadInput, UnsupportedChannelCountIsDroppedByThePreprocessing) {
  TempDir dir;
  void* handle = nullptr;
  createQuietly(&handle, writeHost(dir, HostConfig().set("async_mode", "1")));
  std::vector<uint8_t> pixels(kWidth * kHeight * 2 * 2, 128);
  LumoImage frame{};
  frame.timestamp = 3;
  frame.width = kWidth;
  frame.height = 2 * kHeight;
  frame.channels = 2;
  frame.data = pixels.data();
  int status = -1;
  const std::string printed = LumoTest::captureStdout([&] {
    status = KORV_LUMO_D_FeedStereoImage(handle, &frame);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
  });
  EXPECT_EQ(status, 0);
  EXPECT_NE(printed.find("preprocessLoop(): stereo depth: unrecognized image channel 2\n"), std::string::npos)
      << printed;
  std::vector<float> depthData(kWidth * kHeight);
  LumoDepthImage depth{};
  depth.data = depthData.data();
  EXPECT_EQ(KORV_LUMO_D_GetDepthImage(handle, &depth, nullptr, nullptr), 1);
  KORV_LUMO_D_DestroyHandle(handle);
}

TEST(BadInput, ValuesOfTheWrongKindInTheConfiguration) {
  // Text for a number: the reader's exception reaches the host, after the
  // handle was stored.
  TempDir dir;
  void* handle = nullptr;
  const std::string path = writeHost(dir, HostConfig().set("thread_num", "abc"));
  LumoTest::captureStdout(
      [&] { EXPECT_THROW(KORV_LUMO_D_CreateHandleWithConfig(&handle, path.c_str()), std::invalid_argument); });
  ASSERT_NE(handle, nullptr);
  KORV_LUMO_D_DestroyHandle(handle);

  // A list for one value: a message on standard error, and the value's zero
  // (synchronous mode; a synchronous feed returns with its depth).
  handle = nullptr;
  const std::string listed = writeHost(dir, HostConfig().set("async_mode", "[1, 2]"));
  const std::string warned = LumoTest::captureStderr([&] { createQuietly(&handle, listed); });
  EXPECT_NE(warned.find("[YamlNode] Expected scalar for int conversion"), std::string::npos) << warned;
  std::vector<uint8_t> pixels(kWidth * kHeight * 2, 0);
  LumoImage frame{};
  frame.timestamp = 8;
  frame.width = kWidth;
  frame.height = 2 * kHeight;
  frame.channels = 1;
  frame.data = pixels.data();
  std::vector<float> depthData(kWidth * kHeight);
  LumoDepthImage depth{};
  depth.data = depthData.data();
  ASSERT_EQ(KORV_LUMO_D_FeedStereoImage(handle, &frame), 0);
  ASSERT_EQ(KORV_LUMO_D_GetDepthImage(handle, &depth, nullptr, nullptr), 0);
  EXPECT_EQ(depth.timestamp, 8u);
  KORV_LUMO_D_DestroyHandle(handle);
}

TEST(BadInput, FaultyCalibrationFiles) {
  TempDir dir;
  const std::string path = writeHost(dir, HostConfig());
  LumoTest::writeText(dir.file("calib.yaml"), "# no cameras\n");
  void* handle = nullptr;
  const std::string printed = createQuietly(&handle, path);
  EXPECT_NE(printed.find("initCameraFromCalibYaml(): cam num in calib file is not correct: 1\n"), std::string::npos)
      << printed;
  EXPECT_NE(printed.find("initFromYaml(): init camera failed\n"), std::string::npos) << printed;
  std::vector<uint8_t> pixels(kWidth * kHeight * 2);
  LumoImage frame{};
  frame.width = kWidth;
  frame.height = 2 * kHeight;
  frame.channels = 1;
  frame.data = pixels.data();
  int status = 0;
  const std::string refused = LumoTest::captureStdout([&] { status = KORV_LUMO_D_FeedStereoImage(handle, &frame); });
  EXPECT_EQ(status, 1);
  EXPECT_NE(refused.find("feedStereoImage(): rectify map or camera image size not exists\n"), std::string::npos);
  KORV_LUMO_D_DestroyHandle(handle);
}

TEST(BadInputDeathTest, CalibrationWithoutAResolutionEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  TempDir dir;
  const std::string path = writeHost(dir, HostConfig());
  std::string text = LumoSynth::calibrationYaml(LumoSynth::pinholeRig(kWidth, kHeight));
  const std::size_t second = text.find("resolution", text.find("cam1"));
  ASSERT_NE(second, std::string::npos);
  text.replace(second, 10, "resolutiom");
  LumoTest::writeText(dir.file("calib.yaml"), text);
  EXPECT_EXIT(
      {
        void* handle = nullptr;
        KORV_LUMO_D_CreateHandleWithConfig(&handle, path.c_str());
      },
      testing::ExitedWithCode(1), R"(\[CheckParseYaml\] Missing required key: resolution)");
}

}  // namespace
