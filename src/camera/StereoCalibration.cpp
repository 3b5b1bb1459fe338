// StereoCalibration: the chain's common steps, rectification and the depth table.
#include "camera/StereoCalibration.h"

#include <cmath>
#include <cstring>

#include <opencv2/calib3d.hpp>
#include <opencv2/core/utility.hpp>

#include "camera/CalibrationChecks.h"

namespace KorvLumetra {

namespace {

std::string position(const cv::Vec3d& c) {
  char text[96];
  std::snprintf(text, sizeof(text), "(%.4g, %.4g, %.4g)", c[0], c[1], c[2]);
  return text;
}

}  // namespace

void StereoCalibration::clearChain() {
  camT_.clear();
  camD_.clear();
  camModels_.clear();
  camKInput_.clear();
  camKProc_.clear();
}

void StereoCalibration::appendCamera(const cv::Mat& D, const cv::Mat& kInput, int model, const Setup& setup) {
  cv::Mat kProc = kInput.clone();
  const double scale = setup.scaleRatios[camKInput_.size()];
  kProc.row(0) *= scale;
  kProc.row(1) *= scale;
  camD_.push_back(D.clone());
  camKInput_.push_back(kInput.clone());
  camKProc_.push_back(kProc);
  camModels_.push_back(model);
}

ImportStatus StereoCalibration::rectify(const Setup& setup, CalibrationReport& report) {
  const char* const function = "initRectifyMap";
  if (camKProc_.size() < 2 || camD_.size() < 2 || camModels_.empty()) {
    report.error(function, "the calibration has no cam1: depth needs the stereo pair cam0 and cam1");
    return ImportStatus::refused();
  }
  if (camT_.empty()) {
    report.error(function,
                 "the calibration has no transform from cam0 to cam1 (T_cn_cnm1 of cam1, or T_cam_imu of both)");
    return ImportStatus::refused();
  }
  // The first camera's model decides the tables of both.
  const int model = camModels_[0];
  if (model != kCamModelEquidistant && model != kCamModelRadtan && model != kCamModelCvBasic) {
    report.error(function, "unrecognized camera model!");
    return ImportStatus::refused();
  }
  for (int i = 0; i < 2; ++i) {
    const std::string problem = mapCoefficientsProblem(model, camD_[i].total());
    if (!problem.empty()) {
      report.error(function, "cam" + std::to_string(i) + ": " + problem);
      return ImportStatus::refused();
    }
  }
  const Eigen::Matrix4d& T = camT_[0];
  const std::string problem = rigidTransformProblem(T, true);
  if (!problem.empty()) {
    report.error(function, "the transform from cam0 to cam1 " + problem);
    return ImportStatus::refused();
  }

  cv::Mat R(3, 3, CV_64F);
  cv::Mat t(3, 1, CV_64F);
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) R.at<double>(r, c) = T(r, c);
    t.at<double>(r) = T(r, 3);
  }
  const ImageSize working = setup.workingSizes[static_cast<std::size_t>(setup.depthCamIndex)];
  const cv::Size size(working.width, working.height);
  // Lens distortion stays out of the rectification itself and goes into the
  // maps only; fisheye pairs are rectified with the pinhole model too.
  const cv::Mat noDistortion = cv::Mat::zeros(5, 1, CV_64F);
  cv::Mat R1, R2, P1, P2, Q;
  cv::stereoRectify(camKProc_[0], noDistortion, camKProc_[1], noDistortion, size, R, t, R1, R2, P1, P2, Q,
                    cv::CALIB_ZERO_DISPARITY, 0.0, size);

  // The matcher searches along rows for matches to the left in the bottom
  // view: camera 1 must sit to the right of camera 0, side by side. The
  // rectification puts the baseline into P2(1,3) for a vertical pair and
  // gives P2(0,3) the sign of camera 1's offset along x.
  const cv::Vec3d camera1 = -cv::Matx33d(R).t() * cv::Vec3d(t);  // camera 1's centre in camera 0's frame
  if (P2.at<double>(1, 3) != 0.0) {
    report.error(function, "cam1 sits at " + position(camera1) +
                               " from cam0, above or below it or ahead: the matcher searches along image rows, so "
                               "the cameras must sit side by side; turn both views and the calibration by 90 degrees");
    return ImportStatus::refused();
  }
  if (P2.at<double>(0, 3) > 0.0) {
    report.error(function, "cam1 sits to the left of cam0 (at " + position(camera1) +
                               "): the stacked frame holds the left view on top; swap cam0 and cam1 in the "
                               "calibration and the two views in the frame");
    return ImportStatus::refused();
  }

  std::vector<cv::Mat> map1(2), map2(2);
  const cv::Mat* rotations[2] = {&R1, &R2};
  const cv::Mat* projections[2] = {&P1, &P2};
  for (int i = 0; i < 2; ++i) {
    if (model == kCamModelEquidistant) {
      cv::fisheye::initUndistortRectifyMap(camKProc_[i], camD_[i], *rotations[i], *projections[i], size, CV_16SC2,
                                           map1[i], map2[i]);
    } else {
      cv::initUndistortRectifyMap(camKProc_[i], camD_[i], *rotations[i], *projections[i], size, CV_16SC2, map1[i],
                                  map2[i]);
    }
  }
  R1_ = R1, R2_ = R2, P1_ = P1, P2_ = P2, Q_ = Q;
  map1_ = std::move(map1);
  map2_ = std::move(map2);
  return ImportStatus::ok();
}

