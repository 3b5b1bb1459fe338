// The renderer is checked against OpenCV's own camera models: rays must
// project back through cv::projectPoints, rectified views must agree with
// the ground-truth disparity, and scene edges must appear where OpenCV
// projects them.
#include "synth/SyntheticStereo.h"

#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include <unistd.h>

namespace {

using namespace LumoSynth;

constexpr double kDeg = 3.14159265358979323846 / 180.0;

// OpenCV projection of camera-frame or world points, by the camera's lens model.
std::vector<cv::Point2d> cvProject(const Camera& cam, const std::vector<cv::Point3d>& points,
                                   const Eigen::Isometry3d& T_cam_world = Eigen::Isometry3d::Identity()) {
  cv::Mat R(3, 3, CV_64F), rvec, tvec(3, 1, CV_64F);
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j) R.at<double>(i, j) = T_cam_world.linear()(i, j);
    tvec.at<double>(i) = T_cam_world.translation()[i];
  }
  cv::Rodrigues(R, rvec);
  std::vector<cv::Point2d> pixels;
  if (cam.model == LensModel::Radtan)
    cv::projectPoints(points, rvec, tvec, cv::Mat(cameraMatrix(cam)), distCoeffs(cam), pixels);
  else
    cv::fisheye::projectPoints(points, pixels, rvec, tvec, cv::Mat(cameraMatrix(cam)), distCoeffs(cam));
  return pixels;
}

double bilinear(const cv::Mat& img, double x, double y) {
  cv::Mat patch;
  cv::getRectSubPix(img, cv::Size(1, 1), cv::Point2f(static_cast<float>(x), static_cast<float>(y)), patch, CV_32F);
  return patch.at<float>(0, 0);
}

cv::Mat floatGrey(const cv::Mat& bgr) {
  cv::Mat f;
  toGrey(bgr).convertTo(f, CV_32F);
  return f;
}

// ---------------------------------------------------------------------------
// Lens inverse: every pixel's ray, projected by OpenCV, lands on that pixel.

TEST(SynthLens, PixelRaysProjectBackThroughOpenCV) {
  const Rig pin = pinholeRig(641, 401), fish = fisheyeRig(641, 401);
  const std::vector<std::pair<const char*, Camera>> cameras = {
      {"pinhole left", pin.cameras[0]}, {"pinhole right", pin.cameras[1]}, {"fisheye left", fish.cameras[0]},
      {"fisheye right", fish.cameras[1]}, {"colour (five radtan terms)", colourCamera(961, 541)}};

  for (const auto& [name, cam] : cameras) {
    SCOPED_TRACE(name);
    std::vector<cv::Point2d> pixels;
    std::vector<cv::Point3d> rays;
    // Grid out to the outer edges of the border pixels, where distortion is largest.
    for (int j = 0; j <= 16; ++j) {
      for (int i = 0; i <= 16; ++i) {
        const cv::Point2d px(-0.5 + cam.width * i / 16.0, -0.5 + cam.height * j / 16.0);
        Eigen::Vector2d xy;
        ASSERT_TRUE(pixelRay(cam, px.x, px.y, xy)) << px;
        pixels.push_back(px);
        rays.emplace_back(xy.x(), xy.y(), 1.0);
      }
    }
    const std::vector<cv::Point2d> back = cvProject(cam, rays);
    for (std::size_t k = 0; k < rays.size(); ++k) {
      EXPECT_LT(cv::norm(back[k] - pixels[k]), 1e-6) << pixels[k];
      const Eigen::Vector2d own = projectPoint(cam, Eigen::Vector3d(rays[k].x, rays[k].y, 1.0));
      EXPECT_LT(cv::norm(cv::Point2d(own.x(), own.y()) - back[k]), 1e-9) << pixels[k];
    }

    if (cam.model == LensModel::Equidistant) {
      // Horizontal field between the outer edges of the first and last columns.
      Eigen::Vector2d l, r;
      ASSERT_TRUE(pixelRay(cam, -0.5, cam.cy, l));
      ASSERT_TRUE(pixelRay(cam, cam.width - 0.5, cam.cy, r));
      const double field = (std::atan(-l.x()) + std::atan(r.x())) / kDeg;
      EXPECT_GT(field, 100.0);
      EXPECT_LT(field, 120.0);
    }
  }
}

