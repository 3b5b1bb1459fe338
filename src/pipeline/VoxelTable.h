// Point counts per voxel for the point-cloud voxel filter: an open-addressing
// table sized once for the largest cloud, cleared in constant time per frame,
// and iterated in the order the voxels were first met.
//
// Not thread-safe; used by the result thread under the result mutex.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "pipeline/TwoMillionVoxelHash.h"

namespace KorvLumetra {

class VoxelTable {
 public:
  // Room for `maxPoints` distinct voxels. Memory is allocated untouched.
  void reserve(std::size_t maxPoints);
  void clear();
  void add(const VoxelKey& key);

  std::size_t size() const { return used_; }
  const VoxelKey& key(std::size_t i) const { return keys_[i]; }
  int32_t count(std::size_t i) const { return counts_[i]; }

 private:
  static constexpr std::size_t kInitialSlots = std::size_t{1} << 16;

  std::size_t slotOf(const VoxelKey& key) const;
  void resetSlots();
  void nextGeneration();
  void grow();

  std::size_t capacity_ = 0;  // cells
  std::size_t maxSlots_ = 0;  // a power of two >= 2 * capacity
  std::size_t slotMask_ = 0;  // slots in use - 1; grows up to maxSlots_ - 1
  int slotShift_ = 64;
  uint32_t generation_ = 1;   // a slot is taken when its stamp equals the generation
  std::unique_ptr<uint32_t[], void (*)(void*)> stamps_{nullptr, nullptr};
  std::unique_ptr<uint32_t[]> cellOfSlot_;
  std::unique_ptr<VoxelKey[]> keys_;
  std::unique_ptr<int32_t[]> counts_;
  std::size_t used_ = 0;
  std::size_t lastCell_ = 0;  // the cell of the previous point
};

}  // namespace KorvLumetra
