#include "VoxelMap.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <system_error>
#include <vector>

#include "AtomicWrite.h"
#include "CloudFiles.h"
#include "ToolError.h"

namespace LumoTool {

void VoxelMap::add(const float* points, int count) {
  for (int i = 0; i < count; ++i) {
    const float* p = points + 3 * i;
    if (!std::isfinite(p[0]) || !std::isfinite(p[1]) || !std::isfinite(p[2])) continue;
    const std::array<std::int64_t, 3> key = {static_cast<std::int64_t>(std::floor(p[0] / voxel_)),
                                             static_cast<std::int64_t>(std::floor(p[1] / voxel_)),
                                             static_cast<std::int64_t>(std::floor(p[2] / voxel_))};
    Sum& sum = voxels_[key];
    sum.x += p[0];
    sum.y += p[1];
    sum.z += p[2];
    ++sum.count;
  }
}

std::array<float, 6> VoxelMap::extent() const {
  constexpr float big = std::numeric_limits<float>::max();
  std::array<float, 6> e = {big, big, big, -big, -big, -big};
  for (const auto& entry : voxels_) {
    const Sum& s = entry.second;
    const float mean[3] = {static_cast<float>(s.x / s.count), static_cast<float>(s.y / s.count),
                           static_cast<float>(s.z / s.count)};
    for (int a = 0; a < 3; ++a) {
      e[a] = std::min(e[a], mean[a]);
      e[a + 3] = std::max(e[a + 3], mean[a]);
    }
  }
  return e;
}

void VoxelMap::writePly(const std::string& path) const {
  // Voxels in key order: the same run gives the same file.
  std::vector<std::pair<std::array<std::int64_t, 3>, const Sum*>> sorted;
  sorted.reserve(voxels_.size());
  for (const auto& entry : voxels_) sorted.emplace_back(entry.first, &entry.second);
  std::sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<float> points;
  points.reserve(3 * sorted.size());
  for (const auto& entry : sorted) {
    const Sum& s = *entry.second;
    points.push_back(static_cast<float>(s.x / s.count));
    points.push_back(static_cast<float>(s.y / s.count));
    points.push_back(static_cast<float>(s.z / s.count));
  }
  writeAtomically(path, [&](const std::string& partial) {
    LumoTool::writePly(partial, points.data(), static_cast<int>(sorted.size()));
  });
}

}  // namespace LumoTool
