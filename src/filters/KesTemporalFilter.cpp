#include "filters/KesTemporalFilter.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "api/ErrorLog.h"
#include "filters/BranchFreeChoose.h"

namespace KorvLumetra {

namespace {

constexpr std::size_t kChunk = 256;  // pixels per gathered block of table lookups

// Whether a history h, read with bit 7 as the most recent frame, bit 6 the one
// before and so on, lets a hole take the last valid value.
bool persistenceRule(uint8_t control, unsigned h) {
  auto bit = [h](int k) { return static_cast<int>((h >> k) & 1u); };
  int validCount = 0;
  for (int k = 0; k < 8; ++k) validCount += bit(k);
  switch (control) {
    case 1: return validCount == 8;
    case 2: return bit(7) + bit(6) + bit(5) >= 2;
    case 3: return bit(7) + bit(6) + bit(5) + bit(4) >= 2;
    case 4: return validCount >= 2;
    case 5: return bit(7) + bit(6) >= 1;
    case 6: return bit(7) + bit(6) + bit(5) + bit(4) + bit(3) >= 1;
    case 7: return validCount >= 1;
    case 8: return true;
    default: return false;  // 0 switches hole filling off; 9 and above never fill
  }
}

}  // namespace

KesTemporalFilter::KesTemporalFilter() {
  on_set_alpha(0.4f);
  on_set_delta(20.0f);
  on_set_persistence_control(3);
}

int KesTemporalFilter::initFilter(std::vector<float> params) {
  if (params.size() != 3) {
    logError("initFilter", "init filter failed");
    return 1;
  }
  on_set_alpha(params[0]);
  on_set_delta(params[1]);
  // Truncate, then keep the low byte: modulo 256 (300 becomes 44).
  on_set_persistence_control(static_cast<uint8_t>(static_cast<int>(params[2])));
  return 0;
}

void KesTemporalFilter::on_set_alpha(float a) {
  std::lock_guard<std::mutex> lock(mutex_);
  alpha_ = a;
  oneMinusAlpha_ = 1.0f - a;
  currentSlot_ = 0;
  lastFrame_.clear();
  history_.clear();
}

void KesTemporalFilter::on_set_delta(float d) {
  std::lock_guard<std::mutex> lock(mutex_);
  delta_ = d;
  currentSlot_ = 0;
  lastFrame_.clear();
  history_.clear();
}

void KesTemporalFilter::on_set_persistence_control(uint8_t p) {
  std::lock_guard<std::mutex> lock(mutex_);
  persistenceControl_ = p;
  recalc_persistence_map();
  lastFrame_.clear();  // the slot is deliberately not reset here
  history_.clear();
}

void KesTemporalFilter::recalc_persistence_map() {
  uint8_t rule[256];
  for (unsigned h = 0; h < 256; ++h) rule[h] = persistenceRule(persistenceControl_, h) ? 1 : 0;

  // Bit s of the entry answers for current slot s: rotating the history right
  // by s puts slot s at bit 0 and the previous frame's slot s - 1 at bit 7.
  for (unsigned h = 0; h < 256; ++h) {
    unsigned entry = 0;
    for (unsigned s = 0; s < 8; ++s) {
      const unsigned rotated = ((h >> s) | (h << (8 - s))) & 0xFFu;
      entry |= static_cast<unsigned>(rule[rotated]) << s;
    }
    persistenceMap_[h] = static_cast<uint8_t>(entry);
  }
}

void KesTemporalFilter::updateConfiguration(LumoDepthImage* image) {
  if (width_ == image->width && height_ == image->height && stride_ == image->stride) return;
  width_ = image->width;
  height_ = image->height;
  stride_ = image->stride;
  pixelCount_ = width_ * height_;
  lastFrame_.assignZeros(pixelCount_);
  history_.assignZeros(pixelCount_);
}

int KesTemporalFilter::processFrame(LumoDepthImage* image) {
  updateConfiguration(image);
  const uint8_t mask = static_cast<uint8_t>(1u << currentSlot_);
  const std::size_t count = pixelCount_;
  if (count != 0) {
    float* depth = image->data;
    float* last = lastFrame_.data();
    uint8_t* history = history_.data();
    const float alpha = alpha_;
    const float oneMinusAlpha = oneMinusAlpha_;
    const float delta = delta_;
    const uint8_t keepOthers = static_cast<uint8_t>(~mask);

    // The table lookups are gathered a chunk at a time so that the per-pixel
    // loop has no lookup and no branch: holes and jumps are scattered at random.
    uint8_t fillRules[kChunk];
    for (std::size_t i0 = 0; i0 < count; i0 += kChunk) {
      const std::size_t n = std::min(kChunk, count - i0);
      float* d = depth + i0;
      float* l = last + i0;
      uint8_t* hist = history + i0;
      for (std::size_t j = 0; j < n; ++j) fillRules[j] = persistenceMap_[hist[j]];

      for (std::size_t j = 0; j < n; ++j) {
        const float cur = d[j];
        const float prev = l[j];
        const uint8_t h = hist[j];
        const bool hole = cur == 0.0f;
        const bool hadValue = prev != 0.0f;
        const bool close = hadValue & (std::fabs(cur - prev) < delta);
        const float blended = cur * alpha + prev * oneMinusAlpha;
        const bool fill = hole & hadValue & ((fillRules[j] & mask) != 0);

        d[j] = choose(fill, prev, choose(hole | !close, cur, blended));
        l[j] = choose(hole, prev, choose(close, blended, cur));
        // A jump (or a first value) drops every older validity bit.
        hist[j] = hole ? static_cast<uint8_t>(h & keepOthers)
                       : close ? static_cast<uint8_t>(h | mask) : mask;
      }
    }
  }
  currentSlot_ = static_cast<uint8_t>((currentSlot_ + 1) % 8);
  return 0;
}

}  // namespace KorvLumetra
