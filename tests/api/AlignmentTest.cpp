// Depth registered with the colour camera (and the colour camera with depth),
// seen by a host: the public header, the exported functions and frames from
// the synthetic renderer, checked against the renderer's ground truth.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "lumetra_depth.h"
#include "support/CaptureOutput.h"
#include "support/HostConfig.h"
#include "support/TempDir.h"
#include "synth/SyntheticStereo.h"

namespace {

using LumoTest::HostConfig;
using LumoTest::TempDir;

constexpr int kWidth = 640, kHeight = 400;               // each stereo view
constexpr int kColourWidth = 960, kColourHeight = 540;   // camera 2
constexpr int kSearchRange = 64;                         // the matcher's disparities at 640 columns
constexpr int64_t kTolerance = 500000000;                // colour pairing, in time-stamp units

// Rendered once and shared: the stereo pair, the colour view and ground truth.
struct Rendered {
  LumoSynth::Rig rig;
  LumoSynth::Rectification rect;
  cv::Mat stereo;       // grey, left view on top
  cv::Mat colour;       // camera 2, BGR
  cv::Mat colourGrey;
  cv::Mat truth[3];     // Z of each camera in its own pixel grid
  cv::Mat rectTruth;    // Z in the rectified left grid
};

const Rendered& rendered() {
  static const std::unique_ptr<Rendered> scene = [] {
    auto r = std::make_unique<Rendered>();
    r->rig = LumoSynth::withColourCamera(LumoSynth::pinholeRig(kWidth, kHeight), kColourWidth, kColourHeight);
    const LumoSynth::Renderer renderer = LumoSynth::makeRenderer(r->rig, 2);
    const LumoSynth::Scene world = LumoSynth::defaultScene();
    cv::cvtColor(LumoSynth::renderStereo(renderer, world, 0), r->stereo, cv::COLOR_BGR2GRAY);
    r->colour = LumoSynth::renderView(renderer, world, 0, 2);
    r->colourGrey = LumoSynth::toGrey(r->colour);
    for (int c : {1, 2}) r->truth[c] = LumoSynth::cameraDepth(r->rig, world, 0, c);
    r->rect = LumoSynth::rectification(r->rig, 1.0);
    r->rectTruth = LumoSynth::rectifiedDepth(r->rect, world, 0);
    return r;
  }();
  return *scene;
}

LumoImage wrap(const cv::Mat& image, uint64_t timestamp) {
  LumoImage record{};
  record.timestamp = timestamp;
  record.width = static_cast<uint32_t>(image.cols);
  record.height = static_cast<uint32_t>(image.rows);
  record.channels = static_cast<uint32_t>(image.channels());
  record.stride = record.width * record.channels;
  record.size = record.stride * record.height;
  record.data = image.data;
  return record;
}

class Host {
 public:
  explicit Host(const HostConfig& config) {
    LumoSynth::writeCalibrationYaml(dir_.file("calib.yaml"), rendered().rig);
    config.write(dir_.file("config.yaml"));
    LumoTest::captureStdout([&] { status_ = KORV_LUMO_D_CreateHandleWithConfig(&handle_, dir_.file("config.yaml").c_str()); });
  }
  ~Host() { KORV_LUMO_D_DestroyHandle(handle_); }
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  int status() const { return status_; }
  int feedColour(const cv::Mat& image, uint64_t t) {
    LumoImage record = wrap(image, t);
    return KORV_LUMO_D_FeedRGBImage(handle_, &record);
  }
  int feedStereo(uint64_t t) {
    LumoImage record = wrap(rendered().stereo, t);
    return KORV_LUMO_D_FeedStereoImage(handle_, &record);
  }
  // Fills depth_ and aligned_ (buffers big enough for any output here).
  int get() {
    depth_.data = depthPixels_.data();
    aligned_.data = alignedPixels_.data();
    return KORV_LUMO_D_GetDepthImage(handle_, &depth_, nullptr, &aligned_);
  }
  const LumoDepthImage& depth() const { return depth_; }
  const LumoImage& aligned() const { return aligned_; }
  cv::Mat depthMat() const { return cv::Mat(depth_.height, depth_.width, CV_32F, depth_.data); }
  cv::Mat alignedMat() const {
    return cv::Mat(aligned_.height, aligned_.width, CV_8UC(aligned_.channels), aligned_.data);
  }

