// What a host gets for bad input that the other host tests do not reach: a
// handle without configuration, frames the preprocessing cannot use, a list for
// a number, faulty calibration files and missing required keys.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "lumetra_depth.h"
#include "support/CaptureOutput.h"
#include "support/HostConfig.h"
#include "support/ShiftedPair.h"
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

cv::Mat stackedFrame(int channels) { return cv::Mat(2 * kHeight, kWidth, CV_8UC(channels), cv::Scalar::all(128)); }

struct DepthBuffer {
  std::vector<float> data = std::vector<float>(kWidth * kHeight, 1.0f);
  LumoDepthImage record{0, 0, 0, kWidth, kHeight, 1, 0, 0, 0, 0, data.data()};
};

// Without a configuration there are no maps: feeds and queries are refused.
TEST(BadInput, HandleWithoutConfigurationRefusesFeedsAndQueries) {
  void* handle = nullptr;
  createQuietly(&handle, "/nonexistent/config.yaml");
  ASSERT_NE(handle, nullptr);
  cv::Mat pixels = stackedFrame(1);
  LumoImage frame = LumoTest::wrapStacked(pixels, 1);
  std::vector<float> points(30);
  LumoMap map{0, 0, 0, 0, 0, points.data()};
  const std::string printed = LumoTest::captureStdout([&] {
    EXPECT_EQ(KORV_LUMO_D_FeedStereoImage(handle, &frame), 1);
    EXPECT_EQ(KORV_LUMO_D_FeedRGBImage(handle, &frame), 1);
    EXPECT_EQ(KORV_LUMO_D_GetPointcloud(handle, &map, 10), 1);
  });
  for (const char* function : {"feedStereoImage", "feedRGBImage"}) {
    EXPECT_NE(printed.find(std::string(function) + "(): rectify map or camera image size not exists\n"),
              std::string::npos) << printed;
  }
  EXPECT_EQ(map.num, 0);
  const int pixel[2] = {1, 1};
  float out[3] = {7.0f, 7.0f, 7.0f};
  DepthBuffer depth;
  EXPECT_EQ(KorvLumetra::KORV_LUMO_D_GetCoordinates(handle, pixel, 1, &depth.record, out), 1);
  EXPECT_EQ(KorvLumetra::KORV_LUMO_D_GetCoordinates(handle, nullptr, 1, &depth.record, out), 1);
  EXPECT_EQ(KorvLumetra::KORV_LUMO_D_GetCoordinates(handle, pixel, 1, nullptr, out), 1);
  EXPECT_EQ(out[0], 7.0f);  // refused: nothing written
  EXPECT_EQ(KORV_LUMO_D_DestroyHandle(handle), 0);
}

// A list for a number reads as its zero, with a message on standard error:
// here synchronous mode. A channel count other than 1 or 3 passes the feed, but
// the preprocessing drops the frame with a message, so the synchronous feed
// gives up; a good frame after it gets its depth.
TEST(BadInput, AListForANumberAndAnUnusableChannelCount) {
  TempDir dir;
  void* handle = nullptr;
  const std::string path = writeHost(dir, HostConfig().set("async_mode", "[1, 2]"));
  const std::string warned = LumoTest::captureStderr([&] { createQuietly(&handle, path); });
  EXPECT_NE(warned.find("[YamlNode] Expected scalar for int conversion"), std::string::npos) << warned;
  cv::Mat twoChannels = stackedFrame(2), grey = stackedFrame(1);
  LumoImage bad = LumoTest::wrapStacked(twoChannels, 3), good = LumoTest::wrapStacked(grey, 8);
  DepthBuffer depth;
  const std::string printed =
      LumoTest::captureStdout([&] { EXPECT_EQ(KORV_LUMO_D_FeedStereoImage(handle, &bad), 1); });
  EXPECT_NE(printed.find("preprocessLoop(): stereo depth: unrecognized image channel 2\n"), std::string::npos)
      << printed;
  EXPECT_EQ(KORV_LUMO_D_GetDepthImage(handle, &depth.record, nullptr, nullptr), 1);
  ASSERT_EQ(KORV_LUMO_D_FeedStereoImage(handle, &good), 0);
  ASSERT_EQ(KORV_LUMO_D_GetDepthImage(handle, &depth.record, nullptr, nullptr), 0);
  EXPECT_EQ(depth.record.timestamp, 8u);
  KORV_LUMO_D_DestroyHandle(handle);
}

TEST(BadInput, CalibrationWithoutCamerasLeavesNoMaps) {
  TempDir dir;
  const std::string path = writeHost(dir, HostConfig());
  LumoTest::writeText(dir.file("calib.yaml"), "# no cameras\n");
  void* handle = nullptr;
  const std::string printed = createQuietly(&handle, path);
  EXPECT_NE(printed.find("initCameraFromCalibYaml(): cam num in calib file is not correct: 1\n"), std::string::npos)
      << printed;
  cv::Mat pixels = stackedFrame(1);
  LumoImage frame = LumoTest::wrapStacked(pixels, 1);
  LumoTest::captureStdout([&] { EXPECT_EQ(KORV_LUMO_D_FeedStereoImage(handle, &frame), 1); });
  KORV_LUMO_D_DestroyHandle(handle);
}

// A required key missing from either file ends the process. A near miss of the
// deliberately misspelt "cloest_dist" is still a missing key.
TEST(BadInputDeathTest, MissingRequiredKeysEndTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  TempDir dir;
  const std::string path = writeHost(dir, HostConfig().remove("cloest_dist").set("closest_dist", "0.1"));
  const auto create = [&] {
    void* handle = nullptr;
    KORV_LUMO_D_CreateHandleWithConfig(&handle, path.c_str());
  };
  EXPECT_EXIT(create(), testing::ExitedWithCode(1), R"(\[CheckParseYaml\] Missing required key: cloest_dist)");

  writeHost(dir, HostConfig());
  std::string text = LumoSynth::calibrationYaml(LumoSynth::pinholeRig(kWidth, kHeight));
  text.replace(text.find("resolution", text.find("cam1")), 10, "resolutiom");
  LumoTest::writeText(dir.file("calib.yaml"), text);
  EXPECT_EXIT(create(), testing::ExitedWithCode(1), R"(\[CheckParseYaml\] Missing required key: resolution)");
}

}  // namespace
