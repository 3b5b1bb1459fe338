// One rendered sequence, judged once: the library's depth of it against the
// renderer's ground truth. The command-line program, the README's host
// examples and the library's other modes are then held against that depth;
// the program's other commands, and the failures a user meets first, run on
// the same sequence.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "lumetra_depth.h"
#include "support/CaptureOutput.h"
#include "support/FeedAndWait.h"
#include "support/HostConfig.h"
#include "support/RunProgram.h"
#include "support/ShiftedPair.h"
#include "support/TempDir.h"
#include "synth/SyntheticStereo.h"

namespace {

namespace fs = std::filesystem;
using LumoTest::DepthBuffer;
using LumoTest::expectOneLineError;
using LumoTest::Handle;
using LumoTest::numberAfter;
using LumoTest::numbered;
using LumoTest::ProgramResult;
using LumoTest::readText;
using LumoTest::TempDir;
using LumoTest::tool;
using LumoTest::wrapStacked;
using LumoTest::writeText;

constexpr int kWidth = 320, kHeight = 200, kFrames = 3;

// The configuration text with one key's line replaced (or removed when `value` is empty).
std::string withKey(const std::string& config, const std::string& key, const std::string& value) {
  const std::regex line("(^|\n)" + key + ":[^\n]*");
  return std::regex_replace(config, line, value.empty() ? "$1" : "$1" + key + ": " + value);
}

uint64_t stamp(int n) { return 1234567890123ull + 1000ull * n; }

// The sequence, rendered by the program; the program's run on it (the cloud
// of frame 0 only, by default) and the library's outputs for each frame, fed
// through the C interface with debug dumps on. Made once per test process.
struct Sequence {
  TempDir dir;
  const std::string path = dir.file("sample"), config = path + "/config.yaml", out = dir.file("out");
  const std::string debug = dir.file("debug");
  ProgramResult run;
  std::vector<cv::Mat> grey, truth, depth, disparity;
  std::vector<LumoDepthImage> records;  // depth and disparity of each frame
  LumoImage aligned{};                  // what the library left of a sentinel record
  std::string printed;  // the library's standard output while fed

  // The configuration with keys' lines replaced, and `more` lines after them, as a new file beside it.
  std::string variant(const std::string& name, const std::vector<std::pair<std::string, std::string>>& keys,
                      const std::string& more = "") const {
    std::string text = readText(config);
    for (const auto& [key, value] : keys) text = withKey(text, key, value);
    writeText(path + "/" + name, text + more);
    return path + "/" + name;
  }

