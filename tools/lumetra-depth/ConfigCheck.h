// Checks of a configuration, and of the calibration it names, for what
// would end the host process inside the library (a missing required key,
// unequal horizontal and vertical calibration scales, an unknown lens model),
// what gives no depth, and what looks wrong but loads. The calibration is
// imported here with the library's own code, without a handle, so that its
// faults are known before one is made.
#pragma once

#include <string>
#include <vector>

#include "ConfigFile.h"
#include "camera/StereoCalibration.h"

namespace LumoTool {

struct Finding {
  bool blocking = false;     // no depth would come
  bool endsProcess = false;  // the library would end the process: no handle may be made
  std::string text;
};

// The calibration as the library imports it, for display.
struct CalibrationPreview {
  bool imported = false;
  KorvLumetra::StereoCalibration calibration;
  std::vector<std::string> models;  // distortion_model per camera, as written
  double nearestDepth = 0.0;         // the nearest depth the matcher reaches, when rectified
};

std::vector<Finding> checkConfiguration(const ConfigFile& config, CalibrationPreview* preview = nullptr);

// The first finding that gives no depth, or an empty string.
std::string firstBlocking(const std::vector<Finding>& findings);
// Whether any finding would end the process.
bool endsProcess(const std::vector<Finding>& findings);

}  // namespace LumoTool
