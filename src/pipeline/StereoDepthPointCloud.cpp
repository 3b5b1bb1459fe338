// StereoDepth: poses, point cloud hand-out and per-pixel coordinates.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "api/DebugDump.h"
#include "api/ErrorLog.h"
#include "pipeline/StereoDepth.h"
#include "pipeline/TwoMillionVoxelHash.h"
#include "pipeline/VoxelTable.h"

namespace KorvLumetra {

namespace {

constexpr int64_t kPoseTimeLimit = 50000000;  // in the unit of the host's time stamps

// Rows or columns [begin, end) of the region of interest, in single precision
// and truncated, clamped to the image for regions larger than it.
void roiRange(int size, float roi, int* begin, int* end) {
  const float first = static_cast<float>(size) * (1.0f - roi) * 0.5f;
  const float last = static_cast<float>(size) * (1.0f + roi) * 0.5f;
  // Clamped before the conversion, so that no region (NaN, huge) has an
  // undefined one; an empty range for NaN.
  const float high = static_cast<float>(size);
  *begin = first > 0.0f ? (first < high ? static_cast<int>(first) : size) : 0;
  *end = last > 0.0f ? (last < high ? static_cast<int>(last) : size) : 0;
  if (first != first) *begin = size;
}

// A floored quotient as a voxel index; values with no int32 (NaN points are
// kept on purpose) take INT32_MIN, what the x86 conversion yields for them.
// The floor comes from truncation, one step down for negative fractions: the
// same integer as std::floor, which baseline x86-64 has no instruction for.
inline int32_t voxelIndex(float quotient) {
  if (!(quotient >= -2147483648.0f && quotient < 2147483648.0f)) return INT32_MIN;
  const int32_t truncated = static_cast<int32_t>(quotient);
  // Without a branch: signs of coordinates alternate too often to predict.
  return truncated - static_cast<int32_t>(static_cast<float>(truncated) > quotient);
}

// The first multiple of `step` at or after `begin` (begin >= 0).
int64_t firstSample(int begin, int64_t step) {
  return (begin + step - 1) / step * step;
}

float* allocateFloats(std::size_t count) {
  void* memory = std::malloc(count * sizeof(float));
  if (memory == nullptr) throw std::bad_alloc();
  return static_cast<float*>(memory);
}

}  // namespace

int StereoDepth::feedPose(LumoPose* pose) {
  if (refusedConfiguration("feedPose")) return 1;
  if (moduleEnabled_ == 0) {
    logError("feedPose", "depth module is not enabled");
    return 1;
  }
  if (pose == nullptr) {
    logError("feedPose", "allocate memory before calling");
    return 1;
  }
  std::lock_guard<std::mutex> lock(poseMutex_);
  poseRing_->push();
  *poseRing_->back() = *pose;
  return 0;
}

unsigned int StereoDepth::getPointcloud(LumoMap* map, int maxPoints) {
  if (map == nullptr || map->points == nullptr) {
    logError("getPointcloud", "allocate memory before calling");
    return 1;
  }
  if (maxPoints < 1) {
    logError("getPointcloud", "maxPoints should be larger than 0");
    return 1;
  }
  std::unique_lock<std::mutex> lock(resultMutex_);
  if (pointCount_ == 0) {
    lock.unlock();
    logError("getPointcloud", "point cloud data is empty");
    return 1;
  }
  const int n = std::min(maxPoints, pointCount_);
  std::memcpy(map->points, pointBuffer_, static_cast<std::size_t>(n) * 3 * sizeof(float));
  map->type = 0;
  map->num = n;
  map->timestamp = cloudTimestamp_;
  return depthResultCount_ < 1 ? 1 : 0;
}

unsigned int StereoDepth::getCoordinates2Ext(const int* pixels, int count, const LumoDepthImage* depth,
                                             float* coordinates) {
  if (depth_ == nullptr || depth_->data == nullptr || disparity_ == nullptr || disparity_->data == nullptr) return 1;
  if (count < 1) return 0;
  if (pixels == nullptr || depth == nullptr || depth->data == nullptr || coordinates == nullptr) return 1;
  if (scaleRatios_.size() <= static_cast<std::size_t>(stereoCamIndex_)) return 1;

  const int width = static_cast<int>(depth->width);
  const int height = static_cast<int>(depth->height);
  const float s = scaleRatios_[stereoCamIndex_];
  for (int i = 0; i < count; ++i) {
    const int u = pixels[2 * i];
    const int v = pixels[2 * i + 1];
    float* out = coordinates + 3 * static_cast<std::size_t>(i);
    out[0] = out[1] = out[2] = 0.0f;
    long long index = -1;
    if (restoreDepthDim_ == 0) {
      // Input-image positions scaled to the working depth. The row offset is
      // scaled as a whole, as existing consumers expect.
      if (u < 0 || v < 0) continue;
      const int column = static_cast<int>(static_cast<float>(u) * s);
      const int row = static_cast<int>(static_cast<float>(v) * s);
      if (column >= width || row >= height) continue;
      index = column + static_cast<long long>(static_cast<float>(depth->width * static_cast<uint32_t>(v)) * s);
    } else {
      if (u < 0 || v < 0 || u >= width || v >= height) continue;
      index = static_cast<long long>(v) * width + u;
    }
    // The ray table covers the configured depth image only.
    const std::vector<float>& depthLut = calibration_.depthLut();
    if (2 * static_cast<std::size_t>(index) + 1 >= depthLut.size() ||
        static_cast<std::size_t>(index) >= static_cast<std::size_t>(width) * height) {
      continue;
    }
    const float d = depth->data[index];
    if (d > 0.0f) {
      out[0] = depthLut[2 * index] * d;
      out[1] = depthLut[2 * index + 1] * d;
      out[2] = d;
    }
  }
  return 0;
}

}  // namespace KorvLumetra