  Sequence() {
    const ProgramResult synth = tool({"synth", "--out", path, "--frames", std::to_string(kFrames), "--width",
                                      std::to_string(kWidth), "--height", std::to_string(kHeight), "--moving"});
    EXPECT_EQ(synth.status, 0) << synth.err;
    run = tool({"run", config, path, "--out", out});
    fs::create_directories(debug);
    Handle handle(variant("debug.yaml", {{"debug_image", "1"}, {"debug_img_save_path", debug}}));
    static std::vector<uint8_t> sentinel(63, 0xA5);
    aligned = LumoImage{0xDEADBEEF, 5, 0x1234567890ull, 7, 3, 3, 9, 0, 21, 63, sentinel.data()};
    for (int n = 0; n < kFrames; ++n) {
      grey.push_back(cv::imread(numbered(path, "frame_", n, ".png"), cv::IMREAD_GRAYSCALE));
      truth.push_back(LumoSynth::readDepth(numbered(path, "depth_", n, ".tiff")));
      LumoImage frame = wrapStacked(grey[n], stamp(n));
      frame.tag0 = 11 + n, frame.tag1 = 22, frame.format = 7;
      printed += LumoTest::captureStdout([&] { EXPECT_EQ(LumoTest::feedAndWait(handle, &frame), 0); });
      depth.emplace_back(kHeight, kWidth, CV_32F), disparity.emplace_back(kHeight, kWidth, CV_32F);
      records.emplace_back(), records.emplace_back();  // depth, disparity
      records[2 * n].data = depth[n].ptr<float>(), records[2 * n + 1].data = disparity[n].ptr<float>();
      EXPECT_EQ(KORV_LUMO_D_GetDepthImage(handle, &records[2 * n], &records[2 * n + 1], &aligned), 0);
    }
  }
};

const Sequence& sequence() {
  static const Sequence s;
  return s;
}

// Plain figures of depth against ground truth: errors where both have depth,
// density over ground-truth pixels right of the band the search cannot reach.
struct Figures {
  std::vector<double> relative;
  long long visible = 0, covered = 0;
  double median() {
    std::nth_element(relative.begin(), relative.begin() + relative.size() / 2, relative.end());
    return relative[relative.size() / 2];
  }
  void add(const cv::Mat& depth, const cv::Mat& truth) {
    for (int v = 0; v < kHeight; ++v) {
      for (int u = 0; u < kWidth; ++u) {
        const double d = depth.at<float>(v, u), z = truth.at<float>(v, u);
        if (z <= 0.0) continue;
        visible += u >= kWidth / 10;
        covered += u >= kWidth / 10 && d > 0.0;
        if (d > 0.0) relative.push_back(std::fabs(d - z) / z);
      }
    }
  }
};

// Depth is f·B / disparity wherever there is depth; `source` is the disparity
// under each depth pixel.
void expectDepthTimesDisparity(const cv::Mat& depth, const cv::Mat& source, double fB, double tolerance) {
  cv::Mat off = cv::abs(depth.mul(source) - fB);
  off.setTo(0, depth <= 0);
  EXPECT_LE(cv::norm(off, cv::NORM_INF), tolerance * fB);
}

TEST(EndToEnd, LibraryDepthOfTheRenderedSequenceMatchesGroundTruth) {
  const Sequence& s = sequence();
  const LumoSynth::Rectification rect = LumoSynth::rectification(LumoSynth::pinholeRig(kWidth, kHeight), 1.0);
  const double fB = rect.P1.at<double>(0, 0) * rect.baseline;
  Figures all;
  for (int n = 0; n < kFrames; ++n) {
    const LumoDepthImage& r = s.records[2 * n];
    EXPECT_EQ(std::make_tuple(r.timestamp, r.tag0, r.tag1, r.format), std::make_tuple(stamp(n), 11u + n, 22u, 7u));
    EXPECT_EQ(std::make_tuple(r.width, r.height, r.size), std::make_tuple(320u, 200u, 320u * 200u * 4u));
    EXPECT_EQ(s.records[2 * n + 1].timestamp, stamp(n));
    expectDepthTimesDisparity(s.depth[n], s.disparity[n], fB, 1e-3);
    all.add(s.depth[n], s.truth[n]);
  }
  EXPECT_GT(all.covered, 0.9 * all.visible);
  EXPECT_LT(all.median(), 0.05);
  // Alignment is off: the aligned record and its bytes were left alone.
  EXPECT_EQ(std::make_tuple(s.aligned.tag0, s.aligned.size), std::make_tuple(0xDEADBEEFu, 63u));
  EXPECT_EQ(std::count(s.aligned.data, s.aligned.data + 63, 0xA5), 63);

  Handle handle(s.config);
  LumoRectifyInfo info{};
  EXPECT_EQ(KORV_LUMO_D_GetRectifyInfo(handle, &info), 0);
  EXPECT_FLOAT_EQ(info.P1[0], static_cast<float>(rect.P1.at<double>(0, 0)));
  EXPECT_FLOAT_EQ(info.P2[3], static_cast<float>(rect.P2.at<double>(0, 3)));

  // The printed name differs from the file written; both are kept as they are.
  const std::string last = std::to_string(stamp(kFrames - 1));
  EXPECT_NE(s.printed.find("origin image save to : " + s.debug + "/origin_" + last + ".bmp\n"), std::string::npos)
      << s.printed;
  // The result thread writes its dumps just after the depth is published.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  for (std::string name : {"origin_.bmp", "feedresizedImg_.bmp", "combined_img_.bmp", "sgbm_disparity_.yml",
                           "sgbm_depth_.yml", "disparity_.yml", "depth_.yml"}) {
    const std::string file = s.debug + "/debug_" + name.insert(name.find('.'), last);
    while (!fs::exists(file) && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_TRUE(fs::exists(file)) << file;
  }
}

