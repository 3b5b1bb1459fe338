// The configuration reader's calibration steps, the two calibration imports (file
// and tracker record) and the fatal paths; then what the import builds: the
// rectification maps on a synthetic rig, the depth ray table and the rectify info.
#include <gtest/gtest.h>
#include <unistd.h>

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
using LumoTest::calibText;
using LumoTest::captureStdout;
using LumoTest::configText;
using LumoTest::configure;
using LumoTest::syntheticRig;
using LumoTest::writeText;

bool contains(const std::string& text, const std::string& piece) { return text.find(piece) != std::string::npos; }

// Configures `pipeline` from an existing configuration file; standard output to *printed.
int initFrom(StereoDepth& pipeline, const std::string& config, std::string* printed) {
  int status = -1;
  *printed = captureStdout([&] { status = pipeline.initFromYaml(config); });
  return status;
}

// configure() finds calib.yaml beside its configuration; here the path tried, "./" and an absolute path.
TEST(CalibrationConfig, CalibPathIsTakenRelativeToTheConfigFile) {
  TempDir dir, elsewhere;
  ConfigOptions options;
  options.calibPath = "sub/missing.yaml";
  writeText(dir.file("missing.yaml"), configText(options));
  writeText(elsewhere.file("rig.yaml"), calibText(syntheticRig("radtan")));
  options.calibPath = elsewhere.file("rig.yaml");
  writeText(dir.file("absolute.yaml"), configText(options));
  std::string printed;
  StereoDepth pipeline;
  EXPECT_EQ(initFrom(pipeline, dir.file("missing.yaml"), &printed), 1);
  EXPECT_TRUE(contains(printed, "initCameraFromCalibYaml(): file not exits: " + dir.path() + "/sub/missing.yaml\n"))
      << printed;
  EXPECT_TRUE(contains(printed, "[ ERROR] initFromYaml(): init camera failed\n")) << printed;
  EXPECT_TRUE(Access::map1(pipeline).empty());
  char cwd[4096];
  ASSERT_TRUE(getcwd(cwd, sizeof(cwd)) != nullptr && chdir(dir.path().c_str()) == 0);
  EXPECT_EQ(initFrom(pipeline, "missing.yaml", &printed), 1);
  ASSERT_EQ(chdir(cwd), 0);
  EXPECT_TRUE(contains(printed, "file not exits: ./sub/missing.yaml\n")) << printed;
  EXPECT_EQ(initFrom(pipeline, dir.file("absolute.yaml"), &printed), 0);
  EXPECT_EQ(Access::map1(pipeline).size(), 2u);
}

// No calibration named: sizes are derived, nothing else is built, not even engines.
TEST(CalibrationConfig, WorkingSizesWithoutACalibration) {
  TempDir dir;
  StereoDepth pipeline;
  ASSERT_EQ(configure(pipeline, dir, ConfigOptions{1281, 801, 0.5f, 2}, {}), 0);  // input size, scale, engines
  const auto& scaled = Access::scaledSizes(pipeline);
  ASSERT_EQ(scaled.size(), 3u);
  EXPECT_TRUE(scaled[1].width == 640 && scaled[1].height == 400);  // 640.5 and 400.5, truncated
  EXPECT_EQ(Access::scaleRatios(pipeline)[0], 640.0f / 1281.0f);
  EXPECT_TRUE(pipeline.engineCount() == 0 && Access::kInput(pipeline).empty());
}

