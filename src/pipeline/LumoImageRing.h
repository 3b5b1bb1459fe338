// Fixed-capacity, overwrite-oldest rings of frame records.
//
// Thread use: every operation takes the ring's own mutex for its duration only.
// A multi-step sequence (push then fill through back(), or front, read, pop)
// is made atomic by a lock of the owner's, always taken before the ring's own.
// back() and front() hand out a slot pointer that stays valid for the ring's
// life (slots never move) but whose contents a later push may overwrite.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <stdexcept>

#include "lumetra_depth.h"

namespace KorvLumetra {
namespace LumoUtils {

// Resets a slot for a push: every header field to zero, the pixel buffer kept.
inline void clearSlot(LumoImage& slot) {
  uint8_t* data = slot.data;
  slot = LumoImage{};
  slot.data = data;
}
inline void clearSlot(LumoPose& slot) { slot = LumoPose{}; }

template <typename Slot>
class LumoRing {
 public:
  explicit LumoRing(uint64_t capacity) : slots_(new Slot[capacity]()), capacity_(capacity) {}
  LumoRing(const LumoRing&) = delete;
  LumoRing& operator=(const LumoRing&) = delete;

  // Claims the next slot, dropping the oldest element when full. The caller
  // fills the new element through back().
  void push() {
    std::lock_guard<std::mutex> lock(mutex_);
    clearSlot(slots_[head_]);
    if (count_ == capacity_) {
      tail_ = (tail_ + 1) % capacity_;
    } else {
      ++count_;
    }
    head_ = (head_ + 1) % capacity_;
  }

  // The element pushed last.
  Slot* back() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (count_ != 0) return &slots_[head_ == 0 ? capacity_ - 1 : head_ - 1];
    }
    throw std::length_error("back function called on empty buffer");
  }

  // The oldest element.
  Slot* front() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (count_ != 0) return &slots_[tail_];
    }
    throw std::length_error("front function called on empty buffer");
  }

  void pop_front() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (count_ != 0) {
        --count_;
        tail_ = (tail_ + 1) % capacity_;
        return;
      }
    }
    throw std::length_error("pop_front called on empty buffer");
  }

  // The element `index` places after the oldest.
  Slot* at(uint64_t index) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (index < count_) return &slots_[(tail_ + index) % capacity_];
    }
    throw std::out_of_range("Index is out of Range of buffer size");
  }

  // The newest element for which pred(slot) holds, or null. Same caveat as
  // back(): the owner's lock keeps the slot from being overwritten meanwhile.
  template <typename Pred>
  Slot* findNewest(Pred pred) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (uint64_t i = 0; i < count_; ++i) {
      Slot& slot = slots_[(head_ + capacity_ - 1 - i) % capacity_];
      if (pred(slot)) return &slot;
    }
    return nullptr;
  }

  uint64_t size() {
    std::lock_guard<std::mutex> lock(mutex_);
    return count_;
  }

  uint64_t capacity() const { return capacity_; }

 protected:
  Slot& slotAt(uint64_t index) { return slots_[index]; }

 private:
  std::mutex mutex_;
  std::unique_ptr<Slot[]> slots_;
  uint64_t head_ = 0;  // slot the next push writes
  uint64_t tail_ = 0;  // oldest element
  uint64_t count_ = 0;
  const uint64_t capacity_;
};

// A ring of images whose slots each own a pixel buffer of slotBytes. The
// buffers are allocated untouched, so unused capacity costs no resident memory.
class LumoImageRing : public LumoRing<LumoImage> {
 public:
  LumoImageRing(uint64_t capacity, std::size_t slotBytes) : LumoRing<LumoImage>(capacity), slotBytes_(slotBytes) {
    for (uint64_t i = 0; i < capacity; ++i) slotAt(i).data = new uint8_t[slotBytes];
  }
  ~LumoImageRing() {
    for (uint64_t i = 0; i < capacity(); ++i) delete[] slotAt(i).data;
  }
  std::size_t slotBytes() const { return slotBytes_; }

 private:
  const std::size_t slotBytes_;
};

using LumoPoseRing = LumoRing<LumoPose>;

}  // namespace LumoUtils
}  // namespace KorvLumetra