// An earlier version's ground truth: "LDEP", width, height, then the floats (little-endian).
void writeLdep(const std::string& path, const cv::Mat& depth) {
  std::ofstream out(path, std::ios::binary);
  const uint32_t size[2] = {static_cast<uint32_t>(depth.cols), static_cast<uint32_t>(depth.rows)};
  out.write("LDEP", 4);
  out.write(reinterpret_cast<const char*>(size), sizeof(size));
  out.write(reinterpret_cast<const char*>(depth.data), static_cast<std::streamsize>(depth.total() * 4));
}

// The program writes the library's depth, in metres and in whole millimetres,
// reports the space its files take, and eval scores them as computed plainly.
TEST(EndToEnd, ProgramWritesTheLibrarysDepthAndEvalScoresIt) {
  const Sequence& s = sequence();
  ASSERT_EQ(s.run.status, 0) << s.run.err;
  std::uintmax_t bytes = 0;
  int files = 0;
  for (const auto& entry : fs::directory_iterator(s.out)) bytes += entry.file_size(), ++files;
  EXPECT_NEAR(numberAfter(s.run.out, "disk space"), bytes / 1e6, 0.051) << s.run.out;
  EXPECT_EQ(numberAfter(s.run.out, "MB in "), files) << s.run.out;

  // Folders of earlier versions: millimetre PNGs only, ground truth in .ldep.
  const TempDir old;
  fs::create_directories(old.file("out"));
  fs::create_directories(old.file("truth"));
  Figures figures, fromMillimetres;
  for (int n = 0; n < kFrames; ++n) {
    const cv::Mat depth = cv::imread(numbered(s.out, "depth_", n, ".tiff"), cv::IMREAD_UNCHANGED);
    const cv::Mat mm = cv::imread(numbered(s.out, "depth_", n, ".png"), cv::IMREAD_UNCHANGED);
    ASSERT_EQ(depth.type(), CV_32FC1);
    ASSERT_EQ(mm.type(), CV_16UC1);
    ASSERT_EQ(depth.size(), s.depth[n].size());
    EXPECT_EQ(cv::countNonZero(depth != s.depth[n]), 0) << "frame " << n;
    cv::Mat metres;
    mm.convertTo(metres, CV_32F, 0.001);
    EXPECT_LE(cv::norm(metres, depth, cv::NORM_INF), 0.0005 + 2e-6) << "frame " << n;  // whole millimetres, 0 = none
    figures.add(depth, s.truth[n]);
    fromMillimetres.add(metres, s.truth[n]);
    fs::copy_file(numbered(s.out, "depth_", n, ".png"), numbered(old.file("out"), "depth_", n, ".png"));
    writeLdep(numbered(old.file("truth"), "depth_", n, ".ldep"), s.truth[n]);
  }
  const ProgramResult r = tool({"eval", s.out, s.path});
  ASSERT_EQ(r.status, 0) << r.err;
  const auto within2 = std::count_if(figures.relative.begin(), figures.relative.end(), [](double e) { return e <= 0.02; });
  EXPECT_NEAR(numberAfter(r.out, "median relative error"), 100.0 * figures.median(), 0.01) << r.out;
  EXPECT_NEAR(numberAfter(r.out, "within 2 %"), 100.0 * within2 / figures.relative.size(), 0.051) << r.out;
  EXPECT_NEAR(numberAfter(r.out, "density"), 100.0 * figures.covered / figures.visible, 0.051) << r.out;
  EXPECT_NE(r.out.find("32-column left band"), std::string::npos) << r.out;
  EXPECT_TRUE(fs::exists(s.out + "/error_heatmap.png"));
  // The accuracy gate fails when asked for more than the run achieved.
  expectOneLineError(tool({"eval", s.out, s.path, "--require-median", "0.01"}), "median relative error");
  const ProgramResult earlier = tool({"eval", old.file("out"), old.file("truth")});
  ASSERT_EQ(earlier.status, 0) << earlier.err;
  EXPECT_NE(earlier.out.find(std::to_string(kFrames) + " frames"), std::string::npos) << earlier.out;
  EXPECT_NEAR(numberAfter(earlier.out, "median relative error"), 100.0 * fromMillimetres.median(), 0.01) << earlier.out;

  // By default the cloud of every 30th frame: here only the first. Binary
  // PCD and PLY hold the same points after their headers.
  const std::string pcd = readText(numbered(s.out, "cloud_", 0, ".pcd"));
  const std::string ply = readText(numbered(s.out, "cloud_", 0, ".ply"));
  const int points = static_cast<int>(numberAfter(pcd, "\nPOINTS "));
  EXPECT_GT(points, 100);
  EXPECT_EQ(static_cast<int>(numberAfter(ply, "element vertex ")), points);
  const std::size_t pcdData = pcd.find("DATA binary\n") + 12, plyData = ply.find("end_header\n") + 11;
  EXPECT_EQ(pcd.size() - pcdData, static_cast<std::size_t>(points) * 12);
  EXPECT_EQ(pcd.substr(pcdData), ply.substr(plyData));
  EXPECT_FALSE(fs::exists(numbered(s.out, "cloud_", 1, ".pcd")));

  // A limited run with every cloud in text form; world-frame clouds need the poses beside the frames.
  const std::string limited = old.file("limited");
  const ProgramResult run = tool({"run", s.variant("world.yaml", {{"pointcloud_type", "2"}}), s.path, "--out", limited,
                                  "--limit", "2", "--cloud-every", "1", "--ascii-pcd"});
  EXPECT_NE(run.out.find("2 with depth"), std::string::npos) << run.out << run.err;
  const std::string ascii = readText(numbered(limited, "cloud_", 1, ".pcd"));
  const std::size_t asciiData = ascii.find("DATA ascii\n");
  ASSERT_NE(asciiData, std::string::npos);
  EXPECT_EQ(std::count(ascii.begin() + static_cast<std::ptrdiff_t>(asciiData + 11), ascii.end(), '\n'),
            static_cast<int>(numberAfter(ascii, "\nPOINTS ")));
  EXPECT_GT(numberAfter(ascii, "\nPOINTS "), 100);
  EXPECT_FALSE(fs::exists(numbered(limited, "depth_", 2, ".tiff")));
}

