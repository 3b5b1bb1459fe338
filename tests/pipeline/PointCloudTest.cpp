// Point clouds against a plain reference (rays, sampling, limits, pose, voxels),
// the PCD dump, the queries, and a rendered scene through the exported functions.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
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

#include "pipeline/TwoMillionVoxelHash.h"
#include "support/FeedAndWait.h"
#include "support/CalibrationFixtures.h"
#include "support/ShiftedPair.h"
#include "synth/SyntheticStereo.h"

namespace KorvLumetra {
namespace {

using Access = StereoDepthTestAccess;
using Point = std::array<float, 3>;

// Answers the scale query only: no result is ever ready to overwrite the tests' depth.
class ScaleOnlyEngine : public StereoEngineBase {
 public:
  float scale = 1.0f;
  int status = 0;
  uint64_t getLatestTimestamp() const override { return 0; }
  bool isBusy() const override { return false; }
  bool isResultReady() const override { return false; }
  int getResult(float*, float*, std::array<int, 4>&, unsigned long long&) override { return 1; }
  int feedImage(LumoImage*) override { return 1; }
  int getImageScale(float* out) const override { return *out = scale, status; }
  bool isInitialized() const override { return true; }
};

// 640 x 400 input at 0.539063: working views of 345 x 215, odd both ways.
constexpr int kW = 345, kH = 215;

struct CloudSettings {  // type, region, skip, near, far, voxel, voxel size, minimum points
  int type = 0; float roi = 1.0f; int skip = 0; float nearest = 0.2f, farthest = 3.0f;
  bool voxel = false; float voxelSize = 0.05f, minPoints = 2.0f;
};

struct CloudPipeline {
  LumoTest::TempDir dir;
  StereoDepth pipeline;
  ScaleOnlyEngine* engine = nullptr;  // owned by the pipeline

  explicit CloudPipeline(const CloudSettings& s = {}, float engineScale = 1.0f) {
    const LumoTest::ConfigOptions options{640, 400, 0.539063f};  // input size, working scale
    EXPECT_EQ(LumoTest::configure(pipeline, dir, options, LumoTest::syntheticRig("radtan")), 0);
    auto owned = std::make_unique<ScaleOnlyEngine>();
    owned->scale = engineScale;
    engine = owned.get();
    pipeline.addEngine(std::move(owned));
    Access::pointcloudType(pipeline) = s.type, Access::pointcloudROI(pipeline) = s.roi;
    Access::skipPoint(pipeline) = s.skip, Access::enableVoxel(pipeline) = s.voxel;
    Access::cloestDist(pipeline) = s.nearest, Access::farthestDist(pipeline) = s.farthest;
    Access::voxelSize(pipeline) = s.voxelSize, Access::minPoints(pipeline) = s.minPoints;
  }

  // Writes a depth result into the pipeline's record, as the result thread does.
  void putDepth(int width, int height, const std::vector<float>& values, uint64_t stamp) {
    LumoDepthImage* record = Access::depthRecord(pipeline);
    record->timestamp = stamp;
    record->width = static_cast<uint32_t>(width), record->height = static_cast<uint32_t>(height);
    record->channels = 1, record->stride = record->width * 4, record->size = record->stride * record->height;
    std::memcpy(record->data, values.data(), values.size() * sizeof(float));
  }

  std::vector<Point> cloud() {
    std::vector<Point> points(static_cast<std::size_t>(Access::pointCount(pipeline)));
    if (!points.empty()) std::memcpy(points.data(), Access::pointBuffer(pipeline), points.size() * sizeof(Point));
    return points;
  }
};

LumoPose makePose(uint64_t stamp, double angle, const Eigen::Vector3d& axis, const Eigen::Vector3d& t) {
  const Eigen::Quaterniond q(Eigen::AngleAxisd(angle, axis.normalized()));
  LumoPose pose{};
  pose.timestamp = stamp;
  pose.orientation[0] = q.w(), pose.orientation[1] = q.x(), pose.orientation[2] = q.y(), pose.orientation[3] = q.z();
  for (int i = 0; i < 3; ++i) pose.position[i] = t[i];
  return pose;
}

// Exactly one error line: local time to the millisecond, level, function, message.
bool isErrorLine(const std::string& printed, const std::string& function, const std::string& message) {
  return std::regex_match(printed, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[ ERROR\] )" + function +
                                                   R"(\(\): )" + message + "\n"));
}

