// Binding a tracker's calibration: this program exports the tracker's getter,
// as a process that loaded the tracking library would.
#include <gtest/gtest.h>

#include <string>

#include <opencv2/imgproc.hpp>

#include "lumetra_depth.h"
#include "support/CaptureOutput.h"
#include "support/HostConfig.h"
#include "support/TempDir.h"
#include "synth/SyntheticStereo.h"

namespace {

LumoCalibrationParam g_calibration{};

// Record of the tracker for a rendered rig (radtan cameras).
LumoCalibrationParam recordOf(const LumoSynth::Rig& rig) {
  LumoCalibrationParam record{};
  record.num_cameras = static_cast<uint32_t>(rig.cameras.size());
  for (std::size_t i = 0; i < rig.cameras.size(); ++i) {
    const LumoSynth::Camera& cam = rig.cameras[i];
    LumoCameraCalib& out = record.cameras[i];
    out.camera_id = static_cast<uint8_t>(i);
    out.available_mask = 0x03;
    out.intrinsics.width = static_cast<uint32_t>(cam.width);
    out.intrinsics.height = static_cast<uint32_t>(cam.height);
    out.intrinsics.fx = static_cast<float>(cam.fx);
    out.intrinsics.fy = static_cast<float>(cam.fy);
    out.intrinsics.cx = static_cast<float>(cam.cx);
    out.intrinsics.cy = static_cast<float>(cam.cy);
    out.intrinsics.distortion_model = 2;
    for (std::size_t k = 0; k < 4; ++k) out.intrinsics.distortion_coeffs[k] = static_cast<float>(cam.coeffs[k]);
    for (int r = 0; r < 3; ++r) {
      for (int c = 0; c < 3; ++c) out.T_cn_cnm1.rotation[3 * r + c] = static_cast<float>(cam.T_cn_cnm1(r, c));
      out.T_cn_cnm1.translation[r] = static_cast<float>(cam.T_cn_cnm1(r, 3));
    }
  }
  return record;
}

}  // namespace

// The tracker's getter: a handle pointing at a non-zero int fails.
extern "C" __attribute__((visibility("default"))) int KORV_NVRA_GetCalibrationParam(void* navraHandle,
                                                                                   LumoCalibrationParam* out) {
  if (*static_cast<int*>(navraHandle) != 0) return 3;
  *out = g_calibration;
  return 0;
}

namespace {

TEST(TrackerBinding, CalibrationFromTheTrackerDrivesDepth) {
  // The configuration names no calibration file: it comes from the tracker.
  LumoSynth::Rig rig = LumoSynth::pinholeRig(640, 400);
  rig.cameras[0].coeffs.resize(4);
  rig.cameras[1].coeffs.resize(4);
  g_calibration = recordOf(rig);
  LumoTest::TempDir dir;
  LumoTest::HostConfig().set("calib_path", "").write(dir.file("config.yaml"));
  void* handle = nullptr;
  ASSERT_EQ(KORV_LUMO_D_CreateHandleWithConfig(&handle, dir.file("config.yaml").c_str()), 0);

  int failing = 1;
  int status = 0;
  std::string printed = LumoTest::captureStdout([&] { status = KORV_LUMO_D_BindNavra(handle, &failing); });
  EXPECT_EQ(status, 1);
  EXPECT_NE(printed.find("[ ERROR] KORV_LUMO_D_BindNavra(): Failed to get calib from Navra handle\n"),
            std::string::npos)
      << printed;

  // One camera is no stereo pair: refused after the dump, and a good record binds afterwards.
  int working = 0;
  g_calibration.num_cameras = 1;
  printed = LumoTest::captureStdout([&] { status = KORV_LUMO_D_BindNavra(handle, &working); });
  EXPECT_EQ(status, 1);
  EXPECT_NE(printed.find("[ ERROR] initCameraFromCalib(): initCameraFromCalib: no extrinsics found\n"),
            std::string::npos)
      << printed;
  g_calibration.num_cameras = 2;

  printed = LumoTest::captureStdout([&] { status = KORV_LUMO_D_BindNavra(handle, &working); });
  ASSERT_EQ(status, 0) << printed;
  EXPECT_EQ(printed.rfind("[Camera Chain]\nNumber of cameras: 2\n", 0), 0u) << printed;

  cv::Mat grey;
  const cv::Mat stacked =
      LumoSynth::renderStereo(LumoSynth::makeRenderer(rig, 1), LumoSynth::defaultScene(), 0);
  cv::cvtColor(stacked, grey, cv::COLOR_BGR2GRAY);
  LumoImage frame{};
  frame.timestamp = 5;
  frame.width = 640;
  frame.height = 800;
  frame.channels = 1;
  frame.data = grey.data;
  ASSERT_EQ(KORV_LUMO_D_FeedStereoImage(handle, &frame), 0);
  std::vector<float> depth(640 * 400);
  LumoDepthImage record{};
  record.data = depth.data();
  ASSERT_EQ(KORV_LUMO_D_GetDepthImage(handle, &record, nullptr, nullptr), 0);
  int valid = 0;
  for (float d : depth) valid += d > 0.5f && d < 6.0f;  // the scene lies between 1 and 5.5 m
  EXPECT_GT(valid, 640 * 400 / 2);
  EXPECT_EQ(KORV_LUMO_D_DestroyHandle(handle), 0);
}

}  // namespace
