// Test fixtures for the calibration side of the pipeline: a scratch directory,
// a configuration file with every key, camera-chain calibration files and the
// tracker's calibration record built from the same camera description, and
// StereoDepthTestAccess to read the calibration state a pipeline keeps private.
#pragma once

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include <opencv2/calib3d.hpp>

#include "lumetra_depth.h"
#include "pipeline/StereoDepth.h"
#include "support/CaptureOutput.h"
#include "support/HostConfig.h"
#include "support/TempDir.h"

namespace KorvLumetra {

// Reaches the calibration state of a pipeline (the class befriends it).
struct StereoDepthTestAccess {
  static const auto& kInput(StereoDepth& p) { return p.calibration_.kInput(); }
  static const auto& kProc(StereoDepth& p) { return p.calibration_.kProc(); }
  static const auto& distortion(StereoDepth& p) { return p.calibration_.distortion(); }
  static const auto& models(StereoDepth& p) { return p.calibration_.models(); }
  static const auto& transforms(StereoDepth& p) { return p.calibration_.transforms(); }
  static float baseline(StereoDepth& p) { return p.calibration_.baseline(); }
  static const auto& depthLut(StereoDepth& p) { return p.calibration_.depthLut(); }
  static const auto& map1(StereoDepth& p) { return p.calibration_.map1(); }
  static const auto& map2(StereoDepth& p) { return p.calibration_.map2(); }
  static const cv::Mat& R1(StereoDepth& p) { return p.calibration_.R1(); }
  static const cv::Mat& P1(StereoDepth& p) { return p.calibration_.P1(); }
  static const cv::Mat& P2(StereoDepth& p) { return p.calibration_.P2(); }
  static auto& scaledSizes(StereoDepth& p) { return p.scaledSizes_; }
  static auto& scaleRatios(StereoDepth& p) { return p.scaleRatios_; }
  static const StereoEngineBase* engine(StereoDepth& p, std::size_t i) { return p.engines_[i].get(); }
  // Point cloud: the depth result it is built from, its tables, settings and poses.
  static LumoDepthImage* depthRecord(StereoDepth& p) { return p.depth_; }
  static const float* pointBuffer(StereoDepth& p) { return p.pointBuffer_; }
  static uint64_t cloudPixelCount(StereoDepth& p) { return p.cloudPixelCount_; }
  static int pointCount(StereoDepth& p) { return p.pointCount_; }
  static uint64_t cloudTimestamp(StereoDepth& p) { return p.cloudTimestamp_; }
  static int& depthResultCount(StereoDepth& p) { return p.depthResultCount_; }
  static LumoUtils::LumoPoseRing& poseRing(StereoDepth& p) { return *p.poseRing_; }
  static float& pointcloudROI(StereoDepth& p) { return p.pointcloudROI_; }
  static int& skipPoint(StereoDepth& p) { return p.skipPoint_; }
  static float& farthestDist(StereoDepth& p) { return p.farthestDist_; }
  static float& cloestDist(StereoDepth& p) { return p.cloestDist_; }
  static int& pointcloudType(StereoDepth& p) { return p.pointcloudType_; }
  static bool& enableVoxel(StereoDepth& p) { return p.enableVoxel_; }
  static float& voxelSize(StereoDepth& p) { return p.voxelSize_; }
  static float& minPoints(StereoDepth& p) { return p.minPoints_; }
  static int& debugImage(StereoDepth& p) { return p.debugImage_; }
  static std::string& debugImgSavePath(StereoDepth& p) { return p.debugImgSavePath_; }
};

}  // namespace KorvLumetra

