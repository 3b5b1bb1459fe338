#include "camera/LumoCam.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using KorvLumetra::LumoCam;

LumoIntrinsics makeIntrinsics(uint8_t model, std::vector<float> coeffs, float fx = 650.0f,
                              float fy = 649.3f, float cx = 367.2f, float cy = 248.4f) {
  LumoIntrinsics in{};
  in.width = 752;
  in.height = 480;
  in.fx = fx;
  in.fy = fy;
  in.cx = cx;
  in.cy = cy;
  in.distortion_model = model;
  for (size_t i = 0; i < coeffs.size(); ++i) in.distortion_coeffs[i] = coeffs[i];
  return in;
}

// Realistic lenses: a EuRoC-like radtan, the same with k3, a wide rational
// lens and a mild fisheye.
const std::vector<float> kRadtan = {-0.28f, 0.07f, 2e-4f, -1e-4f};
const std::vector<float> kFive = {-0.28f, 0.07f, 2e-4f, -1e-4f, -0.01f};
const std::vector<float> kRational = {0.5f, -0.1f, 1e-4f, -2e-4f, 0.01f, 0.8f, -0.05f, 0.02f};
const std::vector<float> kEquidistant = {-0.01f, 0.05f, -0.08f, 0.04f};

// ---- Reference model, written plainly from the formulas -------------------
// Knobs break one precision or iteration choice so that the bit-exact test can
// be shown to notice such a slip.
struct Knobs {
  int radtanEvals = 8;
  int rationalIters = 10;
  int fiveIters = 10;
  int newtonSteps = 4;
  bool offsetInDouble = false;
  bool radtanAllFloat = false;
  bool rationalInFloat = false;
  bool atanInFloat = false;
};

void refRadtanDelta(const LumoIntrinsics& in, float x, float y, const Knobs& kn, float d[2]) {
  float k1 = in.distortion_coeffs[0], k2 = in.distortion_coeffs[1];
  double p1 = in.distortion_coeffs[2], p2 = in.distortion_coeffs[3];
  float r2 = x * x + y * y;
  float a = k1 * r2 + k2 * r2 * r2;
  if (kn.radtanAllFloat) {
    float fp1 = (float)p1, fp2 = (float)p2;
    d[0] = x * a + 2 * fp1 * x * y + fp2 * (2 * x * x + r2);
    d[1] = y * a + 2 * fp2 * x * y + fp1 * (2 * y * y + r2);
    return;
  }
  // The whole tangential terms are double, brackets included.
  double tx = 2 * (double)x * (double)x + (double)r2, ty = 2 * (double)y * (double)y + (double)r2;
  d[0] = (float)((double)(x * a) + 2 * p1 * (double)x * (double)y + p2 * tx);
  d[1] = (float)((double)(y * a) + 2 * p2 * (double)x * (double)y + p1 * ty);
}

void refProject(const LumoIntrinsics& in, const float p[3], float uv[2], const Knobs& kn = {}) {
  const float* k = in.distortion_coeffs;
  float x = p[0] / p[2], y = p[1] / p[2];
  float r2 = x * x + y * y;
  int m = in.distortion_model;
  if (m == 3 || m == 4) {
    float num = 1 + k[0] * r2 + (k[1] * r2) * r2 + ((k[4] * r2) * r2) * r2;
    float radial = m == 3 ? num : num / (1 + k[5] * r2 + (k[6] * r2) * r2 + ((k[7] * r2) * r2) * r2);
    float nx = x * radial + 2 * k[2] * x * y + k[3] * (r2 + 2 * x * x);
    float ny = y * radial + k[2] * (r2 + 2 * y * y) + 2 * k[3] * x * y;
    x = nx;
    y = ny;
  } else if (m == 2) {
    float d[2];
    refRadtanDelta(in, x, y, kn, d);
    x += d[0];
    y += d[1];
  } else if (m == 1) {
    float r = std::sqrt(r2), th = 1.1920929e-7f, th2 = 1.4210855e-14f;
    if (r < 1.1920929e-7f) {
      r = 1.1920929e-7f;
    } else {
      th = kn.atanInFloat ? atanf(r) : (float)atan((double)r);
      th2 = th * th;
    }
    float poly = k[3];
    for (int i = 2; i >= 0; --i) poly = poly * th2 + k[i];
    poly = poly * th2 + 1;
    float s = th * poly / r;
    x = s * x;
    y = s * y;
  }
  uv[0] = in.fx * x + in.cx;
  uv[1] = in.fy * y + in.cy;
}

