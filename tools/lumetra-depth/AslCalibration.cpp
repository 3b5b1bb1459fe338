#include "AslCalibration.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include <Eigen/Geometry>

#include "ToolError.h"
#include "yaml/YamlNode.h"

namespace LumoTool {

namespace {

using KorvTech::YamlNode;

struct SensorCamera {
  Eigen::Matrix4d T_BS;
  std::vector<double> intrinsics, coefficients;
  std::string model;  // as the library names it
  std::vector<double> resolution;
};

std::vector<double> numbers(const YamlNode& node, const std::string& path, const std::string& key) {
  if (node.type != YamlNode::Sequence) throw cannotRead(path, key + " is not a list of numbers");
  std::vector<double> out;
  for (const YamlNode& element : node.seq) {
    char* end = nullptr;
    errno = 0;
    const double value = element.type == YamlNode::Scalar ? std::strtod(element.scalar.c_str(), &end) : NAN;
    if (element.type != YamlNode::Scalar || element.scalar.empty() || *end != '\0' || errno != 0 ||
        !std::isfinite(value)) {
      throw cannotRead(path, key + " holds '" + element.scalar + "', which is not a finite number");
    }
    out.push_back(value);
  }
  return out;
}

SensorCamera readSensor(const std::string& path) {
  const std::string reason = YamlNode::UnreadableReason(path);
  if (!reason.empty()) throw cannotRead(path, reason);
  const YamlNode root = YamlNode::LoadFile(path);
  SensorCamera cam;
  const YamlNode T = root["T_BS"];
  if (T.type == YamlNode::Null) throw cannotRead(path, "no T_BS (the camera's pose on the body: rows, cols, data)");
  const std::vector<double> data = numbers(T["data"], path, "T_BS data");
  if (T["rows"].scalar != "4" || T["cols"].scalar != "4" || data.size() != 16) {
    throw cannotRead(path, "T_BS is not 4 rows and 4 cols of data (16 numbers)");
  }
  for (int i = 0; i < 16; ++i) cam.T_BS(i / 4, i % 4) = data[i];
  if (cam.T_BS.row(3) != Eigen::RowVector4d(0, 0, 0, 1) ||
      (cam.T_BS.topLeftCorner<3, 3>().transpose() * cam.T_BS.topLeftCorner<3, 3>() - Eigen::Matrix3d::Identity())
              .cwiseAbs()
              .maxCoeff() > 1e-3) {
    throw cannotRead(path, "T_BS is not a rigid transform (a rotation, a translation and the last row 0 0 0 1)");
  }
  for (const char* key : {"intrinsics", "distortion_coefficients", "distortion_model", "resolution"}) {
    if (root[key].type == YamlNode::Null) throw cannotRead(path, std::string("no ") + key);
  }
  const YamlNode projection = root["camera_model"];
  if (projection.type != YamlNode::Null && projection.scalar != "pinhole") {
    throw cannotRead(path, "camera_model " + projection.scalar + ": only pinhole cameras are supported");
  }
  const std::string model = root["distortion_model"].scalar;
  if (model == "radial-tangential" || model == "radtan") {
    cam.model = "radtan";
  } else if (model == "equidistant") {
    cam.model = "equidistant";
  } else {
    throw cannotRead(path, "distortion_model '" + model + "': radial-tangential and equidistant are supported");
  }
  cam.intrinsics = numbers(root["intrinsics"], path, "intrinsics");
  cam.coefficients = numbers(root["distortion_coefficients"], path, "distortion_coefficients");
  cam.resolution = numbers(root["resolution"], path, "resolution");
  if (cam.intrinsics.size() != 4) throw cannotRead(path, "intrinsics must be [fu, fv, cu, cv]");
  if (cam.resolution.size() != 2) throw cannotRead(path, "resolution must be [width, height]");
  return cam;
}

std::string number(double value) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.17g", value == 0.0 ? 0.0 : value);  // no "-0"
  return text;
}

std::string list(const std::vector<double>& values) {
  std::string text = "[";
  for (std::size_t i = 0; i < values.size(); ++i) text += (i > 0 ? ", " : "") + number(values[i]);
  return text + "]";
}

std::string matrix(const char* key, const Eigen::Matrix4d& T) {
  std::string text = std::string("  ") + key + ":\n";
  for (int r = 0; r < 4; ++r) text += "  - " + list({T(r, 0), T(r, 1), T(r, 2), T(r, 3)}) + "\n";
  return text;
}

}  // namespace

std::string camchainFromAsl(const std::string& mav0) {
  std::string text = "# Camera chain from the sensor.yaml files of " + mav0 + " (lumetra-depth calib)\n";
  Eigen::Matrix4d T_BS_previous = Eigen::Matrix4d::Identity();
  for (int i = 0; i < 2; ++i) {
    const std::string name = "cam" + std::to_string(i);
    const SensorCamera cam = readSensor((std::filesystem::path(mav0) / name / "sensor.yaml").string());
    text += name + ":\n  camera_model: pinhole\n";
    text += "  intrinsics: " + list(cam.intrinsics) + "\n";
    text += "  distortion_model: " + cam.model + "\n";
    text += "  distortion_coeffs: " + list(cam.coefficients) + "\n";
    text += "  resolution: [" + std::to_string(std::lround(cam.resolution[0])) + ", " +
            std::to_string(std::lround(cam.resolution[1])) + "]\n";
    text += matrix("T_cam_imu", cam.T_BS.inverse());
    if (i > 0) text += matrix("T_cn_cnm1", cam.T_BS.inverse() * T_BS_previous);
    T_BS_previous = cam.T_BS;
  }
  return text;
}

}  // namespace LumoTool

namespace LumoTool {

bool leftCameraFromImu(const std::string& camchainPath, Eigen::Matrix4d* T_cam_imu) {
  if (!KorvTech::YamlNode::UnreadableReason(camchainPath).empty()) return false;
  const KorvTech::YamlNode cam0 = KorvTech::YamlNode::LoadFile(camchainPath)["cam0"];
  for (const char* key : {"T_cam_imu", "T_imu_cam"}) {
    const KorvTech::YamlNode node = cam0[key];
    if (node.type != KorvTech::YamlNode::Sequence) continue;
    std::vector<double> values;
    for (const KorvTech::YamlNode& row : node.seq) {
      if (row.type == KorvTech::YamlNode::Scalar) {
        values.push_back(std::strtod(row.scalar.c_str(), nullptr));
      } else {
        for (const KorvTech::YamlNode& v : row.seq) values.push_back(std::strtod(v.scalar.c_str(), nullptr));
      }
    }
    if (values.size() != 16) return false;
    for (int i = 0; i < 16; ++i) (*T_cam_imu)(i / 4, i % 4) = values[i];
    if (key[2] == 'i') *T_cam_imu = T_cam_imu->inverse().eval();
    return true;
  }
  return false;
}

}  // namespace LumoTool
