// Point clouds against a plain reference written from the design (ray table,
// sampling, limits, pose, voxels), the PCD dump, the cloud, pose and
// coordinate queries, and a rendered scene through the exported functions.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <ostream>
#include <random>
#include <regex>
#include <string>
#include <unordered_map>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "api/LumetraDepthHandle.h"
#include "pipeline/TwoMillionVoxelHash.h"
#include "support/CalibrationFixtures.h"
#include "synth/SyntheticStereo.h"

namespace KorvLumetra {
namespace {

using Access = StereoDepthTestAccess;
using LumoTest::TempDir;
using Point = std::array<float, 3>;
using Eigen::Quaterniond;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

// Answers the scale query only; with no result ever ready the result thread
// never touches the depth record the tests write.
class ScaleOnlyEngine : public StereoEngineBase {
 public:
  float scale = 1.0f;
  int status = 0;
  uint64_t getLatestTimestamp() const override { return 0; }
  bool isBusy() const override { return false; }
  bool isResultReady() const override { return false; }
  int getResult(float*, float*, std::array<int, 4>&, unsigned long long&) override { return 1; }
  int feedImage(LumoImage*) override { return 1; }
  int getImageScale(float* out) const override {
    *out = scale;
    return status;
  }
  bool isInitialized() const override { return true; }
};

// 640 x 400 input at 0.539063: working views of 345 x 215, odd both ways.
constexpr int kW = 345, kH = 215;

struct CloudPipeline {
  TempDir dir;
  StereoDepth pipeline;
  ScaleOnlyEngine* engine = nullptr;  // owned by the pipeline
};

std::unique_ptr<CloudPipeline> cloudPipeline(float engineScale = 1.0f) {
  auto p = std::make_unique<CloudPipeline>();
  LumoTest::ConfigOptions options;
  options.width = 640;
  options.height = 400;
  options.scaling = 0.539063f;
  EXPECT_EQ(LumoTest::configure(p->pipeline, p->dir, options, LumoTest::syntheticRig("radtan")), 0);
  EXPECT_EQ(Access::scaledSizes(p->pipeline)[0].width, kW);
  EXPECT_EQ(Access::scaledSizes(p->pipeline)[0].height, kH);
  auto engine = std::make_unique<ScaleOnlyEngine>();
  engine->scale = engineScale;
  p->engine = engine.get();
  p->pipeline.addEngine(std::move(engine));
  return p;
}

// Writes a depth result into the pipeline's record, as the result thread does.
void putDepth(StereoDepth& pipeline, int width, int height, const std::vector<float>& values, uint64_t stamp) {
  LumoDepthImage* record = Access::depthRecord(pipeline);
  record->timestamp = stamp;
  record->width = static_cast<uint32_t>(width);
  record->height = static_cast<uint32_t>(height);
  record->channels = 1;
  record->stride = record->width * 4;
  record->size = record->stride * record->height;
  std::memcpy(record->data, values.data(), values.size() * sizeof(float));
}

struct CloudSettings {
  int type = 0;
  float roi = 1.0f;
  int skip = 0;
  float nearest = 0.2f;
  float farthest = 3.0f;
  bool voxel = false;
  float voxelSize = 0.05f;
  float minPoints = 2.0f;
};

void apply(StereoDepth& pipeline, const CloudSettings& s) {
  Access::pointcloudType(pipeline) = s.type;
  Access::pointcloudROI(pipeline) = s.roi;
  Access::skipPoint(pipeline) = s.skip;
  Access::cloestDist(pipeline) = s.nearest;
  Access::farthestDist(pipeline) = s.farthest;
  Access::enableVoxel(pipeline) = s.voxel;
  Access::voxelSize(pipeline) = s.voxelSize;
  Access::minPoints(pipeline) = s.minPoints;
}

std::vector<Point> cloudOf(StereoDepth& pipeline) {
  const float* buffer = Access::pointBuffer(pipeline);
  std::vector<Point> cloud(static_cast<std::size_t>(Access::pointCount(pipeline)));
  for (std::size_t i = 0; i < cloud.size(); ++i) cloud[i] = {buffer[3 * i], buffer[3 * i + 1], buffer[3 * i + 2]};
  return cloud;
}

LumoPose makePose(uint64_t stamp, const Quaterniond& q, const Eigen::Vector3d& t) {
  LumoPose pose{};
  pose.timestamp = stamp;
  for (int i = 0; i < 3; ++i) pose.position[i] = t[i];
  const double wxyz[4] = {q.w(), q.x(), q.y(), q.z()};
  std::copy(wxyz, wxyz + 4, pose.orientation);
  return pose;
}

Quaterniond turn(double angle, const Eigen::Vector3d& axis) {
  return Quaterniond(Eigen::AngleAxisd(angle, axis.normalized()));
}

// The error line: local time to the millisecond, level, function, message.
testing::AssertionResult isErrorLine(const std::string& printed, const std::string& function,
                                     const std::string& message) {
  const std::regex line("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} \\[ ERROR\\] " + function + "\\(\\): " +
                        message + "\n");
  if (std::regex_match(printed, line)) return testing::AssertionSuccess();
  return testing::AssertionFailure() << "printed: \"" << printed << "\"";
}

// ---- Reference ----------------------------------------------------------

// Index i of an axis of n pixels inside the centred region of fraction r:
// bounds in single precision, truncated, the end exclusive.
bool inRegion(int i, int n, float r) {
  return i >= static_cast<int>(static_cast<float>(n) * (1.0f - r) * 0.5f) &&
         i < static_cast<int>(static_cast<float>(n) * (1.0f + r) * 0.5f);
}

struct Rays {
  int width, height;
  std::vector<float> xyz;
};

Rays referenceRays(StereoDepth& pipeline, float scale, int type, float roi) {
  const cv::Mat& P = Access::P1(pipeline);
  const cv::Mat& R = Access::R1(pipeline);
  Rays rays{static_cast<int>(std::roundf(kW * scale)), static_cast<int>(std::roundf(kH * scale)), {}};
  const float fx = static_cast<float>(P.at<double>(0, 0)) * scale, cx = static_cast<float>(P.at<double>(0, 2)) * scale;
  const float fy = static_cast<float>(P.at<double>(1, 1)) * scale, cy = static_cast<float>(P.at<double>(1, 2)) * scale;
  const float perU = 1.0f / fx, startU = -cx / fx, perV = 1.0f / fy, startV = -cy / fy;
  auto r = [&](int i, int j) { return static_cast<float>(R.at<double>(i, j)); };
  for (int v = 0; v < rays.height; ++v) {
    for (int u = 0; u < rays.width; ++u) {
      float x = 0.0f, y = 0.0f, z = 0.0f;
      if (inRegion(u, rays.width, roi) && inRegion(v, rays.height, roi)) {
        x = static_cast<float>(u) * perU + startU;
        y = static_cast<float>(v) * perV + startV;
        z = 1.0f;
      }
      if (type != 0) {  // by R1 transposed, zero rays too
        const float xr = r(0, 0) * x + r(1, 0) * y + r(2, 0) * z;
        const float yr = r(0, 1) * x + r(1, 1) * y + r(2, 1) * z;
        z = r(0, 2) * x + r(1, 2) * y + r(2, 2) * z;
        x = xr, y = yr;
      }
      rays.xyz.insert(rays.xyz.end(), {x, y, z});
    }
  }
  return rays;
}

// Nearest in time within 50,000,000 (signed difference), the first met on a tie.
const LumoPose* nearestPose(const std::vector<LumoPose>& ringOrder, uint64_t stamp) {
  const LumoPose* best = nullptr;
  int64_t bestGap = 0;
  for (const LumoPose& pose : ringOrder) {
    const int64_t gap = std::abs(static_cast<int64_t>(pose.timestamp) - static_cast<int64_t>(stamp));
    if (gap < 50000000 && (best == nullptr || gap < bestGap)) best = &pose, bestGap = gap;
  }
  return best;
}

std::vector<Point> referenceCloud(const Rays& rays, const std::vector<float>& depth, const CloudSettings& s,
                                  const LumoPose* pose) {
  std::vector<Point> cloud;
  for (int v = 0; v < rays.height; v += s.skip + 1) {
    for (int u = 0; u < rays.width; u += s.skip + 1) {
      if (!inRegion(u, rays.width, s.roi) || !inRegion(v, rays.height, s.roi)) continue;
      const std::size_t i = static_cast<std::size_t>(v) * rays.width + u;
      const float d = depth[i];
      if (d > s.farthest || d < s.nearest) continue;  // NaN stays
      cloud.push_back({rays.xyz[3 * i] * d, rays.xyz[3 * i + 1] * d, d * rays.xyz[3 * i + 2]});
    }
  }
  if (s.type == 2) {
    if (pose == nullptr) return {};
    const double w = pose->orientation[0], x = pose->orientation[1], y = pose->orientation[2],
                 z = pose->orientation[3];
    const double m[3][3] = {{1 - 2 * (y * y + z * z), 2 * (x * y - w * z), 2 * (x * z + w * y)},
                            {2 * (x * y + w * z), 1 - 2 * (x * x + z * z), 2 * (y * z - w * x)},
                            {2 * (x * z - w * y), 2 * (y * z + w * x), 1 - 2 * (x * x + y * y)}};
    for (Point& p : cloud) {
      const Point q = p;
      for (int r = 0; r < 3; ++r) {
        p[r] = static_cast<float>(m[r][0]) * q[0] + static_cast<float>(m[r][1]) * q[1] +
               static_cast<float>(m[r][2]) * q[2] + static_cast<float>(pose->position[r]);
      }
    }
  }
  if (!s.voxel) return cloud;
  std::map<std::array<int, 3>, int> counts;
  for (const Point& p : cloud) {
    std::array<int, 3> key;
    for (int k = 0; k < 3; ++k) key[k] = static_cast<int>(std::floor(p[k] / s.voxelSize));
    ++counts[key];
  }
  std::vector<Point> centres;
  for (const auto& cell : counts) {
    if (static_cast<float>(cell.second) < s.minPoints) continue;
    Point c;
    for (int k = 0; k < 3; ++k) c[k] = (static_cast<float>(cell.first[k]) + 0.5f) * s.voxelSize;
    centres.push_back(c);
  }
  return centres;
}

// Bit patterns, so that NaN and signed zeros compare exactly.
std::vector<std::array<uint32_t, 3>> bitsOf(const std::vector<Point>& cloud, bool sorted) {
  std::vector<std::array<uint32_t, 3>> bits(cloud.size());
  if (!cloud.empty()) std::memcpy(bits.data(), cloud.data(), cloud.size() * sizeof(Point));
  if (sorted) std::sort(bits.begin(), bits.end());
  return bits;
}

// Random depths across both limits, and near the centre, every fourth pixel
// of a row (sampled by every step used, inside every region): 0.2, 3.0, just
// below 0.2, just above 3.0, 0.1999, 3.0001, 0, -1, inf, NaN (or 1.5).
std::vector<float> testDepth(int width, int height, bool withNaN, uint32_t seed) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<float> metres(0.05f, 3.4f);
  std::vector<float> depth(static_cast<std::size_t>(width) * height);
  for (float& d : depth) d = metres(random);
  const float special[] = {0.2f, 3.0f, std::nextafter(0.2f, 0.0f), std::nextafter(3.0f, 4.0f), 0.1999f, 3.0001f,
                           0.0f, -1.0f, std::numeric_limits<float>::infinity(), withNaN ? kNaN : 1.5f};
  const int first = ((height / 2) & ~3) * width + ((width / 2) & ~3) - 20;
  for (int k = 0; k < 10; ++k) depth[first + 4 * k] = special[k];
  return depth;
}

// ---- Generation ---------------------------------------------------------

struct CloudCase {
  const char* name;
  float engineScale;
  CloudSettings settings;
};

void PrintTo(const CloudCase& c, std::ostream* out) { *out << c.name; }

class PointCloudReference : public testing::TestWithParam<CloudCase> {};

TEST_P(PointCloudReference, BitIdenticalToThePlainReference) {
  const CloudCase& c = GetParam();
  auto p = cloudPipeline(c.engineScale);
  StereoDepth& pipeline = p->pipeline;
  apply(pipeline, c.settings);
  const uint64_t stamp = 7000000000ull;
  const std::vector<LumoPose> poses = {makePose(stamp - 70000000, turn(0.3, {1, 0, 0}), {9, 9, 9}),
                                       makePose(stamp + 30000000, turn(-0.4, {0, 1, 0}), {-1, 2, 0.5}),
                                       makePose(stamp - 12000000, turn(0.7, {0.2, -0.5, 0.8}), {0.3, -1.2, 2.5}),
                                       makePose(stamp + 12000000, turn(1.1, {0, 0, 1}), {4, 4, 4})};
  for (LumoPose pose : poses) ASSERT_EQ(pipeline.feedPose(&pose), 0);
  const Rays rays = referenceRays(pipeline, c.engineScale, c.settings.type, c.settings.roi);
  const std::vector<float> depth = testDepth(rays.width, rays.height, !c.settings.voxel, 17);
  putDepth(pipeline, rays.width, rays.height, depth, stamp);

  pipeline.generatePointCloud();  // builds the table on first use
  ASSERT_EQ(Access::cloudPixelCount(pipeline), rays.xyz.size() / 3);
  EXPECT_EQ(std::memcmp(Access::rayTable(pipeline), rays.xyz.data(), rays.xyz.size() * sizeof(float)), 0);
  EXPECT_EQ(Access::cloudTimestamp(pipeline), stamp);
  const auto expected = bitsOf(referenceCloud(rays, depth, c.settings, nearestPose(poses, stamp)), c.settings.voxel);
  const auto actual = bitsOf(cloudOf(pipeline), c.settings.voxel);
  ASSERT_EQ(actual.size(), expected.size());
  const auto mismatch = std::mismatch(actual.begin(), actual.end(), expected.begin());
  EXPECT_TRUE(mismatch.first == actual.end()) << "first difference at point " << (mismatch.first - actual.begin());
}

// Settings: type, region, skip, near, far, voxel, voxel size, minimum points.
INSTANTIATE_TEST_SUITE_P(
    Settings, PointCloudReference,
    testing::Values(CloudCase{"Rectified", 1.0f, {0, 1.0f, 0}},
                    CloudCase{"RectifiedHalfEveryOther", 1.0f, {0, 0.5f, 1}},
                    CloudCase{"RectifiedRegionPastTheImageEveryFourth", 1.0f, {0, 1.7f, 3}},
                    CloudCase{"RectifiedNoRegion", 1.0f, {0, 0.0f, 0}},
                    CloudCase{"RectifiedVoxels", 1.0f, {0, 1.0f, 0, 0.2f, 3.0f, true, 0.05f, 3.0f}},
                    CloudCase{"CameraHalfEveryFourth", 1.0f, {1, 0.5f, 3}},
                    CloudCase{"CameraOddRegionVoxels", 1.0f, {1, 0.37f, 1, 0.2f, 3.0f, true, 0.02f, 2.0f}},
                    CloudCase{"CameraHalfScale", 0.5f, {1, 0.8f, 1}},
                    CloudCase{"WorldHalfVoxels", 1.0f, {2, 0.5f, 1, 0.2f, 3.0f, true, 0.1f, 1.0f}},
                    CloudCase{"WorldWideLimits", 1.0f, {2, 1.0f, 0, 0.0f, 100.0f}}),
    [](const testing::TestParamInfo<CloudCase>& info) { return std::string(info.param.name); });

// The reference covers the nearest pose and ties; here the edge of the time limit.
TEST(PointCloudGeneration, WorldCloudNeedsAPoseStrictlyWithinTheTimeLimit) {
  auto p = cloudPipeline();
  StereoDepth& pipeline = p->pipeline;
  // Zero depth with no near limit: every point is the origin, so a world
  // cloud holds only the chosen pose's translation, whose x names the pose.
  apply(pipeline, CloudSettings{2, 1.0f, 7, 0.0f, 10.0f});
  const uint64_t stamp = 5000000000ull;
  putDepth(pipeline, kW, kH, std::vector<float>(kW * kH, 0.0f), stamp);
  auto cloudAfter = [&](uint64_t poseStamp, double x) {
    LumoPose pose = makePose(poseStamp, Quaterniond::Identity(), {x, 0.5, -0.25});
    EXPECT_EQ(pipeline.feedPose(&pose), 0);
    pipeline.generatePointCloud();
    return cloudOf(pipeline);
  };
  pipeline.generatePointCloud();
  EXPECT_EQ(Access::pointCount(pipeline), 0);  // no pose at all
  EXPECT_TRUE(cloudAfter(stamp - 50000000, 1).empty());
  EXPECT_TRUE(cloudAfter(stamp + 50000000, 2).empty());
  const std::vector<Point> expected(44 * 27, Point{3.0f, 0.5f, -0.25f});  // ceil(345/8) x ceil(215/8)
  EXPECT_EQ(cloudAfter(stamp - 49999999, 3), expected);
}

TEST(PointCloudGeneration, VoxelHashPacksTwentyOneBitsPerAxis) {
  const TwoMillionVoxelHash hash;
  EXPECT_EQ(hash({1, 2, 3}), (std::size_t{1} << 42) | (std::size_t{2} << 21) | 3u);
  EXPECT_EQ(hash({-1, 0, -2}), (std::size_t{0x1FFFFF} << 42) | 0x1FFFFEu);
  // Keys 2^21 apart share a hash and are still two cells.
  std::unordered_map<VoxelKey, int, TwoMillionVoxelHash> cells{{{5, 7, 9}, 1}, {{5 + 2097152, 7, 9 - 2097152}, 1}};
  EXPECT_EQ(hash({5, 7, 9}), hash({5 + 2097152, 7, 9 - 2097152}));
  EXPECT_EQ(cells.size(), 2u);
}

TEST(PointCloudGeneration, NoTableOfTheDepthSizeKeepsThePreviousCloud) {
  auto p = cloudPipeline();
  StereoDepth& pipeline = p->pipeline;
  p->engine->status = 1;  // the scale query fails: no table
  putDepth(pipeline, kW, kH, std::vector<float>(kW * kH, 1.0f), 10);
  EXPECT_EQ(pipeline.initPointcloudLUT(), 1u);
  std::string printed = LumoTest::captureStdout([&] { pipeline.generatePointCloud(); });
  EXPECT_TRUE(isErrorLine(printed, "generatePointCloud", "pointcloud LUT size mismatch"));
  EXPECT_EQ(Access::pointCount(pipeline), 0);

  p->engine->status = 0;
  pipeline.generatePointCloud();
  ASSERT_EQ(Access::pointCount(pipeline), kW * kH);
  putDepth(pipeline, kW - 1, kH, std::vector<float>((kW - 1) * kH, 2.0f), 11);
  printed = LumoTest::captureStdout([&] { pipeline.generatePointCloud(); });
  EXPECT_TRUE(isErrorLine(printed, "generatePointCloud", "pointcloud LUT size mismatch"));
  EXPECT_EQ(Access::pointCount(pipeline), kW * kH);
  EXPECT_EQ(Access::cloudTimestamp(pipeline), 10u);
}

std::string textOf(const std::string& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string pcdHeader(std::size_t points) {
  const std::string n = std::to_string(points);
  return "# .PCD v0.7 - Point Cloud Data file format\nVERSION 0.7\nFIELDS x y z\nSIZE 4 4 4\nTYPE F F F\n"
         "COUNT 1 1 1\nWIDTH " + n + "\nHEIGHT 1\nVIEWPOINT 0 0 0 1 0 0 0\nPOINTS " + n + "\nDATA ascii\n";
}

TEST(PointCloudGeneration, PcdDumpHoldsTheCloud) {
  auto p = cloudPipeline();
  StereoDepth& pipeline = p->pipeline;
  apply(pipeline, CloudSettings{1, 1.0f, 3});
  Access::debugImage(pipeline) = 1;
  Access::debugImgSavePath(pipeline) = p->dir.path();
  putDepth(pipeline, kW, kH, testDepth(kW, kH, false, 5), 12345678901234567890ull);  // printed unsigned
  pipeline.generatePointCloud();
  const std::vector<Point> cloud = cloudOf(pipeline);
  ASSERT_GT(cloud.size(), 1000u);
  std::string expected = pcdHeader(cloud.size());
  for (const Point& point : cloud) {
    char line[96];
    std::snprintf(line, sizeof(line), "%f %f %f\n", point[0], point[1], point[2]);
    expected += line;
  }
  EXPECT_EQ(textOf(p->dir.file("debug_pointcloud_12345678901234567890.pcd")), expected);
  // An empty cloud still gets a whole header.
  Access::pointcloudROI(pipeline) = 0.0f;
  ASSERT_EQ(pipeline.initPointcloudLUT(), 0u);
  Access::depthRecord(pipeline)->timestamp = 77;
  pipeline.generatePointCloud();
  EXPECT_EQ(textOf(p->dir.file("debug_pointcloud_77.pcd")), pcdHeader(0));
  // An unwritable directory costs the file, silently, not the cloud.
  Access::pointcloudROI(pipeline) = 1.0f;
  ASSERT_EQ(pipeline.initPointcloudLUT(), 0u);
  Access::debugImgSavePath(pipeline) = p->dir.file("missing");
  EXPECT_EQ(LumoTest::captureStdout([&] { pipeline.generatePointCloud(); }), "");
  EXPECT_GT(Access::pointCount(pipeline), 0);
}

// ---- Queries ------------------------------------------------------------

TEST(PointCloudQuery, CopiesAtMostMaxPointsAndRefusesBadRequests) {
  auto p = cloudPipeline();
  StereoDepth& pipeline = p->pipeline;
  apply(pipeline, CloudSettings{1});
  putDepth(pipeline, kW, kH, testDepth(kW, kH, false, 8), 4242);
  pipeline.generatePointCloud();
  const int available = Access::pointCount(pipeline);
  ASSERT_GT(available, 10);

  std::vector<float> points(3 * available + 3, -7.0f);
  LumoMap map{};
  map.type = 5;
  map.points = points.data();
  EXPECT_EQ(pipeline.getPointcloud(&map, 10), 1u);  // copied, but no depth result counted yet
  EXPECT_EQ(map.num, 10);
  EXPECT_EQ(map.type, 0);
  EXPECT_EQ(map.timestamp, 4242u);
  EXPECT_EQ(std::memcmp(points.data(), Access::pointBuffer(pipeline), 30 * sizeof(float)), 0);
  EXPECT_EQ(points[30], -7.0f);
  Access::depthResultCount(pipeline) = 1;
  EXPECT_EQ(pipeline.getPointcloud(&map, available + 1), 0u);
  EXPECT_EQ(map.num, available);
  EXPECT_EQ(std::memcmp(points.data(), Access::pointBuffer(pipeline), 3 * available * sizeof(float)), 0);

  LumoMap noBuffer{};
  map.num = 99;
  auto refuses = [&](LumoMap* target, int maxPoints, const char* message) {
    unsigned int status = 0;
    const std::string printed = LumoTest::captureStdout([&] { status = pipeline.getPointcloud(target, maxPoints); });
    EXPECT_EQ(status, 1u) << message;
    EXPECT_TRUE(isErrorLine(printed, "getPointcloud", message));
    EXPECT_EQ(map.num, 99);
  };
  refuses(nullptr, 10, "allocate memory before calling");
  refuses(nullptr, 0, "allocate memory before calling");
  refuses(&noBuffer, 10, "allocate memory before calling");
  refuses(&map, 0, "maxPoints should be larger than 0");
  refuses(&map, -3, "maxPoints should be larger than 0");
  Access::pointcloudROI(pipeline) = 0.0f;  // a cloud of no points
  ASSERT_EQ(pipeline.initPointcloudLUT(), 0u);
  pipeline.generatePointCloud();
  refuses(&map, 10, "point cloud data is empty");
}

TEST(PointCloudQuery, PoseRingKeepsTheLatestTwoHundredWholePoses) {
  auto p = cloudPipeline();
  StereoDepth& pipeline = p->pipeline;
  for (uint64_t i = 1; i <= 201; ++i) {
    LumoPose pose = makePose(i, Quaterniond::Identity(), {static_cast<double>(i), 0, 0});
    pose.reserved[0] = static_cast<uint8_t>(i);
    pose.reserved[7] = 0xA5;
    ASSERT_EQ(pipeline.feedPose(&pose), 0);
  }
  LumoUtils::LumoPoseRing& ring = Access::poseRing(pipeline);
  EXPECT_EQ(ring.size(), 200u);
  EXPECT_EQ(ring.at(0)->timestamp, 2u);  // the first was overwritten
  EXPECT_EQ(ring.at(199)->position[0], 201.0);
  EXPECT_EQ(ring.at(199)->reserved[0], 201);
  EXPECT_EQ(ring.at(199)->reserved[7], 0xA5);

  Access::moduleEnabled(pipeline) = 0;
  LumoPose refused = makePose(500, Quaterniond::Identity(), {0, 0, 0});
  int status = 0;
  const std::string printed = LumoTest::captureStdout([&] { status = pipeline.feedPose(&refused); });
  EXPECT_EQ(status, 1);
  EXPECT_TRUE(isErrorLine(printed, "feedPose", "depth module is not enabled"));
  EXPECT_EQ(ring.at(199)->timestamp, 201u);
}

struct PixelCase {
  int u, v;
  int index;  // into the depth image and the coordinate table; -1: (0, 0, 0)
};

// 640 x 400 input matched at half size; restore_depth_dim decides the table's size.
void expectCoordinates(int restoreDepthDim, int width, int height, const std::vector<PixelCase>& cases) {
  TempDir dir;
  StereoDepth pipeline;
  LumoTest::ConfigOptions options;
  options.width = 640;
  options.height = 400;
  options.scaling = 0.5f;
  options.restoreDepthDim = restoreDepthDim;
  ASSERT_EQ(LumoTest::configure(pipeline, dir, options, LumoTest::syntheticRig("radtan")), 0);
  ASSERT_EQ(Access::scaleRatios(pipeline)[0], 0.5f);
  const std::vector<float>& table = Access::depthLut(pipeline);
  ASSERT_EQ(table.size(), 2u * width * height);

  // Distinct depths, so that a wrong index shows; a zero, a negative and a NaN.
  std::vector<float> data(width * height);
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = 0.5f + static_cast<float>(i % 9973) * 1e-3f;
  data[100 * width + 7] = 0.0f;
  data[100 * width + 8] = -2.0f;
  data[100 * width + 9] = kNaN;
  LumoDepthImage depth{};
  depth.width = static_cast<uint32_t>(width);
  depth.height = static_cast<uint32_t>(height);
  depth.channels = 1;
  depth.data = data.data();

  std::vector<int> pixels;
  for (const PixelCase& c : cases) pixels.insert(pixels.end(), {c.u, c.v});
  std::vector<float> out(3 * cases.size(), -9.0f);
  ASSERT_EQ(pipeline.getCoordinates2Ext(pixels.data(), static_cast<int>(cases.size()), &depth, out.data()), 0u);
  for (std::size_t k = 0; k < cases.size(); ++k) {
    const int i = cases[k].index;
    const float d = i >= 0 ? data[i] : 0.0f;
    const Point expected = d > 0.0f ? Point{table[2 * i] * d, table[2 * i + 1] * d, d} : Point{0, 0, 0};
    EXPECT_EQ((Point{out[3 * k], out[3 * k + 1], out[3 * k + 2]}), expected)
        << "pixel " << cases[k].u << "," << cases[k].v;
  }
  const int pair[2] = {1, 1};
  EXPECT_EQ(pipeline.getCoordinates2Ext(pair, 0, &depth, out.data()), 0u);  // nothing asked
}

TEST(PointCloudQuery, CoordinatesOfRestoredAndOfInputPositions) {
  {
    SCOPED_TRACE("restored: by row and column");
    expectCoordinates(1, 640, 400,
                      {{0, 0, 0}, {639, 399, 399 * 640 + 639}, {17, 233, 233 * 640 + 17}, {233, 17, 17 * 640 + 233},
                       {640, 0, -1}, {0, 400, -1}, {-1, 5, -1}, {5, -1, -1}, {7, 100, 100 * 640 + 7},
                       {8, 100, 100 * 640 + 8}, {9, 100, 100 * 640 + 9}});
  }
  // Input positions scale the whole row offset. (101, 37): column trunc(50.5) = 50
  // plus trunc(320·37·0.5) = 5920 gives 5970, row 18 column 210, where scaling
  // the row alone would give 18·320 + 50. (100, 36): 50 + 5760. (638, 398):
  // 319 + 63680 = 63999, the last pixel. (335, 199): 167 + 31840 = 32007, the
  // zero depth at row 100 column 7, and (16, 200): 8 + 32000, the negative one.
  SCOPED_TRACE("input positions");
  expectCoordinates(0, 320, 200,
                    {{101, 37, 5970}, {100, 36, 5810}, {638, 398, 63999}, {335, 199, 32007}, {16, 200, 32008},
                     {640, 0, -1}, {0, 400, -1}, {-1, 5, -1}, {5, -1, -1}});
}

// ---- The rendered scene through the exported functions ------------------

class Host {
 public:
  Host(const LumoTest::HostConfig& config, const LumoSynth::Rig& rig) {
    LumoSynth::writeCalibrationYaml(dir_.file("calib.yaml"), rig);
    config.write(dir_.file("config.yaml"));
    LumoTest::captureStdout(
        [&] { status_ = ::KORV_LUMO_D_CreateHandleWithConfig(&handle_, dir_.file("config.yaml").c_str()); });
  }
  ~Host() { ::KORV_LUMO_D_DestroyHandle(handle_); }
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;
  void* handle() const { return handle_; }
  int status() const { return status_; }
  StereoDepth& pipeline() const { return *static_cast<LumetraDepthHandle*>(handle_)->depth; }

  int feed(const cv::Mat& grey, uint64_t stamp) {
    LumoImage frame{};
    frame.timestamp = stamp;
    frame.width = static_cast<uint32_t>(grey.cols);
    frame.height = static_cast<uint32_t>(grey.rows);
    frame.channels = 1;
    frame.stride = frame.width;
    frame.size = frame.stride * frame.height;
    frame.data = grey.data;
    return ::KORV_LUMO_D_FeedStereoImage(handle_, &frame);
  }

  std::vector<Point> cloud(int capacity, int* status, LumoMap* map) {
    std::vector<Point> points(static_cast<std::size_t>(capacity));
    *map = LumoMap{};
    map->points = points[0].data();
    *status = ::KORV_LUMO_D_GetPointcloud(handle_, map, capacity);
    points.resize(*status == 0 ? static_cast<std::size_t>(map->num) : 0);
    return points;
  }

 private:
  TempDir dir_;
  void* handle_ = nullptr;
  int status_ = -1;
};

TEST(PointCloudScene, BackWallLiesOnItsPlaneAndMovesWithThePose) {
  const LumoSynth::Rig rig = LumoSynth::pinholeRig(640, 400);
  const LumoSynth::Scene scene = LumoSynth::defaultScene();
  cv::Mat grey;
  cv::cvtColor(LumoSynth::renderStereo(LumoSynth::makeRenderer(rig, 2), scene, 0), grey, cv::COLOR_BGR2GRAY);
  // Every other pixel and no effective limit: point i is pixel (2·(i mod 320), 2·(i div 320)).
  const auto config = [](const char* type) {
    return LumoTest::HostConfig().set("skip_point", "1").set("cloest_dist", "0").set("farthest_dist", "1e6").set(
        "pointcloud_type", type);
  };
  Host camera(config("1"), rig), world(config("2"), rig);
  ASSERT_EQ(camera.status(), 0);
  ASSERT_EQ(world.status(), 0);

  // The nearest pose turns by 90° about Y, (x, y, z) → (z, y, −x), and shifts.
  const uint64_t stamp = 5000000000ull;
  const Eigen::Vector3d shift(0.5, -0.25, 2.0);
  for (LumoPose pose : {makePose(stamp - 40000000, Quaterniond::Identity(), {9, 9, 9}),
                        makePose(stamp + 1000, turn(CV_PI / 2, {0, 1, 0}), shift),
                        makePose(stamp + 60000000, Quaterniond::Identity(), {0, 0, 0})}) {
    ASSERT_EQ(::KORV_LUMO_D_FeedPose(world.handle(), &pose), 0);
  }
  ASSERT_EQ(camera.feed(grey, stamp), 0);  // synchronous: the cloud is there on return
  ASSERT_EQ(world.feed(grey, stamp), 0);
  int status = 1;
  LumoMap map{};
  const std::vector<Point> inCamera = camera.cloud(640 * 400, &status, &map);
  ASSERT_EQ(status, 0);
  EXPECT_EQ(map.timestamp, stamp);
  ASSERT_EQ(inCamera.size(), 320u * 200u);
  const std::vector<Point> inWorld = world.cloud(640 * 400, &status, &map);
  ASSERT_EQ(inWorld.size(), 320u * 200u);

  // True surface points in the left camera's frame, and the pixels (eroded)
  // whose surface is the back wall z = 5.5.
  const LumoSynth::Rectification rect = LumoSynth::rectification(rig, 1.0);
  const cv::Mat truth = LumoSynth::rectifiedDepth(rect, scene, 0);
  const cv::Matx33d toLeft = cv::Matx33d(reinterpret_cast<const double*>(rect.R1.data)).t();
  const cv::Matx34d P(reinterpret_cast<const double*>(rect.P1.data));
  cv::Mat wall(truth.size(), CV_8U, cv::Scalar(0));
  cv::Mat_<cv::Vec3d> surface(truth.size());
  for (int v = 0; v < truth.rows; ++v) {
    for (int u = 0; u < truth.cols; ++u) {
      const double z = truth.at<float>(v, u);
      surface(v, u) = toLeft * cv::Vec3d((u - P(0, 2)) / P(0, 0) * z, (v - P(1, 2)) / P(1, 1) * z, z);
      wall.at<uint8_t>(v, u) = z > 0.0 && std::fabs(surface(v, u)[2] - 5.5) < 1e-3 ? 255 : 0;
    }
  }
  cv::erode(wall, wall, cv::Mat::ones(7, 7, CV_8U));

  double cameraSum = 0.0, worldSum = 0.0, worstAngle = 0.0;
  int wallPoints = 0;
  for (std::size_t i = 0; i < inCamera.size(); ++i) {
    const int u = 2 * static_cast<int>(i % 320), v = 2 * static_cast<int>(i / 320);
    const Point& p = inCamera[i];
    const Point& q = inWorld[i];
    // The same depth in both handles; the world cloud is the camera cloud moved.
    const Point moved{p[2] + 0.5f, p[1] - 0.25f, -p[0] + 2.0f};
    for (int k = 0; k < 3; ++k) ASSERT_NEAR(q[k], moved[k], 1e-5 * (1.0 + std::fabs(moved[k]))) << "point " << i;
    if (p[2] <= 0.0f || truth.at<float>(v, u) <= 0.0f) continue;
    // Whatever the matched depth, a point lies on the ray of its pixel's true surface point.
    const cv::Vec3d measured(p[0], p[1], p[2]);
    const cv::Vec3d& actual = surface(v, u);
    worstAngle = std::max(worstAngle, cv::norm(measured.cross(actual)) / (cv::norm(measured) * cv::norm(actual)));
    if (wall.at<uint8_t>(v, u) == 0) continue;
    ++wallPoints;
    cameraSum += (p[2] - 5.5) * (p[2] - 5.5);
    worldSum += (q[0] - 6.0) * (q[0] - 6.0);
  }
  ASSERT_GT(wallPoints, 5000);
  const double cameraRms = std::sqrt(cameraSum / wallPoints), worldRms = std::sqrt(worldSum / wallPoints);
  std::printf("back wall: %d points, RMS distance to z = 5.5 (left camera) %.4f m, to x = 6.0 (world) %.4f m; "
              "largest ray angle %.2e rad\n",
              wallPoints, cameraRms, worldRms, worstAngle);
  EXPECT_LT(worstAngle, 1e-5);  // R1 left out would be 0.55° ≈ 1e-2
  // Disparity there is about 8.7 px; 0.3 px of matching error is 3.5% of the distance.
  EXPECT_LT(cameraRms, 0.2);
  EXPECT_LT(worldRms, 0.2);

  // Coordinates of the depth handed out, through the exported query.
  std::vector<float> depthData(640 * 400);
  LumoDepthImage depth{};
  depth.data = depthData.data();
  ASSERT_EQ(::KORV_LUMO_D_GetDepthImage(camera.handle(), &depth, nullptr, nullptr), 0);
  const int pixels[] = {320, 200, 101, 57, -1, 5, 640, 10};
  std::vector<float> out(12, -9.0f);
  ASSERT_EQ(KORV_LUMO_D_GetCoordinates(camera.handle(), pixels, 4, &depth, out.data()), 0);
  const std::vector<float>& table = Access::depthLut(camera.pipeline());
  for (int k = 0; k < 2; ++k) {
    const int i = pixels[2 * k + 1] * 640 + pixels[2 * k];
    const float d = depthData[i];
    ASSERT_GT(d, 0.0f);
    EXPECT_EQ((Point{out[3 * k], out[3 * k + 1], out[3 * k + 2]}), (Point{table[2 * i] * d, table[2 * i + 1] * d, d}));
  }
  EXPECT_EQ(std::vector<float>(out.begin() + 6, out.end()), std::vector<float>(6, 0.0f));

  // A later frame with no pose near it (the only one is exactly at the limit) has no world cloud.
  LumoPose boundary = makePose(stamp + 1050000000, Quaterniond::Identity(), {0, 0, 0});
  ASSERT_EQ(::KORV_LUMO_D_FeedPose(world.handle(), &boundary), 0);
  ASSERT_EQ(world.feed(grey, stamp + 1000000000), 0);
  const std::string printed = LumoTest::captureStdout([&] { world.cloud(100, &status, &map); });
  EXPECT_EQ(status, 1);
  EXPECT_TRUE(isErrorLine(printed, "getPointcloud", "point cloud data is empty"));
}

}  // namespace
}  // namespace KorvLumetra
