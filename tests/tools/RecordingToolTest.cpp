// lumetra-depth on recordings in the EuRoC-style layout, as a user runs it:
// a rendered recording, its calibration converted by 'calib', a run with the
// body's trajectory fused into one map, and the inputs users get wrong.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "lumetra_depth.h"
#include "support/RunProgram.h"
#include "support/TempDir.h"
#include "synth/SyntheticAsl.h"

namespace {

namespace fs = std::filesystem;
using LumoTest::numberAfter;
using LumoTest::ProgramResult;
using LumoTest::readText;
using LumoTest::TempDir;
using LumoTest::tool;
using LumoTest::writeText;

// The map needs the default view size: at 320x200 the depth of the far
// boxes is too coarse for centimetres.
constexpr int kWidth = 640, kHeight = 400, kFrames = 5;

std::uint64_t stamp(int frame) { return LumoSynth::aslTimestamp(LumoSynth::AslOptions(), frame); }

// A recording rendered by the program itself, once per test process.
const std::string& recording() {
  static const TempDir dir;
  static const std::string path = dir.file("rec");
  static const ProgramResult synth =
      tool({"synth", "--layout", "asl", "--out", path, "--frames", std::to_string(kFrames), "--width",
            std::to_string(kWidth), "--height", std::to_string(kHeight)});
  EXPECT_EQ(synth.status, 0) << synth.err;
  return path;
}
std::string truthCsv() { return recording() + "/mav0/state_groundtruth_estimate0/data.csv"; }

// Files whose names start with a dot: what an interrupted write leaves.
int hiddenFiles(const std::string& dir) {
  int n = 0;
  for (const auto& entry : fs::directory_iterator(dir)) n += entry.path().filename().string()[0] == '.';
  return n;
}

// Median distance of a map's points to the scene's true surfaces, from the PLY itself.
double mapMedian(const std::string& ply) {
  const std::string text = readText(ply);
  const std::size_t data = text.find("end_header\n") + 11;
  const int count = static_cast<int>(numberAfter(text, "element vertex "));
  EXPECT_EQ(text.size() - data, static_cast<std::size_t>(count) * 12) << ply;
  std::vector<float> xyz(static_cast<std::size_t>(count) * 3);
  std::copy(text.begin() + static_cast<std::ptrdiff_t>(data), text.end(), reinterpret_cast<char*>(xyz.data()));
  const LumoSynth::Scene scene = LumoSynth::roamingScene();
  std::vector<double> d;
  for (int i = 0; i < count; ++i) {
    d.push_back(LumoSynth::surfaceDistance(scene, 0, Eigen::Vector3d(xyz[3 * i], xyz[3 * i + 1], xyz[3 * i + 2])));
  }
  std::nth_element(d.begin(), d.begin() + (count - 1) / 2, d.end());
  return count > 0 ? d[(count - 1) / 2] : NAN;
}

// A run with poses and a map; returns eval's median in centimetres.
double mapRun(const std::string& config, const std::string& poses, const std::string& out) {
  const ProgramResult run = tool({"run", config, recording() + "/mav0", "--out", out, "--poses", poses, "--map",
                                  out + "/map.ply", "--cloud-every", "0"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find(std::to_string(kFrames) + " frames placed by"), std::string::npos) << run.out;
  const ProgramResult eval = tool({"eval", out + "/map.ply", recording()});
  EXPECT_EQ(eval.status, 0) << eval.err;
  EXPECT_EQ(numberAfter(run.out, "  map "), numberAfter(eval.out, "map points")) << run.out << eval.out;
  const double median = numberAfter(eval.out, "median distance");
  EXPECT_NEAR(median, 100.0 * mapMedian(out + "/map.ply"), 0.006) << eval.out;
  return median;
}

TEST(ToolRecording, CalibFromSensorFilesRectifiesAsTheRendererDid) {
  const ProgramResult calib = tool({"calib", recording() + "/mav0"});
  ASSERT_EQ(calib.status, 0) << calib.err;
  EXPECT_EQ(calib.out, readText(recording() + "/camchain.yaml")) << "synth's configuration uses calib's output";

  void* handle = nullptr;
  ASSERT_EQ(KORV_LUMO_D_CreateHandleWithConfig(&handle, (recording() + "/config.yaml").c_str()), 0);
  LumoRectifyInfo info{};
  ASSERT_EQ(KORV_LUMO_D_GetRectifyInfo(handle, &info), 0);
  KORV_LUMO_D_DestroyHandle(handle);
  const LumoSynth::Rectification truth = LumoSynth::rectification(LumoSynth::pinholeRig(kWidth, kHeight), 1.0);
  for (int i = 0; i < 9; ++i) {
    EXPECT_NEAR(info.R1[i], truth.R1.at<double>(i / 3, i % 3), 1e-5) << "R1 " << i;
    EXPECT_NEAR(info.R2[i], truth.R2.at<double>(i / 3, i % 3), 1e-5) << "R2 " << i;
  }
  for (int i = 0; i < 12; ++i) {
    EXPECT_NEAR(info.P1[i], truth.P1.at<double>(i / 4, i % 4), 1e-3) << "P1 " << i;
    EXPECT_NEAR(info.P2[i], truth.P2.at<double>(i / 4, i % 4), 1e-3) << "P2 " << i;
  }
}

TEST(ToolRecording, OutputsCarryTimeStampsAndTheFusedMapLiesOnTheTrueSurfaces) {
  const TempDir scratch;
  const std::string config = recording() + "/config.yaml";
  const double right = mapRun(config, truthCsv(), scratch.file("right"));
  std::printf("map median distance to the true surfaces: %.2f cm\n", right);
  EXPECT_LE(right, 2.0);
  for (int k = 0; k < kFrames; ++k) {
    for (const char* extension : {".tiff", ".png"}) {
      EXPECT_TRUE(fs::exists(scratch.file("right/depth_" + std::to_string(stamp(k)) + extension))) << k;
    }
  }
  EXPECT_FALSE(fs::exists(scratch.file("right/depth_000000.tiff")));
  EXPECT_EQ(hiddenFiles(scratch.file("right")), 0);

  // The same trajectory as text lines 't x y z qx qy qz qw' in seconds, without
  // the samples at the frames' times: interpolated, it places the frames alike.
  std::ostringstream text;
  int row = 0;
  for (const std::vector<std::string>& f : LumoTest::readCsv(truthCsv())) {
    if (f[0][0] == '#' || row++ % 4 == 2) continue;  // samples 2, 6, ... sit at the frames' times
    const std::string& ns = f[0];
    text << ns.substr(0, ns.size() - 9) << "." << ns.substr(ns.size() - 9) << " " << f[1] << " " << f[2] << " "
         << f[3] << " " << f[5] << " " << f[6] << " " << f[7] << " " << f[4] << "\n";
  }
  writeText(scratch.file("poses.txt"), text.str());
  EXPECT_NEAR(mapRun(config, scratch.file("poses.txt"), scratch.file("tum")), right, 0.1);

  // cam0's T_cam_imu turned by 2 degrees and moved by 3 cm: the whole map shifts off the surfaces.
  const Eigen::Isometry3d wrong = Eigen::Translation3d(0.0, 0.0, 0.03) *
                                  Eigen::AngleAxisd(0.035, Eigen::Vector3d(1, 1, 0).normalized()) *
                                  LumoSynth::bodyFromLeft().inverse();
  std::string rows = "  T_cam_imu:\n";
  for (int r = 0; r < 4; ++r) {
    char line[200];
    std::snprintf(line, sizeof(line), "  - [%.17g, %.17g, %.17g, %.17g]\n", wrong(r, 0), wrong(r, 1), wrong(r, 2),
                  wrong(r, 3));
    rows += line;
  }
  const std::string chain = readText(recording() + "/camchain.yaml");
  writeText(recording() + "/wrong.yaml", std::regex_replace(chain, std::regex("  T_cam_imu:\n(  - [^\n]*\n){4}"), rows,
                                                            std::regex_constants::format_first_only));
  writeText(recording() + "/wrong-config.yaml",
            std::regex_replace(readText(config), std::regex("calib_path: camchain.yaml"), "calib_path: wrong.yaml"));
  const double off = mapRun(recording() + "/wrong-config.yaml", truthCsv(), scratch.file("wrong"));
  std::printf("with a wrong T_cam_imu: %.2f cm\n", off);
  EXPECT_GT(off, 2.0 * right);
  EXPECT_GT(off, 3.0);
}

// Each bad input: the exact line on standard error, the exit status, and
// nothing left that looks like a finished output.
TEST(ToolRecording, BadRecordingInputsGiveOneExactLineAndLeaveNothingBehind) {
  const TempDir dir;
  const std::string rec = dir.file("rec");
  ASSERT_EQ(tool({"synth", "--layout", "asl", "--out", rec, "--frames", "3", "--width", "320", "--height", "200"})
                .status,
            0);
  const std::string config = rec + "/config.yaml", csv = rec + "/mav0/state_groundtruth_estimate0/data.csv";
  const auto variant = [&](const std::string& name) {
    fs::copy(rec, dir.file(name), fs::copy_options::recursive);
    return dir.file(name);
  };
  // cam1's data.csv names an image that is not there.
  const std::string missing = variant("missing");
  fs::remove(missing + "/mav0/cam1/data/" + std::to_string(stamp(1)) + ".png");
  // A corrupt image mid-sequence stops the run after two frames: no map.
  const std::string corrupt = variant("corrupt");
  writeText(corrupt + "/mav0/cam1/data/" + std::to_string(stamp(2)) + ".png", "not a picture");
  // cam1's sensor.yaml without its pose on the body.
  const std::string noPose = variant("nopose");
  const std::string sensor = readText(noPose + "/mav0/cam1/sensor.yaml");
  writeText(noPose + "/mav0/cam1/sensor.yaml", std::regex_replace(sensor, std::regex("T_BS:\n(  [^\n]*\n)+"), ""));
  writeText(dir.file("garbled.txt"), "0.0 0 0 0 0 0 0 1\n0.05 0 0 zero 0 0 0 1\n");
  writeText(dir.file("garbled.csv"), "#timestamp, p_x, ...\n1700000000000000000,0,0,0,1,0,0\n");
  writeText(dir.file("elsewhen.txt"), "12.0 0 0 0 0 0 0 1\n13.0 0 0 0 0 0 0 1\n");

  const std::string out = dir.file("out"), map = dir.file("map.ply");
  const std::vector<std::string> run = {"run", config, rec + "/mav0", "--out", out, "--map", map};
  const auto with = [&](std::vector<std::string> args, const std::vector<std::string>& more) {
    args.insert(args.end(), more.begin(), more.end());
    return args;
  };
  const struct {
    std::vector<std::string> args;
    int status;
    std::string line;
  } cases[] = {
      {{"run", config, missing + "/mav0", "--out", out, "--poses", csv, "--map", map}, 1,
       "lumetra-depth: cannot read '" + missing + "/mav0/cam1/data.csv': line 3 names '" + std::to_string(stamp(1)) +
           ".png', which is not in '" + missing + "/mav0/cam1/data'"},
      {with(run, {"--poses", dir.file("garbled.txt")}), 1,
       "lumetra-depth: cannot read '" + dir.file("garbled.txt") + "': line 2 is not 't x y z qx qy qz qw'"},
      {with(run, {"--poses", dir.file("garbled.csv")}), 1,
       "lumetra-depth: cannot read '" + dir.file("garbled.csv") +
           "': line 2 is not 'timestamp, p_x, p_y, p_z, q_w, q_x, q_y, q_z, ...'"},
      {with(run, {"--poses", dir.file("elsewhen.txt")}), 1,
       "lumetra-depth: the poses in '" + dir.file("elsewhen.txt") +
           "' cover none of the 3 frames (poses from 12000000000 to 13000000000 ns, frames from " +
           std::to_string(stamp(0)) + " to " + std::to_string(stamp(2)) + " ns)"},
      {run, 1,
       "lumetra-depth: --map fuses world-frame clouds: it needs pointcloud_type: 2 in '" + config +
           "' and poses (--poses FILE)"},
      {with(run, {"--poses", csv, "--layout", "side-by-side"}), 2,
       "lumetra-depth run: --layout is for folders of images and video files, not for '" + rec +
           "/mav0' (try 'lumetra-depth run --help')"},
      {{"run", config, corrupt + "/mav0", "--out", out, "--poses", csv, "--map", map}, 1,
       "lumetra-depth: cannot read '" + corrupt + "/mav0/cam1/data/" + std::to_string(stamp(2)) +
           ".png': not an image OpenCV can decode"},
      {{"calib", noPose + "/mav0"}, 1,
       "lumetra-depth: cannot read '" + noPose +
           "/mav0/cam1/sensor.yaml': no T_BS (the camera's pose on the body: rows, cols, data)"},
      {{"calib", dir.path()}, 1,
       "lumetra-depth: cannot read '" + dir.path() + "': not a recording folder (mav0/cam0, mav0/cam1)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    const ProgramResult r = tool(c.args);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.err, c.line + "\n");
    EXPECT_FALSE(fs::exists(map));
    if (c.args[0] == "calib") {
      EXPECT_EQ(r.out, "");
    } else if (c.args[2] != corrupt + "/mav0") {
      EXPECT_FALSE(fs::exists(out)) << "refused before anything is written";
    } else {
      EXPECT_EQ(hiddenFiles(out), 0);
      EXPECT_TRUE(fs::exists(out + "/depth_" + std::to_string(stamp(1)) + ".tiff"));
      EXPECT_FALSE(fs::exists(out + "/depth_" + std::to_string(stamp(2)) + ".tiff"));
    }
  }
}

}  // namespace
