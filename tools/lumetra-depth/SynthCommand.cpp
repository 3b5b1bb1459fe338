// synth: a sample sequence from the synthetic renderer, with everything a
// run and an evaluation need: frames, calibration, configuration, ground truth.
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "AslCalibration.h"
#include "Commands.h"
#include "Options.h"
#include "ToolError.h"
#include "synth/SyntheticAsl.h"
#include "synth/SyntheticBoxes.h"
#include "synth/SyntheticStereo.h"

namespace LumoTool {

namespace {

const char* const kHelp =
    "usage: lumetra-depth synth --out DIR [options]\n"
    "\n"
    "Renders a textured 3-D scene through a calibrated stereo rig with lens\n"
    "distortion and writes into DIR:\n"
    "  frame_000000.png, ...     stacked stereo frames (left view on top), grey\n"
    "  depth_000000.tiff, ...    ground-truth depth of the rectified left view at\n"
    "                            the working size (32-bit float metres, 0 = none)\n"
    "  calib.yaml                the rig's calibration\n"
    "  config.yaml               a configuration for 'lumetra-depth run' (all keys)\n"
    "  boxes.csv                 the boxes and the sphere as a detector would box them,\n"
    "                            per frame, with true distances (for 'objects')\n"
    "  poses.txt                 the left camera's pose per frame\n"
    "  colour_000000.png, ...    with --colour: the colour camera's frames (and\n"
    "                            colour_depth_*.tiff), alignment switched on\n"
    "\n"
    "options:\n"
    "  --out DIR          output folder (created; existing files are replaced)\n"
    "  --frames N         frames to render (default 30)\n"
    "  --width W          width of one view, pixels (default 640)\n"
    "  --height H         height of one view, pixels (default 400)\n"
    "  --scale S          stereo_img_scaling of the configuration: the library\n"
    "                     matches at W*S x H*S (default 1)\n"
    "  --fisheye          110-degree equidistant lenses instead of ~67-degree radtan\n"
    "  --colour           add a colour camera and align depth with it\n"
    "  --moving           the camera drifts and turns, the sphere moves\n"
    "  --seed N           texture seed (default 1)\n"
    "  --layout asl       a recording in the EuRoC-style layout instead: the camera\n"
    "                     moves through a still scene; DIR/mav0/cam0, cam1 (data.csv,\n"
    "                     data/<ns>.png, sensor.yaml with the IMU off camera 0),\n"
    "                     DIR/mav0/state_groundtruth_estimate0/data.csv (the body's\n"
    "                     trajectory), DIR/camchain.yaml (as 'calib' writes it) and\n"
    "                     DIR/config.yaml with world-frame clouds (pointcloud_type: 2)\n"
    "  --supersample N    rays per pixel and axis, for anti-aliasing (default 2)\n";

// The colour camera keeps the stereo width with a 16:9 picture.
int colourHeight(int width) { return 2 * static_cast<int>(std::lround(width * 9.0 / 32.0)); }

std::string configText(int width, int height, double scale, bool colour, int colourWidth, bool recording) {
  char number[32];
  const auto text = [&](double value) {
    std::snprintf(number, sizeof(number), "%g", value);
    return std::string(number);
  };
  // Every key, in the library's order, with a word on the choices made here.
  const std::vector<std::pair<std::string, std::string>> lines = {
      {"enable_module: 1", ""},
      {"model_path: \"\"", "not used by the stereo matcher"},
      {recording ? "calib_path: camchain.yaml" : "calib_path: calib.yaml", "relative to this file"},
      {"input_stereo_width: " + std::to_string(width), "one view of the stacked frame"},
      {"input_stereo_height: " + std::to_string(height), ""},
      {"stereo_img_scaling: " + text(scale), "matching size / input size"},
      {"input_aux_cam_width: " + std::to_string(colour ? colourWidth : 1920), "colour camera"},
      {"input_aux_cam_height: " + std::to_string(colour ? colourHeight(colourWidth) : 1080), ""},
      {"aux_cam_scaling: 1.0", ""},
      {"thread_num: 1", "one matcher suffices when each feed waits"},
      {"async_mode: 0", "a feed returns once its depth is there"},
      {std::string("align_cam_id: ") + (colour ? "2" : "-1"), "-1: no alignment; 2: the colour camera"},
      {"align_direction: false", "false: colour resampled into the depth view"},
      {"enable_filter: false", "on a moving camera the filters cost accuracy"},
      {"wls_filter: false", "slower, and no more accurate on these scenes"},
      {"depth_mode: 0", ""},
      {recording ? "enable_voxel: false" : "enable_voxel: true",
       recording ? "whole clouds for the map, which pools them itself" : ""},
      {"voxelSize: 0.05", "metres"},
      {"minPoints: 3", "fewer points in a voxel are dropped as noise"},
      {recording ? "pointcloud_type: 2" : "pointcloud_type: 0",
       recording ? "points in the world frame, by the pose fed with each frame"
                 : "points in the rectified left camera frame"},
      {"pointcloud_ROI: 1.0", ""},
      {"skip_point: 1", "every other row and column"},
      {recording ? "farthest_dist: 4.0" : "farthest_dist: 12.0",
       recording ? "metres: the map keeps what the rig measures within a centimetre or two" : "metres"},
      {"cloest_dist: 0.2", "metres (the key is spelt so)"},
      {"restore_depth_dim: 1", "depth at the input size"},
      {"debug_image: 0", ""},
      {"debug_img_save_path: debug", ""},
  };
  std::string out = "# Lumetra Depth configuration for a synthetic sample sequence.\n";
  for (const auto& line : lines) {
    out += line.first;
    if (!line.second.empty()) {
      out += std::string(line.first.size() < 30 ? 30 - line.first.size() : 1, ' ') + "# " + line.second;
    }
    out += "\n";
  }
  return out;
}

void writeText(const std::filesystem::path& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
  if (!file) throw ToolError("cannot write '" + path.string() + "'");
}

// A camera moving through a still scene, recorded as the data sets lay it out.
int synthRecording(const Options& options, const std::string& out, int frames, int width, int height, double scale,
                   int seed, int supersample) {
  const LumoSynth::Rig rig =
      options.has("fisheye") ? LumoSynth::fisheyeRig(width, height) : LumoSynth::pinholeRig(width, height);
  const LumoSynth::Scene scene = LumoSynth::roamingScene(static_cast<std::uint32_t>(seed));
  const std::filesystem::path root(out), mav0 = root / "mav0";
  std::error_code error;
  std::filesystem::create_directories(mav0, error);
  if (error) throw ToolError("cannot create '" + mav0.string() + "': " + error.message());
  LumoSynth::AslOptions asl;
  asl.supersample = supersample;
  try {
    LumoSynth::writeAslSequence(mav0.string(), rig, scene, frames, asl);
  } catch (const std::runtime_error& e) {
    throw ToolError(e.what());
  }
  // The calibration a user makes with 'calib', from the files just written.
  writeText(root / "camchain.yaml", camchainFromAsl(mav0.string()));
  writeText(root / "config.yaml", configText(width, height, scale, false, width, true));
  writeText(root / "synth.yaml", "# What 'lumetra-depth synth' rendered here, for 'eval' of a map.\nlayout: asl\n"
                                 "scene: roaming\nseed: " + std::to_string(seed) + "\n");
  std::printf("wrote a recording of %d frames of %dx%d (%s rig, camera moving through a still scene) to %s\n",
              frames, width, height, options.has("fisheye") ? "fisheye" : "pinhole", mav0.string().c_str());
  std::printf("next: lumetra-depth calib %s > %s\n", mav0.string().c_str(), (root / "camchain.yaml").string().c_str());
  std::printf("      lumetra-depth run %s %s --out OUTDIR --poses %s --map %s\n",
              (root / "config.yaml").string().c_str(), mav0.string().c_str(),
              (mav0 / "state_groundtruth_estimate0" / "data.csv").string().c_str(), (root / "map.ply").string().c_str());
  std::printf("      lumetra-depth eval %s %s\n", (root / "map.ply").string().c_str(), out.c_str());
  return 0;
}

}  // namespace

int synthCommand(const Args& args) {
  const Options options(args, {"out", "frames", "width", "height", "scale", "seed", "supersample", "layout"},
                        {"fisheye", "colour", "moving"});
  if (options.help()) {
    std::fputs(kHelp, stdout);
    return 0;
  }
  options.expectPositional(0, "");
  if (!options.has("out")) throw UsageError("missing --out DIR");
  const std::string out = options.text("out");
  const int frames = options.integer("frames", 30, 1, 100000);
  const int width = options.integer("width", 640, 64, 4096);
  const int height = options.integer("height", 400, 48, 4096);
  const double scale = options.real("scale", 1.0, 0.05, 2.0);
  const int seed = options.integer("seed", 1, 0, 1 << 30);
  const int supersample = options.integer("supersample", 2, 1, 8);
  const bool colour = options.has("colour");
  if (width % 2 != 0 || height % 2 != 0) throw UsageError("--width and --height must be even");
  const std::string layout = options.text("layout", "stacked");
  if (layout != "stacked" && layout != "asl") throw UsageError("--layout takes stacked or asl, not '" + layout + "'");
  if (layout == "asl") {
    if (colour || options.has("moving")) throw UsageError("--layout asl takes neither --colour nor --moving");
    return synthRecording(options, out, frames, width, height, scale, seed, supersample);
  }

  LumoSynth::Rig rig = options.has("fisheye") ? LumoSynth::fisheyeRig(width, height)
                                              : LumoSynth::pinholeRig(width, height);
  if (colour) rig = LumoSynth::withColourCamera(rig, width, colourHeight(width));
  const LumoSynth::Scene scene = options.has("moving") ? LumoSynth::movingScene(static_cast<std::uint32_t>(seed))
                                                       : LumoSynth::defaultScene(static_cast<std::uint32_t>(seed));

  std::error_code error;
  std::filesystem::create_directories(out, error);
  if (error) throw ToolError("cannot create '" + out + "': " + error.message());

  LumoSynth::SequenceOptions sequence;
  sequence.supersample = supersample;
  try {
    LumoSynth::writeSequence(out, rig, scene, frames, scale, sequence);
    LumoSynth::writeObjectBoxes((std::filesystem::path(out) / "boxes.csv").string(), rig, scene, frames);
  } catch (const std::runtime_error& e) {
    throw ToolError(e.what());
  }
  const std::string configPath = (std::filesystem::path(out) / "config.yaml").string();
  std::ofstream config(configPath);
  config << configText(width, height, scale, colour, width, false);
  if (!config) throw ToolError("cannot write '" + configPath + "'");

  const LumoSynth::Rectification rect = LumoSynth::rectification(rig, scale);
  std::printf("wrote %d frames of %dx%d (%s rig%s, %s scene) to %s\n", frames, width, height,
              options.has("fisheye") ? "fisheye" : "pinhole", colour ? " with colour camera" : "",
              options.has("moving") ? "moving" : "static", out.c_str());
  std::printf("  baseline %.4f m, rectified focal length %.1f px at the working size %dx%d\n", rect.baseline,
              rect.P1.at<double>(0, 0), rect.size.width, rect.size.height);
  std::printf("next: lumetra-depth run %s %s --out OUTDIR\n", configPath.c_str(), out.c_str());
  return 0;
}

}  // namespace LumoTool
