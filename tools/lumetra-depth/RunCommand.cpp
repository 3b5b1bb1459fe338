// run: feeds a sequence to the library frame by frame, as a host does, and
// writes what comes back: depth, pictures of it, the rectified pair, point
// clouds and aligned colour; then a summary of speed and coverage.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <Eigen/Geometry>

#include "AslCalibration.h"
#include "AtomicWrite.h"
#include "CloudFiles.h"
#include "Commands.h"
#include "ConfigCheck.h"
#include "ConfigFile.h"
#include "DepthFiles.h"
#include "DepthHandle.h"
#include "FrameSource.h"
#include "HeldOutput.h"
#include "Images.h"
#include "Options.h"
#include "Poses.h"
#include "Progress.h"
#include "ToolError.h"
#include "Trajectory.h"
#include "VoxelMap.h"
#include "lumetra_depth.h"

namespace LumoTool {

namespace {

const char* const kHelp =
    "usage: lumetra-depth run CONFIG INPUT --out DIR [options]\n"
    "\n"
    "Feeds every frame of INPUT to a handle made from CONFIG and writes, per frame N\n"
    "(six digits; for a recording, its nanosecond time stamp):\n"
    "  depth_N.tiff           depth, 32-bit float, the calibration's unit, 0 = none\n"
    "  depth_N.png            the same, 16-bit, millimetres (calibration in metres)\n"
    "  depth_colour_N.png     depth in colour, near red to far blue, with its range\n"
    "  rectified_N.png        the rectified pair side by side with horizontal guide lines\n"
    "  cloud_N.pcd, .ply      the library's point cloud, binary (see --cloud-every)\n"
    "  aligned_colour_N.png   with alignment on (align_cam_id != -1): the colour image\n"
    "  aligned_overlay_N.png  registered with depth, and depth over it\n"
    "\n"
    "INPUT is one of:\n"
    "  a folder of stacked frames (frame_000000.png, ... or any images in name\n"
    "    order), left view above right view or side by side; colour_N.png beside\n"
    "    them feed the colour camera, poses.txt the tracker poses\n"
    "  LEFTDIR,RIGHTDIR: two folders of single views, paired in name order\n"
    "  a video file of stacked frames\n"
    "  a recording in the EuRoC-style layout: mav0/ (or the folder holding it) with\n"
    "    cam0/data.csv and cam1/data.csv ('#timestamp [ns],filename' rows) and the\n"
    "    images in cam0/data/, cam1/data/; views are paired by time stamp\n"
    "\n"
    "A recorded frame is fed with its nanosecond time stamp, frame N of other inputs\n"
    "with N * 1000000 + 1. Each feed waits for its depth\n"
    "(in asynchronous mode the program polls for it), so latency is the time from\n"
    "feeding a frame to holding its depth. The summary ends with the disk space\n"
    "the files written took.\n"
    "\n"
    "options:\n"
    "  --out DIR          output folder (created)\n"
    "  --limit N          at most N frames\n"
    "  --cloud-every N    write the point cloud of every Nth frame (default 30; 0: none)\n"
    "  --ascii-pcd        PCD clouds as text, as the library's debug dump writes them\n"
    "  --range NEAR,FAR   depth range of the colour pictures in metres (default: from\n"
    "                     the first frame with depth, kept for the whole sequence)\n"
    "  --layout L         stacked or side-by-side: how the two views lie in the images\n"
    "                     of a folder or a video (default: either, told by the size)\n"
    "  --poses FILE       the body's trajectory: the data sets' ground-truth CSV\n"
    "                     (timestamp, p_x, p_y, p_z, q_w, q_x, q_y, q_z, ...) or text lines\n"
    "                     't x y z qx qy qz qw' (seconds or nanoseconds); interpolated\n"
    "                     at each frame's time, moved to the left camera through cam0's\n"
    "                     T_cam_imu when the calibration has one, fed before the frame;\n"
    "                     needs pointcloud_type: 2 (clouds in the world frame)\n"
    "  --map FILE.ply     fuse the world-frame clouds of all frames into one map (a\n"
    "                     point per voxel, the mean of its points), binary PLY\n"
    "  --map-voxel M      edge of the map's voxels in metres (default 0.02)\n";

constexpr int kWaitMilliseconds = 5000;

LumoImage imageRecord(const cv::Mat& image, uint64_t timestamp) {
  LumoImage record{};
  record.timestamp = timestamp;
  record.width = static_cast<uint32_t>(image.cols);
  record.height = static_cast<uint32_t>(image.rows);
  record.channels = static_cast<uint32_t>(image.channels());
  record.stride = record.width * record.channels;
  record.size = record.stride * record.height;
  record.data = image.data;
  return record;
}

// The frame as the library takes it: W x 2H, left view on top; grey, or
// three channels in red-green-blue order.
cv::Mat stackedFrame(const Frame& frame, const Settings& s, Layout layout) {
  cv::Mat stacked;
  const bool isStacked = frame.image.cols == s.width && frame.image.rows == 2 * s.height;
  const bool isSideBySide = frame.image.cols == 2 * s.width && frame.image.rows == s.height;
  if ((layout == Layout::Stacked && !isStacked) || (layout == Layout::SideBySide && !isSideBySide)) {
    const bool side = layout == Layout::SideBySide;
    throw ToolError("'" + frame.name + "' is " + std::to_string(frame.image.cols) + "x" +
                    std::to_string(frame.image.rows) + "; --layout " + (side ? "side-by-side" : "stacked") +
                    " with two " + std::to_string(s.width) + "x" + std::to_string(s.height) + " views wants " +
                    std::to_string(side ? 2 * s.width : s.width) + "x" +
                    std::to_string(side ? s.height : 2 * s.height));
  }
  if (isStacked) {
    stacked = frame.image;
  } else if (isSideBySide) {
    cv::vconcat(frame.image(cv::Rect(0, 0, s.width, s.height)), frame.image(cv::Rect(s.width, 0, s.width, s.height)),
                stacked);
  } else {
    throw ToolError("'" + frame.name + "' is " + std::to_string(frame.image.cols) + "x" +
                    std::to_string(frame.image.rows) + "; the configuration wants two " + std::to_string(s.width) +
                    "x" + std::to_string(s.height) + " views stacked or side by side");
  }
  if (stacked.channels() == 1) return stacked.isContinuous() ? stacked : stacked.clone();
  cv::Mat rgb;
  cv::cvtColor(stacked, rgb, cv::COLOR_BGR2RGB);
  return rgb;
}

std::string numbered(const std::string& dir, const char* prefix, const std::string& label, const char* extension) {
  return (std::filesystem::path(dir) / (prefix + label + extension)).string();
}

void writeImage(const std::string& path, const cv::Mat& image) {
  writeAtomically(path, [&](const std::string& partial) {
    if (!cv::imwrite(partial, image)) throw ToolError("cannot write '" + path + "'");
  });
}

Layout parseLayout(const std::string& text) {
  if (text == "stacked") return Layout::Stacked;
  if (text == "side-by-side") return Layout::SideBySide;
  throw UsageError("--layout takes stacked or side-by-side, not '" + text + "'");
}

LumoPose poseRecord(const Eigen::Isometry3d& T_world_left) {
  const Eigen::Quaterniond q(T_world_left.linear());
  LumoPose pose{};
  for (int i = 0; i < 3; ++i) pose.position[i] = T_world_left.translation()[i];
  pose.orientation[0] = q.w();
  pose.orientation[1] = q.x();
  pose.orientation[2] = q.y();
  pose.orientation[3] = q.z();
  return pose;
}

// Bytes of the files a run wrote, by kind, for the summary.
struct DiskUse {
  enum Kind { Depth, Pictures, Clouds };
  std::uintmax_t bytes[3] = {0, 0, 0};
  int files = 0;
  void add(Kind kind, const std::string& path) {
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(path, error);
    if (error) return;
    bytes[kind] += size;
    ++files;
  }
  std::uintmax_t total() const { return bytes[Depth] + bytes[Pictures] + bytes[Clouds]; }
};

double megabytes(std::uintmax_t bytes) { return static_cast<double>(bytes) / 1e6; }

DepthRange parseRange(const std::string& text) {
  DepthRange range;
  char tail = 0;
  if (std::sscanf(text.c_str(), "%f,%f%c", &range.nearest, &range.farthest, &tail) != 2 || !range.valid() ||
      range.nearest < 0.0f) {
    throw UsageError("--range takes NEAR,FAR in metres with NEAR < FAR, not '" + text + "'");
  }
  return range;
}

double percentile(std::vector<double> values, double share) {
  if (values.empty()) return 0.0;
  const std::size_t k = static_cast<std::size_t>(share * static_cast<double>(values.size() - 1) + 0.5);
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(k), values.end());
  return values[k];
}

// Caller-owned buffers for everything the library hands out, sized for the
// largest image the configuration can produce.
struct Buffers {
  explicit Buffers(const Settings& s) {
    const auto pixels = [](int w, int h) { return static_cast<std::size_t>(std::max(w, 0)) * std::max(h, 0); };
    const int auxWorkingW = static_cast<int>(static_cast<float>(s.auxWidth) * s.auxScale);
    const int auxWorkingH = static_cast<int>(static_cast<float>(s.auxHeight) * s.auxScale);
    const std::size_t most = std::max({pixels(s.width, s.height), pixels(s.workingWidth, s.workingHeight),
                                       pixels(s.auxWidth, s.auxHeight), pixels(auxWorkingW, auxWorkingH)});
    depth.resize(most);
    aligned.resize(most * 3);
    rectified.resize(pixels(s.workingWidth, 2 * s.workingHeight) * 3);
    cloudCapacity = static_cast<int>(pixels(s.workingWidth, s.workingHeight));
    cloud.resize(static_cast<std::size_t>(cloudCapacity) * 3);
  }
  std::vector<float> depth;
  std::vector<uint8_t> aligned, rectified;
  std::vector<float> cloud;
  int cloudCapacity = 0;
};

// The library's error messages during a run: how many, and the first.
struct LibraryMessages {
  int count = 0;
  std::string first;
  void note(const std::string& printed) {
    for (const std::string& message : DepthHandle::errorMessages(printed)) {
      if (count++ == 0) first = message;
    }
  }
};

}  // namespace

