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
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <Eigen/Geometry>
#include <opencv2/core.hpp>

#include "lumetra_depth.h"
#include "support/ShiftedPair.h"
#include "synth/SyntheticStereo.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
  int frames = 3000;
  int getters = 3;
  int width = 320;
  int height = 200;
  int colourWidth = 640;
  int colourHeight = 360;
  int framePeriodUs = 10000;
  int alignDirection = 1;
  double timeLimit = 600.0;   // whole run, seconds
  double stallLimit = 30.0;   // seconds without a new depth frame while feeding
  double rssSlackMb = 24.0;   // allowed growth after warm-up; <= 0 reports only
};

// Host time stamps in nanoseconds; frame i was captured at kBase + i * kStep.
constexpr uint64_t kBase = 1700000000000000000ull;
constexpr uint64_t kStep = 33333333ull;
constexpr int kRenderedFrames = 8;

[[noreturn]] void usage(const char* program) {
  std::fprintf(stderr,
               "usage: %s [--frames N] [--getters N] [--width W] [--height H] [--frame-period-us US]\n"
               "          [--align-direction 0|1] [--time-limit S] [--stall-limit S] [--rss-slack-mb MB]\n",
               program);
  std::exit(2);
}

Options parseOptions(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string name = argv[i];
    if (i + 1 >= argc) usage(argv[0]);
    const char* value = argv[++i];
    if (name == "--frames") options.frames = std::atoi(value);
    else if (name == "--getters") options.getters = std::atoi(value);
    else if (name == "--width") options.width = std::atoi(value);
    else if (name == "--height") options.height = std::atoi(value);
    else if (name == "--frame-period-us") options.framePeriodUs = std::atoi(value);
    else if (name == "--align-direction") options.alignDirection = std::atoi(value);
    else if (name == "--time-limit") options.timeLimit = std::atof(value);
    else if (name == "--stall-limit") options.stallLimit = std::atof(value);
    else if (name == "--rss-slack-mb") options.rssSlackMb = std::atof(value);
    else usage(argv[0]);
  }
  if (options.frames < 1 || options.getters < 1 || options.width < 16 || options.height < 16) usage(argv[0]);
  return options;
}

double residentMb() {
  long pages = 0, resident = 0;
  std::FILE* statm = std::fopen("/proc/self/statm", "r");
  if (statm == nullptr) return 0.0;
  if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = 0;
  std::fclose(statm);
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1024.0 * 1024.0);
}

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// A failed check: counted, and the first few printed.
class Failures {
 public:
  void add(const std::string& what) {
    const int n = count_.fetch_add(1) + 1;
    if (n <= 10) {
      std::lock_guard<std::mutex> lock(printMutex_);
      std::printf("soak: FAIL %s\n", what.c_str());
      std::fflush(stdout);
    }
  }
  int count() const { return count_.load(); }

 private:
  std::atomic<int> count_{0};
  std::mutex printMutex_;
};

// What the feeders have handed over, and what the getters have seen.
struct Shared {
  explicit Shared(int frames) : fed(static_cast<std::size_t>(frames)), seen(static_cast<std::size_t>(frames)) {
    for (auto& flag : fed) flag.store(0);
    for (auto& flag : seen) flag.store(0);
  }
  std::vector<std::atomic<uint8_t>> fed;   // set before the stereo feed of frame i
  std::vector<std::atomic<uint8_t>> seen;  // a getter read depth of frame i
  std::atomic<int> colourFed{0};           // colour frames and poses fed so far
  std::atomic<int> stereoFed{0};
  std::atomic<bool> feeding{true};
  std::atomic<bool> done{false};
  std::atomic<long> depthReads{0}, cloudReads{0}, cloudPoints{0}, rectifiedReads{0}, coordinateReads{0};
  std::atomic<long> lastProgressMs{0};
  Failures failures;

  // Index of the fed frame that carries `timestamp`, or -1.
  int fedIndex(uint64_t timestamp) const {
    if (timestamp < kBase || (timestamp - kBase) % kStep != 0) return -1;
    const uint64_t index = (timestamp - kBase) / kStep;
    if (index >= fed.size() || fed[index].load() == 0) return -1;
    return static_cast<int>(index);
  }
};

struct Frames {
  std::vector<cv::Mat> stereo;  // grey stacked pairs
  std::vector<cv::Mat> colour;  // BGR views of the colour camera
  std::vector<Eigen::Isometry3d> poses;
};

