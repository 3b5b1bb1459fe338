#include "align/AlignImage.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>

#include <opencv2/core.hpp>

namespace KorvLumetra {

namespace {

// Squared translation below which the cameras count as co-located.
constexpr double kFastModeThreshold = 1e-10;

// Truncation of c + 0.5 toward zero (not a floor: -1.2 lands on 0 and counts
// as inside). NaN and values beyond int give INT_MIN, which every bounds test
// below rejects, as the x86 conversion would.
inline int roundPixel(float c) {
  const float shifted = c + 0.5f;
  if (!(shifted > -2147483648.0f && shifted < 2147483648.0f)) return INT_MIN;
  return static_cast<int>(shifted);
}

struct Footprint {
  int x0, y0, x1, y1;
};

// Rectangle of the other camera covered by depth pixel (u, v) at depth z: its
// top-left and bottom-right corners taken through both cameras. False when it
// sticks out on any side; such a footprint is dropped whole, never clipped.
inline bool footprintOf(const LumoCam& depthCam, const LumoCam& otherCam, const LumoExtrinsics& depthToOther,
                        int otherWidth, int otherHeight, int u, int v, float z, Footprint* f) {
  int corner[2][2];
  for (int k = 0; k < 2; ++k) {
    const float offset = k == 0 ? -0.5f : 0.5f;
    const float pixel[2] = {static_cast<float>(u) + offset, static_cast<float>(v) + offset};
    float inDepth[3], inOther[3], projected[2];
    depthCam.deprojectPixel2Point(inDepth, pixel, z);
    LumoCam::TransformPoint2Point(inOther, &depthToOther, inDepth);
    otherCam.projectPoint2Pixel(projected, inOther);
    corner[k][0] = roundPixel(projected[0]);
    corner[k][1] = roundPixel(projected[1]);
  }
  f->x0 = corner[0][0];
  f->y0 = corner[0][1];
  f->x1 = corner[1][0];
  f->y1 = corner[1][1];
  return f->x0 >= 0 && f->y0 >= 0 && f->x1 < otherWidth && f->y1 < otherHeight && f->x0 <= f->x1 &&
         f->y0 <= f->y1;
}

// The z-buffer rule: a cell holding 0 takes z, any other keeps the nearer of
// the two. z is never 0 here, so after its first write a cell only ever takes
// the minimum, and the final value is the same whatever order the writes came in.
inline float nearer(float stored, float z) { return stored == 0.0f ? z : std::min(z, stored); }

// The same rule for a cell that other threads may write at the same time.
inline void keepNearerShared(float* cell, float z) {
  float stored;
  __atomic_load(cell, &stored, __ATOMIC_RELAXED);
  for (;;) {
    float wanted = nearer(stored, z);
    if (std::memcmp(&wanted, &stored, sizeof(float)) == 0) return;
    if (__atomic_compare_exchange(cell, &stored, &wanted, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED)) return;
  }
}

// Runs body over [0, rows) in row stripes on OpenCV's threads, or in one piece
// on this thread.
template <typename Body>
void forRows(bool parallel, int rows, const Body& body) {
  if (parallel) {
    cv::parallel_for_(cv::Range(0, rows), body);
  } else {
    body(cv::Range(0, rows));
  }
}

template <bool kShared>
void zBufferRows(const cv::Range& rows, const LumoCam& depthCam, const LumoCam& otherCam,
                 const LumoExtrinsics& depthToOther, const float* depth, float* out) {
  const int depthWidth = static_cast<int>(depthCam.intrinsics.width);
  const int otherWidth = static_cast<int>(otherCam.intrinsics.width);
  const int otherHeight = static_cast<int>(otherCam.intrinsics.height);
  for (int v = rows.start; v < rows.end; ++v) {
    const float* depthRow = depth + static_cast<std::size_t>(v) * depthWidth;
    for (int u = 0; u < depthWidth; ++u) {
      const float z = depthRow[u];
      Footprint f;
      if (z == 0.0f ||
          !footprintOf(depthCam, otherCam, depthToOther, otherWidth, otherHeight, u, v, z, &f)) {
        continue;
      }
      for (int y = f.y0; y <= f.y1; ++y) {
        float* outRow = out + static_cast<std::size_t>(y) * otherWidth;
        for (int x = f.x0; x <= f.x1; ++x) {
          if (kShared) {
            keepNearerShared(&outRow[x], z);
          } else {
            outRow[x] = nearer(outRow[x], z);
          }
        }
      }
    }
  }
}

}  // namespace

AlignImage::AlignImage() = default;
AlignImage::~AlignImage() = default;

void AlignImage::setAlignInfo(const LumoIntrinsics& depthIntrinsics, const LumoIntrinsics& otherIntrinsics,
                              const LumoExtrinsics& depthToOther) {
  depthCam_ = std::make_unique<LumoCam>(depthIntrinsics);
  otherCam_ = std::make_unique<LumoCam>(otherIntrinsics);
  depthToOther_ = depthToOther;
  const float* t = depthToOther_.translation;
  const float squared = t[0] * t[0] + t[1] * t[1] + t[2] * t[2];
  if (static_cast<double>(squared) < kFastModeThreshold) {
    fastMode_ = true;
    generateFastAlignLUT();
  } else {
    fastMode_ = false;
  }
}

// Without translation the depth pixel seen by an other-camera pixel does not
// depend on depth: walk each other-camera pixel's ray back into the depth
// camera once, and keep the pixel it meets and how depth scales along it.
void AlignImage::generateFastAlignLUT() {
  if (!fastMode_) return;
  const int otherWidth = static_cast<int>(otherCam_->intrinsics.width);
  const int otherHeight = static_cast<int>(otherCam_->intrinsics.height);
  const std::size_t entries = static_cast<std::size_t>(otherWidth) * static_cast<std::size_t>(otherHeight);
  lookupPixels_.resize(2 * entries);
  lookupFactors_.resize(entries);

  // Other to depth: the inverse rotation, no translation.
  LumoExtrinsics otherToDepth{};
  const float* R = depthToOther_.rotation;
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j) otherToDepth.rotation[3 * i + j] = R[3 * j + i];
  }

  const LumoCam& depthCam = *depthCam_;
  const LumoCam& otherCam = *otherCam_;
  const float depthWidth = static_cast<float>(depthCam.intrinsics.width);
  const float depthHeight = static_cast<float>(depthCam.intrinsics.height);
  uint32_t* pixels = lookupPixels_.data();
  float* factors = lookupFactors_.data();
  forRows(parallel_, otherHeight, [&](const cv::Range& rows) {
    for (int y = rows.start; y < rows.end; ++y) {
      for (int x = 0; x < otherWidth; ++x) {
        const float pixel[2] = {static_cast<float>(x), static_cast<float>(y)};
        float inOther[3], inDepth[3], projected[2];
        otherCam.deprojectPixel2Point(inOther, pixel, 1.0f);
        LumoCam::TransformPoint2Point(inDepth, &otherToDepth, inOther);
        depthCam.projectPoint2Pixel(projected, inDepth);
        const float xd = projected[0];
        const float yd = projected[1];
        const std::size_t i = static_cast<std::size_t>(y) * otherWidth + x;
        if (xd >= 0.0f && xd < depthWidth && yd >= 0.0f && yd < depthHeight) {
          pixels[2 * i] = static_cast<uint32_t>(xd);
          pixels[2 * i + 1] = static_cast<uint32_t>(yd);
          // z in the other camera of the depth camera's unit-depth ray through (xd, yd).
          const double factor = static_cast<double>(R[6]) * (xd * depthCam.inv_fx + depthCam.offset_x) +
                                static_cast<double>(R[7]) * (yd * depthCam.inv_fy + depthCam.offset_y) +
                                static_cast<double>(R[8]);
          factors[i] = static_cast<float>(factor);
        } else {
          pixels[2 * i] = 0;
          pixels[2 * i + 1] = 0;
          factors[i] = 0.0f;
        }
      }
    }
  });
}

