#include "align/AlignImage.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include <opencv2/core.hpp>

namespace KorvLumetra {

namespace {

// Squared translation below which the cameras count as co-located.
constexpr double kFastModeThreshold = 1e-10;

// Depth pixels handled per batch by the threaded footprint pass.
constexpr int kChunk = 64;

// Other-camera rows per band of the threaded z-buffer writes.
constexpr int kBandRows = 64;

// Truncation of c + 0.5 toward zero (not a floor: -1.2 lands on 0 and counts
// as inside). NaN and values beyond int give INT_MIN, which every bounds test
// below rejects, as the x86 conversion would.
inline int roundPixel(float c) {
  const float shifted = c + 0.5f;
  if (!(shifted > -2147483648.0f && shifted < 2147483648.0f)) return INT_MIN;
  return static_cast<int>(shifted);
}

// A footprint is dropped whole when it sticks out on any side, never clipped.
inline bool accepted(int x0, int y0, int x1, int y1, int otherWidth, int otherHeight) {
  return x0 >= 0 && y0 >= 0 && x1 < otherWidth && y1 < otherHeight && x0 <= x1 && y0 <= y1;
}

// The z-buffer rule: a cell holding 0 takes z, any other keeps the nearer of
// the two. z is never 0 here, so after its first write a cell only ever takes
// the minimum: the final value does not depend on the order of the writes.
inline float nearer(float stored, float z) { return stored == 0.0f ? z : std::min(z, stored); }

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
  prepareCornerRays();
  const std::size_t depthPixels = static_cast<std::size_t>(depthIntrinsics.width) * depthIntrinsics.height;
  footprints_.assign(fastMode_ ? 0 : depthPixels, Footprint{});
  rowSpans_.assign(fastMode_ ? 0 : 2 * static_cast<std::size_t>(depthIntrinsics.height), 0);
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
  cv::parallel_for_(cv::Range(0, otherHeight), [&](const cv::Range& rows) {
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

void AlignImage::prepareCornerRays() {
  const int cornersX = static_cast<int>(depthCam_->intrinsics.width) + 1;
  const int cornersY = static_cast<int>(depthCam_->intrinsics.height) + 1;
  cornerRays_.resize(2 * static_cast<std::size_t>(cornersX) * cornersY);
  const LumoCam& depthCam = *depthCam_;
  float* rays = cornerRays_.data();
  cv::parallel_for_(cv::Range(0, cornersY), [&](const cv::Range& rows) {
    for (int v = rows.start; v < rows.end; ++v) {
      for (int u = 0; u < cornersX; ++u) {
        const float pixel[2] = {static_cast<float>(u) - 0.5f, static_cast<float>(v) - 0.5f};
        float point[3];
        depthCam.deprojectPixel2Point(point, pixel, 1.0f);
        float* ray = rays + 2 * (static_cast<std::size_t>(v) * cornersX + u);
        ray[0] = point[0];
        ray[1] = point[1];
      }
    }
  });
}

// Footprints of depth pixels [begin, end) of row v (at most kChunk) into
// f[0 .. end - begin), x0 = -1 where there is no depth or the footprint is
// rejected. A footprint is the rectangle of the other camera between the
// pixel's top-left and bottom-right corners, each deprojected at z (from the
// corner rays), moved into the other camera and projected; the pixels with depth first gathered so that the
// projections run back to back without a hard-to-predict branch between them.
void AlignImage::chunkFootprints(int v, int begin, int end, const float* depthRow, Footprint* f) const {
  const int otherWidth = static_cast<int>(otherCam_->intrinsics.width);
  const int otherHeight = static_cast<int>(otherCam_->intrinsics.height);
  const std::size_t cornersX = depthCam_->intrinsics.width + 1;
  const float* raysAbove = &cornerRays_[2 * static_cast<std::size_t>(v) * cornersX];
  const float* raysBelow = raysAbove + 2 * cornersX;

  int columns[kChunk];
  int count = 0;
  for (int u = begin; u < end; ++u) {
    columns[count] = u;
    count += depthRow[u] != 0.0f ? 1 : 0;
    f[u - begin].x0 = -1;
  }
  float corners[kChunk][4];
  for (int k = 0; k < count; ++k) {
    const int u = columns[k];
    const float z = depthRow[u];
    const float* rays[2] = {raysAbove + 2 * u, raysBelow + 2 * (u + 1)};
    for (int c = 0; c < 2; ++c) {
      const float inDepth[3] = {rays[c][0] * z, rays[c][1] * z, z};
      float inOther[3];
      LumoCam::TransformPoint2Point(inOther, &depthToOther_, inDepth);
      otherCam_->projectPoint2Pixel(&corners[k][2 * c], inOther);
    }
  }
  for (int k = 0; k < count; ++k) {
    const int x0 = roundPixel(corners[k][0]);
    const int y0 = roundPixel(corners[k][1]);
    const int x1 = roundPixel(corners[k][2]);
    const int y1 = roundPixel(corners[k][3]);
    if (accepted(x0, y0, x1, y1, otherWidth, otherHeight)) f[columns[k] - begin] = Footprint{x0, y0, x1, y1};
  }
}

// Footprints of neighbouring depth rows share output cells. The projections
// run on stripes of depth rows and only record the footprints; the writes then
// run on bands of output rows, each band owning its cells (zeroing its share
// of the first zeroBytes bytes first), so no cell is written by two threads.
void AlignImage::zBufferThreaded(const float* depth, float* out, std::size_t zeroBytes) {
  const int depthWidth = static_cast<int>(depthCam_->intrinsics.width);
  const int depthHeight = static_cast<int>(depthCam_->intrinsics.height);
  const int otherWidth = static_cast<int>(otherCam_->intrinsics.width);
  const int otherHeight = static_cast<int>(otherCam_->intrinsics.height);
  Footprint* footprints = footprints_.data();
  int* spans = rowSpans_.data();
  cv::parallel_for_(cv::Range(0, depthHeight), [&](const cv::Range& rows) {
    for (int v = rows.start; v < rows.end; ++v) {
      const float* depthRow = depth + static_cast<std::size_t>(v) * depthWidth;
      Footprint* rowFootprints = footprints + static_cast<std::size_t>(v) * depthWidth;
      int first = otherHeight;
      int last = -1;
      for (int begin = 0; begin < depthWidth; begin += kChunk) {
        const int end = std::min(depthWidth, begin + kChunk);
        chunkFootprints(v, begin, end, depthRow, rowFootprints + begin);
        for (int u = begin; u < end; ++u) {
          if (rowFootprints[u].x0 < 0) continue;
          first = std::min(first, rowFootprints[u].y0);
          last = std::max(last, rowFootprints[u].y1);
        }
      }
      spans[2 * v] = first;
      spans[2 * v + 1] = last;
    }
  });

  // Bands of about 64 rows: a band's cells, zeroed and then written, stay in
  // cache, and a depth row's footprints still fall in one or two bands.
  const std::size_t rowBytes = static_cast<std::size_t>(otherWidth) * sizeof(float);
  const double bands = std::max(2 * cv::getNumThreads(), otherHeight / kBandRows);
  cv::parallel_for_(cv::Range(0, otherHeight), [&](const cv::Range& band) {
    const std::size_t zeroBegin = std::min(zeroBytes, band.start * rowBytes);
    const std::size_t zeroEnd = std::min(zeroBytes, band.end * rowBytes);
    std::memset(reinterpret_cast<char*>(out) + zeroBegin, 0, zeroEnd - zeroBegin);
    for (int v = 0; v < depthHeight; ++v) {
      if (spans[2 * v] >= band.end || spans[2 * v + 1] < band.start) continue;
      for (int u = 0; u < depthWidth; ++u) {
        const std::size_t i = static_cast<std::size_t>(v) * depthWidth + u;
        const Footprint& f = footprints[i];
        if (f.x0 < 0 || f.y0 >= band.end || f.y1 < band.start) continue;
        const float z = depth[i];
        const int yEnd = std::min(f.y1, band.end - 1);
        for (int y = std::max(f.y0, band.start); y <= yEnd; ++y) {
          float* row = out + static_cast<std::size_t>(y) * otherWidth;
          for (int x = f.x0; x <= f.x1; ++x) row[x] = nearer(row[x], z);
        }
      }
    }
  }, bands);
}

int AlignImage::alignDepthToOther(LumoDepthImage& out, const LumoDepthImage& depth, const LumoImage& /*other*/) {
  if (!depthCam_ || !otherCam_) return 0;
  // Only the previous size is known to be there, so only that much is zeroed.
  const std::size_t zeroBytes = out.data != nullptr ? out.size : 0;
  const int otherWidth = static_cast<int>(otherCam_->intrinsics.width);
  const int otherHeight = static_cast<int>(otherCam_->intrinsics.height);
  out.width = otherCam_->intrinsics.width;
  out.height = otherCam_->intrinsics.height;
  out.size = out.width * out.height * 4;
  out.timestamp = depth.timestamp;
  const std::size_t resultBytes = out.size;

  const float* in = depth.data;
  float* result = out.data;
  if (fastMode_) {
    // Every cell of the result is written below; only a longer previous image
    // leaves bytes to clear. No depth test: outside the depth image the
    // factor is 0, and so is the result.
    if (zeroBytes > resultBytes) std::memset(out.data + resultBytes / 4, 0, zeroBytes - resultBytes);
    const std::size_t depthWidth = depthCam_->intrinsics.width;
    const uint32_t* pixels = lookupPixels_.data();
    const float* factors = lookupFactors_.data();
    cv::parallel_for_(cv::Range(0, otherHeight), [&](const cv::Range& rows) {
      const std::size_t end = static_cast<std::size_t>(rows.end) * otherWidth;
      for (std::size_t i = static_cast<std::size_t>(rows.start) * otherWidth; i < end; ++i) {
        result[i] = in[pixels[2 * i + 1] * depthWidth + pixels[2 * i]] * factors[i];
      }
    });
    return 0;
  }

  if (zeroBytes > resultBytes) std::memset(out.data + resultBytes / 4, 0, zeroBytes - resultBytes);
  zBufferThreaded(in, result, std::min(zeroBytes, resultBytes));
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

  // Visiting the footprint row by row and copying each pixel over the last
  // leaves the bottom-right one, (x1, y1), so that one is copied directly.
  // Each output pixel belongs to its own depth pixel, so rows split freely.
  const LumoCam& depthCam = *depthCam_;
  const LumoCam& otherCam = *otherCam_;
  const int depthWidth = static_cast<int>(depthCam.intrinsics.width);
  const int depthHeight = static_cast<int>(depthCam.intrinsics.height);
  const std::size_t otherWidth = otherCam.intrinsics.width;
  const float* in = depth.data;
  const uint8_t* source = other.data;
  uint8_t* result = out.data;
  // Spelled out per byte: a memcpy of a run-time length of 1 or 3 is a library call.
  auto copyPixel = [&](std::size_t i, int x1, int y1) {
    uint8_t* to = result + i * pixelBytes;
    const uint8_t* from = source + (y1 * otherWidth + x1) * pixelBytes;
    to[0] = from[0];
    if (pixelBytes == 3) {
      to[1] = from[1];
      to[2] = from[2];
    }
  };

  cv::parallel_for_(cv::Range(0, depthHeight), [&](const cv::Range& rows) {
    Footprint chunk[kChunk];
    for (int v = rows.start; v < rows.end; ++v) {
      const std::size_t rowStart = static_cast<std::size_t>(v) * depthWidth;
      for (int begin = 0; begin < depthWidth; begin += kChunk) {
        const int end = std::min(depthWidth, begin + kChunk);
        chunkFootprints(v, begin, end, in + rowStart, chunk);
        for (int u = begin; u < end; ++u) {
          const Footprint& f = chunk[u - begin];
          if (f.x0 >= 0) copyPixel(rowStart + u, f.x1, f.y1);
        }
      }
    }
  });
  return 0;
}

}  // namespace KorvLumetra