// Two folders of single views, side-by-side pairs and stacked frames named
// so are the same pictures: the library's depth. So is polling in
// asynchronous mode, which must find each frame's own depth.
TEST(EndToEnd, EveryInputFormAndAsynchronousModeGiveTheLibrarysDepth) {
  const Sequence& s = sequence();
  const TempDir scratch;
  const std::string left = scratch.file("left"), right = scratch.file("right"), pairs = scratch.file("pairs");
  for (const std::string& dir : {left, right, pairs}) fs::create_directories(dir);
  for (int n = 0; n < kFrames; ++n) {
    cv::Mat sideBySide;
    cv::imwrite(numbered(left, "cam0_", n, ".png"), s.grey[n].rowRange(0, kHeight));
    cv::imwrite(numbered(right, "cam1_", n, ".png"), s.grey[n].rowRange(kHeight, 2 * kHeight));
    cv::hconcat(s.grey[n].rowRange(0, kHeight), s.grey[n].rowRange(kHeight, 2 * kHeight), sideBySide);
    cv::imwrite(numbered(pairs, "pair_", n, ".png"), sideBySide);
  }
  const std::string async = s.variant("async.yaml", {{"async_mode", "1"}, {"thread_num", "2"}});
  const std::tuple<std::string, std::string, std::vector<std::string>> forms[] = {
      {left + "," + right, s.config, {}},
      {pairs, s.config, {}},
      {pairs, s.config, {"--layout", "side-by-side"}},
      {s.path, s.config, {"--layout", "stacked"}},
      {s.path, async, {}}};
  for (const auto& [input, config, more] : forms) {
    std::vector<std::string> args = {"run", config, input, "--out", scratch.file("out"), "--cloud-every", "0"};
    args.insert(args.end(), more.begin(), more.end());
    const ProgramResult r = tool(args);
    ASSERT_EQ(r.status, 0) << r.err;
    for (int n = 0; n < kFrames; ++n) {
      const cv::Mat depth = cv::imread(numbered(scratch.file("out"), "depth_", n, ".tiff"), cv::IMREAD_UNCHANGED);
      ASSERT_EQ(depth.size(), s.depth[n].size()) << input << " frame " << n;
      EXPECT_EQ(cv::countNonZero(depth != s.depth[n]), 0) << input << " frame " << n;
    }
    fs::remove_all(scratch.file("out"));
  }
  // A layout named is a layout required.
  const ProgramResult wrong = tool({"run", s.config, pairs, "--out", scratch.file("wrong"), "--layout", "stacked"});
  EXPECT_EQ(wrong.status, 1);
  EXPECT_EQ(wrong.err, "lumetra-depth: '" + numbered(pairs, "pair_", 0, ".png") +
                           "' is 640x200; --layout stacked with two 320x200 views wants 320x400\n");
}

