// Checks of a configuration (and the calibration it names) for settings that
// look wrong. Some faults end the host process inside the library (a missing
// required key, unequal horizontal and vertical calibration scales, an
// unknown lens model) or mean that no depth can come out; those are
// blocking, and the program refuses to create a handle with them.
#pragma once

#include <string>
#include <vector>

#include "CalibrationFile.h"
#include "ConfigFile.h"

namespace LumoTool {

struct Finding {
  bool blocking = false;  // the library would end the process, or produce no depth
  std::string text;
};

// `calib` is null when the calibration file could not be read (`calibError` says why).
std::vector<Finding> checkConfiguration(const ConfigFile& config, const CalibrationFile* calib,
                                        const std::string& calibError);

// The first blocking finding, or an empty string.
std::string firstBlocking(const std::vector<Finding>& findings);

}  // namespace LumoTool
