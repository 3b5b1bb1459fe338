// StereoDepth: poses, point cloud hand-out and per-pixel coordinates.
#include <algorithm>
#include <cstring>

#include "api/ErrorLog.h"
#include "pipeline/StereoDepth.h"

namespace KorvLumetra {

int StereoDepth::feedPose(LumoPose* pose) {
  if (moduleEnabled_ == 0) {
    logError("feedPose", "depth module is not enabled");
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
    if (2 * static_cast<std::size_t>(index) + 1 >= depthLut_.size() ||
        static_cast<std::size_t>(index) >= static_cast<std::size_t>(width) * height) {
      continue;
    }
    const float d = depth->data[index];
    if (d > 0.0f) {
      out[0] = depthLut_[2 * index] * d;
      out[1] = depthLut_[2 * index + 1] * d;
      out[2] = d;
    }
  }
  return 0;
}

}  // namespace KorvLumetra
