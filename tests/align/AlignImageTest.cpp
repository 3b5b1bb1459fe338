#include "align/AlignImage.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "align/AlignRigs.h"

namespace {

using KorvLumetra::AlignImage;
using KorvLumetra::AlignImagePeer;
using KorvLumetra::LumoCam;
using LumoTest::AlignRig;

// ---- Reference, written plainly from the registration rules ----------------

// c + 0.5 truncated toward zero, kept in float so that NaN fails every test.
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
  const float w = static_cast<float>(rig.other.width), h = static_cast<float>(rig.other.height);
  if (!(c[0] >= 0 && c[1] >= 0 && c[2] < w && c[3] < h && c[0] <= c[2] && c[1] <= c[3])) return false;
  for (int i = 0; i < 4; ++i) f[i] = static_cast<int>(c[i]);
  return true;
}

std::vector<float> refDepthToOther(const AlignRig& rig, const std::vector<float>& depth) {
  const int W = rig.depth.width, H = rig.depth.height, OW = rig.other.width, OH = rig.other.height;
  std::vector<float> out(static_cast<size_t>(OW) * OH, 0.0f);
  const float* t = rig.depthToOther.translation;
  const float* R = rig.depthToOther.rotation;
  if (static_cast<double>(t[0] * t[0] + t[1] * t[1] + t[2] * t[2]) < 1e-10) {
    const LumoCam depthCam(rig.depth), otherCam(rig.other);
    LumoExtrinsics inverse{};
    for (int i = 0; i < 9; ++i) inverse.rotation[i] = R[(i % 3) * 3 + i / 3];
    for (int y = 0; y < OH; ++y) {
      for (int x = 0; x < OW; ++x) {
        const float pixel[2] = {static_cast<float>(x), static_cast<float>(y)};
        float p[3], q[3], d[2];
        otherCam.deprojectPixel2Point(p, pixel, 1.0f);
        LumoCam::TransformPoint2Point(q, &inverse, p);
        depthCam.projectPoint2Pixel(d, q);
        unsigned col = 0, row = 0;
        float factor = 0.0f;
        if (d[0] >= 0 && d[0] < W && d[1] >= 0 && d[1] < H) {
          col = static_cast<unsigned>(d[0]);
          row = static_cast<unsigned>(d[1]);
          factor = static_cast<float>(R[6] * (d[0] * (1.0 / rig.depth.fx) + -rig.depth.cx / rig.depth.fx) +
                                      R[7] * (d[1] * (1.0 / rig.depth.fy) + -rig.depth.cy / rig.depth.fy) +
                                      static_cast<double>(R[8]));
        }
        out[y * OW + x] = depth[row * W + col] * factor;
      }
    }
    return out;
  }
  for (int v = 0; v < H; ++v) {
    for (int u = 0; u < W; ++u) {
      const float z = depth[v * W + u];
      int f[4];
      if (z == 0 || !refFootprint(rig, u, v, z, f)) continue;
      for (int y = f[1]; y <= f[3]; ++y) {
        for (int x = f[0]; x <= f[2]; ++x) {
          float& cell = out[y * OW + x];
          cell = cell == 0 ? z : (z < cell ? z : cell);
        }
      }
    }
  }
  return out;
}

std::vector<uint8_t> refOtherToDepth(const AlignRig& rig, const std::vector<float>& depth,
                                     const std::vector<uint8_t>& other, int bytes) {
  const int W = rig.depth.width, H = rig.depth.height, OW = rig.other.width;
  std::vector<uint8_t> out(static_cast<size_t>(W) * H * bytes, 0);
  for (int v = 0; v < H; ++v) {
    for (int u = 0; u < W; ++u) {
      int f[4];
      if (depth[v * W + u] == 0 || !refFootprint(rig, u, v, depth[v * W + u], f)) continue;
      for (int y = f[1]; y <= f[3]; ++y) {
        for (int x = f[0]; x <= f[2]; ++x) std::memcpy(&out[(v * W + u) * bytes], &other[(y * OW + x) * bytes], bytes);
      }
    }
  }
  return out;
}