TEST(CalibrationImport, FileAndRecordFillTheSameLists) {
  for (const std::string model : {"radtan", "equidistant"}) {
    SCOPED_TRACE(model);
    const std::vector<CameraSpec> rig = syntheticRig(model);
    TempDir dir;
    // Fed at twice the calibration size, worked on at half that; engines as configured.
    const ConfigOptions options{1280, 800, 0.5f, model == "radtan" ? 2 : 0};
    StereoDepth fromFile, fromRecord;
    ASSERT_EQ(configure(fromFile, dir, options, rig), 0);
    ASSERT_EQ(configure(fromRecord, dir, options, {}), 0);
    LumoCalibrationParam record = LumoTest::calibRecord(rig);
    record.cameras[0].available_mask = record.cameras[1].available_mask = 0x0a;  // never consulted
    int status = -1;
    captureStdout([&] { status = fromRecord.initCameraFromCalib(record); });
    ASSERT_EQ(status, 0);
    for (StereoDepth* pipeline : {&fromFile, &fromRecord}) {
      SCOPED_TRACE(pipeline == &fromFile ? "file" : "record");
      EXPECT_EQ(pipeline->engineCount(), static_cast<std::size_t>(options.threadNum));
      ASSERT_TRUE(Access::kInput(*pipeline).size() == 2 && Access::kProc(*pipeline).size() == 2 &&
                  Access::distortion(*pipeline).size() == 2);
      for (int i = 0; i < 2; ++i) {
        const CameraSpec& c = rig[i];
        const cv::Matx33d kInput(2 * c.fx, 0, 2 * c.cx, 0, 2 * c.fy, 2 * c.cy, 0, 0, 1);
        const cv::Matx33d kProc(c.fx, 0, c.cx, 0, c.fy, c.cy, 0, 0, 1);
        EXPECT_EQ(cv::norm(Access::kInput(*pipeline)[i], cv::Mat(kInput), cv::NORM_INF), 0.0);
        EXPECT_EQ(cv::norm(Access::kProc(*pipeline)[i], cv::Mat(kProc), cv::NORM_INF), 0.0);
        EXPECT_EQ(std::vector<double>(Access::distortion(*pipeline)[i]), c.coeffs);
      }
      const int code = model == "radtan" ? kCamModelRadtan : kCamModelEquidistant;
      EXPECT_EQ(Access::models(*pipeline), (std::vector<int>{code, code}));
      ASSERT_EQ(Access::transforms(*pipeline).size(), 1u);
      EXPECT_FLOAT_EQ(Access::baseline(*pipeline), std::sqrt(0.1 * 0.1 + 0.003 * 0.003 + 0.002 * 0.002));
    }
    // The file keeps the transform in double; the record's floats are widened.
    const Eigen::Matrix4d T = Eigen::Map<const Eigen::Matrix<double, 4, 4, Eigen::RowMajor>>(rig[1].T.val);
    EXPECT_EQ(Access::transforms(fromFile)[0], T);
    EXPECT_EQ(Access::transforms(fromRecord)[0], T.cast<float>().cast<double>().eval());
    // Same rectification up to the record's float rounding; identical lenses, identical ray table.
    EXPECT_LT(cv::norm(Access::R1(fromFile), Access::R1(fromRecord), cv::NORM_INF), 1e-6);
    EXPECT_LT(cv::norm(Access::P2(fromFile), Access::P2(fromRecord), cv::NORM_INF), 1e-3);
    EXPECT_EQ(Access::depthLut(fromFile), Access::depthLut(fromRecord));
  }
}

// Runs `steps` on a fresh pipeline, its error lines sent to stderr for the death assertion.
template <typename Steps> void inChild(Steps&& steps) {
  std::fflush(stdout);
  dup2(STDERR_FILENO, STDOUT_FILENO);
  StereoDepth pipeline;
  steps(pipeline);
}

TEST(CalibrationDeathTest, UnequalScalesAndAnUnknownDepthCameraModelEndTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  TempDir dir;
  std::vector<CameraSpec> rig = syntheticRig("radtan");
  const LumoCalibrationParam record = LumoTest::calibRecord(rig);
  ConfigOptions options{1280, 720};  // against 640x400: sw = 2, sh = 1.8
  writeText(dir.file("calib.yaml"), calibText(rig));
  writeText(dir.file("unequal.yaml"), configText(options));
  options.calibPath.clear();
  writeText(dir.file("bare.yaml"), configText(options));
  rig[0].model = "pinhole";
  writeText(dir.file("pinhole.yaml"), calibText(rig));
  writeText(dir.file("unknown.yaml"), configText(ConfigOptions{1280, 800, 1.0f, 0, 1, "pinhole.yaml"}));

  const std::string unequal = R"(\(\): stereo depth inputs only support scale_w == scale_h, exiting)";
  EXPECT_EXIT(inChild([&](StereoDepth& p) { p.initFromYaml(dir.file("unequal.yaml")); }), testing::ExitedWithCode(255),
              R"(\[ ERROR\] initCameraFromCalibYaml)" + unequal);
  EXPECT_EXIT(inChild([&](StereoDepth& p) {
                p.initFromYaml(dir.file("bare.yaml"));
                p.initCameraFromCalib(record);
              }),
              testing::ExitedWithCode(255), R"(\[ ERROR\] initCameraFromCalib)" + unequal);
  EXPECT_EXIT(inChild([&](StereoDepth& p) { p.initFromYaml(dir.file("unknown.yaml")); }), testing::ExitedWithCode(255),
              R"(\[ ERROR\] LUTDepthGenerator\(\): unknow cam model, exiting)");
}

