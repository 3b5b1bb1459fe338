// Camera pairs and random inputs for the alignment tests and benchmarks.
#pragma once

#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <random>
#include <vector>

#include "align/AlignImage.h"
#include "lumetra_depth.h"

namespace KorvLumetra {

// Reaches the plain single-threaded loops of the registration, which the
// tests compare the threaded ones against and the benchmark times.
class AlignImagePeer {
 public:
  static void setThreaded(AlignImage& align, bool threaded) { align.parallel_ = threaded; }
};

}  // namespace KorvLumetra

namespace LumoTest {

inline LumoIntrinsics pinholeIntrinsics(uint32_t width, uint32_t height, float fx, float fy, float cx, float cy) {
  LumoIntrinsics in{};
  in.width = width;
  in.height = height;
  in.fx = fx;
  in.fy = fy;
  in.cx = cx;
  in.cy = cy;
  return in;
}

inline LumoIntrinsics distorted(LumoIntrinsics in, uint8_t model, std::initializer_list<float> coeffs) {
  in.distortion_model = model;
  int i = 0;
  for (float c : coeffs) in.distortion_coeffs[i++] = c;
  return in;
}

// Rotation by the vector (rx, ry, rz) (axis times angle, radians), then t.
inline LumoExtrinsics rigidTransform(double rx, double ry, double rz, float tx, float ty, float tz) {
  const double angle = std::sqrt(rx * rx + ry * ry + rz * rz);
  const double k[3] = {angle > 0 ? rx / angle : 1.0, angle > 0 ? ry / angle : 0.0, angle > 0 ? rz / angle : 0.0};
  const double c = std::cos(angle), s = std::sin(angle);
  const double skew[3][3] = {{0, -k[2], k[1]}, {k[2], 0, -k[0]}, {-k[1], k[0], 0}};
  LumoExtrinsics e{};
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j) {
      e.rotation[3 * i + j] = static_cast<float>((i == j ? c : 0.0) + s * skew[i][j] + (1 - c) * k[i] * k[j]);
    }
  }
  e.translation[0] = tx;
  e.translation[1] = ty;
  e.translation[2] = tz;
  return e;
}

struct AlignRig {
  const char* name;
  LumoIntrinsics depth;
  LumoIntrinsics other;
  LumoExtrinsics depthToOther;
};

// A rectified 640x400 depth camera and a 1920x1080 colour camera beside it.
inline LumoIntrinsics benchDepthCamera() { return pinholeIntrinsics(640, 400, 452.7f, 452.7f, 318.4f, 203.1f); }
inline LumoIntrinsics benchColourCamera() {
  return distorted(pinholeIntrinsics(1920, 1080, 1371.5f, 1369.8f, 957.3f, 545.6f), 2, {0.11f, -0.21f, 4e-4f, -3e-4f});
}
inline AlignRig benchRig(bool colocated) {
  const float tx = colocated ? 0.0f : -0.032f;
  return {colocated ? "colocated" : "offset", benchDepthCamera(), benchColourCamera(),
          rigidTransform(0.004, -0.012, 0.002, tx, colocated ? 0.0f : 0.0011f, colocated ? 0.0f : 0.0007f)};
}

// Depths in metres with holes (0) in about a fifth of the pixels.
inline std::vector<float> randomDepth(uint32_t width, uint32_t height, uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> depth(0.3f, 6.0f);
  std::uniform_int_distribution<int> pick(0, 99);
  std::vector<float> px(static_cast<size_t>(width) * height);
  for (float& d : px) d = pick(rng) < 20 ? 0.0f : depth(rng);
  return px;
}

inline std::vector<uint8_t> randomBytes(size_t count, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint8_t> bytes(count);
  for (uint8_t& b : bytes) b = static_cast<uint8_t>(rng());
  return bytes;
}

inline LumoDepthImage wrapDepth(std::vector<float>& px, uint32_t width, uint32_t height, uint64_t timestamp = 0) {
  LumoDepthImage image{};
  image.timestamp = timestamp;
  image.width = width;
  image.height = height;
  image.channels = 1;
  image.stride = width * 4;
  image.size = width * height * 4;
  image.data = px.data();
  return image;
}

inline LumoImage wrapImage(std::vector<uint8_t>& px, uint32_t width, uint32_t height, uint32_t channels,
                           uint16_t format) {
  LumoImage image{};
  image.width = width;
  image.height = height;
  image.channels = channels;
  image.format = format;
  image.stride = width * channels;
  image.size = image.stride * height;
  image.data = px.data();
  return image;
}

}  // namespace LumoTest