// ---- Fixtures ---------------------------------------------------------------

// Random depth with holes, plus the odd values a matcher may leave behind.
std::vector<float> awkwardDepth(const AlignRig& rig, uint32_t seed) {
  std::vector<float> depth = LumoTest::randomDepth(rig.depth.width, rig.depth.height, seed);
  depth[3] = -1.5f;
  depth[4] = std::numeric_limits<float>::quiet_NaN();
  depth[5] = std::numeric_limits<float>::infinity();
  return depth;
}

std::vector<float> runDepthToOther(AlignImage& align, const AlignRig& rig, std::vector<float>& depth) {
  std::vector<float> outPx(static_cast<size_t>(rig.other.width) * rig.other.height, 9.0f);
  LumoDepthImage out = LumoTest::wrapDepth(outPx, rig.other.width, rig.other.height);
  LumoDepthImage in = LumoTest::wrapDepth(depth, rig.depth.width, rig.depth.height, 4242);
  LumoImage unused{};
  EXPECT_EQ(align.alignDepthToOther(out, in, unused), 0);
  EXPECT_EQ(out.width, rig.other.width);
  EXPECT_EQ(out.height, rig.other.height);
  EXPECT_EQ(out.size, rig.other.width * rig.other.height * 4);
  EXPECT_EQ(out.timestamp, 4242u);
  return outPx;
}

std::vector<uint8_t> runOtherToDepth(AlignImage& align, const AlignRig& rig, std::vector<float>& depth,
                                     std::vector<uint8_t>& other, uint16_t format) {
  const uint32_t channels = format == 2 ? 1 : 3;
  std::vector<uint8_t> outPx(static_cast<size_t>(rig.depth.width) * rig.depth.height * channels, 0xAB);
  LumoImage out{};
  out.data = outPx.data();
  LumoDepthImage in = LumoTest::wrapDepth(depth, rig.depth.width, rig.depth.height, 77);
  LumoImage source = LumoTest::wrapImage(other, rig.other.width, rig.other.height, channels, format);
  EXPECT_EQ(align.alignOtherToDepth(out, in, source), 0);
  EXPECT_EQ(out.size, outPx.size());
  EXPECT_EQ(out.timestamp, 77u);
  return outPx;
}

// Odd sizes; a radtan and a rational colour camera with a rotation and a
// translation (one behind a radtan depth camera), and a co-located pair.
std::vector<AlignRig> smallRigs() {
  const LumoIntrinsics depth = LumoTest::pinholeIntrinsics(97, 61, 70.3f, 70.1f, 48.2f, 29.7f);
  return {
      {"radtan", depth,
       LumoTest::distorted(LumoTest::pinholeIntrinsics(160, 123, 118.4f, 117.9f, 81.3f, 60.2f), 2,
                           {-0.21f, 0.05f, 3e-3f, -2e-3f}),
       LumoTest::rigidTransform(0.02, -0.03, 0.01, -0.05f, 0.004f, 0.01f)},
      {"rational", LumoTest::distorted(depth, 2, {0.08f, -0.02f, 1e-3f, 5e-4f}),
       LumoTest::distorted(LumoTest::pinholeIntrinsics(131, 90, 95.0f, 95.5f, 64.8f, 45.1f), 4,
                           {0.4f, -0.1f, 1e-3f, -2e-3f, 0.01f, 0.7f, -0.05f, 0.02f}),
       LumoTest::rigidTransform(-0.01, 0.04, -0.02, 0.03f, -0.01f, 0.002f)},
      {"colocated", depth,
       LumoTest::distorted(LumoTest::pinholeIntrinsics(150, 100, 110.0f, 110.5f, 74.6f, 50.3f), 2,
                           {-0.15f, 0.03f, 1e-3f, 1e-3f}),
       LumoTest::rigidTransform(0.01, 0.02, -0.015, 0.0f, 0.0f, 0.0f)},
  };
}