 private:
  TempDir dir_;
  void* handle_ = nullptr;
  int status_ = -1;
  std::vector<float> depthPixels_ = std::vector<float>(1920 * 1080, -1.0f);
  std::vector<uint8_t> alignedPixels_ = std::vector<uint8_t>(1920 * 1080 * 3);
  LumoDepthImage depth_{};
  LumoImage aligned_{};
};

HostConfig alignConfig(int camera, bool depthIntoColour) {
  return HostConfig()
      .set("align_cam_id", std::to_string(camera))
      .set("align_direction", depthIntoColour ? "true" : "false")
      .set("input_aux_cam_width", std::to_string(kColourWidth))
      .set("input_aux_cam_height", std::to_string(kColourHeight));
}

// Rectified left frame -> camera c.
Eigen::Isometry3d cameraFromRectified(const Rendered& r, int c) {
  Eigen::Matrix3d R1;
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j) R1(i, j) = r.rect.R1.at<double>(i, j);
  }
  Eigen::Isometry3d leftFromRect = Eigen::Isometry3d::Identity();
  leftFromRect.linear() = R1.transpose();
  return LumoSynth::cameraFromLeft(r.rig, c) * leftFromRect;
}

struct Agreement {
  double median = 1.0;  // relative depth error
  double coverage = 0.0;
  int visible = 0;
};

// Depth registered into camera c (its own grid) against the renderer's. The
// registration writes the depth camera's z, not camera c's: each ground-truth
// point is taken back into the rectified frame and its z there is what is
// expected. Only points the matcher can see count: inside the rectified left
// view away from its borders, right of the columns without a full disparity
// search, and nearer than the search range reaches.
Agreement agreementInCamera(const Rendered& r, int c, const cv::Mat& depth) {
  const LumoSynth::Camera& cam = r.rig.cameras[c];
  const Eigen::Isometry3d rectFromCam = cameraFromRectified(r, c).inverse();
  const double f = r.rect.P1.at<double>(0, 0), cx = r.rect.P1.at<double>(0, 2), cy = r.rect.P1.at<double>(1, 2);
  std::vector<double> relative;
  Agreement a;
  for (int y = 0; y < cam.height; ++y) {
    for (int x = 0; x < cam.width; ++x) {
      const float z = r.truth[c].at<float>(y, x);
      Eigen::Vector2d ray;
      if (z <= 0.0f || !LumoSynth::pixelRay(cam, x, y, ray)) continue;
      const Eigen::Vector3d p = rectFromCam * Eigen::Vector3d(ray.x() * z, ray.y() * z, z);
      const double u = f * p.x() / p.z() + cx, v = f * p.y() / p.z() + cy;
      if (u < kSearchRange + 8 || u >= kWidth - 8 || v < 8 || v >= kHeight - 8) continue;
      if (f * r.rect.baseline / p.z() >= kSearchRange - 1) continue;
      ++a.visible;
      const float d = depth.at<float>(y, x);
      if (d > 0.0f) relative.push_back(std::fabs(d - p.z()) / p.z());
    }
  }
  if (relative.empty()) return a;
  std::nth_element(relative.begin(), relative.begin() + relative.size() / 2, relative.end());
  a.median = relative[relative.size() / 2];
  a.coverage = static_cast<double>(relative.size()) / a.visible;
  return a;
}

double bilinear(const cv::Mat& image, double x, double y, int channel) {
  const int x0 = static_cast<int>(std::floor(x)), y0 = static_cast<int>(std::floor(y));
  const double ax = x - x0, ay = y - y0;
  const int n = image.channels();
  auto at = [&](int yy, int xx) { return static_cast<double>(image.ptr<uint8_t>(yy)[xx * n + channel]); };
  return (1 - ay) * ((1 - ax) * at(y0, x0) + ax * at(y0, x0 + 1)) +
         ay * ((1 - ax) * at(y0 + 1, x0) + ax * at(y0 + 1, x0 + 1));
}