ImportStatus StereoCalibration::buildDepthTable(const Setup& setup, CalibrationReport& report) {
  const std::size_t index = static_cast<std::size_t>(setup.depthCamIndex);
  // The table addresses the images the host receives: input size when results
  // are restored to it, working size otherwise.
  const ImageSize size = setup.restoreDepthDim ? setup.inputSizes[index] : setup.workingSizes[index];
  const int W = size.width > 0 ? size.width : 0;
  const int H = size.height > 0 ? size.height : 0;
  depthLut_.resize(2 * static_cast<std::size_t>(W) * static_cast<std::size_t>(H));

  if (depthCam_ == nullptr) {
    LumoIntrinsics intrinsics{};
    if (!cameraIntrinsics(index, setup.restoreDepthDim, {W, H}, &intrinsics)) {
      report.error("LUTDepthGenerator", "unknow cam model, exiting");
      return ImportStatus::fatal(-1);
    }
    intrinsics.camera_model = 1;
    depthCam_ = std::make_shared<const LumoCam>(intrinsics);
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
  return ImportStatus::ok();
}

bool StereoCalibration::cameraIntrinsics(std::size_t camera, bool atInputSize, ImageSize size,
                                         LumoIntrinsics* out) const {
  const cv::Mat& K = atInputSize ? camKInput_[camera] : camKProc_[camera];
  *out = LumoIntrinsics{};
  out->width = static_cast<uint32_t>(size.width);
  out->height = static_cast<uint32_t>(size.height);
  out->fx = static_cast<float>(K.at<double>(0, 0));
  out->fy = static_cast<float>(K.at<double>(1, 1));
  out->cx = static_cast<float>(K.at<double>(0, 2));
  out->cy = static_cast<float>(K.at<double>(1, 2));
  const cv::Mat& D = camD_[camera];
  const int n = static_cast<int>(D.total()) < 8 ? static_cast<int>(D.total()) : 8;
  for (int j = 0; j < n; ++j) out->distortion_coeffs[j] = static_cast<float>(D.at<double>(j));
  return lumoCamDistortionCode(camModels_[camera], &out->distortion_model);
}

int StereoCalibration::flatten2DCvMat(const cv::Mat& m, float* out) {
  if (m.data == nullptr || m.dims == 0 || m.total() == 0 || m.channels() != 1) return 1;
  cv::Mat single;
  m.convertTo(single, CV_32F, 1.0, 0.0);
  if (single.isContinuous()) {
    std::memcpy(out, single.ptr<float>(), single.total() * sizeof(float));
  } else {
    for (int r = 0; r < single.rows; ++r) {
      std::memcpy(out + static_cast<std::size_t>(r) * single.cols, single.ptr<float>(r), single.cols * sizeof(float));
    }
  }
  return 0;
}

}  // namespace KorvLumetra
