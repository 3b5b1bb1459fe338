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
#include "support/ShiftedPair.h"
#include "support/TempDir.h"
#include "synth/SyntheticStereo.h"

namespace {

using LumoTest::HostConfig;

constexpr int kWidth = 640, kHeight = 400;              // each stereo view
constexpr int kColourWidth = 960, kColourHeight = 540;  // camera 2
constexpr int kSearchRange = 64;                        // the matcher's disparities at 640 columns

// Rendered once and shared: the stereo pair, the colour view and ground truth.
struct Rendered {
  LumoSynth::Rig rig;
  LumoSynth::Rectification rect;
  cv::Mat stereo, stereoBgr;  // stacked, left view on top
  cv::Mat colour, colourGrey;  // camera 2
  cv::Mat truth[3];            // Z of cameras 1 and 2 in their own pixel grids
  cv::Mat rectTruth;           // Z in the rectified left grid
};

const Rendered& rendered() {
  static const std::unique_ptr<Rendered> scene = [] {
    auto r = std::make_unique<Rendered>();
    r->rig = LumoSynth::withColourCamera(LumoSynth::pinholeRig(kWidth, kHeight), kColourWidth, kColourHeight);
    const LumoSynth::Renderer renderer = LumoSynth::makeRenderer(r->rig, 2);
    const LumoSynth::Scene world = LumoSynth::defaultScene();
    r->stereoBgr = LumoSynth::renderStereo(renderer, world, 0);
    r->stereo = LumoSynth::toGrey(r->stereoBgr);
    r->colour = LumoSynth::renderView(renderer, world, 0, 2);
    r->colourGrey = LumoSynth::toGrey(r->colour);
    for (int c : {1, 2}) r->truth[c] = LumoSynth::cameraDepth(r->rig, world, 0, c);
    r->rect = LumoSynth::rectification(r->rig, 1.0);
    r->rectTruth = LumoSynth::rectifiedDepth(r->rect, world, 0);
    return r;
  }();
  return *scene;
}

// The library copies what it is fed: a header over shared pixels will do.
LumoImage wrap(cv::Mat image, uint64_t timestamp) { return LumoTest::wrapStacked(image, timestamp); }

// A handle configured from files in a scratch directory, with output buffers
// big enough for anything these tests produce.
class Host {
 public:
  explicit Host(const HostConfig& config) {
    LumoSynth::writeCalibrationYaml(dir_.file("calib.yaml"), rendered().rig);
    config.write(dir_.file("config.yaml"));
    LumoTest::captureStdout(
        [&] { status_ = KORV_LUMO_D_CreateHandleWithConfig(&handle_, dir_.file("config.yaml").c_str()); });
  }
  ~Host() { KORV_LUMO_D_DestroyHandle(handle_); }
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  int status() const { return status_; }
  void* handle() const { return handle_; }
  int feedColour(const cv::Mat& image, uint64_t t) {
    LumoImage record = wrap(image, t);
    return KORV_LUMO_D_FeedRGBImage(handle_, &record);
  }
  // The host's tags: derived from the time stamp, so each frame has its own.
  static uint32_t tagOf(uint64_t t) { return static_cast<uint32_t>(t) * 7u + 3u; }
  int feedStereo(uint64_t t, const cv::Mat& stacked = rendered().stereo) {
    LumoImage record = wrap(stacked, t);
    record.tag0 = tagOf(t);
    record.tag1 = ~tagOf(t);
    record.format = 5;
    return KORV_LUMO_D_FeedStereoImage(handle_, &record);
  }
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
  LumoTest::TempDir dir_;
  void* handle_ = nullptr;
  int status_ = -1;
  std::vector<float> depthPixels_ = std::vector<float>(1920 * 1080);
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
  Eigen::Isometry3d leftFromRect = Eigen::Isometry3d::Identity();
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j) leftFromRect.linear()(i, j) = r.rect.R1.at<double>(j, i);
  }
  return LumoSynth::cameraFromLeft(r.rig, c) * leftFromRect;
}

struct Agreement {
  double median = 1.0;  // relative depth error
  double gross = 1.0;   // share of errors above 10 %
  double coverage = 0.0;
  int visible = 0;
};

// Depth registered into camera c (its own grid) against the renderer's. The
// registration writes the depth camera's z, not camera c's (they differ by a
// few per mille here, the cameras being turned by under a degree and 4 mm
// apart along z):
// each ground-truth point is taken back into the rectified frame, and its z
// there is what is expected. Only points the matcher can see count: inside the
// rectified left view away from its borders, right of the columns without a
// full disparity search, and nearer than the search range reaches.
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
  a.gross = std::count_if(relative.begin(), relative.end(), [](double e) { return e > 0.1; }) /
            static_cast<double>(relative.size());
  a.coverage = static_cast<double>(relative.size()) / a.visible;
  std::nth_element(relative.begin(), relative.begin() + relative.size() / 2, relative.end());
  a.median = relative[relative.size() / 2];
  return a;
}