void refDeproject(const LumoIntrinsics& in, const float uv[2], float depth, float p[3],
                  const Knobs& kn = {}) {
  const float* k = in.distortion_coeffs;
  double ox = kn.offsetInDouble ? -(double)in.cx / in.fx : (double)(-in.cx / in.fx);
  double oy = kn.offsetInDouble ? -(double)in.cy / in.fy : (double)(-in.cy / in.fy);
  float xd = (float)(uv[0] * (1.0 / in.fx) + ox), yd = (float)(uv[1] * (1.0 / in.fy) + oy);
  float x = xd, y = yd;
  int m = in.distortion_model;
  if (m == 2) {
    for (int i = 0; i < kn.radtanEvals; ++i) {
      float d[2];
      refRadtanDelta(in, x, y, kn, d);
      x = xd - d[0];
      y = yd - d[1];
    }
  } else if (m == 3 || (m == 4 && kn.rationalInFloat)) {
    int iters = m == 3 ? kn.fiveIters : kn.rationalIters;
    for (int i = 0; i < iters; ++i) {
      float r2 = x * x + y * y;
      float den = 1 + ((k[4] * r2 + k[1]) * r2 + k[0]) * r2;
      float icd = m == 3 ? 1 / den : (1 + ((k[7] * r2 + k[6]) * r2 + k[5]) * r2) / den;
      float dx = 2 * k[2] * x * y + k[3] * (r2 + 2 * x * x);
      float dy = k[2] * (r2 + 2 * y * y) + 2 * k[3] * x * y;
      x = (xd - dx) * icd;
      y = (yd - dy) * icd;
    }
  } else if (m == 4) {
    double K[8];
    for (int i = 0; i < 8; ++i) K[i] = k[i];
    for (int i = 0; i < kn.rationalIters; ++i) {
      double X = x, Y = y, r2 = X * X + Y * Y;
      double icd = (1 + ((K[7] * r2 + K[6]) * r2 + K[5]) * r2) /
                   (1 + ((K[4] * r2 + K[1]) * r2 + K[0]) * r2);
      double dx = 2 * K[2] * X * Y + K[3] * (r2 + 2 * X * X);
      double dy = K[2] * (r2 + 2 * Y * Y) + 2 * K[3] * X * Y;
      x = (float)((xd - dx) * icd);
      y = (float)((yd - dy) * icd);
    }
  } else if (m == 1) {
    float td = std::sqrt(xd * xd + yd * yd), th2;
    if (td < 1.1920929e-7f) {
      td = 1.1920929e-7f;
      th2 = 1.4210855e-14f;
    } else {
      th2 = td * td;
    }
    float th = td;
    for (int step = 0; step < kn.newtonSteps; ++step) {
      float f = th * (1 + th2 * (k[0] + th2 * (k[1] + th2 * (k[2] + th2 * k[3])))) - td;
      if (std::fabs(f) < 1.1920929e-7f) break;
      float df = 1 + th2 * (3 * k[0] + th2 * (5 * k[1] + th2 * (7 * k[2] + th2 * (9 * k[3]))));
      th -= f / df;
      th2 = th * th;
    }
    float s = (float)tan((double)th) / td;
    x = s * xd;
    y = s * yd;
  }
  p[0] = x * depth;
  p[1] = y * depth;
  p[2] = depth;
}

// ---- Random samples, shared by the bit-exact and the mutation tests --------

struct Sample {
  std::vector<float> pixels;  // u, v pairs over the whole image and a margin
  std::vector<float> points;  // X, Y, Z triples in front of the camera
};

const Sample& sample() {
  static const Sample s = [] {
    Sample out;
    std::mt19937 rng(20240611);
    std::uniform_real_distribution<float> u(-20.0f, 772.0f), v(-20.0f, 500.0f);
    std::uniform_real_distribution<float> xy(-0.8f, 0.8f), z(0.2f, 12.0f);
    for (int i = 0; i < 4000; ++i) {
      out.pixels.insert(out.pixels.end(), {u(rng), v(rng)});
      float depth = z(rng);
      out.points.insert(out.points.end(), {xy(rng) * depth, xy(rng) * depth, depth});
    }
    return out;
  }();
  return s;
}

uint32_t bits(float f) {
  uint32_t b;
  std::memcpy(&b, &f, sizeof b);
  return b;
}

