// The configuration reader's calibration steps and the two calibration imports (file
// and tracker record): the per-camera lists they fill, the tracker dump, the fatal paths.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <string>
#include <vector>

#include "pipeline/StereoDepth.h"
#include "support/CalibrationFixtures.h"
#include "support/CaptureOutput.h"

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
  {
    LumoTest::ScopedChdir inDir(dir.path());
    ASSERT_TRUE(inDir.ok());
    EXPECT_EQ(initFrom(pipeline, "missing.yaml", &printed), 1);
    EXPECT_TRUE(contains(printed, "file not exits: ./sub/missing.yaml\n")) << printed;
  }
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
  EXPECT_EQ(scaled[1].width, 640);  // 640.5 and 400.5, truncated
  EXPECT_EQ(scaled[1].height, 400);
  EXPECT_EQ(scaled[2].width * scaled[2].height, 1920 * 1080);  // auxiliary camera at its default size and scale
  EXPECT_EQ(Access::scaleRatios(pipeline)[0], 640.0f / 1281.0f);
  EXPECT_EQ(pipeline.engineCount(), 0u);
  EXPECT_TRUE(Access::kInput(pipeline).empty());
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
    int status = -1;
    captureStdout([&] { status = fromRecord.initCameraFromCalib(LumoTest::calibRecord(rig)); });
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

// The dump decodes the availability mask bit by bit; the import never consults it.
TEST(CalibrationImport, TrackerDumpDecodesTheMaskWhichTheImportIgnores) {
  TempDir dir;
  StereoDepth pipeline;
  ASSERT_EQ(configure(pipeline, dir, ConfigOptions{}, {}), 0);
  LumoCalibrationParam calib = LumoTest::calibRecord(syntheticRig("radtan"));
  calib.cameras[0].available_mask = calib.cameras[1].available_mask = 0x0a;  // intrinsics marked invalid
  int status = -1;
  const std::string printed = captureStdout([&] { status = pipeline.initCameraFromCalib(calib); });
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(contains(printed, "Available mask:     0x0a\nMask legend:\n  Bit0(0x01): Intrinsics  = Invalid\n"
                                "  Bit1(0x02): T_cn_cnm1   = Valid\n  Bit2(0x04): T_cn_imu    = Invalid\n"
                                "  Bit3(0x08): Timeshift   = Valid\n"))
      << printed;
  EXPECT_TRUE(contains(printed, "  fx: 400.5000000000000000   fy: 401.2500000000000000\n")) << printed;
  EXPECT_EQ(Access::kInput(pipeline).size(), 2u);
}

// Runs `steps` on a fresh pipeline, its error lines sent to stderr for the death assertion.
template <typename Steps>
void inChild(Steps&& steps) {
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
  // Transforms under cam0 and cam2, none under cam1, which alone would set the baseline: each
  // prints a "calib: " block and is kept in file order, so cam0's serves as camera 0 -> 1.
  std::vector<CameraSpec> cams = rig;
  std::swap(cams[0].hasTransform, cams[1].hasTransform);
  std::swap(cams[0].T, cams[1].T);
  cams[0].coeffs.push_back(-0.0078125);
  cams.push_back(rig[1]);
  cams[2].T(0, 3) = -0.5;
  cams[2].height = 360;  // the auxiliary slot: 1920x1080 is 640x360 x3
  StereoDepth pipeline;
  std::string printed;
  ASSERT_EQ(configure(pipeline, dir, ConfigOptions{}, cams, &printed), 0);
  std::size_t blocks = 0;
  for (auto at = printed.find("calib: "); at != std::string::npos; at = printed.find("calib: ", at + 1)) ++blocks;
  EXPECT_EQ(blocks, 2u) << printed;
  ASSERT_EQ(Access::transforms(pipeline).size(), 2u);
  EXPECT_EQ(Access::transforms(pipeline)[0](0, 3), -0.1);
  EXPECT_EQ(Access::transforms(pipeline)[1](0, 3), -0.5);
  EXPECT_EQ(Access::baseline(pipeline), 0.0f);
  EXPECT_EQ(Access::kInput(pipeline).size(), 3u);
  EXPECT_EQ(std::vector<double>(Access::distortion(pipeline)[0]), cams[0].coeffs);
}

}  // namespace
}  // namespace KorvLumetra