namespace KorvLumetra {

unsigned int StereoDepth::initPointcloudLUT() {
  float scale = 1.0f;
  {
    std::lock_guard<std::mutex> lock(engineMutex_);
    if (engines_.empty() || engines_[0]->getImageScale(&scale) != 0) return 1;
  }
  depthImageScale_ = scale;
  const ImageSize working = scaledSizes_[stereoCamIndex_];
  const int W = static_cast<int>(std::round(static_cast<float>(working.width) * scale));
  const int H = static_cast<int>(std::round(static_cast<float>(working.height) * scale));
  const uint64_t count = static_cast<uint64_t>(W > 0 ? W : 0) * static_cast<uint64_t>(H > 0 ? H : 0);
  const cv::Mat& P1 = calibration_.P1();
  const float fx = static_cast<float>(P1.at<double>(0, 0)) * scale;
  const float fy = static_cast<float>(P1.at<double>(1, 1)) * scale;
  const float cx = static_cast<float>(P1.at<double>(0, 2)) * scale;
  const float cy = static_cast<float>(P1.at<double>(1, 2)) * scale;

  if (count != cloudPixelCount_) {
    std::free(rayTable_);
    std::free(pointBuffer_);
    rayTable_ = nullptr;
    pointBuffer_ = nullptr;
    cloudPixelCount_ = 0;
    rayTable_ = allocateFloats(count * 3);
    pointBuffer_ = allocateFloats(count * 3);
    cloudPixelCount_ = count;
    voxelTable_.reserve(count);
  }
  std::memset(rayTable_, 0, count * 3 * sizeof(float));
  std::memset(pointBuffer_, 0, count * 3 * sizeof(float));

  int rowBegin, rowEnd, columnBegin, columnEnd;
  roiRange(H, pointcloudROI_, &rowBegin, &rowEnd);
  roiRange(W, pointcloudROI_, &columnBegin, &columnEnd);
  // One reciprocal and one offset per axis, then one multiply and one add per
  // ray, so that every ray is reproducible to the bit.
  const float inverseFx = 1.0f / fx;
  const float offsetX = -cx / fx;
  const float inverseFy = 1.0f / fy;
  const float offsetY = -cy / fy;
  for (int v = rowBegin; v < rowEnd; ++v) {
    for (int u = columnBegin; u < columnEnd; ++u) {
      float* ray = rayTable_ + 3 * (static_cast<std::size_t>(v) * W + u);
      ray[0] = static_cast<float>(u) * inverseFx + offsetX;
      ray[1] = static_cast<float>(v) * inverseFy + offsetY;
      ray[2] = 1.0f;
    }
  }
  if (pointcloudType_ == 0) return 0;

  // Into the unrectified left camera frame: by the transpose of R1.
  float R[3][3];
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) R[r][c] = static_cast<float>(calibration_.R1().at<double>(r, c));
  }
  for (uint64_t i = 0; i < count; ++i) {
    float* ray = rayTable_ + 3 * i;
    const float x = ray[0], y = ray[1], z = ray[2];
    ray[0] = R[0][0] * x + R[1][0] * y + R[2][0] * z;
    ray[1] = R[0][1] * x + R[1][1] * y + R[2][1] * z;
    ray[2] = R[0][2] * x + R[1][2] * y + R[2][2] * z;
  }
  return 0;
}

