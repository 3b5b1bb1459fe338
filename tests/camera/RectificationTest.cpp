// Rectification maps on a synthetic rig, the rectify info handed to the host
// and the matrix flattening behind it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <ostream>
#include <string>
#include <vector>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include "pipeline/StereoDepth.h"
#include "support/CalibrationFixtures.h"
#include "support/CaptureOutput.h"

namespace KorvLumetra {
namespace {

using Access = StereoDepthTestAccess;
using LumoTest::CameraSpec;
using LumoTest::ConfigOptions;
using LumoTest::TempDir;
using LumoTest::configure;
using LumoTest::syntheticRig;

// Bilinear sample of a CV_32FC2 map; false unless the 2x2 neighbourhood is inside.
bool sampleMap(const cv::Mat& map, const cv::Point2d& at, cv::Point2d* out) {
  const int x0 = static_cast<int>(std::floor(at.x));
  const int y0 = static_cast<int>(std::floor(at.y));
  if (x0 < 0 || y0 < 0 || x0 + 1 >= map.cols || y0 + 1 >= map.rows) return false;
  const double fx = at.x - x0;
  const double fy = at.y - y0;
  const cv::Vec2f a = map.at<cv::Vec2f>(y0, x0), b = map.at<cv::Vec2f>(y0, x0 + 1);
  const cv::Vec2f c = map.at<cv::Vec2f>(y0 + 1, x0), d = map.at<cv::Vec2f>(y0 + 1, x0 + 1);
  for (int k = 0; k < 2; ++k) {
    const double top = a[k] + fx * (b[k] - a[k]);
    const double bottom = c[k] + fx * (d[k] - c[k]);
    (k == 0 ? out->x : out->y) = top + fy * (bottom - top);
  }
  return true;
}

// The rectified position whose (interpolated) map entry is the raw pixel:
// Newton's method on the map itself, with a finite-difference Jacobian.
bool invertMap(const cv::Mat& map, const cv::Point2d& raw, cv::Point2d* rectified) {
  cv::Point2d r(std::min(std::max(raw.x, 2.0), map.cols - 3.0), std::min(std::max(raw.y, 2.0), map.rows - 3.0));
  for (int iteration = 0; iteration < 40; ++iteration) {
    cv::Point2d m, xp, xm, yp, ym;
    if (!sampleMap(map, r, &m) || !sampleMap(map, r + cv::Point2d(1, 0), &xp) ||
        !sampleMap(map, r - cv::Point2d(1, 0), &xm) || !sampleMap(map, r + cv::Point2d(0, 1), &yp) ||
        !sampleMap(map, r - cv::Point2d(0, 1), &ym)) {
      return false;
    }
    const cv::Point2d error = m - raw;
    if (std::hypot(error.x, error.y) < 1e-4) {
      *rectified = r;
      return true;
    }
    const cv::Matx22d J((xp.x - xm.x) / 2, (yp.x - ym.x) / 2, (xp.y - xm.y) / 2, (yp.y - ym.y) / 2);
    const cv::Vec2d step = J.inv() * cv::Vec2d(error.x, error.y);
    r -= cv::Point2d(step[0], step[1]);
  }
  return false;
}

cv::Point2d projectRaw(const CameraSpec& cam, double scale, const cv::Matx33d& R, const cv::Vec3d& t,
                       const cv::Point3d& point) {
  // Calibrated at 640x400, fed at 1280x800, worked on at `scale` of that.
  const double s = 2.0 * scale;
  const cv::Matx33d K(cam.fx * s, 0, cam.cx * s, 0, cam.fy * s, cam.cy * s, 0, 0, 1);
  cv::Vec3d rvec;
  cv::Rodrigues(R, rvec);
  const std::vector<cv::Point3d> points{point};
  std::vector<cv::Point2d> pixels;
  if (cam.model == "equidistant") {
    cv::fisheye::projectPoints(points, pixels, rvec, t, K, cam.coeffs);
  } else {
    cv::projectPoints(points, rvec, t, K, cam.coeffs, pixels);
  }
  return pixels[0];
}

struct RigCase {
  const char* model;
  float scale;
};

void PrintTo(const RigCase& rig, std::ostream* os) { *os << rig.model << " at scale " << rig.scale; }

class RectifiedRows : public testing::TestWithParam<RigCase> {};

TEST_P(RectifiedRows, ScenePointsShareARowAndGiveTheirDepth) {
  const RigCase rig = GetParam();
  const std::vector<CameraSpec> cams = syntheticRig(rig.model);
  TempDir dir;
  ConfigOptions options;
  options.scaling = rig.scale;
  StereoDepth pipeline;
  ASSERT_EQ(configure(pipeline, dir, options, cams), 0);

  const cv::Size size(static_cast<int>(1280 * rig.scale), static_cast<int>(800 * rig.scale));
  ASSERT_EQ(Access::map1(pipeline).size(), 2u);
  ASSERT_EQ(Access::map2(pipeline).size(), 2u);
  cv::Mat maps[2];
  for (int i = 0; i < 2; ++i) {
    const cv::Mat& m1 = Access::map1(pipeline)[i];
    const cv::Mat& m2 = Access::map2(pipeline)[i];
    EXPECT_EQ(m1.type(), CV_16SC2);
    EXPECT_EQ(m2.type(), CV_16UC1);
    ASSERT_EQ(m1.size(), size);
    ASSERT_EQ(m2.size(), size);
    cv::convertMaps(m1, m2, maps[i], cv::noArray(), CV_32FC2);
  }

  const cv::Matx33d R = cams[1].T.get_minor<3, 3>(0, 0);
  const cv::Vec3d t(cams[1].T(0, 3), cams[1].T(1, 3), cams[1].T(2, 3));
  const cv::Matx33d R1 = Access::R1(pipeline);
  const double fB = -Access::P2(pipeline).at<double>(0, 3);  // rectified focal length x baseline
  ASSERT_GT(fB, 0.0);

  int tried = 0, used = 0;
  for (double depth : {0.7, 1.5, 4.0}) {
    for (double a = -0.6; a <= 0.6001; a += 0.1) {
      for (double b = -0.4; b <= 0.4001; b += 0.1) {
        ++tried;
        const cv::Point3d point(a * depth, b * depth, depth);
        const cv::Point2d raw0 = projectRaw(cams[0], rig.scale, cv::Matx33d::eye(), cv::Vec3d(0, 0, 0), point);
        const cv::Point2d raw1 = projectRaw(cams[1], rig.scale, R, t, point);
        cv::Point2d rect0, rect1;
        if (!invertMap(maps[0], raw0, &rect0) || !invertMap(maps[1], raw1, &rect1)) continue;
        ++used;
        EXPECT_NEAR(rect0.y, rect1.y, 0.1) << "point " << point << " raw " << raw0 << " " << raw1;
        // The disparity that gives the point's depth in camera 0's rectified frame.
        const double rectifiedDepth = (R1 * cv::Vec3d(point.x, point.y, point.z))[2];
        EXPECT_NEAR(rect0.x - rect1.x, fB / rectifiedDepth, 0.1) << "point " << point;
      }
    }
  }
  // The rectified views crop the raw ones a little; nearly all the grid stays visible.
  EXPECT_GT(used, tried * 9 / 10) << used << " of " << tried;
}

INSTANTIATE_TEST_SUITE_P(Rigs, RectifiedRows,
                         testing::Values(RigCase{"radtan", 1.0f}, RigCase{"radtan", 0.5f},
                                         RigCase{"equidistant", 1.0f}, RigCase{"equidistant", 0.5f}),
                         [](const testing::TestParamInfo<RigCase>& info) {
                           return std::string(info.param.model) + (info.param.scale == 1.0f ? "Full" : "Half");
                         });

// ---- Rectify info --------------------------------------------------------------

constexpr float kSentinel = -7.25f;

LumoRectifyInfo sentinelInfo() {
  LumoRectifyInfo info;
  float* all = &info.reserved;
  for (std::size_t i = 0; i < sizeof(info) / sizeof(float); ++i) all[i] = kSentinel;
  return info;
}

TEST(RectifyInfo, ProjectionsDescribeTheHostImagesWhenRestored) {
  const std::vector<CameraSpec> cams = syntheticRig("radtan");
  // The rectification computed here from the rig itself at the 640x400 working
  // size: calibration x2 for the input, x0.5 for the work.
  const cv::Matx33d K0(cams[0].fx, 0, cams[0].cx, 0, cams[0].fy, cams[0].cy, 0, 0, 1);
  const cv::Matx33d K1(cams[1].fx, 0, cams[1].cx, 0, cams[1].fy, cams[1].cy, 0, 0, 1);
  const cv::Matx33d R = cams[1].T.get_minor<3, 3>(0, 0);
  const cv::Vec3d t(cams[1].T(0, 3), cams[1].T(1, 3), cams[1].T(2, 3));
  cv::Mat R1, R2, P1, P2, Q;
  const cv::Mat zero = cv::Mat::zeros(5, 1, CV_64F);
  cv::stereoRectify(K0, zero, K1, zero, cv::Size(640, 400), R, t, R1, R2, P1, P2, Q, cv::CALIB_ZERO_DISPARITY, 0.0,
                    cv::Size(640, 400));

  for (int restore : {0, 1}) {
    SCOPED_TRACE("restore_depth_dim " + std::to_string(restore));
    TempDir dir;
    ConfigOptions options;
    options.scaling = 0.5f;
    options.restoreDepthDim = restore;
    StereoDepth pipeline;
    ASSERT_EQ(configure(pipeline, dir, options, cams), 0);

    LumoRectifyInfo info = sentinelInfo();
    EXPECT_EQ(pipeline.getRectifyInfo(&info), 0);
    EXPECT_EQ(info.reserved, kSentinel);
    for (int i = 0; i < 9; ++i) {
      EXPECT_EQ(info.R1[i], static_cast<float>(R1.at<double>(i / 3, i % 3))) << i;
      EXPECT_EQ(info.R2[i], static_cast<float>(R2.at<double>(i / 3, i % 3))) << i;
    }
    // Focal lengths, principal points and P2's baseline term go back to the
    // input size (k = 1 / 0.5 in float); the rest stays as rectified.
    const float k = restore ? 1.0f / 0.5f : 1.0f;
    const std::vector<int> scaledP1{0, 2, 5, 6};
    const std::vector<int> scaledP2{0, 2, 3, 5, 6};
    for (int i = 0; i < 12; ++i) {
      const bool in1 = std::find(scaledP1.begin(), scaledP1.end(), i) != scaledP1.end();
      const bool in2 = std::find(scaledP2.begin(), scaledP2.end(), i) != scaledP2.end();
      EXPECT_EQ(info.P1[i], static_cast<float>(P1.at<double>(i / 4, i % 4)) * (in1 ? k : 1.0f)) << i;
      EXPECT_EQ(info.P2[i], static_cast<float>(P2.at<double>(i / 4, i % 4)) * (in2 ? k : 1.0f)) << i;
    }
  }
}

TEST(RectifyInfo, NothingToCopyBeforeAnImport) {
  TempDir dir;
  ConfigOptions options;
  options.scaling = 0.5f;
  StereoDepth pipeline;
  ASSERT_EQ(configure(pipeline, dir, options, {}), 0);
  LumoRectifyInfo info = sentinelInfo();
  EXPECT_EQ(pipeline.getRectifyInfo(&info), 1);
  for (int i = 0; i < 9; ++i) {
    EXPECT_EQ(info.R1[i], kSentinel);
    EXPECT_EQ(info.R2[i], kSentinel);
  }
  // The rescaling does not depend on the copy: it multiplies what the record held.
  EXPECT_EQ(info.P1[0], 2 * kSentinel);
  EXPECT_EQ(info.P1[3], kSentinel);
  EXPECT_EQ(info.P2[3], 2 * kSentinel);
  EXPECT_EQ(info.P2[4], kSentinel);
}

TEST(RectifyInfo, FlattenCopiesSingleChannelMatricesRowMajor) {
  float out[12];
  std::fill(out, out + 12, kSentinel);
  EXPECT_EQ(StereoDepth::flatten2DCvMat(cv::Mat(2, 2, CV_64FC3, cv::Scalar(1, 2, 3)), out), 1);
  EXPECT_EQ(StereoDepth::flatten2DCvMat(cv::Mat(), out), 1);
  EXPECT_EQ(StereoDepth::flatten2DCvMat(cv::Mat(0, 3, CV_64F), out), 1);
  for (float value : out) EXPECT_EQ(value, kSentinel);

  // A non-continuous view: columns 1..3 of a 3x5 double matrix.
  cv::Mat whole(3, 5, CV_64F);
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 5; ++c) whole.at<double>(r, c) = 10 * r + c + 0.1;
  }
  const cv::Mat view = whole.colRange(1, 4);
  ASSERT_FALSE(view.isContinuous());
  EXPECT_EQ(StereoDepth::flatten2DCvMat(view, out), 0);
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) EXPECT_EQ(out[3 * r + c], static_cast<float>(10 * r + c + 1 + 0.1)) << r << c;
  }
  EXPECT_EQ(out[9], kSentinel);
}

}  // namespace
}  // namespace KorvLumetra