// Number of output floats of the class that differ in any bit from the reference.
int countMismatches(const LumoIntrinsics& in, const Knobs& kn) {
  const LumoCam cam(in);
  const Sample& s = sample();
  int mismatches = 0;
  for (size_t i = 0; i < s.pixels.size() / 2; ++i) {
    float got[3], want[3];
    const float depth = s.points[3 * i + 2];
    cam.deprojectPixel2Point(got, &s.pixels[2 * i], depth);
    refDeproject(in, &s.pixels[2 * i], depth, want, kn);
    for (int j = 0; j < 3; ++j) mismatches += bits(got[j]) != bits(want[j]);
    cam.projectPoint2Pixel(got, &s.points[3 * i]);
    refProject(in, &s.points[3 * i], want, kn);
    for (int j = 0; j < 2; ++j) mismatches += bits(got[j]) != bits(want[j]);
  }
  return mismatches;
}

struct ModelCase {
  std::string name;
  uint8_t model;
  std::vector<float> coeffs;
  float focal;  // the fisheye gets a short one, so that theta_d nears pi/2
  // Round-trip residual left at the image corners by the fixed iteration
  // counts (the radtan fixed point contracts slowest there); within 240 px of
  // the principal point every model is held to kCentralTolerancePx.
  float cornerTolerancePx;
};
constexpr float kCentralTolerancePx = 1e-3f;

const std::vector<ModelCase> kModels = {
    {"None", 0, {}, 650.0f, 1e-3f},
    {"Equidistant", 1, kEquidistant, 300.0f, 1e-3f},
    {"Radtan", 2, kRadtan, 650.0f, 0.06f},
    {"FiveCoeff", 3, kFive, 650.0f, 3e-3f},
    {"Rational", 4, kRational, 650.0f, 1e-3f},
    {"Code7", 7, kRadtan, 650.0f, 1e-3f},  // an unknown code: no distortion despite the lens
};

LumoIntrinsics lensOf(const ModelCase& mc) {
  return makeIntrinsics(mc.model, mc.coeffs, mc.focal, mc.focal - 0.7f);
}

class LumoCamModels : public testing::TestWithParam<ModelCase> {};

// Deprojecting then projecting returns the pixel; the grid reaches the image
// corners, where the fixed-point radtan iteration converges slowest.
TEST_P(LumoCamModels, DeprojectThenProjectReturnsPixel) {
  const ModelCase& mc = GetParam();
  const LumoCam cam(lensOf(mc));
  for (float v = 0.0f; v <= 479.0f; v += 479.0f / 12) {
    for (float u = 0.0f; u <= 751.0f; u += 751.0f / 16) {
      const float pixel[2] = {u, v};
      float point[3], back[2];
      cam.deprojectPixel2Point(point, pixel, 2.5f);
      EXPECT_EQ(point[2], 2.5f);
      cam.projectPoint2Pixel(back, point);
      const bool central = std::hypot(u - 367.2f, v - 248.4f) < 240.0f;
      const float tolerance = central ? kCentralTolerancePx : mc.cornerTolerancePx;
      EXPECT_NEAR(back[0], u, tolerance) << "at (" << u << ", " << v << ")";
      EXPECT_NEAR(back[1], v, tolerance) << "at (" << u << ", " << v << ")";
    }
  }
}

// Every output bit agrees with the plain reference on 4000 random pixels and
// points; the image margin makes the iterations start from larger radii.
TEST_P(LumoCamModels, BitExactAgainstReference) {
  const ModelCase& mc = GetParam();
  EXPECT_EQ(countMismatches(lensOf(mc), Knobs{}), 0);
}

INSTANTIATE_TEST_SUITE_P(AllDistortionModels, LumoCamModels, testing::ValuesIn(kModels),
                         [](const testing::TestParamInfo<ModelCase>& info) {
                           return info.param.name;
                         });

// The sample is rich enough that one slip in an iteration count or a precision
// choice changes some output bits, so the bit-exact test above has teeth.
TEST(LumoCamReference, SlipsInPrecisionOrIterationsAreDetected) {
  struct Slip {
    const char* what;
    size_t lens;  // index into kModels
    void (*apply)(Knobs&);
  };
  const Slip slips[] = {
      {"7 radtan evaluations", 2, [](Knobs& k) { k.radtanEvals = 7; }},
      {"radtan displacement in float", 2, [](Knobs& k) { k.radtanAllFloat = true; }},
      {"9 five-coefficient iterations", 3, [](Knobs& k) { k.fiveIters = 9; }},
      {"rational iteration in float", 4, [](Knobs& k) { k.rationalInFloat = true; }},
      {"9 rational iterations", 4, [](Knobs& k) { k.rationalIters = 9; }},
      {"3 Newton steps", 1, [](Knobs& k) { k.newtonSteps = 3; }},
      {"equidistant atan in float", 1, [](Knobs& k) { k.atanInFloat = true; }},
      {"offset -cx/fx in double", 0, [](Knobs& k) { k.offsetInDouble = true; }},
  };
  for (const Slip& slip : slips) {
    Knobs knobs;
    slip.apply(knobs);
    EXPECT_GT(countMismatches(lensOf(kModels[slip.lens]), knobs), 0) << slip.what;
  }
}

