// Binding a tracker's calibration: this program exports the tracker's getter,
// as a process that loaded the tracking library would.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "lumetra_depth.h"
#include "support/FeedAndWait.h"
#include "support/CaptureOutput.h"
#include "support/HostConfig.h"
#include "support/TempDir.h"
#include "synth/SyntheticStereo.h"

namespace {

LumoCalibrationParam g_calibration{};

// The tracker's record of a rendered rig (radtan cameras).
LumoCalibrationParam recordOf(const LumoSynth::Rig& rig) {
  LumoCalibrationParam record{};
  record.num_cameras = static_cast<uint32_t>(rig.cameras.size());
  for (std::size_t i = 0; i < rig.cameras.size(); ++i) {
    const LumoSynth::Camera& cam = rig.cameras[i];
    LumoCameraCalib& out = record.cameras[i];
    out.camera_id = static_cast<uint8_t>(i);
    out.available_mask = 0x03;
    out.intrinsics = {0, {}, uint32_t(cam.width), uint32_t(cam.height), float(cam.fx), float(cam.fy),
                      float(cam.cx), float(cam.cy), {}, 2, {}, {}};
    for (int k = 0; k < 4; ++k) out.intrinsics.distortion_coeffs[k] = static_cast<float>(cam.coeffs[k]);
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

// Binds a handle made from a configuration without calib_path, and returns
// bind's status; `message` must be among what it printed.
int bindTracker(void* handle, int navra, const std::string& message) {
  int status = -1;
  const std::string printed = LumoTest::captureStdout([&] { status = KORV_LUMO_D_BindNavra(handle, &navra); });
  EXPECT_NE(printed.find(message), std::string::npos) << printed;
  return status;
}

TEST(TrackerBinding, CalibrationFromTheTrackerDrivesDepth) {
  // The configuration names no calibration file: it comes from the tracker.
  LumoSynth::Rig rig = LumoSynth::pinholeRig(640, 400);
  for (LumoSynth::Camera& cam : rig.cameras) cam.coeffs.resize(4);  // as many as the record holds
  g_calibration = recordOf(rig);
  LumoTest::TempDir dir;
  LumoTest::HostConfig().set("calib_path", "").write(dir.file("config.yaml"));
  LumoTest::Handle handle(dir.file("config.yaml"));
  ASSERT_EQ(handle.status, 0);
  EXPECT_EQ(bindTracker(handle, 1, "[ ERROR] KORV_LUMO_D_BindNavra(): Failed to get calib from Navra handle\n"), 1);
  // One camera is no stereo pair: refused after the dump, and a good record binds afterwards.
  g_calibration.num_cameras = 1;
  EXPECT_EQ(bindTracker(handle, 0, "[ ERROR] initCameraFromCalib(): initCameraFromCalib: no extrinsics found\n"), 1);
  g_calibration.num_cameras = 2;
  ASSERT_EQ(bindTracker(handle, 0, "[Camera Chain]\nNumber of cameras: 2\n"), 0);

  cv::Mat grey = LumoSynth::toGrey(LumoSynth::renderStereo(LumoSynth::makeRenderer(rig, 1), LumoSynth::defaultScene(), 0));
  LumoImage frame{0, 0, 5, 640, 800, 1, 0, 0, 0, 0, grey.data};
  ASSERT_EQ(LumoTest::feedAndWait(handle, &frame), 0);
  LumoTest::DepthBuffer depth;
  ASSERT_EQ(KORV_LUMO_D_GetDepthImage(handle, &depth.record, nullptr, nullptr), 0);
  // The scene lies between 1 and 5.5 m.
  EXPECT_GT(std::count_if(depth.data.begin(), depth.data.end(), [](float d) { return d > 0.5f && d < 6.0f; }),
            640 * 400 / 2);
}

// A configuration refused for its sizes stays refused: a record that matches
// those sizes is not taken, so nothing is ever built for buffers too small.
TEST(TrackerBinding, ARefusedConfigurationTakesNoCalibration) {
  g_calibration = recordOf(LumoSynth::pinholeRig(1400, 900));
  LumoTest::TempDir dir;
  LumoTest::HostConfig()
      .set("calib_path", "")
      .set("input_stereo_width", "1400")
      .set("input_stereo_height", "900")
      .write(dir.file("config.yaml"));
  LumoTest::Handle handle(dir.file("config.yaml"));
  const std::string refused = "(): the configuration was refused when the handle was created: nothing is taken\n";
  EXPECT_EQ(bindTracker(handle, 0, "[ ERROR] initCameraFromCalib" + refused), 1);
  std::vector<uint8_t> pixels(1400 * 1800, 128);
  LumoImage frame{0, 0, 5, 1400, 1800, 1, 0, 0, 1400, 1400 * 1800, pixels.data()};
  const std::string printed = LumoTest::captureStdout([&] { EXPECT_EQ(KORV_LUMO_D_FeedStereoImage(handle, &frame), 1); });
  EXPECT_NE(printed.find("[ ERROR] feedStereoImage" + refused), std::string::npos) << printed;
}

}  // namespace