int AlignImage::alignDepthToOther(LumoDepthImage& out, const LumoDepthImage& depth, const LumoImage& /*other*/) {
  if (!depthCam_ || !otherCam_) return 0;
  // The previous size is what the buffer is known to hold.
  if (out.size > 0) std::memset(out.data, 0, out.size);
  const int otherWidth = static_cast<int>(otherCam_->intrinsics.width);
  const int otherHeight = static_cast<int>(otherCam_->intrinsics.height);
  out.width = otherCam_->intrinsics.width;
  out.height = otherCam_->intrinsics.height;
  out.size = out.width * out.height * 4;
  out.timestamp = depth.timestamp;

  const float* in = depth.data;
  float* result = out.data;
  if (fastMode_) {
    // No depth test: outside the depth image the factor is 0, and so is the result.
    const std::size_t depthWidth = depthCam_->intrinsics.width;
    const uint32_t* pixels = lookupPixels_.data();
    const float* factors = lookupFactors_.data();
    forRows(parallel_, otherHeight, [&](const cv::Range& rows) {
      const std::size_t end = static_cast<std::size_t>(rows.end) * otherWidth;
      for (std::size_t i = static_cast<std::size_t>(rows.start) * otherWidth; i < end; ++i) {
        result[i] = in[pixels[2 * i + 1] * depthWidth + pixels[2 * i]] * factors[i];
      }
    });
    return 0;
  }

  // Footprints of neighbouring depth rows share output cells, so the threaded
  // loop updates cells atomically; the z-buffer rule makes the order irrelevant.
  const LumoCam& depthCam = *depthCam_;
  const LumoCam& otherCam = *otherCam_;
  const int depthHeight = static_cast<int>(depthCam.intrinsics.height);
  if (parallel_) {
    cv::parallel_for_(cv::Range(0, depthHeight), [&](const cv::Range& rows) {
      zBufferRows<true>(rows, depthCam, otherCam, depthToOther_, in, result);
    });
  } else {
    zBufferRows<false>(cv::Range(0, depthHeight), depthCam, otherCam, depthToOther_, in, result);
  }
  return 0;
}

