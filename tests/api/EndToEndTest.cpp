// A host program's view of the library: only the public header, the exported
// functions and files on disk. Frames come from the synthetic renderer.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "lumetra_depth.h"
#include "support/CaptureOutput.h"
#include "support/HostConfig.h"
#include "support/ShiftedPair.h"
#include "support/TempDir.h"
#include "synth/SyntheticStereo.h"

namespace {

using LumoTest::HostConfig;
using LumoTest::TempDir;

// Rendered once per size and shared by the tests.
struct RenderedScene {
  LumoSynth::Rig rig;
  mutable cv::Mat stacked;  // BGR, left view on top
  mutable cv::Mat grey;
};

const RenderedScene& renderedScene(int width, int height) {
  static std::vector<std::unique_ptr<RenderedScene>> cache;
  for (const auto& scene : cache) {
    if (scene->rig.cameras[0].width == width && scene->rig.cameras[0].height == height) return *scene;
  }
  auto scene = std::make_unique<RenderedScene>();
  scene->rig = LumoSynth::pinholeRig(width, height);
  const LumoSynth::Renderer renderer = LumoSynth::makeRenderer(scene->rig, 2);
  scene->stacked = LumoSynth::renderStereo(renderer, LumoSynth::defaultScene(), 0);
  cv::cvtColor(scene->stacked, scene->grey, cv::COLOR_BGR2GRAY);
  cache.push_back(std::move(scene));
  return *cache.back();
}

LumoImage frameOf(cv::Mat& image, uint64_t timestamp) { return LumoTest::wrapStacked(image, timestamp); }

// A handle configured from files in a scratch directory.
class Host {
 public:
  Host(const TempDir& dir, const HostConfig& config, const LumoSynth::Rig& rig) {
    LumoSynth::writeCalibrationYaml(dir.file("calib.yaml"), rig);
    config.write(dir.file("config.yaml"));
    printed_ = LumoTest::captureStdout(
        [&] { status_ = KORV_LUMO_D_CreateHandleWithConfig(&handle_, dir.file("config.yaml").c_str()); });
  }
  ~Host() { KORV_LUMO_D_DestroyHandle(handle_); }
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  void* handle() const { return handle_; }
  int status() const { return status_; }
  const std::string& printed() const { return printed_; }

  // Polls until the depth of `timestamp` is out (asynchronous mode).
  bool waitForDepth(uint64_t timestamp, LumoDepthImage& depth) const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
      if (KORV_LUMO_D_GetDepthImage(handle_, &depth, nullptr, nullptr) == 0 && depth.timestamp == timestamp) {
        return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return false;
  }