// ---- Tests ------------------------------------------------------------------

TEST(AlignImageTest, BothDirectionsMatchThePlainReference) {
  for (const AlignRig& rig : smallRigs()) {
    SCOPED_TRACE(rig.name);
    for (bool threaded : {false, true}) {
      AlignImage align;
      AlignImagePeer::setThreaded(align, threaded);
      align.setAlignInfo(rig.depth, rig.other, rig.depthToOther);
      std::vector<float> depth = awkwardDepth(rig, 11);
      const std::vector<float> expected = refDepthToOther(rig, depth);
      const std::vector<float> got = runDepthToOther(align, rig, depth);
      EXPECT_EQ(std::memcmp(got.data(), expected.data(), got.size() * 4), 0) << "depth to other, threaded " << threaded;

      for (uint16_t format : {0, 1, 2}) {
        const int bytes = format == 2 ? 1 : 3;
        std::vector<uint8_t> other = LumoTest::randomBytes(rig.other.width * rig.other.height * bytes, 5);
        const std::vector<uint8_t> want = refOtherToDepth(rig, depth, other, bytes);
        const std::vector<uint8_t> have = runOtherToDepth(align, rig, depth, other, format);
        EXPECT_EQ(have, want) << "format " << format << ", threaded " << threaded;
      }
    }
  }
}

// Full size, and a colour camera of lower resolution than depth, where many
// footprints from neighbouring rows fall on the same cells. The previous
// output is shorter than the new one, so part of the buffer is not zeroed.
TEST(AlignImageTest, ThreadedLoopsEqualThePlainOnes) {
  AlignRig coarse = LumoTest::benchRig(false);
  coarse.name = "coarse";
  coarse.other = LumoTest::distorted(LumoTest::pinholeIntrinsics(400, 260, 301.0f, 300.2f, 199.1f, 131.4f), 4,
                                     {0.3f, -0.1f, 1e-3f, -1e-3f, 0.01f, 0.5f, -0.04f, 0.01f});
  for (const AlignRig& rig : {LumoTest::benchRig(false), LumoTest::benchRig(true), coarse}) {
    SCOPED_TRACE(rig.name);
    std::vector<float> depth = awkwardDepth(rig, 23);
    std::vector<uint8_t> colour = LumoTest::randomBytes(rig.other.width * rig.other.height * 3, 6);
    std::vector<float> depthOut[2];
    std::vector<uint8_t> colourOut[2];
    for (int threaded = 0; threaded < 2; ++threaded) {
      AlignImage align;
      AlignImagePeer::setThreaded(align, threaded);
      align.setAlignInfo(rig.depth, rig.other, rig.depthToOther);
      depthOut[threaded].assign(static_cast<size_t>(rig.other.width) * rig.other.height, 9.0f);
      LumoDepthImage out = LumoTest::wrapDepth(depthOut[threaded], rig.other.width, rig.other.height / 2);
      LumoDepthImage in = LumoTest::wrapDepth(depth, rig.depth.width, rig.depth.height);
      LumoImage source = LumoTest::wrapImage(colour, rig.other.width, rig.other.height, 3, 0);
      align.alignDepthToOther(out, in, source);
      colourOut[threaded] = runOtherToDepth(align, rig, depth, colour, 0);
    }
    EXPECT_EQ(std::memcmp(depthOut[0].data(), depthOut[1].data(), depthOut[0].size() * 4), 0);
    EXPECT_EQ(colourOut[0], colourOut[1]);
  }
}

