// With enable_filter on, each depth result must be the unfiltered result passed
// through the spatial and then the temporal filter, whose state is carried
// from frame to frame.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "filters/KesTemporalFilter.h"
#include "filters/VorSpatialFilter.h"
#include "lumetra_depth.h"
#include "support/FeedAndWait.h"
#include "support/CaptureOutput.h"
#include "support/HostConfig.h"
#include "support/TempDir.h"
#include "synth/SyntheticStereo.h"

namespace {

TEST(FilterPipeline, FilteredDepthIsTheFiltersAppliedToTheRawDepth) {
  const int width = 320, height = 200;
  const LumoSynth::Rig rig = LumoSynth::pinholeRig(width, height);
  LumoTest::TempDir dir;
  LumoSynth::writeCalibrationYaml(dir.file("calib.yaml"), rig);
  LumoTest::HostConfig config;
  config.set("input_stereo_width", std::to_string(width)).set("input_stereo_height", std::to_string(height));
  config.write(dir.file("raw.yaml"));
  config.set("enable_filter", "true").write(dir.file("filtered.yaml"));
  void* handles[2] = {nullptr, nullptr};  // raw, filtered
  LumoTest::captureStdout([&] {
    KORV_LUMO_D_CreateHandleWithConfig(&handles[0], dir.file("raw.yaml").c_str());
    KORV_LUMO_D_CreateHandleWithConfig(&handles[1], dir.file("filtered.yaml").c_str());
  });

  const LumoSynth::Renderer renderer = LumoSynth::makeRenderer(rig, 1);
  const LumoSynth::Scene scene = LumoSynth::movingScene();
  KorvLumetra::VorSpatialFilter spatial;
  KorvLumetra::KesTemporalFilter temporal;
  std::vector<float> depth[2] = {std::vector<float>(width * height), std::vector<float>(width * height)};
  LumoDepthImage records[2] = {};
  int changed = 0;
  for (int frameIndex = 0; frameIndex < 6; ++frameIndex) {
    cv::Mat grey;
    cv::cvtColor(LumoSynth::renderStereo(renderer, scene, frameIndex), grey, cv::COLOR_BGR2GRAY);
    LumoImage frame{0, 0, 100u + frameIndex, width, 2 * height, 1, 0, 0, 0, 0, grey.data};
    for (int k = 0; k < 2; ++k) {
      records[k].data = depth[k].data();
      ASSERT_EQ(LumoTest::feedAndWait(handles[k], &frame), 0);
      ASSERT_EQ(KORV_LUMO_D_GetDepthImage(handles[k], &records[k], nullptr, nullptr), 0);
      ASSERT_EQ(records[k].timestamp, frame.timestamp);
    }
    // The matcher is deterministic, so the raw depth is what the filters saw.
    std::vector<float> expected = depth[0];
    LumoDepthImage image = records[0];
    image.data = expected.data();
    spatial.processFrame(&image);
    temporal.processFrame(&image);
    EXPECT_EQ(std::memcmp(expected.data(), depth[1].data(), expected.size() * sizeof(float)), 0) << frameIndex;
    changed += std::memcmp(depth[0].data(), depth[1].data(), depth[0].size() * sizeof(float)) != 0;
  }
  EXPECT_EQ(changed, 6);  // the filters do change the depth
  for (void* handle : handles) KORV_LUMO_D_DestroyHandle(handle);
}

}  // namespace
