// Point-cloud generation from a 640x400 depth result, without the voxel
// filter and with 1 cm and 5 cm voxels, against the bare matcher whose depth
// it follows.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>

#include "BenchRatios.h"
#include "support/CalibrationFixtures.h"
#include "support/HostConfig.h"
#include "support/TempDir.h"
#include "synth/SyntheticStereo.h"

namespace {

using KorvLumetra::StereoDepth;
using KorvLumetra::StereoDepthTestAccess;

// A pipeline configured for the rendered rig (one idle engine, for the
// scale query) holding the scene's true depth in its depth record, as the
// result thread leaves it before building the cloud.
struct CloudFixture {
  LumoTest::TempDir dir;
  StereoDepth pipeline;

  CloudFixture(int width, int height, int voxelMillimetres) {
    const LumoSynth::Rig rig = LumoSynth::pinholeRig(width, height);
    LumoSynth::writeCalibrationYaml(dir.file("calib.yaml"), rig);
    LumoTest::HostConfig()
        .set("input_stereo_width", std::to_string(width))
        .set("input_stereo_height", std::to_string(height))
        .set("pointcloud_type", "1")
        .set("enable_voxel", voxelMillimetres > 0 ? "true" : "false")
        .set("voxelSize", std::to_string(voxelMillimetres * 0.001))
        .write(dir.file("config.yaml"));
    pipeline.initFromYaml(dir.file("config.yaml"));
    const cv::Mat truth =
        LumoSynth::rectifiedDepth(LumoSynth::rectification(rig, 1.0), LumoSynth::defaultScene(), 0);
    LumoDepthImage* depth = StereoDepthTestAccess::depthRecord(pipeline);
    depth->timestamp = 1;
    depth->width = static_cast<uint32_t>(truth.cols);
    depth->height = static_cast<uint32_t>(truth.rows);
    depth->channels = 1;
    depth->stride = depth->width * 4;
    depth->size = depth->stride * depth->height;
    std::memcpy(depth->data, truth.ptr<float>(), depth->size);
    pipeline.generatePointCloud();  // the ray table is built on the first cloud
  }
};

void BM_PointCloud(benchmark::State& state) {
  CloudFixture fixture(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)),
                       static_cast<int>(state.range(2)));
  for (auto _ : state) fixture.pipeline.generatePointCloud();
  state.counters["points"] = StereoDepthTestAccess::pointCount(fixture.pipeline);
}
// Arguments: width, height, voxel edge in millimetres (0: no voxel filter).
BENCHMARK(BM_PointCloud)
    ->Args({640, 400, 0})
    ->Args({640, 400, 10})
    ->Args({640, 400, 50})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

LUMO_RATIO("point cloud / bare SGBM, 640x400", "BM_PointCloud/640/400/0/real_time", "BM_BareSGBM/640/400/real_time");
LUMO_RATIO("point cloud, 1 cm voxels / bare SGBM, 640x400", "BM_PointCloud/640/400/10/real_time",
           "BM_BareSGBM/640/400/real_time");
LUMO_RATIO("point cloud, 5 cm voxels / bare SGBM, 640x400", "BM_PointCloud/640/400/50/real_time",
           "BM_BareSGBM/640/400/real_time");

}  // namespace
