#include "pipeline/VoxelTable.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace KorvLumetra {

void VoxelTable::reserve(std::size_t maxPoints) {
  if (maxPoints <= capacity_ && stamps_ != nullptr) return;
  std::size_t slots = 16;
  int shift = 60;
  while (slots < 2 * maxPoints) {
    slots *= 2;
    --shift;
  }
  // Zeroed stamps come from calloc: untouched pages until used.
  void* stamps = std::calloc(slots, sizeof(uint32_t));
  if (stamps == nullptr) throw std::bad_alloc();
  stamps_ = std::unique_ptr<uint32_t[], void (*)(void*)>(static_cast<uint32_t*>(stamps), std::free);
  cellOfSlot_.reset(new uint32_t[slots]);
  keys_.reset(new VoxelKey[maxPoints > 0 ? maxPoints : 1]);
  counts_.reset(new int32_t[maxPoints > 0 ? maxPoints : 1]);
  capacity_ = maxPoints;
  slotMask_ = slots - 1;
  slotShift_ = shift;
  generation_ = 1;
  used_ = 0;
}

void VoxelTable::clear() {
  used_ = 0;
  if (++generation_ == 0) {
    // Stamps wrapped: forget every old one once in 2^32 frames.
    std::memset(stamps_.get(), 0, (slotMask_ + 1) * sizeof(uint32_t));
    generation_ = 1;
  }
}

std::size_t VoxelTable::slotOf(const VoxelKey& key) const {
  // The packed key keeps z in its low bits; a multiplicative mix spreads all
  // three axes over the slots.
  const uint64_t packed = TwoMillionVoxelHash()(key);
  return static_cast<std::size_t>((packed * 0x9E3779B97F4A7C15ull) >> slotShift_) & slotMask_;
}

void VoxelTable::add(const VoxelKey& key) {
  // Points arrive in scan order: a point usually falls in its predecessor's cell.
  if (used_ != 0 && keys_[lastCell_] == key) {
    ++counts_[lastCell_];
    return;
  }
  std::size_t slot = slotOf(key);
  for (;;) {
    if (stamps_[slot] != generation_) {
      if (used_ == capacity_) return;  // more voxels than points cannot happen
      stamps_[slot] = generation_;
      cellOfSlot_[slot] = static_cast<uint32_t>(used_);
      keys_[used_] = key;
      counts_[used_] = 1;
      lastCell_ = used_;
      ++used_;
      return;
    }
    const uint32_t cell = cellOfSlot_[slot];
    if (keys_[cell] == key) {
      ++counts_[cell];
      lastCell_ = cell;
      return;
    }
    slot = (slot + 1) & slotMask_;
  }
}

}  // namespace KorvLumetra
