#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "pipeline/StereoDepth.h"
#include "support/CaptureOutput.h"

namespace KorvLumetra {
namespace {

long residentKiB() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  }
  return -1;
}

TEST(StereoDepthLifecycle, ConstructAndDestroyRepeatedly) {
  // Both threads start with the object and are joined by its destructor; a
  // hang here shows up as a test timeout.
  for (int i = 0; i < 100; ++i) {
    StereoDepth pipeline;
  }
  // Destroyed right after construction, while the preprocessing thread may
  // not even have started waiting.
  for (int i = 0; i < 100; ++i) {
    auto pipeline = std::make_unique<StereoDepth>();
    pipeline.reset();
  }
  SUCCEED();
}

TEST(StereoDepthLifecycle, BuffersCostNoResidentMemoryUntilUsed) {
#if defined(__SANITIZE_THREAD__)
  // ThreadSanitizer's allocator clears calloc'd blocks by hand, touching every
  // page; the bound holds for the C library's allocator, which hands out fresh
  // zero pages for blocks this large.
  GTEST_SKIP() << "resident memory is the sanitizer allocator's here";
#endif
  { StereoDepth warmUp; }  // first-use costs of the runtime
  const long before = residentKiB();
  ASSERT_GT(before, 0);
  auto pipeline = std::make_unique<StereoDepth>();
  const long after = residentKiB();
  // Well over a gigabyte is reserved; only a few tens of MB may become resident.
  EXPECT_LT(after - before, 48 * 1024) << "grew by " << (after - before) << " KiB";

  // And nothing stays behind once it is destroyed, however many times.
  pipeline.reset();
  const long settled = residentKiB();
  for (int i = 0; i < 50; ++i) StereoDepth again;
  EXPECT_LT(residentKiB() - settled, 16 * 1024);
}

TEST(StereoDepthLifecycle, UnconfiguredPipelineRefusesWork) {
  StereoDepth pipeline;
  std::vector<uint8_t> pixels(64 * 64);
  LumoImage frame{};
  frame.width = 64;
  frame.height = 64;
  frame.channels = 1;
  frame.data = pixels.data();
  int status = 0;
  std::string printed = LumoTest::captureStdout([&] { status = pipeline.feedStereoImage(&frame); });
  EXPECT_EQ(status, 1);
  EXPECT_NE(printed.find("[ ERROR] feedStereoImage(): rectify map or camera image size not exists\n"),
            std::string::npos)
      << printed;

  std::vector<float> depthBuffer(64 * 64);
  LumoDepthImage depth{};
  depth.data = depthBuffer.data();
  EXPECT_EQ(pipeline.getDepthImage(&depth, nullptr, nullptr), 1);  // nothing produced yet
  EXPECT_EQ(depth.width, 0u);

  printed = LumoTest::captureStdout([&] { status = pipeline.getDepthImage(nullptr, nullptr, nullptr); });
  EXPECT_EQ(status, 1);
  EXPECT_NE(printed.find("getDepthImage(): allocate memory before calling\n"), std::string::npos) << printed;
  LumoDepthImage noBuffer{};
  printed = LumoTest::captureStdout([&] { status = pipeline.getDepthImage(&noBuffer, nullptr, nullptr); });
  EXPECT_EQ(status, 1);
  EXPECT_NE(printed.find("allocate memory before calling"), std::string::npos);

  LumoImage rectified{};
  printed = LumoTest::captureStdout([&] { status = pipeline.getRectifyImage(&rectified); });
  EXPECT_EQ(status, 1);
  EXPECT_NE(printed.find("getRectifyImage(): allocate memory before calling\n"), std::string::npos) << printed;
  rectified.data = pixels.data();
  EXPECT_EQ(pipeline.getRectifyImage(&rectified), 1);  // nothing rectified yet
}

}  // namespace
}  // namespace KorvLumetra
