// Rectification maps on a synthetic rig, the depth ray table, the rectify info
// handed to the host and the matrix flattening behind it.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include "pipeline/StereoDepth.h"
#include "support/CalibrationFixtures.h"

namespace KorvLumetra {
namespace {

using Access = StereoDepthTestAccess;
using LumoTest::CameraSpec;
using LumoTest::ConfigOptions;
using LumoTest::TempDir;
using LumoTest::configure;
using LumoTest::syntheticRig;

// Calibrated at 640x400, fed at 1280x800, worked on at `scale` of that.
cv::Point2d projectRaw(const CameraSpec& cam, double scale, const cv::Matx33d& R, const cv::Vec3d& t,
                       const cv::Vec3d& point) {
  const double s = 2.0 * scale;
  const cv::Matx33d K(cam.fx * s, 0, cam.cx * s, 0, cam.fy * s, cam.cy * s, 0, 0, 1);
  cv::Vec3d rvec;
  cv::Rodrigues(R, rvec);
  std::vector<cv::Point2d> pixels;
  if (cam.model == "equidistant") {
    cv::fisheye::projectPoints(std::vector<cv::Point3d>{point}, pixels, rvec, t, K, cam.coeffs);
  } else {
    cv::projectPoints(std::vector<cv::Point3d>{point}, rvec, t, K, cam.coeffs, pixels);
  }
  return pixels[0];
}

// A point seen at rectified (u, v) on the left and (u - d, v) on the right, at
// the depth that disparity d gives, must be fetched from its raw projections.
void expectMapsFetchScenePoints(const char* model, float scale) {
  SCOPED_TRACE(model);
  const std::vector<CameraSpec> cams = syntheticRig(model);
  TempDir dir;
  StereoDepth pipeline;
  ASSERT_EQ(configure(pipeline, dir, ConfigOptions{1280, 800, scale}, cams), 0);

  const cv::Size size(static_cast<int>(1280 * scale), static_cast<int>(800 * scale));
  ASSERT_TRUE(Access::map1(pipeline).size() == 2 && Access::map2(pipeline).size() == 2);
  cv::Mat maps[2];
  for (int i = 0; i < 2; ++i) {
    const cv::Mat &m1 = Access::map1(pipeline)[i], &m2 = Access::map2(pipeline)[i];
    ASSERT_TRUE(m1.type() == CV_16SC2 && m2.type() == CV_16UC1 && m1.size() == size && m2.size() == size);
    cv::convertMaps(m1, m2, maps[i], cv::noArray(), CV_32FC2);
  }
  const cv::Matx33d R = cams[1].T.get_minor<3, 3>(0, 0), toCamera0 = cv::Matx33d(Access::R1(pipeline)).t();
  const cv::Vec3d t(cams[1].T(0, 3), cams[1].T(1, 3), cams[1].T(2, 3));
  const cv::Matx34d P(Access::P1(pipeline));
  const double fB = -Access::P2(pipeline).at<double>(0, 3);  // rectified focal length x baseline
  ASSERT_GT(fB, 0.0);
  for (double depth : {0.7, 1.5, 4.0}) {
    const int d = static_cast<int>(std::lround(fB / depth));
    const double z = fB / d;
    for (int v = size.height / 8; v < size.height; v += size.height / 8) {
      for (int u = size.width / 4; u < size.width; u += size.width / 8) {
        const cv::Vec3d X = toCamera0 * cv::Vec3d((u - P(0, 2)) / P(0, 0) * z, (v - P(1, 2)) / P(1, 1) * z, z);
        const cv::Point2d raw0 = projectRaw(cams[0], scale, cv::Matx33d::eye(), cv::Vec3d(), X);
        const cv::Point2d raw1 = projectRaw(cams[1], scale, R, t, X);
        const cv::Vec2f left = maps[0].at<cv::Vec2f>(v, u), right = maps[1].at<cv::Vec2f>(v, u - d);
        EXPECT_LT(cv::norm(cv::Point2d(left[0], left[1]) - raw0), 0.1) << u << "," << v << " d " << d;
        EXPECT_LT(cv::norm(cv::Point2d(right[0], right[1]) - raw1), 0.1) << u << "," << v << " d " << d;
      }
    }
  }
}

TEST(RectifiedMaps, FetchEachScenePointFromItsRawPixels) {
  expectMapsFetchScenePoints("radtan", 0.5f);
  expectMapsFetchScenePoints("equidistant", 1.0f);
}

constexpr float kSentinel = -7.25f;

LumoRectifyInfo sentinelInfo() {
  LumoRectifyInfo info;
  float* all = &info.reserved;
  for (std::size_t i = 0; i < sizeof(info) / sizeof(float); ++i) all[i] = kSentinel;
  return info;
}

// restore_depth_dim puts the depth ray table and the rectify info at the input size (1280x800,
// calibration x2), else at the working size (640x400, x1). Without distortion the table holds
// pinhole rays ((u - cx) / fx, (v - cy) / fy); the lens model only has to be accepted.
TEST(RectifyInfo, TableAndProjectionsDescribeTheHostImagesWhenRestored) {
  std::vector<CameraSpec> cams = syntheticRig("radtan");
  // The rectification of the rig itself at the working size.
  const cv::Matx33d K0(cams[0].fx, 0, cams[0].cx, 0, cams[0].fy, cams[0].cy, 0, 0, 1);
  const cv::Matx33d K1(cams[1].fx, 0, cams[1].cx, 0, cams[1].fy, cams[1].cy, 0, 0, 1);
  const cv::Vec3d t(cams[1].T(0, 3), cams[1].T(1, 3), cams[1].T(2, 3));
  cv::Mat R1, R2, P1, P2, Q;
  const cv::Mat zero = cv::Mat::zeros(5, 1, CV_64F);
  cv::stereoRectify(K0, zero, K1, zero, cv::Size(640, 400), cv::Matx33d(cams[1].T.get_minor<3, 3>(0, 0)), t, R1, R2,
                    P1, P2, Q, cv::CALIB_ZERO_DISPARITY, 0.0, cv::Size(640, 400));
  for (const auto& [model, restore] : {std::make_pair("radtan", 1), std::make_pair("cvbasic", 0)}) {
    SCOPED_TRACE(model);
    for (CameraSpec& cam : cams) cam.model = model, cam.coeffs.assign(restore ? 4 : 5, 0.0);
    TempDir dir;
    StereoDepth pipeline;
    ASSERT_EQ(configure(pipeline, dir, ConfigOptions{1280, 800, 0.5f, 0, restore}, cams), 0);
    const int W = restore ? 1280 : 640, H = restore ? 800 : 400;
    const double s = restore ? 2.0 : 1.0;
    const std::vector<float>& lut = Access::depthLut(pipeline);
    ASSERT_EQ(lut.size(), 2u * W * H);
    int bad = 0;
    for (int i = 0; i < W * H; ++i) {
      // Float rounding of -cx/fx and of the result: a few 1e-8 at |x| < 1.
      bad += std::fabs(lut[2 * i] - (i % W - cams[0].cx * s) / (cams[0].fx * s)) > 3e-7 ||
             std::fabs(lut[2 * i + 1] - (i / W - cams[0].cy * s) / (cams[0].fy * s)) > 3e-7;
    }
    EXPECT_EQ(bad, 0);

    LumoRectifyInfo info = sentinelInfo();
    EXPECT_EQ(pipeline.getRectifyInfo(&info), 0);
    EXPECT_EQ(info.reserved, kSentinel);
    for (int i = 0; i < 9; ++i) {
      EXPECT_EQ(info.R1[i], static_cast<float>(R1.at<double>(i / 3, i % 3))) << i;
      EXPECT_EQ(info.R2[i], static_cast<float>(R2.at<double>(i / 3, i % 3))) << i;
    }
    // Focal lengths, principal points and P2's baseline term go back to the input size.
    const float k = restore ? 1.0f / 0.5f : 1.0f;
    for (int i = 0; i < 12; ++i) {
      const bool scaled = i == 0 || i == 2 || i == 5 || i == 6;
      EXPECT_EQ(info.P1[i], static_cast<float>(P1.at<double>(i / 4, i % 4)) * (scaled ? k : 1.0f)) << i;
      EXPECT_EQ(info.P2[i], static_cast<float>(P2.at<double>(i / 4, i % 4)) * (scaled || i == 3 ? k : 1.0f)) << i;
    }
  }
}

// Before an import nothing is copied, yet the rescaling multiplies whatever the record held.
TEST(RectifyInfo, NothingToCopyBeforeAnImport) {
  TempDir dir;
  StereoDepth pipeline;
  ASSERT_EQ(configure(pipeline, dir, ConfigOptions{1280, 800, 0.5f}, {}), 0);
  LumoRectifyInfo info = sentinelInfo();
  EXPECT_EQ(pipeline.getRectifyInfo(&info), 1);
  EXPECT_EQ(info.R1[4], kSentinel);
  EXPECT_EQ(info.R2[8], kSentinel);
  EXPECT_EQ(info.P1[0], 2 * kSentinel);
  EXPECT_EQ(info.P1[3], kSentinel);
  EXPECT_EQ(info.P2[3], 2 * kSentinel);
  EXPECT_EQ(info.P2[4], kSentinel);
  // A matrix of several channels, or of none, is refused untouched.
  EXPECT_EQ(StereoDepth::flatten2DCvMat(cv::Mat(2, 2, CV_64FC3, cv::Scalar(1, 2, 3)), info.R1), 1);
  EXPECT_EQ(StereoDepth::flatten2DCvMat(cv::Mat(0, 3, CV_64F), info.R1), 1);
  EXPECT_EQ(info.R1[0], kSentinel);
}

}  // namespace
}  // namespace KorvLumetra
