// lumetra-depth as a user runs it: synth, run, eval and info on a tiny
// rendered sequence, every input form, and the failures a user meets first.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "support/RunProgram.h"
#include "support/TempDir.h"
#include "synth/SyntheticStereo.h"

namespace {

namespace fs = std::filesystem;
using LumoTest::ProgramResult;
using LumoTest::TempDir;

constexpr int kWidth = 320, kHeight = 200, kFrames = 3;

ProgramResult tool(const std::vector<std::string>& args) { return LumoTest::runProgram(LUMO_TOOL, args); }

std::string readText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void writeText(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

// The configuration text with one key's line replaced (or removed when `value` is empty).
std::string withKey(const std::string& config, const std::string& key, const std::string& value) {
  const std::regex line("(^|\n)" + key + ":[^\n]*");
  return std::regex_replace(config, line, value.empty() ? "$1" : "$1" + key + ": " + value);
}

std::string numbered(const std::string& dir, const std::string& prefix, int n, const std::string& extension) {
  char name[64];
  std::snprintf(name, sizeof(name), "%s%06d%s", prefix.c_str(), n, extension.c_str());
  return dir + "/" + name;
}

// A number printed after `label` in the program's output.
double numberAfter(const std::string& text, const std::string& label) {
  const std::size_t at = text.find(label);
  if (at == std::string::npos) return NAN;
  return std::strtod(text.c_str() + at + label.size(), nullptr);
}

void expectOneLineError(const ProgramResult& r, const std::string& mention) {
  EXPECT_NE(r.status, 0);
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  EXPECT_EQ(r.err.rfind("lumetra-depth", 0), 0u) << r.err;
  EXPECT_NE(r.err.find(mention), std::string::npos) << "stderr: " << r.err;
}

// One tiny moving sequence per test process, rendered by the program itself.
class ToolSequence : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new TempDir;
    const ProgramResult r = tool({"synth", "--out", sample(), "--frames", std::to_string(kFrames), "--width",
                                  std::to_string(kWidth), "--height", std::to_string(kHeight), "--moving"});
    ASSERT_EQ(r.status, 0) << r.err;
  }
  static void TearDownTestSuite() {
    delete dir_;
    dir_ = nullptr;
  }
  static std::string sample() { return dir_->file("sample"); }
  static std::string config() { return dir_->file("sample/config.yaml"); }

  // A run of the sample into a fresh folder of this test's.
  std::string runInto(const std::string& name, const std::vector<std::string>& extra = {},
                      const std::string& input = "") {
    const std::string out = scratch_.file(name);
    std::vector<std::string> args = {"run", config(), input.empty() ? sample() : input, "--out", out};
    args.insert(args.end(), extra.begin(), extra.end());
    const ProgramResult r = tool(args);
    EXPECT_EQ(r.status, 0) << r.err;
    return out;
  }

  static TempDir* dir_;
  TempDir scratch_;
};

TempDir* ToolSequence::dir_ = nullptr;

TEST_F(ToolSequence, SynthWritesFramesTruthCalibrationAndAFullConfiguration) {
  for (int n = 0; n < kFrames; ++n) {
    const cv::Mat frame = cv::imread(numbered(sample(), "frame_", n, ".png"), cv::IMREAD_UNCHANGED);
    EXPECT_EQ(frame.cols, kWidth);
    EXPECT_EQ(frame.rows, 2 * kHeight);
    EXPECT_EQ(LumoSynth::readDepth(numbered(sample(), "depth_", n, ".ldep")).size(), cv::Size(kWidth, kHeight));
  }
  EXPECT_TRUE(fs::exists(sample() + "/calib.yaml"));
  EXPECT_TRUE(fs::exists(sample() + "/poses.txt"));
  const std::string text = readText(config());
  for (const char* key :
       {"enable_module", "model_path", "calib_path", "input_stereo_width", "input_stereo_height", "stereo_img_scaling",
        "input_aux_cam_width", "input_aux_cam_height", "aux_cam_scaling", "thread_num", "async_mode", "align_cam_id",
        "align_direction", "enable_filter", "wls_filter", "depth_mode", "enable_voxel", "voxelSize", "minPoints",
        "pointcloud_type", "pointcloud_ROI", "skip_point", "farthest_dist", "cloest_dist", "restore_depth_dim",
        "debug_image", "debug_img_save_path"}) {
    EXPECT_NE(text.find(std::string("\n") + key + ": "), std::string::npos) << key;
  }
  EXPECT_NE(text.find("\ncalib_path: calib.yaml"), std::string::npos) << "relative, so the folder can move";
  EXPECT_NE(text.find("\nasync_mode: 0"), std::string::npos);
}