// A header over the rendered pixels (shared, not copied), with this frame's tags.
LumoImage imageRecord(cv::Mat image, uint64_t timestamp, uint32_t tag0) {
  LumoImage record = LumoTest::wrapStacked(image, timestamp);
  record.tag0 = tag0;
  record.tag1 = ~tag0;
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
    const cv::Mat& image = frames.stereo[static_cast<std::size_t>(i % kRenderedFrames)];
    LumoImage record = imageRecord(image, kBase + static_cast<uint64_t>(i) * kStep, static_cast<uint32_t>(i));
    shared.fed[static_cast<std::size_t>(i)].store(1);
    if (KORV_LUMO_D_FeedStereoImage(handle, &record) != 0) shared.failures.add("stereo feed " + std::to_string(i));
    shared.stereoFed.store(i + 1);
    std::this_thread::sleep_until(start + std::chrono::microseconds(static_cast<int64_t>(options.framePeriodUs) * (i + 1)));
  }
}

void colourFeeder(void* handle, const Options& options, const Frames& frames, Shared& shared) {
  for (int i = 0; i < options.frames; ++i) {
    while (i > shared.stereoFed.load() + 2) std::this_thread::sleep_for(std::chrono::microseconds(100));
    const uint64_t timestamp = kBase + static_cast<uint64_t>(i) * kStep;
    const std::size_t slot = static_cast<std::size_t>(i % kRenderedFrames);
    LumoImage record = imageRecord(frames.colour[slot], timestamp, static_cast<uint32_t>(i));
    if (KORV_LUMO_D_FeedRGBImage(handle, &record) != 0) shared.failures.add("colour feed " + std::to_string(i));

    const Eigen::Isometry3d& pose = frames.poses[slot];
    const Eigen::Quaterniond q(pose.rotation());
    LumoPose poseRecord{};
    poseRecord.timestamp = timestamp;
    for (int k = 0; k < 3; ++k) poseRecord.position[k] = pose.translation()[k];
    poseRecord.orientation[0] = q.w();
    poseRecord.orientation[1] = q.x();
    poseRecord.orientation[2] = q.y();
    poseRecord.orientation[3] = q.z();
    if (KORV_LUMO_D_FeedPose(handle, &poseRecord) != 0) shared.failures.add("pose feed " + std::to_string(i));
    shared.colourFed.store(i + 1);
  }
}

