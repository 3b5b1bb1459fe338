// The configuration reader's calibration steps and the two calibration imports
// (calibration file and tracker record): the per-camera lists they fill, the
// tracker dump, the fatal paths and the depth ray table.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <regex>
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

std::size_t countOf(const std::string& text, const std::string& piece) {
  std::size_t count = 0;
  for (std::size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1)) ++count;
  return count;
}

bool contains(const std::string& text, const std::string& piece) { return text.find(piece) != std::string::npos; }

// Configures `pipeline` from an existing configuration file; standard output to *printed.
int initFrom(StereoDepth& pipeline, const std::string& config, std::string* printed = nullptr) {
  int status = -1;
  const std::string out = captureStdout([&] { status = pipeline.initFromYaml(config); });
  if (printed != nullptr) *printed = out;
  return status;
}

// ---- Configuration -----------------------------------------------------------

TEST(CalibrationConfig, CalibPathIsTakenRelativeToTheConfigFile) {
  TempDir dir;
  writeText(dir.file("calib.yaml"), calibText(syntheticRig("radtan")));
  ConfigOptions options;
  writeText(dir.file("cfg.yaml"), configText(options));
  {
    StereoDepth pipeline;
    EXPECT_EQ(initFrom(pipeline, dir.file("cfg.yaml")), 0);
    EXPECT_EQ(Access::kInput(pipeline).size(), 2u);
    EXPECT_EQ(Access::map1(pipeline).size(), 2u);
  }

  // The missing-file message shows the path that was actually tried.
  options.calibPath = "sub/missing.yaml";
  writeText(dir.file("cfg_missing.yaml"), configText(options));
  {
    StereoDepth pipeline;
    std::string printed;
    EXPECT_EQ(initFrom(pipeline, dir.file("cfg_missing.yaml"), &printed), 1);
    EXPECT_TRUE(contains(printed, "initCameraFromCalibYaml(): file not exits: " + dir.path() + "/sub/missing.yaml\n"))
        << printed;
    EXPECT_TRUE(contains(printed, "[ ERROR] initFromYaml(): init camera failed\n")) << printed;
    EXPECT_TRUE(Access::map1(pipeline).empty());
  }

  // A bare file name: its calibration is looked up from "./".
  {
    LumoTest::ScopedChdir inDir(dir.path());
    ASSERT_TRUE(inDir.ok());
    StereoDepth pipeline;
    std::string printed;
    EXPECT_EQ(initFrom(pipeline, "cfg_missing.yaml", &printed), 1);
    EXPECT_TRUE(contains(printed, "file not exits: ./sub/missing.yaml\n")) << printed;
  }

  // An absolute calibration path is used as it stands.
  TempDir elsewhere;
  writeText(elsewhere.file("rig.yaml"), calibText(syntheticRig("radtan")));
  options.calibPath = elsewhere.file("rig.yaml");
  writeText(dir.file("absolute.yaml"), configText(options));
  StereoDepth pipeline;
  EXPECT_EQ(initFrom(pipeline, dir.file("absolute.yaml")), 0);
  EXPECT_EQ(Access::map1(pipeline).size(), 2u);
}

// No calibration named: sizes are derived, nothing else is built, not even engines.
TEST(CalibrationConfig, WorkingSizesWithoutACalibration) {
  TempDir dir;
  ConfigOptions options;
  options.width = 1281;
  options.height = 801;
  options.scaling = 0.5f;
  options.threadNum = 2;
  StereoDepth pipeline;
  ASSERT_EQ(configure(pipeline, dir, options, {}), 0);
  const auto& scaled = Access::scaledSizes(pipeline);
  ASSERT_EQ(scaled.size(), 3u);
  // 1281 * 0.5 = 640.5 and 801 * 0.5 = 400.5, truncated.
  EXPECT_EQ(scaled[0].width, 640);
  EXPECT_EQ(scaled[0].height, 400);
  EXPECT_EQ(scaled[1].width, 640);
  EXPECT_EQ(scaled[2].width, 1920);  // auxiliary camera at its default size and scale
  EXPECT_EQ(scaled[2].height, 1080);
  EXPECT_EQ(Access::scaleRatios(pipeline)[0], 640.0f / 1281.0f);
  EXPECT_EQ(Access::scaleRatios(pipeline)[2], 1.0f);
  EXPECT_EQ(pipeline.engineCount(), 0u);
  EXPECT_TRUE(Access::map1(pipeline).empty());
  EXPECT_TRUE(Access::kInput(pipeline).empty());
  EXPECT_TRUE(Access::P1(pipeline).empty());
}

