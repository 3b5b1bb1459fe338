// lumetra-depth as a user runs it: synth, run, eval and info on a tiny
// rendered sequence, every input form, and the failures a user meets first.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "support/RunProgram.h"
#include "support/TempDir.h"
#include "synth/SyntheticStereo.h"

namespace {

namespace fs = std::filesystem;
using LumoTest::ProgramResult;
using LumoTest::TempDir;
using LumoTest::writeText;

constexpr int kWidth = 320, kHeight = 200, kFrames = 3;

ProgramResult tool(const std::vector<std::string>& args) { return LumoTest::runProgram(LUMO_TOOL, args); }

std::string readText(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

// The configuration text with one key's line replaced (or removed when `value` is empty).
std::string withKey(const std::string& config, const std::string& key, const std::string& value) {
  const std::regex line("(^|\n)" + key + ":[^\n]*");
  return std::regex_replace(config, line, value.empty() ? "$1" : "$1" + key + ": " + value);
}

std::string numbered(const std::string& dir, const std::string& prefix, int n, const std::string& extension) {
  return dir + "/" + prefix + "00000" + std::to_string(n) + extension;  // n < 10 here
}

// A number printed after `label` in the program's output.
double numberAfter(const std::string& text, const std::string& label) {
  const std::size_t at = text.find(label);
  return at == std::string::npos ? NAN : std::strtod(text.c_str() + at + label.size(), nullptr);
}

void expectOneLineError(const ProgramResult& r, const std::string& mention) {
  EXPECT_NE(r.status, 0);
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  EXPECT_EQ(r.err.rfind("lumetra-depth", 0), 0u) << r.err;
  EXPECT_NE(r.err.find(mention), std::string::npos) << "stderr: " << r.err;
}

// One tiny moving sequence per test process, rendered by the program itself.
std::string sample() {
  static const TempDir dir;
  static const ProgramResult synth = tool({"synth", "--out", dir.file("sample"), "--frames", std::to_string(kFrames),
                                           "--width", std::to_string(kWidth), "--height", std::to_string(kHeight),
                                           "--moving"});
  EXPECT_EQ(synth.status, 0) << synth.err;
  return dir.file("sample");
}
std::string config() { return sample() + "/config.yaml"; }

// A run into `out`, without clouds.
std::string runInto(const std::string& out, const std::string& input, const std::string& cfg = config(),
                    const std::vector<std::string>& more = {}) {
  std::vector<std::string> args = {"run", cfg, input, "--out", out, "--cloud-every", "0"};
  args.insert(args.end(), more.begin(), more.end());
  const ProgramResult r = tool(args);
  EXPECT_EQ(r.status, 0) << r.err;
  return out;
}

// An old sample folder's ground truth: "LDEP", width, height, then the floats (little-endian).
void writeLdep(const std::string& path, const cv::Mat& depth) {
  std::ofstream out(path, std::ios::binary);
  const uint32_t size[2] = {static_cast<uint32_t>(depth.cols), static_cast<uint32_t>(depth.rows)};
  out.write("LDEP", 4);
  out.write(reinterpret_cast<const char*>(size), sizeof(size));
  out.write(reinterpret_cast<const char*>(depth.data), static_cast<std::streamsize>(depth.total() * 4));
}

TEST(ToolSequence, RunWritesMetricDepthPicturesAndCloudsThatEvalScores) {
  const TempDir scratch;
  const std::string out = scratch.file("out");
  const ProgramResult run = tool({"run", config(), sample(), "--out", out});
  ASSERT_EQ(run.status, 0) << run.err;
  // The disk space reported is that of the files in the folder.
  std::uintmax_t bytes = 0;
  int files = 0;
  for (const auto& entry : fs::directory_iterator(out)) {
    bytes += entry.file_size();
    ++files;
  }
  EXPECT_NEAR(numberAfter(run.out, "disk space"), bytes / 1e6, 0.051) << run.out;
  EXPECT_EQ(numberAfter(run.out, "MB in "), files) << run.out;

  // Eval's figures computed plainly: pixels with both depths for errors,
  // ground-truth pixels right of the 32-column band (320 / 10) for density.
  std::vector<double> relative, relativeMm;  // the latter from the millimetre PNGs
  long long within2 = 0, visible = 0, covered = 0;
  for (int n = 0; n < kFrames; ++n) {
    const cv::Mat depth = cv::imread(numbered(out, "depth_", n, ".tiff"), cv::IMREAD_UNCHANGED);
    ASSERT_EQ(depth.type(), CV_32FC1);
    ASSERT_EQ(depth.size(), cv::Size(kWidth, kHeight));
    const cv::Mat mm = cv::imread(numbered(out, "depth_", n, ".png"), cv::IMREAD_UNCHANGED);
    ASSERT_EQ(mm.type(), CV_16UC1);
    ASSERT_EQ(mm.size(), depth.size());
    const cv::Mat truth = LumoSynth::readDepth(numbered(sample(), "depth_", n, ".tiff"));
    ASSERT_EQ(truth.type(), CV_32FC1);
    for (int v = 0; v < kHeight; ++v) {
      for (int u = 0; u < kWidth; ++u) {
        const double d = depth.at<float>(v, u), z = truth.at<float>(v, u);  // metres
        // The PNG is the same depth in whole millimetres.
        const double millimetres = mm.at<uint16_t>(v, u);
        if (d > 0.0) {
          ASSERT_LE(std::fabs(millimetres - 1000.0 * d), 0.5 + 1e-3) << u << "," << v;
        } else {
          ASSERT_EQ(millimetres, 0.0) << u << "," << v;
        }
        if (z <= 0.0) continue;
        visible += u >= kWidth / 10;
        covered += u >= kWidth / 10 && d > 0.0;
        if (d <= 0.0) continue;
        relative.push_back(std::fabs(d - z) / z);
        relativeMm.push_back(std::fabs(millimetres / 1000.0 - z) / z);
        within2 += relative.back() <= 0.02;
      }
    }
  }
  // By default the cloud of every 30th frame: here only the first. Binary
  // PCD and PLY hold the same points after their headers.
  const std::string pcd = readText(numbered(out, "cloud_", 0, ".pcd"));
  const std::string ply = readText(numbered(out, "cloud_", 0, ".ply"));
  const int points = static_cast<int>(numberAfter(pcd, "\nPOINTS "));
  EXPECT_GT(points, 100);
  EXPECT_EQ(static_cast<int>(numberAfter(ply, "element vertex ")), points);
  const std::size_t pcdData = pcd.find("DATA binary\n") + 12, plyData = ply.find("end_header\n") + 11;
  EXPECT_EQ(pcd.size() - pcdData, static_cast<std::size_t>(points) * 12);
  EXPECT_EQ(pcd.substr(pcdData), ply.substr(plyData));
  EXPECT_FALSE(fs::exists(numbered(out, "cloud_", 1, ".pcd")));

  ASSERT_GT(relative.size(), static_cast<std::size_t>(kFrames * kWidth * kHeight / 2));
  std::nth_element(relative.begin(), relative.begin() + relative.size() / 2, relative.end());
  std::nth_element(relativeMm.begin(), relativeMm.begin() + relativeMm.size() / 2, relativeMm.end());
  EXPECT_LT(relative[relative.size() / 2], 0.05);
  const ProgramResult r = tool({"eval", out, sample()});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NEAR(numberAfter(r.out, "median relative error"), 100.0 * relative[relative.size() / 2], 0.01) << r.out;
  EXPECT_NEAR(numberAfter(r.out, "within 2 %"), 100.0 * within2 / relative.size(), 0.051) << r.out;
  EXPECT_NEAR(numberAfter(r.out, "density"), 100.0 * covered / visible, 0.051) << r.out;
  EXPECT_NE(r.out.find("32-column left band"), std::string::npos) << r.out;
  EXPECT_TRUE(fs::exists(out + "/error_heatmap.png"));
  // The accuracy gate fails when asked for more than the run achieved.
  expectOneLineError(tool({"eval", out, sample(), "--require-median", "0.01"}), "median relative error");

  // Folders of earlier versions: millimetre PNGs only, ground truth in .ldep.
  const std::string oldOut = scratch.file("old-out"), oldTruth = scratch.file("old-truth");
  fs::create_directories(oldOut);
  fs::create_directories(oldTruth);
  for (int n = 0; n < kFrames; ++n) {
    fs::copy_file(numbered(out, "depth_", n, ".png"), numbered(oldOut, "depth_", n, ".png"));
    writeLdep(numbered(oldTruth, "depth_", n, ".ldep"), LumoSynth::readDepth(numbered(sample(), "depth_", n, ".tiff")));
  }
  const ProgramResult old = tool({"eval", oldOut, oldTruth});
  ASSERT_EQ(old.status, 0) << old.err;
  EXPECT_NE(old.out.find(std::to_string(kFrames) + " frames"), std::string::npos) << old.out;
  EXPECT_NEAR(numberAfter(old.out, "median relative error"), 100.0 * relativeMm[relativeMm.size() / 2], 0.01)
      << old.out;

  // A limited run with every cloud in text form; world-frame clouds need the poses beside the frames.
  writeText(sample() + "/world.yaml", withKey(readText(config()), "pointcloud_type", "2"));
  const ProgramResult limited = tool({"run", sample() + "/world.yaml", sample(), "--out", out + "2", "--limit", "2",
                                      "--cloud-every", "1", "--ascii-pcd"});
  EXPECT_NE(limited.out.find("2 with depth"), std::string::npos) << limited.out << limited.err;
  const std::string ascii = readText(numbered(out + "2", "cloud_", 1, ".pcd"));
  const std::size_t asciiData = ascii.find("DATA ascii\n");
  ASSERT_NE(asciiData, std::string::npos);
  EXPECT_EQ(std::count(ascii.begin() + static_cast<std::ptrdiff_t>(asciiData + 11), ascii.end(), '\n'),
            static_cast<int>(numberAfter(ascii, "\nPOINTS ")));
  EXPECT_GT(numberAfter(ascii, "\nPOINTS "), 100);
  EXPECT_FALSE(fs::exists(numbered(out + "2", "depth_", 2, ".tiff")));
}

// Stacked frames, two folders of single views and side-by-side pairs are the
// same pictures: same depth. So is polling in asynchronous mode, which must
// find each frame's own depth.
TEST(ToolSequence, EveryInputFormAndAsynchronousModeGiveTheSameDepth) {
  const TempDir scratch;
  const std::string stacked = runInto(scratch.file("stacked"), sample());
  EXPECT_FALSE(fs::exists(numbered(stacked, "cloud_", 0, ".pcd")));
  const std::string left = scratch.file("left"), right = scratch.file("right"), pairs = scratch.file("pairs");
  for (const std::string& dir : {left, right, pairs}) fs::create_directories(dir);
  for (int n = 0; n < kFrames; ++n) {
    const cv::Mat frame = cv::imread(numbered(sample(), "frame_", n, ".png"), cv::IMREAD_GRAYSCALE);
    cv::Mat sideBySide;
    cv::imwrite(numbered(left, "cam0_", n, ".png"), frame.rowRange(0, kHeight));
    cv::imwrite(numbered(right, "cam1_", n, ".png"), frame.rowRange(kHeight, 2 * kHeight));
    cv::hconcat(frame.rowRange(0, kHeight), frame.rowRange(kHeight, 2 * kHeight), sideBySide);
    cv::imwrite(numbered(pairs, "pair_", n, ".png"), sideBySide);
  }
  writeText(sample() + "/async.yaml", withKey(withKey(readText(config()), "async_mode", "1"), "thread_num", "2"));
  const std::tuple<std::string, std::string, std::vector<std::string>> forms[] = {
      {left + "," + right, config(), {}},
      {pairs, config(), {}},
      {pairs, config(), {"--layout", "side-by-side"}},
      {sample(), config(), {"--layout", "stacked"}},
      {sample(), sample() + "/async.yaml", {}}};
  for (int i = 0; i < 5; ++i) {
    const auto& [input, cfg, more] = forms[i];
    const std::string out = runInto(scratch.file("form" + std::to_string(i)), input, cfg, more);
    for (int n = 0; n < kFrames; ++n) {
      const cv::Mat a = cv::imread(numbered(stacked, "depth_", n, ".tiff"), cv::IMREAD_UNCHANGED);
      const cv::Mat b = cv::imread(numbered(out, "depth_", n, ".tiff"), cv::IMREAD_UNCHANGED);
      ASSERT_EQ(a.size(), b.size()) << input << " frame " << n;
      EXPECT_EQ(cv::countNonZero(a != b), 0) << input << " frame " << n;
    }
  }
  // A layout named is a layout required.
  const ProgramResult wrong = tool({"run", config(), pairs, "--out", scratch.file("wrong"), "--layout", "stacked"});
  EXPECT_EQ(wrong.status, 1);
  EXPECT_EQ(wrong.err, "lumetra-depth: '" + numbered(pairs, "pair_", 0, ".png") +
                           "' is 640x200; --layout stacked with two 320x200 views wants 320x400\n");
}

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
  const std::string config = dir.file("config.yaml"), missing = dir.file("missing"), empty = dir.file("empty");
  ASSERT_EQ(tool({"synth", "--out", dir.path(), "--frames", "1", "--width", "320", "--height", "200"}).status, 0);
  fs::create_directories(empty);
  fs::create_directories(dir.file("broken"));
  // Decoders and video backends have their say on stderr; the user still sees one line.
  writeText(dir.file("broken/frame_000000.png"), readText(dir.file("frame_000000.png")).substr(0, 2000));
  writeText(dir.file("movie.avi"), "not a video");
  fs::create_directories(dir.file("frames"));
  cv::imwrite(dir.file("frames/frame_000000.png"), cv::Mat(400, 300, CV_8UC1, cv::Scalar(0)));
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{}, "missing command"},
      {{"run", missing + ".yaml", dir.path(), "--out", dir.file("o")}, "cannot read '" + missing + ".yaml'"},
      {{"run", config, missing, "--out", dir.file("o")}, "cannot read '" + missing + "'"},
      {{"run", config, empty, "--out", dir.file("o")}, "no images"},
      {{"run", config, dir.path()}, "missing --out"},
      {{"run", config, dir.path(), "--out", dir.file("o"), "--frobs"}, "unknown option '--frobs'"},
      {{"run", config, dir.file("broken"), "--out", dir.file("o")},
       "cannot read '" + dir.file("broken/frame_000000.png") + "'"},
      {{"run", config, dir.file("movie.avi"), "--out", dir.file("o")}, "not a video"},
      // A frame of the wrong size is named, not fed.
      {{"run", config, dir.file("frames"), "--out", dir.file("o")},
       "frame_000000.png' is 300x400; the configuration wants two 320x200 views"},
      {{"eval", missing, dir.path()}, "cannot read '" + missing + "'"},
      {{"eval", empty, dir.path()}, "no depth_N.tiff"},
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
