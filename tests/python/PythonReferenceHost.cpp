// The C host that the Python binding is held against: renders a sequence,
// runs it through the exported functions and writes what they hand out, or
// times feed + depth per frame for the benchmark.
//
//   lumo_python_host reference DIR --width W --height H --frames N [--bgr] [--colour]
//     DIR/config.yaml is the caller's (calib_path: calib.yaml). Writes
//     calib.yaml, the inputs (frame_I.raw stacked stereo frames, grey or BGR;
//     colour_I.raw BGR frames of the colour camera; pose_I.raw 7 doubles:
//     position, then orientation w x y z), the outputs (depth_I.raw,
//     disparity_I.raw, aligned_I.raw, rectified_I.raw, cloud_I.raw) and
//     manifest.txt, one line per input or output:
//       frame I TIMESTAMP TAG0 TAG1
//       KIND I STATUS TIMESTAMP TAG0 TAG1 WIDTH HEIGHT CHANNELS SIZE
//       cloud I STATUS TIMESTAMP POINTS
//   lumo_python_host bench DIR --width W --height H
//     Renders one grey frame into DIR/frame_0.raw (with calib.yaml) unless
//     there; then, when DIR/config.yaml exists, reads commands from standard
//     input: "frames N" feeds the frame N times and prints "frame_ms MS" for
//     each feed + depth, "reads N" prints "get_ms MS" for each read of the
//     latest depth; each command ends with "ok".
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "lumetra_depth.h"
#include "support/ShiftedPair.h"
#include "synth/SyntheticStereo.h"

namespace {

struct Options {
  std::string command, dir;
  int width = 320, height = 200, frames = 3;
  bool bgr = false, colour = false;
};

Options parse(int argc, char** argv) {
  Options o;
  for (int i = 3; i < argc; ++i) {
    const std::string a = argv[i];
    int* number = a == "--width" ? &o.width : a == "--height" ? &o.height : a == "--frames" ? &o.frames : nullptr;
    if (number != nullptr && i + 1 < argc) *number = std::atoi(argv[++i]);
    else if (a == "--bgr" || a == "--colour") (a == "--bgr" ? o.bgr : o.colour) = true;
    else argc = 0;  // unknown
  }
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s reference|bench DIR [--width W] [--height H] [--frames N] [--bgr] [--colour]\n",
                 argv[0]);
    std::exit(2);
  }
  o.command = argv[1];
  o.dir = argv[2];
  return o;
}

void writeBytes(const std::string& path, const void* data, std::size_t bytes) {
  if (!std::ofstream(path, std::ios::binary).write(static_cast<const char*>(data), static_cast<std::streamsize>(bytes))) {
    std::fprintf(stderr, "cannot write %s\n", path.c_str());
    std::exit(1);
  }
}

// A manifest line for an output, and its bytes in DIR/KIND_I.raw.
template <typename Record>
void output(const Options& o, FILE* manifest, const char* kind, int i, int status, const Record& r) {
  std::fprintf(manifest, "%s %d %d %llu %u %u %u %u %u %u\n", kind, i, status,
               static_cast<unsigned long long>(r.timestamp), r.tag0, r.tag1, r.width, r.height, r.channels, r.size);
  writeBytes(o.dir + "/" + kind + "_" + std::to_string(i) + ".raw", r.data, r.size);
}

void* createHandle(const std::string& dir) {
  void* handle = nullptr;
  KORV_LUMO_D_CreateHandleWithConfig(&handle, (dir + "/config.yaml").c_str());
  return handle;
}

