// A host program's view of the library: only the public header, the exported
// functions and files on disk. Frames come from the synthetic renderer.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <opencv2/imgproc.hpp>

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
using LumoTest::wrapStacked;

// Rendered once per size (all 16:10) and shared by the tests.
struct Rendered {
  LumoSynth::Rig rig;
  cv::Mat stacked, grey;  // left view on top
};

Rendered& rendered(int width = 640) {
  static std::map<int, Rendered> cache;
  Rendered& r = cache[width];
  if (r.stacked.empty()) {
    r.rig = LumoSynth::pinholeRig(width, width * 10 / 16);
    r.stacked = LumoSynth::renderStereo(LumoSynth::makeRenderer(r.rig, 2), LumoSynth::defaultScene(), 0);
    r.grey = LumoSynth::toGrey(r.stacked);
  }
  return r;
}

// A handle configured from files in a scratch directory.
class Host {
 public:
  explicit Host(const HostConfig& config, int width = 640) {
    LumoSynth::writeCalibrationYaml(dir_.file("calib.yaml"), rendered(width).rig);
    config.write(dir_.file("config.yaml"));
    LumoTest::captureStdout([&] { KORV_LUMO_D_CreateHandleWithConfig(&handle_, dir_.file("config.yaml").c_str()); });
  }
  ~Host() { KORV_LUMO_D_DestroyHandle(handle_); }
  void* handle() const { return handle_; }

 private:
  TempDir dir_;
  void* handle_ = nullptr;
};

struct DepthBuffer {
  explicit DepthBuffer(std::size_t pixels = 640 * 400) : data(pixels, -1.0f) { record.data = data.data(); }
  std::vector<float> data;
  LumoDepthImage record{};
};

// Debug dumps are on; their files are checked last.
TEST(EndToEnd, DepthOfTheRenderedSceneMatchesGroundTruth) {
  TempDir debug;
  Host host(HostConfig().set("debug_image", "1").set("debug_img_save_path", debug.path()));
  LumoImage frame = wrapStacked(rendered().grey, 1234567890123ull);
  frame.tag0 = 11;
  frame.tag1 = 22;
  frame.format = 7;
  const std::string printed =  // synchronous: returns with the depth
      LumoTest::captureStdout([&] { EXPECT_EQ(LumoTest::feedAndWait(host.handle(), &frame), 0); });
  DepthBuffer depth, disparity;
  std::vector<uint8_t> bytes(63, 0xA5);
  const LumoImage sentinel{0xDEADBEEF, 5, 0x1234567890ull, 7, 3, 3, 9, 0, 21, 63, bytes.data()};
  LumoImage aligned = sentinel;
  ASSERT_EQ(KORV_LUMO_D_GetDepthImage(host.handle(), &depth.record, &disparity.record, &aligned), 0);
  EXPECT_EQ(depth.record.timestamp, 1234567890123ull);
  EXPECT_EQ(depth.record.tag0, 11u);
  EXPECT_EQ(depth.record.tag1, 22u);
  EXPECT_EQ(depth.record.format, 7u);
  ASSERT_EQ(depth.record.width, 640u);
  EXPECT_EQ(depth.record.size, 640u * 400u * 4u);
  EXPECT_EQ(disparity.record.timestamp, 1234567890123ull);
  // Alignment is off: the aligned record and its bytes are left alone.
  EXPECT_EQ(std::memcmp(&aligned, &sentinel, sizeof(LumoImage)), 0);
  EXPECT_EQ(std::count(bytes.begin(), bytes.end(), 0xA5), 63);

  // Ground truth in the rectified left view, the way the library rectifies;
  // only pixels the 64-disparity search (a tenth of the width) can reach count.
  const LumoSynth::Rectification rect = LumoSynth::rectification(rendered().rig, 1.0);
  const cv::Mat truth = LumoSynth::rectifiedDepth(rect, LumoSynth::defaultScene(), 0);
  const double fB = rect.P1.at<double>(0, 0) * rect.baseline;
  std::vector<double> relative;
  int visible = 0;
  for (int v = 8; v < 400 - 8; ++v) {
    for (int u = 64 + 8; u < 640 - 8; ++u) {
      const float z = truth.at<float>(v, u), d = depth.data[v * 640 + u];
      if (z <= 0.0f || fB / z >= 63) continue;
      ++visible;
      if (d <= 0.0f) continue;
      relative.push_back(std::fabs(d - z) / z);
      EXPECT_NEAR(d * disparity.data[v * 640 + u], fB, 1e-3 * fB);  // depth is f·B / disparity
    }
  }
  ASSERT_GT(visible, 100000);
  EXPECT_GT(relative.size(), 0.80 * visible);
  std::nth_element(relative.begin(), relative.begin() + relative.size() / 2, relative.end());
  EXPECT_LT(relative[relative.size() / 2], 0.02);

  std::vector<uint8_t> pixels(640 * 800 * 3);
  LumoImage rectified{};
  rectified.data = pixels.data();
  ASSERT_EQ(KORV_LUMO_D_GetRectifiedImage(host.handle(), &rectified), 0);
  EXPECT_EQ(rectified.height, 800u);  // stacked
  EXPECT_EQ(rectified.format, 0u);
  LumoRectifyInfo info{};
  EXPECT_EQ(KORV_LUMO_D_GetRectifyInfo(host.handle(), &info), 0);
  EXPECT_FLOAT_EQ(info.P1[0], static_cast<float>(rect.P1.at<double>(0, 0)));
  EXPECT_FLOAT_EQ(info.P2[3], static_cast<float>(rect.P2.at<double>(0, 3)));

  // The printed name differs from the file written; both are kept as they are.
  EXPECT_NE(printed.find("origin image save to : " + debug.path() + "/origin_1234567890123.bmp\n"), std::string::npos)
      << printed;
  // The result thread writes its dumps just after the depth is published.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  for (const std::string name : {"origin_1234567890123.bmp", "feedresizedImg_1234567890123.bmp",
                                 "combined_img_1234567890123.bmp", "sgbm_disparity_1234567890123.yml",
                                 "sgbm_depth_1234567890123.yml", "disparity_1234567890123.yml",
                                 "depth_1234567890123.yml"}) {
    while (!std::filesystem::exists(debug.file("debug_" + name)) && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_TRUE(std::filesystem::exists(debug.file("debug_" + name))) << name;
  }
}