// ---------------------------------------------------------------------------
// Stereo geometry: rectify both rendered views with OpenCV's maps, as the
// depth library does, and check that the right view matches the left at the
// ground-truth disparity fx·B/Z and not beside it.

void checkRectifiedDisparity(const Rig& rig, double scale) {
  const Scene scene = defaultScene(7);
  const Camera& cam0 = rig.cameras[0];
  const cv::Mat stacked = renderStereo(makeRenderer(rig, 2), scene, 0);
  ASSERT_EQ(stacked.size(), cv::Size(cam0.width, 2 * cam0.height));

  const Rectification rect = rectification(rig, scale);
  const cv::Mat depth = rectifiedDepth(rect, scene, 0);
  ASSERT_EQ(depth.size(), rect.size);

  cv::Mat rectified[2];
  for (int i = 0; i < 2; ++i) {
    cv::Mat view = stacked.rowRange(i * cam0.height, (i + 1) * cam0.height);
    if (scale != 1.0) cv::resize(view, view, rect.size, 0, 0, cv::INTER_AREA);
    const Camera& cam = rig.cameras[i];
    const cv::Mat& K = i == 0 ? rect.K0 : rect.K1;
    const cv::Mat& R = i == 0 ? rect.R1 : rect.R2;
    const cv::Mat& P = i == 0 ? rect.P1 : rect.P2;
    cv::Mat mapX, mapY;
    if (cam.model == LensModel::Radtan)
      cv::initUndistortRectifyMap(K, distCoeffs(cam), R, P, rect.size, CV_32FC1, mapX, mapY);
    else
      cv::fisheye::initUndistortRectifyMap(K, distCoeffs(cam), R, P, rect.size, CV_32FC1, mapX, mapY);
    cv::remap(floatGrey(view), rectified[i], mapX, mapY, cv::INTER_LINEAR);
  }

  const double f = rect.P1.at<double>(0, 0);
  const double B = rig.cameras[1].T_cn_cnm1.topRightCorner<3, 1>().norm();
  const int r = 4;
  const cv::Size win(2 * r + 1, 2 * r + 1);
  auto cost = [&](int u, int v, double x, double y) {
    cv::Mat patch;
    cv::getRectSubPix(rectified[1], win, cv::Point2f(static_cast<float>(x), static_cast<float>(y)), patch);
    return cv::norm(rectified[0](cv::Rect(u - r, v - r, win.width, win.height)), patch, cv::NORM_L1) / win.area();
  };

  int samples = 0, aligned = 0, distinct = 0;
  std::vector<double> errors;
  for (int v = r + 2; v < rect.size.height - r - 2; v += 9) {
    for (int u = r + 2; u < rect.size.width - r - 2; u += 9) {
      const cv::Rect box(u - r, v - r, win.width, win.height);
      double zMin, zMax;
      cv::minMaxLoc(depth(box), &zMin, &zMax);
      if (zMin <= 0.0 || zMax > 1.01 * zMin) continue;  // no depth, or a depth edge in the window
      const double d = f * B / depth.at<float>(v, u);
      if (u - d - 4.0 - r < 1.0) continue;
      cv::Scalar mean, sdev;
      cv::meanStdDev(rectified[0](box), mean, sdev);
      if (sdev[0] < 6.0) continue;  // too little texture to judge

      ++samples;
      double best = 1e30, bestDx = 0, bestDy = 0;
      for (double dy = -1.0; dy <= 1.0; dy += 0.5)
        for (double dx = -3.0; dx <= 3.0; dx += 0.25) {
          const double e = cost(u, v, u - d + dx, v + dy);
          if (e < best) best = e, bestDx = dx, bestDy = dy;
        }
      if (std::abs(bestDx) <= 0.5 && std::abs(bestDy) <= 0.5) ++aligned;
      if (cost(u, v, u - d, v) < 0.5 * std::min(cost(u, v, u - d - 3, v), cost(u, v, u - d + 3, v))) ++distinct;
      // Sub-sample minimum along the row through a parabola.
      const double cm = cost(u, v, u - d + bestDx - 0.25, v + bestDy), cp = cost(u, v, u - d + bestDx + 0.25, v + bestDy);
      const double curvature = cm - 2.0 * best + cp;
      errors.push_back(std::abs(bestDx + (curvature > 0.0 ? 0.125 * (cm - cp) / curvature : 0.0)));
    }
  }
  ASSERT_GT(samples, 300);
  EXPECT_GT(aligned, 0.9 * samples) << aligned << " of " << samples;
  EXPECT_GT(distinct, 0.9 * samples) << distinct << " of " << samples << " at most half the cost of d ± 3";
  std::nth_element(errors.begin(), errors.begin() + errors.size() / 2, errors.end());
  EXPECT_LT(errors[errors.size() / 2], 0.15) << "median disparity error, pixels";
}