// ---- The two imports agree ---------------------------------------------------

TEST(CalibrationImport, FileAndRecordFillTheSameLists) {
  for (const char* model : {"radtan", "equidistant"}) {
    SCOPED_TRACE(model);
    const std::vector<CameraSpec> rig = syntheticRig(model);
    TempDir dir;
    ConfigOptions options;
    options.scaling = 0.5f;
    options.threadNum = std::string(model) == "radtan" ? 2 : 0;  // engines built or rebuilt: that many, none for 0
    StereoDepth fromFile;
    ASSERT_EQ(configure(fromFile, dir, options, rig), 0);
    StereoDepth fromRecord;
    ASSERT_EQ(configure(fromRecord, dir, options, {}), 0);
    int status = -1;
    captureStdout([&] { status = fromRecord.initCameraFromCalib(LumoTest::calibRecord(rig)); });
    ASSERT_EQ(status, 0);

    for (StereoDepth* pipeline : {&fromFile, &fromRecord}) {
      EXPECT_EQ(pipeline->engineCount(), static_cast<std::size_t>(options.threadNum))
          << (pipeline == &fromFile ? "file" : "record");
      ASSERT_EQ(Access::kInput(*pipeline).size(), 2u);
      ASSERT_EQ(Access::kProc(*pipeline).size(), 2u);
      ASSERT_EQ(Access::distortion(*pipeline).size(), 2u);
      for (int i = 0; i < 2; ++i) {
        const CameraSpec& c = rig[i];
        // Calibrated at 640x400, fed at 1280x800 (x2), worked on at half that.
        const cv::Matx33d kInput(2 * c.fx, 0, 2 * c.cx, 0, 2 * c.fy, 2 * c.cy, 0, 0, 1);
        const cv::Matx33d kProc(c.fx, 0, c.cx, 0, c.fy, c.cy, 0, 0, 1);
        EXPECT_EQ(cv::norm(Access::kInput(*pipeline)[i], cv::Mat(kInput), cv::NORM_INF), 0.0);
        EXPECT_EQ(cv::norm(Access::kProc(*pipeline)[i], cv::Mat(kProc), cv::NORM_INF), 0.0);
        const cv::Mat& D = Access::distortion(*pipeline)[i];
        ASSERT_EQ(D.total(), 4u);
        for (int j = 0; j < 4; ++j) EXPECT_EQ(D.at<double>(j), c.coeffs[j]);
      }
      const int code = std::string(model) == "radtan" ? kCamModelRadtan : kCamModelEquidistant;
      EXPECT_EQ(Access::models(*pipeline), (std::vector<int>{code, code}));
      ASSERT_EQ(Access::transforms(*pipeline).size(), 1u);
      const double norm = std::sqrt(0.1 * 0.1 + 0.003 * 0.003 + 0.002 * 0.002);
      EXPECT_FLOAT_EQ(Access::baseline(*pipeline), static_cast<float>(norm));
    }

    // The file keeps the transform in double; the record's floats are widened.
    const Eigen::Matrix4d& tFile = Access::transforms(fromFile)[0];
    const Eigen::Matrix4d& tRecord = Access::transforms(fromRecord)[0];
    for (int r = 0; r < 4; ++r) {
      for (int c = 0; c < 4; ++c) {
        EXPECT_EQ(tFile(r, c), rig[1].T(r, c));
        const double narrowed = r < 3 ? static_cast<double>(static_cast<float>(rig[1].T(r, c))) : rig[1].T(r, c);
        EXPECT_EQ(tRecord(r, c), narrowed);
      }
    }

    // Same rectification up to the record's float rounding of the rotation.
    EXPECT_LT(cv::norm(Access::R1(fromFile), Access::R1(fromRecord), cv::NORM_INF), 1e-6);
    EXPECT_LT(cv::norm(Access::P1(fromFile), Access::P1(fromRecord), cv::NORM_INF), 1e-3);
    EXPECT_LT(cv::norm(Access::P2(fromFile), Access::P2(fromRecord), cv::NORM_INF), 1e-3);
    // Identical intrinsics and lenses give the identical ray table.
    EXPECT_EQ(Access::depthLut(fromFile), Access::depthLut(fromRecord));
  }
}

