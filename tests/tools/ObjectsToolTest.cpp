// lumetra-depth objects on a rendered run: the scene's boxes and sphere
// placed within 2 % of their true distance, and the boxes files users get wrong.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>

#include "support/RunProgram.h"
#include "support/TempDir.h"
#include "synth/SyntheticStereo.h"

namespace {

using LumoTest::ProgramResult;
using LumoTest::TempDir;
using LumoTest::tool;
using LumoTest::writeText;

constexpr int kWidth = 640, kHeight = 400;  // smaller views leave too few disparity steps for 2 %

using LumoTest::readCsv;
using Rows = std::vector<std::vector<std::string>>;

// Two rendered frames, their ground-truth boxes and a run on them, once per test process.
struct Run {
  TempDir dir;
  std::string sample = dir.file("sample"), results = dir.file("results"), config = sample + "/config.yaml";
  Run() {
    const ProgramResult synth = tool({"synth", "--out", sample, "--frames", "2", "--width", std::to_string(kWidth),
                                      "--height", std::to_string(kHeight), "--moving"});
    EXPECT_EQ(synth.status, 0) << synth.err;
    const ProgramResult run = tool({"run", config, sample, "--out", results, "--cloud-every", "0"});
    EXPECT_EQ(run.status, 0) << run.err;
  }
};
const Run& run() {
  static const Run r;
  return r;
}

TEST(ObjectsTool, PlacesTheScenesBoxesAndSphereWithinTwoPercentOfTheirTrueDistance) {
  const ProgramResult r = tool({"objects", run().config, run().results, run().sample + "/boxes.csv", "--out",
                                run().dir.file("objects")});
  ASSERT_EQ(r.status, 0) << r.err;
  const Rows rows = readCsv(run().dir.file("objects/objects.csv"));
  ASSERT_EQ(rows.size(), 9u);  // three boxes and the sphere in each frame
  EXPECT_EQ(rows[0].back(), "error_percent");
  // The centre and extent arithmetic is checked against the pinhole model in the
  // detection tests; here, how far each object is found from its true distance.
  for (std::size_t i = 1; i < rows.size(); ++i) {
    const std::vector<std::string>& row = rows[i];
    ASSERT_EQ(row.size(), 17u);
    EXPECT_EQ(row[7], "located") << i;
    const double distance = std::stod(row[8]), truth = std::stod(row[15]);
    EXPECT_LT(std::fabs(distance - truth) / truth, 0.02) << row[1] << " in frame " << row[0];
    // Distance and truth are printed to 0.1 mm, the error to 0.001 %.
    EXPECT_NEAR(std::stod(row[16]), 100.0 * (distance - truth) / truth, 100.0 * 1e-4 / truth + 5e-4);
  }
  int located = 0;
  ASSERT_EQ(std::sscanf(r.out.c_str() + r.out.find("located"), "located %d", &located), 1) << r.out;
  EXPECT_EQ(located, 8);
  EXPECT_TRUE(std::filesystem::exists(run().dir.file("objects/objects_000001.png")));
}

TEST(ObjectsTool, BadBoxesFilesGetOneLineAndBoxesWithoutDepthSaySo) {
  const TempDir dir;
  const std::string boxes = dir.file("boxes.csv");
  const auto objects = [&](const std::vector<std::string>& extra) {
    std::vector<std::string> args = {"objects", run().config, run().results, boxes, "--out", dir.file("out")};
    args.insert(args.end(), extra.begin(), extra.end());
    return tool(args);
  };
  const auto expectOneLine = [&](const ProgramResult& r, const std::string& message) {
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "lumetra-depth: " + message + "\n");
  };
  const std::string quoted = "'" + boxes + "'";
  expectOneLine(objects({}), "cannot read " + quoted + ": No such file or directory");
  for (const auto& [text, message] : std::vector<std::pair<std::string, std::string>>{
           {"", "cannot read " + quoted + ": no boxes in it"},
           {"frame,class,score,x0,y0,x1,y1\n0,box,1,1,2,3\n",
            quoted + " line 2: 6 values; a box is frame,class,score,x0,y0,x1,y1[,true_distance]"},
           {"# boxes\n0,box,nan,1,2,3,4\n", quoted + " line 2: score 'nan' is not a number"},
           {"-1,box,1,1,2,3,4\n", quoted + " line 1: frame '-1' is not a frame number"}}) {
    writeText(boxes, text);
    expectOneLine(objects({}), message);
  }
  writeText(dir.file("huge.txt"), std::string(2 << 20, 'x'));
  writeText(boxes, "0,box,1,1,2,3,4\n");
  expectOneLine(objects({"--labels", dir.file("huge.txt")}),
                "label list '" + dir.file("huge.txt") + "' is 2097152 bytes, more than the 1 MB allowed");

  // Off the image, in the band the matcher cannot search, a class number with
  // labels, a score under --min-score, a frame the run does not have.
  writeText(dir.file("labels.txt"), "person\nbicycle\ncar\n");
  writeText(boxes, "0,box,1,700,10,800,50\n0,band,1,0,100,40,200\n0,2,0.9,480,170,520,210\n0,low,0.2,1,1,9,9\n"
                   "5,box,1,1,1,9,9\n");
  const ProgramResult r = objects({"--labels", dir.file("labels.txt"), "--min-score", "0.5"});
  ASSERT_EQ(r.status, 0) << r.err;
  const Rows rows = readCsv(dir.file("out/objects.csv"));
  ASSERT_EQ(rows.size(), 4u);
  EXPECT_EQ(rows[1][7], "outside");
  EXPECT_EQ(rows[2][7], "no depth");
  EXPECT_EQ(rows[2][8] + rows[2][10], "0.00000.0000");  // no position made up
  EXPECT_EQ(rows[3][1], "car");
  EXPECT_EQ(rows[3][7], "located");
  EXPECT_NE(r.out.find("1 frames of the boxes file have no depth"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("1 boxes reach beyond the 640x400 depth images"), std::string::npos) << r.out;

  // Float depth is taken before millimetres.
  const std::string results = dir.file("float");
  std::filesystem::create_directories(results);
  ASSERT_TRUE(cv::imwrite(results + "/depth_000000.tiff", cv::Mat(kHeight, kWidth, CV_32FC1, cv::Scalar(2.5f))));
  std::filesystem::copy_file(run().results + "/depth_000000.png", results + "/depth_000000.png");
  writeText(boxes, "0,wall,1,100,100,140,140\n");
  ASSERT_EQ(tool({"objects", run().config, results, boxes}).status, 0);
  EXPECT_EQ(readCsv(results + "/objects.csv")[1][8], "2.5000");
}

}  // namespace