TEST(SynthStereo, RectifiedViewsAgreeWithGroundTruthDisparity) {
  const std::pair<Rig, double> cases[] = {{pinholeRig(960, 600), 1.0}, {fisheyeRig(1280, 800), 0.5}};
  for (const auto& [rig, scale] : cases) {
    SCOPED_TRACE(scale);
    checkRectifiedDisparity(rig, scale);
  }
}

TEST(SynthStereo, CamerasOfDifferentSizesCannotStack) {
  Rig rig = pinholeRig(64, 40);
  rig.cameras[1].width = 66;
  EXPECT_THROW(renderStereo(makeRenderer(rig, 1), defaultScene(), 0), std::invalid_argument);
}

// ---------------------------------------------------------------------------
// Edges and depth: a flat bright box in front of a dark wall, seen from a
// moved camera; the box outline must be rendered where OpenCV projects the
// box's front face, and the depth images must hold that face's Z.

TEST(SynthEdges, BoxOutlineAndDepthWhereOpenCVProjectsThem) {
  Scene scene;
  Material dark, bright;
  dark.bgr = Eigen::Vector3d::Constant(0.1);
  dark.contrast = 0.0;
  bright.bgr = Eigen::Vector3d::Constant(0.9);
  bright.contrast = 0.0;
  scene.planes = {Plane{Eigen::Vector3d(0, 0, -1), -4.0, dark}};
  Box box;
  box.centre = Eigen::Vector3d(0.05, 0.0, 2.0);
  box.halfSize = Eigen::Vector3d(0.35, 0.25, 0.2);
  box.material = bright;
  scene.boxes = {box};
  scene.cameraStep = Eigen::Vector3d(0.03, -0.01, 0.02);
  scene.cameraYawStep = 0.5 * kDeg;
  const int frame = 2;
  // Every camera centre stays inside the face's x and y range, so only the
  // front face (z = 1.8) is visible and its edges are the outline.
  const double zFace = 1.8, x0 = -0.3, x1 = 0.4, y0 = -0.25, y1 = 0.25;

  // World to left camera at this frame, written out from the motion's definition.
  Eigen::Isometry3d T_world_left = Eigen::Isometry3d::Identity();
  T_world_left.linear() = Eigen::AngleAxisd(frame * scene.cameraYawStep, Eigen::Vector3d::UnitY()).toRotationMatrix();
  T_world_left.translation() = frame * scene.cameraStep;
  ASSERT_TRUE(leftPose(scene, frame).isApprox(T_world_left, 1e-15));

  const Rig pin = pinholeRig(640, 400), fish = fisheyeRig(640, 400);
  // Camera 1 of one rig only: cameras are placed the same way whatever their lens.
  const std::pair<Rig, int> cases[] = {{pin, 0}, {fish, 0}, {fish, 1}, {withColourCamera(pin, 800, 450), 2}};
  for (const auto& [rig, camera] : cases) {
    SCOPED_TRACE(std::string(rig.cameras[0].model == LensModel::Radtan ? "pinhole" : "fisheye") + " rig, camera " +
                 std::to_string(camera));
    const Camera& cam = rig.cameras[camera];
    Eigen::Isometry3d T_cam_left = Eigen::Isometry3d::Identity();
    for (int i = 1; i <= camera; ++i) T_cam_left = Eigen::Isometry3d(rig.cameras[i].T_cn_cnm1) * T_cam_left;
    const Eigen::Isometry3d T_cam_world = T_cam_left * T_world_left.inverse();

    const cv::Mat image = floatGrey(renderView(makeRenderer(rig, 4), scene, frame, camera));
    const cv::Mat depth = cameraDepth(rig, scene, frame, camera);

    // Points on the four edges, each with a partner 1.5 cm inside and outside the face.
    struct Edge { Eigen::Vector3d a, b, out; };
    const Edge edges[4] = {{{x0, y0, zFace}, {x1, y0, zFace}, {0, -1, 0}},
                           {{x0, y1, zFace}, {x1, y1, zFace}, {0, 1, 0}},
                           {{x0, y0, zFace}, {x0, y1, zFace}, {-1, 0, 0}},
                           {{x1, y0, zFace}, {x1, y1, zFace}, {1, 0, 0}}};
    std::vector<cv::Point3d> world;
    for (const Edge& e : edges) {
      for (int k = 0; k < 12; ++k) {
        const Eigen::Vector3d p = e.a + (0.15 + 0.7 * k / 11.0) * (e.b - e.a);
        for (double offset : {-0.015, 0.0, 0.015}) {
          const Eigen::Vector3d q = p + offset * e.out;
          world.emplace_back(q.x(), q.y(), q.z());
        }
      }
    }
    const std::vector<cv::Point2d> px = cvProject(cam, world, T_cam_world);

    double worst = 0.0, total = 0.0;
    for (std::size_t k = 0; k < px.size(); k += 3) {
      const cv::Point2d in = px[k], edge = px[k + 1], out = px[k + 2];
      const double inside = bilinear(image, in.x, in.y), outside = bilinear(image, out.x, out.y);
      ASSERT_GT(inside - outside, 100.0) << "box not bright against the wall at " << edge;

      // Where the grey level crosses half-way between the two sides, along in → out.
      const double half = 0.5 * (inside + outside);
      double prev = inside, crossing = -1.0;
      for (int s = 1; s <= 200 && crossing < 0.0; ++s) {
        const double t = s / 200.0;
        const double val = bilinear(image, in.x + t * (out.x - in.x), in.y + t * (out.y - in.y));
        if (val <= half) crossing = t - (half - val) / (prev - val) / 200.0;
        prev = val;
      }
      const cv::Point2d dir = out - in;
      const double edgeT = (edge - in).dot(dir) / dir.dot(dir);
      const double offset = std::abs(crossing - edgeT) * cv::norm(dir);
      worst = std::max(worst, offset);
      total += offset;

      // Depth of the face at the inner point, in this camera's frame.
      const cv::Point3d& w = world[k];
      const double z = (T_cam_world * Eigen::Vector3d(w.x, w.y, w.z)).z();
      EXPECT_NEAR(depth.at<float>(cvRound(in.y), cvRound(in.x)), z, 1e-3) << in;
    }
    EXPECT_LT(worst, 0.3) << "outline offset from OpenCV's projection, pixels";
    EXPECT_LT(total / (px.size() / 3), 0.12) << "mean outline offset, pixels";
  }
}

