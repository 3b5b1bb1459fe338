// What a host gets for bad input through the exported functions: calls
// without what they need, hostile configuration and calibration files, frames
// the pipeline cannot use, a list for a number and missing required keys.
// Faulty calibration values are in CalibrationFilesTest.
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "lumetra_depth.h"
#include "support/CaptureOutput.h"
#include "support/FeedAndWait.h"
#include "support/HostConfig.h"
#include "support/ShiftedPair.h"
#include "support/TempDir.h"
#include "synth/SyntheticStereo.h"

namespace {

using LumoTest::DepthBuffer;
using LumoTest::Handle;
using LumoTest::HostConfig;
using LumoTest::TempDir;

constexpr int kWidth = 320, kHeight = 200;

// A configuration of the rendered rig's size, with its calibration beside it.
HostConfig hostConfig() {
  return HostConfig().set("input_stereo_width", std::to_string(kWidth)).set("input_stereo_height", std::to_string(kHeight));
}

std::string writeHost(const TempDir& dir, const HostConfig& config, const std::string& name = "config.yaml") {
  LumoSynth::writeCalibrationYaml(dir.file("calib.yaml"), LumoSynth::pinholeRig(kWidth, kHeight));
  config.write(dir.file(name));
  return dir.file(name);
}

cv::Mat stackedFrame(int channels) { return cv::Mat(2 * kHeight, kWidth, CV_8UC(channels), cv::Scalar::all(128)); }

// Each call answers 1 and prints its one error line, or nothing where there
// is nothing yet to hand out; the handles go on and are destroyed as usual.
TEST(BadInput, CallsWithoutWhatTheyNeedAreRefusedWithTheirLine) {
  TempDir dir;
  Handle unconfigured("/nonexistent/config.yaml"), plain(writeHost(dir, hostConfig())),
      disabled(writeHost(dir, hostConfig().set("enable_module", "0"), "disabled.yaml")),
      aligned(writeHost(dir, hostConfig().set("align_cam_id", "2").set("input_aux_cam_width", "640")
                                  .set("input_aux_cam_height", "360"), "aligned.yaml"));
  EXPECT_EQ(unconfigured.status, 0);
  EXPECT_NE(unconfigured.printed.find("[ ERROR] initFromYaml(): file not exits: /nonexistent/config.yaml\n"),
            std::string::npos) << unconfigured.printed;
  cv::Mat grey = stackedFrame(1), view = grey.rowRange(0, kHeight).clone(), colour(360, 640, CV_8UC4, cv::Scalar::all(9));
  LumoImage frame = LumoTest::wrapStacked(grey, 6), single = LumoTest::wrapStacked(view, 5), empty = frame,
            stamped0 = LumoTest::wrapStacked(grey, 0), noWidth = LumoTest::wrapStacked(colour, 5),
            fourChannels = noWidth, huge = noWidth, noBuffer{}, rectified = frame;
  empty.data = nullptr;
  noWidth.width = 0;
  huge.width = 70000, huge.channels = 3;  // never read: refused first
  LumoPose pose{};
  DepthBuffer depth;
  std::vector<float> points(30);
  LumoMap map{0, 0, 0, 0, 0, points.data()};
  const int pixel[2] = {1, 1};
  int navra = 0;
  float xyz[3] = {7.0f, 7.0f, 7.0f};
  const std::string colourFrame = "feedRGBImage(): colour frame of ";
  const std::string colourRule = " pixels with 4 channels: it must have 1 to 65535 pixels a side and 1 or 3 channels";
  const std::vector<std::pair<std::function<int()>, std::string>> cases = {
      {[&] { return KORV_LUMO_D_FeedStereoImage(unconfigured, &frame); },
       "feedStereoImage(): rectify map or camera image size not exists"},
      {[&] { return KORV_LUMO_D_FeedRGBImage(unconfigured, &frame); },
       "feedRGBImage(): rectify map or camera image size not exists"},
      {[&] { return KORV_LUMO_D_GetPointcloud(unconfigured, &map, 10); }, "getPointcloud(): point cloud data is empty"},
      {[&] { return KorvLumetra::KORV_LUMO_D_GetCoordinates(unconfigured, pixel, 1, &depth.record, xyz); }, ""},
      {[&] { return KorvLumetra::KORV_LUMO_D_GetCoordinates(plain, nullptr, 1, &depth.record, xyz); }, ""},
      {[&] { return KorvLumetra::KORV_LUMO_D_GetCoordinates(plain, pixel, 1, nullptr, xyz); }, ""},
      {[&] { return KORV_LUMO_D_BindNavra(unconfigured, nullptr); }, ""},
      // This process has no tracking library to ask.
      {[&] { return KORV_LUMO_D_BindNavra(unconfigured, &navra); },
       "KORV_LUMO_D_BindNavra(): Failed to get calib from Navra handle"},
      {[&] { return KORV_LUMO_D_FeedStereoImage(plain, &single); },
       "feedStereoImage(): input image size does not match config params"},
      {[&] { return KORV_LUMO_D_FeedStereoImage(plain, &stamped0); },
       "feedStereoImage(): frame time stamp 0 is reserved for 'no frame yet': give frames a non-zero time stamp"},
      // Nothing produced or rectified yet.
      {[&] { return KORV_LUMO_D_GetDepthImage(plain, &depth.record, nullptr, nullptr); }, ""},
      {[&] { return KORV_LUMO_D_GetRectifiedImage(plain, &rectified); }, ""},
      // Records without pixels are refused, not dereferenced.
      {[&] { return KORV_LUMO_D_FeedStereoImage(plain, &empty); }, "feedStereoImage(): allocate memory before calling"},
      {[&] { return KORV_LUMO_D_FeedRGBImage(plain, &empty); }, "feedRGBImage(): allocate memory before calling"},
      {[&] { return KORV_LUMO_D_FeedPose(plain, nullptr); }, "feedPose(): allocate memory before calling"},
      {[&] { return KORV_LUMO_D_GetDepthImage(plain, nullptr, nullptr, nullptr); },
       "getDepthImage(): allocate memory before calling"},
      {[&] { return KORV_LUMO_D_GetRectifiedImage(plain, &noBuffer); }, "getRectifyImage(): allocate memory before calling"},
      {[&] { return KORV_LUMO_D_GetRectifyInfo(plain, nullptr); }, "getRectifyInfo(): allocate memory before calling"},
      {[&] { return KORV_LUMO_D_FeedStereoImage(disabled, &frame); }, "feedStereoImage(): depth module is not enabled"},
      {[&] { return KORV_LUMO_D_FeedRGBImage(disabled, &frame); }, "feedRGBImage(): depth module is not enabled"},
      {[&] { return KORV_LUMO_D_FeedPose(disabled, &pose); }, "feedPose(): depth module is not enabled"},
      {[&] { return KORV_LUMO_D_FeedRGBImage(aligned, &noWidth); }, colourFrame + "0x360" + colourRule},
      {[&] { return KORV_LUMO_D_FeedRGBImage(aligned, &fourChannels); }, colourFrame + "640x360" + colourRule},
      {[&] { return KORV_LUMO_D_FeedRGBImage(aligned, &huge); },
       colourFrame + "70000x360 pixels with 3 channels: it must have 1 to 65535 pixels a side and 1 or 3 channels"},
  };
  for (const auto& [call, line] : cases) {
    SCOPED_TRACE(line);
    int status = -1;
    const std::string printed = LumoTest::captureStdout([&] { status = call(); });
    EXPECT_EQ(status, 1);
    const std::size_t at = printed.find("[ ERROR] ");
    EXPECT_EQ(line.empty() ? printed : printed.substr(at == std::string::npos ? 0 : at),
              line.empty() ? "" : "[ ERROR] " + line + "\n");
  }
  EXPECT_EQ(map.num, 0);
  EXPECT_EQ(xyz[0], 7.0f);  // refused: nothing written

  // A null path throws once the handle exists, and leaves it to the host.
  void* handle = nullptr;
  EXPECT_THROW(KORV_LUMO_D_CreateHandleWithConfig(&handle, nullptr), std::logic_error);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(KORV_LUMO_D_DestroyHandle(handle), 0);

  // Without engines a synchronous feed polls 2000 times, at least 1 ms apart, then gives up.
  Handle idle(writeHost(dir, hostConfig().set("thread_num", "0"), "idle.yaml"));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(KORV_LUMO_D_FeedStereoImage(idle, &frame), 1);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2000));
}

