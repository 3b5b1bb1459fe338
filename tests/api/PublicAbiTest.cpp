#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "lumetra_depth.h"
#include "support/CaptureOutput.h"

extern "C" size_t lumo_c_layout(size_t* out);
extern "C" int lumo_c_null_handle_answers(void);

namespace {

TEST(PublicAbi, RecordLayoutIsTheSameFromCAndCpp) {
  // Sizes and offsets of the binary interface, from the record tables.
  const std::vector<size_t> expected = {48,  8,   28,  32,  40,  48,  40,  72,  32,  32,  16,  24,
                                        172, 124, 80,  44,  48,  48,  192, 132, 184, 624, 584, 616};
  const std::vector<size_t> fromCpp = {
      sizeof(LumoImage), offsetof(LumoImage, timestamp), offsetof(LumoImage, format), offsetof(LumoImage, stride),
      offsetof(LumoImage, data), sizeof(LumoDepthImage), offsetof(LumoDepthImage, data), sizeof(LumoPose),
      offsetof(LumoPose, orientation), sizeof(LumoMap), offsetof(LumoMap, num), offsetof(LumoMap, points),
      sizeof(LumoRectifyInfo), offsetof(LumoRectifyInfo, P2), sizeof(LumoIntrinsics),
      offsetof(LumoIntrinsics, distortion_model), offsetof(LumoIntrinsics, distortion_coeffs),
      sizeof(LumoExtrinsics), sizeof(LumoCameraCalib), offsetof(LumoCameraCalib, T_cn_imu),
      offsetof(LumoCameraCalib, timeshift), sizeof(LumoCalibrationParam),
      offsetof(LumoCalibrationParam, accel_noise_density), offsetof(LumoCalibrationParam, imu_update_rate)};
  std::vector<size_t> fromC(64);
  fromC.resize(lumo_c_layout(fromC.data()));
  EXPECT_EQ(fromCpp, expected);
  EXPECT_EQ(fromC, expected);
}

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

TEST(PublicAbi, HandleIsCreatedWithoutAUsableConfiguration) {
  void* handle = nullptr;
  int status = -1;
  const auto expectPrinted = [&](auto call, const std::string& message) {
    const std::string out = LumoTest::captureStdout([&] { status = call(); });
    EXPECT_NE(out.find(message), std::string::npos) << out;
  };
  expectPrinted([&] { return KORV_LUMO_D_CreateHandleWithConfig(&handle, "/nonexistent/config.yaml"); },
                "[ ERROR] initFromYaml(): file not exits: /nonexistent/config.yaml\n");
  EXPECT_EQ(status, 0);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(KORV_LUMO_D_BindNavra(handle, nullptr), 1);
  int navra = 0;  // this process has no tracking library
  expectPrinted([&] { return KORV_LUMO_D_BindNavra(handle, &navra); },
                "[ ERROR] KORV_LUMO_D_BindNavra(): Failed to get calib from Navra handle\n");
  EXPECT_EQ(status, 1);
  EXPECT_EQ(KORV_LUMO_D_DestroyHandle(handle), 0);

  // A null path throws once the handle exists, and leaves it to the host.
  handle = nullptr;
  EXPECT_THROW(KORV_LUMO_D_CreateHandleWithConfig(&handle, nullptr), std::logic_error);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(KORV_LUMO_D_DestroyHandle(handle), 0);
}

}  // namespace
