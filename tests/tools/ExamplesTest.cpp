// The README's host examples, built as a reader would build them, run on a
// sequence the command-line program renders.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <string>

#include "support/RunProgram.h"
#include "support/TempDir.h"
#include "synth/SyntheticStereo.h"

namespace {

using LumoTest::runProgram;

double numberAfter(const std::string& text, const std::string& label) {
  const std::size_t at = text.find(label);
  return at == std::string::npos ? NAN : std::strtod(text.c_str() + at + label.size(), nullptr);
}

TEST(Examples, HostsMeasureTheRenderedScene) {
  LumoTest::TempDir dir;
  const LumoTest::ProgramResult synth =
      runProgram(LUMO_TOOL, {"synth", "--out", dir.path(), "--frames", "1", "--width", "320", "--height", "200"});
  ASSERT_EQ(synth.status, 0) << synth.err;
  const LumoTest::ProgramResult c = runProgram(LUMO_HOST_C, {dir.file("config.yaml"), "320", "200"});
  ASSERT_EQ(c.status, 0) << c.out << c.err;
  EXPECT_GT(numberAfter(c.out, "depth 320x200, "), 50.0) << "per cent of pixels with depth: " << c.out;
  // 16 pixels apart before rectification is about f·B/16 = 256 px · 0.1 m / 16 = 1.6 m; the
  // rectifying rotation of the right camera takes a few pixels off that disparity.
  const double wall = numberAfter(c.out, "pixels with depth, ");
  EXPECT_GT(wall, 1.5) << c.out;
  EXPECT_LT(wall, 3.0) << c.out;
  EXPECT_EQ(runProgram(LUMO_HOST_C, {}).status, 2);

  // The centre pixel sees the sphere in front of the back wall: the point's z is its depth.
  const LumoTest::ProgramResult cpp =
      runProgram(LUMO_HOST_CPP, {dir.file("config.yaml"), dir.file("frame_000000.png")});
  ASSERT_EQ(cpp.status, 0) << cpp.out << cpp.err;
  double x = 0, y = 0, z = 0;
  const std::size_t open = cpp.out.find("point (");
  ASSERT_NE(open, std::string::npos) << cpp.out;
  ASSERT_EQ(std::sscanf(cpp.out.c_str() + open, "point (%lf, %lf, %lf)", &x, &y, &z), 3) << cpp.out;
  const double depth = numberAfter(cpp.out, "at depth ");
  EXPECT_NEAR(z, depth, 1e-3);
  EXPECT_NEAR(depth, LumoSynth::readDepth(dir.file("depth_000000.tiff")).at<float>(100, 160), 0.05 * depth);
  EXPECT_NE(runProgram(LUMO_HOST_CPP, {dir.file("config.yaml"), dir.file("missing.png")}).status, 0);
}

}  // namespace
