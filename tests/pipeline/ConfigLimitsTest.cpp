// Configurations whose frame sizes exceed the pipeline's fixed buffers are
// refused when read, instead of overrunning the buffers on the first frame.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "pipeline/StereoDepth.h"
#include "support/CaptureOutput.h"
#include "support/HostConfig.h"
#include "support/TempDir.h"

namespace KorvLumetra {
namespace {

// Reads a configuration with the given "key value" pairs; standard output to *printed.
int initWith(const std::string& settings, std::string* printed) {
  LumoTest::TempDir dir;
  LumoTest::HostConfig config;
  config.set("calib_path", "");
  std::istringstream pairs(settings);
  for (std::string key, value; pairs >> key >> value;) config.set(key, value);
  config.write(dir.file("cfg.yaml"));
  StereoDepth pipeline;
  int status = 0;
  *printed = LumoTest::captureStdout([&] { status = pipeline.initFromYaml(dir.file("cfg.yaml")); });
  return status;
}

TEST(ConfigLimits, OversizedFramesAreRefusedWithTheSettingNamed) {
  const std::pair<const char*, const char*> cases[] = {
      // 1281 x 801 x 2 views x 3 channels is just over 6,144,000 bytes.
      {"input_stereo_width 1281 input_stereo_height 801", "input_stereo_width"},
      // Fits once scaled, but the input-size outputs (3 bytes a pixel) would not.
      {"input_stereo_width 5000 input_stereo_height 2000 stereo_img_scaling 0.25", "input_stereo_width"},
      // 3841 x 2160 x 3 is over a colour ring slot.
      {"input_aux_cam_width 3841 input_aux_cam_height 2160", "input_aux_cam_width"},
      // 3840 x 2160 floats are over the depth record that aligned depth returns to.
      {"input_aux_cam_width 3840 input_aux_cam_height 2160 align_cam_id 2 align_direction true", "align_cam_id"},
  };
  std::string printed;
  for (const auto& [settings, named] : cases) {
    EXPECT_EQ(initWith(settings, &printed), 1) << settings;
    EXPECT_NE(printed.find("[ ERROR] initFromYaml(): "), std::string::npos) << printed;
    EXPECT_NE(printed.find(named), std::string::npos) << printed;
    EXPECT_NE(printed.find("limit"), std::string::npos) << printed;
  }
  // The largest sizes that fit are accepted.
  EXPECT_EQ(initWith("input_stereo_width 1280 input_stereo_height 800 input_aux_cam_width 3840 "
                     "input_aux_cam_height 2160",
                     &printed),
            0);
}

}  // namespace
}  // namespace KorvLumetra
