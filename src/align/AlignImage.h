// Registration of a depth image with a second (colour) camera, both ways:
// depth resampled into the other camera's grid, and the other camera's pixels
// resampled into the depth grid. Co-located cameras (no translation) take a
// precomputed table instead of per-pixel projection.
//
// The depth grid is the depth camera's (its intrinsics' width x height); depth
// images handed in must be laid out on that grid.
//
// Not thread-safe: one owner calls setAlignInfo and then the align operations.
// The operations spread their rows over OpenCV's worker threads internally;
// the results do not depend on the number of threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "camera/LumoCam.h"
#include "lumetra_depth.h"

namespace KorvLumetra {

class AlignImage {
 public:
  AlignImage();
  ~AlignImage();
  AlignImage(const AlignImage&) = delete;
  AlignImage& operator=(const AlignImage&) = delete;

  // Replaces both cameras and the depth-to-other transform; a translation of
  // (squared) length below 1e-10 selects the table-driven fast mode.
  void setAlignInfo(const LumoIntrinsics& depthIntrinsics, const LumoIntrinsics& otherIntrinsics,
                    const LumoExtrinsics& depthToOther);
  void generateFastAlignLUT();

  // Depth in the other camera's grid; `out` must hold other width x height
  // floats. Always 0 (also before setAlignInfo, when nothing is written).
  int alignDepthToOther(LumoDepthImage& out, const LumoDepthImage& depth, const LumoImage& other);
  // The other camera's pixels in the depth grid; `out` must hold depth width x
  // height pixels of `other`'s size. 1 for an unsupported pixel format, or
  // before setAlignInfo.
  int alignOtherToDepth(LumoImage& out, const LumoDepthImage& depth, const LumoImage& other);

  bool fastMode() const { return fastMode_; }

 private:
  struct Footprint {
    int x0, y0, x1, y1;  // inclusive rectangle of the other camera; x0 = -1 when rejected
  };

  void prepareCornerRays();
  void chunkFootprints(int v, int begin, int end, const float* depthRow, Footprint* f) const;
  void zBufferThreaded(const float* depth, float* out, std::size_t zeroBytes);

  std::unique_ptr<LumoCam> depthCam_;
  std::unique_ptr<LumoCam> otherCam_;
  LumoExtrinsics depthToOther_{};
  bool fastMode_ = false;
  std::vector<uint32_t> lookupPixels_;  // (depth column, depth row) per other-camera pixel
  std::vector<float> lookupFactors_;    // one per other-camera pixel

  // Depth camera's unit-depth ray (x, y) through each pixel corner, the
  // (width + 1) x (height + 1) points (u - 0.5, v - 0.5): the deprojection at
  // depth z is (x z, y z, z), so the rays are reused for every frame.
  std::vector<float> cornerRays_;
  // Scratch of the threaded z-buffer: each depth pixel's footprint, and per
  // depth row the range of other-camera rows its footprints cover.
  std::vector<Footprint> footprints_;
  std::vector<int> rowSpans_;  // (first, last) per depth row; first > last when none
};

}  // namespace KorvLumetra
