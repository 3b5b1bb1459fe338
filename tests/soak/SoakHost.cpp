// Soak host: one handle driven the way a busy host drives it, for a long run.
//
// Threads: one feeds stacked stereo frames, one feeds colour frames and poses
// (a little ahead of the stereo frames, as a colour camera and a tracker would),
// several call every getter in a loop. Filters, alignment, point clouds with
// poses and the voxel filter are on. A watchdog ends the process when the run
// stalls or overruns its time budget.
//
// Checks: every depth, disparity, rectified image and cloud read carries the
// time stamp (and tags) of a frame that was fed; depth is finite and not
// negative; resident memory after warm-up stays within a slack. Prints the
// frames processed and the resident-memory curve. Exit 0 when every check held.
//
// usage: lumo_soak [--frames N] [--getters N] [--width W] [--height H]
//                  [--frame-period-us US] [--align-direction 0|1]
//                  [--time-limit S] [--stall-limit S] [--rss-slack-mb MB]
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <tuple>
#include <thread>
#include <utility>
#include <vector>

#include <Eigen/Geometry>
#include <opencv2/core.hpp>

#include "lumetra_depth.h"
#include "support/HostConfig.h"
#include "support/ShiftedPair.h"
#include "synth/SyntheticStereo.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
  int frames = 3000, getters = 3, width = 320, height = 200, colourWidth = 640, colourHeight = 360;
  int framePeriodUs = 10000, alignDirection = 1;
  double timeLimit = 600.0;   // whole run, seconds
  double stallLimit = 30.0;   // seconds without a new depth frame while feeding
  double rssSlackMb = 24.0;   // allowed growth after warm-up; <= 0 reports only
};

// Host time stamps in nanoseconds; frame i was captured at kBase + i * kStep.
constexpr uint64_t kBase = 1700000000000000000ull;
constexpr uint64_t kStep = 33333333ull;
constexpr int kRenderedFrames = 8;

Options parseOptions(int argc, char** argv) {
  Options o;
  const std::pair<const char*, int*> ints[] = {{"--frames", &o.frames}, {"--getters", &o.getters},
                                               {"--width", &o.width}, {"--height", &o.height},
                                               {"--frame-period-us", &o.framePeriodUs},
                                               {"--align-direction", &o.alignDirection}};
  const std::pair<const char*, double*> reals[] = {
      {"--time-limit", &o.timeLimit}, {"--stall-limit", &o.stallLimit}, {"--rss-slack-mb", &o.rssSlackMb}};
  bool ok = argc % 2 == 1;
  for (int i = 1; ok && i + 1 < argc; i += 2) {
    const std::string name = argv[i];
    ok = false;
    for (const auto& [flag, field] : ints) if (name == flag) *field = std::atoi(argv[i + 1]), ok = true;
    for (const auto& [flag, field] : reals) if (name == flag) *field = std::atof(argv[i + 1]), ok = true;
  }
  if (!ok || o.frames < 1 || o.getters < 1 || o.width < 16 || o.height < 16) {
    std::fprintf(stderr,
                 "usage: %s [--frames N] [--getters N] [--width W] [--height H] [--frame-period-us US]\n"
                 "          [--align-direction 0|1] [--time-limit S] [--stall-limit S] [--rss-slack-mb MB]\n",
                 argv[0]);
    std::exit(2);
  }
  return o;
}

double residentMb() {
  long pages = 0, resident = 0;
  std::FILE* statm = std::fopen("/proc/self/statm", "r");
  if (statm == nullptr) return 0.0;
  if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = 0;
  std::fclose(statm);
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1024.0 * 1024.0);
}

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

long nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch()).count();
}

// What the feeders have handed over, what the getters have seen, and the failed checks.
struct Shared {
  // The flags are value-initialised: all zero.
  explicit Shared(int frames) : fed(static_cast<std::size_t>(frames)), seen(static_cast<std::size_t>(frames)) {}
  std::vector<std::atomic<uint8_t>> fed;   // set before the stereo feed of frame i
  std::vector<std::atomic<uint8_t>> seen;  // a getter read depth of frame i
  std::atomic<int> colourFed{0};           // colour frames and poses fed so far
  std::atomic<int> stereoFed{0};
  std::atomic<bool> feeding{true};
  std::atomic<bool> done{false};
  std::atomic<long> depthReads{0}, cloudReads{0}, cloudPoints{0}, rectifiedReads{0}, coordinateReads{0};
  std::atomic<long> lastProgressMs{0};
  std::atomic<int> failures{0};
  std::mutex printMutex;

