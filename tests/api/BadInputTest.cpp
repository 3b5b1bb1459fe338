// What a host gets for bad input that the other host tests do not reach: a
// handle without configuration, hostile configuration and calibration files,
// frames the pipeline cannot use, a list for a number and missing required
// keys. Faulty calibration values are in CalibrationFilesTest.
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "lumetra_depth.h"
#include "support/FeedAndWait.h"
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

// A configuration of the rendered rig's size, with its calibration beside it.
HostConfig hostConfig() {
  return HostConfig().set("input_stereo_width", std::to_string(kWidth)).set("input_stereo_height", std::to_string(kHeight));
}

std::string writeHost(const TempDir& dir, const HostConfig& config) {
  LumoSynth::writeCalibrationYaml(dir.file("calib.yaml"), LumoSynth::pinholeRig(kWidth, kHeight));
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
  const std::string path = writeHost(dir, hostConfig().set("async_mode", "[1, 2]"));
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
  ASSERT_EQ(LumoTest::feedAndWait(handle, &good), 0);
  ASSERT_EQ(KORV_LUMO_D_GetDepthImage(handle, &depth.record, nullptr, nullptr), 0);
  EXPECT_EQ(depth.record.timestamp, 8u);
  KORV_LUMO_D_DestroyHandle(handle);
}

