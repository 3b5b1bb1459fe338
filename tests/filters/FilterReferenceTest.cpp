// The spatial and temporal filters against plain references written from
// their rules, bit for bit.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "filters/KesTemporalFilter.h"
#include "filters/VorSpatialFilter.h"
#include "support/CaptureOutput.h"

namespace {

// A wrong parameter count is refused with one line, and changes nothing.
template <typename Filter>
void expectWrongCountsRefused(Filter& filter, float third) {
  for (const std::vector<float>& bad : {std::vector<float>{0.9f, 1.0f}, {0.9f, 1.0f, third, 4.0f}}) {
    int result = 0;
    const std::string out = LumoTest::captureStdout([&] { result = filter.initFilter(bad); });
    EXPECT_TRUE(result == 1 && out.find("[ ERROR] initFilter(): init filter failed\n") != std::string::npos) << out;
  }
}

// Reaches the hole-fill radius, which nothing in the library sets.
class HoleFillingSpatialFilter : public KorvLumetra::VorSpatialFilter {
 public:
  explicit HoleFillingSpatialFilter(uint8_t radius) { holeFillRadius_ = radius; }
};

struct SpatialParams {
  float alpha, delta, iterations;
  int radius;
};

// Written plainly from the filter's rules, one pixel at a time.
void referenceSpatial(std::vector<float>& img, size_t w, size_t h, const SpatialParams& p) {
  const float eps = 1.1920929e-7f, a = p.alpha;
  auto blend = [a](float c, float n) { return c * a + n * (1.0f - a); };
  auto hole = [&p](float& px, float& prev, int& counter) {
    if (p.radius != 0 && ++counter < p.radius) px = prev; else prev = px;
  };
  for (int it = 0; it < static_cast<int>(std::trunc(p.iterations)); ++it) {
    for (size_t v = 0; v < h && w >= 2; ++v) {
      float* row = &img[v * w];
      float prev = row[0];
      int counter = 0;
      for (size_t u = 1; u + 1 < w; ++u) {  // the last pixel is not visited
        if (std::fabs(prev) >= eps && std::fabs(row[u]) >= eps) {
          const float d = std::fabs(row[u] - prev);
          if (d >= eps && d <= p.delta) row[u] = blend(row[u], prev);
          prev = row[u], counter = 0;
        } else if (std::fabs(prev) >= eps) {
          hole(row[u], prev, counter);
        } else {
          prev = row[u];
        }
      }
      prev = row[w - 1], counter = 0;
      for (size_t u = w - 1; u-- > 0;) {  // signed validity tests this way
        if (prev >= eps && row[u] > eps) {
          if (std::fabs(prev - row[u]) <= p.delta) row[u] = blend(row[u], prev);
          prev = row[u], counter = 0;
        } else if (prev >= eps) {
          hole(row[u], prev, counter);
        } else {
          prev = row[u];
        }
      }
    }
    for (size_t i = w; i < w * h; ++i) {  // down: no validity test at all
      if (std::fabs(img[i - w] - img[i]) < p.delta) img[i] = (1.0f - a) * img[i - w] + a * img[i];
    }
    for (size_t i = w * h - w; i-- > 0;) {
      const float cur = img[i], below = img[i + w];
      if (std::fabs(cur) >= eps && std::fabs(below) >= eps && std::fabs(cur - below) < p.delta) {
        img[i] = blend(cur, below);
      }
    }
  }
}

// Surfaces on a quarter grid (so steps of exactly delta occur), steps on both
// sides of delta, holes, and tiny or negative values that tell the absolute
// validity tests from the signed ones.
std::vector<float> randomDepth(std::mt19937& rng, size_t w, size_t h) {
  std::uniform_real_distribution<float> unit(0.0f, 1.0f);
  std::uniform_int_distribution<int> quarter(-160, 160);
  const float odd[] = {1.1920929e-7f, -1.1920929e-7f, 5e-8f, -5e-8f, 2.5e-7f, -0.0f, -3.0f};
  std::vector<float> img(w * h);
  float level = 100.0f;
  for (float& px : img) {
    if (unit(rng) < 0.08f) level = 100.0f + 0.25f * quarter(rng);
    const float r = unit(rng);
    px = r < 0.2f ? 0.0f : r < 0.25f ? odd[rng() % 7] : level + 0.25f * (quarter(rng) / 16);
  }
  return img;
}

// Sizes around the 16-row lanes and 32-column blocks, single rows and columns;
// iterations truncated (3.7) or zero; hole filling off, at its boundary
// (radius 1 never fills) and on. A wrong parameter count changes nothing.
TEST(VorSpatialFilter, MatchesPlainReferenceBitForBit) {
  const size_t sizes[][2] = {{1, 1}, {1, 9}, {9, 1}, {2, 3}, {66, 17}, {131, 7}, {200, 33}};
  const SpatialParams params[] = {{0.5f, 20.0f, 2.0f, 0}, {0.77f, 5.0f, 3.7f, 0}, {0.5f, 20.0f, 0.0f, 0},
                                  {0.6f, 0.5f, 2.0f, 2},  {0.5f, 20.0f, 2.0f, 1}, {0.5f, 20.0f, 1.0f, 255}};
  std::mt19937 rng(20240611);
  for (const auto& size : sizes) {
    for (const SpatialParams& p : params) {
      const size_t w = size[0], h = size[1];
      std::vector<float> actual = randomDepth(rng, w, h), expected = actual;
      referenceSpatial(expected, w, h, p);
      HoleFillingSpatialFilter filter(static_cast<uint8_t>(p.radius));
      if (&p != &params[0]) {  // the first set is the constructor's defaults
        ASSERT_EQ(filter.initFilter({p.alpha, p.delta, p.iterations}), 0);
      }
      expectWrongCountsRefused(filter, 3.0f);
      LumoDepthImage image{0, 0, 0, uint32_t(w), uint32_t(h), 1, 0, 0, uint32_t(w * 4), uint32_t(w * h * 4), actual.data()};
      EXPECT_EQ(filter.processFrame(&image), 0);
      ASSERT_EQ(0, std::memcmp(actual.data(), expected.data(), w * h * sizeof(float)))
          << w << "x" << h << " alpha " << p.alpha << " radius " << p.radius;
    }
  }
}

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
      if (frame == 15) expectWrongCountsRefused(filter, 0.0f);  // resets nothing
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
