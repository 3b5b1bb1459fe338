#include "camera/LumoCam.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <ostream>
#include <random>
#include <string>
#include <vector>

namespace {

using KorvLumetra::LumoCam;

LumoIntrinsics makeIntrinsics(uint8_t model, const std::vector<float>& coeffs, float fx = 650.0f, float fy = 649.3f,
                              float cx = 367.2f, float cy = 248.4f) {
  LumoIntrinsics in{0, {}, 752, 480, fx, fy, cx, cy, {}, model, {}, {}};
  for (size_t i = 0; i < coeffs.size(); ++i) in.distortion_coeffs[i] = coeffs[i];
  return in;
}

// Realistic lenses: a EuRoC-like radtan, the same with k3, a wide rational lens, a mild fisheye.
const std::vector<float> kRadtan = {-0.28f, 0.07f, 2e-4f, -1e-4f};
const std::vector<float> kFive = {-0.28f, 0.07f, 2e-4f, -1e-4f, -0.01f};
const std::vector<float> kRational = {0.5f, -0.1f, 1e-4f, -2e-4f, 0.01f, 0.8f, -0.05f, 0.02f};
const std::vector<float> kEquidistant = {-0.01f, 0.05f, -0.08f, 0.04f};
constexpr float kEps = 1.1920929e-7f;

// Reference model from the formulas; each precision choice and iteration count shows in the sample.

// Radtan displacement: a in float, the whole tangential terms in double.
void refRadtan(const float* k, float x, float y, float d[2]) {
  const float r2 = x * x + y * y, a = k[0] * r2 + k[1] * r2 * r2;
  const double p1 = k[2], p2 = k[3], X = x, Y = y;
  d[0] = static_cast<float>(static_cast<double>(x * a) + 2 * p1 * X * Y + p2 * (2 * X * X + r2));
  d[1] = static_cast<float>(static_cast<double>(y * a) + 2 * p2 * X * Y + p1 * (2 * Y * Y + r2));
}

void refProject(const LumoIntrinsics& in, const float p[3], float uv[2]) {
  const float* k = in.distortion_coeffs;
  float x = p[0] / p[2], y = p[1] / p[2];
  const float r2 = x * x + y * y;
  const int m = in.distortion_model;
  if (m == 3 || m == 4) {
    const float num = 1 + k[0] * r2 + (k[1] * r2) * r2 + ((k[4] * r2) * r2) * r2;
    const float radial = m == 3 ? num : num / (1 + k[5] * r2 + (k[6] * r2) * r2 + ((k[7] * r2) * r2) * r2);
    const float nx = x * radial + 2 * k[2] * x * y + k[3] * (r2 + 2 * x * x);
    y = y * radial + k[2] * (r2 + 2 * y * y) + 2 * k[3] * x * y;
    x = nx;
  } else if (m == 2) {
    float d[2];
    refRadtan(k, x, y, d);
    x += d[0], y += d[1];
  } else if (m == 1) {
    // Below epsilon r and theta are clamped to it; atan(eps) rounds to eps.
    const float r = std::max(std::sqrt(r2), kEps), th = static_cast<float>(std::atan(static_cast<double>(r)));
    const float th2 = th * th, s = th * ((((k[3] * th2 + k[2]) * th2 + k[1]) * th2 + k[0]) * th2 + 1) / r;
    x *= s, y *= s;
  }
  uv[0] = in.fx * x + in.cx;
  uv[1] = in.fy * y + in.cy;
}

// Ten iterations of the five-coefficient (float) or rational (double) undistortion.
template <typename T>
void refIterate(const float* k, bool rational, float xd, float yd, float& x, float& y) {
  T K[8];
  for (int i = 0; i < 8; ++i) K[i] = k[i];
  for (int i = 0; i < 10; ++i) {
    const T X = x, Y = y, r2 = X * X + Y * Y;
    const T icd =
        (rational ? 1 + ((K[7] * r2 + K[6]) * r2 + K[5]) * r2 : T(1)) / (1 + ((K[4] * r2 + K[1]) * r2 + K[0]) * r2);
    x = static_cast<float>((xd - (2 * K[2] * X * Y + K[3] * (r2 + 2 * X * X))) * icd);
    y = static_cast<float>((yd - (K[2] * (r2 + 2 * Y * Y) + 2 * K[3] * X * Y)) * icd);
  }
}

void refDeproject(const LumoIntrinsics& in, const float uv[2], float depth, float p[3]) {
  const float* k = in.distortion_coeffs;
  // 1/f in double, the offset -c/f in float.
  const float xd = static_cast<float>(uv[0] * (1.0 / in.fx) + static_cast<double>(-in.cx / in.fx));
  const float yd = static_cast<float>(uv[1] * (1.0 / in.fy) + static_cast<double>(-in.cy / in.fy));
  float x = xd, y = yd;
  const int m = in.distortion_model;
  if (m == 2) {
    for (int i = 0; i < 8; ++i) {
      float d[2];
      refRadtan(k, x, y, d);
      x = xd - d[0], y = yd - d[1];
    }
  } else if (m == 3) {
    refIterate<float>(k, false, xd, yd, x, y);
  } else if (m == 4) {
    refIterate<double>(k, true, xd, yd, x, y);
  } else if (m == 1) {
    const float td = std::max(std::sqrt(xd * xd + yd * yd), kEps);
    float th = td, th2 = td * td;
    for (int step = 0; step < 4; ++step) {
      const float f = th * (1 + th2 * (k[0] + th2 * (k[1] + th2 * (k[2] + th2 * k[3])))) - td;
      if (std::fabs(f) < kEps) break;
      th -= f / (1 + th2 * (3 * k[0] + th2 * (5 * k[1] + th2 * (7 * k[2] + th2 * (9 * k[3])))));
      th2 = th * th;
    }
    const float s = static_cast<float>(std::tan(static_cast<double>(th))) / td;
    x = s * xd, y = s * yd;
  }
  p[0] = x * depth, p[1] = y * depth, p[2] = depth;
}

struct ModelCase {
  std::string name;
  uint8_t model;
  std::vector<float> coeffs;
  float focal;  // the fisheye gets a short one, so that theta_d nears pi/2
};

const std::vector<ModelCase> kModels = {
    {"None", 0, {}, 650.0f},
    {"Equidistant", 1, kEquidistant, 300.0f},
    {"Radtan", 2, kRadtan, 650.0f},
    {"FiveCoeff", 3, kFive, 650.0f},
    {"Rational", 4, kRational, 650.0f},
    {"Code7", 7, kRadtan, 650.0f},  // an unknown code: no distortion despite the lens
};

void PrintTo(const ModelCase& c, std::ostream* out) { *out << c.name; }

class LumoCamModels : public testing::TestWithParam<ModelCase> {};

// Every output bit agrees with the reference on 4000 random pixels (past the image edge too) and
// points; within 240 px of the principal point the fixed iterations also invert the projection.
TEST_P(LumoCamModels, BitExactAgainstReferenceAndInvertible) {
  const ModelCase& mc = GetParam();
  const LumoIntrinsics in = makeIntrinsics(mc.model, mc.coeffs, mc.focal, mc.focal - 0.7f);
  const LumoCam cam(in);
  std::mt19937 rng(20240611);
  std::uniform_real_distribution<float> u(-20.0f, 772.0f), v(-20.0f, 500.0f), xy(-0.8f, 0.8f), z(0.2f, 12.0f);
  int mismatches = 0;
  for (int i = 0; i < 4000; ++i) {
    const float pixel[2] = {u(rng), v(rng)}, depth = z(rng), point[3] = {xy(rng) * depth, xy(rng) * depth, depth};
    float got[3], want[3], back[2];
    cam.deprojectPixel2Point(got, pixel, depth);
    refDeproject(in, pixel, depth, want);
    mismatches += std::memcmp(got, want, sizeof got) != 0;
    cam.projectPoint2Pixel(back, got);
    if (std::hypot(pixel[0] - in.cx, pixel[1] - in.cy) < 240.0f) {
      EXPECT_NEAR(back[0], pixel[0], 1e-3f) << pixel[0] << "," << pixel[1];
      EXPECT_NEAR(back[1], pixel[1], 1e-3f) << pixel[0] << "," << pixel[1];
    }
    cam.projectPoint2Pixel(got, point);
    refProject(in, point, want);
    mismatches += std::memcmp(got, want, 2 * sizeof(float)) != 0;
  }
  EXPECT_EQ(mismatches, 0);
  // A point at Z = 0 gives non-finite pixels (0 / 0 and 0.3 / 0), without an exception.
  for (const float x : {0.0f, 0.3f}) {
    const float flat[3] = {x, -0.2f, 0.0f};
    float pixel[2] = {0.0f, 0.0f};
    EXPECT_NO_THROW(cam.projectPoint2Pixel(pixel, flat));
    EXPECT_FALSE(std::isfinite(pixel[0]) || std::isfinite(pixel[1])) << x;
  }
}

INSTANTIATE_TEST_SUITE_P(AllDistortionModels, LumoCamModels, testing::ValuesIn(kModels),
                         [](const testing::TestParamInfo<ModelCase>& info) { return info.param.name; });

TEST(LumoCam, EquidistantPrincipalPointIsClampedToThePrincipalRay) {
  // cx = fx / 2 and cy = fy / 2 make xd = yd = 0 exactly; unclamped, tan(0) / 0 would be NaN.
  float point[3];
  const float centre[2] = {320.0f, 240.0f};
  LumoCam(makeIntrinsics(1, kEquidistant, 640.0f, 480.0f, 320.0f, 240.0f)).deprojectPixel2Point(point, centre, 3.0f);
  EXPECT_EQ(std::vector<float>(point, point + 3), (std::vector<float>{0.0f, 0.0f, 3.0f}));
}

TEST(LumoCam, TransformAppliesRowMajorRotationThenTranslation) {
  // 90 degrees about Z: R (1, 2, 3) = (-2, 1, 3), plus t; column-major R would give (2.5, -2, 5).
  const LumoExtrinsics T = {{0, -1, 0, 1, 0, 0, 0, 0, 1}, {0.5f, -1.0f, 2.0f}};
  const float in[3] = {1.0f, 2.0f, 3.0f};
  float out[3];
  LumoCam::TransformPoint2Point(out, &T, in);
  EXPECT_EQ(std::vector<float>(out, out + 3), (std::vector<float>{-1.5f, 0.0f, 5.0f}));
}

}  // namespace