// On a plane 1/Z is an affine function of the rectified pixel, so bilinear
// interpolation of 1/depth must reproduce the rectified Z of any plane point
// projected by P1·R1, to float precision. A slanted plane makes that
// sensitive to a small fraction of a pixel.
TEST(SynthDepth, RectifiedDepthOfASlantedPlaneMatchesProjection) {
  Scene scene;
  const Eigen::Vector3d n = Eigen::Vector3d(0.3, -0.8, -0.5).normalized(), p0(0.2, 0.1, 3.0);
  scene.planes = {Plane{n, n.dot(p0), Material()}};
  scene.cameraStep = Eigen::Vector3d(0.01, 0.02, -0.03);
  scene.cameraYawStep = -0.7 * kDeg;
  const int frame = 2;
  const Eigen::Vector3d e1 = n.unitOrthogonal(), e2 = n.cross(e1);

  const std::vector<std::pair<Rig, double>> cases = {{pinholeRig(640, 400), 1.0}, {fisheyeRig(1280, 800), 0.5}};
  for (const auto& [rig, scale] : cases) {
    SCOPED_TRACE(scale);
    const Rectification rect = rectification(rig, scale);
    cv::Mat inverse;
    cv::divide(1.0, rectifiedDepth(rect, scene, frame), inverse);
    cv::Matx33d R1;
    rect.R1.copyTo(R1);
    const Eigen::Isometry3d T_left_world = leftPose(scene, frame).inverse();

    int checked = 0;
    for (double a = -3.0; a <= 3.0; a += 0.25) {
      for (double b = -3.0; b <= 3.0; b += 0.25) {
        const Eigen::Vector3d l = T_left_world * (p0 + a * e1 + b * e2);
        const cv::Vec3d p = R1 * cv::Vec3d(l.x(), l.y(), l.z());
        if (p[2] <= 0.0) continue;
        const double u = rect.P1.at<double>(0, 0) * p[0] / p[2] + rect.P1.at<double>(0, 2);
        const double v = rect.P1.at<double>(1, 1) * p[1] / p[2] + rect.P1.at<double>(1, 2);
        if (u < 1.0 || v < 1.0 || u > rect.size.width - 2.0 || v > rect.size.height - 2.0) continue;
        ++checked;
        EXPECT_NEAR(bilinear(inverse, u, v) * p[2], 1.0, 2e-6) << u << ", " << v;
      }
    }
    EXPECT_GT(checked, 100);
  }
}

