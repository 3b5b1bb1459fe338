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

std::vector<float> filtered(VorSpatialFilter& filter, std::vector<float> px, uint32_t width,
                            uint32_t height) {
  LumoDepthImage image{};
  image.width = width;
  image.height = height;
  image.channels = 1;
  image.stride = width * 4;
  image.size = width * height * 4;
  image.data = px.data();
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

// Sizes around the 16-row lanes and 32-column blocks, single rows and columns;
// iteration counts truncated (3.7) or zero, hole filling off and on.
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

TEST(VorSpatialFilter, InitFilterWithWrongCountChangesNothing) {
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
}

}  // namespace
