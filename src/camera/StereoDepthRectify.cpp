// StereoDepth: stereo rectification, remap tables and the rectify info handed
// to the host.
#include <cstring>

#include <opencv2/calib3d.hpp>

#include "api/ErrorLog.h"
#include "pipeline/StereoDepth.h"

namespace KorvLumetra {

int StereoDepth::initRectifyMap() {
  // Only reachable after a one-camera calibration file; leave everything as it is.
  if (camTList_.empty() || camKProcList_.size() < 2 || camDList_.size() < 2 || camModels_.empty()) return 1;

  const Eigen::Matrix4d& T = camTList_[0];
  cv::Mat R(3, 3, CV_64F);
  cv::Mat t(3, 1, CV_64F);
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) R.at<double>(r, c) = T(r, c);
    t.at<double>(r) = T(r, 3);
  }
  const ImageSize working = scaledSizes_[stereoCamIndex_];
  const cv::Size size(working.width, working.height);
  // Lens distortion stays out of the rectification itself and goes into the
  // maps only; fisheye pairs are rectified with the pinhole model too.
  const cv::Mat noDistortion = cv::Mat::zeros(5, 1, CV_64F);
  cv::stereoRectify(camKProcList_[0], noDistortion, camKProcList_[1], noDistortion, size, R, t, rectR1_, rectR2_,
                    rectP1_, rectP2_, rectQ_, cv::CALIB_ZERO_DISPARITY, 0.0, size);

  const cv::Mat* rotations[2] = {&rectR1_, &rectR2_};
  const cv::Mat* projections[2] = {&rectP1_, &rectP2_};
  // The first camera's model decides for both.
  switch (camModels_[0]) {
    case kCamModelEquidistant:
      rectMap1List_.resize(2);
      rectMap2List_.resize(2);
      for (int i = 0; i < 2; ++i) {
        cv::fisheye::initUndistortRectifyMap(camKProcList_[i], camDList_[i], *rotations[i], *projections[i], size,
                                             CV_16SC2, rectMap1List_[i], rectMap2List_[i]);
      }
      return 0;
    case kCamModelRadtan:
    case kCamModelCvBasic:
      rectMap1List_.resize(2);
      rectMap2List_.resize(2);
      for (int i = 0; i < 2; ++i) {
        cv::initUndistortRectifyMap(camKProcList_[i], camDList_[i], *rotations[i], *projections[i], size, CV_16SC2,
                                    rectMap1List_[i], rectMap2List_[i]);
      }
      return 0;
    default:
      logError("initRectifyMap", "unrecognized camera model!");
      return 1;
  }
}

int StereoDepth::flatten2DCvMat(const cv::Mat& m, float* out) {
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

int StereoDepth::getRectifyInfo(LumoRectifyInfo* info) {
  if (info == nullptr) {
    logError("getRectifyInfo", "allocate memory before calling");
    return 1;
  }
  const int status = flatten2DCvMat(rectR1_, info->R1) | flatten2DCvMat(rectR2_, info->R2) |
                     flatten2DCvMat(rectP1_, info->P1) | flatten2DCvMat(rectP2_, info->P2);
  if (restoreDepthDim_ != 0) {
    // Describe the host's full-size images instead of the working ones.
    const float scale = scaleRatios_.empty() ? 1.0f : scaleRatios_[0];
    const float k = 1.0f / scale;
    for (int index : {0, 2, 5, 6}) info->P1[index] *= k;
    for (int index : {0, 2, 3, 5, 6}) info->P2[index] *= k;
  }
  return status;
}

}  // namespace KorvLumetra