// A box moving 2 cm per frame across a distortion-free camera at 2 m with
// fx = 500 moves 5 pixels per frame, and its texture must move with it.
TEST(SynthMotion, MovingBoxCarriesItsTexture) {
  const Camera cam{200, 150, 500.0, 500.0, 99.5, 74.5, LensModel::Radtan, {0.0, 0.0, 0.0, 0.0}};
  const Rig rig{{cam}};

  Scene scene;
  Material flat;
  flat.contrast = 0.0;
  scene.planes = {Plane{Eigen::Vector3d(0, 0, -1), -4.0, flat}};
  Box box;
  box.centre = Eigen::Vector3d(0.0, 0.0, 2.1);  // front face at z = 2
  box.halfSize = Eigen::Vector3d(0.3, 0.2, 0.1);
  box.velocity = Eigen::Vector3d(0.02, 0.0, 0.0);
  scene.boxes = {box};

  const Renderer renderer = makeRenderer(rig, 2);
  const cv::Mat a = floatGrey(renderView(renderer, scene, 0, 0)), b = floatGrey(renderView(renderer, scene, 1, 0));
  // The wall is flat, so the whole of frame 1 is frame 0 moved right by 5 pixels.
  const cv::Rect area(0, 0, cam.width - 5, cam.height);
  EXPECT_LE(cv::norm(a(area), b(area + cv::Point(5, 0)), cv::NORM_INF), 2.0);
  EXPECT_GT(cv::norm(a(area), b(area), cv::NORM_L1) / area.area(), 5.0) << "texture too weak to tell";
}

// ---------------------------------------------------------------------------
// Files: calibration read back with plain string handling, sequence files
// read byte by byte.

std::vector<double> numbers(std::string text) {
  for (char& ch : text)
    if (ch == '[' || ch == ']' || ch == ',') ch = ' ';
  std::istringstream in(text);
  std::vector<double> out;
  for (std::string tok; in >> tok;) out.push_back(std::strtod(tok.c_str(), nullptr));
  return out;
}

TEST(SynthFiles, CalibrationYamlHoldsTheChainAndReadsBackExactly) {
  const Rig rig = withColourCamera(fisheyeRig(640, 400), 960, 540);
  // camN -> key -> value text; "- [...]" rows under T_cn_cnm1 go to key "row".
  std::map<std::string, std::multimap<std::string, std::string>> cams;
  std::istringstream in(calibrationYaml(rig));
  std::string cam;
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    if (line[0] != ' ') cam = line.substr(0, line.find(':'));
    else if (line.rfind("  - ", 0) == 0) cams[cam].emplace("row", line.substr(4));
    else cams[cam].emplace(line.substr(2, line.find(':') - 2), line.substr(line.find(':') + 1));
  }
  ASSERT_EQ(cams.size(), 3u);

  Eigen::Matrix4d T_c2_c0 = Eigen::Matrix4d::Identity();
  for (int i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    const auto& keys = cams["cam" + std::to_string(i)];
    const Camera& c = rig.cameras[i];
    EXPECT_EQ(keys.size(), i == 0 ? 4u : 9u);  // four keys, plus T_cn_cnm1 and its four rows
    EXPECT_EQ(numbers(keys.find("intrinsics")->second), (std::vector<double>{c.fx, c.fy, c.cx, c.cy}));
    EXPECT_EQ(numbers(keys.find("distortion_coeffs")->second), c.coeffs);
    EXPECT_EQ(keys.find("distortion_model")->second, i < 2 ? " equidistant" : " radtan");
    EXPECT_EQ(numbers(keys.find("resolution")->second), (std::vector<double>{double(c.width), double(c.height)}));
    if (i == 0) continue;
    ASSERT_EQ(keys.count("T_cn_cnm1"), 1u);
    ASSERT_EQ(keys.count("row"), 4u);
    Eigen::Matrix4d T;
    int r = 0;
    for (auto [it, end] = keys.equal_range("row"); it != end; ++it, ++r) {
      const std::vector<double> row = numbers(it->second);
      ASSERT_EQ(row.size(), 4u);
      for (int k = 0; k < 4; ++k) T(r, k) = row[k];
    }
    EXPECT_EQ(T, c.T_cn_cnm1);
    T_c2_c0 = T * T_c2_c0;
  }
  // withColourCamera puts the colour camera 3.5 cm right, 1.2 cm up and
  // 4 mm forward of the left camera; the chain in the file must agree.
  const Eigen::Vector3d centre = -T_c2_c0.topLeftCorner<3, 3>().transpose() * T_c2_c0.topRightCorner<3, 1>();
  EXPECT_LT((centre - Eigen::Vector3d(0.035, -0.012, 0.004)).norm(), 1e-12) << centre.transpose();
}

