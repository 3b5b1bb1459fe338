#include "pipeline/VoxelTable.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace KorvLumetra {

void VoxelTable::reserve(std::size_t maxPoints) {
  if (maxPoints <= capacity_ && stamps_ != nullptr) return;
  std::size_t slots = 16;
  while (slots < 2 * maxPoints) slots *= 2;
  // Zeroed stamps come from calloc: untouched pages until used.
  void* stamps = std::calloc(slots, sizeof(uint32_t));
  if (stamps == nullptr) throw std::bad_alloc();
  stamps_ = std::unique_ptr<uint32_t[], void (*)(void*)>(static_cast<uint32_t*>(stamps), std::free);
  cellOfSlot_.reset(new uint32_t[slots]);
  keys_.reset(new VoxelKey[maxPoints > 0 ? maxPoints : 1]);
  counts_.reset(new int32_t[maxPoints > 0 ? maxPoints : 1]);
  capacity_ = maxPoints;
  maxSlots_ = slots;
  generation_ = 1;
  used_ = 0;
  resetSlots();
}

// Each frame starts with a small, cache-friendly index that doubles as cells
// are added; the storage for the largest index is there from the start.
void VoxelTable::resetSlots() {
  slotMask_ = (maxSlots_ < kInitialSlots ? maxSlots_ : kInitialSlots) - 1;
  slotShift_ = 64;
  for (std::size_t slots = slotMask_ + 1; slots > 1; slots /= 2) --slotShift_;
}

void VoxelTable::nextGeneration() {
  if (++generation_ == 0) {
    // Stamps wrapped: forget every old one once in 2^32 uses.
    std::memset(stamps_.get(), 0, maxSlots_ * sizeof(uint32_t));
    generation_ = 1;
  }
}

void VoxelTable::grow() {
  slotMask_ = slotMask_ * 2 + 1;
  --slotShift_;
  nextGeneration();
  for (std::size_t cell = 0; cell < used_; ++cell) {
    std::size_t slot = slotOf(keys_[cell]);
    while (stamps_[slot] == generation_) slot = (slot + 1) & slotMask_;
    stamps_[slot] = generation_;
    cellOfSlot_[slot] = static_cast<uint32_t>(cell);
  }
}

void VoxelTable::clear() {
  used_ = 0;
  resetSlots();
  nextGeneration();
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
      if (2 * (used_ + 1) > slotMask_ + 1 && slotMask_ + 1 < maxSlots_) {
        grow();
        add(key);
        return;
      }
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
