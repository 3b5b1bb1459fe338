#include "filters/VorSpatialFilter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "support/CaptureOutput.h"

namespace {

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
      for (const std::vector<float>& bad : {std::vector<float>{0.9f, 1.0f}, {0.9f, 1.0f, 3.0f, 4.0f}}) {
        int result = 0;  // refused, and nothing changes
        const std::string out = LumoTest::captureStdout([&] { result = filter.initFilter(bad); });
        EXPECT_TRUE(result == 1 && out.find("[ ERROR] initFilter(): init filter failed\n") != std::string::npos) << out;
      }
      LumoDepthImage image{0, 0, 0, uint32_t(w), uint32_t(h), 1, 0, 0, uint32_t(w * 4), uint32_t(w * h * 4), actual.data()};
      EXPECT_EQ(filter.processFrame(&image), 0);
      ASSERT_EQ(0, std::memcmp(actual.data(), expected.data(), w * h * sizeof(float)))
          << w << "x" << h << " alpha " << p.alpha << " radius " << p.radius;
    }
  }
}

}  // namespace
