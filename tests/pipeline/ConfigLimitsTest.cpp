// Configurations whose frame sizes exceed the pipeline's fixed buffers are
// refused when read, instead of overrunning the buffers on the first frame.
#include <gtest/gtest.h>

#include <string>

#include "pipeline/StereoDepth.h"
#include "support/CaptureOutput.h"
#include "support/HostConfig.h"
#include "support/TempDir.h"

namespace KorvLumetra {
namespace {

struct LimitCase {
  const char* name;
  std::vector<std::pair<std::string, std::string>> settings;
  const char* named;  // the setting the message must name
};

TEST(ConfigLimits, OversizedFramesAreRefusedWithTheSettingNamed) {
  const LimitCase cases[] = {
      // 1281 x 801 x 2 views x 3 channels is just over 6,144,000 bytes.
      {"stereo working size", {{"input_stereo_width", "1281"}, {"input_stereo_height", "801"}}, "input_stereo_width"},
      // Fits once scaled, but the input-size outputs (3 bytes a pixel) would not.
      {"stereo input size",
       {{"input_stereo_width", "5000"}, {"input_stereo_height", "2000"}, {"stereo_img_scaling", "0.25"}},
       "input_stereo_width"},
      // 3841 x 2160 x 3 is over a colour ring slot.
      {"colour size", {{"input_aux_cam_width", "3841"}, {"input_aux_cam_height", "2160"}}, "input_aux_cam_width"},
      // 3840 x 2160 floats are over the depth record that aligned depth returns to.
      {"aligned depth",
       {{"input_aux_cam_width", "3840"}, {"input_aux_cam_height", "2160"}, {"align_cam_id", "2"},
        {"align_direction", "true"}},
       "align_cam_id"},
  };
  for (const LimitCase& c : cases) {
    LumoTest::TempDir dir;
    LumoTest::HostConfig config;
    config.set("calib_path", "").set("thread_num", "1");
    for (const auto& setting : c.settings) config.set(setting.first, setting.second);
    config.write(dir.file("cfg.yaml"));
    StereoDepth pipeline;
    int status = 0;
    const std::string printed =
        LumoTest::captureStdout([&] { status = pipeline.initFromYaml(dir.file("cfg.yaml")); });
    EXPECT_EQ(status, 1) << c.name;
    EXPECT_NE(printed.find("[ ERROR] initFromYaml(): "), std::string::npos) << c.name << ": " << printed;
    EXPECT_NE(printed.find(c.named), std::string::npos) << c.name << ": " << printed;
    EXPECT_NE(printed.find("limit"), std::string::npos) << c.name << ": " << printed;
    EXPECT_EQ(pipeline.engineCount(), 0u) << c.name;
  }

  // The largest sizes that fit are accepted.
  LumoTest::TempDir dir;
  LumoTest::HostConfig()
      .set("calib_path", "")
      .set("input_stereo_width", "1280")
      .set("input_stereo_height", "800")
      .set("input_aux_cam_width", "3840")
      .set("input_aux_cam_height", "2160")
      .write(dir.file("cfg.yaml"));
  StereoDepth pipeline;
  EXPECT_EQ(pipeline.initFromYaml(dir.file("cfg.yaml")), 0);
}

}  // namespace
}  // namespace KorvLumetra
