// Single-camera model: pinhole projection with the lens-distortion model named
// by LumoIntrinsics::distortion_model (0 none, 1 equidistant, 2 radtan,
// 3 five-coefficient, 4 rational; any other code is treated as none).
//
// The arithmetic is single precision except for the few steps done in double
// (see LumoCam.cpp); those choices are pinned because downstream tables are
// compared bit for bit. Iteration counts are fixed, never convergence-tested.
//
// Immutable after construction: every method is const and reentrant, so one
// LumoCam may be shared by any number of threads. Nothing is validated; a zero
// focal length or Z gives infinities or NaNs in the outputs.
#pragma once

#include <cstdint>

#include "lumetra_depth.h"

namespace KorvLumetra {

class LumoCam {
 public:
  enum DistortionModel : uint8_t {
    kNone = 0,
    kEquidistant = 1,  // k1 k2 k3 k4
    kRadtan = 2,       // k1 k2 p1 p2
    kFiveCoeff = 3,    // k1 k2 p1 p2 k3
    kRational = 4,     // k1 k2 p1 p2 k3 k4 k5 k6
  };

  LumoCam(const LumoIntrinsics& intrinsics);

  // point = (X, Y, Z) in the camera frame; writes pixel (u, v). Z is not checked.
  void projectPoint2Pixel(float pixel[2], const float point[3]) const;

  // Radtan displacement (dx, dy) that distortion adds to a normalized point;
  // writes (0, 0) for every other model.
  void distort(const float in[2], float out[2]) const;

  // Lifts pixel (u, v) to (X, Y, Z) with Z = depth (depth only scales the ray).
  void deprojectPixel2Point(float point[3], const float pixel[2], float depth) const;

  // out = R * in + t, R row-major. out must not alias in.
  static void TransformPoint2Point(float out[3], const LumoExtrinsics* extrinsics,
                                   const float in[3]);

  // Public for inspection; not modified after construction.
  LumoIntrinsics intrinsics;
  double inv_fx;    // 1 / fx in double
  double offset_x;  // -cx / fx in float, then widened
  double inv_fy;    // 1 / fy in double
  double offset_y;  // -cy / fy in float, then widened
};

}  // namespace KorvLumetra
