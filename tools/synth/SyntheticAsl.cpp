#include "synth/SyntheticAsl.h"

#include <opencv2/imgcodecs.hpp>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace LumoSynth {

namespace {

namespace fs = std::filesystem;

std::string number(double v) {
  char buf[32];
  std::snprintf(buf, sizeof(buf), "%.17g", v);
  return buf;
}

std::string list(const std::vector<double>& values, const char* wrap = "") {
  std::string s = "[";
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (i > 0) s += i % 4 == 0 ? std::string(",\n") + wrap : ", ";
    s += number(values[i]);
  }
  return s + "]";
}

void writeFile(const fs::path& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary);
  out << text;
  if (!out) throw std::runtime_error("cannot write " + path.string());
}

}  // namespace

Eigen::Isometry3d bodyFromLeft() {
  // Camera axes (X right, Y down, Z forward) in body axes (X forward, Y left, Z up).
  Eigen::Matrix3d axes;
  axes << 0, 0, 1, -1, 0, 0, 0, -1, 0;
  Eigen::Isometry3d T = Eigen::Isometry3d::Identity();
  T.linear() = Eigen::AngleAxisd(0.02, Eigen::Vector3d(0.3, -0.5, 0.8).normalized()).toRotationMatrix() * axes;
  T.translation() = Eigen::Vector3d(-0.035, 0.055, -0.012);
  return T;
}

std::uint64_t aslTimestamp(const AslOptions& options, int frame) {
  return options.startNs + static_cast<std::uint64_t>(frame) * options.periodNs;
}

std::string aslSensorYaml(const Camera& cam, const Eigen::Isometry3d& T_BS, const std::string& name) {
  std::vector<double> data;
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) data.push_back(T_BS.matrix()(r, c));
  std::string s = "# General sensor definitions.\nsensor_type: camera\ncomment: " + name +
                  " of a synthetic stereo rig (lumo_synth)\n\n# Sensor extrinsics wrt. the body-frame.\n";
  s += "T_BS:\n  cols: 4\n  rows: 4\n  data: " + list(data, "         ") + "\n\n";
  s += "# Camera specific definitions.\nrate_hz: 20\n";
  s += "resolution: [" + std::to_string(cam.width) + ", " + std::to_string(cam.height) + "]\n";
  s += "camera_model: pinhole\n";
  s += "intrinsics: " + list({cam.fx, cam.fy, cam.cx, cam.cy}) + " #fu, fv, cu, cv\n";
  s += std::string("distortion_model: ") + (cam.model == LensModel::Radtan ? "radial-tangential" : "equidistant") +
       "\n";
  s += "distortion_coefficients: " + list(cam.coeffs) + "\n";
  return s;
}

void writeAslSequence(const std::string& mav0, const Rig& rig, const Scene& scene, int frames,
                      const AslOptions& options) {
  const Renderer renderer = makeRenderer(rig, options.supersample);
  const Eigen::Isometry3d T_body_left = bodyFromLeft();
  for (int camera = 0; camera < 2; ++camera) {
    const std::string name = "cam" + std::to_string(camera);
    const fs::path dir = fs::path(mav0) / name;
    fs::create_directories(dir / "data");
    writeFile(dir / "sensor.yaml",
              aslSensorYaml(rig.cameras[camera], T_body_left * cameraFromLeft(rig, camera).inverse(), name));
    std::string csv = "#timestamp [ns],filename\n";
    for (int k = 0; k < frames; ++k) {
      const std::string file = std::to_string(aslTimestamp(options, k)) + ".png";
      if (!cv::imwrite((dir / "data" / file).string(), toGrey(renderView(renderer, scene, k, camera)))) {
        throw std::runtime_error("cannot write " + (dir / "data" / file).string());
      }
      csv += std::to_string(aslTimestamp(options, k)) + "," + file + "\n";
    }
    writeFile(dir / "data.csv", csv);
  }

  const fs::path truthDir = fs::path(mav0) / "state_groundtruth_estimate0";
  fs::create_directories(truthDir);
  std::string csv =
      "#timestamp, p_RS_R_x [m], p_RS_R_y [m], p_RS_R_z [m], q_RS_w [], q_RS_x [], q_RS_y [], q_RS_z [], "
      "v_RS_R_x [m s^-1], v_RS_R_y [m s^-1], v_RS_R_z [m s^-1], b_w_RS_S_x [rad s^-1], b_w_RS_S_y [rad s^-1], "
      "b_w_RS_S_z [rad s^-1], b_a_RS_S_x [m s^-2], b_a_RS_S_y [m s^-2], b_a_RS_S_z [m s^-2]\n";
  const int n = options.truthPerFrame;
  for (int k = -n / 2; k <= (frames - 1) * n + n / 2; ++k) {
    const double frame = static_cast<double>(k) / n;
    const Eigen::Isometry3d T_world_body = leftPoseAt(scene, frame) * T_body_left.inverse();
    const Eigen::Quaterniond q(T_world_body.linear());
    const auto stamp = static_cast<std::uint64_t>(static_cast<std::int64_t>(options.startNs) +
                                                  static_cast<std::int64_t>(k) *
                                                      static_cast<std::int64_t>(options.periodNs) / n);
    const Eigen::Vector3d p = T_world_body.translation();
    csv += std::to_string(stamp) + "," + number(p.x()) + "," + number(p.y()) + "," + number(p.z()) + "," +
           number(q.w()) + "," + number(q.x()) + "," + number(q.y()) + "," + number(q.z()) +
           ",0,0,0,0,0,0,0,0,0\n";
  }
  writeFile(truthDir / "data.csv", csv);
}

}  // namespace LumoSynth