// fx = 256, cx = 128 and friends make every step exact: each other-camera
// pixel inside the depth grid looks up itself with factor 1.
TEST(AlignImageTest, ColocatedEqualCamerasReproduceDepth) {
  AlignRig rig{"identity", LumoTest::pinholeIntrinsics(40, 30, 256.0f, 256.0f, 128.0f, 64.0f), {},
               LumoTest::rigidTransform(0, 0, 0, 0, 0, 0)};
  rig.other = rig.depth;
  rig.other.width += 7;  // beyond the depth grid: no depth there
  rig.other.height += 3;
  AlignImage align;
  align.setAlignInfo(rig.depth, rig.other, rig.depthToOther);
  ASSERT_TRUE(align.fastMode());
  std::vector<float> depth = LumoTest::randomDepth(40, 30, 3);
  const std::vector<float> out = runDepthToOther(align, rig, depth);
  for (uint32_t y = 0; y < rig.other.height; ++y) {
    for (uint32_t x = 0; x < rig.other.width; ++x) {
      const float want = x < 40 && y < 30 ? depth[y * 40 + x] : 0.0f;
      ASSERT_EQ(out[y * rig.other.width + x], want) << x << "," << y;
    }
  }
}

TEST(AlignImageTest, TranslationThresholdIsTakenOnTheFloatSquares) {
  const LumoIntrinsics cam = LumoTest::pinholeIntrinsics(16, 12, 20.0f, 20.0f, 8.0f, 6.0f);
  auto fast = [&](float tx, float ty, float tz) {
    AlignImage align;
    align.setAlignInfo(cam, cam, LumoTest::rigidTransform(0, 0, 0, tx, ty, tz));
    return align.fastMode();
  };
  for (int axis = 0; axis < 3; ++axis) {
    float t[3] = {0, 0, 0};
    t[axis] = 1e-5f;  // squared in float: just below 1e-10
    EXPECT_TRUE(fast(t[0], t[1], t[2])) << axis;
    t[axis] = 1.1e-5f;
    EXPECT_FALSE(fast(t[0], t[1], t[2])) << axis;
  }
  // A second component too small for the float sum to be exact: summed in
  // float the square reaches 1e-10, summed in double it stays below.
  const float a = 1e-5f;
  const double wideA = a;
  float b = 1e-10f;
  while (b < 1e-8f && !(static_cast<double>(a * a + b * b) >= 1e-10 && wideA * wideA + double{b} * b < 1e-10)) {
    b *= 1.01f;
  }
  ASSERT_LT(b, 1e-8f) << "no such translation found";
  EXPECT_FALSE(fast(a, b, 0.0f));
}

// Two cameras with fx = 128 and the other shifted by tx along x. At depth z
// a corner moves by 128 tx / z pixels; with tx = 1e-4 that is below 0.02, so
// depth pixel (u, v) covers cells u..u+1 by v..v+1.
struct ShiftedPair {
  AlignRig rig;
  explicit ShiftedPair(float tx)
      : rig{"shifted", LumoTest::pinholeIntrinsics(8, 6, 128.0f, 128.0f, 3.5f, 2.5f), {},
            LumoTest::rigidTransform(0, 0, 0, tx, 0, 0)} {
    rig.other = rig.depth;
  }
  std::vector<float> depthToOther(std::vector<float> depth) {
    AlignImage align;
    align.setAlignInfo(rig.depth, rig.other, rig.depthToOther);
    EXPECT_FALSE(align.fastMode());
    return runDepthToOther(align, rig, depth);
  }
  float at(const std::vector<float>& out, int x, int y) const { return out[y * 8 + x]; }
};

