// Synthetic sequences in the folder layout of the public EuRoC-style data
// sets ("ASL" layout): per camera a data.csv of nanosecond time stamps and
// file names, the images under data/, and a sensor.yaml with the camera's
// pose on the body (T_BS) and its lens; and the body's ground-truth
// trajectory as state_groundtruth_estimate0/data.csv. Test and demo data.
#pragma once

#include "synth/SyntheticStereo.h"

#include <cstdint>
#include <string>

namespace LumoSynth {

struct AslOptions {
  int supersample = 2;
  std::uint64_t startNs = 1700000000000000000ull;  // time stamp of frame 0
  std::uint64_t periodNs = 50000000ull;            // 20 frames per second
  int truthPerFrame = 4;                           // ground-truth samples per frame period
};

// T_BS of the left camera: maps left-camera points into the body (IMU) frame,
// whose axes are X forward, Y left, Z up; the IMU sits a few centimetres off
// the camera and is turned a little against it.
Eigen::Isometry3d bodyFromLeft();

std::uint64_t aslTimestamp(const AslOptions& options, int frame);

// sensor.yaml of one camera of the rig, sitting at T_BS on the body.
std::string aslSensorYaml(const Camera& cam, const Eigen::Isometry3d& T_BS, const std::string& name);

// Writes `mav0` (created): cam0/ and cam1/ with data.csv, data/<ns>.png (grey)
// and sensor.yaml, and state_groundtruth_estimate0/data.csv with the body's
// pose from half a frame before the first frame to half a frame after the
// last, `truthPerFrame` samples per frame period, so every frame's time has a
// sample of its own. The body carries the left camera at bodyFromLeft().
// Throws std::runtime_error when a file cannot be written.
void writeAslSequence(const std::string& mav0, const Rig& rig, const Scene& scene, int frames,
                      const AslOptions& options = AslOptions());

}  // namespace LumoSynth
