// StereoDepth: importing the camera chain, from the tracker's record or from a
// calibration file, and the per-pixel ray table of the depth camera.
#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "api/ErrorLog.h"
#include "pipeline/StereoDepth.h"
#include "yaml/YamlNode.h"
#include "yaml/YamlReaders.h"

namespace KorvLumetra {

namespace {

constexpr float kFloatEpsilon = 1.1920929e-7f;
constexpr uint32_t kMaxRecordCameras = 3;

const char* maskText(uint8_t mask, int bit) { return (mask >> bit) & 1 ? "Valid" : "Invalid"; }

void printCalibration(const LumoCalibrationParam& calib) {
  std::puts("[Camera Chain]");
  std::printf("Number of cameras: %u\n", calib.num_cameras);
  std::printf("Downsize ratio:    %u\n\n", calib.downsize_ratio);
  std::puts("[IMU Parameters]");
  std::printf("Accel noise density:  %.16lf\n", calib.accel_noise_density);
  std::printf("Accel random walk:    %.16lf\n", calib.accel_random_walk);
  std::printf("Gyro noise density:   %.16lf\n", calib.gyro_noise_density);
  std::printf("Gyro random walk:     %.16lf\n", calib.gyro_random_walk);
  std::printf("IMU update rate:      %.6f Hz\n\n", calib.imu_update_rate);
  // The record has room for three cameras; a larger count is not read past it.
  const uint32_t count = calib.num_cameras < kMaxRecordCameras ? calib.num_cameras : kMaxRecordCameras;
  for (uint32_t i = 0; i < count; ++i) {
    const LumoCameraCalib& cam = calib.cameras[i];
    const LumoIntrinsics& in = cam.intrinsics;
    std::puts("========================================");
    std::printf("            Camera %d Parameters            \n", cam.camera_id);
    std::printf("========================================\n");
    std::puts("[Basic Info]");
    std::printf("Camera ID:          %d\n", cam.camera_id);
    std::printf("Available mask:     0x%02x\n", cam.available_mask);
    std::puts("Mask legend:");
    std::printf("  Bit0(0x01): Intrinsics  = %s\n", maskText(cam.available_mask, 0));
    std::printf("  Bit1(0x02): T_cn_cnm1   = %s\n", maskText(cam.available_mask, 1));
    std::printf("  Bit2(0x04): T_cn_imu    = %s\n", maskText(cam.available_mask, 2));
    std::printf("  Bit3(0x08): Timeshift   = %s\n", maskText(cam.available_mask, 3));
    std::printf("Cam-IMU time shift: %.16lf s (t_imu - t_cam)\n\n", cam.timeshift);
    std::puts("[Intrinsics]");
    std::printf("Camera model:   %d\n", in.camera_model);
    std::printf("Resolution:     %u x %u\n", in.width, in.height);
    std::puts("Intrinsic matrix:");
    std::printf("  fx: %.16f   fy: %.16f\n", in.fx, in.fy);
    std::printf("  cx: %.16f   cy: %.16f\n", in.cx, in.cy);
    std::printf("Intrinsic extra: [%.6f, %.6f, %.6f, %.6f]\n\n", in.extra[0], in.extra[1], in.extra[2], in.extra[3]);
    std::puts("[Distortion]");
    std::printf("Distortion model: %d\n", in.distortion_model);
    std::puts("Distortion coeffs (8):");
    const float* k = in.distortion_coeffs;
    std::printf("  [%.16f, %.16f, %.16f, %.16f, %.6f, %.6f, %.6f, %.6f]\n\n", k[0], k[1], k[2], k[3], k[4], k[5],
                k[6], k[7]);
    const LumoExtrinsics* transforms[2] = {&cam.T_cn_imu, &cam.T_cn_cnm1};
    const char* titles[2] = {"[Extrinsics T_cn_imu (IMU \u2192 Camera)]", "[Extrinsics T_cn_cnm1 (Prev Cam \u2192 Cam)]"};
    for (int t = 0; t < 2; ++t) {
      const float* r = transforms[t]->rotation;
      const float* p = transforms[t]->translation;
      std::puts(titles[t]);
      std::puts("Rotation matrix (3x3 row-major):");
      for (int row = 0; row < 3; ++row) {
        std::printf("  [%.16f, %.16f, %.16f]\n", r[3 * row], r[3 * row + 1], r[3 * row + 2]);
      }
      std::printf("Translation vector: [%.16f, %.16f, %.16f]\n\n", p[0], p[1], p[2]);
    }
  }
  std::puts("========================================");
}

// Coefficients the record carries for each of its distortion codes.
int coefficientCount(uint8_t distortionModel) {
  switch (distortionModel) {
    case 1:
    case 2:
      return 4;
    case 3:
      return 5;
    case 4:
      return 8;
    default:
      return 0;
  }
}

// The record's five-coefficient code has no pipeline model: it maps to unknown.
int camModelFromRecord(uint8_t distortionModel) {
  switch (distortionModel) {
    case 1:
      return kCamModelEquidistant;
    case 2:
      return kCamModelRadtan;
    case 4:
      return kCamModelCvBasic;
    default:
      return kCamModelUnknown;
  }
}

int camModelFromName(const std::string& name) {
  if (name == "equidistant") return kCamModelEquidistant;
  if (name == "radtan") return kCamModelRadtan;
  if (name == "cvbasic") return kCamModelCvBasic;
  return kCamModelUnknown;
}

[[noreturn]] void unequalScaleExit(const char* function) {
  logError(function, "stereo depth inputs only support scale_w == scale_h, exiting");
  std::fflush(stdout);
  std::exit(-1);
}

}  // namespace

void StereoDepth::appendCamera(const cv::Mat& D, const cv::Mat& kInput, int camIndex, int model) {
  cv::Mat kProc = kInput.clone();
  const double scale = scaleRatios_[camIndex];
  kProc.row(0) *= scale;
  kProc.row(1) *= scale;
  camDList_.push_back(D.clone());
  camKInputList_.push_back(kInput.clone());
  camKProcList_.push_back(kProc);
  camModels_.push_back(model);
}

int StereoDepth::initCameraFromCalib(const LumoCalibrationParam& calib) {
  printCalibration(calib);
  camTList_.clear();
  camDList_.clear();
  camModels_.clear();
  camKInputList_.clear();
  camKProcList_.clear();

  uint32_t count = calib.num_cameras < kMaxRecordCameras ? calib.num_cameras : kMaxRecordCameras;
  if (count > inputSizes_.size()) count = static_cast<uint32_t>(inputSizes_.size());
  for (uint32_t i = 0; i < count; ++i) {
    const LumoCameraCalib& cam = calib.cameras[i];
    const LumoIntrinsics& in = cam.intrinsics;
    const float sw = static_cast<float>(inputSizes_[i].width) / static_cast<float>(in.width);
    const float sh = static_cast<float>(inputSizes_[i].height) / static_cast<float>(in.height);
    if (std::fabs(sw - sh) > kFloatEpsilon) unequalScaleExit("initCameraFromCalib");

    // The principal point is scaled directly, without a half-pixel correction.
    const cv::Mat kInput = (cv::Mat_<double>(3, 3) << in.fx * sw, 0.0, in.cx * sw,  //
                            0.0, in.fy * sh, in.cy * sh,                            //
                            0.0, 0.0, 1.0);
    const int n = coefficientCount(in.distortion_model);
    cv::Mat D(n, 1, CV_64F);
    for (int j = 0; j < n; ++j) D.at<double>(j) = in.distortion_coeffs[j];
    appendCamera(D, kInput, static_cast<int>(i), camModelFromRecord(in.distortion_model));

    if (i >= 1) {
      const LumoExtrinsics& e = cam.T_cn_cnm1;
      Eigen::Matrix4d T = Eigen::Matrix4d::Identity();
      for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) T(r, c) = e.rotation[3 * r + c];
        T(r, 3) = e.translation[r];
      }
      camTList_.push_back(T);
      if (i == 1) {
        const float* t = e.translation;
        baseline_ = std::sqrt(t[0] * t[0] + t[1] * t[1] + t[2] * t[2]);
      }
    }
    if (static_cast<int>(i) == stereoCamIndex_) LUTDepthGenerator();
  }

  if (camTList_.empty()) {
    logError("initCameraFromCalib", "initCameraFromCalib: no extrinsics found");
    return 1;
  }
  if (initRectifyMap() == 1) return 1;
  recreateEngines();
  return 0;
}