int reference(const Options& o) {
  LumoSynth::Rig rig = LumoSynth::pinholeRig(o.width, o.height);
  const int colourHeight = 2 * static_cast<int>(std::lround(o.width * 9.0 / 32.0));
  if (o.colour) rig = LumoSynth::withColourCamera(rig, o.width, colourHeight);
  const LumoSynth::Renderer renderer = LumoSynth::makeRenderer(rig, 1);
  const LumoSynth::Scene scene = LumoSynth::movingScene(3);
  LumoSynth::writeCalibrationYaml(o.dir + "/calib.yaml", rig);

  void* handle = createHandle(o.dir);
  // Room for anything the configuration could produce at these sizes.
  const std::size_t room = 4 * static_cast<std::size_t>(std::max(2 * o.width * o.height, o.width * colourHeight));
  std::vector<float> depthData(room), disparityData(room), cloudData(3 * room);
  std::vector<uint8_t> alignedData(3 * room), rectifiedData(3 * room);
  FILE* manifest = std::fopen((o.dir + "/manifest.txt").c_str(), "w");
  for (int i = 0; i < o.frames; ++i) {
    const std::string n = std::to_string(i);
    const uint64_t timestamp = 1000000000ull + 33333333ull * static_cast<uint64_t>(i);
    cv::Mat stacked = LumoSynth::renderStereo(renderer, scene, i);
    if (!o.bgr) stacked = LumoSynth::toGrey(stacked);
    writeBytes(o.dir + "/frame_" + n + ".raw", stacked.data, stacked.total() * stacked.elemSize());
    LumoImage frame = LumoTest::wrapStacked(stacked, timestamp);
    frame.tag0 = static_cast<uint32_t>(i + 1);
    frame.tag1 = 0xABCD0000u + static_cast<uint32_t>(i);
    std::fprintf(manifest, "frame %d %llu %u %u\n", i, static_cast<unsigned long long>(timestamp), frame.tag0,
                 frame.tag1);

    const Eigen::Isometry3d T = LumoSynth::leftPose(scene, i);
    const Eigen::Quaterniond q(T.rotation());
    LumoPose pose{timestamp, {T.translation().x(), T.translation().y(), T.translation().z()}, {q.w(), q.x(), q.y(), q.z()}, {}};
    writeBytes(o.dir + "/pose_" + n + ".raw", pose.position, 7 * sizeof(double));  // orientation follows position
    KORV_LUMO_D_FeedPose(handle, &pose);
    if (o.colour) {
      cv::Mat colour = LumoSynth::renderView(renderer, scene, i, 2);
      writeBytes(o.dir + "/colour_" + n + ".raw", colour.data, colour.total() * colour.elemSize());
      LumoImage image = LumoTest::wrapStacked(colour, timestamp);
      KORV_LUMO_D_FeedRGBImage(handle, &image);
    }
    if (KORV_LUMO_D_FeedStereoImage(handle, &frame) != 0) std::fprintf(stderr, "frame %d: feed failed\n", i);

    LumoDepthImage depth{}, disparity{};
    LumoImage aligned{}, rectified{};
    depth.data = depthData.data(), disparity.data = disparityData.data();
    aligned.data = alignedData.data(), rectified.data = rectifiedData.data();
    int status = KORV_LUMO_D_GetDepthImage(handle, &depth, &disparity, &aligned);
    output(o, manifest, "depth", i, status, depth);
    output(o, manifest, "disparity", i, status, disparity);
    output(o, manifest, "aligned", i, status, aligned);
    output(o, manifest, "rectified", i, KORV_LUMO_D_GetRectifiedImage(handle, &rectified), rectified);
    LumoMap cloud{};
    cloud.points = cloudData.data();
    status = KORV_LUMO_D_GetPointcloud(handle, &cloud, static_cast<int>(room));
    std::fprintf(manifest, "cloud %d %d %llu %d\n", i, status, static_cast<unsigned long long>(cloud.timestamp),
                 status == 0 ? cloud.num : 0);
    writeBytes(o.dir + "/cloud_" + n + ".raw", cloudData.data(), status == 0 ? 12 * static_cast<std::size_t>(cloud.num) : 0);
  }
  std::fclose(manifest);
  KORV_LUMO_D_DestroyHandle(handle);
  return 0;
}

int bench(const Options& o) {
  const std::string framePath = o.dir + "/frame_0.raw";
  cv::Mat grey(2 * o.height, o.width, CV_8UC1);
  std::ifstream in(framePath, std::ios::binary);
  if (!in.read(reinterpret_cast<char*>(grey.data), static_cast<std::streamsize>(grey.total()))) {
    const LumoSynth::Rig rig = LumoSynth::pinholeRig(o.width, o.height);
    LumoSynth::writeCalibrationYaml(o.dir + "/calib.yaml", rig);
    grey = LumoSynth::toGrey(LumoSynth::renderStereo(LumoSynth::makeRenderer(rig, 1), LumoSynth::defaultScene(), 0));
    writeBytes(framePath, grey.data, grey.total());
  }
  if (!std::ifstream(o.dir + "/config.yaml")) return 0;
  void* handle = createHandle(o.dir);
  std::vector<float> depthData(static_cast<std::size_t>(o.width) * o.height), disparityData(depthData.size());
  uint64_t timestamp = 0;
  char command[32];
  int count = 0;
  // Driven from standard input, so that the timings alternate with the
  // caller's in small chunks and both see the same load.
  while (std::scanf("%31s %d", command, &count) == 2) {
    const bool feed = std::strcmp(command, "frames") == 0;
    for (int i = 0; i < count; ++i) {
      LumoImage frame = LumoTest::wrapStacked(grey, ++timestamp);
      LumoDepthImage depth{}, disparity{};
      depth.data = depthData.data();
      disparity.data = disparityData.data();
      const auto start = std::chrono::steady_clock::now();
      int status = feed ? KORV_LUMO_D_FeedStereoImage(handle, &frame) : 0;
      status |= KORV_LUMO_D_GetDepthImage(handle, &depth, &disparity, nullptr);
      const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
      if (status != 0) {
        std::fprintf(stderr, "frame %llu failed\n", static_cast<unsigned long long>(timestamp));
        return 1;
      }
      std::printf("%s %.4f\n", feed ? "frame_ms" : "get_ms", ms);
    }
    std::printf("ok\n");
    std::fflush(stdout);
  }
  KORV_LUMO_D_DestroyHandle(handle);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const Options o = parse(argc, argv);
  if (o.command == "reference") return reference(o);
  if (o.command == "bench") return bench(o);
  std::fprintf(stderr, "unknown command %s\n", o.command.c_str());
  return 2;
}
