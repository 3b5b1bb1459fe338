#include "align/AlignImage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include <opencv2/core/utility.hpp>

#include "align/AlignRigs.h"

namespace {

using KorvLumetra::AlignImage;
using KorvLumetra::LumoCam;
using LumoTest::AlignRig;

// Reference, written plainly from the registration rules.

// c + 0.5 truncated toward zero, kept in float so that NaN fails every bound.
float refRound(float c) { return std::trunc(c + 0.5f); }

bool refFootprint(const AlignRig& rig, int u, int v, float z, int f[4]) {
  const LumoCam depthCam(rig.depth), otherCam(rig.other);
  float c[4];
  for (int k = 0; k < 2; ++k) {
    const float pixel[2] = {u + (k ? 0.5f : -0.5f), v + (k ? 0.5f : -0.5f)};
    float p[3], q[3], px[2];
    depthCam.deprojectPixel2Point(p, pixel, z);
    LumoCam::TransformPoint2Point(q, &rig.depthToOther, p);
    otherCam.projectPoint2Pixel(px, q);
    c[2 * k] = refRound(px[0]);
    c[2 * k + 1] = refRound(px[1]);
  }
  if (!(c[0] >= 0 && c[1] >= 0 && c[2] < rig.other.width && c[3] < rig.other.height && c[0] <= c[2] &&
        c[1] <= c[3])) {
    return false;
  }
  for (int i = 0; i < 4; ++i) f[i] = static_cast<int>(c[i]);
  return true;
}

// The output held 9.0 everywhere, of which the previous size (`zeroed` cells) is cleared first.
std::vector<float> refDepthToOther(const AlignRig& rig, const std::vector<float>& depth, size_t zeroed) {
  const int W = rig.depth.width, H = rig.depth.height, OW = rig.other.width, OH = rig.other.height;
  std::vector<float> out(static_cast<size_t>(OW) * OH, 9.0f);
  std::fill(out.begin(), out.begin() + zeroed, 0.0f);
  const float *t = rig.depthToOther.translation, *R = rig.depthToOther.rotation;
  if (static_cast<double>(t[0] * t[0] + t[1] * t[1] + t[2] * t[2]) < 1e-10) {
    const LumoCam depthCam(rig.depth), otherCam(rig.other);
    LumoExtrinsics inverse{};
    for (int i = 0; i < 9; ++i) inverse.rotation[i] = R[(i % 3) * 3 + i / 3];
    for (int i = 0; i < OW * OH; ++i) {
      const float pixel[2] = {static_cast<float>(i % OW), static_cast<float>(i / OW)};
      float p[3], q[3], d[2];
      otherCam.deprojectPixel2Point(p, pixel, 1.0f);
      LumoCam::TransformPoint2Point(q, &inverse, p);
      depthCam.projectPoint2Pixel(d, q);
      const bool inside = d[0] >= 0 && d[0] < W && d[1] >= 0 && d[1] < H;
      const double x = d[0] * (1.0 / rig.depth.fx) + -rig.depth.cx / rig.depth.fx;
      const double y = d[1] * (1.0 / rig.depth.fy) + -rig.depth.cy / rig.depth.fy;
      const float factor = inside ? static_cast<float>(R[6] * x + R[7] * y + static_cast<double>(R[8])) : 0.0f;
      out[i] = depth[inside ? static_cast<int>(d[1]) * W + static_cast<int>(d[0]) : 0] * factor;
    }
    return out;
  }
  for (int v = 0; v < H; ++v) {
    for (int u = 0; u < W; ++u) {
      const float z = depth[v * W + u];
      int f[4];
      if (z == 0 || !refFootprint(rig, u, v, z, f)) continue;
      for (int y = f[1]; y <= f[3]; ++y) {
        for (int x = f[0]; x <= f[2]; ++x) out[y * OW + x] = out[y * OW + x] == 0 ? z : std::min(z, out[y * OW + x]);
      }
    }
  }
  return out;
}

std::vector<uint8_t> refOtherToDepth(const AlignRig& rig, const std::vector<float>& depth,
                                     const std::vector<uint8_t>& other, int bytes) {
  const int W = rig.depth.width, H = rig.depth.height, OW = rig.other.width;
  std::vector<uint8_t> out(static_cast<size_t>(W) * H * bytes, 0);
  for (int i = 0; i < W * H; ++i) {
    int f[4];
    if (depth[i] == 0 || !refFootprint(rig, i % W, i / W, depth[i], f)) continue;
    for (int y = f[1]; y <= f[3]; ++y) {
      for (int x = f[0]; x <= f[2]; ++x) std::memcpy(&out[i * bytes], &other[(y * OW + x) * bytes], bytes);
    }
  }
  return out;
}

// Odd sizes: a radtan depth camera and a rational colour camera, with a
// rotation and a translation; a co-located pair; and a radtan colour camera
// coarser than depth, where footprints of neighbouring rows share cells
// across the threads' bands.
std::vector<AlignRig> rigs() {
  const LumoIntrinsics depth = LumoTest::camera(97, 61, 70.3f, 70.1f, 48.2f, 29.7f);
  return {
      {"rational", LumoTest::camera(97, 61, 70.3f, 70.1f, 48.2f, 29.7f, 2, {0.08f, -0.02f, 1e-3f, 5e-4f}),
       LumoTest::camera(131, 90, 95.0f, 95.5f, 64.8f, 45.1f, 4, {0.4f, -0.1f, 1e-3f, -2e-3f, 0.01f, 0.7f, -0.05f}),
       LumoTest::rigidTransform(-0.01, 0.04, -0.02, 0.03f, -0.01f, 0.002f)},
      {"colocated", depth, LumoTest::camera(150, 100, 110.0f, 110.5f, 74.6f, 50.3f, 2, {-0.15f, 0.03f, 1e-3f, 1e-3f}),
       LumoTest::rigidTransform(0.01, 0.02, -0.015, 0.0f, 0.0f, 0.0f)},
      {"coarse", depth, LumoTest::camera(61, 40, 45.0f, 44.9f, 30.2f, 19.6f, 2, {-0.21f, 0.05f, 3e-3f, -2e-3f}),
       LumoTest::rigidTransform(0.02, -0.03, 0.01, -0.05f, 0.004f, 0.01f)},
  };
}

TEST(AlignImageTest, BothDirectionsMatchThePlainReference) {
  for (const AlignRig& rig : rigs()) {
    SCOPED_TRACE(rig.name);
    const uint32_t W = rig.depth.width, H = rig.depth.height, OW = rig.other.width, OH = rig.other.height;
    std::vector<float> depth = LumoTest::randomDepth(W, H, 11);
    depth[3] = -1.5f;  // values a matcher may leave behind
    depth[4] = std::numeric_limits<float>::quiet_NaN();
    depth[5] = std::numeric_limits<float>::infinity();
    const LumoDepthImage in = LumoTest::wrapDepth(depth, W, H, 4242);
    const std::vector<float> expected = refDepthToOther(rig, depth, OW * (OH / 2));
    // The result does not depend on how rows are split. ThreadSanitizer's
    // build holds OpenCV serial (its pool is not instrumented) and keeps it so.
#if defined(__SANITIZE_THREAD__)
    const std::vector<int> counts = {1};
#else
    const std::vector<int> counts = {1, 4};
#endif
    for (int threads : counts) {
      if (counts.size() > 1) cv::setNumThreads(threads);
      AlignImage align;
      align.setAlignInfo(rig.depth, rig.other, rig.depthToOther);
      std::vector<float> got(OW * OH, 9.0f);
      LumoDepthImage out = LumoTest::wrapDepth(got, OW, OH / 2);  // the previous output was shorter
      EXPECT_EQ(align.alignDepthToOther(out, in, LumoImage{}), 0);
      EXPECT_EQ(std::vector<uint64_t>({out.width, out.height, out.size, out.timestamp}),
                std::vector<uint64_t>({OW, OH, OW * OH * 4, 4242}));
      EXPECT_EQ(std::memcmp(got.data(), expected.data(), got.size() * 4), 0) << threads << " threads";

      for (uint16_t format : {0, 1, 2}) {
        const uint32_t bytes = format == 2 ? 1 : 3;
        std::vector<uint8_t> other = LumoTest::randomBytes(OW * OH * bytes, 5), have(W * H * bytes, 0xAB);
        LumoImage dst{};
        dst.data = have.data();
        EXPECT_EQ(align.alignOtherToDepth(dst, in, LumoTest::wrapImage(other, OW, OH, bytes, format)), 0);
        EXPECT_EQ(dst.size, have.size());
        EXPECT_EQ(dst.timestamp, 4242u);
        EXPECT_EQ(have, refOtherToDepth(rig, depth, other, bytes)) << "format " << format << " threads " << threads;
      }
    }
    if (counts.size() > 1) cv::setNumThreads(-1);
  }
}

// Co-located cameras take the table; the reference test checks its values.
TEST(AlignImageTest, TranslationThresholdIsTakenOnTheFloatSquares) {
  const LumoIntrinsics cam = LumoTest::camera(16, 12, 20.0f, 20.0f, 8.0f, 6.0f);
  // Squared and summed in float: 1e-5 squares to just below 1e-10.
  const auto fast = [&](float tx, float ty, float tz) {
    AlignImage a;
    a.setAlignInfo(cam, cam, LumoTest::rigidTransform(0, 0, 0, tx, ty, tz));
    return a.fastMode();
  };
  for (int axis = 0; axis < 3; ++axis) {
    for (float value : {1e-5f, 1.1e-5f}) {
      float t[3] = {0, 0, 0};
      t[axis] = value;
      EXPECT_EQ(fast(t[0], t[1], t[2]), value == 1e-5f) << axis << " " << value;
    }
  }
  // A second component whose float sum reaches 1e-10 while the double sum stays below.
  const float a = 1e-5f;
  float b = 1e-10f;
  while (b < 1e-8f && !(static_cast<double>(a * a + b * b) >= 1e-10 && double{a} * a + double{b} * b < 1e-10)) {
    b *= 1.01f;
  }
  ASSERT_LT(b, 1e-8f) << "no such translation found";
  EXPECT_FALSE(fast(a, b, 0.0f));
}

TEST(AlignImageTest, UnsupportedFormatFailsAfterHeaderAndZeroing) {
  const LumoIntrinsics cam = LumoTest::camera(8, 6, 128.0f, 128.0f, 3.5f, 2.5f);
  AlignImage align;
  align.setAlignInfo(cam, cam, LumoTest::rigidTransform(0, 0, 0, 1e-4f, 0, 0));
  std::vector<float> depth(48, 1.0f);
  std::vector<uint8_t> other(48 * 3, 7), outPx(48 * 3 + 16, 0xAB);
  LumoImage out{};
  out.data = outPx.data();
  const LumoImage source = LumoTest::wrapImage(other, 8, 6, 3, 3);
  EXPECT_EQ(align.alignOtherToDepth(out, LumoTest::wrapDepth(depth, 8, 6, 31), source), 1);
  EXPECT_EQ(std::vector<uint64_t>({out.width, out.height, out.channels, out.format, out.stride, out.size}),
            std::vector<uint64_t>({8, 6, 3, 3, 24, 144}));
  EXPECT_EQ(out.timestamp, 31u);
  EXPECT_EQ(std::vector<uint8_t>(outPx.begin(), outPx.begin() + 144), std::vector<uint8_t>(144, 0));
  EXPECT_EQ(outPx[144], 0xAB);  // zeroed up to the new size only
}

}  // namespace
