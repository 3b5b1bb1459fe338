// Edge-preserving recursive smoothing of a float depth image, in place.
//
// A first-order exponential blend runs along every row in both directions and
// along every column in both directions; it does not blend across a depth step
// larger than delta. Zero depth marks a pixel without depth.
//
// Threads: one caller at a time; the filter keeps no image data between frames.
#pragma once

#include <cstdint>
#include <vector>

#include "lumetra_depth.h"

namespace KorvLumetra {

class VorSpatialFilter {
 public:
  VorSpatialFilter() = default;
  ~VorSpatialFilter() = default;

  // params = {alpha, delta, iterations}; iterations is truncated toward zero.
  // Any other count logs "init filter failed", changes nothing and returns 1.
  int initFilter(std::vector<float> params);

  // Caches width, height and stride of the image when they change.
  void updateConfiguration(LumoDepthImage* image);

  // Filters image->data (height rows of exactly width floats) in place:
  // iterations rounds of the horizontal then the vertical pass. Returns 0.
  int processFrame(LumoDepthImage* image);

  // One pass over an image of the cached size, in place.
  void recursive_filter_horizontal(float* image, float alpha, float delta);
  void recursive_filter_vertical(float* image, float alpha, float delta);

 protected:  // the hole-fill radius has no setter; a subclass may set it
  float alpha_ = 0.5f;   // weight of the current pixel; the neighbour gets 1 - alpha
  float delta_ = 20.0f;  // largest depth step that is still smoothed
  int iterations_ = 2;
  uint64_t width_ = 0;
  uint64_t height_ = 0;
  int stride_ = 0;  // cached only: rows are addressed as exactly width floats
  uint64_t pixelCount_ = 0;
  uint16_t reserved_ = 0;
  // Nothing in the library sets it, so hole filling is off in the pipeline.
  uint8_t holeFillRadius_ = 0;
};

}  // namespace KorvLumetra