TEST_F(ToolSequence, RunWritesMetricDepthPicturesAndCloudsThatEvalScores) {
  const std::string out = runInto("out");
  // Eval's figures computed plainly: pixels with both depths for errors,
  // ground-truth pixels right of the 32-column band (320 / 10) for density.
  const int band = kWidth / 10;
  std::vector<double> relative;
  long long within2 = 0, visible = 0, covered = 0;
  for (int n = 0; n < kFrames; ++n) {
    const cv::Mat mm = cv::imread(numbered(out, "depth_", n, ".png"), cv::IMREAD_UNCHANGED);
    ASSERT_EQ(mm.type(), CV_16UC1);
    ASSERT_EQ(mm.size(), cv::Size(kWidth, kHeight));
    const cv::Mat truth = LumoSynth::readDepth(numbered(sample(), "depth_", n, ".ldep"));
    std::vector<double> frame;
    for (int v = 0; v < kHeight; ++v) {
      for (int u = 0; u < kWidth; ++u) {
        const double d = mm.at<uint16_t>(v, u) / 1000.0, z = truth.at<float>(v, u);
        if (z <= 0.0) continue;
        if (u >= band) {
          ++visible;
          covered += d > 0.0;
        }
        if (d <= 0.0) continue;
        frame.push_back(std::fabs(d - z) / z);
        within2 += frame.back() <= 0.02;
      }
    }
    // Millimetres: the median over pixels with both depths is within 5 % of the truth in metres.
    ASSERT_GT(frame.size(), static_cast<std::size_t>(kWidth * kHeight / 2));
    relative.insert(relative.end(), frame.begin(), frame.end());
    std::nth_element(frame.begin(), frame.begin() + frame.size() / 2, frame.end());
    EXPECT_LT(frame[frame.size() / 2], 0.05) << "frame " << n;

    const cv::Mat colour = cv::imread(numbered(out, "depth_colour_", n, ".png"));
    EXPECT_EQ(colour.cols, kWidth);
    EXPECT_GT(colour.rows, kHeight) << "a legend strip below the picture";
    const cv::Mat rectified = cv::imread(numbered(out, "rectified_", n, ".png"));
    EXPECT_EQ(rectified.size(), cv::Size(2 * kWidth, kHeight)) << "the two views side by side";

    // PCD: header count = data lines; PLY: header count = binary payload.
    const std::string pcd = readText(numbered(out, "cloud_", n, ".pcd"));
    const int points = static_cast<int>(numberAfter(pcd, "\nPOINTS "));
    EXPECT_GT(points, 100);
    const std::size_t data = pcd.find("DATA ascii\n") + 11;
    EXPECT_EQ(std::count(pcd.begin() + static_cast<std::ptrdiff_t>(data), pcd.end(), '\n'), points);
    const std::string ply = readText(numbered(out, "cloud_", n, ".ply"));
    const std::size_t body = ply.find("end_header\n") + 11;
    EXPECT_EQ(static_cast<int>(numberAfter(ply, "element vertex ")), points);
    EXPECT_EQ(ply.size() - body, static_cast<std::size_t>(points) * 12);
  }

  const ProgramResult r = tool({"eval", out, sample()});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  std::nth_element(relative.begin(), relative.begin() + relative.size() / 2, relative.end());
  EXPECT_NEAR(numberAfter(r.out, "median relative error"), 100.0 * relative[relative.size() / 2], 0.01) << r.out;
  EXPECT_NEAR(numberAfter(r.out, "within 2 %"), 100.0 * within2 / relative.size(), 0.051) << r.out;
  EXPECT_NEAR(numberAfter(r.out, "density"), 100.0 * covered / visible, 0.051) << r.out;
  EXPECT_NE(r.out.find("32-column left band"), std::string::npos) << r.out;
  const cv::Mat heatmap = cv::imread(out + "/error_heatmap.png");
  EXPECT_EQ(heatmap.cols, kWidth);
  EXPECT_GT(heatmap.rows, kHeight);

  // One row per frame on request, the band as given.
  const ProgramResult rows = tool({"eval", out, sample(), "--per-frame", "--band", "0"});
  ASSERT_EQ(rows.status, 0) << rows.err;
  const std::regex row("(^|\n)00000[0-9] ");
  EXPECT_EQ(std::distance(std::sregex_iterator(rows.out.begin(), rows.out.end(), row), std::sregex_iterator()),
            kFrames)
      << rows.out;
  EXPECT_NE(rows.out.find("Density counts every"), std::string::npos) << rows.out;

  // The accuracy gate fails when asked for more than the run achieved.
  expectOneLineError(tool({"eval", out, sample(), "--require-median", "0.01"}), "median relative error");

  // A limited run; world-frame clouds need the poses beside the frames.
  const std::string world = scratch_.file("world");
  writeText(sample() + "/world.yaml", withKey(readText(config()), "pointcloud_type", "2"));
  const ProgramResult limited = tool({"run", sample() + "/world.yaml", sample(), "--out", world, "--limit", "2"});
  EXPECT_EQ(limited.status, 0) << limited.err;
  EXPECT_NE(limited.out.find("2 with depth"), std::string::npos) << limited.out;
  EXPECT_TRUE(fs::exists(numbered(world, "cloud_", 1, ".ply")));
  EXPECT_FALSE(fs::exists(numbered(world, "depth_", 2, ".png")));
}