int StereoDepth::initCameraFromCalibYaml(const std::string& path) {
  using KorvTech::YamlNode;
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) {
    logErrorf("initCameraFromCalibYaml", "file not exits: %s\n", path.c_str());
    return 1;
  }
  camTList_.clear();
  camDList_.clear();
  camModels_.clear();
  camKInputList_.clear();
  camKProcList_.clear();

  const YamlNode root = YamlNode::LoadFile(path);
  for (std::size_t i = 0;; ++i) {
    const YamlNode cam = root["cam" + std::to_string(i)];
    if (cam.type == YamlNode::Null || i >= inputSizes_.size()) {
      if (i > 0) return 0;
      // Always reports 1, not the number of cameras found.
      logErrorf("initCameraFromCalibYaml", "cam num in calib file is not correct: %d\n", 1);
      return 1;
    }
    std::vector<double> intrinsics;
    std::vector<double> coefficients;
    std::string modelName;
    std::vector<int32_t> resolution;
    CheckParseYaml(cam, "intrinsics", &intrinsics);
    CheckParseYaml(cam, "distortion_coeffs", &coefficients);
    CheckParseYaml(cam, "distortion_model", &modelName);
    CheckParseYaml(cam, "resolution", &resolution);
    intrinsics.resize(4, 0.0);
    resolution.resize(2, 0);

    const float sw = static_cast<float>(inputSizes_[i].width) / static_cast<float>(resolution[0]);
    const float sh = static_cast<float>(inputSizes_[i].height) / static_cast<float>(resolution[1]);
    if (std::fabs(sw - sh) > kFloatEpsilon) unequalScaleExit("initCameraFromCalibYaml");
    const cv::Mat kInput = (cv::Mat_<double>(3, 3) << intrinsics[0] * sw, 0.0, intrinsics[2] * sw,  //
                            0.0, intrinsics[1] * sh, intrinsics[3] * sh,                           //
                            0.0, 0.0, 1.0);
    const cv::Mat D = cv::Mat(coefficients, true).reshape(1, static_cast<int>(coefficients.size()));
    appendCamera(D, kInput, static_cast<int>(i), camModelFromName(modelName));

    const YamlNode transform = cam["T_cn_cnm1"];
    if (transform.type == YamlNode::Sequence && !transform.seq.empty()) {
      Eigen::Matrix4d T = Eigen::Matrix4d::Zero();
      for (std::size_t r = 0; r < 4 && r < transform.seq.size(); ++r) {
        const YamlNode& row = transform.seq[r];
        for (std::size_t c = 0; c < 4 && c < row.seq.size(); ++c) {
          if (row.type == YamlNode::Sequence && row.seq[c].type == YamlNode::Scalar) {
            T(static_cast<int>(r), static_cast<int>(c)) = std::stod(row.seq[c].scalar);
          }
        }
      }
      std::cout << "calib: " << T << std::endl;
      camTList_.push_back(T);
      if (i == 1) {
        baseline_ = static_cast<float>(std::sqrt(T(0, 3) * T(0, 3) + T(1, 3) * T(1, 3) + T(2, 3) * T(2, 3)));
      }
    }
    if (static_cast<int>(i) == stereoCamIndex_) LUTDepthGenerator();
  }
}