  // A failed check: counted, and the first few printed.
  void fail(const std::string& what) {
    if (failures.fetch_add(1) >= 10) return;
    std::lock_guard<std::mutex> lock(printMutex);
    std::printf("soak: FAIL %s\n", what.c_str());
    std::fflush(stdout);
  }

  // Index of the fed frame that carries `timestamp`, or -1 (a failure named after `what`).
  int fedIndex(uint64_t timestamp, const char* what) {
    const uint64_t index = (timestamp - kBase) / kStep;
    if (timestamp >= kBase && (timestamp - kBase) % kStep == 0 && index < fed.size() && fed[index].load() != 0) {
      return static_cast<int>(index);
    }
    fail(std::string(what) + " time stamp " + std::to_string(timestamp) + " was never fed");
    return -1;
  }
};

struct Frames {
  std::vector<cv::Mat> stereo;  // grey stacked pairs
  std::vector<cv::Mat> colour;  // BGR views of the colour camera
  std::vector<Eigen::Isometry3d> poses;
};

// A header over the rendered pixels (shared, not copied), with this frame's tags.
LumoImage imageRecord(cv::Mat image, int frame) {
  LumoImage record = LumoTest::wrapStacked(image, kBase + static_cast<uint64_t>(frame) * kStep);
  record.tag0 = static_cast<uint32_t>(frame);
  record.tag1 = ~record.tag0;
  record.format = 7;
  return record;
}

