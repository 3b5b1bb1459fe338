#include "camera/CalibrationChecks.h"

#include <cmath>
#include <cstdio>

#include <Eigen/LU>

#include "camera/CamModel.h"

namespace KorvLumetra {

namespace {

constexpr double kRotationTolerance = 1e-3;

std::string number(double value) {
  char text[32];
  std::snprintf(text, sizeof(text), "%g", value);
  return text;
}

bool allFinite(const std::vector<double>& values) {
  for (double v : values) {
    if (!std::isfinite(v)) return false;
  }
  return true;
}

bool countIn(std::size_t count, std::initializer_list<std::size_t> allowed) {
  for (std::size_t a : allowed) {
    if (count == a) return true;
  }
  return false;
}

}  // namespace

std::string listText(const std::vector<double>& values) {
  std::string text = "[";
  for (std::size_t i = 0; i < values.size(); ++i) text += (i ? ", " : "") + number(values[i]);
  return text + "]";
}

std::string intrinsicsProblem(const std::vector<double>& intrinsics) {
  if (intrinsics.size() != 4) {
    return "intrinsics must be [fx, fy, cx, cy], not " + std::to_string(intrinsics.size()) + " numbers " +
           listText(intrinsics);
  }
  if (!allFinite(intrinsics) || !(intrinsics[0] > 0.0) || !(intrinsics[1] > 0.0)) {
    return "intrinsics " + listText(intrinsics) + " must be finite with fx, fy above zero";
  }
  return std::string();
}

std::string resolutionProblem(const std::vector<int32_t>& resolution) {
  if (resolution.size() != 2 || resolution[0] <= 0 || resolution[1] <= 0) {
    std::string given = "[";
    for (std::size_t i = 0; i < resolution.size(); ++i) given += (i ? ", " : "") + std::to_string(resolution[i]);
    return "resolution must be two positive integers [width, height], not " + given + "]";
  }
  return std::string();
}

std::string coefficientsProblem(int camModel, const std::vector<double>& coefficients) {
  const std::size_t n = coefficients.size();
  const char* wanted = nullptr;
  const char* name = nullptr;
  switch (camModel) {
    case kCamModelRadtan:
      if (!countIn(n, {4, 5})) wanted = "4 or 5", name = "radtan";
      break;
    case kCamModelEquidistant:
      if (n != 4) wanted = "4", name = "equidistant";
      break;
    case kCamModelCvBasic:
      if (!countIn(n, {4, 5, 8, 12, 14})) wanted = "4, 5, 8, 12 or 14", name = "cvbasic";
      break;
    default:
      break;
  }
  if (wanted != nullptr) {
    return std::string(name) + " takes " + wanted + " distortion_coeffs, not " + std::to_string(n);
  }
  if (!allFinite(coefficients)) return "distortion_coeffs " + listText(coefficients) + " must be finite";
  return std::string();
}

std::string mapCoefficientsProblem(int camera0Model, std::size_t count) {
  if (camera0Model == kCamModelEquidistant) {
    if (count != 4) return std::to_string(count) + " distortion coefficients, but cam0's equidistant model takes 4";
  } else if (!countIn(count, {0, 4, 5, 8, 12, 14})) {
    return std::to_string(count) + " distortion coefficients, which cam0's model cannot use";
  }
  return std::string();
}

std::string rigidTransformProblem(const Eigen::Matrix4d& T, bool needsTranslation) {
  if (!T.allFinite()) return "holds a value that is not finite";
  if (T(3, 0) != 0.0 || T(3, 1) != 0.0 || T(3, 2) != 0.0 || T(3, 3) != 1.0) {
    return "has the last row [" + number(T(3, 0)) + ", " + number(T(3, 1)) + ", " + number(T(3, 2)) + ", " +
           number(T(3, 3)) + "], not [0, 0, 0, 1]";
  }
  const Eigen::Matrix3d R = T.topLeftCorner<3, 3>();
  const double error = (R.transpose() * R - Eigen::Matrix3d::Identity()).cwiseAbs().maxCoeff();
  if (!(error <= kRotationTolerance)) {
    return "has a rotation that is not orthonormal (R^T R is off the identity by " + number(error) + ")";
  }
  if (R.determinant() < 0.0) return "has a reflection, not a rotation (determinant -1)";
  if (needsTranslation && T.topRightCorner<3, 1>().norm() == 0.0) {
    return "has a zero translation: the two cameras must be apart";
  }
  return std::string();
}

}  // namespace KorvLumetra
