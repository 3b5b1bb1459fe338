// Camera pairs and random inputs for the alignment tests and benchmarks.
#pragma once

#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <random>
#include <vector>

#include "align/AlignImage.h"
#include "lumetra_depth.h"

namespace LumoTest {

inline LumoIntrinsics camera(uint32_t width, uint32_t height, float fx, float fy, float cx, float cy,
                             uint8_t model = 0, std::initializer_list<float> coeffs = {}) {
  LumoIntrinsics in{0, {}, width, height, fx, fy, cx, cy, {}, model, {}, {}};
  int i = 0;
  for (float c : coeffs) in.distortion_coeffs[i++] = c;
  return in;
}

// Rotation by the axis-angle vector r (Rodrigues), then translation t.
inline LumoExtrinsics rigidTransform(double rx, double ry, double rz, float tx, float ty, float tz) {
  const double a = std::sqrt(rx * rx + ry * ry + rz * rz), c = std::cos(a), s = std::sin(a);
  const double k[3] = {a > 0 ? rx / a : 0, a > 0 ? ry / a : 0, a > 0 ? rz / a : 0};
  LumoExtrinsics e{{}, {tx, ty, tz}};
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j) {
      const double skew = i == j ? 0 : ((j - i + 3) % 3 == 1 ? -s : s) * k[3 - i - j];
      e.rotation[3 * i + j] = static_cast<float>((i == j ? c : 0) + skew + (1 - c) * k[i] * k[j]);
    }
  }
  return e;
}

struct AlignRig {
  const char* name;
  LumoIntrinsics depth;
  LumoIntrinsics other;
  LumoExtrinsics depthToOther;
};

// A rectified 640x400 depth camera and a 1920x1080 colour camera beside it.
inline AlignRig benchRig(bool colocated) {
  const float t = colocated ? 0.0f : 1.0f;
  return {colocated ? "colocated" : "offset", camera(640, 400, 452.7f, 452.7f, 318.4f, 203.1f),
          camera(1920, 1080, 1371.5f, 1369.8f, 957.3f, 545.6f, 2, {0.11f, -0.21f, 4e-4f, -3e-4f}),
          rigidTransform(0.004, -0.012, 0.002, -0.032f * t, 0.0011f * t, 0.0007f * t)};
}

// Depths in metres with holes (0) in about a fifth of the pixels.
inline std::vector<float> randomDepth(uint32_t width, uint32_t height, uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> depth(0.3f, 6.0f);
  std::vector<float> px(static_cast<size_t>(width) * height);
  for (float& d : px) d = rng() % 100 < 20 ? 0.0f : depth(rng);
  return px;
}

inline std::vector<uint8_t> randomBytes(size_t count, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint8_t> bytes(count);
  for (uint8_t& b : bytes) b = static_cast<uint8_t>(rng());
  return bytes;
}

inline LumoDepthImage wrapDepth(std::vector<float>& px, uint32_t width, uint32_t height, uint64_t timestamp = 0) {
  return {0, 0, timestamp, width, height, 1, 0, 0, width * 4, width * height * 4, px.data()};
}

inline LumoImage wrapImage(std::vector<uint8_t>& px, uint32_t width, uint32_t height, uint32_t channels,
                           uint16_t format) {
  return {0, 0, 0, width, height, channels, format, 0, width * channels, width * channels * height, px.data()};
}

}  // namespace LumoTest