void stereoFeeder(void* handle, const Options& options, const Frames& frames, Shared& shared) {
  const Clock::time_point start = Clock::now();
  for (int i = 0; i < options.frames; ++i) {
    // The colour camera and the tracker run a frame or two ahead.
    while (shared.colourFed.load() <= i && shared.colourFed.load() < options.frames) {
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    LumoImage record = imageRecord(frames.stereo[static_cast<std::size_t>(i % kRenderedFrames)], i);
    shared.fed[static_cast<std::size_t>(i)].store(1);
    if (KORV_LUMO_D_FeedStereoImage(handle, &record) != 0) shared.fail("stereo feed " + std::to_string(i));
    shared.stereoFed.store(i + 1);
    std::this_thread::sleep_until(start + std::chrono::microseconds(static_cast<int64_t>(options.framePeriodUs) * (i + 1)));
  }
}

void colourFeeder(void* handle, const Options& options, const Frames& frames, Shared& shared) {
  for (int i = 0; i < options.frames; ++i) {
    while (i > shared.stereoFed.load() + 2) std::this_thread::sleep_for(std::chrono::microseconds(100));
    const std::size_t slot = static_cast<std::size_t>(i % kRenderedFrames);
    LumoImage record = imageRecord(frames.colour[slot], i);
    if (KORV_LUMO_D_FeedRGBImage(handle, &record) != 0) shared.fail("colour feed " + std::to_string(i));

    const Eigen::Isometry3d& pose = frames.poses[slot];
    const Eigen::Quaterniond q(pose.rotation());
    const Eigen::Vector3d& t = pose.translation();
    LumoPose poseRecord{record.timestamp, {t.x(), t.y(), t.z()}, {q.w(), q.x(), q.y(), q.z()}, {}};
    if (KORV_LUMO_D_FeedPose(handle, &poseRecord) != 0) shared.fail("pose feed " + std::to_string(i));
    shared.colourFed.store(i + 1);
  }
}

// Calls every getter in turn until the run is over and checks what comes back.
void getter(void* handle, const Options& options, Shared& shared) {
  const std::size_t maxPixels = static_cast<std::size_t>(
      std::max(options.width * options.height, options.colourWidth * options.colourHeight));
  // Room for whatever the configuration hands out: depth at the colour camera's
  // size, the aligned colour image, the rectified stacked pair, a full cloud.
  std::vector<float> depthData(maxPixels), disparityData(maxPixels), cloudData(maxPixels * 3), coordinates(3 * 16);
  std::vector<uint8_t> alignedData(maxPixels * 3), rectifiedData(maxPixels * 3 * 2);
  const int maxPoints = static_cast<int>(maxPixels);
  std::vector<int> pixels;
  for (int k = 0; k < 16; ++k) pixels.insert(pixels.end(), {(k * 37) % options.width, (k * 23) % options.height});

  while (!shared.done.load()) {
    LumoDepthImage depth{}, disparity{};
    LumoImage aligned{};
    depth.data = depthData.data(), disparity.data = disparityData.data(), aligned.data = alignedData.data();
    if (KORV_LUMO_D_GetDepthImage(handle, &depth, &disparity, &aligned) == 0) {
      shared.depthReads.fetch_add(1);
      const int index = shared.fedIndex(depth.timestamp, "depth");
      if (index >= 0 && (depth.tag0 != static_cast<uint32_t>(index) || depth.tag1 != ~static_cast<uint32_t>(index))) {
        shared.fail("depth of frame " + std::to_string(index) + " carries another frame's tags");
      }
      const bool firstRead = index >= 0 && shared.seen[static_cast<std::size_t>(index)].exchange(1) == 0;
      if (firstRead) shared.lastProgressMs.store(nowMs());
      shared.fedIndex(disparity.timestamp, "disparity");
      const std::size_t pixelsOut = static_cast<std::size_t>(depth.width) * depth.height;
      if (pixelsOut == 0 || pixelsOut > maxPixels) {
        shared.fail("depth size " + std::to_string(depth.width) + "x" + std::to_string(depth.height));
      } else {
        const auto bad = std::find_if(depthData.begin(), depthData.begin() + static_cast<std::ptrdiff_t>(pixelsOut),
                                      [](float d) { return !(d >= 0.0f) || std::isinf(d); });
        if (bad != depthData.begin() + static_cast<std::ptrdiff_t>(pixelsOut)) {
          shared.fail("depth value " + std::to_string(*bad) + " at pixel " + std::to_string(bad - depthData.begin()));
        }
        if (KorvLumetra::KORV_LUMO_D_GetCoordinates(handle, pixels.data(), 16, &depth, coordinates.data()) == 0) {
          shared.coordinateReads.fetch_add(1);
        }
      }
    }

    LumoImage rectified{};
    rectified.data = rectifiedData.data();
    if (KORV_LUMO_D_GetRectifiedImage(handle, &rectified) == 0) {
      shared.rectifiedReads.fetch_add(1);
      shared.fedIndex(rectified.timestamp, "rectified");
    }

    LumoRectifyInfo info{};
    if (KORV_LUMO_D_GetRectifyInfo(handle, &info) != 0 || !(info.P1[0] > 0.0f)) shared.fail("rectify info");

    LumoMap map{};
    map.points = cloudData.data();
    if (KORV_LUMO_D_GetPointcloud(handle, &map, maxPoints) == 0 && map.num > 0) {
      shared.cloudReads.fetch_add(1);
      shared.cloudPoints.fetch_add(map.num);
      if (map.num > maxPoints) shared.fail("cloud of " + std::to_string(map.num) + " points");
      shared.fedIndex(map.timestamp, "cloud");
    }
    // A host's display loop: read, then give the pipeline the processor.
    std::this_thread::sleep_for(std::chrono::microseconds(500));
  }
}

std::string writeInputs(const std::string& dir, const Options& options, Frames& frames) {
  LumoSynth::Rig rig = LumoSynth::withColourCamera(LumoSynth::pinholeRig(options.width, options.height),
                                                   options.colourWidth, options.colourHeight);
  LumoSynth::writeCalibrationYaml(dir + "/calib.yaml", rig);
  const LumoSynth::Renderer renderer = LumoSynth::makeRenderer(rig, 1);
  const LumoSynth::Scene scene = LumoSynth::movingScene();
  for (int f = 0; f < kRenderedFrames; ++f) {
    frames.stereo.push_back(LumoSynth::toGrey(LumoSynth::renderStereo(renderer, scene, f)));
    frames.colour.push_back(LumoSynth::renderView(renderer, scene, f, 2));
    frames.poses.push_back(LumoSynth::leftPose(scene, f));
  }
  // Filters, alignment with the colour camera, world-frame clouds through the voxel filter.
  const std::string path = dir + "/config.yaml";
  LumoTest::HostConfig()
      .set("input_stereo_width", std::to_string(options.width))
      .set("input_stereo_height", std::to_string(options.height))
      .set("input_aux_cam_width", std::to_string(options.colourWidth))
      .set("input_aux_cam_height", std::to_string(options.colourHeight))
      .set("thread_num", "2").set("async_mode", "1").set("align_cam_id", "2")
      .set("align_direction", options.alignDirection != 0 ? "true" : "false")
      .set("enable_filter", "true").set("enable_voxel", "true").set("voxelSize", "0.05").set("pointcloud_type", "2")
      .write(path);
  return path;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parseOptions(argc, argv);
  char pattern[] = "/tmp/lumo_soak_XXXXXX";
  if (mkdtemp(pattern) == nullptr) {
    std::perror("mkdtemp");
    return 1;
  }
  const std::string dir = pattern;
  Frames frames;
  const std::string configPath = writeInputs(dir, options, frames);

  const Clock::time_point start = Clock::now();
  Shared shared(options.frames);
  std::atomic<int> phase{0};  // 0 running, 1 tearing down, 2 finished

  // The watchdog: a stalled pipeline or a hung teardown ends the process.
  shared.lastProgressMs.store(nowMs());
  std::thread watchdog([&] {
    while (phase.load() != 2) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      const bool stalled = phase.load() == 0 && shared.feeding.load() &&
                           static_cast<double>(nowMs() - shared.lastProgressMs.load()) > options.stallLimit * 1000.0;
      if (stalled || secondsSince(start) > options.timeLimit) {
        std::printf("soak: FAIL watchdog (%s) after %.1f s; %d stereo frames fed, phase %d\n",
                    stalled ? "no new depth frame" : "time limit", secondsSince(start), shared.stereoFed.load(),
                    phase.load());
        std::fflush(stdout);
        std::abort();
      }
    }
  });

  void* handle = nullptr;
  KORV_LUMO_D_CreateHandleWithConfig(&handle, configPath.c_str());
  const double rssStart = residentMb();

  std::vector<std::thread> threads;
  threads.emplace_back(colourFeeder, handle, std::cref(options), std::cref(frames), std::ref(shared));
  threads.emplace_back(stereoFeeder, handle, std::cref(options), std::cref(frames), std::ref(shared));
  for (int g = 0; g < options.getters; ++g) threads.emplace_back(getter, handle, std::cref(options), std::ref(shared));

  // Resident memory while the feeders run, sampled every 200 ms: (seconds, frames fed, MB).
  std::vector<std::tuple<double, int, double>> curve;
  const auto sample = [&] { curve.emplace_back(secondsSince(start), shared.stereoFed.load(), residentMb()); };
  while (shared.stereoFed.load() < options.frames) {
    sample();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  shared.feeding.store(false);
  // The last frames come through; a slow (sanitized) build gets up to a minute
  // for its first depth and cloud.
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const Clock::time_point drained = Clock::now();
  while ((shared.depthReads.load() == 0 || shared.cloudReads.load() == 0) && secondsSince(drained) < 60.0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  sample();
  shared.done.store(true);
  for (auto& thread : threads) thread.join();
  const double feedSeconds = secondsSince(start);

  phase.store(1);
  KORV_LUMO_D_DestroyHandle(handle);
  phase.store(2);
  watchdog.join();
  std::filesystem::remove_all(dir);

  int processed = 0;
  for (const auto& flag : shared.seen) processed += flag.load();

  // Warm-up: the first quarter of the run (rings, engine and OpenCV buffers fill).
  const std::size_t warm = curve.size() / 4;
  const double rssWarm = std::get<2>(curve[warm]);
  double rssPeak = rssWarm;
  for (std::size_t i = warm; i < curve.size(); ++i) rssPeak = std::max(rssPeak, std::get<2>(curve[i]));

  std::printf("soak: %d stereo frames fed at %dx%d, %d colour frames and poses at %dx%d, %.1f s\n",
              shared.stereoFed.load(), options.width, options.height, shared.colourFed.load(), options.colourWidth,
              options.colourHeight, feedSeconds);
  std::printf("soak: threads: 1 stereo feeder, 1 colour and pose feeder, %d getters; align direction %d\n",
              options.getters, options.alignDirection);
  std::printf("soak: %d frames processed (distinct depth frames read); reads: %ld depth, %ld rectified, "
              "%ld clouds (%ld points), %ld coordinate queries\n",
              processed, shared.depthReads.load(), shared.rectifiedReads.load(), shared.cloudReads.load(),
              shared.cloudPoints.load(), shared.coordinateReads.load());
  std::printf("soak: RSS curve (s, frames fed, MB):");
  const std::size_t stride = std::max<std::size_t>(1, curve.size() / 12);
  for (std::size_t i = 0; i < curve.size(); i += stride) {
    std::printf(" (%.1f, %d, %.1f)", std::get<0>(curve[i]), std::get<1>(curve[i]), std::get<2>(curve[i]));
  }
  std::printf(" (%.1f, %d, %.1f)\n", std::get<0>(curve.back()), std::get<1>(curve.back()), std::get<2>(curve.back()));
  std::printf("soak: RSS after creation %.1f MB, after warm-up %.1f MB, peak after warm-up %.1f MB, end %.1f MB\n",
              rssStart, rssWarm, rssPeak, std::get<2>(curve.back()));

  if (processed == 0) shared.fail("no depth frame was read");
  if (shared.cloudReads.load() == 0) shared.fail("no point cloud was read");
  if (options.rssSlackMb > 0.0 && rssPeak - rssWarm > options.rssSlackMb) {
    shared.fail("resident memory grew by " + std::to_string(rssPeak - rssWarm) + " MB after warm-up");
  }
  const int failed = shared.failures.load();
  std::printf("soak: %s (%d failed checks)\n", failed == 0 ? "OK" : "FAILED", failed);
  return failed == 0 ? 0 : 1;
}
