// The checks a camera chain passes before OpenCV and the depth table see it.
// Each returns why a value is unusable, in words for an error line, or an
// empty string when it is fine.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <Eigen/Core>

namespace KorvLumetra {

// [fx, fy, cx, cy]: four finite numbers, fx and fy above zero.
std::string intrinsicsProblem(const std::vector<double>& intrinsics);

// [width, height]: two integers above zero.
std::string resolutionProblem(const std::vector<int32_t>& resolution);

// The coefficient count the model can use (radtan 4 or 5, equidistant 4,
// cvbasic 4, 5, 8, 12 or 14; none for an unknown model), all finite.
std::string coefficientsProblem(int camModel, const std::vector<double>& coefficients);

// The remap tables of both stereo cameras are built by camera 0's model:
// equidistant tables take exactly 4 coefficients, the others 0, 4, 5, 8, 12 or 14.
std::string mapCoefficientsProblem(int camera0Model, std::size_t count);

// A rigid transform: finite, last row (0, 0, 0, 1), a rotation (orthonormal
// within 1e-3, no reflection) and, when `needsTranslation`, a translation
// that is not zero.
std::string rigidTransformProblem(const Eigen::Matrix4d& T, bool needsTranslation);

// "[a, b, c]" with %g numbers, for messages.
std::string listText(const std::vector<double>& values);

}  // namespace KorvLumetra
