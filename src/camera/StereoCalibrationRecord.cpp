// StereoCalibration: the import of the tracker's calibration record.
#include <limits>
#include <cmath>
#include <cstdarg>
#include <cstdio>

#include "camera/CalibrationChecks.h"
#include "camera/StereoCalibration.h"

namespace KorvLumetra {

namespace {

constexpr float kFloatEpsilon = std::numeric_limits<float>::epsilon();
constexpr uint32_t kMaxRecordCameras = 3;
constexpr const char* kFunction = "initCameraFromCalib";

void appendf(std::string* text, const char* format, ...) __attribute__((format(printf, 2, 3)));
void appendf(std::string* text, const char* format, ...) {
  char buffer[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(buffer, sizeof(buffer), format, args);
  va_end(args);
  *text += buffer;
}

// A text printed by puts: a line end follows.
void appendLine(std::string* text, const char* line) {
  *text += line;
  *text += '\n';
}

const char* maskText(uint8_t mask, int bit) { return (mask >> bit) & 1 ? "Valid" : "Invalid"; }

std::string recordText(const LumoCalibrationParam& calib) {
  std::string s;
  appendLine(&s, "[Camera Chain]");
  appendf(&s, "Number of cameras: %u\n", calib.num_cameras);
  appendf(&s, "Downsize ratio:    %u\n\n", calib.downsize_ratio);
  appendLine(&s, "[IMU Parameters]");
  appendf(&s, "Accel noise density:  %.16lf\n", calib.accel_noise_density);
  appendf(&s, "Accel random walk:    %.16lf\n", calib.accel_random_walk);
  appendf(&s, "Gyro noise density:   %.16lf\n", calib.gyro_noise_density);
  appendf(&s, "Gyro random walk:     %.16lf\n", calib.gyro_random_walk);
  appendf(&s, "IMU update rate:      %.6f Hz\n\n", calib.imu_update_rate);
  // The record has room for three cameras; a larger count is not read past it.
  const uint32_t count = calib.num_cameras < kMaxRecordCameras ? calib.num_cameras : kMaxRecordCameras;
  for (uint32_t i = 0; i < count; ++i) {
    const LumoCameraCalib& cam = calib.cameras[i];
    const LumoIntrinsics& in = cam.intrinsics;
    appendLine(&s, "========================================");
    appendf(&s, "            Camera %d Parameters            \n", cam.camera_id);
    appendf(&s, "========================================\n");
    appendLine(&s, "[Basic Info]");
    appendf(&s, "Camera ID:          %d\n", cam.camera_id);
    appendf(&s, "Available mask:     0x%02x\n", cam.available_mask);
    appendLine(&s, "Mask legend:");
    appendf(&s, "  Bit0(0x01): Intrinsics  = %s\n", maskText(cam.available_mask, 0));
    appendf(&s, "  Bit1(0x02): T_cn_cnm1   = %s\n", maskText(cam.available_mask, 1));
    appendf(&s, "  Bit2(0x04): T_cn_imu    = %s\n", maskText(cam.available_mask, 2));
    appendf(&s, "  Bit3(0x08): Timeshift   = %s\n", maskText(cam.available_mask, 3));
    appendf(&s, "Cam-IMU time shift: %.16lf s (t_imu - t_cam)\n\n", cam.timeshift);
    appendLine(&s, "[Intrinsics]");
    appendf(&s, "Camera model:   %d\n", in.camera_model);
    appendf(&s, "Resolution:     %u x %u\n", in.width, in.height);
    appendLine(&s, "Intrinsic matrix:");
    appendf(&s, "  fx: %.16f   fy: %.16f\n", in.fx, in.fy);
    appendf(&s, "  cx: %.16f   cy: %.16f\n", in.cx, in.cy);
    appendf(&s, "Intrinsic extra: [%.6f, %.6f, %.6f, %.6f]\n\n", in.extra[0], in.extra[1], in.extra[2], in.extra[3]);
    appendLine(&s, "[Distortion]");
    appendf(&s, "Distortion model: %d\n", in.distortion_model);
    appendLine(&s, "Distortion coeffs (8):");
    const float* k = in.distortion_coeffs;
    appendf(&s, "  [%.16f, %.16f, %.16f, %.16f, %.6f, %.6f, %.6f, %.6f]\n\n", k[0], k[1], k[2], k[3], k[4], k[5], k[6],
            k[7]);
    const LumoExtrinsics* transforms[2] = {&cam.T_cn_imu, &cam.T_cn_cnm1};
    const char* titles[2] = {"[Extrinsics T_cn_imu (IMU \u2192 Camera)]", "[Extrinsics T_cn_cnm1 (Prev Cam \u2192 Cam)]"};
    for (int t = 0; t < 2; ++t) {
      const float* r = transforms[t]->rotation;
      const float* p = transforms[t]->translation;
      appendLine(&s, titles[t]);
      appendLine(&s, "Rotation matrix (3x3 row-major):");
      for (int row = 0; row < 3; ++row) {
        appendf(&s, "  [%.16f, %.16f, %.16f]\n", r[3 * row], r[3 * row + 1], r[3 * row + 2]);
      }
      appendf(&s, "Translation vector: [%.16f, %.16f, %.16f]\n\n", p[0], p[1], p[2]);
    }
  }
  appendLine(&s, "========================================");
  return s;
}

// Why a camera of the record cannot be used, or empty.
std::string cameraProblem(const LumoIntrinsics& in) {
  if (in.width == 0 || in.height == 0) {
    return "resolution " + std::to_string(in.width) + "x" + std::to_string(in.height) + " must be above zero";
  }
  std::string problem = intrinsicsProblem({in.fx, in.fy, in.cx, in.cy});
  if (!problem.empty()) return problem;
  const int n = recordCoefficientCount(in.distortion_model);
  for (int j = 0; j < n; ++j) {
    if (!std::isfinite(in.distortion_coeffs[j])) return "a distortion coefficient is not finite";
  }
  return std::string();
}

}  // namespace

ImportStatus StereoCalibration::importRecord(const LumoCalibrationParam& calib, const Setup& setup,
                                             CalibrationReport& report) {
  report.print(recordText(calib));
  clearChain();

  uint32_t count = calib.num_cameras < kMaxRecordCameras ? calib.num_cameras : kMaxRecordCameras;
  if (count > setup.inputSizes.size()) count = static_cast<uint32_t>(setup.inputSizes.size());
  for (uint32_t i = 0; i < count; ++i) {
    const LumoCameraCalib& cam = calib.cameras[i];
    const LumoIntrinsics& in = cam.intrinsics;
    std::string problem = cameraProblem(in);
    if (!problem.empty()) {
      report.error(kFunction, "camera " + std::to_string(i) + ": " + problem);
      return ImportStatus::refused();
    }
    const float sw = static_cast<float>(setup.inputSizes[i].width) / static_cast<float>(in.width);
    const float sh = static_cast<float>(setup.inputSizes[i].height) / static_cast<float>(in.height);
    if (std::fabs(sw - sh) > kFloatEpsilon) {
      report.error(kFunction, "stereo depth inputs only support scale_w == scale_h, exiting");
      return ImportStatus::fatal(-1);
    }

    // The principal point is scaled directly, without a half-pixel correction;
    // the products are formed in single precision, as the record holds floats.
    const cv::Mat kInput = (cv::Mat_<double>(3, 3) << in.fx * sw, 0.0, in.cx * sw,  //
                            0.0, in.fy * sh, in.cy * sh,                            //
                            0.0, 0.0, 1.0);
    const int n = recordCoefficientCount(in.distortion_model);
    cv::Mat D(n, 1, CV_64F);
    for (int j = 0; j < n; ++j) D.at<double>(j) = in.distortion_coeffs[j];
    appendCamera(D, kInput, camModelFromRecord(in.distortion_model), setup);

    // The mask is not consulted: camera 0's transform has no meaning, the others are taken.
    if (i >= 1) {
      const LumoExtrinsics& e = cam.T_cn_cnm1;
      Eigen::Matrix4d T = Eigen::Matrix4d::Identity();
      for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) T(r, c) = e.rotation[3 * r + c];
        T(r, 3) = e.translation[r];
      }
      problem = rigidTransformProblem(T, true);
      if (!problem.empty()) {
        report.error(kFunction, "camera " + std::to_string(i) + ": T_cn_cnm1 " + problem);
        return ImportStatus::refused();
      }
      camT_.push_back(T);
      if (i == 1) {
        const float* t = e.translation;
        baseline_ = std::sqrt(t[0] * t[0] + t[1] * t[1] + t[2] * t[2]);
      }
    }
    if (static_cast<int>(i) == setup.depthCamIndex) {
      const ImportStatus table = buildDepthTable(setup, report);
      if (!table.isOk()) return table;
    }
  }

  if (camT_.empty()) {
    report.error(kFunction, "initCameraFromCalib: no extrinsics found");
    return ImportStatus::refused();
  }
  return ImportStatus::ok();
}

}  // namespace KorvLumetra