// The README's host examples, built as a reader builds them, on the sequence's configuration.
TEST(EndToEnd, ReadmeHostsMeasureTheScene) {
  const Sequence& s = sequence();
  const ProgramResult c = LumoTest::runProgram(LUMO_HOST_C, {s.config, "320", "200"});
  ASSERT_EQ(c.status, 0) << c.out << c.err;
  EXPECT_GT(numberAfter(c.out, "depth 320x200, "), 50.0) << "per cent of pixels with depth: " << c.out;
  // 16 pixels apart before rectification is about f·B/16 = 256 px · 0.1 m / 16 = 1.6 m; the
  // rectifying rotation of the right camera takes a few pixels off that disparity.
  const double wall = numberAfter(c.out, "pixels with depth, ");
  EXPECT_GT(wall, 1.5) << c.out;
  EXPECT_LT(wall, 3.0) << c.out;
  EXPECT_EQ(LumoTest::runProgram(LUMO_HOST_C, {}).status, 2);

  // The centre pixel's depth as the library gave it, and its point at that depth.
  const ProgramResult cpp = LumoTest::runProgram(LUMO_HOST_CPP, {s.config, numbered(s.path, "frame_", 0, ".png")});
  ASSERT_EQ(cpp.status, 0) << cpp.out << cpp.err;
  double x = 0, y = 0, z = 0;
  const std::size_t open = cpp.out.find("point (");
  ASSERT_NE(open, std::string::npos) << cpp.out;
  ASSERT_EQ(std::sscanf(cpp.out.c_str() + open, "point (%lf, %lf, %lf)", &x, &y, &z), 3) << cpp.out;
  const double depth = numberAfter(cpp.out, "at depth ");
  EXPECT_NEAR(depth, s.depth[0].at<float>(kHeight / 2, kWidth / 2), 5e-4) << cpp.out;
  EXPECT_NEAR(z, depth, 1e-3);
  EXPECT_NE(LumoTest::runProgram(LUMO_HOST_CPP, {s.config, s.path + "/missing.png"}).status, 0);
}

