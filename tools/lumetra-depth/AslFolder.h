// Recordings in the folder layout of the public EuRoC-style data sets:
// mav0/cam0/data.csv ("#timestamp [ns],filename" rows) with the images in
// mav0/cam0/data/, the same for cam1, and a sensor.yaml per camera.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace LumoTool {

struct AslPair {
  std::uint64_t timestamp = 0;  // nanoseconds, as in the file names
  std::string left, right;      // image paths
};

struct AslFolder {
  std::string mav0;            // the folder holding cam0/ and cam1/
  std::vector<AslPair> pairs;  // views of both cameras with the same time stamp, in time order
  int unpairedLeft = 0, unpairedRight = 0;

  // The mav0 folder of an input given as mav0/ or as the folder holding it;
  // empty when the input is neither.
  static std::string find(const std::string& input);
  // Reads both cameras' data.csv and pairs their rows by time stamp. Throws
  // ToolError for an unreadable or malformed CSV, a row naming a missing
  // image, or no pair at all.
  static AslFolder read(const std::string& mav0);
};

}  // namespace LumoTool
