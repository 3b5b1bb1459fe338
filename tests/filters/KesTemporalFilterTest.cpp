#include "filters/KesTemporalFilter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "support/CaptureOutput.h"

namespace {

// Written plainly from the filter's rules; the history is read in time order
// (k frames ago = slot - k) instead of through a rotated table.
class TemporalReference {
 public:
  void setAlpha(float a) { alpha_ = a, slot_ = 0; }
  void setDelta(float d) { delta_ = d, slot_ = 0; }
  void setPersistence(float p) { persistence_ = ((static_cast<int>(std::trunc(p)) % 256) + 256) % 256; }

  void process(std::vector<float>& depth, uint32_t w, uint32_t h, uint32_t stride) {
    if (w != w_ || h != h_ || stride != stride_) {
      w_ = w, h_ = h, stride_ = stride;
      last_.assign(size_t{w} * h, 0.0f);
      history_.assign(size_t{w} * h, 0);
    }
    const int mask = 1 << slot_;
    for (size_t i = 0; i < depth.size(); ++i) {
      const float cur = depth[i], last = last_[i];
      if (cur == 0.0f) {
        if (last != 0.0f && mayFill(history_[i])) depth[i] = last;
        history_[i] &= ~mask;
      } else if (last != 0.0f && std::fabs(cur - last) < delta_) {
        history_[i] |= mask;
        depth[i] = last_[i] = cur * alpha_ + last * (1.0f - alpha_);
      } else {
        last_[i] = cur;
        history_[i] = mask;
      }
    }
    slot_ = (slot_ + 1) % 8;
  }

 private:
  // Rule p (1 to 8): at least need[p] valid among the last frames[p] frames;
  // rule 0 and rules above 8 never fill.
  bool mayFill(int history) const {
    static const int frames[] = {0, 8, 3, 4, 8, 2, 5, 8, 0}, need[] = {1, 8, 2, 2, 2, 1, 1, 1, 0};
    if (persistence_ > 8) return false;
    int valid = 0;
    for (int k = 1; k <= frames[persistence_]; ++k) valid += (history >> ((slot_ + 8 - k) % 8)) & 1;
    return valid >= need[persistence_];
  }

  float alpha_ = 0.4f, delta_ = 20.0f;
  int persistence_ = 3, slot_ = 0;
  uint32_t w_ = 0, h_ = 0, stride_ = 0;
  std::vector<float> last_;
  std::vector<int> history_;
};

// Every persistence rule, truncation (8.9), modulo 256 (264, 300, -1).
TEST(KesTemporalFilter, MatchesPlainReferenceOverManyFrames) {
  unsigned seed = 1;
  for (float persistence : {0.0f, 1.0f, 2.0f, 3.0f, 4.0f, 5.0f, 6.0f, 7.0f, 8.0f, 9.0f, 8.9f, 300.0f, 264.0f, -1.0f}) {
    uint32_t w = 33, h = 17, stride = w * 4;
    KorvLumetra::KesTemporalFilter filter;  // persistence 3 runs on the defaults: 0.4, 20, 3
    TemporalReference ref;
    if (persistence != 3.0f) {
      ASSERT_EQ(filter.initFilter({0.35f, 10.0f, persistence}), 0);
      ref.setAlpha(0.35f), ref.setDelta(10.0f), ref.setPersistence(persistence);
    }
    // Pixels that drop in and out in runs, drift on a quarter grid (so changes
    // of exactly delta occur) and now and then jump by more than delta.
    std::mt19937 rng(seed++);
    std::vector<float> base(w * h);
    std::vector<bool> valid(w * h);
    for (size_t i = 0; i < base.size(); ++i) base[i] = 50.0f + 0.25f * (rng() % 400), valid[i] = rng() % 2;
    for (int frame = 0; frame < 64; ++frame) {
      if (frame == 15) {  // a wrong count fails and resets nothing
        for (const std::vector<float>& bad : {std::vector<float>{0.9f, 1.0f}, {0.9f, 1.0f, 0.0f, 4.0f}}) {
          int result = 0;
          const std::string out = LumoTest::captureStdout([&] { result = filter.initFilter(bad); });
          EXPECT_TRUE(result == 1 && out.find("[ ERROR] initFilter(): init filter failed\n") != std::string::npos) << out;
        }
      }
      if (frame == 20) {  // new parameters mid-stream keep each pixel's history
        ASSERT_EQ(filter.initFilter({0.7f, 8.0f, persistence}), 0);
        ref.setAlpha(0.7f), ref.setDelta(8.0f);
      }
      if (frame == 29) {  // the slot is not reset by this setter
        const unsigned next = seed * 3 % 10;
        filter.on_set_persistence_control(static_cast<uint8_t>(next));
        ref.setPersistence(static_cast<float>(next));
      }
      if (frame == 37) stride += 4;      // a stride change alone restarts every pixel
      if (frame == 50) std::swap(w, h);  // so does a new shape with the same pixel count
      std::vector<float> expected(w * h);
      for (size_t i = 0; i < expected.size(); ++i) {
        if (rng() % 4 == 0) valid[i] = !valid[i];
        if (rng() % 20 == 0) base[i] += 0.25f * (static_cast<int>(rng() % 321) - 160);
        expected[i] = valid[i] ? base[i] + 0.25f * (static_cast<int>(rng() % 81) - 40) : (rng() % 8 ? 0.0f : -0.0f);
      }
      std::vector<float> actual = expected;
      LumoDepthImage image{0, 0, 0, w, h, 1, 0, 0, stride, w * h * 4, actual.data()};
      EXPECT_EQ(filter.processFrame(&image), 0);
      ref.process(expected, w, h, stride);
      ASSERT_EQ(0, std::memcmp(actual.data(), expected.data(), expected.size() * sizeof(float)))
          << "persistence " << persistence << ", " << w << "x" << h << ", frame " << frame;
    }
  }
}

}  // namespace
