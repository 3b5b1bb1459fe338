// A tracker's trajectory: the data sets' ground-truth CSV ("#timestamp,
// p_RS_R_x, p_RS_R_y, p_RS_R_z, q_RS_w, q_RS_x, q_RS_y, q_RS_z, ...", time in
// nanoseconds) or the common text form "t x y z qx qy qz qw" (seconds or
// nanoseconds). Each pose maps points of the tracked body into the world.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <Eigen/Geometry>

namespace LumoTool {

class Trajectory {
 public:
  // Throws ToolError "cannot read" naming the first line that is no pose.
  static Trajectory read(const std::string& path);

  // The pose at time `t` (nanoseconds), interpolated between the samples
  // around it (position linearly, orientation along the shortest arc); false
  // outside the trajectory or across a gap of more than a second.
  bool at(std::uint64_t t, Eigen::Isometry3d* pose) const;

  std::size_t size() const { return samples_.size(); }
  std::uint64_t first() const { return samples_.front().t; }
  std::uint64_t last() const { return samples_.back().t; }
  bool inSeconds() const { return seconds_; }  // the file's times were seconds

 private:
  struct Sample {
    std::uint64_t t;
    Eigen::Vector3d p;
    Eigen::Quaterniond q;
  };
  std::vector<Sample> samples_;
  bool seconds_ = false;
};

// Nanoseconds of a time text: seconds ("1403636579.7635" or "12.5") when
// `seconds`, else nanoseconds. False for text that is no time.
bool parseTime(const std::string& text, bool seconds, std::uint64_t* ns);

}  // namespace LumoTool
