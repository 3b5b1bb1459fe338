// One map of a whole run: world-frame points of every frame pooled in cubic
// voxels, a point per voxel at the mean of the points that fell in it.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <unordered_map>

namespace LumoTool {

class VoxelMap {
 public:
  explicit VoxelMap(double voxel) : voxel_(voxel) {}

  // `points` holds x, y, z for each of `count` points; points that are not
  // finite are skipped.
  void add(const float* points, int count);

  std::size_t size() const { return voxels_.size(); }
  // Smallest and largest coordinate per axis of the map's points.
  std::array<float, 6> extent() const;
  // Binary little-endian PLY, written under a temporary name and renamed, so
  // that no half-written map is left under the final name. Throws ToolError.
  void writePly(const std::string& path) const;

 private:
  struct Sum {
    double x = 0, y = 0, z = 0;
    std::int64_t count = 0;
  };
  struct KeyHash {
    std::size_t operator()(const std::array<std::int64_t, 3>& k) const {
      return static_cast<std::size_t>(k[0] * 73856093 ^ k[1] * 19349663 ^ k[2] * 83492791);
    }
  };
  double voxel_;
  std::unordered_map<std::array<std::int64_t, 3>, Sum, KeyHash> voxels_;
};

}  // namespace LumoTool