double bilinear(const cv::Mat& image, double x, double y, int channel) {
  const int x0 = static_cast<int>(std::floor(x)), y0 = static_cast<int>(std::floor(y));
  const double ax = x - x0, ay = y - y0;
  auto at = [&](int row, int col) { return image.ptr<uint8_t>(row)[col * image.channels() + channel] * 1.0; };
  return (1 - ay) * ((1 - ax) * at(y0, x0) + ax * at(y0, x0 + 1)) +
         ay * ((1 - ax) * at(y0 + 1, x0) + ax * at(y0 + 1, x0 + 1));
}

// Median absolute difference between an image registered into the depth grid
// (640 columns or a coarser grid over the same view) and camera c's view
// sampled where each pixel's ground-truth point projects, `shiftX` further right.
double textureDifference(const Rendered& r, const cv::Mat& aligned, const cv::Mat& view, int c, double shiftX,
                         int* compared) {
  const LumoSynth::Camera& cam = r.rig.cameras[c];
  const Eigen::Isometry3d camFromRect = cameraFromRectified(r, c);
  const double f = r.rect.P1.at<double>(0, 0), cx = r.rect.P1.at<double>(0, 2), cy = r.rect.P1.at<double>(1, 2);
  const double step = static_cast<double>(kWidth) / aligned.cols;
  const int n = aligned.channels();
  std::vector<double> diffs;
  for (int v = 0; v < aligned.rows; ++v) {
    for (int u = 0; u < aligned.cols; ++u) {
      const uint8_t* px = aligned.ptr<uint8_t>(v) + u * n;
      if (std::all_of(px, px + n, [](uint8_t b) { return b == 0; })) continue;  // no depth there
      const double ur = (u + 0.5) * step - 0.5, vr = (v + 0.5) * step - 0.5;
      const float z = r.rectTruth.at<float>(static_cast<int>(std::lround(vr)), static_cast<int>(std::lround(ur)));
      if (z <= 0.0f) continue;
      const Eigen::Vector2d q =
          LumoSynth::projectPoint(cam, camFromRect * Eigen::Vector3d((ur - cx) / f * z, (vr - cy) / f * z, z));
      const double x = q.x() + shiftX;
      if (x < 1 || q.y() < 1 || x >= cam.width - 2 || q.y() >= cam.height - 2) continue;
      double sum = 0.0;
      for (int k = 0; k < n; ++k) sum += std::fabs(px[k] - bilinear(view, x, q.y(), k));
      diffs.push_back(sum / n);
    }
  }
  *compared = static_cast<int>(diffs.size());
  if (diffs.empty()) return 255.0;
  std::nth_element(diffs.begin(), diffs.begin() + diffs.size() / 2, diffs.end());
  return diffs[diffs.size() / 2];
}

// The registered image should sit on the spot (within a pixel: each depth
// pixel takes the view's pixel under its far corner); six pixels off, the
// difference roughly triples on this texture.
void expectTextureOnTheSpot(const Rendered& r, const cv::Mat& aligned, const cv::Mat& view, int c, const char* what) {
  int compared = 0, ignored = 0;
  const double onSpot = textureDifference(r, aligned, view, c, 0.0, &compared);
  const double shifted = textureDifference(r, aligned, view, c, 6.0, &ignored);
  std::printf("%s: median difference %.2f on the spot, %.2f six pixels off, %d pixels\n", what, onSpot, shifted,
              compared);
  EXPECT_GT(compared, static_cast<int>(aligned.total() / 3)) << what;  // measured 55 % of the grid
  EXPECT_LT(onSpot, 10.0) << what;                                     // measured 6.2 to 6.6 of 255
  EXPECT_LT(onSpot, 0.5 * shifted) << what;                            // measured 0.26 to 0.34
}

