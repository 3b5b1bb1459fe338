// Point clouds against a plain reference (rays, sampling, limits, pose, voxels),
// the voxel hash, a depth image the table does not fit, and the queries.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
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

#include <Eigen/Geometry>

#include "pipeline/TwoMillionVoxelHash.h"
#include "support/CalibrationFixtures.h"

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
  uint64_t stampShift = 0;  // of the depth frame from the poses' 7 s
};

void PrintTo(const CloudCase& c, std::ostream* out) { *out << c.name; }

class PointCloudReference : public testing::TestWithParam<CloudCase> {};

TEST_P(PointCloudReference, BitIdenticalToThePlainReference) {
  const CloudCase& c = GetParam();
  CloudPipeline p(c.settings, c.engineScale);
  // Ring order: too early, later, a tie at 12 ms either side (the first wins).
  const uint64_t at = 7000000000ull, stamp = at + c.stampShift;
  const std::vector<LumoPose> poses = {makePose(at - 70000000, 0.3, {1, 0, 0}, {9, 9, 9}),
                                       makePose(at + 30000000, -0.4, {0, 1, 0}, {-1, 2, 0.5}),
                                       makePose(at - 12000000, 0.7, {0.2, -0.5, 0.8}, {0.3, -1.2, 2.5}),
                                       makePose(at + 12000000, 1.1, {0, 0, 1}, {4, 4, 4})};
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
                    CloudCase{"WorldWideLimits", 1.0f, {2, 1.0f, 0, 0.0f, 100.0f}},
                    // The nearest pose exactly 50 ms away is too far: no cloud.
                    CloudCase{"WorldNoPoseWithinTheLimit", 1.0f, {2, 1.0f, 1}, 80000000}),
    [](const testing::TestParamInfo<CloudCase>& info) { return std::string(info.param.name); });

// Keys 2^21 apart share a hash (21 bits an axis) and are still two cells.
TEST(PointCloudGeneration, VoxelKeysThatShareAHashStayApart) {
  const VoxelKey a{5, 7, 9}, b{5 + 2097152, 7, 9 - 2097152};
  const std::unordered_map<VoxelKey, int, TwoMillionVoxelHash> cells{{a, 1}, {b, 1}};
  EXPECT_EQ(TwoMillionVoxelHash()(a), TwoMillionVoxelHash()(b));
  EXPECT_EQ(cells.size(), 2u);
}

// Without a table of the depth size no cloud is made: the last one stays, and the
// debug dump (whose file may be unwritable, silently) counts the points of the cloud it was made with.
TEST(PointCloudGeneration, NoTableOfTheDepthSizeKeepsTheLastCloud) {
  CloudPipeline p(CloudSettings{1, 1.0f, 3});
  p.engine->status = 1;  // the scale query fails: no table
  EXPECT_EQ(p.pipeline.initPointcloudLUT(), 1u);
  p.engine->status = 0;
  Access::debugImage(p.pipeline) = 1, Access::debugImgSavePath(p.pipeline) = p.dir.file("missing");
  const uint64_t stamp = 12345678901234567890ull;
  p.putDepth(kW, kH, testDepth(kW, kH, false, 5), stamp);
  EXPECT_EQ(LumoTest::captureStdout([&] { p.pipeline.generatePointCloud(); }), "");
  const int count = Access::pointCount(p.pipeline);
  ASSERT_GT(count, 1000);
  Access::debugImgSavePath(p.pipeline) = p.dir.path();
  p.pipeline.generatePointCloud();
  std::ifstream in(p.dir.file("debug_pointcloud_" + std::to_string(stamp) + ".pcd"));  // printed unsigned
  const std::string dump((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_NE(dump.find("\nPOINTS " + std::to_string(count) + "\n"), std::string::npos) << dump.substr(0, 300);
  // A depth image of another size than the table: an error, and the cloud stays.
  p.putDepth(kW - 1, kH, std::vector<float>((kW - 1) * kH, 2.0f), 11);
  const std::string printed = LumoTest::captureStdout([&] { p.pipeline.generatePointCloud(); });
  EXPECT_TRUE(isErrorLine(printed, "generatePointCloud", "pointcloud LUT size mismatch")) << printed;
  EXPECT_EQ(Access::pointCount(p.pipeline), count);
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

  // The pose ring keeps the latest 200 poses.
  for (uint64_t i = 1; i <= 201; ++i) {
    LumoPose pose = makePose(i, 0.0, {0, 0, 1}, {static_cast<double>(i), 0, 0});
    ASSERT_EQ(pipeline.feedPose(&pose), 0);
  }
  LumoUtils::LumoPoseRing& ring = Access::poseRing(pipeline);
  EXPECT_EQ(ring.size(), 200u);
  EXPECT_EQ(ring.at(0)->timestamp, 2u);  // the first was overwritten
  EXPECT_EQ(ring.at(199)->position[0], 201.0);
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

}  // namespace
}  // namespace KorvLumetra