// Index i of n inside the centred region r: single-precision bounds, truncated, end exclusive.
bool inRegion(int i, int n, float r) {
  return i >= static_cast<int>(static_cast<float>(n) * (1.0f - r) * 0.5f) &&
         i < static_cast<int>(static_cast<float>(n) * (1.0f + r) * 0.5f);
}

// The cloud of a W x H depth image: each kept pixel's depth times its ray
// (u · (1 / fx) + (−cx / fx), v · (1 / fy) + (−cy / fy), 1), turned by R1 transposed unless rectified.
std::vector<Point> referenceCloud(StereoDepth& pipeline, int W, int H, float scale, const std::vector<float>& depth,
                                  const CloudSettings& s, const std::vector<LumoPose>& ringOrder, uint64_t stamp) {
  const cv::Matx34d P(Access::P1(pipeline));
  const cv::Matx33f R = cv::Matx33d(Access::R1(pipeline));
  const float fx = static_cast<float>(P(0, 0)) * scale, cx = static_cast<float>(P(0, 2)) * scale;
  const float fy = static_cast<float>(P(1, 1)) * scale, cy = static_cast<float>(P(1, 2)) * scale;
  const float perU = 1.0f / fx, startU = -cx / fx, perV = 1.0f / fy, startV = -cy / fy;
  std::vector<Point> cloud;
  for (int v = 0; v < H; v += s.skip + 1) {
    for (int u = 0; u < W; u += s.skip + 1) {
      const float d = depth[static_cast<std::size_t>(v) * W + u];
      if (!inRegion(u, W, s.roi) || !inRegion(v, H, s.roi) || d > s.farthest || d < s.nearest) continue;  // NaN stays
      Point ray{static_cast<float>(u) * perU + startU, static_cast<float>(v) * perV + startV, 1.0f};
      if (s.type != 0) {
        const Point r = ray;
        for (int k = 0; k < 3; ++k) ray[k] = R(0, k) * r[0] + R(1, k) * r[1] + R(2, k) * r[2];
      }
      cloud.push_back({ray[0] * d, ray[1] * d, d * ray[2]});
    }
  }
  if (s.type == 2) {
    // The pose nearest in time within 50,000,000 (signed difference), the first met on a tie.
    const LumoPose* pose = nullptr;
    int64_t bestGap = 50000000;
    for (const LumoPose& candidate : ringOrder) {
      const int64_t gap = std::abs(static_cast<int64_t>(candidate.timestamp) - static_cast<int64_t>(stamp));
      if (gap < bestGap) pose = &candidate, bestGap = gap;
    }
    if (pose == nullptr) return {};
    const double* o = pose->orientation;  // w, x, y, z; the matrix in double, applied in float
    const Eigen::Matrix3f m = Eigen::Quaterniond(o[0], o[1], o[2], o[3]).toRotationMatrix().cast<float>();
    for (Point& p : cloud) {
      const Point q = p;
      for (int r = 0; r < 3; ++r) {
        p[r] = m(r, 0) * q[0] + m(r, 1) * q[1] + m(r, 2) * q[2] + static_cast<float>(pose->position[r]);
      }
    }
  }
  if (!s.voxel) return cloud;
  std::map<std::array<int, 3>, int> counts;
  for (const Point& p : cloud) {
    ++counts[{static_cast<int>(std::floor(p[0] / s.voxelSize)), static_cast<int>(std::floor(p[1] / s.voxelSize)),
              static_cast<int>(std::floor(p[2] / s.voxelSize))}];
  }
  std::vector<Point> centres;
  for (const auto& [key, count] : counts) {
    if (static_cast<float>(count) < s.minPoints) continue;
    centres.push_back({(static_cast<float>(key[0]) + 0.5f) * s.voxelSize,
                       (static_cast<float>(key[1]) + 0.5f) * s.voxelSize,
                       (static_cast<float>(key[2]) + 0.5f) * s.voxelSize});
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

// Random depths across both limits and, every fourth pixel of a central row (sampled by
// every step and region used), 0.2, 3.0, their neighbours, 0.1999, 3.0001, 0, -1, inf, NaN.
std::vector<float> testDepth(int width, int height, bool withNaN, uint32_t seed) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<float> metres(0.05f, 3.4f);
  std::vector<float> depth(static_cast<std::size_t>(width) * height);
  for (float& d : depth) d = metres(random);
  const float special[] = {0.2f, 3.0f, std::nextafter(0.2f, 0.0f), std::nextafter(3.0f, 4.0f), 0.1999f, 3.0001f,
                           0.0f, -1.0f, std::numeric_limits<float>::infinity(),
                           withNaN ? std::numeric_limits<float>::quiet_NaN() : 1.5f};
  const int first = ((height / 2) & ~3) * width + ((width / 2) & ~3) - 20;
  for (int k = 0; k < 10; ++k) depth[first + 4 * k] = special[k];
  return depth;
}

struct CloudCase {
  const char* name;
  float engineScale;
  CloudSettings settings;
};

void PrintTo(const CloudCase& c, std::ostream* out) { *out << c.name; }

class PointCloudReference : public testing::TestWithParam<CloudCase> {};

TEST_P(PointCloudReference, BitIdenticalToThePlainReference) {
  const CloudCase& c = GetParam();
  CloudPipeline p(c.settings, c.engineScale);
  // Ring order: too early, later, a tie at 12 ms either side (the first wins).
  const uint64_t stamp = 7000000000ull;
  const std::vector<LumoPose> poses = {makePose(stamp - 70000000, 0.3, {1, 0, 0}, {9, 9, 9}),
                                       makePose(stamp + 30000000, -0.4, {0, 1, 0}, {-1, 2, 0.5}),
                                       makePose(stamp - 12000000, 0.7, {0.2, -0.5, 0.8}, {0.3, -1.2, 2.5}),
                                       makePose(stamp + 12000000, 1.1, {0, 0, 1}, {4, 4, 4})};
  for (LumoPose pose : poses) ASSERT_EQ(p.pipeline.feedPose(&pose), 0);
  // The table has the depth size: the working size times the engine's scale, rounded.
  const int W = static_cast<int>(std::roundf(kW * c.engineScale));
  const int H = static_cast<int>(std::roundf(kH * c.engineScale));
  const std::vector<float> depth = testDepth(W, H, !c.settings.voxel, 17);
  p.putDepth(W, H, depth, stamp);
  p.pipeline.generatePointCloud();  // builds the table on first use
  ASSERT_EQ(Access::cloudPixelCount(p.pipeline), static_cast<uint64_t>(W) * H);
  EXPECT_EQ(Access::cloudTimestamp(p.pipeline), stamp);
  const auto expected =
      bitsOf(referenceCloud(p.pipeline, W, H, c.engineScale, depth, c.settings, poses, stamp), c.settings.voxel);
  const auto actual = bitsOf(p.cloud(), c.settings.voxel);
  ASSERT_EQ(actual.size(), expected.size());
  const auto mismatch = std::mismatch(actual.begin(), actual.end(), expected.begin());
  EXPECT_TRUE(mismatch.first == actual.end()) << "first difference at point " << (mismatch.first - actual.begin());
}

INSTANTIATE_TEST_SUITE_P(
    Settings, PointCloudReference,
    testing::Values(CloudCase{"RectifiedHalfEveryOther", 1.0f, {0, 0.5f, 1}},
                    CloudCase{"RectifiedRegionPastTheImageEveryFourth", 1.0f, {0, 1.7f, 3}},
                    CloudCase{"CameraOddRegionVoxels", 1.0f, {1, 0.37f, 1, 0.2f, 3.0f, true, 0.02f, 2.0f}},
                    CloudCase{"CameraHalfScale", 0.5f, {1, 0.8f, 1}},
                    CloudCase{"WorldHalfVoxels", 1.0f, {2, 0.5f, 1, 0.2f, 3.0f, true, 0.1f, 1.0f}},
                    CloudCase{"WorldWideLimits", 1.0f, {2, 1.0f, 0, 0.0f, 100.0f}}),
    [](const testing::TestParamInfo<CloudCase>& info) { return std::string(info.param.name); });

TEST(PointCloudGeneration, VoxelHashPacksTwentyOneBitsPerAxis) {
  const TwoMillionVoxelHash hash;
  EXPECT_EQ(hash({1, 2, 3}), (std::size_t{1} << 42) | (std::size_t{2} << 21) | 3u);
  EXPECT_EQ(hash({-1, 0, -2}), (std::size_t{0x1FFFFF} << 42) | 0x1FFFFEu);
  // Keys 2^21 apart share a hash and are still two cells.
  std::unordered_map<VoxelKey, int, TwoMillionVoxelHash> cells{{{5, 7, 9}, 1}, {{5 + 2097152, 7, 9 - 2097152}, 1}};
  EXPECT_EQ(hash({5, 7, 9}), hash({5 + 2097152, 7, 9 - 2097152}));
  EXPECT_EQ(cells.size(), 2u);
}

// The dump is read back as PCD readers read it: header, then one point per line.
TEST(PointCloudGeneration, PcdDumpHoldsTheCloudAndNoTableOfTheDepthSizeKeepsIt) {
  CloudPipeline p(CloudSettings{1, 1.0f, 3});
  p.engine->status = 1;  // the scale query fails: no table
  EXPECT_EQ(p.pipeline.initPointcloudLUT(), 1u);
  p.engine->status = 0;
  Access::debugImage(p.pipeline) = 1, Access::debugImgSavePath(p.pipeline) = p.dir.path();
  const uint64_t stamp = 12345678901234567890ull;  // printed unsigned
  p.putDepth(kW, kH, testDepth(kW, kH, false, 5), stamp);
  p.pipeline.generatePointCloud();
  const std::vector<Point> cloud = p.cloud();
  ASSERT_GT(cloud.size(), 1000u);
  std::ifstream in(p.dir.file("debug_pointcloud_" + std::to_string(stamp) + ".pcd"));
  std::string line, points;
  for (int i = 0; i < 11 && std::getline(in, line); ++i) {
    if (line.rfind("POINTS ", 0) == 0) points = line;
  }
  EXPECT_EQ(points, "POINTS " + std::to_string(cloud.size()));
  EXPECT_EQ(line, "DATA ascii");
  std::size_t read = 0;
  for (Point q; in >> q[0] >> q[1] >> q[2]; ++read) {
    ASSERT_LT(read, cloud.size());
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(q[k], cloud[read][k], 1e-6f) << read;
  }
  EXPECT_EQ(read, cloud.size());
  // An unwritable directory costs the file, silently, not the cloud.
  Access::debugImgSavePath(p.pipeline) = p.dir.file("missing");
  EXPECT_EQ(LumoTest::captureStdout([&] { p.pipeline.generatePointCloud(); }), "");
  EXPECT_EQ(Access::pointCount(p.pipeline), static_cast<int>(cloud.size()));
  // A depth image of another size than the table: an error, and the cloud stays.
  p.putDepth(kW - 1, kH, std::vector<float>((kW - 1) * kH, 2.0f), 11);
  const std::string printed = LumoTest::captureStdout([&] { p.pipeline.generatePointCloud(); });
  EXPECT_TRUE(isErrorLine(printed, "generatePointCloud", "pointcloud LUT size mismatch")) << printed;
  EXPECT_EQ(Access::pointCount(p.pipeline), static_cast<int>(cloud.size()));
  EXPECT_EQ(Access::cloudTimestamp(p.pipeline), stamp);
}

TEST(PointCloudQuery, CopiesAtMostMaxPointsRefusesBadRequestsAndKeepsPoses) {
  CloudPipeline p(CloudSettings{1});
  StereoDepth& pipeline = p.pipeline;
  p.putDepth(kW, kH, testDepth(kW, kH, false, 8), 4242);
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

  map.num = 99;
  auto refuses = [&](LumoMap* target, int maxPoints, const char* message) {
    unsigned int status = 0;
    const std::string printed = LumoTest::captureStdout([&] { status = pipeline.getPointcloud(target, maxPoints); });
    EXPECT_EQ(status, 1u) << message;
    EXPECT_TRUE(isErrorLine(printed, "getPointcloud", message)) << printed;
    EXPECT_EQ(map.num, 99);
  };
  refuses(nullptr, 10, "allocate memory before calling");
  refuses(&map, 0, "maxPoints should be larger than 0");
  Access::pointcloudROI(pipeline) = 0.0f;  // a cloud of no points
  ASSERT_EQ(pipeline.initPointcloudLUT(), 0u);
  pipeline.generatePointCloud();
  refuses(&map, 10, "point cloud data is empty");

  // The pose ring keeps the latest 200 poses, each copied whole.
  for (uint64_t i = 1; i <= 201; ++i) {
    LumoPose pose = makePose(i, 0.0, {0, 0, 1}, {static_cast<double>(i), 0, 0});
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
}

// 640 x 400 input at half size; `cases` holds (u, v, index of depth and table, -1: zeros).
void expectCoordinates(int restoreDepthDim, int width, int height, const std::vector<std::array<int, 3>>& cases) {
  LumoTest::TempDir dir;
  StereoDepth pipeline;
  const LumoTest::ConfigOptions options{640, 400, 0.5f, 0, restoreDepthDim};
  ASSERT_EQ(LumoTest::configure(pipeline, dir, options, LumoTest::syntheticRig("radtan")), 0);
  const std::vector<float>& table = Access::depthLut(pipeline);
  ASSERT_EQ(table.size(), 2u * width * height);
  // Distinct depths, so that a wrong index shows; a zero, a negative and a NaN.
  std::vector<float> data(width * height);
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = 0.5f + static_cast<float>(i % 9973) * 1e-3f;
  data[100 * width + 7] = 0.0f;
  data[100 * width + 8] = -2.0f;
  data[100 * width + 9] = std::numeric_limits<float>::quiet_NaN();
  LumoDepthImage depth{};
  depth.width = static_cast<uint32_t>(width), depth.height = static_cast<uint32_t>(height);
  depth.channels = 1, depth.data = data.data();

  std::vector<int> pixels;
  for (const auto& c : cases) pixels.insert(pixels.end(), {c[0], c[1]});
  std::vector<float> out(3 * cases.size(), -9.0f);
  ASSERT_EQ(pipeline.getCoordinates2Ext(pixels.data(), static_cast<int>(cases.size()), &depth, out.data()), 0u);
  for (std::size_t k = 0; k < cases.size(); ++k) {
    const int i = cases[k][2];
    const float d = i >= 0 ? data[i] : 0.0f;
    const Point expected = d > 0.0f ? Point{table[2 * i] * d, table[2 * i + 1] * d, d} : Point{0, 0, 0};
    EXPECT_EQ((Point{out[3 * k], out[3 * k + 1], out[3 * k + 2]}), expected) << cases[k][0] << "," << cases[k][1];
  }
  EXPECT_EQ(pipeline.getCoordinates2Ext(pixels.data(), 0, &depth, out.data()), 0u);  // nothing asked
}

TEST(PointCloudQuery, CoordinatesOfRestoredAndOfInputPositions) {
  {
    SCOPED_TRACE("restored: by row and column");
    expectCoordinates(1, 640, 400,
                      {{0, 0, 0}, {639, 399, 399 * 640 + 639}, {17, 233, 233 * 640 + 17}, {640, 0, -1}, {0, 400, -1},
                       {-1, 5, -1}, {5, -1, -1}, {7, 100, 100 * 640 + 7}, {8, 100, 100 * 640 + 8},
                       {9, 100, 100 * 640 + 9}});
  }
  // Input positions scale the whole row offset. (101, 37): column trunc(50.5) = 50
  // plus trunc(320·37·0.5) = 5920 gives 5970, row 18 column 210, where scaling
  // the row alone would give 18·320 + 50. (638, 398): 319 + 63680, the last
  // pixel. (335, 199): 167 + 31840 = 32007, the zero depth at row 100 column 7.
  SCOPED_TRACE("input positions");
  expectCoordinates(0, 320, 200,
                    {{101, 37, 5970}, {638, 398, 63999}, {335, 199, 32007}, {640, 0, -1}, {0, 400, -1}, {-1, 5, -1},
                     {5, -1, -1}});
}

// The rendered scene through the exported functions, in the world frame of a
// pose that turns by 90° about Y, (x, y, z) → (z, y, −x), and shifts by (0.5, −0.25, 2).
TEST(PointCloudScene, BackWallLiesOnItsPlaneInTheWorldFrame) {
  const LumoSynth::Rig rig = LumoSynth::pinholeRig(640, 400);
  const LumoSynth::Scene scene = LumoSynth::defaultScene();
  cv::Mat grey = LumoSynth::toGrey(LumoSynth::renderStereo(LumoSynth::makeRenderer(rig, 2), scene, 0));
  LumoTest::TempDir dir;
  LumoSynth::writeCalibrationYaml(dir.file("calib.yaml"), rig);
  // Every other pixel and no effective limit: point i is pixel (2·(i mod 320), 2·(i div 320)).
  LumoTest::HostConfig config;
  config.set("skip_point", "1").set("cloest_dist", "0").set("farthest_dist", "1e6").set("pointcloud_type", "2");
  const std::string path = dir.file("config.yaml");
  config.write(path);
  void* handle = nullptr;
  int status = 1;
  LumoTest::captureStdout([&] { status = ::KORV_LUMO_D_CreateHandleWithConfig(&handle, path.c_str()); });
  const std::unique_ptr<void, int (*)(void*)> owner(handle, ::KORV_LUMO_D_DestroyHandle);
  ASSERT_EQ(status, 0);
  // The last pose is exactly at the time limit of a later frame.
  const uint64_t stamp = 5000000000ull;
  for (LumoPose pose : {makePose(stamp - 40000000, 0.0, {0, 1, 0}, {9, 9, 9}),
                        makePose(stamp + 1000, CV_PI / 2, {0, 1, 0}, {0.5, -0.25, 2.0}),
                        makePose(stamp + 60000000, 0.0, {0, 1, 0}, {0, 0, 0}),
                        makePose(stamp + 1050000000, 0.0, {0, 1, 0}, {0, 0, 0})}) {
    ASSERT_EQ(::KORV_LUMO_D_FeedPose(handle, &pose), 0);
  }
  LumoImage frame = LumoTest::wrapStacked(grey, stamp);
  ASSERT_EQ(LumoTest::feedAndWait(handle, &frame), 0);  // synchronous: the cloud is there on return
  std::vector<Point> world(640 * 400);
  LumoMap map{};
  map.points = world[0].data();
  ASSERT_EQ(::KORV_LUMO_D_GetPointcloud(handle, &map, 640 * 400), 0);
  EXPECT_EQ(map.timestamp, stamp);
  ASSERT_EQ(map.num, 320 * 200);

  // True surface points in the left camera's frame; (eroded) back wall z = 5.5 is x = 6 in the world.
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
  double sum = 0.0, worstAngle = 0.0;
  int wallPoints = 0;
  for (int i = 0; i < 320 * 200; ++i) {
    const int u = 2 * (i % 320), v = 2 * (i / 320);
    const Point& q = world[i];
    const cv::Vec3d p(2.0 - q[2], q[1] + 0.25, q[0] - 0.5);  // back in the left camera's frame
    if (p[2] <= 0.0 || truth.at<float>(v, u) <= 0.0f) continue;
    // Whatever the matched depth, a point lies on the ray of its pixel's true surface point.
    const cv::Vec3d& actual = surface(v, u);
    worstAngle = std::max(worstAngle, cv::norm(p.cross(actual)) / (cv::norm(p) * cv::norm(actual)));
    if (wall.at<uint8_t>(v, u) != 0) ++wallPoints, sum += (q[0] - 6.0) * (q[0] - 6.0);
  }
  ASSERT_GT(wallPoints, 5000);
  EXPECT_LT(worstAngle, 1e-5);  // R1 left out would be 0.55° ≈ 1e-2
  // Disparity there is about 8.7 px; 0.3 px of matching error is 3.5% of the distance.
  EXPECT_LT(std::sqrt(sum / wallPoints), 0.2);

  // The exported coordinate query: z of (320, 200) is its depth; (-1, 5) is outside.
  std::vector<float> depthData(640 * 400), out(6, -9.0f);
  LumoDepthImage depth{};
  depth.data = depthData.data();
  ASSERT_EQ(::KORV_LUMO_D_GetDepthImage(handle, &depth, nullptr, nullptr), 0);
  const int pixels[] = {320, 200, -1, 5};
  ASSERT_EQ(KORV_LUMO_D_GetCoordinates(handle, pixels, 2, &depth, out.data()), 0);
  EXPECT_GT(out[2], 0.0f);
  EXPECT_EQ(std::vector<float>(out.begin() + 2, out.end()), (std::vector<float>{depthData[128320], 0, 0, 0}));

  // A later frame with no pose near it (the only one is exactly at the limit) has no world cloud.
  frame.timestamp = stamp + 1000000000;
  ASSERT_EQ(LumoTest::feedAndWait(handle, &frame), 0);
  const std::string printed = LumoTest::captureStdout([&] { status = ::KORV_LUMO_D_GetPointcloud(handle, &map, 100); });
  EXPECT_EQ(status, 1);
  EXPECT_TRUE(isErrorLine(printed, "getPointcloud", "point cloud data is empty")) << printed;
}

}  // namespace
}  // namespace KorvLumetra