int AlignImage::alignOtherToDepth(LumoImage& out, const LumoDepthImage& depth, const LumoImage& other) {
  if (!depthCam_ || !otherCam_) return 1;
  out.width = depth.width;
  out.height = depth.height;
  out.channels = other.channels;
  out.format = other.format;
  out.stride = depth.width * other.channels;
  out.size = out.height * out.stride;
  out.timestamp = depth.timestamp;
  if (out.size > 0) std::memset(out.data, 0, out.size);

  std::size_t pixelBytes;
  switch (other.format) {
    case 0:
    case 1:
      pixelBytes = 3;
      break;
    case 2:
      pixelBytes = 1;
      break;
    default:
      return 1;
  }

  // Each output pixel is written by its own depth pixel only, so rows split
  // freely. Copying the footprint's pixels in order leaves the last one, the
  // bottom-right corner (x1, y1), so that one is copied directly.
  const LumoCam& depthCam = *depthCam_;
  const LumoCam& otherCam = *otherCam_;
  const int depthWidth = static_cast<int>(depthCam.intrinsics.width);
  const int depthHeight = static_cast<int>(depthCam.intrinsics.height);
  const int otherWidth = static_cast<int>(otherCam.intrinsics.width);
  const int otherHeight = static_cast<int>(otherCam.intrinsics.height);
  const float* in = depth.data;
  const uint8_t* source = other.data;
  uint8_t* result = out.data;
  forRows(parallel_, depthHeight, [&](const cv::Range& rows) {
    for (int v = rows.start; v < rows.end; ++v) {
      for (int u = 0; u < depthWidth; ++u) {
        const std::size_t i = static_cast<std::size_t>(v) * depthWidth + u;
        const float z = in[i];
        Footprint f;
        if (z == 0.0f ||
            !footprintOf(depthCam, otherCam, depthToOther_, otherWidth, otherHeight, u, v, z, &f)) {
          continue;
        }
        const std::size_t from = static_cast<std::size_t>(f.y1) * otherWidth + f.x1;
        std::memcpy(result + i * pixelBytes, source + from * pixelBytes, pixelBytes);
      }
    }
  });
  return 0;
}

}  // namespace KorvLumetra