// ---- The tracker dump --------------------------------------------------------

LumoCalibrationParam dumpRecord() {
  // Dyadic values throughout, so every printed digit is exact.
  LumoCalibrationParam calib{};
  calib.num_cameras = 2;
  calib.downsize_ratio = 3;
  calib.accel_noise_density = 0.001953125;
  calib.accel_random_walk = 0.0001220703125;
  calib.gyro_noise_density = 0.000244140625;
  calib.gyro_random_walk = 0.0000152587890625;
  calib.imu_update_rate = 200.5f;

  LumoCameraCalib& a = calib.cameras[0];
  a.camera_id = 4;
  a.available_mask = 0x05;
  a.timeshift = -0.001953125;
  a.intrinsics = LumoIntrinsics{1, {}, 640, 400, 400.5f, 401.25f, 322.75f, 198.5f, {0.25f, -1.5f, 0.0f, 3.0f}, 2, {},
                                {-0.125f, 0.015625f, 0.0001220703125f, -0.000244140625f, 0.5f, 0.0f, 0.0f, 0.125f}};
  a.T_cn_imu = LumoExtrinsics{{0, -1, 0, 1, 0, 0, 0, 0, 1}, {0.0625f, -0.03125f, 0.5f}};

  LumoCameraCalib& b = calib.cameras[1];
  b.camera_id = 7;
  b.available_mask = 0x1b;
  b.timeshift = 0.25;
  b.intrinsics = LumoIntrinsics{1, {}, 640, 400, 402.0f, 402.75f, 318.25f, 203.5f, {}, 2, {},
                                {-0.109375f, 0.0234375f, -0.0001220703125f, 0.0001220703125f}};
  b.T_cn_imu = LumoExtrinsics{{1, 0, 0, 0, 1, 0, 0, 0, 1}, {-0.0625f, 0.0f, 0.5f}};
  b.T_cn_cnm1 = LumoExtrinsics{{1, 0, 0, 0, 1, 0, 0, 0, 1}, {-0.125f, 0.0078125f, 0.0f}};
  return calib;
}

// Written from the dump's layout: puts() texts gain a line end, printf() texts
// carry their own, so "\n\n" leaves a blank line.
const char* const kChainHeader =
    "[Camera Chain]\n"
    "Number of cameras: 2\n"
    "Downsize ratio:    3\n"
    "\n"
    "[IMU Parameters]\n"
    "Accel noise density:  0.0019531250000000\n"
    "Accel random walk:    0.0001220703125000\n"
    "Gyro noise density:   0.0002441406250000\n"
    "Gyro random walk:     0.0000152587890625\n"
    "IMU update rate:      200.500000 Hz\n"
    "\n";

