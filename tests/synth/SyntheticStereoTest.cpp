// The renderer is checked against OpenCV's own camera models: rays must
// project back through cv::projectPoints, rectified views must agree with the
// ground-truth disparity, and scene edges must appear where OpenCV projects them.
#include "synth/SyntheticStereo.h"

#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>
#include <opencv2/core/eigen.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>

namespace {

using namespace LumoSynth;

// OpenCV projection of camera-frame or world points, by the camera's lens model.
std::vector<cv::Point2d> cvProject(const Camera& cam, const std::vector<cv::Point3d>& points,
                                   const Eigen::Isometry3d& T_cam_world = Eigen::Isometry3d::Identity()) {
  cv::Mat R, rvec, tvec;
  cv::eigen2cv(Eigen::Matrix3d(T_cam_world.linear()), R);
  cv::eigen2cv(Eigen::Vector3d(T_cam_world.translation()), tvec);
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

TEST(SynthLens, PixelRaysProjectBackThroughOpenCV) {
  const Rig pin = pinholeRig(641, 401), fish = fisheyeRig(641, 401);
  const Camera cameras[] = {pin.cameras[0], pin.cameras[1], fish.cameras[0], fish.cameras[1], colourCamera(961, 541)};
  for (const Camera& cam : cameras) {
    SCOPED_TRACE(&cam - cameras);
    std::vector<cv::Point2d> pixels;
    std::vector<cv::Point3d> rays;
    // Out to the outer edges of the border pixels, where distortion is largest.
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
  }
}

// Both rendered views rectified with OpenCV's maps, as the library does: the
// right view must match the left at the ground-truth disparity f·B/Z, not beside it.
TEST(SynthStereo, RectifiedViewsAgreeWithGroundTruthDisparity) {
  const std::pair<Rig, double> cases[] = {{pinholeRig(960, 600), 1.0}, {fisheyeRig(1280, 800), 0.5}};
  for (const auto& [rig, scale] : cases) {
    SCOPED_TRACE(scale);
    const Scene scene = defaultScene(7);
    const int h = rig.cameras[0].height;
    const cv::Mat stacked = renderStereo(makeRenderer(rig, 2), scene, 0);
    const Rectification rect = rectification(rig, scale);
    const cv::Mat depth = rectifiedDepth(rect, scene, 0);

    cv::Mat rectified[2];
    for (int i = 0; i < 2; ++i) {
      cv::Mat view = stacked.rowRange(i * h, (i + 1) * h), mapX, mapY;
      if (scale != 1.0) cv::resize(view, view, rect.size, 0, 0, cv::INTER_AREA);
      const cv::Mat &K = i == 0 ? rect.K0 : rect.K1, &R = i == 0 ? rect.R1 : rect.R2, &P = i == 0 ? rect.P1 : rect.P2;
      if (rig.cameras[i].model == LensModel::Radtan)
        cv::initUndistortRectifyMap(K, distCoeffs(rig.cameras[i]), R, P, rect.size, CV_32FC1, mapX, mapY);
      else
        cv::fisheye::initUndistortRectifyMap(K, distCoeffs(rig.cameras[i]), R, P, rect.size, CV_32FC1, mapX, mapY);
      cv::remap(floatGrey(view), rectified[i], mapX, mapY, cv::INTER_LINEAR);
    }

    const double fB = rect.P1.at<double>(0, 0) * rig.cameras[1].T_cn_cnm1.topRightCorner<3, 1>().norm();
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
        const double d = fB / depth.at<float>(v, u);
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
        aligned += std::abs(bestDx) <= 0.5 && std::abs(bestDy) <= 0.5;
        distinct += cost(u, v, u - d, v) < 0.5 * std::min(cost(u, v, u - d - 3, v), cost(u, v, u - d + 3, v));
        // Sub-sample minimum along the row through a parabola.
        const double cm = cost(u, v, u - d + bestDx - 0.25, v + bestDy);
        const double cp = cost(u, v, u - d + bestDx + 0.25, v + bestDy);
        const double curvature = cm - 2.0 * best + cp;
        errors.push_back(std::abs(bestDx + (curvature > 0.0 ? 0.125 * (cm - cp) / curvature : 0.0)));
      }
    }
    ASSERT_GT(samples, 300);
    EXPECT_GT(aligned, 0.9 * samples);
    EXPECT_GT(distinct, 0.9 * samples) << "texture too weak to tell d from d ± 3";
    std::nth_element(errors.begin(), errors.begin() + errors.size() / 2, errors.end());
    EXPECT_LT(errors[errors.size() / 2], 0.15) << "median disparity error, pixels";
  }
}