namespace LumoTest {

struct ConfigOptions {
  int width = 1280, height = 800;
  float scaling = 1.0f;
  int threadNum = 0, restoreDepthDim = 1;
  std::string calibPath = "calib.yaml";  // empty: the key is written with no value
};

// All configuration keys; the values not in ConfigOptions keep the pipeline quiet
// (no alignment, no filters, no debug output).
inline std::string configText(const ConfigOptions& o) {
  return HostConfig()
      .set("calib_path", o.calibPath).set("async_mode", "1").set("thread_num", std::to_string(o.threadNum))
      .set("input_stereo_width", std::to_string(o.width)).set("input_stereo_height", std::to_string(o.height))
      .set("stereo_img_scaling", std::to_string(o.scaling)).set("restore_depth_dim", std::to_string(o.restoreDepthDim))
      .text();
}

// One camera of a chain as both the file and the record describe it.
struct CameraSpec {
  double fx, fy, cx, cy;
  std::vector<double> coeffs;
  std::string model;  // file text: radtan, equidistant, cvbasic, or anything else
  int width, height;  // calibration resolution
  bool hasTransform = false;
  cv::Matx44d T = cv::Matx44d::eye();  // T_cn_cnm1
};

// Shortest text that reads back as the same double.
inline std::string number(double v) {
  char text[40];
  std::snprintf(text, sizeof(text), "%.17g", v);
  return text;
}

// "[a, b, ...]" of n numbers.
inline std::string list(const double* values, std::size_t n) {
  std::string text = "[";
  for (std::size_t j = 0; j < n; ++j) text += (j ? ", " : "") + number(values[j]);
  return text + "]";
}

inline std::string calibText(const std::vector<CameraSpec>& cams) {
  std::ostringstream s;
  for (std::size_t n = 0; n < cams.size(); ++n) {
    const CameraSpec& c = cams[n];
    const double intrinsics[] = {c.fx, c.fy, c.cx, c.cy};
    s << "cam" << n << ":\n  camera_model: pinhole\n"  // ignored by the import
      << "  intrinsics: " << list(intrinsics, 4) << "\n  distortion_coeffs: " << list(c.coeffs.data(), c.coeffs.size())
      << "\n  distortion_model: " << c.model << "\n  resolution: [" << c.width << ", " << c.height << "]\n";
    if (c.hasTransform) s << "  T_cn_cnm1:\n";
    for (int r = 0; c.hasTransform && r < 4; ++r) s << "  - " << list(&c.T.val[4 * r], 4) << "\n";
  }
  return s.str();
}

inline LumoCalibrationParam calibRecord(const std::vector<CameraSpec>& cams) {
  LumoCalibrationParam calib{};
  calib.num_cameras = static_cast<uint32_t>(cams.size());
  calib.downsize_ratio = 1;
  calib.imu_update_rate = 200.0f;
  for (std::size_t n = 0; n < cams.size() && n < 3; ++n) {
    const CameraSpec& c = cams[n];
    LumoCameraCalib& out = calib.cameras[n];
    out.camera_id = static_cast<uint8_t>(n);
    out.available_mask = c.hasTransform ? 0x03 : 0x01;
    LumoIntrinsics& in = out.intrinsics;
    in.width = static_cast<uint32_t>(c.width), in.height = static_cast<uint32_t>(c.height);
    in.fx = static_cast<float>(c.fx), in.fy = static_cast<float>(c.fy);
    in.cx = static_cast<float>(c.cx), in.cy = static_cast<float>(c.cy);
    // The record's code for the file's model name.
    in.distortion_model = c.model == "equidistant" ? 1 : c.model == "radtan" ? 2 : c.model == "cvbasic" ? 4 : 0;
    for (std::size_t j = 0; j < c.coeffs.size() && j < 8; ++j) in.distortion_coeffs[j] = static_cast<float>(c.coeffs[j]);
    for (int r = 0; r < 3; ++r) {
      for (int k = 0; k < 3; ++k) out.T_cn_cnm1.rotation[3 * r + k] = static_cast<float>(c.T(r, k));
      out.T_cn_cnm1.translation[r] = static_cast<float>(c.T(r, 3));
    }
  }
  return calib;
}

// A stereo rig calibrated at 640x400: camera 1 sits about 0.1 to the right of
// camera 0 and is turned by 1 degree about a tilted axis. Intrinsics and lens
// coefficients are dyadic so that the record's floats hold them exactly.
inline std::vector<CameraSpec> syntheticRig(const std::string& model) {
  const bool fisheye = model == "equidistant";
  const std::vector<double> lens0 = fisheye ? std::vector<double>{-0.015625, 0.0078125, -0.00390625, 0.001953125}
                                            : std::vector<double>{-0.125, 0.015625, 0.0001220703125, -0.000244140625};
  const std::vector<double> lens1 = fisheye ? std::vector<double>{-0.0234375, 0.01171875, -0.001953125, 0.0009765625}
                                            : std::vector<double>{-0.109375, 0.0234375, -0.0001220703125, 0.0001220703125};
  CameraSpec cam0{400.5, 401.25, 322.75, 198.5, lens0, model, 640, 400};
  CameraSpec cam1{402.0, 402.75, 318.25, 203.5, lens1, model, 640, 400};
  cv::Vec3d axis(0.3, 1.0, 0.2);
  axis *= (CV_PI / 180.0) / cv::norm(axis);
  cv::Matx33d R;
  cv::Rodrigues(axis, R);
  cam1.hasTransform = true;
  cam1.T = cv::Affine3d(R, cv::Vec3d(-0.1, 0.003, -0.002)).matrix;
  return {cam0, cam1};
}

// Writes cfg.yaml, and calib.yaml when `cams` is not empty (otherwise the
// configuration names no calibration), into `dir` and configures `pipeline`.
// Standard output goes to *printed when given.
inline int configure(KorvLumetra::StereoDepth& pipeline, const TempDir& dir, ConfigOptions options,
                     const std::vector<CameraSpec>& cams, std::string* printed = nullptr) {
  if (cams.empty()) {
    options.calibPath.clear();
  } else {
    writeText(dir.file(options.calibPath), calibText(cams));
  }
  writeText(dir.file("cfg.yaml"), configText(options));
  int status = -1;
  const std::string out = captureStdout([&] { status = pipeline.initFromYaml(dir.file("cfg.yaml")); });
  if (printed != nullptr) *printed = out;
  return status;
}

}  // namespace LumoTest