const char* const kCameraBlocks =
    "========================================\n"
    "            Camera 4 Parameters            \n"
    "========================================\n"
    "[Basic Info]\n"
    "Camera ID:          4\n"
    "Available mask:     0x05\n"
    "Mask legend:\n"
    "  Bit0(0x01): Intrinsics  = Valid\n"
    "  Bit1(0x02): T_cn_cnm1   = Invalid\n"
    "  Bit2(0x04): T_cn_imu    = Valid\n"
    "  Bit3(0x08): Timeshift   = Invalid\n"
    "Cam-IMU time shift: -0.0019531250000000 s (t_imu - t_cam)\n"
    "\n"
    "[Intrinsics]\n"
    "Camera model:   1\n"
    "Resolution:     640 x 400\n"
    "Intrinsic matrix:\n"
    "  fx: 400.5000000000000000   fy: 401.2500000000000000\n"
    "  cx: 322.7500000000000000   cy: 198.5000000000000000\n"
    "Intrinsic extra: [0.250000, -1.500000, 0.000000, 3.000000]\n"
    "\n"
    "[Distortion]\n"
    "Distortion model: 2\n"
    "Distortion coeffs (8):\n"
    "  [-0.1250000000000000, 0.0156250000000000, 0.0001220703125000, -0.0002441406250000, 0.500000, 0.000000, "
    "0.000000, 0.125000]\n"
    "\n"
    "[Extrinsics T_cn_imu (IMU \xe2\x86\x92 Camera)]\n"
    "Rotation matrix (3x3 row-major):\n"
    "  [0.0000000000000000, -1.0000000000000000, 0.0000000000000000]\n"
    "  [1.0000000000000000, 0.0000000000000000, 0.0000000000000000]\n"
    "  [0.0000000000000000, 0.0000000000000000, 1.0000000000000000]\n"
    "Translation vector: [0.0625000000000000, -0.0312500000000000, 0.5000000000000000]\n"
    "\n"
    "[Extrinsics T_cn_cnm1 (Prev Cam \xe2\x86\x92 Cam)]\n"
    "Rotation matrix (3x3 row-major):\n"
    "  [0.0000000000000000, 0.0000000000000000, 0.0000000000000000]\n"
    "  [0.0000000000000000, 0.0000000000000000, 0.0000000000000000]\n"
    "  [0.0000000000000000, 0.0000000000000000, 0.0000000000000000]\n"
    "Translation vector: [0.0000000000000000, 0.0000000000000000, 0.0000000000000000]\n"
    "\n"
    "========================================\n"
    "            Camera 7 Parameters            \n"
    "========================================\n"
    "[Basic Info]\n"
    "Camera ID:          7\n"
    "Available mask:     0x1b\n"
    "Mask legend:\n"
    "  Bit0(0x01): Intrinsics  = Valid\n"
    "  Bit1(0x02): T_cn_cnm1   = Valid\n"
    "  Bit2(0x04): T_cn_imu    = Invalid\n"
    "  Bit3(0x08): Timeshift   = Valid\n"
    "Cam-IMU time shift: 0.2500000000000000 s (t_imu - t_cam)\n"
    "\n"
    "[Intrinsics]\n"
    "Camera model:   1\n"
    "Resolution:     640 x 400\n"
    "Intrinsic matrix:\n"
    "  fx: 402.0000000000000000   fy: 402.7500000000000000\n"
    "  cx: 318.2500000000000000   cy: 203.5000000000000000\n"
    "Intrinsic extra: [0.000000, 0.000000, 0.000000, 0.000000]\n"
    "\n"
    "[Distortion]\n"
    "Distortion model: 2\n"
    "Distortion coeffs (8):\n"
    "  [-0.1093750000000000, 0.0234375000000000, -0.0001220703125000, 0.0001220703125000, 0.000000, 0.000000, "
    "0.000000, 0.000000]\n"
    "\n"
    "[Extrinsics T_cn_imu (IMU \xe2\x86\x92 Camera)]\n"
    "Rotation matrix (3x3 row-major):\n"
    "  [1.0000000000000000, 0.0000000000000000, 0.0000000000000000]\n"
    "  [0.0000000000000000, 1.0000000000000000, 0.0000000000000000]\n"
    "  [0.0000000000000000, 0.0000000000000000, 1.0000000000000000]\n"
    "Translation vector: [-0.0625000000000000, 0.0000000000000000, 0.5000000000000000]\n"
    "\n"
    "[Extrinsics T_cn_cnm1 (Prev Cam \xe2\x86\x92 Cam)]\n"
    "Rotation matrix (3x3 row-major):\n"
    "  [1.0000000000000000, 0.0000000000000000, 0.0000000000000000]\n"
    "  [0.0000000000000000, 1.0000000000000000, 0.0000000000000000]\n"
    "  [0.0000000000000000, 0.0000000000000000, 1.0000000000000000]\n"
    "Translation vector: [-0.1250000000000000, 0.0078125000000000, 0.0000000000000000]\n"
    "\n";

const char* const kClosingRule = "========================================\n";