// Median absolute difference between the registered colour image (depth
// grid) and the colour view sampled where each depth pixel's ground-truth
// point projects, shifted by `shiftX` colour pixels.
double textureDifference(const Rendered& r, const cv::Mat& aligned, const cv::Mat& colour, double shiftX,
                         int* compared) {
  const LumoSynth::Camera& cam = r.rig.cameras[2];
  const Eigen::Isometry3d camFromRect = cameraFromRectified(r, 2);
  const double f = r.rect.P1.at<double>(0, 0), cx = r.rect.P1.at<double>(0, 2), cy = r.rect.P1.at<double>(1, 2);
  const double step = static_cast<double>(kWidth) / aligned.cols;  // aligned may sit on a coarser grid
  const int n = aligned.channels();
  std::vector<double> diffs;
  for (int v = 0; v < aligned.rows; ++v) {
    for (int u = 0; u < aligned.cols; ++u) {
      const uint8_t* px = aligned.ptr<uint8_t>(v) + u * n;
      if (std::all_of(px, px + n, [](uint8_t b) { return b == 0; })) continue;  // no depth there
      const double ur = (u + 0.5) * step - 0.5, vr = (v + 0.5) * step - 0.5;
      const float z = r.rectTruth.at<float>(static_cast<int>(std::lround(vr)), static_cast<int>(std::lround(ur)));
      if (z <= 0.0f) continue;
      const Eigen::Vector3d p = camFromRect * Eigen::Vector3d((ur - cx) / f * z, (vr - cy) / f * z, z);
      const Eigen::Vector2d q = LumoSynth::projectPoint(cam, p);
      const double x = q.x() + shiftX;
      if (x < 1 || q.y() < 1 || x >= cam.width - 2 || q.y() >= cam.height - 2) continue;
      double sum = 0.0;
      for (int k = 0; k < n; ++k) sum += std::fabs(px[k] - bilinear(colour, x, q.y(), k));
      diffs.push_back(sum / n);
    }
  }
  *compared = static_cast<int>(diffs.size());
  if (diffs.empty()) return 255.0;
  std::nth_element(diffs.begin(), diffs.begin() + diffs.size() / 2, diffs.end());
  return diffs[diffs.size() / 2];
}

TEST(Alignment, DepthIntoTheColourCameraMatchesItsGroundTruth) {
  const Rendered& r = rendered();
  Host host(alignConfig(2, true));
  ASSERT_EQ(host.status(), 0);
  ASSERT_EQ(host.feedColour(r.colour, 1000), 0);
  ASSERT_EQ(host.feedStereo(1000), 0);  // synchronous: returns once the aligned depth exists
  ASSERT_EQ(host.get(), 0);
  EXPECT_EQ(host.depth().timestamp, 1000u);
  EXPECT_EQ(host.depth().width, static_cast<uint32_t>(kColourWidth));
  EXPECT_EQ(host.depth().height, static_cast<uint32_t>(kColourHeight));
  EXPECT_EQ(host.depth().size, kColourWidth * kColourHeight * 4u);
  // The colour frame it was paired with comes along unchanged.
  EXPECT_EQ(host.aligned().timestamp, 1000u);
  ASSERT_EQ(host.aligned().size, kColourWidth * kColourHeight * 3u);
  EXPECT_EQ(cv::norm(host.alignedMat(), r.colour, cv::NORM_INF), 0.0);

  const Agreement a = agreementInCamera(r, 2, host.depthMat());
  std::printf("depth into colour camera: median relative error %.3f%%, coverage %.1f%% of %d pixels\n",
              100.0 * a.median, 100.0 * a.coverage, a.visible);
  EXPECT_GT(a.visible, 200000);
  EXPECT_LT(a.median, 0.03);
  EXPECT_GT(a.coverage, 0.70);
}