 private:
  void* handle_ = nullptr;
  int status_ = -1;
  std::string printed_;
};

struct DepthBuffer {
  explicit DepthBuffer(std::size_t pixels) : data(pixels, -1.0f) { record.data = data.data(); }
  std::vector<float> data;
  LumoDepthImage record{};
};

TEST(EndToEnd, DepthOfTheRenderedSceneMatchesGroundTruth) {
  const RenderedScene& scene = renderedScene(640, 400);
  TempDir dir;
  Host host(dir, HostConfig(), scene.rig);
  ASSERT_EQ(host.status(), 0);

  LumoImage frame = frameOf(scene.grey, 1000);
  frame.tag0 = 11;
  frame.tag1 = 22;
  frame.format = 7;
  ASSERT_EQ(KORV_LUMO_D_FeedStereoImage(host.handle(), &frame), 0);  // synchronous
  DepthBuffer depth(640 * 400), disparity(640 * 400);
  ASSERT_EQ(KORV_LUMO_D_GetDepthImage(host.handle(), &depth.record, &disparity.record, nullptr), 0);
  EXPECT_EQ(depth.record.timestamp, 1000u);
  EXPECT_EQ(depth.record.tag0, 11u);
  EXPECT_EQ(depth.record.tag1, 22u);
  EXPECT_EQ(depth.record.format, 7u);
  EXPECT_EQ(depth.record.width, 640u);
  EXPECT_EQ(depth.record.height, 400u);
  EXPECT_EQ(depth.record.size, 640u * 400u * 4u);
  EXPECT_EQ(disparity.record.timestamp, 1000u);

  // Ground truth in the rectified left view, the way the library rectifies.
  const LumoSynth::Rectification rect = LumoSynth::rectification(scene.rig, 1.0);
  const cv::Mat truth = LumoSynth::rectifiedDepth(rect, LumoSynth::defaultScene(), 0);
  const double focalBaseline = rect.P1.at<double>(0, 0) * rect.baseline;
  const int searchRange = 64;  // a tenth of the width
  std::vector<double> relative;
  int visible = 0, covered = 0;
  for (int v = 8; v < 400 - 8; ++v) {
    for (int u = searchRange + 8; u < 640 - 8; ++u) {
      const float z = truth.at<float>(v, u);
      if (z <= 0.0f || focalBaseline / z >= searchRange - 1) continue;  // beyond the search range
      ++visible;
      const float d = depth.data[v * 640 + u];
      if (d <= 0.0f) continue;
      ++covered;
      relative.push_back(std::fabs(d - z) / z);

      // Depth is f * B / disparity of the same pixel.
      EXPECT_NEAR(d * disparity.data[v * 640 + u], focalBaseline, 1e-3 * focalBaseline);
    }
  }
  ASSERT_GT(visible, 100000);
  std::nth_element(relative.begin(), relative.begin() + relative.size() / 2, relative.end());
  const double median = relative[relative.size() / 2];
  const double coverage = static_cast<double>(covered) / visible;
  std::printf("synthetic 640x400: median relative depth error %.4f%%, coverage %.1f%% of %d visible pixels\n",
              100.0 * median, 100.0 * coverage, visible);
  EXPECT_LT(median, 0.02);
  EXPECT_GT(coverage, 0.80);

  // The rectified pair: stacked, 3 channels, format always 0.
  std::vector<uint8_t> pixels(640 * 800 * 3);
  LumoImage rectified{};
  rectified.data = pixels.data();
  ASSERT_EQ(KORV_LUMO_D_GetRectifiedImage(host.handle(), &rectified), 0);
  EXPECT_EQ(rectified.width, 640u);
  EXPECT_EQ(rectified.height, 800u);
  EXPECT_EQ(rectified.channels, 3u);
  EXPECT_EQ(rectified.format, 0u);
  EXPECT_EQ(rectified.timestamp, 1000u);
  EXPECT_EQ(rectified.tag0, 11u);

  LumoRectifyInfo info{};
  EXPECT_EQ(KORV_LUMO_D_GetRectifyInfo(host.handle(), &info), 0);
  EXPECT_FLOAT_EQ(info.P1[0], static_cast<float>(rect.P1.at<double>(0, 0)));
  EXPECT_FLOAT_EQ(info.P2[3], static_cast<float>(rect.P2.at<double>(0, 3)));
}

struct ModeCase {
  int channels;
  int asyncMode;
  int threads;
};

class EndToEndModes : public testing::TestWithParam<ModeCase> {};

TEST_P(EndToEndModes, EveryFrameGetsItsDepth) {
  const ModeCase mode = GetParam();
  const RenderedScene& scene = renderedScene(640, 400);
  TempDir dir;
  Host host(dir,
            HostConfig()
                .set("async_mode", std::to_string(mode.asyncMode))
                .set("thread_num", std::to_string(mode.threads))
                .set("enable_filter", "true"),
            scene.rig);
  cv::Mat& image = mode.channels == 1 ? scene.grey : scene.stacked;
  DepthBuffer depth(640 * 400);
  for (uint64_t t = 1; t <= 4; ++t) {
    LumoImage frame = frameOf(image, t * 100);
    frame.tag0 = static_cast<uint32_t>(t);
    ASSERT_EQ(KORV_LUMO_D_FeedStereoImage(host.handle(), &frame), 0);
    ASSERT_TRUE(host.waitForDepth(t * 100, depth.record)) << "frame " << t;
    EXPECT_EQ(depth.record.tag0, t);
  }
  // The same scene in both channel layouts gives depth almost everywhere it is valid.
  int valid = 0;
  for (float d : depth.data) valid += d > 0.0f;
  EXPECT_GT(valid, 640 * 400 / 2);
}

INSTANTIATE_TEST_SUITE_P(Host, EndToEndModes,
                         testing::Values(ModeCase{1, 0, 1}, ModeCase{3, 0, 1}, ModeCase{1, 1, 1}, ModeCase{3, 1, 2}),
                         [](const testing::TestParamInfo<ModeCase>& info) {
                           return std::string(info.param.channels == 1 ? "Grey" : "Colour") +
                                  (info.param.asyncMode ? "Async" : "Sync") + std::to_string(info.param.threads) +
                                  "Engines";
                         });

TEST(EndToEnd, ScaledInputIsRestoredOnlyWhenAsked) {
  const RenderedScene& scene = renderedScene(1280, 800);
  for (int restore : {0, 1}) {
    TempDir dir;
    Host host(dir,
              HostConfig()
                  .set("input_stereo_width", "1280")
                  .set("input_stereo_height", "800")
                  .set("stereo_img_scaling", "0.5")
                  .set("restore_depth_dim", std::to_string(restore)),
              scene.rig);
    LumoImage frame = frameOf(scene.grey, 77);
    ASSERT_EQ(KORV_LUMO_D_FeedStereoImage(host.handle(), &frame), 0);
    DepthBuffer depth(1280 * 800), disparity(1280 * 800);
    ASSERT_EQ(KORV_LUMO_D_GetDepthImage(host.handle(), &depth.record, &disparity.record, nullptr), 0);
    EXPECT_EQ(depth.record.width, restore ? 1280u : 640u);
    EXPECT_EQ(depth.record.height, restore ? 800u : 400u);
    EXPECT_EQ(depth.record.size, depth.record.width * depth.record.height * 4);
    EXPECT_EQ(disparity.record.width, 640u);  // disparity stays at the working size

    // Restored depth repeats the working depth (nearest neighbour), never a
    // blend: each output pixel is f * B / d of its source pixel.
    const LumoSynth::Rectification working = LumoSynth::rectification(scene.rig, 0.5);
    const double focalBaseline = working.P1.at<double>(0, 0) * working.baseline;
    int checked = 0;
    for (uint32_t v = 0; v < depth.record.height; v += 7) {
      for (uint32_t u = 0; u < depth.record.width; u += 5) {
        const float d = depth.data[v * depth.record.width + u];
        const float disp = restore ? disparity.data[(v / 2) * 640 + u / 2] : disparity.data[v * 640 + u];
        if (d > 0.0f) {
          EXPECT_NEAR(d * disp, focalBaseline, 1e-4 * focalBaseline) << u << "," << v;
          ++checked;
        } else {
          EXPECT_TRUE(disp <= 0.01f || focalBaseline / disp > 12.0) << u << "," << v;
        }
      }
    }
    EXPECT_GT(checked, 1000);

    LumoRectifyInfo info{};
    ASSERT_EQ(KORV_LUMO_D_GetRectifyInfo(host.handle(), &info), 0);
    const LumoSynth::Rectification rect = LumoSynth::rectification(scene.rig, 0.5);
    const float p00 = static_cast<float>(rect.P1.at<double>(0, 0));
    EXPECT_FLOAT_EQ(info.P1[0], restore ? p00 * (1.0f / 0.5f) : p00);
  }
}

TEST(EndToEnd, RefusalsAndTheirMessages) {
  const RenderedScene& scene = renderedScene(640, 400);
  TempDir dir;
  Host host(dir, HostConfig(), scene.rig);

  // A single view instead of the stacked pair.
  cv::Mat half = scene.grey(cv::Rect(0, 0, 640, 400)).clone();
  LumoImage wrong = frameOf(half, 5);
  int status = 0;
  std::string printed = LumoTest::captureStdout([&] { status = KORV_LUMO_D_FeedStereoImage(host.handle(), &wrong); });
  EXPECT_EQ(status, 1);
  EXPECT_NE(printed.find("[ ERROR] feedStereoImage(): input image size does not match config params\n"),
            std::string::npos)
      << printed;

  // Null records and records without pixels are refused, not dereferenced.
  LumoImage empty = frameOf(scene.grey, 6);
  empty.data = nullptr;
  printed = LumoTest::captureStdout([&] {
    EXPECT_EQ(KORV_LUMO_D_FeedStereoImage(host.handle(), &empty), 1);
    EXPECT_EQ(KORV_LUMO_D_FeedStereoImage(host.handle(), nullptr), 1);
    EXPECT_EQ(KORV_LUMO_D_FeedRGBImage(host.handle(), &empty), 1);
    EXPECT_EQ(KORV_LUMO_D_FeedRGBImage(host.handle(), nullptr), 1);
    EXPECT_EQ(KORV_LUMO_D_FeedPose(host.handle(), nullptr), 1);
  });
  const auto count = [&printed](const std::string& line) {
    std::size_t n = 0;
    for (std::size_t at = printed.find(line); at != std::string::npos; at = printed.find(line, at + 1)) ++n;
    return n;
  };
  EXPECT_EQ(count("feedStereoImage(): allocate memory before calling\n"), 2u) << printed;
  EXPECT_EQ(count("feedRGBImage(): allocate memory before calling\n"), 2u) << printed;
  EXPECT_EQ(count("feedPose(): allocate memory before calling\n"), 1u) << printed;

  DepthBuffer depth(640 * 400);
  printed = LumoTest::captureStdout(
      [&] { status = KORV_LUMO_D_GetDepthImage(host.handle(), nullptr, nullptr, nullptr); });
  EXPECT_EQ(status, 1);
  EXPECT_NE(printed.find("getDepthImage(): allocate memory before calling"), std::string::npos);
  EXPECT_EQ(KORV_LUMO_D_GetDepthImage(host.handle(), &depth.record, nullptr, nullptr), 1);  // nothing yet
  LumoImage rectified{};
  printed = LumoTest::captureStdout([&] { status = KORV_LUMO_D_GetRectifiedImage(host.handle(), &rectified); });
  EXPECT_EQ(status, 1);
  EXPECT_NE(printed.find("getRectifyImage(): allocate memory before calling"), std::string::npos);
  LumoMap map{};
  printed = LumoTest::captureStdout([&] { status = KORV_LUMO_D_GetPointcloud(host.handle(), &map, 10); });
  EXPECT_EQ(status, 1);
  EXPECT_NE(printed.find("getPointcloud(): allocate memory before calling"), std::string::npos);
  printed = LumoTest::captureStdout([&] { status = KORV_LUMO_D_GetRectifyInfo(host.handle(), nullptr); });
  EXPECT_EQ(status, 1);
  EXPECT_NE(printed.find("getRectifyInfo(): allocate memory before calling"), std::string::npos);
}

TEST(EndToEnd, DisabledModuleRefusesFeeds) {
  const RenderedScene& scene = renderedScene(640, 400);
  TempDir dir;
  Host host(dir, HostConfig().set("enable_module", "0"), scene.rig);
  LumoImage frame = frameOf(scene.grey, 1);
  LumoPose pose{};
  int stereo = 0, colour = 0, poses = 0;
  const std::string printed = LumoTest::captureStdout([&] {
    stereo = KORV_LUMO_D_FeedStereoImage(host.handle(), &frame);
    colour = KORV_LUMO_D_FeedRGBImage(host.handle(), &frame);
    poses = KORV_LUMO_D_FeedPose(host.handle(), &pose);
  });
  EXPECT_EQ(stereo, 1);
  EXPECT_EQ(colour, 1);
  EXPECT_EQ(poses, 1);
  for (const char* function : {"feedStereoImage", "feedRGBImage", "feedPose"}) {
    EXPECT_NE(printed.find(std::string(function) + "(): depth module is not enabled\n"), std::string::npos)
        << function << "\n"
        << printed;
  }
}

TEST(EndToEnd, SynchronousFeedGivesUpAfterTwoSecondsWithoutEngines) {
  const RenderedScene& scene = renderedScene(640, 400);
  TempDir dir;
  Host host(dir, HostConfig().set("thread_num", "0"), scene.rig);
  LumoImage frame = frameOf(scene.grey, 9);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(KORV_LUMO_D_FeedStereoImage(host.handle(), &frame), 1);
  // 2000 polls of at least 1 ms each: a lower bound of the deliberate wait.
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2000));
}

