// Camera-chain files in the layouts users' calibration tools and tracker
// projects write. Each either loads and gives the depth of a rendered,
// textured plane within 1 % (median), or is refused at creation with one error
// line naming the camera and the reason, after which frames are refused.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include <Eigen/Geometry>
#include <opencv2/imgproc.hpp>

#include "lumetra_depth.h"
#include "support/CaptureOutput.h"
#include "support/HostConfig.h"
#include "support/ShiftedPair.h"
#include "support/TempDir.h"
#include "synth/SyntheticStereo.h"

namespace {

constexpr int kWidth = 320, kHeight = 200;

// Round intrinsics, so that the messages below can be written out. Camera 1
// sits 10 cm to the right, turned by about a degree.
LumoSynth::Rig plainRig() {
  LumoSynth::Camera left, right;
  left.width = right.width = kWidth;
  left.height = right.height = kHeight;
  left.fx = left.fy = 260, left.cx = 160, left.cy = 100;
  left.coeffs = {-0.1, 0.01, 0.001, -0.001};
  right.fx = 262, right.fy = 261, right.cx = 158, right.cy = 102;
  right.coeffs = {-0.09, 0.012, -0.0005, 0.0008};
  Eigen::Isometry3d T = Eigen::Isometry3d::Identity();
  T.linear() = Eigen::AngleAxisd(0.017, Eigen::Vector3d(0.3, 1.0, 0.2).normalized()).toRotationMatrix();
  T.translation() = Eigen::Vector3d(-0.1, 0.002, 0.001);
  right.T_cn_cnm1 = T.matrix();
  return LumoSynth::Rig{{left, right}};
}

// A textured wall 1.5 m ahead: 18.03 pixels of disparity, near a whole
// number, where the matcher's sub-pixel estimate is unbiased.
LumoSynth::Scene wall() {
  LumoSynth::Scene scene;
  scene.planes.push_back(LumoSynth::Plane{Eigen::Vector3d(0, 0, -1), -1.5, {}});
  return scene;
}

std::string number(double v) {
  char text[40];
  std::snprintf(text, sizeof(text), "%.17g", v);
  return text;
}

struct Layout {
  bool wrap = false;     // lists wrapped at 80 columns and continued deeper, as PyYAML writes them
  bool extras = false;   // the keys, comments and blank lines a calibration toolbox adds
  bool crlf = false;
  bool tabs = false;     // indentation by tabs
  enum { kRows, kFlat, kImu, kImuInverse } transform = kRows;
};

// "key: [a, b, ...]" at `indent` blanks, wrapped like PyYAML when asked.
std::string list(const std::string& head, const std::vector<double>& values, int indent, bool wrap) {
  std::string text = std::string(indent, ' ') + head + "[", line;
  for (std::size_t i = 0; i < values.size(); ++i) {
    const std::string item = number(values[i]) + (i + 1 < values.size() ? ", " : "]");
    if (wrap && text.size() - text.rfind('\n') + item.size() > 80) text += "\n" + std::string(indent + 2, ' ');
    text += item;
  }
  return text + "\n";
}

std::vector<double> rowsOf(const Eigen::Matrix4d& T, int first, int count) {
  std::vector<double> values;
  for (int r = first; r < first + count; ++r) {
    for (int c = 0; c < 4; ++c) values.push_back(T(r, c));
  }
  return values;
}

std::string calibrationText(const LumoSynth::Rig& rig, const Layout& layout) {
  // The IMU sits turned and offset against camera 0, as on real rigs.
  Eigen::Isometry3d camFromImu = Eigen::Isometry3d::Identity();
  camFromImu.linear() = Eigen::AngleAxisd(1.5708, Eigen::Vector3d(0.1, 0.2, 1.0).normalized()).toRotationMatrix();
  camFromImu.translation() = Eigen::Vector3d(0.03, -0.05, 0.012);
  std::string s = layout.extras ? "%YAML:1.0\n# camera chain of the test rig\n" : "";
  for (std::size_t i = 0; i < rig.cameras.size(); ++i) {
    const LumoSynth::Camera& c = rig.cameras[i];
    if (i > 0) camFromImu = Eigen::Isometry3d(c.T_cn_cnm1) * camFromImu;
    s += "cam" + std::to_string(i) + ":\n";
    const Eigen::Matrix4d T = c.T_cn_cnm1;
    if (i > 0 && layout.transform == Layout::kRows) {
      s += "  T_cn_cnm1:\n";
      for (int r = 0; r < 4; ++r) s += list("- ", rowsOf(T, r, 1), 2, layout.wrap);
    } else if (i > 0 && layout.transform == Layout::kFlat) {
      s += "  T_cn_cnm1: [";  // one list of 16, a row per line
      for (int k = 0; k < 16; ++k) s += number(T(k / 4, k % 4)) + (k == 15 ? "]\n" : k % 4 == 3 ? ",\n    " : ", ");
    }
    if (layout.extras || layout.transform == Layout::kImu) {
      s += "  T_cam_imu:\n";
      for (int r = 0; r < 4; ++r) s += list("- ", rowsOf(camFromImu.matrix(), r, 1), 2, layout.wrap);
    } else if (layout.transform == Layout::kImuInverse) {
      s += list("T_imu_cam: ", rowsOf(camFromImu.inverse().matrix(), 0, 4), 2, true);
    }
    if (layout.extras) s += "  cam_overlaps: [" + std::string(i ? "0" : "1") + "]\n  camera_model: pinhole\n";
    s += list("intrinsics: ", {c.fx, c.fy, c.cx, c.cy}, 2, layout.wrap);
    s += list("distortion_coeffs: ", c.coeffs, 2, layout.wrap);
    s += "  distortion_model: radtan\n";
    s += "  resolution: [" + std::to_string(c.width) + ", " + std::to_string(c.height) + "]\n";
    if (layout.extras) {
      s += "  rostopic: '/cam" + std::to_string(i) + "/image_raw'  # quoted\n  timeshift_cam_imu: -0.0123\n   \n";
    }
  }
  if (layout.tabs) {
    for (const auto& [blanks, tabs] : {std::pair<std::string, std::string>{"\n    ", "\n\t\t"}, {"\n  ", "\n\t"}}) {
      for (std::string::size_type at = 0; (at = s.find(blanks, at)) != std::string::npos;) s.replace(at, blanks.size(), tabs);
    }
  }
  if (layout.crlf) {
    for (std::string::size_type at = 0; (at = s.find('\n', at)) != std::string::npos; at += 2) s.replace(at, 1, "\r\n");
  }
  return s;
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
  const std::string::size_type at = text.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  if (at != std::string::npos) text.replace(at, from.size(), to);
  return text;
}

LumoSynth::Rig withTransform(LumoSynth::Rig rig, const Eigen::Matrix4d& T) {
  rig.cameras[1].T_cn_cnm1 = T;
  return rig;
}

// The same rig seen from its right camera: the cameras change places.
LumoSynth::Rig swapped(LumoSynth::Rig rig) {
  std::swap(rig.cameras[0], rig.cameras[1]);
  rig.cameras[1].T_cn_cnm1 = rig.cameras[0].T_cn_cnm1.inverse();
  return rig;
}

struct Result {
  std::string printed;  // standard output during creation
  int feed = -1;
  double medianError = 1.0, coverage = 0.0;
};

Result run(const std::string& calibration) {
  static const LumoSynth::Rig rig = plainRig();
  static cv::Mat grey = LumoSynth::toGrey(LumoSynth::renderStereo(LumoSynth::makeRenderer(rig, 2), wall(), 0));
  static const cv::Mat truth = LumoSynth::rectifiedDepth(LumoSynth::rectification(rig, 1.0), wall(), 0);
  LumoTest::TempDir dir;
  LumoTest::writeText(dir.file("calib.yaml"), calibration);
  LumoTest::HostConfig()
      .set("input_stereo_width", std::to_string(kWidth))
      .set("input_stereo_height", std::to_string(kHeight))
      .write(dir.file("config.yaml"));
  LumoTest::Handle handle(dir.file("config.yaml"));
  EXPECT_EQ(handle.status, 0);
  Result result{handle.printed};
  LumoImage frame = LumoTest::wrapStacked(grey, 42);
  LumoTest::captureStdout([&] { result.feed = KORV_LUMO_D_FeedStereoImage(handle, &frame); });
  LumoTest::DepthBuffer depth(kWidth * kHeight, 0.0f);
  if (result.feed != 0 || KORV_LUMO_D_GetDepthImage(handle, &depth.record, nullptr, nullptr) != 0) return result;
  // Where the 32-disparity search reaches and the block fits.
  std::vector<double> errors;
  for (int v = 6; v < kHeight - 6; ++v) {
    for (int u = 40; u < kWidth - 6; ++u) {
      const float z = truth.at<float>(v, u), d = depth.data[v * kWidth + u];
      if (z > 0.0f && d > 0.0f) errors.push_back(std::fabs(d - z) / z);
    }
  }
  result.coverage = static_cast<double>(errors.size()) / ((kHeight - 12) * (kWidth - 46));
  if (errors.empty()) return result;
  std::nth_element(errors.begin(), errors.begin() + errors.size() / 2, errors.end());
  result.medianError = errors[errors.size() / 2];
  return result;
}

TEST(CalibrationFiles, LayoutsUsersHaveLoadAndGiveDepth) {
  const Layout cases[] = {{},  // wrap, extras, crlf, tabs, transform
                         {true, true},
                         {false, false, false, false, Layout::kFlat},
                         {false, false, false, false, Layout::kImu},
                         {false, false, false, false, Layout::kImuInverse},
                         {false, true, true},
                         {true, false, false, true}};
  for (const Layout& layout : cases) {
    const std::string text = calibrationText(plainRig(), layout);
    SCOPED_TRACE(text);
    const Result r = run(text);
    EXPECT_EQ(r.printed.find("[ ERROR]"), std::string::npos) << r.printed;
    ASSERT_EQ(r.feed, 0) << r.printed;
    EXPECT_GT(r.coverage, 0.8);
    EXPECT_LT(r.medianError, 0.01);
    const bool derived = layout.transform == Layout::kImu || layout.transform == Layout::kImuInverse;
    EXPECT_EQ(r.printed.find("calib: cam1 has no T_cn_cnm1: derived from the IMU transforms of cam0 and cam1\n") !=
                  std::string::npos,
              derived)
        << r.printed;
  }
}

TEST(CalibrationFiles, WhatCannotBeUsedIsRefusedWithTheCameraAndTheReason) {
  const LumoSynth::Rig rig = plainRig();
  const std::string plain = calibrationText(rig, Layout());
  const std::string cam0Intrinsics = "intrinsics: [260, 260, 160, 100]";
  Eigen::Matrix4d stretched = rig.cameras[1].T_cn_cnm1, mirrored = stretched, apart = stretched, infinite = stretched;
  stretched.topLeftCorner<3, 3>() *= 1.01;
  mirrored.row(1) *= -1.0;
  apart.topRightCorner<3, 1>().setZero();
  infinite(0, 3) = INFINITY;
  Eigen::Matrix4d below = Eigen::Matrix4d::Identity();
  below.topRightCorner<3, 1>() = Eigen::Vector3d(-0.01, -0.1, 0.002);

  const std::string file = "initCameraFromCalibYaml(): ";
  const std::string rectify = "initRectifyMap(): ";
  const std::string finite = " must be finite with fx, fy above zero";
  const auto intrinsics = [&](const std::string& values) { return replaced(plain, cam0Intrinsics, "intrinsics: " + values); };
  const auto moved = [&](const Eigen::Matrix4d& T) { return calibrationText(withTransform(rig, T), Layout()); };
  const std::pair<std::string, std::string> cases[] = {
      {replaced(replaced(plain, cam0Intrinsics, "intrinsics: [0.8, 260, 260, 160, 100]"), "cam0:\n",
                "cam0:\n  camera_model: omni\n"),
       file + "cam0: camera_model omni is not supported: only pinhole cameras are (with radtan, equidistant or "
              "cvbasic distortion)"},
      {intrinsics("[nan, 260, 160, 100]"), file + "cam0: intrinsics [nan, 260, 160, 100]" + finite},
      {intrinsics("[0, 260, 160, 100]"), file + "cam0: intrinsics [0, 260, 160, 100]" + finite},
      {intrinsics("[260, 260, 160]"), file + "cam0: intrinsics must be [fx, fy, cx, cy], not 3 numbers [260, 260, 160]"},
      {intrinsics("[260, 260, 160, x100]"),
       file + "cam0: intrinsics holds text that is not a number, or a number out of range"},
      {replaced(plain, "resolution: [320, 200]", "resolution: [320, 0]"),
       file + "cam0: resolution must be two positive integers [width, height], not [320, 0]"},
      {replaced(plain, "distortion_coeffs: [-0.10000000000000001, 0.01, 0.001, -0.001]",
                "distortion_coeffs: [-0.1, 0.01, 0.001]"),
       file + "cam0: radtan takes 4 or 5 distortion_coeffs, not 3"},
      {replaced(replaced(plain, "distortion_model: radtan", "distortion_model: cvbasic"), "0.001, -0.001]",
                "0.001, -0.001, 0, 0]"),
       file + "cam0: cvbasic takes 4, 5, 8, 12 or 14 distortion_coeffs, not 6"},
      {moved(stretched),
       file + "cam1: T_cn_cnm1 has a rotation that is not orthonormal (R^T R is off the identity by 0.0201)"},
      {moved(mirrored), file + "cam1: T_cn_cnm1 has a reflection, not a rotation (determinant -1)"},
      {moved(apart), file + "cam1: T_cn_cnm1 has a zero translation: the two cameras must be apart"},
      {moved(infinite), file + "cam1: T_cn_cnm1 holds a value that is not finite"},
      {replaced(plain, "  - [0, 0, 0, 1]\n", ""),
       file + "cam1: T_cn_cnm1 is not a 4x4 matrix (four rows of four numbers, or 16 numbers)"},
      {calibrationText(swapped(rig), Layout()),
       rectify + "cam1 sits to the left of cam0 (at (-0.1, 0.002, 0.001)): the stacked frame holds the left view "
                 "on top; swap cam0 and cam1 in the calibration and the two views in the frame"},
      {moved(below),
       rectify + "cam1 sits at (0.01, 0.1, -0.002) from cam0, above or below it or ahead: the matcher searches "
                 "along image rows, so the cameras must sit side by side; turn both views and the calibration by "
                 "90 degrees"},
      {replaced(plain, "cam1:", "camera1:"),
       rectify + "the calibration has no cam1: depth needs the stereo pair cam0 and cam1"},
  };
  for (const auto& [text, message] : cases) {
    SCOPED_TRACE(message);
    const Result r = run(text);
    const std::string::size_type at = r.printed.find("[ ERROR] ");
    ASSERT_NE(at, std::string::npos) << r.printed;
    EXPECT_EQ(r.printed.substr(at + 9, r.printed.find('\n', at) - at - 9), message);
    // Only the design's follow-up line of a failed import may come with it.
    int lines = 0;
    for (auto i = r.printed.find("[ ERROR]"); i != std::string::npos; i = r.printed.find("[ ERROR]", i + 1)) ++lines;
    EXPECT_EQ(lines, message.rfind(file, 0) == 0 ? 2 : 1) << r.printed;
    EXPECT_EQ(r.feed, 1);
  }
}

}  // namespace