// A flat bright box in front of a dark wall: its outline must be rendered where
// OpenCV projects the box's front face, and the depth images must hold that
// face's Z, in every camera of the chain.
TEST(SynthEdges, BoxOutlineAndDepthWhereOpenCVProjectsThem) {
  Scene scene;
  Material dark, bright;
  dark.bgr = Eigen::Vector3d::Constant(0.1);
  bright.bgr = Eigen::Vector3d::Constant(0.9);
  dark.contrast = bright.contrast = 0.0;
  scene.planes = {Plane{Eigen::Vector3d(0, 0, -1), -4.0, dark}};
  Box box;
  box.centre = Eigen::Vector3d(0.05, 0.0, 2.0);
  box.halfSize = Eigen::Vector3d(0.35, 0.25, 0.2);
  box.material = bright;
  scene.boxes = {box};
  // Every camera centre is inside the face's x and y range, so only the front
  // face (z = 1.8) is visible and its edges are the outline.
  const double zFace = 1.8, x0 = -0.3, x1 = 0.4, y0 = -0.25, y1 = 0.25;

  // Points on the four edges, each with a partner 1.5 cm inside and outside the face.
  struct Edge { Eigen::Vector3d a, b, out; };
  const Edge edges[4] = {{{x0, y0, zFace}, {x1, y0, zFace}, {0, -1, 0}},
                         {{x0, y1, zFace}, {x1, y1, zFace}, {0, 1, 0}},
                         {{x0, y0, zFace}, {x0, y1, zFace}, {-1, 0, 0}},
                         {{x1, y0, zFace}, {x1, y1, zFace}, {1, 0, 0}}};
  std::vector<cv::Point3d> world;
  for (const Edge& e : edges) {
    for (int k = 0; k < 12; ++k) {
      for (double offset : {-0.015, 0.0, 0.015}) {
        const Eigen::Vector3d q = e.a + (0.15 + 0.7 * k / 11.0) * (e.b - e.a) + offset * e.out;
        world.emplace_back(q.x(), q.y(), q.z());
      }
    }
  }

  const Rig pin = pinholeRig(640, 400), fish = fisheyeRig(640, 400);
  // Camera 1 of one rig only: cameras are placed the same way whatever their lens.
  const std::pair<Rig, int> cases[] = {{pin, 0}, {fish, 0}, {fish, 1}, {withColourCamera(pin, 800, 450), 2}};
  for (const auto& [rig, camera] : cases) {
    SCOPED_TRACE(std::to_string(rig.cameras.size()) + " cameras, camera " + std::to_string(camera));
    Eigen::Isometry3d T_cam_world = Eigen::Isometry3d::Identity();  // the left camera is the world frame
    for (int i = 1; i <= camera; ++i) T_cam_world = Eigen::Isometry3d(rig.cameras[i].T_cn_cnm1) * T_cam_world;
    const cv::Mat image = floatGrey(renderView(makeRenderer(rig, 4), scene, 0, camera));
    const cv::Mat depth = cameraDepth(rig, scene, 0, camera);
    const std::vector<cv::Point2d> px = cvProject(rig.cameras[camera], world, T_cam_world);

    double worst = 0.0, total = 0.0;
    for (std::size_t k = 0; k < px.size(); k += 3) {
      const cv::Point2d in = px[k], edge = px[k + 1], out = px[k + 2];
      const double inside = bilinear(image, in.x, in.y), outside = bilinear(image, out.x, out.y);
      ASSERT_GT(inside - outside, 100.0) << "box not bright against the wall at " << edge;
      // Antialiased, the edge itself is half-way between the two sides; off
      // by a fraction of the contrast, it is off by about as much of a pixel.
      const double offset = std::abs((bilinear(image, edge.x, edge.y) - outside) / (inside - outside) - 0.5);
      worst = std::max(worst, offset);
      total += offset;
      const double z = (T_cam_world * Eigen::Vector3d(world[k].x, world[k].y, world[k].z)).z();
      EXPECT_NEAR(depth.at<float>(cvRound(in.y), cvRound(in.x)), z, 1e-3) << in;
    }
    EXPECT_LT(worst, 0.25) << "outline offset from OpenCV's projection";  // measured at most 0.15
    EXPECT_LT(total / (px.size() / 3), 0.1) << "mean outline offset";    // measured at most 0.06
  }
}

}  // namespace