// The remainder must be exactly one error line from initCameraFromCalib.
void expectErrorLine(const std::string& rest, const std::string& message) {
  const std::regex line(R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} \[ ERROR\] initCameraFromCalib\(\): )" + message +
                        "\n");
  EXPECT_TRUE(std::regex_match(rest, line)) << rest;
}

TEST(CalibrationImport, TrackerRecordIsDumpedInFull) {
  TempDir dir;
  StereoDepth pipeline;
  ASSERT_EQ(configure(pipeline, dir, ConfigOptions{}, {}), 0);
  const LumoCalibrationParam calib = dumpRecord();
  int status = -1;
  const std::string printed = captureStdout([&] { status = pipeline.initCameraFromCalib(calib); });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(printed, std::string(kChainHeader) + kCameraBlocks + kClosingRule);
  // The masks are printed, never consulted: camera 0's invalid transform is not
  // used, camera 1's is imported.
  EXPECT_EQ(Access::transforms(pipeline).size(), 1u);
  EXPECT_FLOAT_EQ(Access::baseline(pipeline), std::sqrt(0.125f * 0.125f + 0.0078125f * 0.0078125f));

  // No cameras: the header, the IMU block and the closing rule, then the error.
  LumoCalibrationParam empty = calib;
  empty.num_cameras = 0;
  std::string header = kChainHeader;
  header.replace(header.find("cameras: 2"), 10, "cameras: 0");
  const std::string none = captureStdout([&] { status = pipeline.initCameraFromCalib(empty); });
  EXPECT_EQ(status, 1);
  const std::string expected = header + kClosingRule;
  ASSERT_EQ(none.substr(0, expected.size()), expected);
  expectErrorLine(none.substr(expected.size()), "initCameraFromCalib: no extrinsics found");
  EXPECT_TRUE(Access::kInput(pipeline).empty());
}

// ---- Fatal and failing models ------------------------------------------------

class CalibrationDeathTest : public testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

// The error line goes to standard output; the death assertion reads stderr.
void stdoutToStderr() {
  std::fflush(stdout);
  dup2(STDERR_FILENO, STDOUT_FILENO);
}

TEST_F(CalibrationDeathTest, UnequalScalesEndTheProcess) {
  TempDir dir;
  ConfigOptions options;
  options.width = 1280;
  options.height = 720;  // against 640x400: sw = 2, sh = 1.8
  writeText(dir.file("calib.yaml"), calibText(syntheticRig("radtan")));
  writeText(dir.file("cfg.yaml"), configText(options));
  EXPECT_EXIT(
      {
        stdoutToStderr();
        StereoDepth pipeline;
        pipeline.initFromYaml(dir.file("cfg.yaml"));
      },
      testing::ExitedWithCode(255),
      R"(\[ ERROR\] initCameraFromCalibYaml\(\): stereo depth inputs only support scale_w == scale_h, exiting)");

  options.calibPath.clear();
  writeText(dir.file("bare.yaml"), configText(options));
  const LumoCalibrationParam record = LumoTest::calibRecord(syntheticRig("radtan"));
  EXPECT_EXIT(
      {
        stdoutToStderr();
        StereoDepth pipeline;
        pipeline.initFromYaml(dir.file("bare.yaml"));
        pipeline.initCameraFromCalib(record);
      },
      testing::ExitedWithCode(255),
      R"(\[ ERROR\] initCameraFromCalib\(\): stereo depth inputs only support scale_w == scale_h, exiting)");
}

TEST_F(CalibrationDeathTest, UnknownDepthCameraModelEndsTheProcess) {
  TempDir dir;
  std::vector<CameraSpec> rig = syntheticRig("radtan");
  rig[0].model = "pinhole";
  ConfigOptions options;
  writeText(dir.file("calib.yaml"), calibText(rig));
  writeText(dir.file("cfg.yaml"), configText(options));
  EXPECT_EXIT(
      {
        stdoutToStderr();
        StereoDepth pipeline;
        pipeline.initFromYaml(dir.file("cfg.yaml"));
      },
      testing::ExitedWithCode(255), R"(\[ ERROR\] LUTDepthGenerator\(\): unknow cam model, exiting)");

  // The record's five-coefficient code has no pipeline model.
  LumoCalibrationParam record = LumoTest::calibRecord(syntheticRig("radtan"));
  record.cameras[0].intrinsics.distortion_model = 3;
  options.calibPath.clear();
  writeText(dir.file("bare.yaml"), configText(options));
  EXPECT_EXIT(
      {
        stdoutToStderr();
        StereoDepth pipeline;
        pipeline.initFromYaml(dir.file("bare.yaml"));
        pipeline.initCameraFromCalib(record);
      },
      testing::ExitedWithCode(255), "unknow cam model, exiting");
}

