#include "filters/KesTemporalFilter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "support/CaptureOutput.h"

namespace {

using KorvLumetra::KesTemporalFilter;

std::vector<float> run(KesTemporalFilter& filter, std::vector<float> px, uint32_t width,
                       uint32_t height, uint32_t stride = 0) {
  LumoDepthImage image{};
  image.width = width;
  image.height = height;
  image.channels = 1;
  image.stride = stride != 0 ? stride : width * 4;
  image.size = width * height * 4;
  image.data = px.data();
  EXPECT_EQ(filter.processFrame(&image), 0);
  return px;
}

// Written plainly from the filter's rules; the history is read in time order
// (k frames ago = slot - k) instead of through a rotated table.
class TemporalReference {
 public:
  void setAlpha(float a) { alpha_ = a, slot_ = 0; }
  void setDelta(float d) { delta_ = d, slot_ = 0; }
  void setPersistence(float p) {
    persistence_ = ((static_cast<int>(std::trunc(p)) % 256) + 256) % 256;
  }

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
  bool mayFill(int history) const {
    int ago[9] = {}, total = 0;  // ago[k]: valid k frames ago; ago[8] is the current slot
    for (int k = 1; k <= 8; ++k) total += ago[k] = (history >> ((slot_ + 8 - k) % 8)) & 1;
    switch (persistence_) {
      case 1: return total == 8;
      case 2: return ago[1] + ago[2] + ago[3] >= 2;
      case 3: return ago[1] + ago[2] + ago[3] + ago[4] >= 2;
      case 4: return total >= 2;
      case 5: return ago[1] + ago[2] >= 1;
      case 6: return ago[1] + ago[2] + ago[3] + ago[4] + ago[5] >= 1;
      case 7: return total >= 1;
      case 8: return true;
      default: return false;
    }
  }

  float alpha_ = 0.4f, delta_ = 20.0f;
  int persistence_ = 3, slot_ = 0;
  uint32_t w_ = 0, h_ = 0, stride_ = 0;
  std::vector<float> last_;
  std::vector<int> history_;
};

// Pixels that drop in and out in runs, drift on a quarter grid (so changes of
// exactly delta occur) and now and then jump by more than delta.
class DepthStream {
 public:
  DepthStream(size_t pixels, unsigned seed) : rng_(seed), base_(pixels), valid_(pixels) {
    for (size_t i = 0; i < pixels; ++i) {
      base_[i] = 50.0f + 0.25f * (rng_() % 400);
      valid_[i] = rng_() % 2;
    }
  }
  std::vector<float> next() {
    std::vector<float> frame(base_.size());
    for (size_t i = 0; i < frame.size(); ++i) {
      if (rng_() % 4 == 0) valid_[i] = !valid_[i];
      if (rng_() % 20 == 0) base_[i] += 0.25f * (static_cast<int>(rng_() % 321) - 160);
      const float noise = 0.25f * (static_cast<int>(rng_() % 81) - 40);
      frame[i] = valid_[i] ? base_[i] + noise : (rng_() % 8 == 0 ? -0.0f : 0.0f);
    }
    return frame;
  }

 private:
  std::mt19937 rng_;
  std::vector<float> base_;
  std::vector<bool> valid_;
};

TEST(KesTemporalFilter, MatchesPlainReferenceOverManyFrames) {
  const float persistences[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 8.9f, 44, 300, 264, -1};
  const uint32_t sizes[][2] = {{1, 1}, {7, 1}, {1, 7}, {33, 17}};
  unsigned seed = 1;
  for (float persistence : persistences) {
    for (const auto& size : sizes) {
      uint32_t w = size[0], h = size[1], stride = w * 4;
      KesTemporalFilter filter;  // persistence 3 runs on the defaults: 0.4, 20, 3
      TemporalReference ref;
      if (persistence != 3.0f) {
        ASSERT_EQ(filter.initFilter({0.35f, 10.0f, persistence}), 0);
        ref.setAlpha(0.35f), ref.setDelta(10.0f), ref.setPersistence(persistence);
      }
      DepthStream stream(size_t{w} * h, seed++);
      for (int frame = 0; frame < 64; ++frame) {
        if (frame == 20) {  // new parameters mid-stream keep each pixel's history
          ASSERT_EQ(filter.initFilter({0.7f, 8.0f, persistence}), 0);
          ref.setAlpha(0.7f), ref.setDelta(8.0f);
        }
        if (frame == 29) {  // the slot is not reset by this setter
          const unsigned next = seed * 3 % 10;
          filter.on_set_persistence_control(static_cast<uint8_t>(next));
          ref.setPersistence(static_cast<float>(next));
        }
        if (frame == 37) stride += 4;    // a stride change alone restarts every pixel
        if (frame == 50) std::swap(w, h);  // so does a new shape with the same pixel count
        std::vector<float> expected = stream.next();
        const std::vector<float> actual = run(filter, expected, w, h, stride);
        ref.process(expected, w, h, stride);
        ASSERT_EQ(0, std::memcmp(actual.data(), expected.data(), expected.size() * sizeof(float)))
            << "persistence " << persistence << ", " << w << "x" << h << ", frame " << frame;
      }
    }
  }
}

TEST(KesTemporalFilter, InitFilterWithWrongCountChangesNothing) {
  KesTemporalFilter filter, twin;
  ASSERT_EQ(filter.initFilter({0.5f, 10.0f, 8.0f}), 0);
  ASSERT_EQ(twin.initFilter({0.5f, 10.0f, 8.0f}), 0);
  DepthStream stream(30, 5);
  std::vector<float> frame = stream.next();
  EXPECT_EQ(run(filter, frame, 6, 5), run(twin, frame, 6, 5));
  for (const std::vector<float>& bad : {std::vector<float>{0.9f, 1.0f}, {0.9f, 1.0f, 0.0f, 4.0f}}) {
    int result = 0;
    const std::string out = LumoTest::captureStdout([&] { result = filter.initFilter(bad); });
    EXPECT_EQ(result, 1);
    EXPECT_NE(out.find("[ ERROR] initFilter(): init filter failed\n"), std::string::npos) << out;
  }
  for (int i = 0; i < 10; ++i) {
    frame = stream.next();
    ASSERT_EQ(run(filter, frame, 6, 5), run(twin, frame, 6, 5)) << "frame " << i;
  }
}

}  // namespace
