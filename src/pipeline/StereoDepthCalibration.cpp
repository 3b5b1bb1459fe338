// StereoDepth: the calibration steps, forwarded to its StereoCalibration with
// the configuration's camera sizes.
#include <cstdio>
#include <cstdlib>

#include "api/ErrorLog.h"
#include "pipeline/ConsoleReport.h"
#include "pipeline/StereoDepth.h"

namespace KorvLumetra {

StereoCalibration::Setup StereoDepth::calibrationSetup() const {
  StereoCalibration::Setup setup;
  setup.inputSizes = inputSizes_;
  setup.workingSizes = scaledSizes_;
  setup.scaleRatios = scaleRatios_;
  setup.depthCamIndex = stereoCamIndex_;
  setup.restoreDepthDim = restoreDepthDim_ != 0;
  return setup;
}

int StereoDepth::finishImport(ImportStatus status) {
  if (status.outcome == ImportStatus::kFatal) {
    std::fflush(stdout);
    std::fflush(stderr);
    std::exit(status.exitStatus);
  }
  return status.isOk() ? 0 : 1;
}

bool StereoDepth::refusedConfiguration(const char* function) {
  if (!configRefused_.load()) return false;
  logError(function, "the configuration was refused when the handle was created: nothing is taken");
  return true;
}

// Alignment with a camera the calibration does not have would never produce depth.
bool StereoDepth::alignCameraMissing(const char* function) {
  if (alignCamId_ < 0) return false;
  const std::size_t camera = static_cast<std::size_t>(alignCamId_);
  // Camera n is reached through the transforms of the cameras before it.
  if (camera < calibration_.cameraCount() && camera <= calibration_.transforms().size()) return false;
  logErrorf(function, "align_cam_id %d names a camera the calibration does not have (it holds %zu)\n", alignCamId_,
            calibration_.cameraCount());
  return true;
}

int StereoDepth::initCameraFromCalib(const LumoCalibrationParam& calib) {
  if (refusedConfiguration("initCameraFromCalib")) return 1;
  ConsoleReport report;
  if (finishImport(calibration_.importRecord(calib, calibrationSetup(), report)) != 0) return 1;
  if (alignCameraMissing("initCameraFromCalib")) return 1;
  if (initRectifyMap() == 1) return 1;
  recreateEngines();
  return 0;
}

int StereoDepth::initCameraFromCalibYaml(const std::string& path) {
  ConsoleReport report;
  return finishImport(calibration_.importFile(path, calibrationSetup(), report));
}

int StereoDepth::initRectifyMap() {
  ConsoleReport report;
  return finishImport(calibration_.rectify(calibrationSetup(), report));
}

void StereoDepth::LUTDepthGenerator() {
  ConsoleReport report;
  finishImport(calibration_.buildDepthTable(calibrationSetup(), report));
}

int StereoDepth::flatten2DCvMat(const cv::Mat& m, float* out) { return StereoCalibration::flatten2DCvMat(m, out); }

int StereoDepth::getRectifyInfo(LumoRectifyInfo* info) {
  if (info == nullptr) {
    logError("getRectifyInfo", "allocate memory before calling");
    return 1;
  }
  const int status = flatten2DCvMat(calibration_.R1(), info->R1) | flatten2DCvMat(calibration_.R2(), info->R2) |
                     flatten2DCvMat(calibration_.P1(), info->P1) | flatten2DCvMat(calibration_.P2(), info->P2);
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