// Stacked frames, two folders of single views, side-by-side pairs and a
// lossless video of the stacked frames are the same pictures: same depth. So
// is polling in asynchronous mode, which must find each frame's own depth.
TEST_F(ToolSequence, EveryInputFormAndAsynchronousModeGiveTheSameDepth) {
  const std::string stacked = runInto("stacked", {"--cloud-every", "0"});
  EXPECT_FALSE(fs::exists(numbered(stacked, "cloud_", 0, ".pcd")));
  const auto expectSameDepth = [&](const std::string& out, const std::string& what) {
    for (int n = 0; n < kFrames; ++n) {
      const cv::Mat a = cv::imread(numbered(stacked, "depth_", n, ".png"), cv::IMREAD_UNCHANGED);
      const cv::Mat b = cv::imread(numbered(out, "depth_", n, ".png"), cv::IMREAD_UNCHANGED);
      ASSERT_EQ(a.size(), b.size()) << what << " frame " << n;
      EXPECT_EQ(cv::countNonZero(a != b), 0) << what << " frame " << n;
    }
  };

  writeText(sample() + "/async.yaml", withKey(withKey(readText(config()), "async_mode", "1"), "thread_num", "2"));
  const ProgramResult r = tool({"run", sample() + "/async.yaml", sample(), "--out", scratch_.file("async"),
                                "--cloud-every", "0"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("asynchronous"), std::string::npos) << r.out;
  expectSameDepth(scratch_.file("async"), "asynchronous");

  const std::string left = scratch_.file("left"), right = scratch_.file("right"), pairs = scratch_.file("pairs");
  fs::create_directories(left);
  fs::create_directories(right);
  fs::create_directories(pairs);
  cv::VideoWriter video;
  const std::string videoPath = scratch_.file("stacked.avi");
  video.open(videoPath, cv::VideoWriter::fourcc('F', 'F', 'V', '1'), 10.0, cv::Size(kWidth, 2 * kHeight), true);
  for (int n = 0; n < kFrames; ++n) {
    const cv::Mat frame = cv::imread(numbered(sample(), "frame_", n, ".png"), cv::IMREAD_GRAYSCALE);
    const cv::Mat top = frame(cv::Rect(0, 0, kWidth, kHeight)), bottom = frame(cv::Rect(0, kHeight, kWidth, kHeight));
    cv::imwrite(numbered(left, "cam0_", n, ".png"), top);
    cv::imwrite(numbered(right, "cam1_", n, ".png"), bottom);
    cv::Mat sideBySide;
    cv::hconcat(top, bottom, sideBySide);
    cv::imwrite(numbered(pairs, "pair_", n, ".png"), sideBySide);
    if (video.isOpened()) {
      cv::Mat bgr;
      cv::cvtColor(frame, bgr, cv::COLOR_GRAY2BGR);
      video.write(bgr);
    }
  }
  std::vector<std::string> inputs = {left + "," + right, pairs};
  if (video.isOpened()) {
    video.release();
    inputs.push_back(videoPath);
  }
  for (std::size_t i = 0; i < inputs.size(); ++i) {
    expectSameDepth(runInto("form" + std::to_string(i), {"--cloud-every", "0"}, inputs[i]), inputs[i]);
  }
  if (inputs.size() < 3) GTEST_SKIP() << "no lossless video writer here; folders checked";
}

TEST_F(ToolSequence, InfoShowsTheRigAndFlagsSettingsThatLookWrong) {
  const ProgramResult ok = tool({"info", config()});
  ASSERT_EQ(ok.status, 0) << ok.err;
  EXPECT_NEAR(numberAfter(ok.out, "Baseline"), 0.1, 1e-4) << ok.out;  // the pinhole rig's 10 cm
  EXPECT_NE(ok.out.find("P2"), std::string::npos);
  EXPECT_NE(ok.out.find("Warnings: none"), std::string::npos) << ok.out;

  struct Case {
    std::string key, value, warning;
  };
  const std::vector<Case> cases = {
      {"thread_num", "0", "creates no matcher"},
      {"stereo_img_scaling", "0.001", "makes the working size 0x0"},
      {"input_stereo_height", "240", "does not have the aspect of cam0's resolution"},
      {"calib_path", "nowhere.yaml", "nowhere.yaml"},
      {"cloest_dist", "", "required key 'cloest_dist' is missing"},
      {"thread_num", "many", "is not a number"},
      {"stereo_img_scaling", "0.05", "not less than the working width"},
  };
  const std::string base = readText(config());
  for (const Case& c : cases) {
    writeText(sample() + "/bad.yaml", withKey(base, c.key, c.value));
    const ProgramResult r = tool({"info", sample() + "/bad.yaml"});
    EXPECT_NE(r.out.find(c.warning), std::string::npos) << c.key << ": " << r.out;
    expectOneLineError(r, "cannot produce depth");
    // run refuses the same file with one line instead of letting the library end it.
    expectOneLineError(tool({"run", sample() + "/bad.yaml", sample(), "--out", scratch_.file("bad")}), c.warning);
  }
  // Calibration files from other tools write lists as blocks; they read the same.
  std::string calib = readText(sample() + "/calib.yaml");
  calib = std::regex_replace(calib, std::regex("  resolution: \\[(\\d+), (\\d+)\\]"), "  resolution:\n  - $1\n  - $2");
  writeText(sample() + "/block_calib.yaml", calib);
  writeText(sample() + "/block.yaml", withKey(base, "calib_path", "block_calib.yaml"));
  const ProgramResult block = tool({"info", sample() + "/block.yaml"});
  EXPECT_EQ(block.status, 0) << block.out;
  EXPECT_NE(block.out.find("cam1  radtan       320x200"), std::string::npos) << block.out;
  EXPECT_NE(block.out.find("Warnings: none"), std::string::npos) << block.out;

  // A doubtful setting is a warning only.
  writeText(sample() + "/doubtful.yaml", withKey(base, "pointcloud_ROI", "1.5"));
  const ProgramResult doubtful = tool({"info", sample() + "/doubtful.yaml"});
  EXPECT_EQ(doubtful.status, 0);
  EXPECT_NE(doubtful.out.find("pointcloud_ROI 1.5 is outside"), std::string::npos) << doubtful.out;
}

TEST(ToolAlignment, ColourFramesComeBackRegisteredWithDepth) {
  TempDir dir;
  const std::string sample = dir.file("sample"), out = dir.file("out");
  ASSERT_EQ(tool({"synth", "--out", sample, "--frames", "2", "--width", "320", "--height", "200", "--colour"}).status,
            0);
  const ProgramResult r = tool({"run", sample + "/config.yaml", sample, "--out", out, "--cloud-every", "0"});
  ASSERT_EQ(r.status, 0) << r.err;
  for (int n = 0; n < 2; ++n) {
    const cv::Mat aligned = cv::imread(numbered(out, "aligned_colour_", n, ".png"));
    EXPECT_EQ(aligned.size(), cv::Size(kWidth, kHeight)) << "colour resampled into the depth view";
    EXPECT_GT(cv::countNonZero(aligned.reshape(1) > 0), kWidth * kHeight) << "mostly filled";
    EXPECT_TRUE(fs::exists(numbered(out, "aligned_overlay_", n, ".png")));
  }
  // Depth moved into the colour camera matches that camera's own ground truth.
  writeText(sample + "/into_colour.yaml",
            withKey(readText(sample + "/config.yaml"), "align_direction", "true"));
  ASSERT_EQ(tool({"run", sample + "/into_colour.yaml", sample, "--out", dir.file("into"), "--cloud-every", "0"}).status,
            0);
  const cv::Mat intoColour = cv::imread(numbered(dir.file("into"), "depth_", 0, ".png"), cv::IMREAD_UNCHANGED);
  EXPECT_EQ(intoColour.size(), cv::Size(kWidth, kWidth * 9 / 16)) << "the colour camera's 16:9 picture";
  const ProgramResult eval = tool({"eval", dir.file("into"), sample, "--truth", "colour_depth", "--band", "0"});
  ASSERT_EQ(eval.status, 0) << eval.err;
  EXPECT_LT(numberAfter(eval.out, "median relative error"), 5.0) << eval.out;

  // Without colour frames the library would wait for each in vain.
  for (int n = 0; n < 2; ++n) fs::remove(numbered(sample, "colour_", n, ".png"));
  expectOneLineError(tool({"run", sample + "/config.yaml", sample, "--out", dir.file("none")}), "colour");
}

// Matching at half the input size, depth handed out at the input size.
TEST(ToolScaled, RestoredDepthIsComparedAtTheWorkingSize) {
  TempDir dir;
  const std::string sample = dir.file("sample"), out = dir.file("out");
  const ProgramResult synth = tool({"synth", "--out", sample, "--frames", "1", "--width", std::to_string(2 * kWidth),
                                    "--height", std::to_string(2 * kHeight), "--scale", "0.5"});
  ASSERT_EQ(synth.status, 0) << synth.err;
  EXPECT_EQ(LumoSynth::readDepth(numbered(sample, "depth_", 0, ".ldep")).size(), cv::Size(kWidth, kHeight));
  ASSERT_EQ(tool({"run", sample + "/config.yaml", sample, "--out", out, "--cloud-every", "0"}).status, 0);
  EXPECT_EQ(cv::imread(numbered(out, "depth_", 0, ".png"), cv::IMREAD_UNCHANGED).size(),
            cv::Size(2 * kWidth, 2 * kHeight));

  const ProgramResult eval = tool({"eval", out, sample});
  ASSERT_EQ(eval.status, 0) << eval.err;
  EXPECT_NE(eval.out.find("(results 640x400, resampled)"), std::string::npos) << eval.out;
  EXPECT_LT(numberAfter(eval.out, "median relative error"), 5.0) << eval.out;

  // The projections describe the input size: twice the working focal length synth reported (to 0.1 px).
  const ProgramResult info = tool({"info", sample + "/config.yaml"});
  ASSERT_EQ(info.status, 0) << info.out;
  EXPECT_NE(info.out.find("Working size        320x200"), std::string::npos) << info.out;
  EXPECT_NEAR(numberAfter(info.out, "P1   [ "), 2.0 * numberAfter(synth.out, "rectified focal length "), 0.1)
      << info.out << synth.out;
}

TEST(ToolErrors, BadInvocationsGiveOneLineAndAFailureStatus) {
  TempDir dir;
  const std::string config = dir.file("config.yaml");
  ASSERT_EQ(tool({"synth", "--out", dir.path(), "--frames", "1", "--width", "320", "--height", "200"}).status, 0);
  fs::create_directories(dir.file("empty"));
  struct Case {
    std::vector<std::string> args;
    std::string mention;
  };
  const std::vector<Case> cases = {
      {{}, "missing command"},
      {{"frobnicate"}, "unknown command 'frobnicate'"},
      {{"run", dir.file("missing.yaml"), dir.path(), "--out", dir.file("o")},
       "cannot read '" + dir.file("missing.yaml") + "'"},
      {{"run", config, dir.file("missing"), "--out", dir.file("o")}, "cannot read '" + dir.file("missing") + "'"},
      {{"run", config, dir.file("empty"), "--out", dir.file("o")}, "no images"},
      {{"run", config, dir.file("empty") + "," + dir.file("missing"), "--out", dir.file("o")}, "cannot read"},
      {{"run", config, dir.path()}, "missing --out"},
      {{"run", config, dir.path(), "--out", dir.file("o"), "--limit", "-3"}, "--limit takes"},
      {{"run", config, dir.path(), "--out", dir.file("o"), "--frobs"}, "unknown option '--frobs'"},
      {{"eval", dir.file("missing"), dir.path()}, "cannot read '" + dir.file("missing") + "'"},
      {{"eval", dir.file("empty"), dir.path()}, "no depth_N.png"},
      {{"info", dir.file("missing.yaml")}, "cannot read"},
      {{"info"}, "missing CONFIG"},
      {{"synth"}, "missing --out"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args.empty() ? "(no arguments)" : c.args[0] + " " + c.mention);
    expectOneLineError(tool(c.args), c.mention);
  }
  // Decoders and video backends have their say on stderr; the user still sees one line.
  fs::create_directories(dir.file("broken"));
  writeText(dir.file("broken/frame_000000.png"), readText(dir.file("frame_000000.png")).substr(0, 2000));
  writeText(dir.file("movie.avi"), "not a video");
  expectOneLineError(tool({"run", config, dir.file("broken"), "--out", dir.file("o")}),
                     "cannot read '" + dir.file("broken/frame_000000.png") + "'");
  expectOneLineError(tool({"run", config, dir.file("movie.avi"), "--out", dir.file("o")}), "not a video");

  // A frame of the wrong size is named, not fed.
  fs::create_directories(dir.file("frames"));
  cv::imwrite(dir.file("frames/frame_000000.png"), cv::Mat(400, 300, CV_8UC1, cv::Scalar(0)));
  expectOneLineError(tool({"run", config, dir.file("frames"), "--out", dir.file("o")}),
                     "frame_000000.png' is 300x400; the configuration wants two 320x200 views");
}

TEST(ToolHelp, EveryCommandExplainsItself) {
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"--help"}, {"synth", "--help"}, {"run", "--help"}, {"eval", "--help"}, {"info", "-h"}}) {
    const ProgramResult r = tool(args);
    EXPECT_EQ(r.status, 0) << args[0];
    EXPECT_EQ(r.out.rfind("usage: lumetra-depth", 0), 0u) << r.out;
    EXPECT_EQ(r.err, "");
  }
}

}  // namespace