TEST(LumoCam, EquidistantPrincipalPointIsClampedToThePrincipalRay) {
  // cx = fx / 2 and cy = fy / 2 make xd = yd = 0 exactly; an unclamped theta_d
  // would give tan(0) / 0 = NaN. Clamped, the scale tan(eps) / eps rounds to 1.
  const LumoCam exact(makeIntrinsics(1, kEquidistant, 640.0f, 480.0f, 320.0f, 240.0f));
  const float centre[2] = {320.0f, 240.0f};
  float point[3];
  exact.deprojectPixel2Point(point, centre, 3.0f);
  EXPECT_EQ(point[0], 0.0f);
  EXPECT_EQ(point[1], 0.0f);
  EXPECT_EQ(point[2], 3.0f);

  // With an awkward principal point xd, yd are tiny but non-zero; the result
  // must be exactly the pinhole one, (xd, yd) scaled by 1.
  LumoIntrinsics in = makeIntrinsics(1, kEquidistant);
  const float pixel[2] = {in.cx, in.cy};
  float fisheye[3], pinhole[3];
  LumoCam(in).deprojectPixel2Point(fisheye, pixel, 3.0f);
  in.distortion_model = 0;
  LumoCam(in).deprojectPixel2Point(pinhole, pixel, 3.0f);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(bits(fisheye[i]), bits(pinhole[i])) << i;
}

TEST(LumoCam, DistortGivesRadtanDisplacementOnly) {
  // Dyadic inputs keep every step exact, so the sums are done by hand:
  // x = 1/2, y = 1/4, r2 = 5/16, a = -1/4 * r2 + 1/16 * r2^2 = -295/4096.
  // dx = x a + 2 p1 x y + p2 (2x^2 + r2) = -0.0360107421875 + 0.03125 - 0.05078125
  // dy = y a + 2 p2 x y + p1 (2y^2 + r2) = -0.01800537109375 - 0.015625 + 0.0546875
  const std::vector<float> coeffs = {-0.25f, 0.0625f, 0.125f, -0.0625f, 0.5f, 0.5f, 0.5f, 0.5f};
  const float in[2] = {0.5f, 0.25f};
  float out[2];
  LumoCam(makeIntrinsics(2, coeffs)).distort(in, out);
  EXPECT_EQ(out[0], -0.0555419921875f);
  EXPECT_EQ(out[1], 0.02105712890625f);

  for (uint8_t model : {0, 1, 3, 4, 7}) {
    out[0] = out[1] = 99.0f;
    LumoCam(makeIntrinsics(model, coeffs)).distort(in, out);
    EXPECT_EQ(out[0], 0.0f) << int(model);
    EXPECT_EQ(out[1], 0.0f) << int(model);
  }
}

TEST(LumoCam, ZeroDepthProjectsToNonFinitePixels) {
  for (const ModelCase& mc : kModels) {
    const LumoCam cam(lensOf(mc));
    for (const float x : {0.0f, 0.3f}) {
      const float point[3] = {x, -0.2f, 0.0f};
      float pixel[2] = {0.0f, 0.0f};
      EXPECT_NO_THROW(cam.projectPoint2Pixel(pixel, point));
      EXPECT_FALSE(std::isfinite(pixel[0])) << mc.name << " x=" << x;
      EXPECT_FALSE(std::isfinite(pixel[1])) << mc.name << " x=" << x;
    }
  }
}

TEST(LumoCam, TransformAppliesRowMajorRotationThenTranslation) {
  // 90 degrees about Z, R = [0 -1 0; 1 0 0; 0 0 1], t = (0.5, -1, 2):
  // R (1, 2, 3) = (-2, 1, 3), plus t = (-1.5, 0, 5). Reading R column-major
  // would give (2.5, -2, 5).
  const LumoExtrinsics T = {{0, -1, 0, 1, 0, 0, 0, 0, 1}, {0.5f, -1.0f, 2.0f}};
  const float in[3] = {1.0f, 2.0f, 3.0f};
  float out[3];
  LumoCam::TransformPoint2Point(out, &T, in);
  EXPECT_EQ(out[0], -1.5f);
  EXPECT_EQ(out[1], 0.0f);
  EXPECT_EQ(out[2], 5.0f);
}

}  // namespace
