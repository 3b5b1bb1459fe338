// A camera-chain calibration file (cam0, cam1, ... each with intrinsics,
// distortion_coeffs, distortion_model, resolution and, from cam1 on,
// T_cn_cnm1 rows), read line by line for checks and display only; the
// library reads the file itself.
#pragma once

#include <string>
#include <vector>

namespace LumoTool {

struct CalibCamera {
  int index = 0;
  std::vector<double> intrinsics;  // fx, fy, cx, cy
  std::vector<double> coeffs;
  std::string model;               // "radtan", "equidistant", "cvbasic"; others are unknown to the library
  std::vector<double> resolution;  // width, height
  std::vector<std::vector<double>> transform;  // T_cn_cnm1 rows, empty when absent

  // Keys the library requires but this camera lacks.
  std::vector<std::string> missingKeys() const;
  bool knownModel() const { return model == "radtan" || model == "equidistant" || model == "cvbasic"; }
  int width() const { return resolution.size() == 2 ? static_cast<int>(resolution[0]) : 0; }
  int height() const { return resolution.size() == 2 ? static_cast<int>(resolution[1]) : 0; }
};

class CalibrationFile {
 public:
  // Throws ToolError "cannot read" when the file is missing or unreadable.
  static CalibrationFile load(const std::string& path);

  // cam0, cam1, ... up to the first gap, as the library imports them.
  const std::vector<CalibCamera>& cameras() const { return cameras_; }

 private:
  std::vector<CalibCamera> cameras_;
};

}  // namespace LumoTool