TEST(EndToEndDeathTest, MissingRequiredKeyEndsTheProcess) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  const RenderedScene& scene = renderedScene(640, 400);
  TempDir dir;
  LumoSynth::writeCalibrationYaml(dir.file("calib.yaml"), scene.rig);
  // A near miss of the deliberately misspelt key is still a missing key.
  HostConfig().remove("cloest_dist").set("closest_dist", "0.1").write(dir.file("config.yaml"));
  const std::string path = dir.file("config.yaml");
  EXPECT_EXIT(
      {
        void* handle = nullptr;
        KORV_LUMO_D_CreateHandleWithConfig(&handle, path.c_str());
      },
      testing::ExitedWithCode(1), "\\[CheckParseYaml\\] Missing required key: cloest_dist");
}

TEST(EndToEnd, DebugModeWritesTheNamedFiles) {
  const RenderedScene& scene = renderedScene(640, 400);
  TempDir dir;
  const std::string debugDir = dir.file("debug");
  std::filesystem::create_directory(debugDir);
  Host host(dir, HostConfig().set("debug_image", "1").set("debug_img_save_path", debugDir), scene.rig);
  LumoImage frame = frameOf(scene.grey, 1234567890123ull);
  int status = 1;
  const std::string printed =
      LumoTest::captureStdout([&] { status = KORV_LUMO_D_FeedStereoImage(host.handle(), &frame); });
  ASSERT_EQ(status, 0);
  // The printed name differs from the file written; both are kept as they are.
  EXPECT_NE(printed.find("origin image save to : " + debugDir + "/origin_1234567890123.bmp\n"), std::string::npos)
      << printed;
  const std::string stamp = "1234567890123";
  for (const std::string& name :
       {"debug_origin_" + stamp + ".bmp", "debug_feedresizedImg_" + stamp + ".bmp",
        "debug_combined_img_" + stamp + ".bmp", "debug_sgbm_disparity_" + stamp + ".yml",
        "debug_sgbm_depth_" + stamp + ".yml", "debug_disparity_" + stamp + ".yml", "debug_depth_" + stamp + ".yml"}) {
    // The result thread writes its dumps just after the depth is published.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!std::filesystem::exists(debugDir + "/" + name) && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_TRUE(std::filesystem::exists(debugDir + "/" + name)) << name;
  }
}

TEST(EndToEnd, DestroyWhileFramesAreInFlight) {
  const RenderedScene& scene = renderedScene(640, 400);
  TempDir dir;
  LumoSynth::writeCalibrationYaml(dir.file("calib.yaml"), scene.rig);
  HostConfig().set("async_mode", "1").set("thread_num", "2").write(dir.file("config.yaml"));
  for (int round = 0; round < 6; ++round) {
    void* handle = nullptr;
    LumoTest::captureStdout([&] { KORV_LUMO_D_CreateHandleWithConfig(&handle, dir.file("config.yaml").c_str()); });
    for (int i = 0; i < round; ++i) {
      LumoImage frame = frameOf(scene.grey, 1 + i);
      ASSERT_EQ(KORV_LUMO_D_FeedStereoImage(handle, &frame), 0);
    }
    EXPECT_EQ(KORV_LUMO_D_DestroyHandle(handle), 0);
  }
}

}  // namespace