// Calls every getter in turn until the run is over and checks what comes back.
void getter(void* handle, const Options& options, Shared& shared) {
  const std::size_t maxPixels = static_cast<std::size_t>(
      std::max(options.width * options.height, options.colourWidth * options.colourHeight));
  // Room for whatever the configuration hands out: depth at the colour camera's
  // size, the aligned colour image, the rectified stacked pair, a full cloud.
  std::unique_ptr<float[]> depthData(new float[maxPixels]);
  std::unique_ptr<float[]> disparityData(new float[maxPixels]);
  std::unique_ptr<uint8_t[]> alignedData(new uint8_t[maxPixels * 3]);
  std::unique_ptr<uint8_t[]> rectifiedData(new uint8_t[maxPixels * 3 * 2]);
  std::unique_ptr<float[]> cloudData(new float[maxPixels * 3]);
  const int maxPoints = static_cast<int>(maxPixels);
  std::vector<int> pixels;
  std::vector<float> coordinates(3 * 16);
  for (int k = 0; k < 16; ++k) {
    pixels.push_back((k * 37) % options.width);
    pixels.push_back((k * 23) % options.height);
  }

  while (!shared.done.load()) {
    LumoDepthImage depth{}, disparity{};
    LumoImage aligned{};
    depth.data = depthData.get();
    disparity.data = disparityData.get();
    aligned.data = alignedData.get();
    if (KORV_LUMO_D_GetDepthImage(handle, &depth, &disparity, &aligned) == 0) {
      shared.depthReads.fetch_add(1);
      const int index = shared.fedIndex(depth.timestamp);
      if (index < 0) {
        shared.failures.add("depth time stamp " + std::to_string(depth.timestamp) + " was never fed");
      } else {
        if (depth.tag0 != static_cast<uint32_t>(index) || depth.tag1 != ~static_cast<uint32_t>(index)) {
          shared.failures.add("depth of frame " + std::to_string(index) + " carries another frame's tags");
        }
        if (shared.seen[static_cast<std::size_t>(index)].exchange(1) == 0) {
          shared.lastProgressMs.store(
              std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch()).count());
        }
      }
      if (shared.fedIndex(disparity.timestamp) < 0) {
        shared.failures.add("disparity time stamp " + std::to_string(disparity.timestamp) + " was never fed");
      }
      const std::size_t pixelsOut = static_cast<std::size_t>(depth.width) * depth.height;
      if (pixelsOut == 0 || pixelsOut > maxPixels) {
        shared.failures.add("depth size " + std::to_string(depth.width) + "x" + std::to_string(depth.height));
      } else {
        for (std::size_t p = 0; p < pixelsOut; ++p) {
          const float d = depthData[p];
          if (!(d >= 0.0f) || std::isinf(d)) {
            shared.failures.add("depth value " + std::to_string(d) + " at pixel " + std::to_string(p));
            break;
          }
        }
        if (KorvLumetra::KORV_LUMO_D_GetCoordinates(handle, pixels.data(), 16, &depth, coordinates.data()) == 0) {
          shared.coordinateReads.fetch_add(1);
        }
      }
    }

    LumoImage rectified{};
    rectified.data = rectifiedData.get();
    if (KORV_LUMO_D_GetRectifiedImage(handle, &rectified) == 0) {
      shared.rectifiedReads.fetch_add(1);
      if (shared.fedIndex(rectified.timestamp) < 0) {
        shared.failures.add("rectified time stamp " + std::to_string(rectified.timestamp) + " was never fed");
      }
    }

    LumoRectifyInfo info{};
    if (KORV_LUMO_D_GetRectifyInfo(handle, &info) != 0 || !(info.P1[0] > 0.0f)) {
      shared.failures.add("rectify info");
    }

    LumoMap map{};
    map.points = cloudData.get();
    if (KORV_LUMO_D_GetPointcloud(handle, &map, maxPoints) == 0 && map.num > 0) {
      shared.cloudReads.fetch_add(1);
      shared.cloudPoints.fetch_add(map.num);
      if (map.num > maxPoints) shared.failures.add("cloud of " + std::to_string(map.num) + " points");
      if (shared.fedIndex(map.timestamp) < 0) {
        shared.failures.add("cloud time stamp " + std::to_string(map.timestamp) + " was never fed");
      }
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

  const std::string path = dir + "/config.yaml";
  std::ofstream config(path);
  config << "enable_module: 1\nmodel_path: \"\"\ncalib_path: calib.yaml\n"
         << "input_stereo_width: " << options.width << "\ninput_stereo_height: " << options.height << "\n"
         << "stereo_img_scaling: 1.0\n"
         << "input_aux_cam_width: " << options.colourWidth << "\ninput_aux_cam_height: " << options.colourHeight
         << "\naux_cam_scaling: 1.0\nthread_num: 2\nasync_mode: 1\nalign_cam_id: 2\n"
         << "align_direction: " << (options.alignDirection != 0 ? "true" : "false") << "\n"
         << "enable_filter: true\nwls_filter: false\ndepth_mode: 0\nenable_voxel: true\nvoxelSize: 0.05\n"
         << "minPoints: 1\npointcloud_type: 2\npointcloud_ROI: 1.0\nskip_point: 0\nfarthest_dist: 10\n"
         << "cloest_dist: 0.1\nrestore_depth_dim: 1\ndebug_image: 0\ndebug_img_save_path: /tmp\n";
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
  std::thread watchdog([&] {
    shared.lastProgressMs.store(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch()).count());
    while (phase.load() != 2) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      const long nowMs =
          std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch()).count();
      const char* reason = nullptr;
      if (secondsSince(start) > options.timeLimit) reason = "time limit";
      if (phase.load() == 0 && shared.feeding.load() &&
          static_cast<double>(nowMs - shared.lastProgressMs.load()) > options.stallLimit * 1000.0) {
        reason = "no new depth frame";
      }
      if (reason != nullptr) {
        std::printf("soak: FAIL watchdog (%s) after %.1f s; %d stereo frames fed, phase %d\n", reason,
                    secondsSince(start), shared.stereoFed.load(), phase.load());
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

  // Resident memory while the feeders run, sampled every 200 ms.
  std::vector<std::pair<double, double>> curve;  // (seconds, MB)
  std::vector<int> curveFrames;
  while (shared.stereoFed.load() < options.frames) {
    curve.emplace_back(secondsSince(start), residentMb());
    curveFrames.push_back(shared.stereoFed.load());
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
  curve.emplace_back(secondsSince(start), residentMb());
  curveFrames.push_back(shared.stereoFed.load());
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
  const double rssWarm = curve[warm].second;
  double rssPeak = rssWarm;
  for (std::size_t i = warm; i < curve.size(); ++i) rssPeak = std::max(rssPeak, curve[i].second);
  const double rssEnd = curve.back().second;

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
    std::printf(" (%.1f, %d, %.1f)", curve[i].first, curveFrames[i], curve[i].second);
  }
  std::printf(" (%.1f, %d, %.1f)\n", curve.back().first, curveFrames.back(), curve.back().second);
  std::printf("soak: RSS after creation %.1f MB, after warm-up %.1f MB, peak after warm-up %.1f MB, end %.1f MB\n",
              rssStart, rssWarm, rssPeak, rssEnd);

  if (processed == 0) shared.failures.add("no depth frame was read");
  if (shared.cloudReads.load() == 0) shared.failures.add("no point cloud was read");
  if (options.rssSlackMb > 0.0 && rssPeak - rssWarm > options.rssSlackMb) {
    shared.failures.add("resident memory grew by " + std::to_string(rssPeak - rssWarm) + " MB after warm-up");
  }
  const int failed = shared.failures.count();
  std::printf("soak: %s (%d failed checks)\n", failed == 0 ? "OK" : "FAILED", failed);
  return failed == 0 ? 0 : 1;
}
