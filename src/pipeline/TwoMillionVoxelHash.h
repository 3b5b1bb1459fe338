// Voxel keys and their hash for the point-cloud voxel filter.
#pragma once

#include <cstdint>
#include <cstddef>

namespace KorvLumetra {

struct VoxelKey {
  int32_t ix;
  int32_t iy;
  int32_t iz;
  bool operator==(const VoxelKey& other) const { return ix == other.ix && iy == other.iy && iz == other.iz; }
};

// 21 bits per axis: keys a multiple of 2,097,152 apart in an axis share a
// hash and are told apart by equality.
struct TwoMillionVoxelHash {
  std::size_t operator()(const VoxelKey& key) const {
    const uint64_t mask = 0x1FFFFF;
    return static_cast<std::size_t>(((static_cast<uint64_t>(key.ix) & mask) << 42) |
                                    ((static_cast<uint64_t>(key.iy) & mask) << 21) |
                                    (static_cast<uint64_t>(key.iz) & mask));
  }
};

}  // namespace KorvLumetra
