#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <string>

#include "pipeline/StereoDepth.h"

namespace KorvLumetra {
namespace {

long residentKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  }
  return -1;
}

// Both threads start with the object and are joined by its destructor (a hang
// shows as a timeout); the large buffers stay untouched until used.
TEST(StereoDepthLifecycle, RepeatedLifetimesCostNoResidentMemory) {
  // Destroyed right after construction, while the preprocessing thread may not wait yet.
  for (int i = 0; i < 100; ++i) std::make_unique<StereoDepth>().reset();
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "ThreadSanitizer's allocator touches every calloc'd page";
#endif
  const long before = residentKiB();
  ASSERT_GT(before, 0);
  auto pipeline = std::make_unique<StereoDepth>();
  // Well over a gigabyte is reserved; only a few tens of MB may become resident.
  EXPECT_LT(residentKiB() - before, 48 * 1024);
  pipeline.reset();
  const long settled = residentKiB();
  for (int i = 0; i < 50; ++i) StereoDepth again;
  EXPECT_LT(residentKiB() - settled, 16 * 1024);
}

}  // namespace
}  // namespace KorvLumetra