void StereoDepth::generatePointCloud() {
  if (cloudPixelCount_ == 0) initPointcloudLUT();
  // The depth record is written by this thread only; read without the lock.
  const uint32_t W = depth_->width;
  const uint32_t H = depth_->height;
  if (W * H * 3u != static_cast<uint32_t>(cloudPixelCount_ * 3)) {
    logError("generatePointCloud", "pointcloud LUT size mismatch");
    return;
  }

  std::lock_guard<std::mutex> lock(resultMutex_);
  pointCount_ = 0;
  cloudTimestamp_ = depth_->timestamp;
  int rowBegin, rowEnd, columnBegin, columnEnd;
  roiRange(static_cast<int>(H), pointcloudROI_, &rowBegin, &rowEnd);
  roiRange(static_cast<int>(W), pointcloudROI_, &columnBegin, &columnEnd);
  // The sampling grid is anchored at the image origin, not at the region.
  const int64_t step = skipPoint_ >= 0 ? int64_t{skipPoint_} + 1 : 1;
  const float* depth = depth_->data;
  const float farthest = farthestDist_;
  const float closest = cloestDist_;
  float* out = pointBuffer_;
  for (int64_t row = firstSample(rowBegin, step); row < rowEnd; row += step) {
    for (int64_t column = firstSample(columnBegin, step); column < columnEnd; column += step) {
      const std::size_t index = static_cast<std::size_t>(row) * W + static_cast<std::size_t>(column);
      const float d = depth[index];
      // NaN passes both tests and is kept on purpose.
      if (d > farthest || d < closest) continue;
      const float* ray = rayTable_ + 3 * index;
      out[0] = ray[0] * d;
      out[1] = ray[1] * d;
      out[2] = d * ray[2];
      out += 3;
    }
  }
  pointCount_ = static_cast<int>((out - pointBuffer_) / 3);

  if (pointcloudType_ == 2) {
    std::lock_guard<std::mutex> poseLock(poseMutex_);
    const uint64_t stored = poseRing_->size();
    const LumoPose* nearest = nullptr;
    int64_t nearestGap = 0;
    for (uint64_t i = 0; i < stored; ++i) {
      const LumoPose* pose = poseRing_->at(i);
      const int64_t gap = std::llabs(static_cast<int64_t>(pose->timestamp - cloudTimestamp_));
      if (gap < kPoseTimeLimit && (nearest == nullptr || gap < nearestGap)) {
        nearest = pose;
        nearestGap = gap;
      }
    }
    if (nearest == nullptr) {
      pointCount_ = 0;  // no pose near enough in time: no cloud for this frame
      return;
    }
    const double w = nearest->orientation[0], x = nearest->orientation[1];
    const double y = nearest->orientation[2], z = nearest->orientation[3];
    const float R[3][3] = {
        {static_cast<float>(1 - 2 * (y * y + z * z)), static_cast<float>(2 * (x * y - w * z)),
         static_cast<float>(2 * (x * z + w * y))},
        {static_cast<float>(2 * (x * y + w * z)), static_cast<float>(1 - 2 * (x * x + z * z)),
         static_cast<float>(2 * (y * z - w * x))},
        {static_cast<float>(2 * (x * z - w * y)), static_cast<float>(2 * (y * z + w * x)),
         static_cast<float>(1 - 2 * (x * x + y * y))}};
    const float t[3] = {static_cast<float>(nearest->position[0]), static_cast<float>(nearest->position[1]),
                        static_cast<float>(nearest->position[2])};
    for (int i = 0; i < pointCount_; ++i) {
      float* p = pointBuffer_ + 3 * static_cast<std::size_t>(i);
      const float px = p[0], py = p[1], pz = p[2];
      for (int r = 0; r < 3; ++r) p[r] = R[r][0] * px + R[r][1] * py + R[r][2] * pz + t[r];
    }
  }

  if (enableVoxel_) {
    voxelTable_.clear();
    const float edge = voxelSize_;
    const float* end = pointBuffer_ + 3 * static_cast<std::size_t>(pointCount_);
    for (const float* p = pointBuffer_; p != end; p += 3) {
      voxelTable_.add({voxelIndex(p[0] / edge), voxelIndex(p[1] / edge), voxelIndex(p[2] / edge)});
    }
    // The centre of each kept cell, not the mean of its points, in the order
    // the cells were first met.
    float* centre = pointBuffer_;
    int kept = 0;
    for (std::size_t cell = 0; cell < voxelTable_.size(); ++cell) {
      if (static_cast<float>(voxelTable_.count(cell)) < minPoints_) continue;
      const VoxelKey& key = voxelTable_.key(cell);
      centre[0] = (static_cast<float>(key.ix) + 0.5f) * voxelSize_;
      centre[1] = (static_cast<float>(key.iy) + 0.5f) * voxelSize_;
      centre[2] = (static_cast<float>(key.iz) + 0.5f) * voxelSize_;
      centre += 3;
      ++kept;
    }
    pointCount_ = kept;
  }

  if (debugImage_ != 0) {
    DebugDump(debugImgSavePath_).pointCloud(cloudTimestamp_, pointBuffer_, static_cast<unsigned int>(pointCount_));
  }
}

}  // namespace KorvLumetra