// A grey frame takes a one-channel path through rectification and matching;
// the same frame as three equal channels takes the three-channel path. Every
// output must be the same bit for bit, at full size, at an exact half (OpenCV
// averages 2 x 2 blocks there) and at an odd scale.
TEST(EndToEnd, GreyFramesGiveExactlyTheOutputsOfTheirThreeChannelForm) {
  const Sequence& s = sequence();
  cv::Mat grey = s.grey[0], colour;
  cv::cvtColor(grey, colour, cv::COLOR_GRAY2BGR);
  for (const char* scale : {"1.0", "0.5", "0.539063"}) {
    SCOPED_TRACE(scale);
    std::vector<std::vector<float>> outputs;
    std::vector<std::vector<uint8_t>> pictures;
    for (cv::Mat pixels : {grey, colour}) {
      Handle handle(s.variant("scaled.yaml", {{"stereo_img_scaling", scale}, {"enable_filter", "true"}}));
      LumoImage frame = wrapStacked(pixels, 99), rectified{};
      ASSERT_EQ(LumoTest::feedAndWait(handle, &frame), 0);
      DepthBuffer depth(kWidth * kHeight), disparity(kWidth * kHeight);
      ASSERT_EQ(KORV_LUMO_D_GetDepthImage(handle, &depth.record, &disparity.record, nullptr), 0);
      outputs.push_back(depth.data);
      outputs.push_back(disparity.data);
      pictures.emplace_back(kWidth * kHeight * 6);
      rectified.data = pictures.back().data();
      ASSERT_EQ(KORV_LUMO_D_GetRectifiedImage(handle, &rectified), 0);
      EXPECT_EQ(rectified.channels, 3u);
    }
    EXPECT_EQ(outputs[0], outputs[2]) << "depth";
    EXPECT_EQ(outputs[1], outputs[3]) << "disparity";
    EXPECT_EQ(pictures[0], pictures[1]) << "rectified";
  }
}

TEST(EndToEnd, ScaledInputIsRestoredOnlyWhenAsked) {
  const Sequence& s = sequence();
  const LumoSynth::Rectification working = LumoSynth::rectification(LumoSynth::pinholeRig(kWidth, kHeight), 0.5);
  const double fB = working.P1.at<double>(0, 0) * working.baseline;
  cv::Mat grey = s.grey[0];
  for (int restore : {0, 1}) {
    Handle handle(s.variant("half.yaml", {{"stereo_img_scaling", "0.5"}, {"restore_depth_dim", std::to_string(restore)}}));
    LumoImage frame = wrapStacked(grey, 77);
    ASSERT_EQ(LumoTest::feedAndWait(handle, &frame), 0);
    DepthBuffer depth(kWidth * kHeight), disparity(kWidth * kHeight);
    ASSERT_EQ(KORV_LUMO_D_GetDepthImage(handle, &depth.record, &disparity.record, nullptr), 0);
    const uint32_t width = restore ? kWidth : kWidth / 2;
    ASSERT_EQ(depth.record.width, width);
    ASSERT_EQ(depth.record.height, width * 10 / 16);
    EXPECT_EQ(disparity.record.width, kWidth / 2u);  // disparity stays at the working size

    // Restored depth repeats the working depth (nearest neighbour), never a
    // blend: each output pixel is f·B / d of its source pixel.
    cv::Mat restored(depth.record.height, width, CV_32F, depth.data.data()), source;
    cv::resize(cv::Mat(kHeight / 2, kWidth / 2, CV_32F, disparity.data.data()), source, restored.size(), 0, 0,
               cv::INTER_NEAREST);
    expectDepthTimesDisparity(restored, source, fB, 1e-4);
    EXPECT_GT(cv::countNonZero(restored > 0), kWidth * kHeight / 8);
  }
}