// The depth camera's model object is built once per pipeline, so a later import
// with an unknown camera-0 model gets past the table and fails in the rectification.
TEST(CalibrationImport, UnknownModelOnReimportFailsTheRectification) {
  TempDir dir;
  StereoDepth pipeline;
  ASSERT_EQ(configure(pipeline, dir, ConfigOptions{1280, 800, 1.0f, 1}, syntheticRig("radtan")), 0);  // one engine
  const StereoEngineBase* engine = Access::engine(pipeline, 0);
  const cv::Mat mapBefore = Access::map1(pipeline)[0].clone();

  LumoCalibrationParam record = LumoTest::calibRecord(syntheticRig("equidistant"));
  record.cameras[0].intrinsics.distortion_model = 3;  // five coefficients: no pipeline model
  record.cameras[0].intrinsics.distortion_coeffs[4] = 0.5f;
  int status = -1;
  const std::string printed = captureStdout([&] { status = pipeline.initCameraFromCalib(record); });
  EXPECT_EQ(status, 1);
  EXPECT_TRUE(contains(printed, "[ ERROR] initRectifyMap(): unrecognized camera model!\n")) << printed;
  EXPECT_EQ(Access::models(pipeline), (std::vector<int>{kCamModelUnknown, kCamModelEquidistant}));
  ASSERT_EQ(Access::distortion(pipeline)[0].total(), 5u);
  EXPECT_EQ(Access::distortion(pipeline)[0].at<double>(4), 0.5);
  // Neither the maps nor the engines are rebuilt.
  EXPECT_EQ(cv::norm(Access::map1(pipeline)[0], mapBefore, cv::NORM_INF), 0.0);
  ASSERT_EQ(pipeline.engineCount(), 1u);
  EXPECT_EQ(Access::engine(pipeline, 0), engine);
}

TEST(CalibrationImport, CalibrationFileShapes) {
  TempDir dir;
  const std::vector<CameraSpec> rig = syntheticRig("radtan");
  // Transforms under cam0 and cam2, none under cam1, which alone would set the baseline:
  // they are kept in file order, so cam0's serves as camera 0 -> 1.
  std::vector<CameraSpec> cams = rig;
  std::swap(cams[0].hasTransform, cams[1].hasTransform);
  std::swap(cams[0].T, cams[1].T);
  cams[0].coeffs.push_back(-0.0078125);
  cams.push_back(rig[1]);
  cams[2].T(0, 3) = -0.5;
  cams[2].height = 360;  // the auxiliary slot: 1920x1080 is 640x360 x3
  StereoDepth pipeline;
  ASSERT_EQ(configure(pipeline, dir, ConfigOptions{}, cams), 0);
  ASSERT_EQ(Access::transforms(pipeline).size(), 2u);
  EXPECT_EQ(Access::transforms(pipeline)[0](0, 3), -0.1);
  EXPECT_EQ(Access::transforms(pipeline)[1](0, 3), -0.5);
  EXPECT_EQ(Access::baseline(pipeline), 0.0f);
  EXPECT_EQ(Access::kInput(pipeline).size(), 3u);
  EXPECT_EQ(std::vector<double>(Access::distortion(pipeline)[0]), cams[0].coeffs);
}

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
  EXPECT_EQ(std::vector<float>({info.R1[4], info.R2[8], info.P1[0], info.P1[3], info.P2[3], info.P2[4]}),
            std::vector<float>({kSentinel, kSentinel, 2 * kSentinel, kSentinel, 2 * kSentinel, kSentinel}));
  // A matrix of several channels, or of none, is refused untouched.
  EXPECT_EQ(StereoDepth::flatten2DCvMat(cv::Mat(2, 2, CV_64FC3, cv::Scalar(1, 2, 3)), info.R1), 1);
  EXPECT_EQ(StereoDepth::flatten2DCvMat(cv::Mat(0, 3, CV_64F), info.R1), 1);
  EXPECT_EQ(info.R1[0], kSentinel);
}

}  // namespace
}  // namespace KorvLumetra
