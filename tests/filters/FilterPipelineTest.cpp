// The filters inside the pipeline: with enable_filter on, each depth result
// must be the unfiltered result passed through the spatial and then the
// temporal filter, with the temporal state carried from frame to frame.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "filters/KesTemporalFilter.h"
#include "filters/VorSpatialFilter.h"
#include "lumetra_depth.h"
#include "support/CaptureOutput.h"
#include "support/HostConfig.h"
#include "support/TempDir.h"
#include "synth/SyntheticStereo.h"

namespace {

TEST(FilterPipeline, FilteredDepthIsTheFiltersAppliedToTheRawDepth) {
  const int width = 320, height = 200;
  const LumoSynth::Rig rig = LumoSynth::pinholeRig(width, height);
  const LumoSynth::Scene scene = LumoSynth::movingScene();
  const LumoSynth::Renderer renderer = LumoSynth::makeRenderer(rig, 1);
  LumoTest::TempDir dir;
  LumoSynth::writeCalibrationYaml(dir.file("calib.yaml"), rig);
  const LumoTest::HostConfig config = LumoTest::HostConfig()
                                          .set("input_stereo_width", std::to_string(width))
                                          .set("input_stereo_height", std::to_string(height));
  config.write(dir.file("raw.yaml"));
  LumoTest::HostConfig(config).set("enable_filter", "true").write(dir.file("filtered.yaml"));
  void* raw = nullptr;
  void* filtered = nullptr;
  LumoTest::captureStdout([&] {
    KORV_LUMO_D_CreateHandleWithConfig(&raw, dir.file("raw.yaml").c_str());
    KORV_LUMO_D_CreateHandleWithConfig(&filtered, dir.file("filtered.yaml").c_str());
  });

  KorvLumetra::VorSpatialFilter spatial;
  KorvLumetra::KesTemporalFilter temporal;
  std::vector<float> rawDepth(width * height), filteredDepth(width * height);
  LumoDepthImage rawRecord{}, filteredRecord{};
  rawRecord.data = rawDepth.data();
  filteredRecord.data = filteredDepth.data();
  int changed = 0;
  for (int frameIndex = 0; frameIndex < 6; ++frameIndex) {
    cv::Mat grey;
    cv::cvtColor(LumoSynth::renderStereo(renderer, scene, frameIndex), grey, cv::COLOR_BGR2GRAY);
    LumoImage frame{};
    frame.timestamp = 100 + frameIndex;
    frame.width = width;
    frame.height = 2 * height;
    frame.channels = 1;
    frame.data = grey.data;
    ASSERT_EQ(KORV_LUMO_D_FeedStereoImage(raw, &frame), 0);
    ASSERT_EQ(KORV_LUMO_D_FeedStereoImage(filtered, &frame), 0);
    ASSERT_EQ(KORV_LUMO_D_GetDepthImage(raw, &rawRecord, nullptr, nullptr), 0);
    ASSERT_EQ(KORV_LUMO_D_GetDepthImage(filtered, &filteredRecord, nullptr, nullptr), 0);
    ASSERT_EQ(filteredRecord.timestamp, frame.timestamp);

    // The matcher is deterministic, so the raw depth is what the filtered
    // pipeline saw before filtering.
    std::vector<float> expected = rawDepth;
    LumoDepthImage image = rawRecord;
    image.data = expected.data();
    spatial.processFrame(&image);
    temporal.processFrame(&image);
    EXPECT_EQ(std::memcmp(expected.data(), filteredDepth.data(), expected.size() * sizeof(float)), 0)
        << "frame " << frameIndex;
    changed += std::memcmp(rawDepth.data(), filteredDepth.data(), rawDepth.size() * sizeof(float)) != 0;
  }
  EXPECT_EQ(changed, 6);  // the filters do change the depth
  KORV_LUMO_D_DestroyHandle(raw);
  KORV_LUMO_D_DestroyHandle(filtered);
}

}  // namespace