class ColourIntoDepth : public testing::TestWithParam<int> {};

TEST_P(ColourIntoDepth, PutsTheTextureWhereTheSceneIs) {
  const Rendered& r = rendered();
  const int channels = GetParam();
  const cv::Mat& colour = channels == 1 ? r.colourGrey : r.colour;
  Host host(alignConfig(2, false));
  ASSERT_EQ(host.feedColour(colour, 5000), 0);
  ASSERT_EQ(host.feedStereo(5000), 0);
  ASSERT_EQ(host.get(), 0);
  EXPECT_EQ(host.depth().width, static_cast<uint32_t>(kWidth));
  const LumoImage& aligned = host.aligned();
  EXPECT_EQ(aligned.timestamp, 5000u);
  EXPECT_EQ(aligned.width, static_cast<uint32_t>(kWidth));
  EXPECT_EQ(aligned.height, static_cast<uint32_t>(kHeight));
  EXPECT_EQ(aligned.channels, static_cast<uint32_t>(channels));
  EXPECT_EQ(aligned.format, channels == 1 ? 2u : 0u);
  EXPECT_EQ(aligned.size, static_cast<uint32_t>(kWidth * kHeight * channels));

  int compared = 0, comparedShifted = 0;
  const double onSpot = textureDifference(r, host.alignedMat(), colour, 0.0, &compared);
  const double shifted = textureDifference(r, host.alignedMat(), colour, 6.0, &comparedShifted);
  std::printf("colour into depth (%d ch): median difference %.2f on the spot, %.2f shifted, %d pixels\n", channels,
              onSpot, shifted, compared);
  EXPECT_GT(compared, 100000);
  EXPECT_LT(onSpot, 0.4 * shifted);
}

INSTANTIATE_TEST_SUITE_P(Host, ColourIntoDepth, testing::Values(3, 1));

}  // namespace
namespace {
TEST(Probe, RightCamera) {
  const Rendered& r = rendered();
  for (bool dir : {true, false}) {
    Host host(alignConfig(1, dir));
    ASSERT_EQ(host.feedStereo(7000), 0);
    ASSERT_EQ(host.get(), 0);
    std::printf("dir %d depth %ux%u ts %llu aligned %ux%u ch %u fmt %u size %u ts %llu\n", dir, host.depth().width, host.depth().height,
                (unsigned long long)host.depth().timestamp, host.aligned().width, host.aligned().height, host.aligned().channels,
                host.aligned().format, host.aligned().size, (unsigned long long)host.aligned().timestamp);
    if (dir) {
      const Agreement a = agreementInCamera(r, 1, host.depthMat());
      std::printf("right: median %.4f coverage %.3f visible %d\n", a.median, a.coverage, a.visible);
    }
  }
}
TEST(Probe, Scaled) {
  const Rendered& r = rendered();
  for (bool dir : {true, false}) for (int restore : {0, 1}) {
    Host host(alignConfig(2, dir).set("stereo_img_scaling", "0.5").set("restore_depth_dim", std::to_string(restore)));
    ASSERT_EQ(host.feedColour(r.colour, 100), 0);
    ASSERT_EQ(host.feedStereo(100), 0);
    ASSERT_EQ(host.get(), 0);
    std::printf("dir %d restore %d depth %ux%u aligned %ux%u ch %u\n", dir, restore, host.depth().width, host.depth().height,
                host.aligned().width, host.aligned().height, host.aligned().channels);
    if (dir) {
      const Agreement a = agreementInCamera(r, 2, host.depthMat());
      std::printf("  median %.4f coverage %.3f\n", a.median, a.coverage);
    } else {
      int n = 0; double d0 = textureDifference(r, host.alignedMat(), r.colour, 0.0, &n); int n2; double d6 = textureDifference(r, host.alignedMat(), r.colour, 6.0, &n2);
      std::printf("  tex %.2f shifted %.2f n %d\n", d0, d6, n);
    }
  }
}
}