// The depth camera's model object is built once per pipeline, so a later import
// with an unknown camera-0 model gets past the table and fails in the rectification.
TEST(CalibrationImport, UnknownModelOnReimportFailsTheRectification) {
  TempDir dir;
  ConfigOptions options;
  options.threadNum = 1;
  StereoDepth pipeline;
  ASSERT_EQ(configure(pipeline, dir, options, syntheticRig("radtan")), 0);
  ASSERT_EQ(pipeline.engineCount(), 1u);
  const StereoEngineBase* engine = Access::engine(pipeline, 0);
  const cv::Mat mapBefore = Access::map1(pipeline)[0].clone();

  LumoCalibrationParam record = LumoTest::calibRecord(syntheticRig("equidistant"));
  record.cameras[0].intrinsics.distortion_model = 3;
  record.cameras[0].intrinsics.distortion_coeffs[4] = 0.5f;
  int status = -1;
  std::string printed = captureStdout([&] { status = pipeline.initCameraFromCalib(record); });
  EXPECT_EQ(status, 1);
  EXPECT_TRUE(contains(printed, "[ ERROR] initRectifyMap(): unrecognized camera model!\n")) << printed;
  EXPECT_EQ(Access::models(pipeline), (std::vector<int>{kCamModelUnknown, kCamModelEquidistant}));
  ASSERT_EQ(Access::distortion(pipeline)[0].total(), 5u);
  EXPECT_EQ(Access::distortion(pipeline)[0].at<double>(4), 0.5);
  // Neither the maps nor the engines are rebuilt.
  EXPECT_EQ(cv::norm(Access::map1(pipeline)[0], mapBefore, cv::NORM_INF), 0.0);
  ASSERT_EQ(pipeline.engineCount(), 1u);
  EXPECT_EQ(Access::engine(pipeline, 0), engine);

  // The same through a second configuration whose calibration names an
  // unknown model: no "init camera failed", the rectification reports.
  std::vector<CameraSpec> rig = syntheticRig("radtan");
  rig[0].model = "pinhole";
  writeText(dir.file("pinhole.yaml"), calibText(rig));
  options.calibPath = "pinhole.yaml";
  writeText(dir.file("again.yaml"), configText(options));
  EXPECT_EQ(initFrom(pipeline, dir.file("again.yaml"), &printed), 1);
  EXPECT_TRUE(contains(printed, "initRectifyMap(): unrecognized camera model!\n")) << printed;
  EXPECT_FALSE(contains(printed, "init camera failed")) << printed;
  EXPECT_EQ(Access::engine(pipeline, 0), engine);
}

// ---- Depth ray table ---------------------------------------------------------