// The error line of a refused configuration names the setting and the reason;
// the handle then refuses frames and is destroyed as usual. `path` is the file
// given to creation, with {dir} for the scratch directory.
TEST(BadInput, HostileConfigurationsAreRefusedAndTheHostLivesOn) {
  const std::string refused = "feedStereoImage(): the configuration was refused when the handle was created: "
                              "nothing is taken";
  const std::string noMaps = "feedStereoImage(): rectify map or camera image size not exists";
  struct Case {
    HostConfig config;
    std::string path, message, feedMessage;
  };
  const std::string big((1 << 20) + 1, '#');
  const Case cases[] = {
      {hostConfig(), "{dir}", "initFromYaml(): configuration file {dir} is a directory", noMaps},
      {hostConfig().set("calib_path", "sub"), "",
       "initCameraFromCalibYaml(): calibration file {dir}/sub is a directory", noMaps},
      {hostConfig().set("calib_path", "big.yaml"), "",
       "initCameraFromCalibYaml(): calibration file {dir}/big.yaml is larger than 1 MB (1048577 bytes)", noMaps},
      {hostConfig().set("calib_path", "empty.yaml"), "",
       "initCameraFromCalibYaml(): cam num in calib file is not correct: 1", noMaps},
      {hostConfig().set("thread_num", "two"), "", "initFromYaml(): thread_num: 'two' is not a number, or is out of range",
       refused},
      {hostConfig().set("stereo_img_scaling", "0"), "", "initFromYaml(): stereo_img_scaling 0 must be above 0 and at most 16",
       refused},
      {hostConfig().set("stereo_img_scaling", "-1"), "",
       "initFromYaml(): stereo_img_scaling -1 must be above 0 and at most 16", refused},
      {hostConfig().set("stereo_img_scaling", "nan"), "",
       "initFromYaml(): stereo_img_scaling nan must be above 0 and at most 16", refused},
      {hostConfig().set("stereo_img_scaling", "1e30"), "",
       "initFromYaml(): stereo_img_scaling 1e+30 must be above 0 and at most 16", refused},
      {hostConfig().set("aux_cam_scaling", "0"), "", "initFromYaml(): aux_cam_scaling 0 must be above 0 and at most 16",
       refused},
      {hostConfig().set("input_stereo_width", "0"), "",
       "initFromYaml(): input_stereo_width x input_stereo_height 0x200 must be above zero", refused},
      {hostConfig().set("input_stereo_width", "16").set("input_stereo_height", "10"), "",
       "initFromYaml(): the views are 16x10 pixels when matched (input_stereo_width x input_stereo_height at "
       "stereo_img_scaling): the matcher needs at least 27x11 for its 16 disparities and 11-pixel block",
       refused},
      {hostConfig().set("stereo_img_scaling", "0.05"), "",
       "initFromYaml(): the views are 16x10 pixels when matched (input_stereo_width x input_stereo_height at "
       "stereo_img_scaling): the matcher needs at least 27x11 for its 16 disparities and 11-pixel block",
       refused},
      {hostConfig().set("thread_num", "-1"), "", "initFromYaml(): thread_num -1 must be 0 to 64", refused},
      {hostConfig().set("thread_num", "65"), "", "initFromYaml(): thread_num 65 must be 0 to 64", refused},
      {hostConfig().set("align_cam_id", "-2"), "",
       "initFromYaml(): align_cam_id -2 must be -1 (off), 0 or 1 (a stereo camera) or 2 (the colour camera)", refused},
      {hostConfig().set("align_cam_id", "7"), "",
       "initFromYaml(): align_cam_id 7 must be -1 (off), 0 or 1 (a stereo camera) or 2 (the colour camera)", refused},
      {hostConfig().set("align_cam_id", "2"), "",
       "initFromYaml(): align_cam_id 2 names a camera the calibration does not have (it holds 2)", noMaps},
      {hostConfig().set("input_stereo_width", "1400").set("input_stereo_height", "900"), "",
       "initFromYaml(): input_stereo_width x input_stereo_height at stereo_img_scaling gives 1400x900 per view, "
       "over the limit of 6144000 bytes for both views in 3 channels",
       refused},
  };
  cv::Mat pixels = stackedFrame(1);
  for (const Case& c : cases) {
    TempDir dir;
    const auto expand = [&](std::string text) {
      for (auto at = text.find("{dir}"); at != std::string::npos; at = text.find("{dir}")) text.replace(at, 5, dir.path());
      return text;
    };
    SCOPED_TRACE(expand(c.message));
    std::filesystem::create_directory(dir.file("sub"));
    LumoTest::writeText(dir.file("big.yaml"), big);
    LumoTest::writeText(dir.file("empty.yaml"), "# no cameras\n");
    const std::string config = writeHost(dir, c.config);
    void* handle = nullptr;
    const std::string printed = createQuietly(&handle, c.path.empty() ? config : expand(c.path));
    ASSERT_NE(handle, nullptr);
    const std::size_t at = printed.find("[ ERROR] ") + 9;
    EXPECT_EQ(printed.substr(at, printed.find('\n', at) - at), expand(c.message)) << printed;
    LumoImage frame = LumoTest::wrapStacked(pixels, 1);
    const std::string fed =
        LumoTest::captureStdout([&] { EXPECT_EQ(KORV_LUMO_D_FeedStereoImage(handle, &frame), 1); });
    EXPECT_NE(fed.find("[ ERROR] " + c.feedMessage + "\n"), std::string::npos) << fed;
    EXPECT_EQ(KORV_LUMO_D_DestroyHandle(handle), 0);
  }
}

