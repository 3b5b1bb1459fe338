#include "camera/LumoCam.h"

#include <limits>
#include <cmath>

namespace KorvLumetra {

namespace {

// Single-precision machine epsilon: a normalized radius below it is the
// principal ray, where the equidistant scale theta / r is 0 / 0.
constexpr float kEpsilon = std::numeric_limits<float>::epsilon();
constexpr float kEpsilonSquared = kEpsilon * kEpsilon;  // 2^-46, exactly

constexpr int kRadtanEvaluations = 8;
constexpr int kRationalIterations = 10;
constexpr int kFiveCoeffIterations = 10;
constexpr int kMaxNewtonSteps = 4;

}  // namespace

// The offsets are divided in float and then widened, unlike the inverse focal
// lengths: the reference tables were produced that way.
LumoCam::LumoCam(const LumoIntrinsics& intrinsics)
    : intrinsics(intrinsics),
      inv_fx(1.0 / static_cast<double>(intrinsics.fx)),
      offset_x(static_cast<double>(-intrinsics.cx / intrinsics.fx)),
      inv_fy(1.0 / static_cast<double>(intrinsics.fy)),
      offset_y(static_cast<double>(-intrinsics.cy / intrinsics.fy)) {}

void LumoCam::projectPoint2Pixel(float pixel[2], const float point[3]) const {
  const float* c = intrinsics.distortion_coeffs;
  float x = point[0] / point[2];
  float y = point[1] / point[2];
  const float r2 = x * x + y * y;

  switch (intrinsics.distortion_model) {
    case kFiveCoeff:
    case kRational: {
      // Powers of r2 are multiplied in left to right, as the formula reads.
      float radial = 1.0f + c[0] * r2 + c[1] * r2 * r2 + c[4] * r2 * r2 * r2;
      if (intrinsics.distortion_model == kRational) {
        radial = radial / (1.0f + c[5] * r2 + c[6] * r2 * r2 + c[7] * r2 * r2 * r2);
      }
      const float xDistorted = x * radial + 2.0f * c[2] * x * y + c[3] * (r2 + 2.0f * x * x);
      const float yDistorted = y * radial + c[2] * (r2 + 2.0f * y * y) + 2.0f * c[3] * x * y;
      x = xDistorted;
      y = yDistorted;
      break;
    }
    case kRadtan: {
      const float normalized[2] = {x, y};
      float delta[2];
      distort(normalized, delta);
      x = x + delta[0];
      y = y + delta[1];
      break;
    }
    case kEquidistant: {
      float r = std::sqrt(r2);
      float theta;
      float theta2;
      if (r < kEpsilon) {
        r = kEpsilon;
        theta = kEpsilon;
        theta2 = kEpsilonSquared;
      } else {
        theta = static_cast<float>(std::atan(static_cast<double>(r)));
        theta2 = theta * theta;
      }
      const float series = 1.0f + theta2 * (c[0] + theta2 * (c[1] + theta2 * (c[2] + theta2 * c[3])));
      const float scale = theta * series / r;
      x = scale * x;
      y = scale * y;
      break;
    }
    default:
      break;
  }

  pixel[0] = intrinsics.fx * x + intrinsics.cx;
  pixel[1] = intrinsics.fy * y + intrinsics.cy;
}

// a is single precision; p1 and p2 enter widened to double, so the tangential
// terms, their brackets included, and the sums are double, and each
// displacement is rounded once.
void LumoCam::distort(const float in[2], float out[2]) const {
  if (intrinsics.distortion_model != kRadtan) {
    out[0] = 0.0f;
    out[1] = 0.0f;
    return;
  }
  const float* c = intrinsics.distortion_coeffs;
  const double p1 = c[2];
  const double p2 = c[3];
  const float x = in[0];
  const float y = in[1];
  const float r2 = x * x + y * y;
  const float a = c[0] * r2 + c[1] * r2 * r2;
  out[0] = static_cast<float>(x * a + 2.0 * p1 * x * y + p2 * (2.0 * x * x + r2));
  out[1] = static_cast<float>(y * a + 2.0 * p2 * x * y + p1 * (2.0 * y * y + r2));
}

void LumoCam::deprojectPixel2Point(float point[3], const float pixel[2], float depth) const {
  const float* c = intrinsics.distortion_coeffs;
  const float xd = static_cast<float>(pixel[0] * inv_fx + offset_x);
  const float yd = static_cast<float>(pixel[1] * inv_fy + offset_y);
  float x = xd;
  float y = yd;

  switch (intrinsics.distortion_model) {
    case kRadtan: {
      // Fixed-point iteration: the undistorted point is the distorted one minus
      // the displacement at the current estimate.
      for (int i = 0; i < kRadtanEvaluations; ++i) {
        const float estimate[2] = {x, y};
        float delta[2];
        distort(estimate, delta);
        x = xd - delta[0];
        y = yd - delta[1];
      }
      break;
    }
    case kRational: {
      const double k1 = c[0], k2 = c[1], p1 = c[2], p2 = c[3];
      const double k3 = c[4], k4 = c[5], k5 = c[6], k6 = c[7];
      for (int i = 0; i < kRationalIterations; ++i) {
        const double xx = x;
        const double yy = y;
        const double r2 = xx * xx + yy * yy;
        const double icd = (1.0 + ((k6 * r2 + k5) * r2 + k4) * r2) /
                           (1.0 + ((k3 * r2 + k2) * r2 + k1) * r2);
        const double deltaX = 2.0 * p1 * xx * yy + p2 * (r2 + 2.0 * xx * xx);
        const double deltaY = p1 * (r2 + 2.0 * yy * yy) + 2.0 * p2 * xx * yy;
        x = static_cast<float>((xd - deltaX) * icd);
        y = static_cast<float>((yd - deltaY) * icd);
      }
      break;
    }
    case kFiveCoeff: {
      const float k1 = c[0], k2 = c[1], p1 = c[2], p2 = c[3], k3 = c[4];
#pragma GCC unroll 10
      for (int i = 0; i < kFiveCoeffIterations; ++i) {
        const float r2 = x * x + y * y;
        const float icd = 1.0f / (1.0f + ((k3 * r2 + k2) * r2 + k1) * r2);
        const float deltaX = 2.0f * p1 * x * y + p2 * (r2 + 2.0f * x * x);
        const float deltaY = p1 * (r2 + 2.0f * y * y) + 2.0f * p2 * x * y;
        x = (xd - deltaX) * icd;
        y = (yd - deltaY) * icd;
      }
      break;
    }
    case kEquidistant: {
      // Newton's method on theta(1 + k1 theta^2 + ... + k4 theta^8) = theta_d,
      // both polynomials by Horner's rule in theta^2.
      const float k1 = c[0], k2 = c[1], k3 = c[2], k4 = c[3];
      float thetaD = std::sqrt(xd * xd + yd * yd);
      float theta2;
      if (thetaD < kEpsilon) {
        thetaD = kEpsilon;
        theta2 = kEpsilonSquared;
      } else {
        theta2 = thetaD * thetaD;
      }
      float theta = thetaD;
      for (int i = 0; i < kMaxNewtonSteps; ++i) {
        const float f =
            theta * (1.0f + theta2 * (k1 + theta2 * (k2 + theta2 * (k3 + theta2 * k4)))) - thetaD;
        if (std::fabs(f) < kEpsilon) break;
        const float df = 1.0f + theta2 * (3.0f * k1 + theta2 * (5.0f * k2 +
                                          theta2 * (7.0f * k3 + theta2 * (9.0f * k4))));
        theta = theta - f / df;
        theta2 = theta * theta;
      }
      const float scale = static_cast<float>(std::tan(static_cast<double>(theta))) / thetaD;
      x = scale * xd;
      y = scale * yd;
      break;
    }
    default:
      break;
  }

  point[0] = x * depth;
  point[1] = y * depth;
  point[2] = depth;
}

void LumoCam::TransformPoint2Point(float out[3], const LumoExtrinsics* extrinsics,
                                   const float in[3]) {
  const float* R = extrinsics->rotation;
  const float* t = extrinsics->translation;
  for (int i = 0; i < 3; ++i) {
    out[i] = R[3 * i] * in[0] + R[3 * i + 1] * in[1] + R[3 * i + 2] * in[2] + t[i];
  }
}

}  // namespace KorvLumetra