// A list for a number reads as its zero, with a message on standard error:
// here synchronous mode. A channel count other than 1 or 3 passes the feed, but
// the preprocessing drops the frame with a message, so the synchronous feed
// gives up; a good frame after it gets its depth.
TEST(BadInput, AListForANumberAndAnUnusableChannelCount) {
  TempDir dir;
  const std::string path = writeHost(dir, hostConfig().set("async_mode", "[1, 2]"));
  std::unique_ptr<Handle> handle;
  const std::string warned = LumoTest::captureStderr([&] { handle = std::make_unique<Handle>(path); });
  EXPECT_NE(warned.find("[YamlNode] Expected scalar for int conversion"), std::string::npos) << warned;
  cv::Mat twoChannels = stackedFrame(2), grey = stackedFrame(1);
  LumoImage bad = LumoTest::wrapStacked(twoChannels, 3), good = LumoTest::wrapStacked(grey, 8);
  DepthBuffer depth;
  const std::string printed =
      LumoTest::captureStdout([&] { EXPECT_EQ(KORV_LUMO_D_FeedStereoImage(*handle, &bad), 1); });
  EXPECT_NE(printed.find("preprocessLoop(): stereo depth: unrecognized image channel 2\n"), std::string::npos)
      << printed;
  EXPECT_EQ(KORV_LUMO_D_GetDepthImage(*handle, &depth.record, nullptr, nullptr), 1);
  ASSERT_EQ(LumoTest::feedAndWait(*handle, &good), 0);
  ASSERT_EQ(KORV_LUMO_D_GetDepthImage(*handle, &depth.record, nullptr, nullptr), 0);
  EXPECT_EQ(depth.record.timestamp, 8u);
}