void StereoDepth::LUTDepthGenerator() {
  const std::size_t index = static_cast<std::size_t>(stereoCamIndex_);
  // The table addresses the images the host receives: input size when results
  // are restored to it, working size otherwise.
  const ImageSize size = restoreDepthDim_ != 0 ? inputSizes_[index] : scaledSizes_[index];
  const cv::Mat& K = restoreDepthDim_ != 0 ? camKInputList_[index] : camKProcList_[index];
  const int W = size.width > 0 ? size.width : 0;
  const int H = size.height > 0 ? size.height : 0;
  depthLut_.resize(2 * static_cast<std::size_t>(W) * static_cast<std::size_t>(H));

  if (depthCam_ == nullptr) {
    LumoIntrinsics intrinsics{};
    intrinsics.camera_model = 1;
    intrinsics.width = static_cast<uint32_t>(W);
    intrinsics.height = static_cast<uint32_t>(H);
    intrinsics.fx = static_cast<float>(K.at<double>(0, 0));
    intrinsics.fy = static_cast<float>(K.at<double>(1, 1));
    intrinsics.cx = static_cast<float>(K.at<double>(0, 2));
    intrinsics.cy = static_cast<float>(K.at<double>(1, 2));
    const cv::Mat& D = camDList_[index];
    const int n = static_cast<int>(D.total()) < 8 ? static_cast<int>(D.total()) : 8;
    for (int j = 0; j < n; ++j) intrinsics.distortion_coeffs[j] = static_cast<float>(D.at<double>(j));
    switch (camModels_[index]) {
      case kCamModelUnknown:
        logError("LUTDepthGenerator", "unknow cam model, exiting");
        std::fflush(stdout);
        std::exit(-1);
      case kCamModelEquidistant:
        intrinsics.distortion_model = 1;
        break;
      case kCamModelRadtan:
        intrinsics.distortion_model = 2;
        break;
      case kCamModelCvBasic:
        intrinsics.distortion_model = 4;  // the rational model; missing terms are zero
        break;
      default:
        intrinsics.distortion_model = 0;
        break;
    }
    depthCam_ = std::make_unique<LumoCam>(intrinsics);
  }

  // Rows are independent, so they are spread over threads; each entry is
  // computed exactly as it would be in a single loop.
  const LumoCam& cam = *depthCam_;
  float* lut = depthLut_.data();
  cv::parallel_for_(cv::Range(0, H), [&](const cv::Range& rows) {
    for (int v = rows.start; v < rows.end; ++v) {
      for (int u = 0; u < W; ++u) {
        const float pixel[2] = {static_cast<float>(u), static_cast<float>(v)};
        float point[3];
        cam.deprojectPixel2Point(point, pixel, 1.0f);
        const std::size_t entry = 2 * (static_cast<std::size_t>(v) * W + u);
        lut[entry] = point[0];
        lut[entry + 1] = point[1];
      }
    }
  });
}

}  // namespace KorvLumetra
