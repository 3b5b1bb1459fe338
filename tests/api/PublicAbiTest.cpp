#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "lumetra_depth.h"
#include "support/CaptureOutput.h"

extern "C" size_t lumo_c_layout(size_t* out);
extern "C" int lumo_c_null_handle_answers(void);

namespace {

TEST(PublicAbi, RecordLayoutIsTheSameFromCAndCpp) {
  // Sizes and offsets of the binary interface, from the record tables.
  const std::vector<size_t> expected = {48, 8, 28, 32, 40,        // LumoImage
                                        48, 40,                   // LumoDepthImage
                                        72, 32,                   // LumoPose
                                        32, 16, 24,               // LumoMap
                                        172, 124,                 // LumoRectifyInfo
                                        80, 44, 48,               // LumoIntrinsics
                                        48,                       // LumoExtrinsics
                                        192, 132, 184,            // LumoCameraCalib
                                        624, 584, 616};           // LumoCalibrationParam
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
  const std::string printed = LumoTest::captureStdout([&] { ones = lumo_c_null_handle_answers(); });
  EXPECT_EQ(ones, 9);
  EXPECT_EQ(printed, "");
  int pixel[2] = {0, 0};
  float out[3];
  EXPECT_EQ(KorvLumetra::KORV_LUMO_D_GetCoordinates(nullptr, pixel, 1, nullptr, out), 1);
  EXPECT_EQ(KorvLumetra::KORV_LUMO_D_DestroyHandle(nullptr), 1);
  // Nowhere to store a handle: refused before anything is created (the leak
  // checker of the sanitizer build would see one).
  EXPECT_EQ(KORV_LUMO_D_CreateHandleWithConfig(nullptr, "missing.yaml"), 1);
}

// The shared object exports the C functions and their namespaced twins, and
// nothing else: no helper classes, no OpenCV or standard-library instances.
TEST(PublicAbi, ExportsOnlyTheInterface) {
  const std::string command = std::string("nm -D --defined-only ") + LUMO_SHARED_LIBRARY;
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::set<std::string> exported;
  char line[4096];
  while (std::fgets(line, sizeof(line), pipe) != nullptr) {
    char type = 0;
    char name[4000];
    if (std::sscanf(line, "%*s %c %3999s", &type, name) == 2) exported.insert(name);
  }
  ASSERT_EQ(pclose(pipe), 0);

  const char* functions[] = {"CreateHandleWithConfig", "DestroyHandle", "FeedStereoImage", "FeedRGBImage",
                             "FeedPose", "GetDepthImage", "GetRectifiedImage", "GetRectifyInfo",
                             "GetPointcloud", "BindNavra"};
  std::set<std::string> expected;
  for (const char* f : functions) expected.insert(std::string("KORV_LUMO_D_") + f);
  // Mangled twins: _ZN11KorvLumetra<len>KORV_LUMO_D_<name>E...
  std::set<std::string> twins;
  for (const std::string& symbol : exported) {
    if (symbol.rfind("_ZN11KorvLumetra", 0) == 0) twins.insert(symbol);
  }
  std::set<std::string> plain;
  for (const std::string& symbol : exported) {
    if (symbol.rfind("_ZN11KorvLumetra", 0) != 0) plain.insert(symbol);
  }
  EXPECT_EQ(plain, expected);
  EXPECT_EQ(twins.size(), 11u);
  for (const std::string& twin : twins) EXPECT_NE(twin.find("KORV_LUMO_D_"), std::string::npos) << twin;
  // The coordinate query has no unmangled twin.
  EXPECT_EQ(exported.count("KORV_LUMO_D_GetCoordinates"), 0u);
  bool coordinates = false;
  for (const std::string& twin : twins) coordinates |= twin.find("KORV_LUMO_D_GetCoordinates") != std::string::npos;
  EXPECT_TRUE(coordinates);
}

TEST(PublicAbi, MissingConfigurationStillGivesAHandle) {
  void* handle = nullptr;
  int created = -1;
  const std::string printed = LumoTest::captureStdout(
      [&] { created = KORV_LUMO_D_CreateHandleWithConfig(&handle, "/nonexistent/lumetra/config.yaml"); });
  EXPECT_EQ(created, 0);
  ASSERT_NE(handle, nullptr);
  EXPECT_NE(printed.find("[ ERROR] initFromYaml(): file not exits: /nonexistent/lumetra/config.yaml\n"),
            std::string::npos)
      << printed;
  // Without a configuration the pipeline has no maps yet.
  std::vector<uint8_t> pixels(64);
  LumoImage frame{};
  frame.width = 4;
  frame.height = 8;
  frame.channels = 1;
  frame.data = pixels.data();
  EXPECT_EQ(KORV_LUMO_D_FeedStereoImage(handle, &frame), 1);
  EXPECT_EQ(KORV_LUMO_D_BindNavra(handle, nullptr), 1);
  // This process has no tracking library: binding fails with a message.
  int navra = 0;
  int status = 0;
  const std::string bound = LumoTest::captureStdout([&] { status = KORV_LUMO_D_BindNavra(handle, &navra); });
  EXPECT_EQ(status, 1);
  EXPECT_NE(bound.find("[ ERROR] KORV_LUMO_D_BindNavra(): Failed to get calib from Navra handle\n"), std::string::npos)
      << bound;
  EXPECT_EQ(KORV_LUMO_D_DestroyHandle(handle), 0);
}

TEST(PublicAbi, NullConfigurationPathThrowsAfterCreatingTheHandle) {
  void* handle = nullptr;
  EXPECT_THROW(KORV_LUMO_D_CreateHandleWithConfig(&handle, nullptr), std::logic_error);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(KORV_LUMO_D_DestroyHandle(handle), 0);
}

}  // namespace