TEST(Alignment, DepthIntoTheColourCameraMatchesItsGroundTruth) {
  const Rendered& r = rendered();
  cv::Mat full;
  // At full size; then not restored with the colour camera scaled by 0.5. The
  // depth and the colour frame paired with it take the camera's (scaled) size.
  for (const bool half : {false, true}) {
    Host host(
        alignConfig(2, true).set("aux_cam_scaling", half ? "0.5" : "1.0").set("restore_depth_dim", half ? "0" : "1"));
    ASSERT_EQ(host.status(), 0);
    ASSERT_EQ(host.feedColour(r.colour, 1000), 0);
    ASSERT_EQ(host.feedStereo(1000), 0);  // synchronous: returns once the aligned depth exists
    ASSERT_EQ(host.get(), 0);
    const cv::Size size = half ? cv::Size(kColourWidth / 2, kColourHeight / 2) : cv::Size(kColourWidth, kColourHeight);
    EXPECT_EQ(host.depth().timestamp, 1000u);
    // Registered depth is still the stereo frame's: its tags and one channel.
    EXPECT_EQ(host.depth().tag0, Host::tagOf(1000));
    EXPECT_EQ(host.depth().tag1, ~Host::tagOf(1000));
    EXPECT_EQ(host.depth().format, 5u);
    EXPECT_EQ(host.depth().channels, 1u);
    ASSERT_EQ(host.depthMat().size(), size);
    EXPECT_EQ(host.depth().size, size.area() * 4u);
    EXPECT_EQ(host.aligned().timestamp, 1000u);
    ASSERT_EQ(host.alignedMat().size(), size);
    EXPECT_EQ(host.aligned().size, size.area() * 3u);
    cv::Mat expected;
    cv::resize(r.colour, expected, size, 0, 0, cv::INTER_LINEAR);
    EXPECT_LE(cv::norm(host.alignedMat(), expected, cv::NORM_INF), half ? 1.0 : 0.0);
    if (!half) {
      full = host.depthMat().clone();
      continue;
    }
    // Halved by nearest neighbour: each value is one of its 2x2 block's, none
    // blended, and none left over from memory the registration never wrote.
    int blended = 0;
    for (int y = 0; y < size.height; ++y) {
      for (int x = 0; x < size.width; ++x) {
        const float d = host.depthMat().at<float>(y, x);
        const cv::Mat block = full(cv::Rect(2 * x, 2 * y, 2, 2));
        blended += std::none_of(block.begin<float>(), block.end<float>(), [d](float s) { return s == d; });
      }
    }
    EXPECT_EQ(blended, 0);
  }

  const Agreement a = agreementInCamera(r, 2, full);
  std::printf("depth into colour camera: median relative error %.3f%%, %.2f%% off by over 10%%, "
              "coverage %.1f%% of %d\n",
              100.0 * a.median, 100.0 * a.gross, 100.0 * a.coverage, a.visible);
  EXPECT_GT(a.visible, 200000);
  // Measured 1.5 %: the matcher's own error (1.55 % in the rectified grid);
  // the registration adds none.
  EXPECT_LT(a.median, 0.03);
  // Measured 1.3 %, at depth edges; shifting the result by four pixels gives 2.6 %.
  EXPECT_LT(a.gross, 0.02);
  // Measured 98 %: the footprints of neighbouring depth pixels tile the colour grid.
  EXPECT_GT(a.coverage, 0.90);
}

struct IntoDepthCase {
  int channels;
  const char* scaling;  // stereo_img_scaling
  int restore;          // restore_depth_dim
};

class ColourIntoDepth : public testing::TestWithParam<IntoDepthCase> {};

// At half the stereo size the registration runs on the 320x200 depth grid; the
// result is brought to the depth output's size (the input size when restoring).
TEST_P(ColourIntoDepth, PutsTheTextureWhereTheSceneIs) {
  const IntoDepthCase p = GetParam();
  const Rendered& r = rendered();
  const cv::Mat& colour = p.channels == 1 ? r.colourGrey : r.colour;
  Host host(alignConfig(2, false)
                .set("stereo_img_scaling", p.scaling)
                .set("restore_depth_dim", std::to_string(p.restore)));
  ASSERT_EQ(host.feedColour(colour, 5000), 0);
  ASSERT_EQ(host.feedStereo(5000), 0);
  ASSERT_EQ(host.get(), 0);
  const bool half = std::string(p.scaling) != "1.0" && p.restore == 0;
  const uint32_t width = half ? kWidth / 2 : kWidth, height = half ? kHeight / 2 : kHeight;
  EXPECT_EQ(host.depth().width, width);
  const LumoImage& aligned = host.aligned();
  EXPECT_EQ(aligned.timestamp, 5000u);
  ASSERT_EQ(aligned.width, width);
  ASSERT_EQ(aligned.height, height);
  ASSERT_EQ(aligned.channels, static_cast<uint32_t>(p.channels));  // a grey frame is copied byte by byte
  EXPECT_EQ(aligned.format, p.channels == 1 ? 2u : 0u);
  EXPECT_EQ(aligned.size, width * height * p.channels);
  const std::string what = std::to_string(p.channels) + " channels at scale " + p.scaling + (half ? "" : ", restored");
  expectTextureOnTheSpot(r, host.alignedMat(), colour, 2, what.c_str());
}

