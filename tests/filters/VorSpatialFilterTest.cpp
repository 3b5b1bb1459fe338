#include "filters/VorSpatialFilter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "support/CaptureOutput.h"

namespace {

using KorvLumetra::VorSpatialFilter;

// Reaches the hole-fill radius, which nothing in the library sets.
class HoleFillingSpatialFilter : public VorSpatialFilter {
 public:
  explicit HoleFillingSpatialFilter(uint8_t radius) { holeFillRadius_ = radius; }
};

LumoDepthImage wrap(std::vector<float>& px, uint32_t width, uint32_t height) {
  LumoDepthImage image{};
  image.width = width;
  image.height = height;
  image.channels = 1;
  image.stride = width * 4;
  image.size = width * height * 4;
  image.data = px.data();
  return image;
}

std::vector<float> filtered(VorSpatialFilter& filter, std::vector<float> px, uint32_t width,
                            uint32_t height) {
  LumoDepthImage image = wrap(px, width, height);
  EXPECT_EQ(filter.processFrame(&image), 0);
  return px;
}

struct SpatialParams {
  float alpha, delta, iterations;
  int radius;
};

// Written plainly from the filter's rules, one pixel at a time.
void referenceSpatial(std::vector<float>& img, size_t w, size_t h, const SpatialParams& p) {
  const float eps = 1.1920929e-7f;
  const float a = p.alpha;
  auto blend = [a](float c, float n) { return c * a + n * (1.0f - a); };
  auto hole = [&p](float& px, float& prev, int& counter) {
    counter += 1;
    if (p.radius != 0 && counter < p.radius)
      px = prev;
    else
      prev = px;
  };
  const int iterations = static_cast<int>(std::trunc(p.iterations));
  for (int it = 0; it < iterations; ++it) {
    for (size_t v = 0; v < h && w >= 2; ++v) {
      float* row = &img[v * w];
      float prev = row[0];
      int counter = 0;
      for (size_t u = 1; u <= w - 2; ++u) {
        if (std::fabs(prev) >= eps && std::fabs(row[u]) >= eps) {
          float d = std::fabs(row[u] - prev);
          if (d >= eps && d <= p.delta) row[u] = blend(row[u], prev);
          prev = row[u];
          counter = 0;
        } else if (std::fabs(prev) >= eps) {
          hole(row[u], prev, counter);
        } else {
          prev = row[u];
        }
      }
      prev = row[w - 1];
      counter = 0;
      for (long u = static_cast<long>(w) - 2; u >= 0; --u) {
        if (prev >= eps && row[u] > eps) {
          if (std::fabs(prev - row[u]) <= p.delta) row[u] = blend(row[u], prev);
          prev = row[u];
          counter = 0;
        } else if (prev >= eps) {
          hole(row[u], prev, counter);
        } else {
          prev = row[u];
        }
      }
    }
    if (h < 2) continue;
    for (size_t v = 1; v < h; ++v)
      for (size_t u = 0; u < w; ++u) {
        float up = img[(v - 1) * w + u], cur = img[v * w + u];
        if (std::fabs(up - cur) < p.delta) img[v * w + u] = (1.0f - a) * up + a * cur;
      }
    for (long v = static_cast<long>(h) - 2; v >= 0; --v)
      for (size_t u = 0; u < w; ++u) {
        float cur = img[v * w + u], below = img[(v + 1) * w + u];
        if (std::fabs(cur) >= eps && std::fabs(below) >= eps && std::fabs(cur - below) < p.delta)
          img[v * w + u] = blend(cur, below);
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
    if (r < 0.2f)
      px = 0.0f;
    else if (r < 0.25f)
      px = odd[rng() % 7];
    else
      px = level + 0.25f * (quarter(rng) / 16);
  }
  return img;
}

TEST(VorSpatialFilter, MatchesPlainReferenceBitForBit) {
  const size_t sizes[][2] = {{1, 1},  {1, 9},  {9, 1},  {2, 1},   {1, 2},   {2, 2},  {3, 5},
                             {17, 3}, {64, 8}, {65, 9}, {66, 17}, {131, 7}, {7, 64}, {200, 33}};
  const SpatialParams params[] = {{0.5f, 20.0f, 2.0f, 0},  {0.3f, 20.0f, 1.0f, 0},
                                  {0.77f, 5.0f, 3.7f, 0},  {0.5f, 20.0f, 0.0f, 0},
                                  {0.6f, 0.5f, 2.0f, 2},   {0.5f, 20.0f, 2.0f, 1},
                                  {0.45f, 30.0f, 2.0f, 5}, {0.5f, 20.0f, 1.0f, 255}};
  std::mt19937 rng(20240611);
  for (const auto& size : sizes) {
    for (const SpatialParams& p : params) {
      const size_t w = size[0], h = size[1];
      std::vector<float> input = randomDepth(rng, w, h);
      std::vector<float> expected = input;
      referenceSpatial(expected, w, h, p);

      HoleFillingSpatialFilter filter(static_cast<uint8_t>(p.radius));
      if (&p != &params[0]) {  // the first set is the constructor's defaults
        ASSERT_EQ(filter.initFilter({p.alpha, p.delta, p.iterations}), 0);
      }
      std::vector<float> actual = filtered(filter, input, w, h);
      ASSERT_EQ(0, std::memcmp(actual.data(), expected.data(), w * h * sizeof(float)))
          << w << "x" << h << " alpha " << p.alpha << " delta " << p.delta << " radius "
          << p.radius;
    }
  }
}

TEST(VorSpatialFilter, OneRowKeepsHolesAndNeverWritesTheLastPixel) {
  VorSpatialFilter filter;
  ASSERT_EQ(filter.initFilter({0.5f, 20.0f, 1.0f}), 0);
  // Left to right: 1.1 blends with 1.0; the hole cuts the chain; 1.2 is not
  // visited. Right to left: 1.2 seeds prev, the hole cuts it again, so 1.0
  // blends with the already smoothed middle pixel.
  std::vector<float> row = filtered(filter, {1.0f, 1.1f, 0.0f, 1.2f}, 4, 1);
  const float middle = 1.1f * 0.5f + 1.0f * 0.5f;
  EXPECT_EQ(row, (std::vector<float>{1.0f * 0.5f + middle * 0.5f, middle, 0.0f, 1.2f}));

  // Without a hole before it the last pixel would be blended if it were visited.
  row = filtered(filter, {1.0f, 2.0f, 3.0f}, 3, 1);
  EXPECT_EQ(row[2], 3.0f);
  EXPECT_NE(row[1], 2.0f);
}

TEST(VorSpatialFilter, DeltaIsInclusiveAlongRowsAndStrictAlongColumns) {
  VorSpatialFilter filter;
  ASSERT_EQ(filter.initFilter({0.5f, 20.0f, 1.0f}), 0);
  // Right to left only (width 2): |30 - 10| = 20 is smoothed to 20.
  EXPECT_EQ(filtered(filter, {10.0f, 30.0f}, 2, 1), (std::vector<float>{20.0f, 30.0f}));
  // Left to right: 30 -> 20. Right to left: 20 -> 25, then 10 -> 17.5.
  EXPECT_EQ(filtered(filter, {10.0f, 30.0f, 30.0f}, 3, 1),
            (std::vector<float>{17.5f, 25.0f, 30.0f}));
  // The same step down a column is kept in both directions.
  EXPECT_EQ(filtered(filter, {10.0f, 30.0f}, 1, 2), (std::vector<float>{10.0f, 30.0f}));

  // Steps of 30 between 2x2 blocks: nothing is smoothed in any direction.
  std::vector<float> blocks = {10, 10, 40, 40, 10, 10, 40, 40, 40, 40, 10, 10, 40, 40, 10, 10};
  EXPECT_EQ(filtered(filter, blocks, 4, 4), blocks);
}

TEST(VorSpatialFilter, TopToBottomBlendsIntoHoles) {
  VorSpatialFilter filter;
  ASSERT_EQ(filter.initFilter({0.5f, 20.0f, 1.0f}), 0);
  // Down: the hole becomes 0.5 * 5 + 0.5 * 0 = 2.5. Up: 5 * 0.5 + 2.5 * 0.5 = 3.75.
  EXPECT_EQ(filtered(filter, {5.0f, 0.0f}, 1, 2), (std::vector<float>{3.75f, 2.5f}));
  // Up never blends with a hole; down pulls the valid pixel toward zero.
  EXPECT_EQ(filtered(filter, {0.0f, 5.0f}, 1, 2), (std::vector<float>{0.0f, 2.5f}));
}

TEST(VorSpatialFilter, HoleFillRadiusFillsFewerPixelsThanTheRadius) {
  HoleFillingSpatialFilter filter(3);
  ASSERT_EQ(filter.initFilter({0.5f, 20.0f, 1.0f}), 0);
  // Left to right: 5 fills two holes (counter 1, 2 < 3) and stops at the third:
  //   5 5 5 0 0 7 8.  Right to left: 8 and 7 blend to 7.5, which fills the
  //   next two holes, then 5 -> 6.25, 5 -> 5.625, 5 -> 5.3125.
  EXPECT_EQ(filtered(filter, {5, 0, 0, 0, 0, 7, 8}, 7, 1),
            (std::vector<float>{5.3125f, 5.625f, 6.25f, 7.5f, 7.5f, 7.5f, 8.0f}));
}

TEST(VorSpatialFilter, InitFilterChecksCountAndZeroIterationsKeepTheImage) {
  std::mt19937 rng(7);
  const std::vector<float> input = randomDepth(rng, 23, 11);

  VorSpatialFilter filter, twin;
  ASSERT_EQ(filter.initFilter({0.3f, 6.0f, 1.0f}), 0);
  ASSERT_EQ(twin.initFilter({0.3f, 6.0f, 1.0f}), 0);
  for (const std::vector<float>& bad : {std::vector<float>{0.9f, 1.0f}, {0.9f, 1.0f, 3.0f, 4.0f}}) {
    int result = 0;
    const std::string out = LumoTest::captureStdout([&] { result = filter.initFilter(bad); });
    EXPECT_EQ(result, 1);
    EXPECT_NE(out.find("[ ERROR] initFilter(): init filter failed\n"), std::string::npos) << out;
  }
  EXPECT_EQ(filtered(filter, input, 23, 11), filtered(twin, input, 23, 11));
  EXPECT_NE(filtered(filter, input, 23, 11), input);

  ASSERT_EQ(filter.initFilter({0.3f, 6.0f, 0.9f}), 0);  // truncated to 0 rounds
  EXPECT_EQ(filtered(filter, input, 23, 11), input);
}

}  // namespace