// Three-channel frames, asynchronous mode, two engines and the filters: every
// frame's depth comes out with its own tags, for the poller to find. The
// handle is then destroyed with frames still in flight.
TEST(EndToEnd, AsynchronousColourFramesEachGetTheirDepth) {
  Host host(HostConfig().set("async_mode", "1").set("thread_num", "2").set("enable_filter", "true"));
  DepthBuffer depth;
  for (uint64_t t = 1; t <= 7; ++t) {
    LumoImage frame = wrapStacked(rendered().stacked, t * 100);
    frame.tag0 = static_cast<uint32_t>(t);
    ASSERT_EQ(LumoTest::feedAndWait(host.handle(), &frame), 0);
    if (t > 4) continue;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while ((KORV_LUMO_D_GetDepthImage(host.handle(), &depth.record, nullptr, nullptr) != 0 ||
            depth.record.timestamp != t * 100) &&
           std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    ASSERT_EQ(depth.record.timestamp, t * 100);
    EXPECT_EQ(depth.record.tag0, t);
  }
  EXPECT_GT(std::count_if(depth.data.begin(), depth.data.end(), [](float d) { return d > 0.0f; }), 640 * 400 / 2);
}

// A grey frame takes a one-channel path through rectification and matching;
// the same frame as three equal channels takes the three-channel path. Every
// output must be the same bit for bit, at full size, at an exact half (OpenCV
// averages 2 x 2 blocks there) and at an odd scale.
TEST(EndToEnd, GreyFramesGiveExactlyTheOutputsOfTheirThreeChannelForm) {
  cv::Mat colour;
  cv::cvtColor(rendered().grey, colour, cv::COLOR_GRAY2BGR);
  for (const char* scale : {"1.0", "0.5", "0.539063"}) {
    SCOPED_TRACE(scale);
    std::vector<std::vector<float>> outputs;
    std::vector<std::vector<uint8_t>> pictures;
    for (cv::Mat pixels : {rendered().grey, colour}) {
      Host host(HostConfig().set("stereo_img_scaling", scale).set("enable_filter", "true"));
      LumoImage frame = wrapStacked(pixels, 99);
      ASSERT_EQ(LumoTest::feedAndWait(host.handle(), &frame), 0);
      DepthBuffer depth, disparity;
      ASSERT_EQ(KORV_LUMO_D_GetDepthImage(host.handle(), &depth.record, &disparity.record, nullptr), 0);
      outputs.push_back(depth.data);
      outputs.push_back(disparity.data);
      std::vector<uint8_t> rectified(640 * 800 * 3);
      LumoImage record{};
      record.data = rectified.data();
      ASSERT_EQ(KORV_LUMO_D_GetRectifiedImage(host.handle(), &record), 0);
      EXPECT_EQ(record.channels, 3u);
      pictures.push_back(rectified);
    }
    EXPECT_EQ(std::memcmp(outputs[0].data(), outputs[2].data(), outputs[0].size() * 4), 0) << "depth";
    EXPECT_EQ(std::memcmp(outputs[1].data(), outputs[3].data(), outputs[1].size() * 4), 0) << "disparity";
    EXPECT_EQ(pictures[0], pictures[1]) << "rectified";
  }
}

TEST(EndToEnd, ScaledInputIsRestoredOnlyWhenAsked) {
  const LumoSynth::Rectification working = LumoSynth::rectification(rendered(1280).rig, 0.5);
  const double fB = working.P1.at<double>(0, 0) * working.baseline;
  HostConfig config;
  config.set("input_stereo_width", "1280").set("input_stereo_height", "800").set("stereo_img_scaling", "0.5");
  for (int restore : {0, 1}) {
    Host host(config.set("restore_depth_dim", std::to_string(restore)), 1280);
    LumoImage frame = wrapStacked(rendered(1280).grey, 77);
    ASSERT_EQ(LumoTest::feedAndWait(host.handle(), &frame), 0);
    DepthBuffer depth(1280 * 800), disparity(1280 * 800);
    ASSERT_EQ(KORV_LUMO_D_GetDepthImage(host.handle(), &depth.record, &disparity.record, nullptr), 0);
    const uint32_t width = restore ? 1280 : 640;
    ASSERT_EQ(depth.record.width, width);
    ASSERT_EQ(depth.record.height, width * 10 / 16);
    EXPECT_EQ(disparity.record.width, 640u);  // disparity stays at the working size

    // Restored depth repeats the working depth (nearest neighbour), never a
    // blend: each output pixel is f·B / d of its source pixel.
    int checked = 0;
    for (uint32_t v = 0; v < depth.record.height; v += 7) {
      for (uint32_t u = 0; u < width; u += 5) {
        const float d = depth.data[v * width + u], disp = disparity.data[(v >> restore) * 640 + (u >> restore)];
        if (d <= 0.0f) continue;
        EXPECT_NEAR(d * disp, fB, 1e-4 * fB) << u << "," << v;
        ++checked;
      }
    }
    EXPECT_GT(checked, 1000);
  }
}

TEST(EndToEnd, RefusalsAndTheirMessages) {
  Host host((HostConfig())), disabled(HostConfig().set("enable_module", "0"));
  cv::Mat half = rendered().grey.rowRange(0, 400).clone();  // a single view, not the stacked pair
  LumoImage wrong = wrapStacked(half, 5), frame = wrapStacked(rendered().grey, 6), empty = frame;
  empty.data = nullptr;
  LumoImage noBuffer{}, rectified = wrapStacked(rendered().stacked, 0);
  LumoPose pose{};
  DepthBuffer depth;
  const std::string printed = LumoTest::captureStdout([&] {
    EXPECT_EQ(KORV_LUMO_D_FeedStereoImage(host.handle(), &wrong), 1);
    // Nothing produced or rectified yet: refused without a message.
    EXPECT_EQ(KORV_LUMO_D_GetDepthImage(host.handle(), &depth.record, nullptr, nullptr), 1);
    EXPECT_EQ(KORV_LUMO_D_GetRectifiedImage(host.handle(), &rectified), 1);
    // Records without pixels are refused, not dereferenced.
    EXPECT_EQ(KORV_LUMO_D_FeedStereoImage(host.handle(), &empty), 1);
    EXPECT_EQ(KORV_LUMO_D_FeedRGBImage(host.handle(), &empty), 1);
    EXPECT_EQ(KORV_LUMO_D_FeedPose(host.handle(), nullptr), 1);
    EXPECT_EQ(KORV_LUMO_D_GetDepthImage(host.handle(), nullptr, nullptr, nullptr), 1);
    EXPECT_EQ(KORV_LUMO_D_GetRectifiedImage(host.handle(), &noBuffer), 1);
    EXPECT_EQ(KORV_LUMO_D_GetRectifyInfo(host.handle(), nullptr), 1);
    EXPECT_EQ(KORV_LUMO_D_FeedStereoImage(disabled.handle(), &frame), 1);
    EXPECT_EQ(KORV_LUMO_D_FeedRGBImage(disabled.handle(), &frame), 1);
    EXPECT_EQ(KORV_LUMO_D_FeedPose(disabled.handle(), &pose), 1);
  });
  EXPECT_NE(printed.find("[ ERROR] feedStereoImage(): input image size does not match config params\n"),
            std::string::npos);
  for (const std::string function :
       {"feedStereoImage", "feedRGBImage", "feedPose", "getDepthImage", "getRectifyImage", "getRectifyInfo"}) {
    EXPECT_NE(printed.find(function + "(): allocate memory before calling\n"), std::string::npos) << printed;
    if (function[0] == 'f') {
      EXPECT_NE(printed.find(function + "(): depth module is not enabled\n"), std::string::npos) << printed;
    }
  }
  EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 10) << "a line per refusal but the silent two";

  // Without engines a synchronous feed polls 2000 times, at least 1 ms apart, then gives up.
  Host idle(HostConfig().set("thread_num", "0"));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(KORV_LUMO_D_FeedStereoImage(idle.handle(), &frame), 1);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2000));
}

}  // namespace