TEST(SynthFiles, SequenceWritesStackedFramesDepthColourAndPoses) {
  const std::filesystem::path dir = std::filesystem::temp_directory_path() / ("lumo_synth_" + std::to_string(getpid()));
  const Rig rig = withColourCamera(pinholeRig(160, 100), 120, 68);
  const Scene scene = movingScene(3);
  SequenceOptions options;
  options.supersample = 1;
  writeSequence(dir.string(), rig, scene, 2, 0.5, options);
  auto file = [&](const char* prefix, int k, const char* ext) {
    char name[64];
    std::snprintf(name, sizeof(name), "%s%06d%s", prefix, k, ext);
    return (dir / name).string();
  };

  const Renderer renderer = makeRenderer(rig, 1);
  const Rectification rect = rectification(rig, 0.5);
  for (int k = 0; k < 2; ++k) {
    SCOPED_TRACE(k);
    const cv::Mat frame = cv::imread(file("frame_", k, ".png"), cv::IMREAD_UNCHANGED);
    ASSERT_EQ(frame.type(), CV_8UC1);
    ASSERT_EQ(frame.size(), cv::Size(160, 200));
    EXPECT_EQ(cv::norm(frame.rowRange(0, 100), toGrey(renderView(renderer, scene, k, 0)), cv::NORM_INF), 0.0);
    EXPECT_EQ(cv::norm(frame.rowRange(100, 200), toGrey(renderView(renderer, scene, k, 1)), cv::NORM_INF), 0.0);

    // "LDEP", width, height, then floats, all little-endian.
    std::ifstream depthFile(file("depth_", k, ".ldep"), std::ios::binary);
    const std::vector<unsigned char> b{std::istreambuf_iterator<char>(depthFile), std::istreambuf_iterator<char>()};
    const cv::Mat truth = rectifiedDepth(rect, scene, k);
    ASSERT_EQ(b.size(), 12u + 4u * 80u * 50u);
    EXPECT_EQ(std::string(b.begin(), b.begin() + 4), "LDEP");
    EXPECT_EQ(b[4] | b[5] << 8 | b[6] << 16 | b[7] << 24, 80);
    EXPECT_EQ(b[8] | b[9] << 8 | b[10] << 16 | b[11] << 24, 50);
    const std::size_t at = 12 + 4 * (25 * 80 + 40);
    const std::uint32_t bits = b[at] | b[at + 1] << 8 | b[at + 2] << 16 | std::uint32_t(b[at + 3]) << 24;
    float centre;
    std::memcpy(&centre, &bits, 4);
    EXPECT_EQ(centre, truth.at<float>(25, 40));
    EXPECT_EQ(cv::norm(readDepth(file("depth_", k, ".ldep")), truth, cv::NORM_INF), 0.0);

    EXPECT_EQ(cv::imread(file("colour_", k, ".png")).size(), cv::Size(120, 68));
    EXPECT_EQ(readDepth(file("colour_depth_", k, ".ldep")).size(), cv::Size(120, 68));
  }
  EXPECT_TRUE(std::filesystem::exists(dir / "calib.yaml"));

  std::ifstream poses(dir / "poses.txt");
  int k = 0;
  for (std::string line; std::getline(poses, line); ++k) {
    const std::vector<double> v = numbers(line);
    ASSERT_EQ(v.size(), 13u);
    EXPECT_EQ(v[0], k);
    for (int i = 0; i < 12; ++i) EXPECT_EQ(v[1 + i], leftPose(scene, k)(i / 4, i % 4));
  }
  EXPECT_EQ(k, 2);
  std::filesystem::remove_all(dir);
}

}  // namespace
