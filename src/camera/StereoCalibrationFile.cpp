// StereoCalibration: the import of a camera-chain calibration file.
#include <limits>
#include <cmath>
#include <cstdio>
#include <sstream>
#include <stdexcept>

#include <Eigen/LU>

#include "camera/CalibrationChecks.h"
#include "camera/StereoCalibration.h"
#include "yaml/YamlReaders.h"

namespace KorvLumetra {

namespace {

using KorvTech::YamlNode;

constexpr float kFloatEpsilon = std::numeric_limits<float>::epsilon();
constexpr const char* kFunction = "initCameraFromCalibYaml";

// A 4x4 matrix as four rows of four numbers or as one list of 16, row-major.
bool readMatrix4(const YamlNode& node, Eigen::Matrix4d* T) {
  if (node.type != YamlNode::Sequence) return false;
  std::vector<const YamlNode*> numbers;
  if (node.seq.size() == 4) {
    for (const YamlNode& row : node.seq) {
      if (row.type != YamlNode::Sequence || row.seq.size() != 4) return false;
      for (const YamlNode& value : row.seq) numbers.push_back(&value);
    }
  } else if (node.seq.size() == 16) {
    for (const YamlNode& value : node.seq) numbers.push_back(&value);
  } else {
    return false;
  }
  for (int i = 0; i < 16; ++i) {
    if (numbers[i]->type != YamlNode::Scalar) return false;
    (*T)(i / 4, i % 4) = std::stod(numbers[i]->scalar);  // text that is no number throws
  }
  return true;
}

// One camera's transform from the IMU: T_cam_imu as written, or the inverse of
// T_imu_cam. `problem` says why one that is there cannot be used.
bool imuTransform(const YamlNode& cam, Eigen::Matrix4d* T, std::string* problem) {
  problem->clear();
  for (const char* key : {"T_cam_imu", "T_imu_cam"}) {
    if (!HasYamlKey(cam, key)) continue;
    bool shaped = false;
    try {
      shaped = readMatrix4(cam[key], T);
    } catch (const std::logic_error&) {  // std::invalid_argument, std::out_of_range
      *problem = std::string(key) + " holds text that is not a number, or a number out of range";
      return false;
    }
    if (!shaped) {
      *problem = std::string(key) + " is not a 4x4 matrix (four rows of four numbers, or 16 numbers)";
      return false;
    }
    const std::string fault = rigidTransformProblem(*T, false);
    if (!fault.empty()) {
      *problem = std::string(key) + " " + fault;
      return false;
    }
    if (key[2] == 'i') *T = T->inverse().eval();
    return true;
  }
  return false;
}

std::string matrixText(const Eigen::Matrix4d& T) {
  std::ostringstream text;
  text << T;
  return text.str();
}

}  // namespace

ImportStatus StereoCalibration::importFile(const std::string& path, const Setup& setup, CalibrationReport& report) {
  const std::string reason = YamlNode::UnreadableReason(path);
  if (reason == "does not exist") {
    report.error(kFunction, "file not exits: " + path);
    return ImportStatus::refused();
  }
  if (!reason.empty()) {
    report.error(kFunction, "calibration file " + path + " " + reason);
    return ImportStatus::refused();
  }
  return importDocument(YamlNode::LoadFile(path), setup, report);
}

ImportStatus StereoCalibration::importDocument(const YamlNode& root, const Setup& setup, CalibrationReport& report) {
  clearChain();
  Eigen::Matrix4d previousImu = Eigen::Matrix4d::Identity();  // the previous camera's transform from the IMU
  bool previousHasImu = false;
  std::string previousImuProblem;
  for (std::size_t i = 0;; ++i) {
    const std::string name = "cam" + std::to_string(i);
    const YamlNode cam = root[name];
    if (cam.type == YamlNode::Null || i >= setup.inputSizes.size()) {
      if (i > 0) return ImportStatus::ok();
      // Always reports 1, not the number of cameras found.
      report.error(kFunction, "cam num in calib file is not correct: 1");
      return ImportStatus::refused();
    }
    const auto refuse = [&](const std::string& why) {
      report.error(kFunction, name + ": " + why);
      return ImportStatus::refused();
    };

    for (const char* key : {"intrinsics", "distortion_coeffs", "distortion_model", "resolution"}) {
      if (!HasYamlKey(cam, key)) {
        // A calibration without a required setting ends the host, on purpose.
        report.warn(std::string("[CheckParseYaml] Missing required key: ") + key + "\n");
        return ImportStatus::fatal(1);
      }
    }
    // Omnidirectional and other projections carry further intrinsics that the
    // pinhole formulas would misread.
    const YamlNode projection = cam["camera_model"];
    if (projection.type != YamlNode::Null &&
        (projection.type != YamlNode::Scalar || projection.scalar != "pinhole")) {
      return refuse("camera_model " + (projection.type == YamlNode::Scalar ? projection.scalar : "(not a name)") +
                    " is not supported: only pinhole cameras are (with radtan, equidistant or cvbasic distortion)");
    }
    std::vector<double> intrinsics;
    std::vector<double> coefficients;
    std::string modelName;
    std::vector<int32_t> resolution;
    const char* reading = "intrinsics";
    try {
      CheckParseYaml(cam, reading, &intrinsics);
      reading = "distortion_coeffs";
      CheckParseYaml(cam, reading, &coefficients);
      reading = "distortion_model";
      CheckParseYaml(cam, reading, &modelName);
      reading = "resolution";
      CheckParseYaml(cam, reading, &resolution);
    } catch (const std::logic_error&) {  // std::invalid_argument, std::out_of_range
      return refuse(std::string(reading) + " holds text that is not a number, or a number out of range");
    }
    const int model = camModelFromName(modelName);
    std::string problem = intrinsicsProblem(intrinsics);
    if (problem.empty()) problem = resolutionProblem(resolution);
    if (problem.empty()) problem = coefficientsProblem(model, coefficients);
    if (!problem.empty()) return refuse(problem);

    const float sw = static_cast<float>(setup.inputSizes[i].width) / static_cast<float>(resolution[0]);
    const float sh = static_cast<float>(setup.inputSizes[i].height) / static_cast<float>(resolution[1]);
    if (std::fabs(sw - sh) > kFloatEpsilon) {
      report.error(kFunction, "stereo depth inputs only support scale_w == scale_h, exiting");
      return ImportStatus::fatal(-1);
    }
    const cv::Mat kInput = (cv::Mat_<double>(3, 3) << intrinsics[0] * sw, 0.0, intrinsics[2] * sw,  //
                            0.0, intrinsics[1] * sh, intrinsics[3] * sh,                           //
                            0.0, 0.0, 1.0);
    const cv::Mat D = cv::Mat(coefficients, true).reshape(1, static_cast<int>(coefficients.size()));
    appendCamera(D, kInput, model, setup);

    Eigen::Matrix4d imu = Eigen::Matrix4d::Identity();
    std::string imuProblem;
    const bool hasImu = imuTransform(cam, &imu, &imuProblem);

    Eigen::Matrix4d T = Eigen::Matrix4d::Zero();
    bool hasTransform = false;
    if (HasYamlKey(cam, "T_cn_cnm1")) {
      bool shaped = false;
      try {
        shaped = readMatrix4(cam["T_cn_cnm1"], &T);
      } catch (const std::logic_error&) {
        return refuse("T_cn_cnm1 holds text that is not a number, or a number out of range");
      }
      if (!shaped) return refuse("T_cn_cnm1 is not a 4x4 matrix (four rows of four numbers, or 16 numbers)");
      hasTransform = true;
    } else if (i >= 1 && (hasImu || !imuProblem.empty()) && (previousHasImu || !previousImuProblem.empty())) {
      // Many camera chains give each camera's pose relative to the IMU only.
      if (!previousImuProblem.empty()) {
        report.error(kFunction, "cam" + std::to_string(i - 1) + ": " + previousImuProblem);
        return ImportStatus::refused();
      }
      if (!imuProblem.empty()) return refuse(imuProblem);
      T = imu * previousImu.inverse();
      hasTransform = true;
      report.print("calib: " + name + " has no T_cn_cnm1: derived from the IMU transforms of cam" +
                   std::to_string(i - 1) + " and " + name + "\n");
    }
    previousImu = imu;
    previousHasImu = hasImu;
    previousImuProblem = imuProblem;
    if (hasTransform) {
      problem = rigidTransformProblem(T, true);
      if (!problem.empty()) return refuse("T_cn_cnm1 " + problem);
      report.print("calib: " + matrixText(T) + "\n");
      camT_.push_back(T);
      if (i == 1) {
        baseline_ = static_cast<float>(std::sqrt(T(0, 3) * T(0, 3) + T(1, 3) * T(1, 3) + T(2, 3) * T(2, 3)));
      }
    }
    if (static_cast<int>(i) == setup.depthCamIndex) {
      const ImportStatus table = buildDepthTable(setup, report);
      if (!table.isOk()) return table;
    }
  }
}

}  // namespace KorvLumetra
