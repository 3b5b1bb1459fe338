#include "filters/VorSpatialFilter.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <opencv2/core/utility.hpp>

#include "api/ErrorLog.h"
#include "filters/BranchFreeChoose.h"

namespace KorvLumetra {

namespace {

constexpr float kEps = 1.1920929e-7f;  // float machine epsilon

// The row recurrence is serial along a row, so rows are filtered side by side:
// kLanes rows at a time, their pixels copied column-wise into a small block so
// that one column of lanes is contiguous and the lane loop vectorises. Each
// pixel's own arithmetic is unchanged; only independent rows are interleaved.
constexpr std::size_t kLanes = 16;
constexpr std::size_t kBlockColumns = 32;

// Columns per band of the vertical passes (whole cache lines of a row).
constexpr std::size_t kBandColumns = 64;

struct RowLanes {
  float* row[kLanes];  // lanes past the last real row repeat it and are never stored
  std::size_t count;   // real rows
  float prev[kLanes];
  int counter[kLanes];  // holes met since the last smoothed pair (hole filling only)
  float block[kBlockColumns][kLanes];

  void load(std::size_t u0, std::size_t n) {
    for (std::size_t k = 0; k < kLanes; ++k) {
      const float* src = row[k] + u0;
      for (std::size_t j = 0; j < n; ++j) block[j][k] = src[j];
    }
  }
  void store(std::size_t u0, std::size_t n) const {
    for (std::size_t k = 0; k < count; ++k) {
      float* dst = row[k] + u0;
      for (std::size_t j = 0; j < n; ++j) dst[j] = block[j][k];
    }
  }
};

// One pixel of the left-to-right sweep in every lane. In all branches the new
// prev equals the value written back (a filled hole writes prev and keeps it).
template <bool kHoleFill>
inline void stepLeftToRight(RowLanes& s, float (&px)[kLanes], float alpha,
                            float oneMinusAlpha, float delta, int radius) {
#pragma GCC unroll 1  // vectorised across lanes rather than unrolled
  for (std::size_t k = 0; k < kLanes; ++k) {
    const float p = s.prev[k];
    const float c = px[k];
    const bool prevValid = std::fabs(p) >= kEps;
    const bool curValid = std::fabs(c) >= kEps;
    const float d = std::fabs(c - p);
    const bool smooth = prevValid & curValid & (d >= kEps) & (d <= delta);
    float out = choose(smooth, c * alpha + p * oneMinusAlpha, c);
    if (kHoleFill) {
      const bool hole = prevValid & !curValid;
      const int counter = (prevValid & curValid) ? 0 : s.counter[k] + (hole ? 1 : 0);
      s.counter[k] = counter;
      out = choose(hole & (counter < radius), p, out);
    }
    px[k] = out;
    s.prev[k] = out;
  }
}

// Right-to-left differs on purpose: signed validity tests (strict for the
// current pixel) and no lower bound on the step.
template <bool kHoleFill>
inline void stepRightToLeft(RowLanes& s, float (&px)[kLanes], float alpha,
                            float oneMinusAlpha, float delta, int radius) {
#pragma GCC unroll 1  // vectorised across lanes rather than unrolled
  for (std::size_t k = 0; k < kLanes; ++k) {
    const float p = s.prev[k];
    const float c = px[k];
    const bool prevValid = p >= kEps;
    const bool curValid = c > kEps;
    const bool smooth = prevValid & curValid & (std::fabs(p - c) <= delta);
    float out = choose(smooth, c * alpha + p * oneMinusAlpha, c);
    if (kHoleFill) {
      const bool hole = prevValid & !curValid;
      const int counter = (prevValid & curValid) ? 0 : s.counter[k] + (hole ? 1 : 0);
      s.counter[k] = counter;
      out = choose(hole & (counter < radius), p, out);
    }
    px[k] = out;
    s.prev[k] = out;
  }
}

template <bool kHoleFill>
void filterRowLanes(RowLanes& s, std::size_t width, float alpha, float delta, int radius) {
  const float oneMinusAlpha = 1.0f - alpha;

  // Left to right over u = 1 .. width - 2: the last pixel of a row is never
  // visited in this direction.
  for (std::size_t k = 0; k < kLanes; ++k) {
    s.prev[k] = s.row[k][0];
    s.counter[k] = 0;
  }
  for (std::size_t u0 = 1; u0 + 1 < width; u0 += kBlockColumns) {
    const std::size_t n = std::min(kBlockColumns, width - 1 - u0);
    s.load(u0, n);
    for (std::size_t j = 0; j < n; ++j)
      stepLeftToRight<kHoleFill>(s, s.block[j], alpha, oneMinusAlpha, delta, radius);
    s.store(u0, n);
  }

  // Right to left over u = width - 2 .. 0, starting from the unvisited last pixel.
  for (std::size_t k = 0; k < kLanes; ++k) {
    s.prev[k] = s.row[k][width - 1];
    s.counter[k] = 0;
  }
  for (std::size_t end = width - 1; end > 0;) {
    const std::size_t n = std::min(kBlockColumns, end);
    const std::size_t u0 = end - n;
    s.load(u0, n);
    for (std::size_t j = n; j-- > 0;)
      stepRightToLeft<kHoleFill>(s, s.block[j], alpha, oneMinusAlpha, delta, radius);
    s.store(u0, n);
    end = u0;
  }
}

}  // namespace

int VorSpatialFilter::initFilter(std::vector<float> params) {
  if (params.size() != 3) {
    logError("initFilter", "init filter failed");
    return 1;
  }
  alpha_ = params[0];
  delta_ = params[1];
  iterations_ = static_cast<int>(params[2]);
  return 0;
}

void VorSpatialFilter::updateConfiguration(LumoDepthImage* image) {
  if (width_ == image->width && height_ == image->height &&
      stride_ == static_cast<int>(image->stride))
    return;
  width_ = image->width;
  height_ = image->height;
  stride_ = static_cast<int>(image->stride);
  pixelCount_ = width_ * height_;
}

int VorSpatialFilter::processFrame(LumoDepthImage* image) {
  updateConfiguration(image);
  for (int i = 0; i < iterations_; ++i) {
    recursive_filter_horizontal(image->data, alpha_, delta_);
    recursive_filter_vertical(image->data, alpha_, delta_);
  }
  return 0;
}

void VorSpatialFilter::recursive_filter_horizontal(float* image, float alpha, float delta) {
  const std::size_t width = width_;
  const std::size_t height = height_;
  if (width < 2) return;  // a single pixel has no neighbour in its row

  // Groups of rows are independent: they are spread over OpenCV's threads.
  const int radius = holeFillRadius_;
  const int groups = static_cast<int>((height + kLanes - 1) / kLanes);
  cv::parallel_for_(cv::Range(0, groups), [&](const cv::Range& range) {
    RowLanes lanes;
    for (int group = range.start; group < range.end; ++group) {
      const std::size_t r0 = static_cast<std::size_t>(group) * kLanes;
      lanes.count = std::min(kLanes, height - r0);
      for (std::size_t k = 0; k < kLanes; ++k)
        lanes.row[k] = image + (r0 + std::min(k, lanes.count - 1)) * width;
      if (radius != 0)
        filterRowLanes<true>(lanes, width, alpha, delta, radius);
      else
        filterRowLanes<false>(lanes, width, alpha, delta, radius);
    }
  });
}

void VorSpatialFilter::recursive_filter_vertical(float* image, float alpha, float delta) {
  const std::size_t width = width_;
  const std::size_t height = height_;
  if (height < 2 || width < 1) return;
  const float oneMinusAlpha = 1.0f - alpha;

  // Columns are independent: bands of them are spread over OpenCV's threads,
  // each band taking both passes.
  const int bands = static_cast<int>((width + kBandColumns - 1) / kBandColumns);
  cv::parallel_for_(cv::Range(0, bands), [&](const cv::Range& range) {
    const std::size_t first = static_cast<std::size_t>(range.start) * kBandColumns;
    const std::size_t last = std::min(width, static_cast<std::size_t>(range.end) * kBandColumns);
    // Top to bottom without any validity test: a zero pixel next to a valid one
    // closer than delta is blended, by design.
    for (std::size_t v = 1; v < height; ++v) {
      const float* up = image + (v - 1) * width;
      float* cur = image + v * width;
      for (std::size_t u = first; u < last; ++u) {
        const float a = up[u];
        const float c = cur[u];
        cur[u] = choose(std::fabs(a - c) < delta, oneMinusAlpha * a + alpha * c, c);
      }
    }

    // Bottom to top, valid pairs only.
    for (std::size_t v = height - 1; v-- > 0;) {
      float* cur = image + v * width;
      const float* below = image + (v + 1) * width;
      for (std::size_t u = first; u < last; ++u) {
        const float c = cur[u];
        const float b = below[u];
        // Bitwise on purpose: every test is evaluated, so the loop has no branch.
        const bool smooth = static_cast<bool>(static_cast<int>(std::fabs(c) >= kEps) &
                                              static_cast<int>(std::fabs(b) >= kEps) &
                                              static_cast<int>(std::fabs(c - b) < delta));
        cur[u] = choose(smooth, c * alpha + b * oneMinusAlpha, c);
      }
    }
  });
}

}  // namespace KorvLumetra