// Frames the pipeline cannot hold are refused at the feed, and the handle
// goes on producing depth for good frames.
TEST(BadInput, UnusableFramesAreRefusedAtTheFeed) {
  TempDir dir;
  void* handle = nullptr;
  createQuietly(&handle, writeHost(dir, hostConfig().set("align_cam_id", "2").set("input_aux_cam_width", "640")
                                                .set("input_aux_cam_height", "360")));
  cv::Mat grey = stackedFrame(1), colour(360, 640, CV_8UC4, cv::Scalar::all(9));
  LumoImage stamped0 = LumoTest::wrapStacked(grey, 0), noWidth = LumoTest::wrapStacked(colour, 5),
            fourChannels = noWidth, huge = noWidth;
  noWidth.width = 0;
  huge.width = 70000, huge.channels = 3;  // never read: refused first
  const std::string printed = LumoTest::captureStdout([&] {
    EXPECT_EQ(KORV_LUMO_D_FeedStereoImage(handle, &stamped0), 1);
    EXPECT_EQ(KORV_LUMO_D_FeedRGBImage(handle, &noWidth), 1);
    EXPECT_EQ(KORV_LUMO_D_FeedRGBImage(handle, &fourChannels), 1);
    EXPECT_EQ(KORV_LUMO_D_FeedRGBImage(handle, &huge), 1);
  });
  for (const std::string line :
       {"feedStereoImage(): frame time stamp 0 is reserved for 'no frame yet': give frames a non-zero time stamp",
        "feedRGBImage(): colour frame of 0x360 pixels with 4 channels: it must have 1 to 65535 pixels a side and 1 or 3 channels",
        "feedRGBImage(): colour frame of 640x360 pixels with 4 channels: it must have 1 to 65535 pixels a side and 1 or 3 channels",
        "feedRGBImage(): colour frame of 70000x360 pixels with 3 channels: it must have 1 to 65535 pixels a side and 1 or 3 channels"}) {
    EXPECT_NE(printed.find("[ ERROR] " + line + "\n"), std::string::npos) << printed;
  }
  EXPECT_EQ(KORV_LUMO_D_DestroyHandle(handle), 0);
}

// A required key missing from either file ends the process. A near miss of the
// deliberately misspelt "cloest_dist" is still a missing key.
TEST(BadInputDeathTest, MissingRequiredKeysEndTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  TempDir dir;
  const std::string path = writeHost(dir, hostConfig().remove("cloest_dist").set("closest_dist", "0.1"));
  const auto create = [&] {
    void* handle = nullptr;
    KORV_LUMO_D_CreateHandleWithConfig(&handle, path.c_str());
  };
  EXPECT_EXIT(create(), testing::ExitedWithCode(1), R"(\[CheckParseYaml\] Missing required key: cloest_dist)");

  writeHost(dir, hostConfig());
  std::string text = LumoSynth::calibrationYaml(LumoSynth::pinholeRig(kWidth, kHeight));
  text.replace(text.find("resolution", text.find("cam1")), 10, "resolutiom");
  LumoTest::writeText(dir.file("calib.yaml"), text);
  EXPECT_EXIT(create(), testing::ExitedWithCode(1), R"(\[CheckParseYaml\] Missing required key: resolution)");
}

// A host short of address space gets 1 and a handle that refuses everything,
// instead of an exception through the C interface.
TEST(BadInputDeathTest, NoMemoryForTheBuffersIsRefused) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer's shadow memory does not fit an address-space limit";
#endif
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  TempDir dir;
  const std::string path = writeHost(dir, hostConfig());
  const auto shortOfMemory = [&] {
    std::fflush(stdout);
    dup2(STDERR_FILENO, STDOUT_FILENO);
    long used = 0;  // kB of address space in use now
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
      if (line.rfind("VmSize:", 0) == 0) used = std::stol(line.substr(7));
    }
    const rlimit limit{static_cast<rlim_t>(used + 400 * 1024) * 1024, RLIM_INFINITY};  // 400 MB more, not 1.2 GB
    setrlimit(RLIMIT_AS, &limit);
    void* handle = nullptr;
    cv::Mat pixels = stackedFrame(1);
    LumoImage frame = LumoTest::wrapStacked(pixels, 1);
    const bool refused = KORV_LUMO_D_CreateHandleWithConfig(&handle, path.c_str()) == 1 && handle != nullptr &&
                         KORV_LUMO_D_FeedStereoImage(handle, &frame) == 1 && KORV_LUMO_D_DestroyHandle(handle) == 0;
    std::exit(refused ? 0 : 1);
  };
  EXPECT_EXIT(shortOfMemory(), testing::ExitedWithCode(0),
              R"(\[ ERROR\] Initialize\(\): not enough memory for the pipeline's buffers)");
}

}  // namespace
