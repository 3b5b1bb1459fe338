#include "Poses.h"

#include <cerrno>
#include <fstream>
#include <sstream>
#include <system_error>

#include <Eigen/Geometry>

#include "ToolError.h"

namespace LumoTool {

std::map<int, LumoPose> readPoses(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw cannotRead(path, std::system_category().message(errno ? errno : ENOENT));
  std::map<int, LumoPose> poses;
  std::string line;
  int lineNumber = 0;
  while (std::getline(in, line)) {
    ++lineNumber;
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    std::istringstream fields(line);
    int frame = 0;
    Eigen::Matrix<double, 3, 4> T;
    fields >> frame;
    for (int r = 0; r < 3; ++r)
      for (int c = 0; c < 4; ++c) fields >> T(r, c);
    if (!fields) throw cannotRead(path, "line " + std::to_string(lineNumber) + " is not a frame number and 12 numbers");
    const Eigen::Quaterniond q(Eigen::Matrix3d(T.leftCols<3>()));
    LumoPose pose{};
    for (int i = 0; i < 3; ++i) pose.position[i] = T(i, 3);
    pose.orientation[0] = q.w();
    pose.orientation[1] = q.x();
    pose.orientation[2] = q.y();
    pose.orientation[3] = q.z();
    poses[frame] = pose;
  }
  return poses;
}

}  // namespace LumoTool
