// Synthetic stereo data: renders a SyntheticScene through a calibrated camera
// rig with real lens distortion, and gives metric ground-truth depth in the
// rectified left view the way the depth library rectifies, plus the camera
// calibration file. Test, benchmark and demo data only.
//
// Conventions: camera frames have Z forward, X right, Y down; pixel (u, v)
// has integer coordinates at pixel centres; lengths in metres; depth images
// are CV_32FC1 with 0 for "no depth". T_a_b maps points of frame b into
// frame a (p_a = R·p_b + t).
#pragma once

#include "synth/SyntheticScene.h"

#include <Eigen/Geometry>
#include <opencv2/core.hpp>

#include <string>
#include <vector>

namespace LumoSynth {

enum class LensModel {
  Radtan,       // OpenCV's radial-tangential model: k1 k2 p1 p2 [k3]
  Equidistant,  // OpenCV's fisheye model: k1 k2 k3 k4
};

struct Camera {
  int width = 0, height = 0;              // pixels
  double fx = 0, fy = 0, cx = 0, cy = 0;  // pixels
  LensModel model = LensModel::Radtan;
  std::vector<double> coeffs;  // 4 or 5 for Radtan, 4 for Equidistant, in OpenCV's order
  // Maps points of the previous camera of the rig into this one; ignored for camera 0.
  Eigen::Matrix4d T_cn_cnm1 = Eigen::Matrix4d::Identity();
};

cv::Matx33d cameraMatrix(const Camera& cam);
cv::Mat distCoeffs(const Camera& cam);  // CV_64F column, as OpenCV's calls take it

// Pixel of a camera-frame point in front of the camera (Z > 0), by the same
// formulas as cv::projectPoints / cv::fisheye::projectPoints.
Eigen::Vector2d projectPoint(const Camera& cam, const Eigen::Vector3d& p);

// Inverse of projectPoint: the ray (x, y, 1) seen by pixel (u, v), found by
// Newton's method to ~1e-12. False where the inverse does not converge or the
// ray would not point forward (fisheye beyond 89° off axis).
bool pixelRay(const Camera& cam, double u, double v, Eigen::Vector2d& xy);

// Cameras 0 (left) and 1 (right) form the stereo pair; camera 2, when
// present, is an auxiliary colour camera. Each camera's T_cn_cnm1 chains it
// to the one before.
struct Rig {
  std::vector<Camera> cameras;
};

// T_ci_c0: maps left-camera points into camera `index` (composes the chain).
Eigen::Isometry3d cameraFromLeft(const Rig& rig, int index);

// Two radtan cameras (k1 ≈ −0.1, ~67° horizontal field), right camera 10 cm
// to the right and turned by ~0.75°. Intrinsics scale with the size.
Rig pinholeRig(int width = 1280, int height = 800);
// Two equidistant cameras with a 110° horizontal field, 8 cm baseline, ~0.6° relative turn.
Rig fisheyeRig(int width = 1280, int height = 800);
// Colour camera with five radtan coefficients, ~73° horizontal field.
Camera colourCamera(int width = 1920, int height = 1080);
// Appends `cam` as the next camera of the chain, placed at T_cam_left from the
// left camera (its T_cn_cnm1 is derived from that).
void addCamera(Rig& rig, Camera cam, const Eigen::Isometry3d& T_cam_left);
// The rig with colourCamera(width, height) added 3.5 cm right, 1.2 cm above
// and 4 mm in front of the left camera, turned by ~0.9°.
Rig withColourCamera(Rig rig, int width = 1920, int height = 1080);

// Undistorted rays (x, y) with z = 1 for every sub-sample of every pixel:
// sub-sample (i, j) of pixel (u, v) sits at (u + (i + 0.5)/s − 0.5, v + (j + 0.5)/s − 0.5)
// and is stored at ((v·width + u)·s·s + j·s + i)·2. NaN marks a pixel without a ray.
struct RayTable {
  int width = 0, height = 0, supersample = 1;
  std::vector<float> xy;
};
RayTable buildRayTable(const Camera& cam, int supersample);

// A rig with the ray tables of all its cameras; build once, render many frames.
struct Renderer {
  Rig rig;
  std::vector<RayTable> rays;
};
Renderer makeRenderer(const Rig& rig, int supersample = 2);

// One camera's view at a frame: CV_8UC3 (blue-green-red) of the camera's
// size, each pixel the box-filtered mean of its sub-samples. Nothing hit: black.
cv::Mat renderView(const Renderer& renderer, const Scene& scene, int frame, int camera);
// Stacked stereo frame: left view on top, right below, CV_8UC3 of width × 2·height.
// Cameras 0 and 1 must have the same size (std::invalid_argument otherwise).
cv::Mat renderStereo(const Renderer& renderer, const Scene& scene, int frame);
// CV_8UC1 from CV_8UC3 with OpenCV's BGR-to-grey weights.
cv::Mat toGrey(const cv::Mat& bgr);

// The library's stereo rectification at working scale s: K0, K1 are the
// cameras' matrices with their first two rows times s, size is
// (int)(width·s) × (int)(height·s), and R1, R2, P1, P2, Q come from
// cv::stereoRectify with zero distortion, CALIB_ZERO_DISPARITY and alpha 0.
struct Rectification {
  double scale = 1.0;
  cv::Size size;
  cv::Mat K0, K1, R1, R2, P1, P2, Q;  // CV_64F
  double baseline = 0.0;              // −P2(0,3)/P2(0,0), metres
};
Rectification rectification(const Rig& rig, double scale);

// Depth (rectified-frame Z) seen by each pixel of the rectified left view at
// a frame: CV_32FC1 of rect.size; 0 where nothing is hit or beyond farDepth.
cv::Mat rectifiedDepth(const Rectification& rect, const Scene& scene, int frame);
// Z in a camera's own frame for each pixel of its own (distorted) image,
// CV_32FC1 of the camera's size; 0 where nothing is hit or beyond farDepth.
cv::Mat cameraDepth(const Rig& rig, const Scene& scene, int frame, int camera);

// Camera-chain calibration text (cam0, cam1, ... with intrinsics,
// distortion_coeffs, distortion_model, resolution and, from cam1 on,
// T_cn_cnm1 as four "- [a, b, c, d]" rows); numbers print with %.17g so
// they read back bit-exact.
std::string calibrationYaml(const Rig& rig);
void writeCalibrationYaml(const std::string& path, const Rig& rig);  // throws std::runtime_error

// Depth as a single-channel 32-bit float TIFF (`path` ends in .tiff), metres,
// 0 = no depth: OpenCV, numpy-based readers and image viewers open it.
void writeDepth(const std::string& path, const cv::Mat& depth);  // CV_32FC1; throws std::runtime_error
cv::Mat readDepth(const std::string& path);                      // throws std::runtime_error

struct SequenceOptions {
  int supersample = 2;
  bool colourFrames = false;  // stacked frames in BGR instead of grey
  bool colourCamera = true;   // also write camera 2's views and depth when the rig has one
};

// Writes into `dir` (created if needed):
//   calib.yaml                   the rig's calibration
//   frame_000000.png, ...        stacked stereo frames (grey, or BGR with colourFrames)
//   depth_000000.tiff, ...       rectifiedDepth at `scale` (format of writeDepth)
//   colour_000000.png, ...       camera 2's view (rig with a colour camera)
//   colour_depth_000000.tiff,... cameraDepth of camera 2
//   poses.txt                    per frame: index, then T_world_left's top 3×4 rows, row-major
// Throws std::runtime_error when a file cannot be written.
void writeSequence(const std::string& dir, const Rig& rig, const Scene& scene, int frames, double scale,
                   const SequenceOptions& options = SequenceOptions());

}  // namespace LumoSynth