int runCommand(const Args& args) {
  const Options options(args, {"out", "limit", "cloud-every", "range", "layout", "poses", "map", "map-voxel"},
                        {"ascii-pcd"});
  if (options.help()) {
    std::fputs(kHelp, stdout);
    return 0;
  }
  options.expectPositional(2, "CONFIG and INPUT");
  if (!options.has("out")) throw UsageError("missing --out DIR");
  const std::string configPath = options.positional()[0], input = options.positional()[1];
  const std::string outDir = options.text("out");
  const int limit = options.integer("limit", 0, 0, 1 << 30);
  const int cloudEvery = options.integer("cloud-every", 30, 0, 1 << 30);
  const PcdData pcdData = options.has("ascii-pcd") ? PcdData::Ascii : PcdData::Binary;
  DepthRange range = options.has("range") ? parseRange(options.text("range")) : DepthRange{};
  const Layout layout = options.has("layout") ? parseLayout(options.text("layout")) : Layout::Either;
  const std::string mapPath = options.text("map");
  const double mapVoxel = options.real("map-voxel", 0.02, 0.001, 10.0);

  // Everything that would end this process inside the library, or give no depth, is refused first.
  const ConfigFile config = ConfigFile::load(configPath);
  const Settings s = Settings::from(config);
  const std::string blocking = firstBlocking(checkConfiguration(config));
  if (!blocking.empty()) throw ToolError("cannot use '" + configPath + "': " + blocking);

  FrameSource source(input);
  if (layout != Layout::Either && !source.singleImages()) {
    throw UsageError("--layout is for folders of images and video files, not for '" + input + "'");
  }
  const bool feedColour = s.aligned() && s.alignCamera >= 2;
  std::map<int, LumoPose> poses;
  if (s.pointcloudType == 2 && !source.posesPath().empty() && !options.has("poses")) {
    poses = readPoses(source.posesPath());
  }

  // Body poses become left-camera poses through the IMU's place on the rig.
  std::unique_ptr<Trajectory> trajectory;
  Eigen::Isometry3d bodyFromLeft = Eigen::Isometry3d::Identity();
  bool throughImu = false;
  int withoutPose = 0;
  if (options.has("poses")) {
    if (s.pointcloudType != 2) {
      throw ToolError("--poses places clouds in the world only with pointcloud_type: 2, and '" + configPath +
                      "' has " + std::to_string(s.pointcloudType));
    }
    trajectory = std::make_unique<Trajectory>(Trajectory::read(options.text("poses")));
    Eigen::Matrix4d T_cam_imu;
    throughImu = leftCameraFromImu(s.calibPath, &T_cam_imu);
    if (throughImu) bodyFromLeft.matrix() = T_cam_imu.inverse();
    const std::vector<uint64_t> stamps = source.timestamps();
    Eigen::Isometry3d unused;
    if (!stamps.empty() && std::none_of(stamps.begin(), stamps.end(),
                                        [&](uint64_t t) { return trajectory->at(t, &unused); })) {
      throw ToolError("the poses in '" + options.text("poses") + "' cover none of the " +
                      std::to_string(stamps.size()) + " frames (poses from " + std::to_string(trajectory->first()) +
                      " to " + std::to_string(trajectory->last()) + " ns, frames from " +
                      std::to_string(stamps.front()) + " to " + std::to_string(stamps.back()) + " ns)");
    }
  }
  if (!mapPath.empty() && (s.pointcloudType != 2 || (!trajectory && poses.empty()))) {
    throw ToolError("--map fuses world-frame clouds: it needs pointcloud_type: 2 in '" + configPath +
                    "' and poses (--poses FILE)");
  }
  VoxelMap voxelMap(mapVoxel);

  std::error_code error;
  std::filesystem::create_directories(outDir, error);
  if (error) throw ToolError("cannot create '" + outDir + "': " + error.message());

  DepthHandle handle(configPath);
  if (!handle.errors().empty()) throw ToolError("cannot use '" + configPath + "': " + handle.errors().front());

  Buffers buffers(s);
  const int total = limit > 0 && (source.count() < 0 || source.count() > limit) ? limit : source.count();
  Progress progress(total);
  std::vector<double> latencies;
  double coverageSum = 0.0;
  int done = 0, dropped = 0, clouds = 0, missingColour = 0;
  DiskUse disk;
  const auto write = [&](DiskUse::Kind kind, const std::string& path, const cv::Mat& image) {
    writeImage(path, image);
    disk.add(kind, path);
  };
  LibraryMessages messages;
  bool resizedColour = false;
  const auto started = std::chrono::steady_clock::now();

  Frame frame;
  while ((limit == 0 || done + dropped < limit) && source.next(frame)) {
    const uint64_t timestamp =
        frame.timestamp != 0 ? frame.timestamp : static_cast<uint64_t>(frame.number) * 1000000ull + 1ull;
    const cv::Mat stacked = stackedFrame(frame, s, layout);
    cv::Mat colour;
    if (feedColour) {
      colour = source.colour(frame.number);
      if (colour.empty()) {
        // Without its colour frame the library never finishes this depth.
        ++missingColour;
        ++dropped;
        continue;
      }
      if (colour.cols != s.auxWidth || colour.rows != s.auxHeight) {
        cv::resize(colour, colour, cv::Size(s.auxWidth, s.auxHeight), 0, 0, cv::INTER_LINEAR);
        resizedColour = true;
      }
      if (colour.channels() == 3) cv::cvtColor(colour, colour, cv::COLOR_BGR2RGB);
    }
    const auto numberedPose = poses.find(frame.number);
    bool posed = numberedPose != poses.end();
    LumoPose poseToFeed = posed ? numberedPose->second : LumoPose{};
    if (trajectory) {
      Eigen::Isometry3d T_world_body;
      posed = trajectory->at(timestamp, &T_world_body);
      if (posed) poseToFeed = poseRecord(T_world_body * bodyFromLeft);
      withoutPose += !posed;
    }
    // The library's error lines would break the progress bar; they are counted for the summary.
    HeldOutput held(STDOUT_FILENO);

    // Library calls, timed from the first feed until this frame's depth is in hand.
    const auto t0 = std::chrono::steady_clock::now();
    if (posed) {
      poseToFeed.timestamp = timestamp;
      KORV_LUMO_D_FeedPose(handle.get(), &poseToFeed);
    }
    if (feedColour) {
      LumoImage record = imageRecord(colour, timestamp);
      KORV_LUMO_D_FeedRGBImage(handle.get(), &record);
    }
    LumoImage record = imageRecord(stacked, timestamp);
    LumoDepthImage depth{};
    depth.data = buffers.depth.data();
    LumoImage aligned{};
    aligned.data = buffers.aligned.data();
    bool ok = KORV_LUMO_D_FeedStereoImage(handle.get(), &record) == 0;
    // A synchronous feed has waited for this frame's depth already; in
    // asynchronous mode poll until the depth handed out is this frame's.
    const auto deadline = t0 + std::chrono::milliseconds(kWaitMilliseconds);
    while (ok) {
      if (KORV_LUMO_D_GetDepthImage(handle.get(), &depth, nullptr, s.aligned() ? &aligned : nullptr) == 0 &&
          depth.timestamp == timestamp) {
        break;
      }
      if (std::chrono::steady_clock::now() > deadline) ok = false;
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    const auto t1 = std::chrono::steady_clock::now();
    if (!ok) {
      messages.note(held.finish());
      ++dropped;
      progress.update(done + dropped, "(no depth for " + frame.name + ")");
      continue;
    }
    latencies.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());

    const cv::Mat metres(static_cast<int>(depth.height), static_cast<int>(depth.width), CV_32FC1, depth.data);
    coverageSum += static_cast<double>(cv::countNonZero(metres > 0.0f)) / static_cast<double>(metres.total());
    if (!range.valid()) range = depthRangeOf(metres);
    const std::string tiff = numbered(outDir, "depth_", frame.label, ".tiff");
    const std::string png = numbered(outDir, "depth_", frame.label, ".png");
    writeAtomically(tiff, [&](const std::string& partial) { writeDepthTiff(partial, metres); });
    writeAtomically(png, [&](const std::string& partial) { writeDepthPng(partial, metres); });
    disk.add(DiskUse::Depth, tiff);
    disk.add(DiskUse::Depth, png);
    write(DiskUse::Pictures, numbered(outDir, "depth_colour_", frame.label, ".png"), colouriseDepth(metres, range));

    LumoImage rectified{};
    rectified.data = buffers.rectified.data();
    if (KORV_LUMO_D_GetRectifiedImage(handle.get(), &rectified) == 0) {
      cv::Mat bgr;
      cv::cvtColor(cv::Mat(static_cast<int>(rectified.height), static_cast<int>(rectified.width), CV_8UC3,
                           rectified.data),
                   bgr, cv::COLOR_RGB2BGR);
      write(DiskUse::Pictures, numbered(outDir, "rectified_", frame.label, ".png"),
            sideBySideWithGuides(bgr, std::max(16, bgr.rows / 12)));
    }

    if (s.aligned() && aligned.width > 0) {
      const int type = aligned.channels == 1 ? CV_8UC1 : CV_8UC3;
      cv::Mat picture(static_cast<int>(aligned.height), static_cast<int>(aligned.width), type, aligned.data);
      if (aligned.channels == 3) cv::cvtColor(picture, picture, cv::COLOR_RGB2BGR);
      write(DiskUse::Pictures, numbered(outDir, "aligned_colour_", frame.label, ".png"), picture);
      if (picture.size() == metres.size()) {
        write(DiskUse::Pictures, numbered(outDir, "aligned_overlay_", frame.label, ".png"),
              overlayDepth(picture, metres, range));
      }
    }

    const bool cloudDue = cloudEvery > 0 && done % cloudEvery == 0;
    if (cloudDue || (!mapPath.empty() && posed)) {
      LumoMap map{};
      map.points = buffers.cloud.data();
      const bool got =
          KORV_LUMO_D_GetPointcloud(handle.get(), &map, buffers.cloudCapacity) == 0 && map.timestamp == timestamp;
      if (got && !mapPath.empty() && posed) voxelMap.add(map.points, map.num);
      if (got && cloudDue) {
        const std::string pcd = numbered(outDir, "cloud_", frame.label, ".pcd");
        const std::string ply = numbered(outDir, "cloud_", frame.label, ".ply");
        writeAtomically(pcd, [&](const std::string& partial) { writePcd(partial, map.points, map.num, pcdData); });
        writeAtomically(ply, [&](const std::string& partial) { writePly(partial, map.points, map.num); });
        disk.add(DiskUse::Clouds, pcd);
        disk.add(DiskUse::Clouds, ply);
        ++clouds;
      }
    }
    messages.note(held.finish());
    ++done;
    char note[64];
    std::snprintf(note, sizeof(note), "%.1f ms", latencies.back());
    progress.update(done + dropped, note);
  }
  const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  progress.finish();

  if (done == 0) {
    throw ToolError(missingColour > 0 ? "alignment is on but '" + input + "' has no colour_N.png for its frames"
                                      : "no depth for any frame of '" + input + "'");
  }
  if (!mapPath.empty() && voxelMap.size() == 0) {
    throw ToolError("no world-frame points for the map: no frame had both depth and a pose");
  }
  if (!mapPath.empty()) voxelMap.writePly(mapPath);
  double busy = 0.0;
  for (double ms : latencies) busy += ms;
  std::printf("lumetra-depth run: %s -> %s\n", source.describe().c_str(), outDir.c_str());
  std::printf("  frames             %d with depth", done);
  if (dropped > 0) std::printf(", %d without (%d lacked a colour frame)", dropped, missingColour);
  std::printf("\n");
  if (source.recording()) {
    std::printf("  time stamps        nanoseconds from the recording, in the output names\n");
    if (source.unpairedLeft() + source.unpairedRight() > 0) {
      std::printf("  unpaired views     %d of cam0 and %d of cam1 without the other camera's time stamp, skipped\n",
                  source.unpairedLeft(), source.unpairedRight());
    }
  }
  std::printf("  throughput         %.1f frames/s in the library, %.1f frames/s with file output\n",
              1000.0 * done / busy, done / wall);
  std::printf("  latency            median %.1f ms, 95th percentile %.1f ms (%s feed until depth)\n",
              percentile(latencies, 0.5), percentile(latencies, 0.95), s.asyncMode ? "asynchronous" : "synchronous");
  std::printf("  pixels with depth  %.1f %% (mean over frames)\n", 100.0 * coverageSum / done);
  std::printf("  depth pictures     %.2f m (red) to %.2f m (blue)\n", range.nearest, range.farthest);
  std::printf("  point clouds       %d written (pointcloud_type %d)\n", clouds, s.pointcloudType);
  std::printf("  disk space         %.1f MB in %d files: depth %.1f MB, pictures %.1f MB, point clouds %.1f MB\n",
              megabytes(disk.total()), disk.files, megabytes(disk.bytes[DiskUse::Depth]),
              megabytes(disk.bytes[DiskUse::Pictures]), megabytes(disk.bytes[DiskUse::Clouds]));
  if (messages.count > 0) {
    std::printf("  library messages   %d, the first: %s\n", messages.count, messages.first.c_str());
  }
  if (trajectory) {
    std::printf("  poses              %d frames placed by %s%s, %d without a pose\n", done + dropped - withoutPose,
                options.text("poses").c_str(),
                throughImu ? " (body poses through cam0's T_cam_imu)" : " (taken as left-camera poses: no T_cam_imu)",
                withoutPose);
  }
  if (!mapPath.empty()) {
    const std::array<float, 6> e = voxelMap.extent();
    std::printf("  map                %zu points in %.1f cm voxels -> %s\n", voxelMap.size(), 100.0 * mapVoxel,
                mapPath.c_str());
    std::printf("  map extent         x %.2f to %.2f, y %.2f to %.2f, z %.2f to %.2f\n", e[0], e[3], e[1], e[4], e[2],
                e[5]);
  }
  if (s.pointcloudType == 2 && poses.empty() && !trajectory) {
    std::printf("  note               no poses.txt beside the frames: world-frame clouds stay empty\n");
  }
  if (resizedColour) std::printf("  note               colour frames resized to the configured colour camera size\n");
  return 0;
}

}  // namespace LumoTool