// The error line of a refused configuration names the setting and the reason;
// the handle then refuses frames and is destroyed as usual. `path` is the file
// given to creation, with {dir} for the scratch directory.
TEST(BadInput, HostileConfigurationsAreRefusedAndTheHostLivesOn) {
  const std::string noMaps = "feedStereoImage(): rectify map or camera image size not exists";
  const std::string scaling = " must be above 0 and at most 16";
  const std::string tooSmall = "initFromYaml(): the views are 16x10 pixels when matched (input_stereo_width x "
                               "input_stereo_height at stereo_img_scaling): the matcher needs at least 27x11 for its "
                               "16 disparities and 11-pixel block";
  const std::string alignIds = " must be -1 (off), 0 or 1 (a stereo camera) or 2 (the colour camera)";
  struct Case {
    std::vector<std::pair<std::string, std::string>> keys;
    std::string message, feedMessage = "feedStereoImage(): the configuration was refused when the handle was "
                                       "created: nothing is taken";
    std::string path = "";
  };
  const Case cases[] = {
      {{}, "initFromYaml(): configuration file {dir} is a directory", noMaps, "{dir}"},
      {{{"calib_path", "sub"}}, "initCameraFromCalibYaml(): calibration file {dir}/sub is a directory", noMaps},
      {{{"calib_path", "big.yaml"}},
       "initCameraFromCalibYaml(): calibration file {dir}/big.yaml is larger than 1 MB (1048577 bytes)", noMaps},
      {{{"calib_path", "empty.yaml"}}, "initCameraFromCalibYaml(): cam num in calib file is not correct: 1", noMaps},
      {{{"thread_num", "two"}}, "initFromYaml(): thread_num: 'two' is not a number, or is out of range"},
      {{{"stereo_img_scaling", "0"}}, "initFromYaml(): stereo_img_scaling 0" + scaling},
      {{{"stereo_img_scaling", "-1"}}, "initFromYaml(): stereo_img_scaling -1" + scaling},
      {{{"stereo_img_scaling", "nan"}}, "initFromYaml(): stereo_img_scaling nan" + scaling},
      {{{"stereo_img_scaling", "1e30"}}, "initFromYaml(): stereo_img_scaling 1e+30" + scaling},
      {{{"aux_cam_scaling", "0"}}, "initFromYaml(): aux_cam_scaling 0" + scaling},
      {{{"input_stereo_width", "0"}},
       "initFromYaml(): input_stereo_width x input_stereo_height 0x200 must be above zero"},
      {{{"input_stereo_width", "16"}, {"input_stereo_height", "10"}}, tooSmall},
      {{{"stereo_img_scaling", "0.05"}}, tooSmall},
      {{{"thread_num", "-1"}}, "initFromYaml(): thread_num -1 must be 0 to 64"},
      {{{"thread_num", "65"}}, "initFromYaml(): thread_num 65 must be 0 to 64"},
      {{{"align_cam_id", "-2"}}, "initFromYaml(): align_cam_id -2" + alignIds},
      {{{"align_cam_id", "7"}}, "initFromYaml(): align_cam_id 7" + alignIds},
      {{{"align_cam_id", "2"}},
       "initFromYaml(): align_cam_id 2 names a camera the calibration does not have (it holds 2)", noMaps},
      {{{"input_stereo_width", "1400"}, {"input_stereo_height", "900"}},
       "initFromYaml(): input_stereo_width x input_stereo_height at stereo_img_scaling gives 1400x900 per view, "
       "over the limit of 6144000 bytes for both views in 3 channels"},
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
    LumoTest::writeText(dir.file("big.yaml"), std::string((1 << 20) + 1, '#'));
    LumoTest::writeText(dir.file("empty.yaml"), "# no cameras\n");
    HostConfig config = hostConfig();
    for (const auto& [key, value] : c.keys) config.set(key, value);
    const std::string path = writeHost(dir, config);
    Handle handle(c.path.empty() ? path : expand(c.path));
    ASSERT_NE(handle.handle, nullptr);
    const std::size_t at = handle.printed.find("[ ERROR] ") + 9;
    EXPECT_EQ(handle.printed.substr(at, handle.printed.find('\n', at) - at), expand(c.message)) << handle.printed;
    LumoImage frame = LumoTest::wrapStacked(pixels, 1);
    const std::string fed = LumoTest::captureStdout([&] { EXPECT_EQ(KORV_LUMO_D_FeedStereoImage(handle, &frame), 1); });
    EXPECT_NE(fed.find("[ ERROR] " + c.feedMessage + "\n"), std::string::npos) << fed;
  }
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