// With no distortion every entry is the pinhole ray ((u - cx) / fx, (v - cy) / fy).
// One case per table geometry; the model only has to be accepted.
TEST(DepthTable, DistortionFreeCameraGivesPinholeRays) {
  const std::pair<const char*, int> cases[] = {{"radtan", 1}, {"cvbasic", 0}};
  for (const auto& [model, restore] : cases) {
    SCOPED_TRACE(std::string(model) + " restore_depth_dim " + std::to_string(restore));
    std::vector<CameraSpec> rig = syntheticRig("radtan");
    for (CameraSpec& cam : rig) {
      cam.model = model;
      cam.coeffs.assign(std::string(model) == "cvbasic" ? 5 : 4, 0.0);
    }
    TempDir dir;
    ConfigOptions options;
    options.scaling = 0.5f;
    options.restoreDepthDim = restore;
    StereoDepth pipeline;
    ASSERT_EQ(configure(pipeline, dir, options, rig), 0);

    // Restored results live at the 1280x800 input (calibration x2), the others
    // at the 640x400 working size (calibration x1).
    const int W = restore ? 1280 : 640;
    const int H = restore ? 800 : 400;
    const double s = restore ? 2.0 : 1.0;
    const double fx = rig[0].fx * s, fy = rig[0].fy * s, cx = rig[0].cx * s, cy = rig[0].cy * s;
    const std::vector<float>& lut = Access::depthLut(pipeline);
    ASSERT_EQ(lut.size(), 2u * W * H);
    int bad = 0;
    for (int v = 0; v < H; ++v) {
      for (int u = 0; u < W; ++u) {
        const std::size_t at = 2 * (static_cast<std::size_t>(v) * W + u);
        // Float rounding of -cx/fx and of the result: a few 1e-8 at |x| < 1.
        if (std::fabs(lut[at] - (u - cx) / fx) > 3e-7 || std::fabs(lut[at + 1] - (v - cy) / fy) > 3e-7) {
          if (++bad <= 3) ADD_FAILURE() << "(" << u << ", " << v << "): " << lut[at] << ", " << lut[at + 1];
        }
      }
    }
    EXPECT_EQ(bad, 0);
  }
}

TEST(DepthTable, CalibrationFileShapes) {
  TempDir dir;
  const ConfigOptions options;
  const std::vector<CameraSpec> rig = syntheticRig("radtan");

  // Transforms under cam0 and cam2 but not cam1, and five radtan coefficients
  // for cam0. Each transform prints one "calib: " block and is kept in file
  // order, so cam0's serves as camera 0 -> 1; only cam1's would set the
  // baseline. All five coefficients are kept.
  {
    std::vector<CameraSpec> cams = rig;
    std::swap(cams[0].hasTransform, cams[1].hasTransform);
    std::swap(cams[0].T, cams[1].T);
    cams[0].coeffs.push_back(-0.0078125);
    cams.push_back(rig[1]);
    cams[2].T(0, 3) = -0.5;
    cams[2].height = 360;  // the auxiliary slot: 1920x1080 is 640x360 x3
    StereoDepth pipeline;
    std::string printed;
    ASSERT_EQ(configure(pipeline, dir, options, cams, &printed), 0);
    EXPECT_EQ(countOf(printed, "calib: "), 2u) << printed;
    ASSERT_EQ(Access::transforms(pipeline).size(), 2u);
    EXPECT_EQ(Access::transforms(pipeline)[0](0, 3), -0.1);
    EXPECT_EQ(Access::transforms(pipeline)[1](0, 3), -0.5);
    EXPECT_EQ(Access::baseline(pipeline), 0.0f);
    EXPECT_EQ(Access::kInput(pipeline).size(), 3u);
    const cv::Mat& D = Access::distortion(pipeline)[0];
    ASSERT_EQ(D.total(), 5u);
    EXPECT_EQ(D.at<double>(4), -0.0078125);
    EXPECT_EQ(Access::distortion(pipeline)[1].total(), 4u);
  }

  // cam0 and cam2 without cam1: only camera 0 is imported.
  StereoDepth pipeline;
  ASSERT_EQ(configure(pipeline, dir, options, {}), 0);
  std::vector<CameraSpec> gap = rig;
  gap[1].model = "equidistant";
  writeText(dir.file("gap.yaml"), calibText(gap, {0, 2}));
  int status = -1;
  const std::string printed = captureStdout([&] { status = pipeline.initCameraFromCalibYaml(dir.file("gap.yaml")); });
  EXPECT_EQ(status, 0);
  EXPECT_EQ(Access::kInput(pipeline).size(), 1u);
  EXPECT_EQ(Access::models(pipeline), std::vector<int>{kCamModelRadtan});
  EXPECT_TRUE(Access::transforms(pipeline).empty());
  EXPECT_FALSE(contains(printed, "calib: "));
  EXPECT_EQ(Access::depthLut(pipeline).size(), 2u * 1280 * 800);
  // A single camera cannot be rectified; nothing is built.
  EXPECT_EQ(pipeline.initRectifyMap(), 1);
  EXPECT_TRUE(Access::map1(pipeline).empty());
}

}  // namespace
}  // namespace KorvLumetra