// Only at stereo scale 1: the registration takes its depth grid from the input
// size, which the depth image has only when the stereo views are not scaled.
INSTANTIATE_TEST_SUITE_P(Host, ColourIntoDepth,
                         testing::Values(IntoDepthCase{3, "1.0", 1}, IntoDepthCase{1, "1.0", 1}),
                         [](const testing::TestParamInfo<IntoDepthCase>& info) {
                           const IntoDepthCase& p = info.param;
                           return std::string(p.channels == 1 ? "Grey" : "Colour") +
                                  (std::string(p.scaling) == "1.0" ? "" : p.restore ? "HalfRestored" : "Half");
                         });

// Camera 1 is the right stereo camera: its frames come from the stereo ring,
// no colour frame is needed. The matched frame is the stacked pair as fed.
TEST(Alignment, RightStereoCameraComesFromTheStereoFrames) {
  const Rendered& r = rendered();
  Host host(alignConfig(1, true));
  ASSERT_EQ(host.feedStereo(7000), 0);
  ASSERT_EQ(host.get(), 0);
  EXPECT_EQ(host.aligned().timestamp, 7000u);
  EXPECT_EQ(host.aligned().height, static_cast<uint32_t>(2 * kHeight));  // both views
  EXPECT_EQ(host.depth().width, static_cast<uint32_t>(kWidth));
  const Agreement a = agreementInCamera(r, 1, host.depthMat());
  std::printf("depth into the right camera: median %.3f%%, coverage %.1f%%\n", 100.0 * a.median, 100.0 * a.coverage);
  EXPECT_LT(a.median, 0.03);  // measured as for the colour camera
  EXPECT_GT(a.coverage, 0.90);
}

TEST(Alignment, ColourFramesArePairedByTimestamp) {
  const Rendered& r = rendered();
  Host host(alignConfig(2, true));
  // The tolerance is 500000000. Compared on the low 32 bits, which these cross
  // 2^32 on the way: that must not matter.
  const uint64_t base = (5ull << 32) - 200000000;
  const uint64_t close = base - 300000000, newer = base + 800000000;
  for (uint64_t t : {base - 1600000000, base - 600000000, close, newer}) ASSERT_EQ(host.feedColour(r.colour, t), 0);

  ASSERT_EQ(host.feedStereo(base), 0);
  ASSERT_EQ(host.get(), 0);
  EXPECT_EQ(host.depth().timestamp, base);
  EXPECT_EQ(host.aligned().timestamp, close);  // both older frames dropped on the way

  // The newer frame is still over a tolerance ahead: no aligned depth for this
  // frame, so the synchronous feed gives up after about two seconds.
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(host.feedStereo(base + 200000000), 1);
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, std::chrono::milliseconds(1900));
  EXPECT_LT(waited, std::chrono::seconds(10));
  ASSERT_EQ(host.get(), 0);
  EXPECT_EQ(host.depth().timestamp, base);  // the last aligned output stays
  EXPECT_EQ(host.aligned().timestamp, close);

  // It was kept, and pairs with the next depth that comes close enough.
  ASSERT_EQ(host.feedStereo(base + 600000000), 0);
  ASSERT_EQ(host.get(), 0);
  EXPECT_EQ(host.depth().timestamp, base + 600000000);
  EXPECT_EQ(host.aligned().timestamp, newer);
}

TEST(Alignment, DisabledAlignmentLeavesTheAlignedRecordAlone) {
  const Rendered& r = rendered();
  Host host(alignConfig(-1, true));
  ASSERT_EQ(host.feedColour(r.colour, 300), 0);
  ASSERT_EQ(host.feedStereo(300), 0);
  std::vector<uint8_t> bytes(63, 0xA5);
  const LumoImage sentinel{0xDEADBEEF, 5, 0x1234567890ull, 7, 3, 3, 9, 0, 21, 63, bytes.data()};
  LumoImage aligned = sentinel;
  std::vector<float> depth(kWidth * kHeight);
  LumoDepthImage depthRecord{};
  depthRecord.data = depth.data();
  ASSERT_EQ(KORV_LUMO_D_GetDepthImage(host.handle(), &depthRecord, nullptr, &aligned), 0);
  EXPECT_EQ(depthRecord.width, static_cast<uint32_t>(kWidth));  // the depth camera's own grid
  EXPECT_EQ(std::memcmp(&aligned, &sentinel, sizeof(LumoImage)), 0);
  EXPECT_TRUE(std::all_of(bytes.begin(), bytes.end(), [](uint8_t b) { return b == 0xA5; }));
}

}  // namespace