TEST(AlignImageTest, FootprintsKeepTheNearerDepthRoundByTruncationAndDropWholeAtTheBorder) {
  ShiftedPair pair(1e-4f);
  std::vector<float> depth(48, 0.0f);
  depth[1 * 8 + 2] = 2.0f;  // then a nearer pixel to its right: shares column 3
  depth[1 * 8 + 3] = 1.5f;
  depth[3 * 8 + 2] = 1.0f;  // then a farther one: shares column 3 as well
  depth[3 * 8 + 3] = 3.0f;
  depth[4 * 8 + 7] = 1.0f;  // right column: footprint reaches column 8
  depth[5 * 8 + 0] = 1.0f;  // bottom row: footprint reaches row 6
  const std::vector<float> out = pair.depthToOther(depth);
  for (int y : {1, 2}) {
    EXPECT_EQ(pair.at(out, 2, y), 2.0f);
    EXPECT_EQ(pair.at(out, 3, y), 1.5f);
    EXPECT_EQ(pair.at(out, 4, y), 1.5f);
  }
  for (int y : {3, 4}) {
    EXPECT_EQ(pair.at(out, 3, y), 1.0f);
    EXPECT_EQ(pair.at(out, 4, y), 3.0f);
  }
  EXPECT_EQ(pair.at(out, 7, 4), 0.0f);
  EXPECT_EQ(pair.at(out, 7, 5), 0.0f);
  EXPECT_EQ(pair.at(out, 0, 5), 0.0f);
  EXPECT_EQ(pair.at(out, 1, 5), 0.0f);

  // A shift of -0.7 / z pixels: at z = 1 corner A of column 0 lands on -1.2,
  // which rounds to 0 (truncation, not floor) and is kept; at z = 0.5 it lands
  // on -1.9, which rounds to -1 and drops the pixel.
  ShiftedPair left(-0.7f / 128.0f);
  std::vector<float> edge(48, 0.0f);
  edge[0 * 8 + 0] = 1.0f;
  edge[3 * 8 + 0] = 0.5f;
  const std::vector<float> shifted = left.depthToOther(edge);
  EXPECT_EQ(left.at(shifted, 0, 0), 1.0f);
  EXPECT_EQ(left.at(shifted, 0, 1), 1.0f);
  EXPECT_EQ(left.at(shifted, 0, 3), 0.0f);
  EXPECT_EQ(left.at(shifted, 0, 4), 0.0f);
}

// Each depth pixel takes the bottom-right pixel (u + 1, v + 1) of its footprint.
TEST(AlignImageTest, OtherToDepthCopiesTheLastFootprintPixelByteByByte) {
  ShiftedPair pair(1e-4f);
  AlignImage align;
  align.setAlignInfo(pair.rig.depth, pair.rig.other, pair.rig.depthToOther);
  std::vector<float> depth(48, 1.0f);
  depth[2 * 8 + 3] = 0.0f;
  std::vector<uint8_t> grey(48);
  for (int i = 0; i < 48; ++i) grey[i] = static_cast<uint8_t>(100 + i);
  const std::vector<uint8_t> out = runOtherToDepth(align, pair.rig, depth, grey, 2);
  for (int v = 0; v < 6; ++v) {
    for (int u = 0; u < 8; ++u) {
      const bool inside = u < 7 && v < 5 && !(u == 3 && v == 2);
      EXPECT_EQ(out[v * 8 + u], inside ? grey[(v + 1) * 8 + u + 1] : 0) << u << "," << v;
    }
  }
}

TEST(AlignImageTest, UnsupportedFormatFailsAfterHeaderAndZeroing) {
  ShiftedPair pair(1e-4f);
  AlignImage align;
  align.setAlignInfo(pair.rig.depth, pair.rig.other, pair.rig.depthToOther);
  std::vector<float> depth(48, 1.0f);
  std::vector<uint8_t> other(48 * 3, 7), outPx(48 * 3 + 16, 0xAB);
  LumoImage out{};
  out.data = outPx.data();
  LumoDepthImage in = LumoTest::wrapDepth(depth, 8, 6, 31);
  LumoImage source = LumoTest::wrapImage(other, 8, 6, 3, 3);
  EXPECT_EQ(align.alignOtherToDepth(out, in, source), 1);
  EXPECT_EQ(std::vector<uint32_t>({out.width, out.height, out.channels, out.format, out.stride, out.size}),
            std::vector<uint32_t>({8, 6, 3, 3, 24, 144}));
  EXPECT_EQ(out.timestamp, 31u);
  EXPECT_EQ(std::vector<uint8_t>(outPx.begin(), outPx.begin() + 144), std::vector<uint8_t>(144, 0));
  EXPECT_EQ(outPx[144], 0xAB);  // zeroed up to the new size only
}

}  // namespace