TEST(ToolSequence, InfoShowsTheRigAndFlagsSettingsThatLookWrong) {
  const Sequence& s = sequence();
  const ProgramResult ok = tool({"info", s.config});
  ASSERT_EQ(ok.status, 0) << ok.err;
  EXPECT_NEAR(numberAfter(ok.out, "Baseline"), 0.1, 1e-4) << ok.out;  // the pinhole rig's 10 cm
  EXPECT_NE(ok.out.find("Warnings: none"), std::string::npos) << ok.out;

  // Calibrations the library refuses, or cannot measure with: in millimetres
  // (translations times 1000) the nearest reachable depth is beyond the 12 units kept.
  const std::string calib = readText(s.path + "/calib.yaml");
  std::string millimetres = calib, omni = calib;
  const std::regex row(R"((  - \[[^,]+, [^,]+, [^,]+, )([^\]]+)\])");
  for (std::sregex_iterator it(calib.begin(), calib.end(), row), end; it != end; ++it) {
    const std::string scaled = (*it)[1].str() + std::to_string(std::stod((*it)[2].str()) * 1000) + "]";
    if ((*it)[2].str() != "1") millimetres.replace(millimetres.find((*it)[0].str()), (*it)[0].length(), scaled);
  }
  omni.replace(omni.find("cam0:\n"), 6, "cam0:\n  camera_model: omni\n");
  writeText(s.path + "/millimetres.yaml", millimetres);
  writeText(s.path + "/omni.yaml", omni);

  // `run` takes the same check as `info`: a few kinds of refusal are enough there.
  struct Case {
    std::string key, value, warning;
    bool run;
  };
  for (const Case& c : std::vector<Case>{
           {"thread_num", "0", "creates no matcher", false},
           {"stereo_img_scaling", "0.001", "the library says: the views are 0x0 pixels when matched", true},
           {"input_stereo_height", "240", "input size 320x240 does not have the aspect of cam0's resolution 320x200 "
                                          "(the library ends the process)", true},
           {"calib_path", "nowhere.yaml", "the library says: file not exits: " + s.path + "/nowhere.yaml", false},
           {"calib_path", "omni.yaml", "the library says: cam0: camera_model omni is not supported", false},
           {"calib_path", "millimetres.yaml", "the measurable depth range is empty", false},
           {"cloest_dist", "", "required key 'cloest_dist' is missing", true},
           {"thread_num", "many", "is not a number", false},
           {"stereo_img_scaling", "0.05", "the matcher needs at least 27x11 for its 16 disparities", false}}) {
    const std::string bad = s.variant("bad.yaml", {{c.key, c.value}});
    const ProgramResult r = tool({"info", bad});
    EXPECT_NE(r.out.find(c.warning), std::string::npos) << c.key << ": " << r.out;
    expectOneLineError(r, "cannot produce depth");
    if (!c.run) continue;
    // run refuses the same file with one line instead of letting the library end it.
    const std::size_t says = c.warning.rfind("says: ");
    const std::string named = c.warning.substr(says == std::string::npos ? 0 : says + 6);
    expectOneLineError(tool({"run", bad, s.path, "--out", s.path + "/bad"}), named.substr(0, named.find(" (")));
  }
  // Doubtful settings are warnings only.
  const ProgramResult r = tool({"info", s.variant("doubtful.yaml", {{"pointcloud_ROI", "1.5"}, {"enable_filter", "ture"},
                                                                    {"async_mode", ""}}, "asynch_mode: 0\n")});
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
  const Sequence& s = sequence();
  TempDir dir;
  const std::string config = s.config, missing = dir.file("missing"), empty = dir.file("empty");
  for (const char* folder : {"empty", "broken", "frames"}) fs::create_directories(dir.file(folder));
  // Decoders and video backends have their say on stderr; the user still sees one line.
  writeText(dir.file("broken/frame_000000.png"), readText(numbered(s.path, "frame_", 0, ".png")).substr(0, 2000));
  writeText(dir.file("movie.avi"), "not a video");
  cv::imwrite(dir.file("frames/frame_000000.png"), cv::Mat(400, 300, CV_8UC1, cv::Scalar(0)));
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{}, "missing command"},
      {{"run", missing + ".yaml", s.path, "--out", dir.file("o")}, "cannot read '" + missing + ".yaml'"},
      {{"run", config, missing, "--out", dir.file("o")}, "cannot read '" + missing + "'"},
      {{"run", config, empty, "--out", dir.file("o")}, "no images"},
      {{"run", config, s.path}, "missing --out"},
      {{"run", config, s.path, "--out", dir.file("o"), "--frobs"}, "unknown option '--frobs'"},
      {{"run", config, dir.file("broken"), "--out", dir.file("o")},
       "cannot read '" + dir.file("broken/frame_000000.png") + "'"},
      {{"run", config, dir.file("movie.avi"), "--out", dir.file("o")}, "not a video"},
      // A frame of the wrong size is named, not fed.
      {{"run", config, dir.file("frames"), "--out", dir.file("o")},
       "frame_000000.png' is 300x400; the configuration wants two 320x200 views"},
      {{"eval", missing, s.path}, "cannot read '" + missing + "'"},
      {{"eval", empty, s.path}, "no depth_N.tiff"},
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
