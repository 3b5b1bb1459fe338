// The camera chain as the pipeline uses it, as one value: per camera the
// intrinsic matrices at input and working size, the distortion coefficients
// and model, and the transform from the previous camera; the rectification of
// cameras 0 and 1 with their remap tables; and the depth camera's per-pixel
// ray table.
//
// Filled by an import (a calibration file or the tracker's record), then
// rectified. Every value is checked on the way in, so that OpenCV and the
// depth table only ever see what they can use; what cannot be used is refused
// with one error line naming the camera and the reason.
//
// Not thread-safe: the owner imports before frames flow; readers only read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <Eigen/Core>
#include <Eigen/StdVector>
#include <opencv2/core.hpp>

#include "camera/CalibrationReport.h"
#include "camera/CamModel.h"
#include "camera/ImageSize.h"
#include "camera/LumoCam.h"
#include "lumetra_depth.h"
#include "yaml/YamlNode.h"

namespace KorvLumetra {

class StereoCalibration {
 public:
  using Matrix4dList = std::vector<Eigen::Matrix4d, Eigen::aligned_allocator<Eigen::Matrix4d>>;

  // The configuration's side of the cameras, indexed left, right, auxiliary.
  struct Setup {
    std::vector<ImageSize> inputSizes;    // the host's images
    std::vector<ImageSize> workingSizes;  // rectified and matched
    std::vector<float> scaleRatios;       // working width / input width
    int depthCamIndex = 0;
    bool restoreDepthDim = true;  // depth is handed out at the input size
  };

  // Replaces the chain by the cameras cam0, cam1, ... of a calibration file
  // and builds the depth table; prints a "calib: " block per transform.
  // Reports as initCameraFromCalibYaml.
  ImportStatus importFile(const std::string& path, const Setup& setup, CalibrationReport& report);
  ImportStatus importDocument(const KorvTech::YamlNode& root, const Setup& setup, CalibrationReport& report);

  // Prints the tracker's record whole, then replaces the chain by its
  // cameras and builds the depth table. Reports as initCameraFromCalib.
  ImportStatus importRecord(const LumoCalibrationParam& record, const Setup& setup, CalibrationReport& report);

  // Rectifies cameras 0 and 1 at the working size and builds their remap
  // tables; on failure everything stays as it was. Reports as initRectifyMap.
  ImportStatus rectify(const Setup& setup, CalibrationReport& report);

  // The depth camera's ray table. Its camera model is built by the first
  // call and kept for the object's life, even when the chain changes.
  // Reports as LUTDepthGenerator.
  ImportStatus buildDepthTable(const Setup& setup, CalibrationReport& report);

  // Camera `camera` as the camera model takes it, on a grid of `size`: the
  // entries of its intrinsic matrix at input (or working) size and up to eight
  // coefficients, narrowed to float. False for an unknown model.
  bool cameraIntrinsics(std::size_t camera, bool atInputSize, ImageSize size, LumoIntrinsics* out) const;

  // Copies a single-channel matrix as floats, row-major: 0, or 1 when it is
  // empty or has several channels (nothing written).
  static int flatten2DCvMat(const cv::Mat& m, float* out);

  // Cameras imported, and the transform list: entry i maps camera i into camera i + 1.
  std::size_t cameraCount() const { return camKInput_.size(); }
  const Matrix4dList& transforms() const { return camT_; }
  const std::vector<cv::Mat>& distortion() const { return camD_; }     // columns of doubles
  const std::vector<cv::Mat>& kInput() const { return camKInput_; }    // 3x3 at input size
  const std::vector<cv::Mat>& kProc() const { return camKProc_; }      // 3x3 at working size
  const std::vector<int>& models() const { return camModels_; }        // CamModel per camera
  float baseline() const { return baseline_; }
  const cv::Mat& R1() const { return R1_; }
  const cv::Mat& R2() const { return R2_; }
  const cv::Mat& P1() const { return P1_; }
  const cv::Mat& P2() const { return P2_; }
  const cv::Mat& Q() const { return Q_; }
  const std::vector<cv::Mat>& map1() const { return map1_; }  // CV_16SC2 per stereo camera
  const std::vector<cv::Mat>& map2() const { return map2_; }  // the matching interpolation tables
  bool rectified() const { return !map1_.empty(); }
  // (x, y) of the unit-depth ray per depth pixel, row-major.
  const std::vector<float>& depthLut() const { return depthLut_; }

 private:
  void clearChain();
  void appendCamera(const cv::Mat& D, const cv::Mat& kInput, int model, const Setup& setup);

  Matrix4dList camT_;
  std::vector<cv::Mat> camD_;
  std::vector<cv::Mat> camKInput_;
  std::vector<cv::Mat> camKProc_;
  std::vector<int> camModels_;
  float baseline_ = 0.0f;
  cv::Mat R1_, R2_, P1_, P2_, Q_;
  std::vector<cv::Mat> map1_;
  std::vector<cv::Mat> map2_;
  std::vector<float> depthLut_;
  std::shared_ptr<const LumoCam> depthCam_;  // shared by copies: it never changes
};

}  // namespace KorvLumetra
