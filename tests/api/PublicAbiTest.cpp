// The exported interface as a host links it: callable from C (whose compiler
// also checks the header's record layouts), nothing exported beside it.
#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <string>

#include "lumetra_depth.h"
#include "support/CaptureOutput.h"

extern "C" int lumo_c_null_handle_answers(void);

namespace {

TEST(PublicAbi, NullHandleAnswersOneWithoutMessage) {
  int ones = 0;
  EXPECT_EQ(LumoTest::captureStdout([&] { ones = lumo_c_null_handle_answers(); }), "");
  EXPECT_EQ(ones, 9);
  int pixel[2] = {0, 0};
  float out[3];
  EXPECT_EQ(KorvLumetra::KORV_LUMO_D_GetCoordinates(nullptr, pixel, 1, nullptr, out), 1);
  // Nowhere to store a handle: refused before anything is created (the leak
  // checker of the sanitizer build would see one).
  EXPECT_EQ(KORV_LUMO_D_CreateHandleWithConfig(nullptr, "missing.yaml"), 1);
}

// The C functions and their namespaced twins, and nothing else: no helper
// classes, no OpenCV or standard-library instances.
TEST(PublicAbi, ExportsOnlyTheInterface) {
  FILE* pipe = popen((std::string("nm -D --defined-only ") + LUMO_SHARED_LIBRARY).c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::set<std::string> plain, twins;
  char line[4096], name[4000];
  while (std::fgets(line, sizeof(line), pipe) != nullptr) {
    if (std::sscanf(line, "%*s %*c %3999s", name) != 1) continue;
    const std::string symbol = name;
    (symbol.rfind("_ZN11KorvLumetra", 0) == 0 ? twins : plain).insert(symbol);
  }
  ASSERT_EQ(pclose(pipe), 0);
  std::set<std::string> expected;
  for (const char* f : {"CreateHandleWithConfig", "DestroyHandle", "FeedStereoImage", "FeedRGBImage", "FeedPose",
                        "GetDepthImage", "GetRectifiedImage", "GetRectifyInfo", "GetPointcloud", "BindNavra",
                        "ReadLabels", "Letterbox", "UnletterboxBoxes", "DecodeDetections", "LocateObjects"}) {
    expected.insert(std::string("KORV_LUMO_D_") + f);
  }
  EXPECT_EQ(plain, expected);  // the coordinate query has no unmangled twin
  EXPECT_EQ(twins.size(), 16u);
  bool coordinates = false;
  for (const std::string& twin : twins) {
    EXPECT_NE(twin.find("KORV_LUMO_D_"), std::string::npos) << twin;
    coordinates |= twin.find("KORV_LUMO_D_GetCoordinates") != std::string::npos;
  }
  EXPECT_TRUE(coordinates);
}

}  // namespace
