// Temporal smoothing of a float depth image, in place.
//
// Each valid pixel is blended with the filtered value of the same pixel in the
// previous frame when the two are close; a zero (invalid) pixel may take the
// last valid value, depending on how often it was valid in the last eight
// frames (an 8-bit validity history read through a 256-entry persistence table).
//
// Threads: the setters (and so initFilter) take the mutex, which guards the
// parameters; processFrame does not, so parameters must not change while a
// frame is being filtered.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "lumetra_depth.h"

namespace KorvLumetra {

class KesTemporalFilter {
 public:
  KesTemporalFilter();
  ~KesTemporalFilter() = default;

  // params = {alpha, delta, persistence}; persistence is truncated toward zero
  // and taken modulo 256. Any other count logs "init filter failed" and returns 1.
  int initFilter(std::vector<float> params);

  // Under the mutex. Each empties the per-pixel arrays, which keeps their
  // storage and values (see PixelArray); alpha and delta also restart the slot.
  void on_set_alpha(float a);
  void on_set_delta(float d);
  void on_set_persistence_control(uint8_t p);

  // Rebuilds the table for the current persistence control (mutex held).
  void recalc_persistence_map();

  // On a change of width, height or stride: both per-pixel arrays become zeros.
  void updateConfiguration(LumoDepthImage* image);

  // Filters image->data (width * height floats) in place. Returns 0.
  int processFrame(LumoDepthImage* image);

 private:
  // A growable array whose emptying keeps its storage and contents. The frame
  // loop addresses the storage by pixel index regardless of the length, so a
  // parameter change does not restart the history of a stream of constant size.
  template <typename T>
  class PixelArray {
   public:
    void clear() { length_ = 0; }
    void assignZeros(std::size_t n) {
      if (n > capacity_) {
        storage_.reset(new T[n]);
        capacity_ = n;
      }
      std::fill_n(storage_.get(), n, T(0));
      length_ = n;
    }
    T* data() { return storage_.get(); }
    std::size_t size() const { return length_; }

   private:
    std::unique_ptr<T[]> storage_;
    std::size_t capacity_ = 0;
    std::size_t length_ = 0;
  };

  std::mutex mutex_;
  uint8_t persistenceControl_ = 3;
  float alpha_ = 0.4f;          // weight of the current frame
  float oneMinusAlpha_ = 0.6f;  // kept in step with alpha_
  float delta_ = 20.0f;         // largest change between frames that is still smoothed
  uint64_t width_ = 0;
  uint64_t height_ = 0;
  uint32_t stride_ = 0;
  uint64_t pixelCount_ = 0;
  PixelArray<float> lastFrame_;   // filtered value of each pixel when it was last valid
  PixelArray<uint8_t> history_;   // one validity bit per frame slot
  uint8_t currentSlot_ = 0;       // 0 .. 7
  uint8_t persistenceMap_[256] = {};
};

}  // namespace KorvLumetra
