// The distortion model of a camera as the pipeline keeps it, and its
// translations to and from the calibration sources and the camera model.
#pragma once

#include <cstdint>
#include <string>

namespace KorvLumetra {

enum CamModel : int {
  kCamModelUnknown = 0,
  kCamModelEquidistant = 1,
  kCamModelRadtan = 2,
  kCamModelCvBasic = 3,  // OpenCV's general model: radtan with the rational terms
  kCamModelNone = 4,
};

// A calibration file's `distortion_model` text; anything but the three names is unknown.
inline int camModelFromName(const std::string& name) {
  if (name == "equidistant") return kCamModelEquidistant;
  if (name == "radtan") return kCamModelRadtan;
  if (name == "cvbasic") return kCamModelCvBasic;
  return kCamModelUnknown;
}

// A tracker record's distortion code. Its five-coefficient code 3 has no
// pipeline model: it maps to unknown, like every code but 1, 2 and 4.
inline int camModelFromRecord(uint8_t distortionModel) {
  switch (distortionModel) {
    case 1: return kCamModelEquidistant;
    case 2: return kCamModelRadtan;
    case 4: return kCamModelCvBasic;
    default: return kCamModelUnknown;
  }
}

// Coefficients a tracker record carries for each of its distortion codes.
inline int recordCoefficientCount(uint8_t distortionModel) {
  switch (distortionModel) {
    case 1:
    case 2: return 4;
    case 3: return 5;
    case 4: return 8;
    default: return 0;
  }
}

// The camera model's (LumoCam's) distortion code for a pipeline model: cvbasic
// becomes the eight-coefficient rational model, whose missing terms are zero.
// False for an unknown model.
inline bool lumoCamDistortionCode(int camModel, uint8_t* code) {
  switch (camModel) {
    case kCamModelEquidistant: *code = 1; return true;
    case kCamModelRadtan: *code = 2; return true;
    case kCamModelCvBasic: *code = 4; return true;
    case kCamModelNone: *code = 0; return true;
    default: return false;
  }
}

}  // namespace KorvLumetra
