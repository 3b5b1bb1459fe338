// lumetra-depth as a user runs it: info on a rendered rig and the settings
// that look wrong, colour registration, and the failures a user meets first.
// Its depth and eval are held against the library in EndToEndTest.
#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>

#include "support/RunProgram.h"
#include "support/TempDir.h"

namespace {

namespace fs = std::filesystem;
using LumoTest::expectOneLineError;
using LumoTest::numberAfter;
using LumoTest::numbered;
using LumoTest::ProgramResult;
using LumoTest::readText;
using LumoTest::TempDir;
using LumoTest::tool;
using LumoTest::writeText;

constexpr int kWidth = 320, kHeight = 200;

// The configuration text with one key's line replaced (or removed when `value` is empty).
std::string withKey(const std::string& config, const std::string& key, const std::string& value) {
  const std::regex line("(^|\n)" + key + ":[^\n]*");
  return std::regex_replace(config, line, value.empty() ? "$1" : "$1" + key + ": " + value);
}

// One rendered frame per test process.
std::string sample() {
  static const TempDir dir;
  static const ProgramResult synth = tool({"synth", "--out", dir.file("sample"), "--frames", "1", "--width",
                                           std::to_string(kWidth), "--height", std::to_string(kHeight)});
  EXPECT_EQ(synth.status, 0) << synth.err;
  return dir.file("sample");
}
std::string config() { return sample() + "/config.yaml"; }

TEST(ToolSequence, InfoShowsTheRigAndFlagsSettingsThatLookWrong) {
  const ProgramResult ok = tool({"info", config()});
  ASSERT_EQ(ok.status, 0) << ok.err;
  EXPECT_NEAR(numberAfter(ok.out, "Baseline"), 0.1, 1e-4) << ok.out;  // the pinhole rig's 10 cm
  EXPECT_NE(ok.out.find("Warnings: none"), std::string::npos) << ok.out;

  // Calibrations the library refuses, or cannot measure with: in millimetres
  // (translations times 1000) the nearest reachable depth is beyond the 12 units kept.
  const std::string calib = readText(sample() + "/calib.yaml");
  std::string millimetres = calib, omni = calib;
  const std::regex row(R"((  - \[[^,]+, [^,]+, [^,]+, )([^\]]+)\])");
  for (std::sregex_iterator it(calib.begin(), calib.end(), row), end; it != end; ++it) {
    const std::string scaled = (*it)[1].str() + std::to_string(std::stod((*it)[2].str()) * 1000) + "]";
    if ((*it)[2].str() != "1") millimetres.replace(millimetres.find((*it)[0].str()), (*it)[0].length(), scaled);
  }
  omni.replace(omni.find("cam0:\n"), 6, "cam0:\n  camera_model: omni\n");
  writeText(sample() + "/millimetres.yaml", millimetres);
  writeText(sample() + "/omni.yaml", omni);

  const std::string base = readText(config());
  for (const auto& [key, value, warning] : std::vector<std::array<std::string, 3>>{
           {"thread_num", "0", "creates no matcher"},
           {"stereo_img_scaling", "0.001", "the library says: the views are 0x0 pixels when matched"},
           {"input_stereo_height", "240", "input size 320x240 does not have the aspect of cam0's resolution 320x200 "
                                          "(the library ends the process)"},
           {"calib_path", "nowhere.yaml", "the library says: file not exits: " + sample() + "/nowhere.yaml"},
           {"calib_path", "omni.yaml", "the library says: cam0: camera_model omni is not supported"},
           {"calib_path", "millimetres.yaml", "the measurable depth range is empty"},
           {"cloest_dist", "", "required key 'cloest_dist' is missing"},
           {"thread_num", "many", "is not a number"},
           {"stereo_img_scaling", "0.05", "the matcher needs at least 27x11 for its 16 disparities"}}) {
    writeText(sample() + "/bad.yaml", withKey(base, key, value));
    const ProgramResult r = tool({"info", sample() + "/bad.yaml"});
    EXPECT_NE(r.out.find(warning), std::string::npos) << key << ": " << r.out;
    expectOneLineError(r, "cannot produce depth");
    // run refuses the same file with one line instead of letting the library end it.
    const std::string named = warning.substr(warning.rfind("says: ") == std::string::npos ? 0 : warning.rfind("says: ") + 6);
    expectOneLineError(tool({"run", sample() + "/bad.yaml", sample(), "--out", sample() + "/bad"}),
                       named.substr(0, named.find(" (")));
  }
  // Doubtful settings are warnings only.
  std::string doubtful = withKey(withKey(base, "pointcloud_ROI", "1.5"), "enable_filter", "ture");
  writeText(sample() + "/doubtful.yaml", withKey(doubtful, "async_mode", "") + "asynch_mode: 0\n");
  const ProgramResult r = tool({"info", sample() + "/doubtful.yaml"});
  EXPECT_EQ(r.status, 0);
  for (const char* warning : {"pointcloud_ROI 1.5 is outside (0, 1]",
                              "enable_filter: 'ture' reads as false (only true, yes, on and 1 read as true)",
                              "unknown key 'asynch_mode' is ignored (did you mean 'async_mode'?)"}) {
    EXPECT_NE(r.out.find(warning), std::string::npos) << r.out;
  }
}

TEST(ToolAlignment, ColourFramesComeBackRegisteredWithDepth) {
  TempDir dir;
  const std::string sample = dir.file("sample"), out = dir.file("out");
  ASSERT_EQ(tool({"synth", "--out", sample, "--frames", "2", "--width", "320", "--height", "200", "--colour"}).status,
            0);
  ASSERT_EQ(tool({"run", sample + "/config.yaml", sample, "--out", out, "--cloud-every", "0"}).status, 0);
  for (int n = 0; n < 2; ++n) {
    const cv::Mat aligned = cv::imread(numbered(out, "aligned_colour_", n, ".png"));
    EXPECT_EQ(aligned.size(), cv::Size(kWidth, kHeight)) << "colour resampled into the depth view";
    EXPECT_GT(cv::countNonZero(aligned.reshape(1) > 0), kWidth * kHeight) << "mostly filled";
  }
  // Without colour frames the library would wait for each in vain.
  for (int n = 0; n < 2; ++n) fs::remove(numbered(sample, "colour_", n, ".png"));
  expectOneLineError(tool({"run", sample + "/config.yaml", sample, "--out", dir.file("none")}), "colour");
}

TEST(ToolErrors, BadInvocationsGiveOneLineAndAFailureStatus) {
  TempDir dir;
  const std::string config = ::config(), missing = dir.file("missing"), empty = dir.file("empty");
  for (const char* folder : {"empty", "broken", "frames"}) fs::create_directories(dir.file(folder));
  // Decoders and video backends have their say on stderr; the user still sees one line.
  writeText(dir.file("broken/frame_000000.png"), readText(sample() + "/frame_000000.png").substr(0, 2000));
  writeText(dir.file("movie.avi"), "not a video");
  cv::imwrite(dir.file("frames/frame_000000.png"), cv::Mat(400, 300, CV_8UC1, cv::Scalar(0)));
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{}, "missing command"},
      {{"run", missing + ".yaml", sample(), "--out", dir.file("o")}, "cannot read '" + missing + ".yaml'"},
      {{"run", config, missing, "--out", dir.file("o")}, "cannot read '" + missing + "'"},
      {{"run", config, empty, "--out", dir.file("o")}, "no images"},
      {{"run", config, sample()}, "missing --out"},
      {{"run", config, sample(), "--out", dir.file("o"), "--frobs"}, "unknown option '--frobs'"},
      {{"run", config, dir.file("broken"), "--out", dir.file("o")},
       "cannot read '" + dir.file("broken/frame_000000.png") + "'"},
      {{"run", config, dir.file("movie.avi"), "--out", dir.file("o")}, "not a video"},
      // A frame of the wrong size is named, not fed.
      {{"run", config, dir.file("frames"), "--out", dir.file("o")},
       "frame_000000.png' is 300x400; the configuration wants two 320x200 views"},
      {{"eval", missing, sample()}, "cannot read '" + missing + "'"},
      {{"eval", empty, sample()}, "no depth_N.tiff"},
  };
  for (const auto& [args, mention] : cases) {
    SCOPED_TRACE(mention);
    expectOneLineError(tool(args), mention);
  }
  for (const std::vector<std::string>& args : {std::vector<std::string>{"--help"}, {"info", "-h"}}) {
    const ProgramResult r = tool(args);
    EXPECT_EQ(r.status, 0) << args[0];
    EXPECT_EQ(r.out.rfind("usage: lumetra-depth", 0), 0u) << r.out;
  }
}

}  // namespace
