// The README's host examples, built as a reader would build them, run on a
// sequence the command-line program renders.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>

#include "support/RunProgram.h"
#include "support/TempDir.h"
#include "synth/SyntheticStereo.h"

namespace {

using LumoTest::ProgramResult;
using LumoTest::runProgram;

class Examples : public testing::Test {
 protected:
  void SetUp() override {
    const ProgramResult r =
        runProgram(LUMO_TOOL, {"synth", "--out", dir_.path(), "--frames", "1", "--width", "320", "--height", "200"});
    ASSERT_EQ(r.status, 0) << r.err;
  }
  LumoTest::TempDir dir_;
};

double numberAfter(const std::string& text, const std::string& label) {
  const std::size_t at = text.find(label);
  return at == std::string::npos ? NAN : std::strtod(text.c_str() + at + label.size(), nullptr);
}

TEST_F(Examples, CHostMeasuresItsSyntheticWall) {
  const ProgramResult r = runProgram(LUMO_HOST_C, {dir_.file("config.yaml"), "320", "200"});
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("depth 320x200"), std::string::npos) << r.out;
  EXPECT_GT(numberAfter(r.out, "320x200, "), 50.0) << "per cent of pixels with depth: " << r.out;
  // 16 pixels apart before rectification is about f·B/16 = 256 px · 0.1 m / 16 = 1.6 m; the
  // rectifying rotation of the right camera takes a few pixels off that disparity.
  const double centre = numberAfter(r.out, "pixels with depth, ");
  EXPECT_GT(centre, 1.5) << r.out;
  EXPECT_LT(centre, 3.0) << r.out;

  EXPECT_EQ(runProgram(LUMO_HOST_C, {}).status, 2);
}

TEST_F(Examples, CppHostReadsAFrameAndAsksForAPoint) {
  const ProgramResult r = runProgram(LUMO_HOST_CPP, {dir_.file("config.yaml"), dir_.file("frame_000000.png")});
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  // The centre pixel sees the sphere in front of the back wall: its depth
  // equals the point's z, whatever it is.
  const double depth = numberAfter(r.out, "at depth ");
  const std::size_t open = r.out.find("point (");
  ASSERT_NE(open, std::string::npos) << r.out;
  double x = 0, y = 0, z = 0;
  ASSERT_EQ(std::sscanf(r.out.c_str() + open, "point (%lf, %lf, %lf)", &x, &y, &z), 3) << r.out;
  EXPECT_GT(depth, 1.0);
  EXPECT_NEAR(z, depth, 1e-3);
  EXPECT_NEAR(depth, LumoSynth::readDepth(dir_.file("depth_000000.ldep")).at<float>(100, 160), 0.05 * depth);

  EXPECT_NE(runProgram(LUMO_HOST_CPP, {dir_.file("config.yaml"), dir_.file("missing.png")}).status, 0);
}

}  // namespace
